// Qel::MountFlags: the numeric flags of a mount, and their letter form.
//
// A mount is requested with an entity URI whose query carries the flags as letters
// ("/a/b?flags=Cnp"). Each letter stands for one bit:
//
//   'r' 0x001 read          'C' 0x010 mounted now, converted to writable later
//   'w' 0x002 writable      'S' 0x020 carried to the peer unchanged
//   'c' 0x004 create        'p' 0x040 the suffix letter p ("p" or "np")
//   'i' 0x008 carried to    'n' 0x080 the negation in the suffix "np"
//             the peer      'f' 0x100 force    'D' 0x200 directory    'B' 0x400 blocking
//
// A flags value is any number up to kMax (0x3ffff); the bits above 0x400 have no letter. Building
// a value above kMax, from a number or by exclusive or, throws RangeException with the fixed text
// "Flags::value > 0x3ffff not allowed".
//
// text() spells the lettered bits in the order in which a mount request composes them (access
// letters r, w, C, c, then i, S, then f, D, B, then the suffix n, p), so that text() of a parsed
// request reproduces it: "Cnp", "wiSp". Bits without a letter follow as "+0x..." in hex.
//
// parseMountFlags(query) reads the "flags" parameter of a URI query ("flags=Cnp", possibly among
// other "&"-separated parameters). No "flags" parameter means no flags. An unknown letter, or a
// second "flags" parameter, throws ParseException. mountFlagsLetters(query) gives the letters of
// each "flags" parameter as written, for a reader that shows them.
//
// A plain value; thread-safe as any value is.
#pragma once

#include "Qel/Core/Api.h"

#include <string_view>
#include <vector>

#include "Qel/Core/Types.h"
#include "Qel/Reflection/BoxedValue.h"

namespace Qel {

class QEL_API MountFlags {
 public:
  static constexpr bool kQelValueType = true;
  static constexpr U32 kMax = 0x3ffff;

  static constexpr U32 kRead = 0x1;
  static constexpr U32 kWrite = 0x2;
  static constexpr U32 kCreate = 0x4;
  static constexpr U32 kLetterI = 0x8;
  static constexpr U32 kConvertible = 0x10;
  static constexpr U32 kLetterS = 0x20;
  static constexpr U32 kSuffixP = 0x40;
  static constexpr U32 kSuffixN = 0x80;
  static constexpr U32 kForce = 0x100;
  static constexpr U32 kDirectory = 0x200;
  static constexpr U32 kBlocking = 0x400;

  MountFlags() = default;
  // Throws RangeException when `value` > kMax.
  explicit MountFlags(U32 value);

  U32 value() const { return value_; }
  // Whether every bit of `bits` is set.
  bool has(U32 bits) const { return (value_ & bits) == bits; }
  bool empty() const { return value_ == 0; }

  // The bitwise exclusive or; range-checked like the constructor.
  MountFlags operator^(MountFlags const& o) const { return MountFlags(value_ ^ o.value_); }
  friend bool operator==(MountFlags const&, MountFlags const&) = default;

  // The letters (see the header comment).
  String text() const;

  // The bit of a flag letter; 0 when the letter is unknown.
  static U32 bitOf(char letter);
  // The letters of `letters` as flags; throws ParseException on an unknown letter.
  static MountFlags fromLetters(String const& letters);

  static QelType const* staticType();

 private:
  U32 value_ = 0;
};

// The flags of an entity URI's query; see the header comment.
QEL_API MountFlags parseMountFlags(String const& query);
// The letters of each "flags" parameter of `query`, as written, in their order; they point into
// `query`.
QEL_API std::vector<std::string_view> mountFlagsLetters(std::string_view query);

}  // namespace Qel
