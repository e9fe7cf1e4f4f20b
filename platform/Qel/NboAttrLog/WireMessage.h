// The messages of an agent connection on a byte stream, and their codec.
//
// A frame is a 4-byte big-endian body length followed by the body; the first byte of the body is
// the message kind. Integers are big-endian (U8, U32, U64); a text is a U32 byte count followed by
// the bytes; a flag is one byte, 0 or 1. The messages:
//
//   Hello        (1) agent -> database  U32 protocolVersion, text agentName, text agentString
//   MountRequest (2) database -> agent  U32 seqno, text uri ("path?flags=letters"), text typeName,
//                                       flag stateFollows (an EntityState of the same seqno
//                                       follows)
//   EntityState  (3) database -> agent  U32 seqno, text path, text typeName, flag directory,
//                                       U32 n, n x (text name, text value), U32 m, m x text entry
//   MountAnswer  (4) agent -> database  U32 seqno, text path, flag ok, text exceptionText,
//                                       U8 pathState bits, U64 monitoringEid
//   Close        (5) either way         text reason
//
// Encoding (wireFrame) never fails. WireDecoder takes the received bytes in any split and yields
// whole messages in order. It refuses, with a reason text, a frame whose declared length is 0 or
// above its maximum (checked as soon as the 4 length bytes are in, before the body arrives), an
// unknown kind, and a body that does not parse exactly: a field that runs past the end of the
// frame, a count that cannot fit in the bytes left, a flag other than 0 or 1, unknown path state
// bits, entries on an entity that is not a directory, or bytes left over after the last field.
// Once it has refused, a decoder stays failed and yields nothing more: the stream cannot be
// resynchronised.
//
// Plain values and a decoder object; not thread-safe, like every value.
#pragma once

#include "Qel/Core/Api.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Qel/Core/Types.h"
#include "Qel/Mount/MountTable.h"

namespace Qel::NboAttrLog {

enum class WireKind : U8 {
  hello = 1,
  mountRequest = 2,
  entityState = 3,
  mountAnswer = 4,
  close = 5,
};

// "Hello", "MountRequest", "EntityState", "MountAnswer", "Close".
QEL_API char const* wireKindName(WireKind kind);

struct WireHello {
  U32 protocolVersion = MountTable::kProtocolVersion;
  String agentName;
  String agentString;
  friend bool operator==(WireHello const&, WireHello const&) = default;
};

struct WireMountRequest {
  U32 seqno = 0;
  String uri;
  String typeName;
  bool stateFollows = false;
  friend bool operator==(WireMountRequest const&, WireMountRequest const&) = default;
};

struct WireEntityState {
  U32 seqno = 0;
  String path;
  String typeName;
  bool directory = false;
  std::vector<std::pair<String, String>> attributes;  // (name, value as text), in type order
  std::vector<String> entries;                        // entry names of a directory, in name order
  friend bool operator==(WireEntityState const&, WireEntityState const&) = default;
};

struct WireMountAnswer {
  // The bits of pathState.
  static constexpr U8 kMounted = 0x01;
  static constexpr U8 kComplete = 0x02;
  static constexpr U8 kSynchronised = 0x04;
  static constexpr U8 kMountPoint = 0x08;
  static constexpr U8 kMonitoring = 0x10;
  static constexpr U8 kAllBits = 0x1f;
  // What a peer holding its copy of a mounted entity reports.
  static constexpr U8 kDefaultPathState = kMounted | kComplete | kSynchronised | kMountPoint;

  U32 seqno = 0;
  String path;
  bool ok = true;
  String exceptionText;
  U8 pathState = kDefaultPathState;
  U64 monitoringEid = 0;

  // The path state the bits describe, and the bits of a path state.
  MountTable::PathState pathStateValue() const;
  static U8 pathStateBits(MountTable::PathState const& s);
  friend bool operator==(WireMountAnswer const&, WireMountAnswer const&) = default;
};

struct WireClose {
  String reason;
  friend bool operator==(WireClose const&, WireClose const&) = default;
};

using WireMessage =
    std::variant<WireHello, WireMountRequest, WireEntityState, WireMountAnswer, WireClose>;

QEL_API WireKind wireKind(WireMessage const& m);
// The whole frame of `m`: length prefix and body.
QEL_API std::string wireFrame(WireMessage const& m);
// Appends the whole frame of a MountRequest to `out` (as wireFrame makes it).
QEL_API void wireMountRequestAppend(std::string& out, U32 seqno, std::string_view uri,
                                    std::string_view typeName, bool stateFollows);
// Sets the sequence number of a whole MountRequest or EntityState frame (length prefix included).
QEL_API void wireSeqnoIs(char* frame, U32 seqno);
// A one-line description for traces and test output, e.g. "MountAnswer 3 /a ok".
QEL_API std::string wireText(WireMessage const& m);

class QEL_API WireDecoder {
 public:
  static constexpr std::size_t kDefaultMaxFrame = std::size_t(1) << 20;
  static constexpr std::size_t kHeaderBytes = 4;

  enum class Result { none, message, error };

  // A decoder refusing frames whose body is longer than `maxFrame` bytes (at least 1).
  explicit WireDecoder(std::size_t maxFrame = kDefaultMaxFrame);

  std::size_t maxFrame() const { return maxFrame_; }
  // Applies to frames whose length has not been read yet.
  void maxFrameIs(std::size_t bytes);

  // Appends received bytes (nothing once the decoder has failed).
  void feed(std::string_view bytes);
  // The next whole message: message (stored in `out`), none (more bytes needed) or error (see
  // error(); this and every later call answer error).
  Result next(WireMessage& out);

  bool failed() const { return !error_.empty(); }
  String const& error() const { return error_; }
  // Received bytes not yet consumed by a message.
  std::size_t buffered() const { return buffer_.size() - offset_; }
  // Whether a frame has been started and not finished: a stream that ends now is truncated.
  bool midFrame() const { return buffered() > 0; }
  // What a stream that ends now lacks, e.g. "truncated frame: 7 of 20 body bytes received";
  // empty when no frame was started.
  String truncation() const;

  // Decodes one frame body (kind byte and fields). On failure returns false with `error` set.
  static bool decodeBody(std::string_view body, WireMessage& out, String& error);

 private:
  Result fail(String text);
  void compact();

  std::size_t maxFrame_;
  std::string buffer_;
  std::size_t offset_ = 0;
  String error_;
};

}  // namespace Qel::NboAttrLog
