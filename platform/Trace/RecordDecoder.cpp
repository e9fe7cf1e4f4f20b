#include "Trace/RecordDecoder.h"

#include <array>
#include <cstring>
#include <string>

#include "Trace/FormatString.h"
#include "Trace/Ringlog.h"

namespace Trace {

namespace {

template <class T>
T load(std::uint8_t const* in) {
  T value;
  std::memcpy(&value, in, sizeof value);
  return value;
}

ArgValue valueAt(ArgKind kind, std::uint8_t const* in) {
  switch (kind) {
    case ArgKind::Bool:
      return ArgValue::ofUnsigned(kind, *in != 0 ? 1 : 0);
    case ArgKind::Char:
    case ArgKind::U8:
      return ArgValue::ofUnsigned(kind, *in);
    case ArgKind::U16:
      return ArgValue::ofUnsigned(kind, load<std::uint16_t>(in));
    case ArgKind::U32:
      return ArgValue::ofUnsigned(kind, load<std::uint32_t>(in));
    case ArgKind::U64:
    case ArgKind::Pointer:
      return ArgValue::ofUnsigned(kind, load<std::uint64_t>(in));
    case ArgKind::I8:
      return ArgValue::ofSigned(kind, load<std::int8_t>(in));
    case ArgKind::I16:
      return ArgValue::ofSigned(kind, load<std::int16_t>(in));
    case ArgKind::I32:
      return ArgValue::ofSigned(kind, load<std::int32_t>(in));
    case ArgKind::I64:
      return ArgValue::ofSigned(kind, load<std::int64_t>(in));
    case ArgKind::F32:
      return ArgValue::ofFloat(load<float>(in));
    case ArgKind::F64:
      return ArgValue::ofDouble(load<double>(in));
    case ArgKind::String:
      break;
  }
  return ArgValue::ofString({});
}

std::string siteText(std::uint32_t id) {
  return "call site " + std::to_string(id);
}

// Throws unless the site's format has one fitting placeholder per argument kind.
void checkSite(std::uint32_t id, Site const& site) {
  FormatShape const shape = shapeOf(site.format);
  if (shape.error != FormatError::None) {
    throw DumpError(siteText(id) + " has a malformed format: " + formatErrorText(shape.error));
  }
  if (shape.fields != site.kinds.size()) {
    throw DumpError(siteText(id) + " has " + std::to_string(shape.fields) + " placeholders for " +
                    std::to_string(site.kinds.size()) + " arguments");
  }
  for (std::size_t i = 0; i < site.kinds.size(); ++i) {
    if (shape.hex[i] && !acceptsHex(site.kinds[i])) {
      throw DumpError(siteText(id) + " asks for hex of an argument that has none");
    }
  }
}

}  // namespace

RecordDecoder::RecordDecoder(std::span<Site const> sites, TickCalibration const& calibration)
    : sites_(sites), calibration_(calibration) {}

Line RecordDecoder::decode(std::span<std::uint8_t const> record) const {
  std::size_t const size = record.size();
  if (size < Ringlog::kHeaderBytes) {
    throw DumpError("record of " + std::to_string(size) + " bytes is shorter than its header");
  }
  std::uint8_t const* const bytes = record.data();
  if (load<std::uint16_t>(bytes) != size) {
    throw DumpError("record size field does not match its " + std::to_string(size) + " bytes");
  }
  auto const id = load<std::uint32_t>(bytes + 2);
  if (id >= sites_.size()) {
    throw DumpError("record names " + siteText(id) + " of a table of " +
                    std::to_string(sites_.size()));
  }
  Site const& site = sites_[id];
  checkSite(id, site);

  std::array<ArgValue, kMaxArgs> values;
  std::size_t position = Ringlog::kHeaderBytes;
  for (std::size_t i = 0; i < site.kinds.size(); ++i) {
    ArgKind const kind = site.kinds[i];
    std::size_t const need =
        kind == ArgKind::String && position < size ? 1 + bytes[position] : fixedBytes(kind);
    if (need == 0 || position + need > size) {
      throw DumpError("record of " + std::to_string(size) + " bytes ends inside argument " +
                      std::to_string(i + 1) + " of " + siteText(id));
    }
    values[i] = kind == ArgKind::String
                    ? ArgValue::ofString(std::string_view(
                          reinterpret_cast<char const*>(bytes + position + 1), need - 1))
                    : valueAt(kind, bytes + position);
    position += need;
  }
  if (position != size) {
    throw DumpError("record of " + std::to_string(size) + " bytes has " +
                    std::to_string(size - position) + " bytes after its arguments");
  }

  Line line;
  line.seconds = calibration_.secondsAt(load<std::uint64_t>(bytes + 6));
  line.facility = site.facility;
  line.level = site.level;
  formatMessage(line.message, site.format,
                std::span<ArgValue const>(values.data(), site.kinds.size()));
  return line;
}

}  // namespace Trace
