// The framework's exceptions. Each carries a fixed text that callers and tests compare exactly.
//
//   RangeException       a value outside its allowed range, an empty lookup that must yield an
//                        entry ("null ValidPtr"), an exhausted index space.
//   NameInUseException   re-creating an entity under an existing name with other constructor
//                        attributes.
//   ConstInstanceException  a write through the read-only view of an instance.
//   TypeException        a type or attribute that the reflection does not know.
//   ParseException       text that does not form a value of the requested type.
#pragma once

#include "Qel/Core/Api.h"

#include <stdexcept>
#include <string>

namespace Qel {

class QEL_API Exception : public std::runtime_error {
 public:
  explicit Exception(std::string const& what) : std::runtime_error(what) {}
};

class QEL_API RangeException : public Exception {
 public:
  using Exception::Exception;
};

class QEL_API NameInUseException : public Exception {
 public:
  using Exception::Exception;
};

class QEL_API ConstInstanceException : public Exception {
 public:
  ConstInstanceException() : Exception("attempting to modify a const instance") {}
};

class QEL_API TypeException : public Exception {
 public:
  using Exception::Exception;
};

class QEL_API ParseException : public Exception {
 public:
  using Exception::Exception;
};

// The text of the range error raised when a lookup that must yield an entry yields none.
inline constexpr char const* kNullValidPtr = "null ValidPtr";

}  // namespace Qel
