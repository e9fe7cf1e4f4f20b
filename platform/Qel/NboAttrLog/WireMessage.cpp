#include "Qel/NboAttrLog/WireMessage.h"

#include <cstdio>

#include "Check/Check.h"

namespace Qel::NboAttrLog {

namespace {

// Each text field and count is at least this long on the wire.
constexpr std::size_t kCountBytes = 4;

void putU8(std::string& out, U8 v) {
  out.push_back(static_cast<char>(v));
}

void putU32(std::string& out, U32 v) {
  for (int shift = 24; shift >= 0; shift -= 8)
    out.push_back(static_cast<char>((v >> shift) & 0xff));
}

void putU64(std::string& out, U64 v) {
  for (int shift = 56; shift >= 0; shift -= 8)
    out.push_back(static_cast<char>((v >> shift) & 0xff));
}

void putText(std::string& out, std::string_view s) {
  QEL_CHECK(s.size() <= 0xffffffffu, "s.size() <= 0xffffffffu && \"text too long for a frame\"");
  putU32(out, static_cast<U32>(s.size()));
  out.append(s);
}

void putFlag(std::string& out, bool v) {
  putU8(out, v ? 1 : 0);
}

U32 readU32(unsigned char const* p) {
  return (U32(p[0]) << 24) | (U32(p[1]) << 16) | (U32(p[2]) << 8) | U32(p[3]);
}

// Thrown by BodyReader on the first field that does not parse; caught in decodeBody.
struct Malformed {
  std::string text;
};

// Reads the fields of one frame body in order, refusing anything that does not fit exactly.
class BodyReader {
 public:
  BodyReader(std::string_view body, char const* kind) : body_(body), kind_(kind) {}

  U8 u8(char const* field) {
    need(1, field);
    return static_cast<U8>(body_[pos_++]);
  }
  U32 u32(char const* field) {
    need(4, field);
    U32 const v = readU32(reinterpret_cast<unsigned char const*>(body_.data() + pos_));
    pos_ += 4;
    return v;
  }
  U64 u64(char const* field) {
    U64 const hi = u32(field);
    U64 const lo = u32(field);
    return (hi << 32) | lo;
  }
  bool flag(char const* field) {
    U8 const v = u8(field);
    if (v > 1) {
      fail(std::string(field) + " must be 0 or 1, not " + std::to_string(v));
    }
    return v == 1;
  }
  String text(char const* field) {
    U32 const n = u32(field);
    if (n > left()) {
      fail(std::string(field) + " of " + std::to_string(n) +
           " bytes runs past the end of the frame (" + std::to_string(left()) + " bytes left)");
    }
    String s(body_.substr(pos_, n));
    pos_ += n;
    return s;
  }
  // A count of items each at least `minItemBytes` long; refused when they cannot fit.
  U32 count(char const* what, std::size_t minItemBytes) {
    U32 const n = u32(what);
    if (static_cast<std::size_t>(n) * minItemBytes > left()) {
      fail(std::to_string(n) + " " + what + " cannot fit in the " + std::to_string(left()) +
           " bytes left");
    }
    return n;
  }
  void end() {
    if (left() == 0) return;
    fail(std::to_string(left()) + " bytes after the last field");
  }
  [[noreturn]] void fail(std::string const& detail) const {
    throw Malformed{"malformed " + std::string(kind_) + ": " + detail};
  }

 private:
  std::size_t left() const { return body_.size() - pos_; }
  void need(std::size_t n, char const* field) const {
    if (n <= left()) return;
    fail(std::string(field) + " runs past the end of the frame (" + std::to_string(left()) +
         " bytes left, " + std::to_string(n) + " needed)");
  }

  std::string_view body_;
  char const* kind_;
  std::size_t pos_ = 1;  // after the kind byte
};

WireMessage decodeHello(BodyReader& r) {
  WireHello m;
  m.protocolVersion = r.u32("protocolVersion");
  m.agentName = r.text("agentName");
  m.agentString = r.text("agentString");
  return m;
}

WireMessage decodeMountRequest(BodyReader& r) {
  WireMountRequest m;
  m.seqno = r.u32("seqno");
  m.uri = r.text("uri");
  m.typeName = r.text("typeName");
  m.stateFollows = r.flag("stateFollows");
  return m;
}

WireMessage decodeEntityState(BodyReader& r) {
  WireEntityState m;
  m.seqno = r.u32("seqno");
  m.path = r.text("path");
  m.typeName = r.text("typeName");
  m.directory = r.flag("directory");
  U32 const attrs = r.count("attributes", 2 * kCountBytes);
  m.attributes.reserve(attrs);
  for (U32 i = 0; i < attrs; ++i) {
    String name = r.text("attribute name");
    String value = r.text("attribute value");
    m.attributes.emplace_back(std::move(name), std::move(value));
  }
  U32 const entries = r.count("entries", kCountBytes);
  if (entries > 0 && !m.directory) r.fail("entries on an entity that is not a directory");
  m.entries.reserve(entries);
  for (U32 i = 0; i < entries; ++i)
    m.entries.push_back(r.text("entry"));
  return m;
}

WireMessage decodeMountAnswer(BodyReader& r) {
  WireMountAnswer m;
  m.seqno = r.u32("seqno");
  m.path = r.text("path");
  m.ok = r.flag("ok");
  m.exceptionText = r.text("exceptionText");
  m.pathState = r.u8("pathState");
  if (U8 const unknown = m.pathState & ~WireMountAnswer::kAllBits; unknown != 0) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "0x%02x", unsigned(unknown));
    r.fail(std::string("unknown pathState bits ") + hex);
  }
  m.monitoringEid = r.u64("monitoringEid");
  return m;
}

WireMessage decodeClose(BodyReader& r) {
  WireClose m;
  m.reason = r.text("reason");
  return m;
}

}  // namespace

char const* wireKindName(WireKind kind) {
  switch (kind) {
    case WireKind::hello:
      return "Hello";
    case WireKind::mountRequest:
      return "MountRequest";
    case WireKind::entityState:
      return "EntityState";
    case WireKind::mountAnswer:
      return "MountAnswer";
    case WireKind::close:
      return "Close";
  }
  return "unknown";
}

MountTable::PathState WireMountAnswer::pathStateValue() const {
  MountTable::PathState s;
  s.mountedIs(pathState & kMounted)
      .completeIs(pathState & kComplete)
      .synchronisedIs(pathState & kSynchronised)
      .mountPointIs(pathState & kMountPoint)
      .monitoringIs(pathState & kMonitoring)
      .monitoringEidIs(monitoringEid);
  return s;
}

U8 WireMountAnswer::pathStateBits(MountTable::PathState const& s) {
  return static_cast<U8>((s.mounted() ? kMounted : 0) | (s.complete() ? kComplete : 0) |
                         (s.synchronised() ? kSynchronised : 0) |
                         (s.mountPoint() ? kMountPoint : 0) | (s.monitoring() ? kMonitoring : 0));
}

WireKind wireKind(WireMessage const& m) {
  return static_cast<WireKind>(m.index() + 1);
}

void wireSeqnoIs(char* frame, U32 seqno) {
  char* const at = frame + WireDecoder::kHeaderBytes + 1;
  for (int i = 0; i < 4; ++i)
    at[i] = static_cast<char>((seqno >> (24 - 8 * i)) & 0xff);
}

void wireMountRequestAppend(std::string& out, U32 seqno, std::string_view uri,
                            std::string_view typeName, bool stateFollows) {
  std::size_t const body = 1 + 4 + 4 + uri.size() + 4 + typeName.size() + 1;
  QEL_CHECK(body <= 0xffffffffu, "body <= 0xffffffffu && \"frame too long\"");
  out.reserve(out.size() + WireDecoder::kHeaderBytes + body);
  putU32(out, static_cast<U32>(body));
  putU8(out, static_cast<U8>(WireKind::mountRequest));
  putU32(out, seqno);
  putText(out, uri);
  putText(out, typeName);
  putFlag(out, stateFollows);
}

std::string wireFrame(WireMessage const& m) {
  // A mount request has its own writer: the transport appends requests to its output with it.
  if (auto const* request = std::get_if<WireMountRequest>(&m)) {
    std::string out;
    wireMountRequestAppend(out, request->seqno, request->uri, request->typeName,
                           request->stateFollows);
    return out;
  }
  std::string out(WireDecoder::kHeaderBytes, '\0');
  putU8(out, static_cast<U8>(wireKind(m)));
  std::visit(
      [&out](auto const& msg) {
        using M = std::decay_t<decltype(msg)>;
        if constexpr (std::is_same_v<M, WireHello>) {
          putU32(out, msg.protocolVersion);
          putText(out, msg.agentName);
          putText(out, msg.agentString);
        } else if constexpr (std::is_same_v<M, WireEntityState>) {
          putU32(out, msg.seqno);
          putText(out, msg.path);
          putText(out, msg.typeName);
          putFlag(out, msg.directory);
          putU32(out, static_cast<U32>(msg.attributes.size()));
          for (auto const& [name, value] : msg.attributes) {
            putText(out, name);
            putText(out, value);
          }
          putU32(out, static_cast<U32>(msg.entries.size()));
          for (auto const& e : msg.entries)
            putText(out, e);
        } else if constexpr (std::is_same_v<M, WireMountAnswer>) {
          putU32(out, msg.seqno);
          putText(out, msg.path);
          putFlag(out, msg.ok);
          putText(out, msg.exceptionText);
          putU8(out, msg.pathState);
          putU64(out, msg.monitoringEid);
        } else if constexpr (!std::is_same_v<M, WireMountRequest>) {
          putText(out, msg.reason);
        }
      },
      m);
  std::size_t const body = out.size() - WireDecoder::kHeaderBytes;
  QEL_CHECK(body <= 0xffffffffu, "body <= 0xffffffffu && \"message too long for a frame\"");
  std::string header;
  putU32(header, static_cast<U32>(body));
  out.replace(0, WireDecoder::kHeaderBytes, header);
  return out;
}

std::string wireText(WireMessage const& m) {
  return std::visit(
      [](auto const& msg) -> std::string {
        using M = std::decay_t<decltype(msg)>;
        if constexpr (std::is_same_v<M, WireHello>) {
          return "Hello " + msg.agentName + " '" + msg.agentString + "' version " +
                 std::to_string(msg.protocolVersion);
        } else if constexpr (std::is_same_v<M, WireMountRequest>) {
          return "MountRequest " + std::to_string(msg.seqno) + " " + msg.uri + " type " +
                 msg.typeName + (msg.stateFollows ? " with state" : "");
        } else if constexpr (std::is_same_v<M, WireEntityState>) {
          return "EntityState " + std::to_string(msg.seqno) + " " + msg.path + " type " +
                 msg.typeName + " " + std::to_string(msg.attributes.size()) + " attributes" +
                 (msg.directory ? " " + std::to_string(msg.entries.size()) + " entries" : "");
        } else if constexpr (std::is_same_v<M, WireMountAnswer>) {
          return "MountAnswer " + std::to_string(msg.seqno) + " " + msg.path +
                 (msg.ok ? std::string(" ok") : " failed: " + msg.exceptionText);
        } else {
          return "Close " + msg.reason;
        }
      },
      m);
}

WireDecoder::WireDecoder(std::size_t maxFrame) : maxFrame_(maxFrame) {
  QEL_CHECK(maxFrame >= 1, "maxFrame >= 1 && \"a frame limit of at least one byte\"");
}

void WireDecoder::maxFrameIs(std::size_t bytes) {
  QEL_CHECK(bytes >= 1, "bytes >= 1 && \"a frame limit of at least one byte\"");
  maxFrame_ = bytes;
}

void WireDecoder::feed(std::string_view bytes) {
  if (failed()) return;
  compact();
  buffer_.append(bytes);
}

void WireDecoder::compact() {
  if (offset_ == 0) return;
  // Move the unread bytes to the front once they are the smaller part: amortised O(1) per byte.
  if (offset_ < buffer_.size() - offset_ && offset_ < 4096) return;
  buffer_.erase(0, offset_);
  offset_ = 0;
}

WireDecoder::Result WireDecoder::fail(String text) {
  error_ = std::move(text);
  buffer_.clear();
  offset_ = 0;
  return Result::error;
}

WireDecoder::Result WireDecoder::next(WireMessage& out) {
  if (failed()) return Result::error;
  if (buffered() < kHeaderBytes) return Result::none;
  U32 const length = readU32(reinterpret_cast<unsigned char const*>(buffer_.data() + offset_));
  if (length == 0) return fail("empty frame");
  if (length > maxFrame_) {
    return fail("frame of " + std::to_string(length) + " bytes exceeds the limit of " +
                std::to_string(maxFrame_) + " bytes");
  }
  if (buffered() < kHeaderBytes + length) return Result::none;
  std::string_view const body(buffer_.data() + offset_ + kHeaderBytes, length);
  String error;
  if (!decodeBody(body, out, error)) return fail(std::move(error));
  offset_ += kHeaderBytes + length;
  if (offset_ == buffer_.size()) {
    buffer_.clear();
    offset_ = 0;
  }
  return Result::message;
}

String WireDecoder::truncation() const {
  std::size_t const have = buffered();
  if (have == 0) return {};
  if (have < kHeaderBytes) {
    return "truncated frame: " + std::to_string(have) + " of " + std::to_string(kHeaderBytes) +
           " length bytes received";
  }
  U32 const length = readU32(reinterpret_cast<unsigned char const*>(buffer_.data() + offset_));
  return "truncated frame: " + std::to_string(have - kHeaderBytes) + " of " +
         std::to_string(length) + " body bytes received";
}

bool WireDecoder::decodeBody(std::string_view body, WireMessage& out, String& error) {
  if (body.empty()) {
    error = "empty frame";
    return false;
  }
  U8 const kind = static_cast<U8>(body[0]);
  if (kind < static_cast<U8>(WireKind::hello) || kind > static_cast<U8>(WireKind::close)) {
    error = "unknown message kind " + std::to_string(kind);
    return false;
  }
  BodyReader r(body, wireKindName(static_cast<WireKind>(kind)));
  try {
    switch (static_cast<WireKind>(kind)) {
      case WireKind::hello:
        out = decodeHello(r);
        break;
      case WireKind::mountRequest:
        out = decodeMountRequest(r);
        break;
      case WireKind::entityState:
        out = decodeEntityState(r);
        break;
      case WireKind::mountAnswer:
        out = decodeMountAnswer(r);
        break;
      case WireKind::close:
        out = decodeClose(r);
        break;
    }
    r.end();
  } catch (Malformed const& m) {
    error = m.text;
    return false;
  }
  return true;
}

}  // namespace Qel::NboAttrLog
