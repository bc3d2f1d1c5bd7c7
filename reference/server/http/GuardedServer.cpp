#include "reference/server/http/GuardedServer.h"

#include <spdlog/spdlog.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>
#include <system_error>

namespace zolvani::refserver {

namespace {

using Clock = std::chrono::steady_clock;

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const auto x = static_cast<unsigned char>(a[i]);
    const auto y = static_cast<unsigned char>(b[i]);
    if (std::tolower(x) != std::tolower(y)) return false;
  }
  return true;
}

std::string_view TrimOws(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// Why a request could not be read.
enum class Failure {
  kNone,
  kTimeout,       // a deadline passed
  kHeadTooLarge,  // request line and headers over the byte or line limit
  kBodyTooLarge,  // more body bytes than any body within the limit needs
  kPeerClosed,    // the client closed in the middle
  kStopped,       // the server is shutting down
  kIoError,
};

// The HTTP status a failure is answered with, 0 when it is not answered.
int StatusFor(Failure failure) {
  switch (failure) {
    case Failure::kTimeout:
      return 408;
    case Failure::kHeadTooLarge:
      return 431;
    case Failure::kBodyTooLarge:
      return 413;
    default:
      return 0;
  }
}

const char* ReasonFor(Failure failure) {
  switch (failure) {
    case Failure::kTimeout:
      return "Request timeout";
    case Failure::kHeadTooLarge:
      return "Request header fields too large";
    case Failure::kBodyTooLarge:
      return "Request body too large";
    default:
      return "Bad request";
  }
}

// One client connection as the library's request processing reads and writes it.
// Reads come from a buffer of our own filled with poll() and non-blocking recv(),
// each wait bounded by the deadline of the part of the request being read. The
// request head is handed out line by line, which lets this stream find where the
// head ends, check the header lines, and rename Range.
class ConnectionStream final : public httplib::Stream {
 public:
  ConnectionStream(int fd, int stopFd, const ConnectionLimits& limits, std::string ip, int port)
      : fd_(fd), stopFd_(stopFd), limits_(limits), ip_(std::move(ip)), port_(port) {}

  // httplib::Stream
  bool is_readable() const override {
    return rawOff_ < raw_.size() || WaitFor(POLLIN, Clock::now()) == WaitResult::kReady;
  }
  bool is_writable() const override {
    return WaitFor(POLLOUT, Clock::now() + limits_.writeTimeout) == WaitResult::kReady;
  }
  ssize_t read(char* ptr, size_t size) override;
  ssize_t write(const char* ptr, size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    ip = ip_;
    port = port_;
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    ip.clear();
    port = 0;
    if (::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) return;
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET) {
      const auto* in = reinterpret_cast<const sockaddr_in*>(&address);
      ::inet_ntop(AF_INET, &in->sin_addr, text, sizeof(text));
      port = ntohs(in->sin_port);
    } else if (address.ss_family == AF_INET6) {
      const auto* in = reinterpret_cast<const sockaddr_in6*>(&address);
      ::inet_ntop(AF_INET6, &in->sin6_addr, text, sizeof(text));
      port = ntohs(in->sin6_port);
    }
    ip = text;
  }
  socket_t socket() const override { return fd_; }

  // Driven by the connection loop.
  // Waits until a byte of the next request is there; false when the client closed,
  // `until` passed or the server is stopping.
  bool AwaitRequest(Clock::time_point until);
  void BeginRequest(Clock::time_point headDeadline);
  // The head is parsed: the request's framing decides what reads return from now.
  void BeginBody(const httplib::Request& req);
  // Whether the connection may carry another request after this one.
  bool CanKeepAlive() const {
    return failure_ == Failure::kNone && !writeFailed_ && setUp_ && !malformed_ && !badFraming_ &&
           !mustClose_ && BodyConsumed();
  }
  // Writes a bare refusal when the head never arrived complete and nothing was
  // written for the request.
  void AnswerUnreadHead();
  // Closes; after a reply, first half-closes and reads what the client still sends
  // (for a moment when a body was left unread), so that it sees the reply rather
  // than a reset.
  void Close();

  // For the hooks and handlers of the request being served.
  Failure failure() const { return failure_; }
  bool malformed() const { return malformed_; }
  bool badFraming() const { return badFraming_; }
  bool declaredTooLarge() const { return declaredTooLarge_; }
  void MarkBodyComplete() { bodyComplete_ = true; }
  void MustClose() { mustClose_ = true; }
  const ConnectionLimits& limits() const { return limits_; }

 private:
  enum class Phase { kHead, kHeadDone, kBody };
  enum class WaitResult { kReady, kTimeout, kStopped, kError };

  WaitResult WaitFor(short events, Clock::time_point deadline) const;
  // Reads more from the socket into raw_: > 0 bytes, 0 when the client closed, -1
  // on failure (failure_ says which).
  ssize_t Fill(Clock::time_point deadline);
  bool NextHeadLine();
  // Looks at the header line in line_ (renaming Range); false when it is one line
  // too many.
  bool CheckHeaderLine();
  void Fail(Failure failure) {
    if (failure_ == Failure::kNone) failure_ = failure;
  }
  bool BodyConsumed() const {
    if (!hasBody_) return true;
    if (chunked_) return bodyComplete_;
    return !declaredTooLarge_ && bodyLeft_ == 0;
  }

  const int fd_;
  const int stopFd_;
  const ConnectionLimits& limits_;
  const std::string ip_;
  const int port_;

  std::string raw_;  // received, not yet handed out from rawOff_ on
  size_t rawOff_ = 0;

  // The request being served.
  Phase phase_ = Phase::kHead;
  Clock::time_point headDeadline_{};
  Clock::time_point bodyDeadline_{};
  std::string line_;  // the head line being handed out
  size_t lineOff_ = 0;
  int lines_ = 0;  // request line included
  size_t headBytes_ = 0;
  bool headEnded_ = false;
  bool setUp_ = false;
  bool malformed_ = false;
  bool badFraming_ = false;
  bool hasBody_ = false;
  bool chunked_ = false;
  bool declaredTooLarge_ = false;
  bool bodyComplete_ = false;
  bool mustClose_ = false;
  uint64_t bodyLeft_ = 0;  // bytes reads may still return
  size_t written_ = 0;
  bool writeFailed_ = false;
  Failure failure_ = Failure::kNone;
};

thread_local ConnectionStream* tConnection = nullptr;

ConnectionStream::WaitResult ConnectionStream::WaitFor(short events,
                                                       Clock::time_point deadline) const {
  pollfd fds[2] = {{fd_, events, 0}, {stopFd_, POLLIN, 0}};
  while (true) {
    const auto now = Clock::now();
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
    const int timeout = left <= 0 ? 0 : static_cast<int>(std::min<int64_t>(left, INT_MAX));
    const int ready = ::poll(fds, 2, timeout);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return WaitResult::kError;
    }
    if (fds[1].revents != 0) return WaitResult::kStopped;
    if (fds[0].revents != 0) return WaitResult::kReady;
    if (timeout == 0) return WaitResult::kTimeout;
  }
}

ssize_t ConnectionStream::Fill(Clock::time_point deadline) {
  if (rawOff_ > 0 && rawOff_ == raw_.size()) {
    raw_.clear();
    rawOff_ = 0;
  } else if (rawOff_ > 16 * 1024) {
    raw_.erase(0, rawOff_);
    rawOff_ = 0;
  }
  while (true) {
    switch (WaitFor(POLLIN, deadline)) {
      case WaitResult::kReady:
        break;
      case WaitResult::kTimeout:
        Fail(Failure::kTimeout);
        return -1;
      case WaitResult::kStopped:
        Fail(Failure::kStopped);
        return -1;
      case WaitResult::kError:
        Fail(Failure::kIoError);
        return -1;
    }
    char buffer[16 * 1024];
    const ssize_t got = ::recv(fd_, buffer, sizeof(buffer), MSG_DONTWAIT);
    if (got > 0) {
      raw_.append(buffer, static_cast<size_t>(got));
      return got;
    }
    if (got == 0) return 0;
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
    Fail(Failure::kIoError);
    return -1;
  }
}

bool ConnectionStream::AwaitRequest(Clock::time_point until) {
  if (rawOff_ < raw_.size()) return true;
  return Fill(until) > 0;
}

void ConnectionStream::BeginRequest(Clock::time_point headDeadline) {
  phase_ = Phase::kHead;
  headDeadline_ = headDeadline;
  line_.clear();
  lineOff_ = 0;
  lines_ = 0;
  headBytes_ = 0;
  headEnded_ = false;
  setUp_ = false;
  malformed_ = false;
  badFraming_ = false;
  hasBody_ = false;
  chunked_ = false;
  declaredTooLarge_ = false;
  bodyComplete_ = false;
  mustClose_ = false;
  bodyLeft_ = 0;
  written_ = 0;
  failure_ = Failure::kNone;
}

bool ConnectionStream::NextHeadLine() {
  // How far past rawOff_ there is surely no line end: a head trickled in byte by
  // byte is searched once, not once per byte.
  size_t searched = 0;
  while (true) {
    const size_t end = raw_.find('\n', rawOff_ + searched);
    if (end != std::string::npos) {
      const size_t length = end + 1 - rawOff_;
      headBytes_ += length;
      if (headBytes_ > limits_.maxHeaderBytes) {
        Fail(Failure::kHeadTooLarge);
        return false;
      }
      line_.assign(raw_, rawOff_, length);
      lineOff_ = 0;
      rawOff_ = end + 1;
      // The first line is the request line; the others are header lines up to the
      // empty one.
      if (++lines_ > 1 && !CheckHeaderLine()) {
        Fail(Failure::kHeadTooLarge);
        return false;
      }
      return true;
    }
    searched = raw_.size() - rawOff_;
    if (headBytes_ + searched > limits_.maxHeaderBytes) {
      Fail(Failure::kHeadTooLarge);
      return false;
    }
    const ssize_t got = Fill(headDeadline_);
    if (got < 0) return false;
    if (got == 0) {
      // Closed: cleanly between requests, or in the middle of a head.
      if (lines_ > 0 || rawOff_ < raw_.size()) Fail(Failure::kPeerClosed);
      return false;
    }
  }
}

bool ConnectionStream::CheckHeaderLine() {
  if (line_ == "\r\n") {
    headEnded_ = true;
    return true;
  }
  if (lines_ - 1 > limits_.maxHeaderLines) return false;
  // A line that does not end in CRLF, a folded line, a line without a field name
  // or with white space before the colon: RFC 9112 says to refuse them (the
  // library would skip or misread them).
  const bool crlf = line_.size() >= 2 && line_[line_.size() - 2] == '\r';
  const size_t colon = line_.find(':');
  if (!crlf || line_[0] == ' ' || line_[0] == '\t' || colon == std::string::npos || colon == 0 ||
      line_[colon - 1] == ' ' || line_[colon - 1] == '\t') {
    malformed_ = true;
    return true;
  }
  if (EqualsIgnoringCase(std::string_view(line_).substr(0, colon), "Range")) {
    line_.replace(0, colon, GuardedServer::kRangeHeader);
  }
  return true;
}

ssize_t ConnectionStream::read(char* ptr, size_t size) {
  if (failure_ != Failure::kNone) return -1;
  if (size == 0) return 0;
  switch (phase_) {
    case Phase::kHead: {
      if (lineOff_ == line_.size()) {
        if (!NextHeadLine()) return failure_ == Failure::kNone ? 0 : -1;
      }
      const size_t n = std::min(size, line_.size() - lineOff_);
      std::memcpy(ptr, line_.data() + lineOff_, n);
      lineOff_ += n;
      if (lineOff_ == line_.size() && headEnded_) phase_ = Phase::kHeadDone;
      return static_cast<ssize_t>(n);
    }
    case Phase::kHeadDone:
      return 0;
    case Phase::kBody: {
      if (bodyLeft_ == 0) {
        // A chunked body is cut where no body within the limit can still be going.
        if (chunked_) {
          Fail(Failure::kBodyTooLarge);
          return -1;
        }
        return 0;
      }
      if (rawOff_ == raw_.size()) {
        const ssize_t got = Fill(bodyDeadline_);
        if (got < 0) return -1;
        if (got == 0) {
          Fail(Failure::kPeerClosed);
          return -1;
        }
      }
      const size_t n = static_cast<size_t>(
          std::min<uint64_t>({static_cast<uint64_t>(size), bodyLeft_, raw_.size() - rawOff_}));
      std::memcpy(ptr, raw_.data() + rawOff_, n);
      rawOff_ += n;
      bodyLeft_ -= n;
      return static_cast<ssize_t>(n);
    }
  }
  return -1;
}

ssize_t ConnectionStream::write(const char* ptr, size_t size) {
  if (writeFailed_) return -1;
  const auto deadline = Clock::now() + limits_.writeTimeout;
  while (true) {
    const ssize_t sent = ::send(fd_, ptr, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      written_ += static_cast<size_t>(sent);
      return sent;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) break;
    if (WaitFor(POLLOUT, deadline) != WaitResult::kReady) break;
  }
  writeFailed_ = true;
  return -1;
}

void ConnectionStream::BeginBody(const httplib::Request& req) {
  setUp_ = true;
  phase_ = Phase::kBody;
  bodyDeadline_ = Clock::now() + limits_.bodyTimeout;
  const size_t encodings = req.get_header_value_count("Transfer-Encoding");
  const size_t lengths = req.get_header_value_count("Content-Length");
  if (encodings > 0) {
    // Only "chunked" alone is understood; with a Content-Length beside it the
    // length is ambiguous (a request-smuggling vector), so both are refused.
    hasBody_ = true;
    chunked_ = encodings == 1 && lengths == 0 &&
               EqualsIgnoringCase(TrimOws(req.get_header_value("Transfer-Encoding")), "chunked");
    badFraming_ = !chunked_;
    // Chunk framing adds at most a few bytes per chunk; a body that needs more raw
    // bytes than this is over the limit however it is cut.
    bodyLeft_ = chunked_ ? 2 * static_cast<uint64_t>(limits_.maxBodyBytes) + 64 * 1024 : 0;
    return;
  }
  if (lengths == 0) return;  // no body (RFC 9112, section 6.3)
  uint64_t declared = 0;
  for (size_t i = 0; i < lengths; ++i) {
    const std::string field = req.get_header_value("Content-Length", i);
    const std::string_view text = TrimOws(field);
    uint64_t value = 0;
    bool digits = !text.empty() && text.size() <= 19;
    for (const char c : text) {
      if (c < '0' || c > '9') {
        digits = false;
        break;
      }
      value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    if (!digits || (i > 0 && value != declared)) {
      badFraming_ = true;
      hasBody_ = true;
      return;
    }
    declared = value;
  }
  hasBody_ = declared > 0;
  if (declared > limits_.maxBodyBytes) {
    declaredTooLarge_ = true;
    return;
  }
  bodyLeft_ = declared;
}

void ConnectionStream::AnswerUnreadHead() {
  if (written_ > 0 || setUp_) return;
  const int status = StatusFor(failure_);
  if (status == 0) return;
  const std::string reason = ReasonFor(failure_);
  const std::string reply = "HTTP/1.1 " + std::to_string(status) + " " + reason +
                            "\r\nConnection: close\r\nContent-Type: text/plain\r\n"
                            "Content-Length: " +
                            std::to_string(reason.size() + 1) + "\r\n\r\n" + reason + "\n";
  const char* p = reply.data();
  size_t left = reply.size();
  while (left > 0) {
    const ssize_t n = write(p, left);
    if (n <= 0) break;
    p += n;
    left -= static_cast<size_t>(n);
  }
}

void ConnectionStream::Close() {
  // Closing with unread input makes the kernel reset the connection, and a client
  // still sending may then lose the reply it was sent. So, after a reply: half-close,
  // and read what the client still sends (a body cut short: for a moment; else
  // only what is already there), then close.
  const bool bodyLeft = (setUp_ && !BodyConsumed()) || failure_ == Failure::kBodyTooLarge;
  if (written_ > 0 && failure_ != Failure::kStopped && !writeFailed_) {
    ::shutdown(fd_, SHUT_WR);
    const auto until = Clock::now() + std::chrono::milliseconds(bodyLeft ? 500 : 0);
    size_t drained = 0;
    char buffer[16 * 1024];
    while (drained < (1u << 20) && WaitFor(POLLIN, until) == WaitResult::kReady) {
      const ssize_t got = ::recv(fd_, buffer, sizeof(buffer), MSG_DONTWAIT);
      if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) break;
      if (got > 0) drained += static_cast<size_t>(got);
    }
  }
  ::shutdown(fd_, SHUT_RDWR);
  ::close(fd_);
}

// The per-address key: the IPv4 address (also when mapped into IPv6), or the /64
// an IPv6 address belongs to, since one client holds a whole /64.
void DescribePeer(int fd, std::string* ip, int* port, std::string* key) {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  ip->clear();
  *port = 0;
  if (::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    *key = "?";
    return;
  }
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(&address);
    ::inet_ntop(AF_INET, &in->sin_addr, text, sizeof(text));
    *port = ntohs(in->sin_port);
    *ip = text;
    *key = text;
    return;
  }
  if (address.ss_family == AF_INET6) {
    const auto* in = reinterpret_cast<const sockaddr_in6*>(&address);
    *port = ntohs(in->sin6_port);
    if (IN6_IS_ADDR_V4MAPPED(&in->sin6_addr)) {
      ::inet_ntop(AF_INET, &in->sin6_addr.s6_addr[12], text, sizeof(text));
      *ip = text;
      *key = text;
      return;
    }
    ::inet_ntop(AF_INET6, &in->sin6_addr, text, sizeof(text));
    *ip = text;
    in6_addr prefix = in->sin6_addr;
    std::memset(&prefix.s6_addr[8], 0, 8);
    char prefixText[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET6, &prefix, prefixText, sizeof(prefixText));
    *key = std::string(prefixText) + "/64";
    return;
  }
  *key = "?";
}

// The accepting loop hands each connection to this queue, which runs it at once on
// the accepting thread: process_and_close_socket() decides there, without waiting,
// whether to serve or refuse.
class InlineQueue final : public httplib::TaskQueue {
 public:
  void enqueue(std::function<void()> fn) override { fn(); }
  void shutdown() override {}
};

}  // namespace

// --- ConnectionThreads ----------------------------------------------------------

bool ConnectionThreads::Run(std::function<void()> job) {
  ReapFinished();
  std::lock_guard lock(mutex_);
  if (idle_ > jobs_.size()) {
    jobs_.push_back(std::move(job));
    work_.notify_one();
    return true;
  }
  live_.emplace_back();
  const auto self = std::prev(live_.end());
  try {
    // The new thread waits for the lock, so its handle is in place before it runs.
    *self = std::thread([this, self] { Work(self); });
  } catch (const std::system_error&) {
    live_.erase(self);
    return false;
  }
  jobs_.push_back(std::move(job));
  return true;
}

void ConnectionThreads::Work(std::list<std::thread>::iterator self) {
  constexpr auto kIdleEnd = std::chrono::seconds(5);
  std::unique_lock lock(mutex_);
  while (true) {
    if (jobs_.empty()) {
      if (stopping_) break;
      ++idle_;
      const bool woken =
          work_.wait_for(lock, kIdleEnd, [this] { return !jobs_.empty() || stopping_; });
      --idle_;
      if (!woken && live_.size() > warm_) break;
      continue;
    }
    auto job = std::move(jobs_.front());
    jobs_.erase(jobs_.begin());
    lock.unlock();
    job();
    job = nullptr;
    lock.lock();
  }
  // Hand our own handle to whoever comes next; it joins us.
  finished_.push_back(std::move(*self));
  live_.erase(self);
  gone_.notify_all();
}

void ConnectionThreads::ReapFinished() {
  std::vector<std::thread> done;
  {
    std::lock_guard lock(mutex_);
    done.swap(finished_);
  }
  for (auto& t : done) t.join();
}

void ConnectionThreads::Shutdown() {
  {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    work_.notify_all();
    gone_.wait(lock, [this] { return live_.empty(); });
  }
  ReapFinished();
}

// --- GuardedServer ---------------------------------------------------------------

GuardedServer::GuardedServer(ConnectionLimits limits)
    : limits_(limits), threads_(limits.warmThreads) {
  stopFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  refusal_ = [](httplib::Response& res, int status, const std::string& reason) {
    res.status = status;
    res.set_content(reason + "\n", "text/plain");
  };
  new_task_queue = [] { return new InlineQueue(); };
  // The library's default sets SO_REUSEPORT, with which a second server binds the
  // same port and the kernel splits connections between the two.
  set_socket_options([](socket_t sock) {
    int yes = 1;
    ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  });
  set_keep_alive_timeout(std::max<time_t>(
      1,
      static_cast<time_t>(std::chrono::ceil<std::chrono::seconds>(limits_.keepAliveIdle).count())));
  set_keep_alive_max_count(static_cast<size_t>(std::max(1, limits_.maxRequestsPerConnection)));
  set_payload_max_length(limits_.maxBodyBytes);
  InstallHooks();
}

GuardedServer::~GuardedServer() {
  Shutdown();
  threads_.Shutdown();
  if (stopFd_ >= 0) ::close(stopFd_);
}

void GuardedServer::InstallHooks() {
  // Before routing, so before any body is read.
  set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
    ConnectionStream* c = tConnection;
    if (c == nullptr) return HandlerResponse::Unhandled;
    auto refuse = [&](int status, const std::string& reason) {
      c->MustClose();
      refusal_(res, status, reason);
      spdlog::debug("{} {} from {}: {} {}", req.method, req.path, req.remote_addr, status, reason);
      return HandlerResponse::Handled;
    };
    if (c->malformed()) return refuse(400, "Malformed header line");
    if (c->badFraming()) return refuse(400, "Unsupported or conflicting body framing");
    if (req.method != "GET" && req.method != "HEAD" && req.method != "POST") {
      res.set_header("Allow", "GET, HEAD, POST");
      return refuse(405, "Method not allowed");
    }
    if (c->declaredTooLarge()) {
      return refuse(413,
                    "Request body larger than " + std::to_string(limits_.maxBodyBytes) + " bytes");
    }
    return HandlerResponse::Unhandled;
  });
  // A client that waits for 100 Continue is told at once when its body will not
  // be read.
  set_expect_100_continue_handler([this](const httplib::Request&, httplib::Response& res) {
    ConnectionStream* c = tConnection;
    if (c != nullptr && (c->declaredTooLarge() || c->badFraming() || c->malformed())) {
      c->MustClose();
      const int status = c->declaredTooLarge() ? 413 : 400;
      refusal_(res, status, status == 413 ? "Request body too large" : "Bad request");
      return status;
    }
    return 100;
  });
  // Just before the reply is written: a request that failed in the transport is
  // answered with the status that says why, and a connection that will not carry
  // another request says so.
  set_post_routing_handler([this](const httplib::Request&, httplib::Response& res) {
    ConnectionStream* c = tConnection;
    if (c == nullptr) return;
    const int status = StatusFor(c->failure());
    if (status != 0 && res.status != status) {
      refusal_(res, status, ReasonFor(c->failure()));
      // The library set the length of the reply it meant to send already.
      res.headers.erase("Content-Length");
      res.set_header("Content-Length", std::to_string(res.body.size()));
    }
    if (!c->CanKeepAlive()) {
      res.headers.erase("Keep-Alive");
      res.set_header("Connection", "close");
    }
  });
}

Status GuardedServer::Bind(const std::string& address, int port, int* boundPort) {
  errno = 0;
  const int bound =
      port == 0 ? bind_to_any_port(address) : (bind_to_port(address, port) ? port : -1);
  const int error = errno;
  if (bound <= 0) {
    const std::string where = address + ":" + std::to_string(port);
    if (error == EADDRINUSE) {
      return Status::IOError("cannot listen on " + where +
                             ": the address is already in use (is another server running?)");
    }
    return Status::IOError("cannot listen on " + where +
                           (error != 0 ? std::string(": ") + std::strerror(error) : std::string()));
  }
  // The library listens with a queue of five pending connections, far too few when
  // hundreds of devices connect at once; listening again only widens the queue.
  ::listen(svr_sock_, SOMAXCONN);
  *boundPort = bound;
  return Status::OK();
}

void GuardedServer::Serve() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
  }
  listen_after_bind();
  threads_.Shutdown();
}

void GuardedServer::Shutdown() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
  }
  const uint64_t one = 1;
  if (stopFd_ >= 0) {
    [[maybe_unused]] const ssize_t n = ::write(stopFd_, &one, sizeof(one));
  }
  stop();
}

bool GuardedServer::process_and_close_socket(socket_t sock) {
  Peer peer;
  DescribePeer(sock, &peer.ip, &peer.port, &peer.key);
  bool total = false;
  {
    std::lock_guard lock(mutex_);
    if (stopping_) {
      ::close(sock);
      return false;
    }
    total = active_ >= limits_.maxConnections;
    int& fromAddress = perAddress_[peer.key];
    if (!total && fromAddress < limits_.maxConnectionsPerAddress) {
      ++active_;
      ++fromAddress;
      total = false;
    } else {
      if (fromAddress == 0) perAddress_.erase(peer.key);
      Refuse(sock, peer, total);
      return false;
    }
  }
  if (!threads_.Run([this, sock, peer] {
        ServeConnection(sock, peer);
        Release(peer.key);
      })) {
    Release(peer.key);
    std::lock_guard lock(mutex_);
    Refuse(sock, peer, true);
    return false;
  }
  return true;
}

// Called with mutex_ held: a canned reply, sent without waiting, then close.
void GuardedServer::Refuse(socket_t sock, const Peer& peer, bool total) {
  static constexpr std::string_view kBody =
      "{\"response_header\":{\"response_code\":503,\"response_string\":\"Too many "
      "connections\"}}";
  const std::string reply =
      "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nRetry-After: 1\r\n"
      "Content-Type: application/json\r\nContent-Length: " +
      std::to_string(kBody.size()) + "\r\n\r\n" + std::string(kBody);
  [[maybe_unused]] const ssize_t n =
      ::send(sock, reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  ::shutdown(sock, SHUT_RDWR);
  ::close(sock);
  ++refusedSinceLog_;
  const auto now = std::chrono::steady_clock::now();
  if (now - lastRefusalLog_ >= std::chrono::seconds(1)) {
    spdlog::warn(
        "refused {} connection(s): {} (latest from {}; {} open)", refusedSinceLog_,
        total ? "the server is at its connection limit of " + std::to_string(limits_.maxConnections)
              : "over the limit of " + std::to_string(limits_.maxConnectionsPerAddress) +
                    " per address",
        peer.ip, active_);
    refusedSinceLog_ = 0;
    lastRefusalLog_ = now;
  }
}

void GuardedServer::Release(const std::string& key) {
  std::lock_guard lock(mutex_);
  --active_;
  auto it = perAddress_.find(key);
  if (it != perAddress_.end() && --it->second <= 0) perAddress_.erase(it);
}

void GuardedServer::ServeConnection(socket_t sock, const Peer& peer) {
  ConnectionStream stream(sock, stopFd_, limits_, peer.ip, peer.port);
  tConnection = &stream;
  const auto accepted = Clock::now();
  for (int served = 0; served < limits_.maxRequestsPerConnection; ++served) {
    // The first request's head is due within headerTimeout of the connection; a
    // later one may start within the keep-alive idle limit, and its head is due
    // within headerTimeout of its first byte.
    const auto headDeadline = accepted + limits_.headerTimeout;
    if (!stream.AwaitRequest(served == 0 ? headDeadline : Clock::now() + limits_.keepAliveIdle)) {
      break;
    }
    stream.BeginRequest(served == 0 ? headDeadline : Clock::now() + limits_.headerTimeout);
    bool closed = false;
    const bool last = served + 1 == limits_.maxRequestsPerConnection;
    const bool ok = process_request(stream, last, closed,
                                    [&stream](httplib::Request& req) { stream.BeginBody(req); });
    if (!ok) stream.AnswerUnreadHead();
    if (stream.failure() == Failure::kTimeout || stream.failure() == Failure::kHeadTooLarge ||
        stream.failure() == Failure::kBodyTooLarge) {
      spdlog::debug("connection from {}:{} closed: {}", peer.ip, peer.port,
                    ReasonFor(stream.failure()));
    }
    if (!ok || closed || last || !stream.CanKeepAlive()) break;
  }
  tConnection = nullptr;
  stream.Close();
}

int GuardedServer::ReadBody(const httplib::ContentReader& reader, std::string* body) {
  ConnectionStream* c = tConnection;
  const size_t limit = c != nullptr ? c->limits().maxBodyBytes : ConnectionLimits().maxBodyBytes;
  bool tooLarge = false;
  const bool ok = reader([&](const char* data, size_t length) {
    if (body->size() + length > limit) {
      tooLarge = true;
      return false;
    }
    body->append(data, length);
    return true;
  });
  if (ok && !tooLarge) {
    if (c != nullptr) c->MarkBodyComplete();
    return 0;
  }
  if (c != nullptr) c->MustClose();
  if (tooLarge ||
      (c != nullptr && (c->failure() == Failure::kBodyTooLarge || c->declaredTooLarge()))) {
    return 413;
  }
  if (c != nullptr && c->failure() == Failure::kTimeout) return 408;
  return 400;
}

}  // namespace zolvani::refserver
