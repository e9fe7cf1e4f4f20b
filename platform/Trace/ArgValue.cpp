#include "Trace/ArgValue.h"

#include <charconv>

namespace Trace {

namespace {

void appendUnsigned(std::string& out, std::uint64_t value, int base) {
  char digits[24];
  auto const result = std::to_chars(digits, digits + sizeof digits, value, base);
  out.append(digits, result.ptr);
}

void appendSigned(std::string& out, std::int64_t value) {
  char digits[24];
  auto const result = std::to_chars(digits, digits + sizeof digits, value);
  out.append(digits, result.ptr);
}

template <class F>
void appendFloating(std::string& out, F value) {
  char digits[64];
  auto const result = std::to_chars(digits, digits + sizeof digits, value);
  out.append(digits, result.ptr);
}

// The low bits of value that make up an integer of the given kind's width.
std::uint64_t widthMask(ArgKind kind) {
  std::size_t const bytes = fixedBytes(kind);
  if (bytes >= 8) return ~std::uint64_t{0};
  return (std::uint64_t{1} << (8 * bytes)) - 1;
}

}  // namespace

void ArgValue::appendTo(std::string& out, bool hex) const {
  switch (kind) {
    case ArgKind::Bool:
      out += u != 0 ? "true" : "false";
      return;
    case ArgKind::Char:
      if (hex) return appendUnsigned(out, u & 0xff, 16);
      out += static_cast<char>(u);
      return;
    case ArgKind::I8:
    case ArgKind::I16:
    case ArgKind::I32:
    case ArgKind::I64:
      if (hex) return appendUnsigned(out, static_cast<std::uint64_t>(i) & widthMask(kind), 16);
      return appendSigned(out, i);
    case ArgKind::U8:
    case ArgKind::U16:
    case ArgKind::U32:
    case ArgKind::U64:
      return appendUnsigned(out, u, hex ? 16 : 10);
    case ArgKind::F32:
      return appendFloating(out, f);
    case ArgKind::F64:
      return appendFloating(out, d);
    case ArgKind::String:
      out += s;
      return;
    case ArgKind::Pointer:
      if (!hex) out += "0x";
      return appendUnsigned(out, u, 16);
  }
}

}  // namespace Trace
