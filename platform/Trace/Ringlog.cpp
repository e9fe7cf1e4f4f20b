#include "Trace/Ringlog.h"

#include "Trace/Facilities.h"
#include "Trace/RecordDecoder.h"
#include "Trace/RingDump.h"

namespace Trace {

namespace {

// Bytes kept free at the end of the buffer for the lap-end mark.
constexpr std::size_t kLapEndBytes = 2;

bool continuationByte(char c) {
  return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

}  // namespace

namespace detail {

std::size_t cutLength(char const* text) {
  std::size_t cut = kMaxStringBytes - 3;
  // A UTF-8 sequence has at most three continuation bytes; stepping back further would only
  // happen in text that is not UTF-8, which is cut at the fixed length.
  for (int step = 0; step < 3 && cut > 0 && continuationByte(text[cut]); ++step)
    --cut;
  if (continuationByte(text[cut])) return kMaxStringBytes - 3;
  return cut;
}

}  // namespace detail

constinit Ringlog Ringlog::global_{};

Ringlog::~Ringlog() {
  delete[] buffer_;
  // A record written after this (a trace from a later static destructor) finds no buffer and
  // allocates a new one instead of writing into freed memory.
  buffer_ = nullptr;
  head_ = tail_ = limit_ = 0;
}

void Ringlog::capacityIs(std::size_t capacity) {
  QEL_CHECK(capacity >= kMinCapacity && capacity <= kMaxCapacity,
            "capacity >= kMinCapacity && capacity <= kMaxCapacity && \"ring capacity outside 16440 "
            "bytes .. 1 GiB\"");
  delete[] buffer_;
  buffer_ = nullptr;
  capacity_ = capacity;
  clear();
}

void Ringlog::clear() {
  head_ = tail_ = limit_ = 0;
  written_ = overwritten_ = laps_ = 0;
}

std::uint8_t* Ringlog::reserveSlow(std::size_t bytes) {
  QEL_CHECK(bytes <= kMaxRecordBytes,
            "bytes <= kMaxRecordBytes && \"trace record larger than the largest possible\"");
  if (buffer_ == nullptr) {
    buffer_ = new std::uint8_t[capacity_];
    head_ = tail_ = 0;
    Facilities::instance().reportStartupProblems();
  }
  std::size_t const end = capacity_ - kLapEndBytes;
  for (;;) {
    if (tail_ <= head_) {
      // The records are [tail_, head_); everything after head_ is free.
      if (head_ + bytes <= end) {
        limit_ = end;
        return buffer_ + head_;
      }
      if (tail_ == head_) {
        tail_ = head_ = 0;
        continue;
      }
      if (tail_ == 0) {
        // Restarting at the beginning would land on the oldest record.
        dropOldest();
        continue;
      }
      detail::store(buffer_ + head_, std::uint16_t{0});
      head_ = 0;
      ++laps_;
      continue;
    }
    // The records are [tail_, lap end) followed by [0, head_); the free bytes lie between head_
    // and tail_. Free a sixteenth of the ring beyond the need, so that the next records fit
    // without coming here again.
    if (head_ + bytes + capacity_ / 16 < tail_) {
      limit_ = tail_ - 1;
      return buffer_ + head_;
    }
    dropOldest();
  }
}

std::vector<Line> Ringlog::decode() const {
  RecordDecoder const decoder(SiteTable::instance().sites(), Clock::calibration());
  std::vector<Line> lines;
  lines.reserve(records());
  forEachRecord(
      [&](std::span<std::uint8_t const> record) { lines.push_back(decoder.decode(record)); });
  return lines;
}

void Ringlog::dumpTo(std::string const& path) const {
  RingDump::write(path,
                  RingDump::bytesOf(*this, SiteTable::instance().sites(), Clock::calibration()));
}

}  // namespace Trace
