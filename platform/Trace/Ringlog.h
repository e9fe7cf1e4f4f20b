// Ringlog: compact binary trace records in an in-memory ring.
//
// A record is laid out as
//   u16 size    bytes of the whole record, header included
//   u32 site    index into the SiteTable (facility, level, format, argument kinds)
//   u64 ticks   Clock::ticks() when it was written
//   arguments   in call order: fixed-size kinds in their own width (native byte order), strings
//               as one length byte followed by that many bytes
// Records lie contiguous in the buffer. One that does not fit before the end of the buffer starts
// again at the beginning, and a size of 0 marks where the previous lap ended. Before a record is
// written over older ones, those are dropped whole, oldest first, so the bytes from tail to head
// are always complete records and a decoder never meets a half-overwritten one. To keep the write
// cheap, dropping frees capacity/16 bytes more than the new record needs in one go; once full, the
// ring thus holds the newest records filling at least 15/16 of its capacity, less the gap at a lap
// end.
//
// A string argument keeps at most 255 bytes: a longer one is stored as its longest prefix of at
// most 252 bytes that does not split a UTF-8 sequence, followed by "...".
//
// The buffer is allocated at the first record (and after capacityIs()), so the process-wide ring
// needs no dynamic initialisation and records written during static initialisation are kept.
//
// Invariants: tail_ and head_ are record boundaries (or the lap-end mark); tail_ == head_ exactly
// when the ring is empty; head_ <= capacity - 2, leaving room for a lap-end mark; a record of n
// bytes fits at head_ without dropping anything when head_ + n <= limit_.
//
// Threading: one thread. Records are written and decoded on the event loop's thread; nothing is
// locked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Check/Check.h"
#include "Trace/ArgKind.h"
#include "Trace/Clock.h"
#include "Trace/Line.h"
#include "Trace/SiteTable.h"

namespace Trace {

namespace detail {

// A string argument as it goes into a record: the bytes kept and whether "..." follows them.
struct WireString {
  char const* data;
  std::size_t length;
  bool cut;

  std::size_t bytes() const { return 1 + length + (cut ? 3 : 0); }
};

// The longest prefix of at most 252 bytes of text (which has more than 255 bytes) that does not
// end inside a UTF-8 sequence.
std::size_t cutLength(char const* text);

inline WireString wireString(std::string_view text) {
  if (text.size() <= kMaxStringBytes) return {text.data(), text.size(), false};
  return {text.data(), cutLength(text.data()), true};
}

inline WireString wireString(char const* text) {
  if (text == nullptr) return {"(null)", 6, false};
  std::size_t const length = strnlen(text, kMaxStringBytes + 1);
  if (length <= kMaxStringBytes) return {text, length, false};
  return {text, cutLength(text), true};
}

// An argument converted to what its record holds.
template <class T>
auto toWire(T const& value) {
  constexpr ArgKind kind = argKindOf<T>();
  using D = std::remove_cv_t<std::decay_t<T>>;
  if constexpr (kind == ArgKind::Bool) {
    return static_cast<std::uint8_t>(value ? 1 : 0);
  } else if constexpr (kind == ArgKind::String) {
    if constexpr (std::is_pointer_v<D>) {
      return wireString(static_cast<char const*>(value));
    } else {
      return wireString(std::string_view(value));
    }
  } else if constexpr (kind == ArgKind::Pointer) {
    if constexpr (std::is_same_v<D, std::nullptr_t>) {
      return std::uint64_t{0};
    } else {
      return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(value));
    }
  } else {
    static_assert(sizeof(D) == fixedBytes(kind));
    return static_cast<D>(value);
  }
}

template <class W>
std::size_t wireBytes(W const& wire) {
  if constexpr (std::is_same_v<W, WireString>) {
    return wire.bytes();
  } else {
    return sizeof(W);
  }
}

template <class W>
std::uint8_t* encode(std::uint8_t* out, W const& wire) {
  if constexpr (std::is_same_v<W, WireString>) {
    *out = static_cast<std::uint8_t>(wire.bytes() - 1);
    std::memcpy(out + 1, wire.data, wire.length);
    if (wire.cut) std::memcpy(out + 1 + wire.length, "...", 3);
    return out + wire.bytes();
  } else {
    std::memcpy(out, &wire, sizeof wire);
    return out + sizeof wire;
  }
}

template <class T>
void store(std::uint8_t* out, T value) {
  std::memcpy(out, &value, sizeof value);
}

}  // namespace detail

class Ringlog {
 public:
  static constexpr std::size_t kDefaultCapacity = std::size_t{1} << 20;
  static constexpr std::size_t kHeaderBytes = 2 + 4 + 8;
  static constexpr std::size_t kMaxRecordBytes = kHeaderBytes + kMaxArgs * (1 + kMaxStringBytes);
  static constexpr std::size_t kMinCapacity = 4 * kMaxRecordBytes;
  static constexpr std::size_t kMaxCapacity = std::size_t{1} << 30;
  static_assert(kMinCapacity == 16440, "update the capacity assertion texts");

  constexpr explicit Ringlog(std::size_t capacity = kDefaultCapacity) : capacity_(capacity) {
    QEL_CHECK(capacity >= kMinCapacity && capacity <= kMaxCapacity,
              "capacity >= kMinCapacity && capacity <= kMaxCapacity && \"ring capacity outside "
              "16440 bytes .. 1 GiB\"");
  }
  ~Ringlog();
  Ringlog(Ringlog const&) = delete;
  Ringlog& operator=(Ringlog const&) = delete;

  // The ring TRACE and RINGLOG write to.
  static Ringlog& global() { return global_; }

  std::size_t capacity() const { return capacity_; }
  // Drops every record and sets the capacity (kMinCapacity .. kMaxCapacity, asserted).
  void capacityIs(std::size_t capacity);
  void clear();

  std::uint64_t written() const { return written_; }          // records ever written
  std::uint64_t overwritten() const { return overwritten_; }  // records dropped to make room
  std::uint64_t records() const { return written_ - overwritten_; }
  std::uint64_t laps() const { return laps_; }  // times writing restarted at the beginning

  // Appends one record for the call site CallSite with the given arguments.
  template <class CallSite, class... Args>
  void write(Args const&... args) {
    static_assert(detail::checkCallSite<CallSite, Args...>());
    writeRecord(detail::kSiteId<CallSite, Args...>, detail::toWire(args)...);
  }

  // Calls visit(std::span<std::uint8_t const>) for each record, oldest first.
  template <class Visit>
  void forEachRecord(Visit&& visit) const;

  // The records as text lines, oldest first, against the process's site table.
  std::vector<Line> decode() const;

  // Writes the records, the site table and the time calibration to a file that RingDump::read()
  // and the ringlog-decode tool turn back into lines. Throws DumpError if it cannot be written.
  void dumpTo(std::string const& path) const;

 private:
  template <class... Wire>
  void writeRecord(std::uint32_t site, Wire const&... wire) {
    std::size_t const bytes = (kHeaderBytes + ... + detail::wireBytes(wire));
    std::uint8_t* out = head_ + bytes <= limit_ ? buffer_ + head_ : reserveSlow(bytes);
    detail::store(out, static_cast<std::uint16_t>(bytes));
    detail::store(out + 2, site);
    detail::store(out + 6, Clock::ticks());
    out += kHeaderBytes;
    ((out = detail::encode(out, wire)), ...);
    head_ += bytes;
    ++written_;
  }

  // Makes room for a record of the given size at head_ (allocating, wrapping and dropping the
  // oldest records as needed) and returns where it goes.
  std::uint8_t* reserveSlow(std::size_t bytes);
  // Inline so that dropping many records in reserveSlow() costs no call per record.
  void dropOldest() {
    std::uint16_t const size = sizeAt(tail_);
    if (size == 0) {
      tail_ = 0;
      return;
    }
    tail_ += size;
    ++overwritten_;
  }
  std::uint16_t sizeAt(std::size_t position) const {
    std::uint16_t size;
    std::memcpy(&size, buffer_ + position, sizeof size);
    return size;
  }

  static Ringlog global_;

  std::uint8_t* buffer_ = nullptr;
  std::size_t capacity_;
  std::size_t head_ = 0;
  std::size_t tail_ = 0;
  std::size_t limit_ = 0;
  std::uint64_t written_ = 0;
  std::uint64_t overwritten_ = 0;
  std::uint64_t laps_ = 0;
};

template <class Visit>
void Ringlog::forEachRecord(Visit&& visit) const {
  std::size_t position = tail_;
  while (position != head_) {
    std::uint16_t const size = sizeAt(position);
    if (size == 0) {
      position = 0;
      continue;
    }
    visit(std::span<std::uint8_t const>(buffer_ + position, size));
    position += size;
  }
}

}  // namespace Trace
