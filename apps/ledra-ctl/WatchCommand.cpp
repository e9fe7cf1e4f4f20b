#include "apps/ledra-ctl/WatchCommand.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "Qel/NboAttrLog/WireText.h"
#include "apps/ledra-ctl/WatchView.h"
#include "apps/ledrad/ControlProtocol.h"
#include "apps/ledrad/UnixSocket.h"

namespace LedraCtl {

namespace {

// A record line is far shorter; a longer one is no watch line.
constexpr std::size_t kMaxLine = 1 << 20;

void writeAll(int fd, std::string const& text) {
  for (std::size_t done = 0; done < text.size();) {
    ssize_t const n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // nobody reads the output any more
    done += static_cast<std::size_t>(n);
  }
}

class Session {
 public:
  Session(CtlArguments const& options, WatchArguments args)
      : options_(options),
        args_(std::move(args)),
        view_(args_.agents),
        tty_(::isatty(STDOUT_FILENO) == 1) {}
  ~Session() {
    if (sock_ >= 0) ::close(sock_);
    if (signals_ >= 0) ::close(signals_);
  }
  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;

  int run();

 private:
  void request();
  // Takes what the socket holds; false once ledrad closed the connection.
  bool receive();
  // The whole lines received; the status to end with, or -1 to go on.
  int lines();
  // The signals that arrived; the status to end with, or -1 to go on.
  int signals();
  void redraw();
  void measure();
  // Leaves the terminal as it was found.
  int end(int status, std::string const& why = {});

  CtlArguments const& options_;
  WatchArguments const args_;
  WatchView view_;
  bool const tty_;
  int sock_ = -1;
  int signals_ = -1;
  std::string in_;
  enum class Reply { none, ok, error } reply_ = Reply::none;
  bool cursorHidden_ = false;
  std::size_t drawn_ = 0;  // lines of the block on the terminal
  std::size_t columns_ = 80;
  std::size_t rows_ = 0;
};

void Session::request() {
  std::vector<std::string> words{"watch"};
  words.insert(words.end(), args_.agents.begin(), args_.agents.end());
  std::string const line = Ledrad::encodeRequest(words);
  sock_ = Ledrad::connectUnixSocket(options_.socket);
  for (std::size_t sent = 0; sent < line.size();) {
    pollfd p{sock_, POLLOUT, 0};
    int const rc = ::poll(&p, 1, options_.timeoutMillis());
    if (rc < 0 && errno == EINTR) continue;
    if (rc == 0)
      throw std::runtime_error("ledrad at " + options_.socket + " did not answer in time");
    ssize_t const n =
        ::send(sock_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    // ledrad closed early: it refused the client, and its reason waits to be read.
    if (n < 0 && (errno == EPIPE || errno == ECONNRESET)) return;
    if (n < 0)
      throw std::runtime_error("cannot send to " + options_.socket + ": " + std::strerror(errno));
    sent += static_cast<std::size_t>(n);
  }
}

bool Session::receive() {
  char buf[16384];
  while (true) {
    ssize_t const n = ::recv(sock_, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    if (n < 0 && errno == ECONNRESET) return false;
    if (n < 0)
      throw std::runtime_error("cannot read from " + options_.socket + ": " + std::strerror(errno));
    if (n == 0) return false;
    in_.append(buf, static_cast<std::size_t>(n));
    return true;
  }
}

int Session::lines() {
  std::string plain;
  std::size_t pos = 0;
  for (std::size_t nl; (nl = in_.find('\n', pos)) != std::string::npos; pos = nl + 1) {
    std::string_view const line = std::string_view(in_).substr(pos, nl - pos);
    if (reply_ == Reply::none) {
      if (line != "ok") throw std::runtime_error("malformed reply from ledrad");
      reply_ = Reply::ok;
      continue;
    }
    Ledrad::WatchLine const l = view_.take(line);
    if (tty_) continue;
    if (l.kind == Ledrad::WatchLine::agent) plain += WatchView::line(l.record) + "\n";
    if (l.kind == Ledrad::WatchLine::gone) plain += l.record.name + " gone\n";
  }
  in_.erase(0, pos);
  if (in_.size() > kMaxLine) throw std::runtime_error("malformed watch record from ledrad");
  writeAll(STDOUT_FILENO, plain);
  if (!view_.synced()) return -1;
  if (tty_) redraw();
  if (!args_.untilComplete || !view_.complete()) return -1;
  if (view_.waitedFor().empty()) return end(0, "watch: no agent to wait for");
  return end(0);
}

int Session::signals() {
  signalfd_siginfo info{};
  while (::read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    if (info.ssi_signo == SIGWINCH) {
      measure();
      if (tty_ && view_.synced()) redraw();
      continue;
    }
    // The terminal showed "^C" below the block: the shell's prompt goes on the next line.
    if (tty_ && cursorHidden_) writeAll(STDOUT_FILENO, "\n");
    return end(128 + static_cast<int>(info.ssi_signo));
  }
  return -1;
}

void Session::measure() {
  winsize ws{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) != 0 || ws.ws_col == 0) return;
  columns_ = ws.ws_col;
  rows_ = ws.ws_row;
}

void Session::redraw() {
  std::vector<std::string> const screen = view_.screen(columns_, rows_);
  std::string out;
  if (!cursorHidden_) out += "\x1b[?25l";
  cursorHidden_ = true;
  if (drawn_ > 0) out += "\x1b[" + std::to_string(drawn_) + "A";
  for (auto const& l : screen)
    out += "\r" + l + "\x1b[K\n";
  if (screen.size() < drawn_) out += "\x1b[J";
  drawn_ = screen.size();
  writeAll(STDOUT_FILENO, out);
}

int Session::end(int status, std::string const& why) {
  if (cursorHidden_) writeAll(STDOUT_FILENO, "\x1b[?25h");
  cursorHidden_ = false;
  if (!why.empty())
    std::fprintf(stderr, "ledra-ctl: %s\n", Qel::NboAttrLog::printableText(why).c_str());
  return status;
}

int Session::run() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGWINCH);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  signals_ = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signals_ < 0) return end(3, std::string("signalfd: ") + std::strerror(errno));
  measure();
  try {
    request();
    while (true) {
      pollfd p[2] = {{sock_, POLLIN, 0}, {signals_, POLLIN, 0}};
      // ledrad answers at once; after that, records come when agents change.
      int const rc = ::poll(p, 2, reply_ == Reply::ok ? -1 : options_.timeoutMillis());
      if (rc < 0 && errno == EINTR) continue;
      if (rc < 0) return end(3, std::string("poll: ") + std::strerror(errno));
      if (rc == 0) return end(3, "ledrad at " + options_.socket + " did not answer in time");
      if (p[1].revents != 0) {
        if (int const status = signals(); status >= 0) return status;
      }
      if (p[0].revents == 0) continue;
      bool const open = receive();
      if (reply_ == Reply::none && in_.rfind("error\n", 0) == 0) reply_ = Reply::error;
      if (reply_ == Reply::error) {
        if (open) continue;
        std::fputs(Ledrad::decodeReply(in_).text.c_str(), stderr);
        return end(1);
      }
      if (int const status = lines(); status >= 0) return status;
      if (open) continue;
      if (reply_ == Reply::none) return end(3, "ledrad closed the connection without a reply");
      return end(3, "ledrad at " + options_.socket + " closed the watch");
    }
  } catch (std::exception const& e) {
    return end(3, e.what());
  }
}

}  // namespace

WatchArguments parseWatchArguments(std::vector<std::string> const& words) {
  WatchArguments args;
  for (std::size_t i = 1; i < words.size(); ++i) {
    std::string const& w = words[i];
    if (w == "--until-complete") {
      args.untilComplete = true;
      continue;
    }
    if (!w.empty() && w.front() == '-') throw CtlArgumentsError("watch: unknown option " + w);
    args.agents.push_back(w);
  }
  return args;
}

std::string watchUsage() {
  return "watch [--until-complete] [AGENT...]: one line per agent (every agent, or those named):\n"
         "  paths mounted of those planned, state, what it waits for; redrawn as ledrad reports\n"
         "  changes (a plain line per change when the output is no terminal). --until-complete\n"
         "  ends it (status 0) once every agent named, or connected at the start, is\n"
         "  complete. Ctrl-C ends it. Example: ledra-ctl watch --until-complete fan-1 fan-2\n";
}

int runWatch(CtlArguments const& options) {
  WatchArguments args;
  try {
    args = parseWatchArguments(options.words);
  } catch (CtlArgumentsError const& e) {
    std::fprintf(stderr, "ledra-ctl: %s\n%s", e.what(), ctlUsage().c_str());
    return 2;
  }
  Session session(options, std::move(args));
  return session.run();
}

}  // namespace LedraCtl
