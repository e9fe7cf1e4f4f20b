// Cell: the number of the cell the database process runs on. The system has exactly two cells,
// 1 and 2, one process on each; the peer cell of cell c is 3 - c. The number is 1 until the
// process sets it (at start-up, from its configuration). Setting a number other than 1 or 2
// throws Qel::RangeException "Cell::cellId < 1 or > 2 not allowed" and keeps the present one.
// Single-threaded.
#pragma once

#include "Qel/Core/Api.h"

namespace Cell {

QEL_API int cellId();
QEL_API void cellIdIs(int id);

}  // namespace Cell
