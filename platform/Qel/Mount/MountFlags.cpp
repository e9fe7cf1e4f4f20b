#include "Qel/Mount/MountFlags.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <string_view>

#include "Qel/Core/Exception.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Qel {

namespace {

struct Letter {
  char letter;
  U32 bit;
};

// In the order text() spells them.
constexpr Letter kLetters[] = {
    {'r', MountFlags::kRead},    {'w', MountFlags::kWrite},     {'C', MountFlags::kConvertible},
    {'c', MountFlags::kCreate},  {'i', MountFlags::kLetterI},   {'S', MountFlags::kLetterS},
    {'f', MountFlags::kForce},   {'D', MountFlags::kDirectory}, {'B', MountFlags::kBlocking},
    {'n', MountFlags::kSuffixN}, {'p', MountFlags::kSuffixP},
};

constexpr U32 kLettered = [] {
  U32 all = 0;
  for (Letter const& l : kLetters)
    all |= l.bit;
  return all;
}();

// The bit of each character, 0 for those that are no flag letter.
constexpr std::array<U32, 256> kBitOf = [] {
  std::array<U32, 256> bits{};
  for (Letter const& l : kLetters)
    bits[static_cast<unsigned char>(l.letter)] = l.bit;
  return bits;
}();

}  // namespace

MountFlags::MountFlags(U32 value) : value_(value) {
  if (value > kMax) throw RangeException("Flags::value > 0x3ffff not allowed");
}

String MountFlags::text() const {
  // Gathered first, so that the text is made at once.
  char letters[std::size(kLetters)];
  std::size_t n = 0;
  for (Letter const& l : kLetters) {
    if (value_ & l.bit) letters[n++] = l.letter;
  }
  String out(letters, n);
  U32 const rest = value_ & ~kLettered;
  if (rest == 0) return out;
  char buf[16];
  std::snprintf(buf, sizeof buf, "+0x%x", rest);
  out += buf;
  return out;
}

U32 MountFlags::bitOf(char letter) {
  return kBitOf[static_cast<unsigned char>(letter)];
}

MountFlags MountFlags::fromLetters(String const& letters) {
  U32 value = 0;
  for (char c : letters) {
    U32 const bit = bitOf(c);
    if (bit == 0) {
      throw ParseException("unknown mount flag '" + std::string(1, c) + "' in \"" + letters + "\"");
    }
    value |= bit;
  }
  return MountFlags(value);
}

std::vector<std::string_view> mountFlagsLetters(std::string_view query) {
  static constexpr std::string_view kKey = "flags=";
  std::vector<std::string_view> found;
  for (std::size_t pos = 0; pos <= query.size();) {
    std::size_t const end = std::min(query.find('&', pos), query.size());
    std::string_view const param = query.substr(pos, end - pos);
    if (param.starts_with(kKey)) found.push_back(param.substr(kKey.size()));
    pos = end + 1;
  }
  return found;
}

MountFlags parseMountFlags(String const& query) {
  std::vector<std::string_view> const letters = mountFlagsLetters(query);
  if (letters.size() > 1) throw ParseException("mount flags given twice in \"" + query + "\"");
  return letters.empty() ? MountFlags() : MountFlags::fromLetters(String(letters.front()));
}

QelType const* MountFlags::staticType() {
  using Boxed = BoxedValue<MountFlags>;
  static QelType const* t = [] {
    TypeBuilder<Boxed> b("Qel::MountFlags", QelType::Kind::value);
    b.value<U32>("value", [](Boxed const& f) {
       return f.value().value();
     }).value<String>("text", [](Boxed const& f) { return f.value().text(); });
    b.type().boxerIs([](void const* native) {
      return GenericIf::PtrConst(Boxed::make(*static_cast<MountFlags const*>(native)));
    });
    return b.done();
  }();
  return t;
}

namespace {
[[maybe_unused]] QelType const* const kRegistered = MountFlags::staticType();
}

}  // namespace Qel
