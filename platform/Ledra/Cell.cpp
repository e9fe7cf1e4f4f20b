#include "Ledra/Cell.h"

#include "Qel/Core/Exception.h"

namespace Cell {

namespace {
int processCellId = 1;
}

int cellId() {
  return processCellId;
}

void cellIdIs(int id) {
  if (id < 1 || id > 2) throw Qel::RangeException("Cell::cellId < 1 or > 2 not allowed");
  processCellId = id;
}

}  // namespace Cell
