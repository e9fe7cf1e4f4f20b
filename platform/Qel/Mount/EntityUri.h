// Qel::EntityUri: the address of a database entity in a mount request, "path?query".
//
// Accepted forms: "/a/b", "/a/b?flags=Cnp", and the same with the explicit scheme prefix
// "entity:" ("entity:/a/b?flags=w"). The path is everything before the first '?', the query
// everything after it (without the '?'). A text that starts with another scheme (letters, digits,
// '+', '-' or '.' after a letter, then ':', before any '/' or '?') throws ParseException
// "not an entity URI: <text>"; so does a text with an empty path.
//
// text() gives the canonical form without the scheme prefix (kept only for a path that would read
// as a scheme itself, "entity:x:/a"): the path, then '?' and the query when it is not empty.
// flags() reads the mount flags of the query (parseMountFlags). A plain value.
#pragma once

#include "Qel/Core/Api.h"

#include "Qel/Core/Types.h"
#include "Qel/Mount/MountFlags.h"

namespace Qel {

class QEL_API EntityUri {
 public:
  static constexpr char const* kScheme = "entity";

  EntityUri() = default;
  // Parses `text`; see the header comment.
  explicit EntityUri(String const& text);
  EntityUri(String path, String query);

  String const& path() const { return path_; }
  String const& query() const { return query_; }
  String scheme() const { return String(kScheme); }
  MountFlags flags() const { return parseMountFlags(query_); }
  String text() const;

  friend bool operator==(EntityUri const&, EntityUri const&) = default;

 private:
  String path_;
  String query_;
};

}  // namespace Qel
