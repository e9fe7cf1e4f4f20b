#include "Trace/RingDump.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "Trace/Ringlog.h"

namespace Trace {

namespace {

template <class T>
void put(std::string& out, T value) {
  out.append(reinterpret_cast<char const*>(&value), sizeof value);
}

// Reads a dump front to back; running out of bytes is an error naming what was being read.
class Cursor {
 public:
  explicit Cursor(std::string_view bytes) : rest_(bytes) {}

  std::string_view take(std::size_t count, char const* what) {
    if (count > rest_.size()) throw DumpError(std::string("dump is truncated in ") + what);
    std::string_view const taken = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return taken;
  }

  template <class T>
  T get(char const* what) {
    T value;
    std::memcpy(&value, take(sizeof value, what).data(), sizeof value);
    return value;
  }

  bool done() const { return rest_.empty(); }

 private:
  std::string_view rest_;
};

struct OwnedSite {
  int level = 0;
  std::string facility;
  std::string format;
  std::vector<ArgKind> kinds;
};

std::string systemReason(char const* action, std::string const& path) {
  return std::string("cannot ") + action + " " + path + ": " + std::strerror(errno);
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace

std::string RingDump::bytesOf(Ringlog const& ring, std::span<Site const> sites,
                              TickCalibration const& calibration) {
  std::string out(kMagic);
  put(out, kVersion);
  put(out, calibration.ticksPerSecond);
  put(out, calibration.anchorTicks);
  put(out, calibration.anchorSeconds);
  put(out, static_cast<std::uint32_t>(sites.size()));
  for (Site const& site : sites) {
    put(out, static_cast<std::uint8_t>(site.level));
    put(out, static_cast<std::uint16_t>(site.facility.size()));
    out += site.facility;
    put(out, static_cast<std::uint32_t>(site.format.size()));
    out += site.format;
    put(out, static_cast<std::uint8_t>(site.kinds.size()));
    for (ArgKind kind : site.kinds)
      put(out, kind);
  }
  std::string records;
  ring.forEachRecord([&records](std::span<std::uint8_t const> record) {
    records.append(reinterpret_cast<char const*>(record.data()), record.size());
  });
  put(out, static_cast<std::uint64_t>(records.size()));
  out += records;
  return out;
}

std::vector<Line> RingDump::linesOf(std::string_view bytes) {
  Cursor in(bytes);
  if (bytes.size() < kMagic.size() || bytes.substr(0, kMagic.size()) != kMagic) {
    throw DumpError("not a ringlog dump (bad magic)");
  }
  in.take(kMagic.size(), "the magic");
  auto const version = in.get<std::uint32_t>("the version");
  if (version != kVersion) {
    throw DumpError("unsupported ringlog dump version " + std::to_string(version));
  }
  TickCalibration calibration;
  calibration.ticksPerSecond = in.get<double>("the calibration");
  calibration.anchorTicks = in.get<std::uint64_t>("the calibration");
  calibration.anchorSeconds = in.get<double>("the calibration");
  if (!std::isfinite(calibration.ticksPerSecond) || calibration.ticksPerSecond <= 0 ||
      !std::isfinite(calibration.anchorSeconds)) {
    throw DumpError("dump has an invalid time calibration");
  }

  std::vector<OwnedSite> owned;
  auto const siteCount = in.get<std::uint32_t>("the call-site table");
  for (std::uint32_t i = 0; i < siteCount; ++i) {
    OwnedSite site;
    site.level = in.get<std::uint8_t>("the call-site table");
    site.facility = in.take(in.get<std::uint16_t>("the call-site table"), "the call-site table");
    site.format = in.take(in.get<std::uint32_t>("the call-site table"), "the call-site table");
    auto const kindCount = in.get<std::uint8_t>("the call-site table");
    for (std::uint8_t k = 0; k < kindCount; ++k) {
      auto const code = in.get<std::uint8_t>("the call-site table");
      if (!isArgKind(code)) {
        throw DumpError("call site " + std::to_string(i) + " has an unknown argument kind " +
                        std::to_string(code));
      }
      site.kinds.push_back(static_cast<ArgKind>(code));
    }
    owned.push_back(std::move(site));
  }
  std::vector<Site> sites;
  sites.reserve(owned.size());
  for (OwnedSite const& site : owned) {
    sites.push_back(Site{site.facility, site.level, site.format, site.kinds});
  }

  auto const recordBytes = in.get<std::uint64_t>("the record count");
  Cursor records(in.take(recordBytes, "the records"));
  if (!in.done()) throw DumpError("dump has bytes after its records");

  RecordDecoder const decoder(sites, calibration);
  std::vector<Line> lines;
  while (!records.done()) {
    auto const size = records.get<std::uint16_t>("a record");
    if (size < sizeof size)
      throw DumpError("dump holds a record of " + std::to_string(size) + " bytes");
    std::string_view const tail = records.take(size - sizeof size, "a record");
    auto const* const start = reinterpret_cast<std::uint8_t const*>(tail.data()) - sizeof size;
    lines.push_back(decoder.decode(std::span<std::uint8_t const>(start, size)));
  }
  return lines;
}

void RingDump::write(std::string const& path, std::string_view bytes) {
  File const file(std::fopen(path.c_str(), "wb"));
  if (!file) throw DumpError(systemReason("write", path));
  if (std::fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size() ||
      std::fflush(file.get()) != 0) {
    throw DumpError(systemReason("write", path));
  }
}

std::vector<Line> RingDump::read(std::string const& path) {
  File const file(std::fopen(path.c_str(), "rb"));
  if (!file) throw DumpError(systemReason("read", path));
  std::string bytes;
  char block[65536];
  std::size_t got = 0;
  while ((got = std::fread(block, 1, sizeof block, file.get())) > 0)
    bytes.append(block, got);
  if (std::ferror(file.get())) throw DumpError(systemReason("read", path));
  return linesOf(bytes);
}

}  // namespace Trace
