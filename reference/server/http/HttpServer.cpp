#include "reference/server/http/HttpServer.h"

#include <spdlog/spdlog.h>
#include <boost/asio.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>
#include <thread>

namespace zolvani::refserver {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;

namespace {

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

std::string_view TrimOws(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// Runs jobs on a fixed number of threads, first in first out.
class HandlerPool {
 public:
  void Start(int threads) {
    for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { Work(); });
  }
  void Run(std::function<void()> job) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      jobs_.push_back(std::move(job));
    }
    ready_.notify_one();
  }
  // Ends every thread after the job it runs; jobs not started are dropped.
  void Stop() {
    std::deque<std::function<void()>> dropped;
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      dropped.swap(jobs_);
    }
    ready_.notify_all();
    for (auto& t : threads_) t.join();
    threads_.clear();
  }
  size_t size() const { return threads_.size(); }

 private:
  void Work() {
    while (true) {
      std::function<void()> job;
      {
        std::unique_lock lock(mutex_);
        ready_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
        if (stopping_) return;
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      job();
    }
  }

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::function<void()>> jobs_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

struct Peer {
  std::string ip;
  int port = 0;
  std::string key;  // what the per-address cap counts
  bool trusted = false;
};

// The per-address key: the IPv4 address (also when mapped into IPv6), or the /64
// an IPv6 address belongs to, since one client holds a whole /64.
Peer DescribePeer(const tcp::endpoint& endpoint) {
  Peer peer;
  peer.port = endpoint.port();
  asio::ip::address address = endpoint.address();
  if (address.is_v6() && address.to_v6().is_v4_mapped()) {
    address = asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
  }
  peer.ip = address.to_string();
  if (address.is_v4()) {
    peer.key = peer.ip;
  } else {
    auto bytes = address.to_v6().to_bytes();
    std::fill(bytes.begin() + 8, bytes.end(), 0);
    peer.key = asio::ip::address_v6(bytes).to_string() + "/64";
  }
  return peer;
}

std::string ReasonPhrase(int status) {
  const auto text = http::obsolete_reason(static_cast<http::status>(status));
  return text.empty() ? std::string("Unknown") : std::string(text);
}

bool HasNoBody(int status) {
  return status == 204 || status == 304 || (status >= 100 && status < 200);
}

}  // namespace

class HttpServer::Impl {
 public:
  Impl(HttpServerOptions options, Router router)
      : options_(std::move(options)), router_(std::move(router)) {
    ioContext_.emplace(std::max(1, options_.ioThreads));
    stopFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    refusal_ = [](Response& res, int status, const std::string& reason) {
      res.status = status;
      res.SetContent(reason + "\n", "text/plain");
    };
    for (const auto& text : options_.trustedProxies) {
      boost::system::error_code ec;
      auto address = asio::ip::make_address(text, ec);
      if (!ec) trusted_.insert(address);
    }
  }
  ~Impl() {
    Stop();
    // Jobs and handlers still queued hold connections, which count themselves out
    // here, so they go before the counters and the I/O context.
    pool_.Stop();
    listeners_.clear();
    ioContext_.reset();
    if (stopFd_ >= 0) ::close(stopFd_);
  }

  Status Listen(const std::string& address, int port, bool console, int* boundPort);
  Status Start();
  void Stop();

  // Connection bookkeeping.
  void Release(const Peer& peer, const void* connection);

  struct Listener {
    explicit Listener(asio::io_context& context) : acceptor(context), retry(context) {}
    tcp::acceptor acceptor;
    asio::steady_timer retry;
    bool console = false;
  };
  void Accept(Listener* listener);
  void OnAccepted(tcp::socket socket, Listener* listener);
  void RefuseConnection(tcp::socket& socket, const Peer& peer, bool total);

  HttpServerOptions options_;
  Router router_;
  RefusalWriter refusal_;
  std::optional<asio::io_context> ioContext_;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_;
  std::vector<std::unique_ptr<Listener>> listeners_;
  std::vector<std::thread> ioThreads_;
  HandlerPool pool_;
  std::set<asio::ip::address> trusted_;
  int stopFd_ = -1;  // an eventfd, readable once stopping: ends writes made by handler threads

  std::mutex mutex_;
  bool started_ = false;
  bool stopping_ = false;
  int active_ = 0;
  std::map<std::string, int> perAddress_;
  // How to close each open connection once every thread has stopped.
  std::map<const void*, std::function<void()>> closers_;
  int64_t refusedSinceLog_ = 0;
  Clock::time_point lastRefusalLog_{};
};

namespace {

// One client connection. Everything but a streamed body runs on the connection's
// strand; while a handler runs or streams, the connection has no operation pending,
// so the handler thread may write to the socket directly.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(HttpServer::Impl& server, tcp::socket socket, Peer peer, bool console)
      : server_(server),
        limits_(server.options_.limits),
        socket_(std::move(socket)),
        timer_(socket_.get_executor()),
        peer_(std::move(peer)),
        console_(console) {}
  ~Connection() { server_.Release(peer_, this); }

  tcp::socket::executor_type executor() { return socket_.get_executor(); }

  void Start() {
    {
      std::lock_guard lock(server_.mutex_);
      server_.closers_[this] = [weak = weak_from_this()] {
        if (auto self = weak.lock()) {
          boost::system::error_code ignored;
          self->socket_.close(ignored);
        }
      };
    }
    boost::system::error_code ec;
    socket_.set_option(tcp::no_delay(true), ec);
    ReadHead(Clock::now() + limits_.headerTimeout);
  }

 private:
  friend class StreamWriter;

  // --- deadlines ---
  void Arm(Clock::time_point deadline) {
    timedOut_ = false;
    const uint64_t generation = ++timerGeneration_;
    timer_.expires_at(deadline);
    timer_.async_wait([self = shared_from_this(), generation](boost::system::error_code ec) {
      if (ec || generation != self->timerGeneration_) return;
      self->timedOut_ = true;
      boost::system::error_code ignored;
      self->socket_.cancel(ignored);
    });
  }
  void Disarm() {
    ++timerGeneration_;
    timer_.cancel();
  }

  // --- reading a request ---
  void AwaitRequest() {
    if (served_ >= limits_.maxRequestsPerConnection) return Close();
    if (buffer_.size() > 0) return ReadHead(Clock::now() + limits_.headerTimeout);
    Arm(Clock::now() + limits_.keepAliveIdle);
    socket_.async_read_some(buffer_.prepare(4096),
                            [self = shared_from_this()](boost::system::error_code ec, size_t n) {
                              self->Disarm();
                              if (ec || n == 0 || self->Stopping()) return self->Close();
                              self->buffer_.commit(n);
                              self->ReadHead(Clock::now() + self->limits_.headerTimeout);
                            });
  }

  void ReadHead(Clock::time_point deadline) {
    headDeadline_ = deadline;
    scanned_ = 0;
    Arm(deadline);
    ContinueHead();
  }

  void ContinueHead() {
    const std::string_view data(static_cast<const char*>(buffer_.data().data()), buffer_.size());
    const size_t from = scanned_ > 3 ? scanned_ - 3 : 0;
    const size_t end = data.find("\r\n\r\n", from);
    if (end != std::string_view::npos && end + 4 <= limits_.maxHeaderBytes + 4) {
      Disarm();
      return ParseHead(end + 4);
    }
    scanned_ = data.size();
    if (data.size() > limits_.maxHeaderBytes) {
      Disarm();
      return Refuse(431, "Request header fields too large", true);
    }
    if (timedOut_ || Clock::now() >= headDeadline_) return Refuse(408, "Request timeout", false);
    // Small reads: a connection's buffer is most of what an idle connection costs.
    const size_t room = std::min<size_t>(4096, limits_.maxHeaderBytes + 4 - data.size());
    socket_.async_read_some(buffer_.prepare(room),
                            [self = shared_from_this()](boost::system::error_code ec, size_t n) {
                              if (self->timedOut_)
                                return self->Refuse(408, "Request timeout", false);
                              if (ec || n == 0 || self->Stopping()) {
                                self->Disarm();
                                return self->Close();
                              }
                              self->buffer_.commit(n);
                              self->ContinueHead();
                            });
  }

  // The head is buffer_[0, length): checks it line by line, then hands it to the
  // parser, which reads the framing.
  void ParseHead(size_t length) {
    const std::string_view head(static_cast<const char*>(buffer_.data().data()), length);
    int lines = 0;
    size_t lengths = 0;
    size_t encodings = 0;
    bool malformed = false;
    for (size_t at = head.find("\r\n") + 2; at + 2 < length;) {
      const size_t next = head.find("\r\n", at);
      const std::string_view line = head.substr(at, next - at);
      at = next + 2;
      ++lines;
      // A folded line continues the one before; HTTP/1.1 retired folding, and a
      // proxy in front may read it differently, so it is refused.
      if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) malformed = true;
      const size_t colon = line.find(':');
      if (colon == std::string_view::npos) {
        malformed = true;
        continue;
      }
      const std::string_view name = line.substr(0, colon);
      if (EqualsIgnoringCase(name, "Content-Length")) ++lengths;
      if (EqualsIgnoringCase(name, "Transfer-Encoding")) ++encodings;
    }
    if (lines > limits_.maxHeaderLines) {
      return Refuse(431, "Request header fields too large", true);
    }
    if (malformed) return Refuse(400, "Malformed header line", true);

    parser_.emplace();
    parser_->eager(false);
    parser_->header_limit(static_cast<uint32_t>(
        std::min<size_t>(UINT32_MAX, std::max<size_t>(limits_.maxHeaderBytes + 4, length))));
    parser_->body_limit(boost::none);  // the limit is checked here, before any body is read
    boost::system::error_code ec;
    const size_t used = parser_->put(asio::const_buffer(head.data(), head.size()), ec);
    if (ec || used != length || !parser_->is_header_done()) {
      const bool framing = ec == http::error::bad_content_length ||
                           ec == http::error::bad_transfer_encoding || encodings > 0 || lengths > 1;
      return Refuse(400, framing ? "Unsupported or conflicting body framing" : "Malformed request",
                    true);
    }
    buffer_.consume(length);
    headDone_ = Clock::now();
    auto& message = parser_->get();

    // Framing: "chunked" alone, or one Content-Length (repeats must agree); with
    // both the length is ambiguous (a request-smuggling vector).
    chunked_ = false;
    hasBody_ = false;
    uint64_t declared = 0;
    if (encodings > 0) {
      chunked_ = encodings == 1 && lengths == 0 &&
                 EqualsIgnoringCase(TrimOws(message[http::field::transfer_encoding]), "chunked");
      if (!chunked_) return Refuse(400, "Unsupported or conflicting body framing", true);
      hasBody_ = true;
    } else if (lengths > 0) {
      for (const auto& field : message) {
        if (!EqualsIgnoringCase(field.name_string(), "Content-Length")) continue;
        const std::string_view text = TrimOws(field.value());
        uint64_t value = 0;
        bool digits = !text.empty() && text.size() <= 19;
        for (const char c : text) {
          if (c < '0' || c > '9') {
            digits = false;
            break;
          }
          value = value * 10 + static_cast<uint64_t>(c - '0');
        }
        if (!digits || (hasBody_ && value != declared)) {
          return Refuse(400, "Unsupported or conflicting body framing", true);
        }
        declared = value;
        hasBody_ = true;
      }
      hasBody_ = declared > 0;
    }

    request_ = Request();
    request_.method = std::string(message.method_string());
    if (request_.method != "GET" && request_.method != "HEAD" && request_.method != "POST") {
      allowHeader_ = true;
      return Refuse(405, "Method not allowed", hasBody_);
    }
    if (declared > limits_.maxBodyBytes) {
      return Refuse(
          413, "Request body larger than " + std::to_string(limits_.maxBodyBytes) + " bytes", true);
    }
    keepAlive_ = message.keep_alive();
    http10_ = message.version() < 11;
    request_.target = std::string(message.target());
    const size_t query = request_.target.find('?');
    request_.path = PercentDecode(std::string_view(request_.target).substr(0, query), false);
    if (query != std::string::npos) ParseQuery(std::string_view(request_.target).substr(query + 1));
    for (const auto& field : message) {
      request_.headers.emplace(std::string(field.name_string()), std::string(field.value()));
    }
    request_.remoteAddr = peer_.ip;
    request_.remotePort = peer_.port;
    request_.onConsoleListener = console_;
    if (peer_.trusted) {
      request_.viaTrustedProxy = true;
      const std::string forwarded = request_.header("X-Forwarded-For");
      if (!forwarded.empty()) {
        // The proxy appends the address it received the request from; entries
        // before it are the client's own say and are not believed.
        const size_t comma = forwarded.rfind(',');
        const std::string last(TrimOws(
            std::string_view(forwarded).substr(comma == std::string::npos ? 0 : comma + 1)));
        boost::system::error_code bad;
        const auto address = asio::ip::make_address(last, bad);
        if (!bad) request_.remoteAddr = address.to_string();
      }
    }

    route_ = server_.router_.Find(request_.method, request_.path, &request_.matches);
    if (route_ != nullptr && route_->readsBody && hasBody_) {
      if (EqualsIgnoringCase(request_.header("Expect"), "100-continue") && !http10_) {
        static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
        Arm(Clock::now() + limits_.writeTimeout);
        return asio::async_write(socket_, asio::buffer(kContinue.data(), kContinue.size()),
                                 [self = shared_from_this()](boost::system::error_code ec, size_t) {
                                   self->Disarm();
                                   if (ec) return self->Close();
                                   self->ReadBody();
                                 });
      }
      return ReadBody();
    }
    // The body, if any, is left unread, so the connection cannot carry another request.
    if (hasBody_) mustClose_ = true;
    Dispatch();
  }

  void ParseQuery(std::string_view query) {
    while (!query.empty()) {
      const size_t amp = query.find('&');
      const std::string_view pair = query.substr(0, amp);
      query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
      if (pair.empty()) continue;
      const size_t eq = pair.find('=');
      request_.params.emplace(
          PercentDecode(pair.substr(0, eq), true),
          eq == std::string_view::npos ? std::string() : PercentDecode(pair.substr(eq + 1), true));
    }
  }

  void ReadBody() {
    parser_->body_limit(limits_.maxBodyBytes);
    // Chunk framing adds a few bytes per chunk; a body that needs more raw bytes than
    // this is over the limit however it is cut.
    rawLeft_ = 2 * static_cast<uint64_t>(limits_.maxBodyBytes) + 64 * 1024;
    Arm(headDone_ + limits_.bodyTimeout);
    ContinueBody();
  }

  void ContinueBody() {
    http::async_read_some(
        socket_, buffer_, *parser_,
        [self = shared_from_this()](boost::system::error_code ec, size_t used) {
          if (self->timedOut_) return self->Refuse(408, "Request timeout", true);
          if (ec == http::error::body_limit || used > self->rawLeft_) {
            self->Disarm();
            return self->Refuse(
                413,
                "Request body larger than " + std::to_string(self->limits_.maxBodyBytes) + " bytes",
                true);
          }
          self->rawLeft_ -= used;
          if (ec) {
            self->Disarm();
            if (self->Stopping()) return self->Close();
            return self->Refuse(400, "Malformed request body", true);
          }
          if (!self->parser_->is_done()) return self->ContinueBody();
          self->Disarm();
          self->request_.body = std::move(self->parser_->get().body());
          self->Dispatch();
        });
  }

  // --- answering ---
  void Dispatch() {
    parser_.reset();
    server_.pool_.Run([self = shared_from_this()] { self->RunHandler(); });
  }

  // On a handler thread.
  void RunHandler() {
    Response res;
    if (route_ == nullptr) {
      res.status = 404;
    } else {
      try {
        route_->handler(request_, res);
      } catch (const std::exception& e) {
        spdlog::error("{} {} failed: {}", request_.method, request_.path, e.what());
        res = Response();
        server_.refusal_(res, 500, "Internal server error");
      }
    }
    if (res.stream && request_.method != "HEAD") return Stream(std::move(res));
    if (res.file) {
      asio::post(socket_.get_executor(),
                 [self = shared_from_this(), res = std::move(res)]() mutable {
                   self->Reply(std::move(res));
                 });
      return;
    }
    // A body at hand leaves from here, head and body in one write, without waiting
    // for an I/O thread; the connection's strand has nothing pending meanwhile. What
    // the socket does not take at once is written from the strand.
    const bool keepAlive = KeepAlive();
    auto out = std::make_shared<std::string>(Head(res, keepAlive, res.body.size()));
    if (request_.method != "HEAD" && !HasNoBody(res.status)) *out += res.body;
    size_t sent = 0;
    bool failed = false;
    while (sent < out->size()) {
      const ssize_t n = ::send(socket_.native_handle(), out->data() + sent, out->size() - sent,
                               MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        sent += static_cast<size_t>(n);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else {
        failed = n < 0 && errno != EAGAIN && errno != EWOULDBLOCK;
        break;
      }
    }
    asio::post(socket_.get_executor(), [self = shared_from_this(), out, sent, failed, keepAlive] {
      if (failed) return self->Close(true);
      if (sent == out->size()) return self->Finish(keepAlive);
      self->head_ = std::move(*out);
      self->Arm(Clock::now() + self->limits_.writeTimeout);
      asio::async_write(self->socket_,
                        asio::buffer(self->head_.data() + sent, self->head_.size() - sent),
                        [self, keepAlive](boost::system::error_code ec, size_t) {
                          self->Disarm();
                          if (ec) return self->Close();
                          self->Finish(keepAlive);
                        });
    });
  }

  bool KeepAlive() const {
    return keepAlive_ && !mustClose_ && served_ + 1 < limits_.maxRequestsPerConnection &&
           !Stopping();
  }

  std::string Head(const Response& res, bool keepAlive, std::optional<uint64_t> length) const {
    std::string head =
        "HTTP/1.1 " + std::to_string(res.status) + " " + ReasonPhrase(res.status) + "\r\n";
    for (const auto& [name, value] : res.headers) {
      if (EqualsIgnoringCase(name, "Content-Length") || EqualsIgnoringCase(name, "Connection") ||
          EqualsIgnoringCase(name, "Transfer-Encoding")) {
        continue;
      }
      head += name;
      head += ": ";
      head += value;
      head += "\r\n";
    }
    if (length) {
      if (!HasNoBody(res.status)) head += "Content-Length: " + std::to_string(*length) + "\r\n";
    } else {
      head += "Transfer-Encoding: chunked\r\n";
    }
    if (!keepAlive) {
      head += "Connection: close\r\n";
    } else if (http10_) {
      head += "Connection: keep-alive\r\n";
    }
    head += "\r\n";
    return head;
  }

  // On the strand: a reply whose body is at hand or in a file.
  void Reply(Response res) {
    const bool keepAlive = KeepAlive();
    const bool head = request_.method == "HEAD";
    const uint64_t length = res.file ? res.file->length : res.body.size();
    head_ = Head(res, keepAlive, length);
    body_ = head || HasNoBody(res.status) ? std::string() : std::move(res.body);
    if (res.file && !head && res.file->length > 0) {
      file_ = std::move(res.file);
    } else {
      file_.reset();
    }
    // Head and body go out together, in one write when the socket takes them.
    const std::array<asio::const_buffer, 2> buffers = {asio::buffer(head_), asio::buffer(body_)};
    Arm(Clock::now() + limits_.writeTimeout);
    asio::async_write(socket_, buffers,
                      [self = shared_from_this(), keepAlive](boost::system::error_code ec, size_t) {
                        self->Disarm();
                        if (ec) return self->Close();
                        if (self->file_) {
                          self->fileIn_ = ::open(self->file_->path.c_str(), O_RDONLY | O_CLOEXEC);
                          return self->SendFile(keepAlive);
                        }
                        self->Finish(keepAlive);
                      });
  }

  void SendFile(bool keepAlive) {
    if (file_->length == 0) {
      ::close(fileIn_);
      fileIn_ = -1;
      file_.reset();
      return Finish(keepAlive);
    }
    chunk_.resize(static_cast<size_t>(std::min<uint64_t>(64 * 1024, file_->length)));
    const ssize_t got = fileIn_ < 0 ? -1
                                    : ::pread(fileIn_, chunk_.data(), chunk_.size(),
                                              static_cast<off_t>(file_->offset));
    if (got <= 0) {
      // The file shrank or vanished under us: the reply cannot be completed.
      if (fileIn_ >= 0) ::close(fileIn_);
      fileIn_ = -1;
      return Close(true);
    }
    chunk_.resize(static_cast<size_t>(got));
    file_->offset += static_cast<uint64_t>(got);
    file_->length -= static_cast<uint64_t>(got);
    Arm(Clock::now() + limits_.writeTimeout);
    asio::async_write(socket_, asio::buffer(chunk_),
                      [self = shared_from_this(), keepAlive](boost::system::error_code ec, size_t) {
                        self->Disarm();
                        if (ec) {
                          ::close(self->fileIn_);
                          self->fileIn_ = -1;
                          return self->Close(true);
                        }
                        self->SendFile(keepAlive);
                      });
  }

  // On a handler thread: runs the body's builder, writing as it goes.
  void Stream(Response res);

  void Finish(bool keepAlive) {
    ++served_;
    route_ = nullptr;
    request_ = Request();
    allowHeader_ = false;
    head_ = std::string();
    body_ = std::string();
    if (buffer_.size() == 0 && buffer_.capacity() > 8192) buffer_.shrink_to_fit();
    if (keepAlive) return AwaitRequest();
    Close();
  }

  // A refusal made here, never by a handler; the connection closes after it.
  void Refuse(int status, const std::string& reason, bool bodyLeft) {
    Disarm();
    mustClose_ = true;
    lingerLong_ = bodyLeft;
    Response res;
    server_.refusal_(res, status, reason);
    if (allowHeader_) res.ReplaceHeader("Allow", "GET, HEAD, POST");
    spdlog::debug("{} {} from {}: {} {}", request_.method, request_.target, peer_.ip, status,
                  reason);
    if (request_.method.empty()) request_.method = "GET";  // the reply has its body
    route_ = nullptr;
    Reply(std::move(res));
  }

  // Closing with unread input makes the kernel reset the connection, and a client
  // still sending may then lose the reply it was sent. So, after a reply: half-close,
  // and read what the client still sends (a body cut short: for a moment; else only
  // what is already there), then close.
  void Close(bool abort = false) {
    Disarm();
    boost::system::error_code ec;
    if (abort || Stopping()) {
      socket_.close(ec);
      return;
    }
    socket_.shutdown(tcp::socket::shutdown_send, ec);
    if (!lingerLong_) {
      char sink[16 * 1024];
      for (int i = 0; i < 64; ++i) {
        const ssize_t got = ::recv(socket_.native_handle(), sink, sizeof(sink), MSG_DONTWAIT);
        if (got <= 0) break;
      }
      socket_.close(ec);
      return;
    }
    lingerLong_ = false;
    drained_ = 0;
    Arm(Clock::now() + std::chrono::milliseconds(500));
    Drain();
  }

  void Drain() {
    buffer_.consume(buffer_.size());
    socket_.async_read_some(buffer_.prepare(16 * 1024),
                            [self = shared_from_this()](boost::system::error_code ec, size_t n) {
                              self->drained_ += n;
                              if (ec || n == 0 || self->timedOut_ || self->drained_ >= (1u << 20)) {
                                self->Disarm();
                                boost::system::error_code ignored;
                                self->socket_.close(ignored);
                                return;
                              }
                              self->buffer_.commit(n);
                              self->Drain();
                            });
  }

  bool Stopping() const {
    std::lock_guard lock(server_.mutex_);
    return server_.stopping_;
  }

  HttpServer::Impl& server_;
  const ConnectionLimits& limits_;
  tcp::socket socket_;
  asio::steady_timer timer_;
  const Peer peer_;
  const bool console_;

  uint64_t timerGeneration_ = 0;
  bool timedOut_ = false;
  beast::flat_buffer buffer_;
  size_t scanned_ = 0;
  Clock::time_point headDeadline_{};
  Clock::time_point headDone_{};
  std::optional<http::request_parser<http::string_body>> parser_;
  uint64_t rawLeft_ = 0;

  // The request being served.
  Request request_;
  const Router::Route* route_ = nullptr;
  bool hasBody_ = false;
  bool chunked_ = false;
  bool keepAlive_ = true;
  bool http10_ = false;
  bool mustClose_ = false;
  bool allowHeader_ = false;
  bool lingerLong_ = false;
  int served_ = 0;
  size_t drained_ = 0;

  // The reply being written.
  std::string head_;
  std::string body_;
  std::optional<Response::FileBody> file_;
  int fileIn_ = -1;
  std::string chunk_;
};

// Writes a streamed body straight to the socket from a handler thread, from a
// buffer of kFlushAt bytes. A body that ends before the buffer first fills goes
// out whole with a Content-Length, head and body in one write; a longer one is
// sent chunked (HTTP/1.0: as it is, then close), the head with its first part.
// Each stalled write waits at most writeTimeout.
class StreamWriter final : public BodyWriter {
 public:
  static constexpr size_t kFlushAt = 16 * 1024;

  StreamWriter(Connection& c, std::function<std::string(std::optional<uint64_t>)> makeHead,
               int stopFd)
      : c_(c), makeHead_(std::move(makeHead)), stopFd_(stopFd) {
    buffer_.reserve(kFlushAt + 64);
  }

  bool Write(std::string_view bytes) override {
    if (failed_) return false;
    buffer_.append(bytes);
    if (buffer_.size() >= kFlushAt) Flush(false);
    return !failed_;
  }
  bool started() const { return started_; }
  // Sends what is left and the end of the body.
  bool Finish() {
    if (failed_) return false;
    if (!started_) {
      started_ = true;
      std::string out = makeHead_(buffer_.size());
      out += buffer_;
      buffer_.clear();
      failed_ = !SendAll(out);
      return !failed_;
    }
    Flush(true);
    return !failed_;
  }

 private:
  void Flush(bool last) {
    std::string out;
    if (!started_) {
      out = makeHead_(std::nullopt);
      started_ = true;
    }
    if (c_.http10_) {
      out += buffer_;
    } else {
      if (!buffer_.empty()) {
        char size[32];
        std::snprintf(size, sizeof(size), "%zx\r\n", buffer_.size());
        out += size;
        out += buffer_;
        out += "\r\n";
      }
      if (last) out += "0\r\n\r\n";
    }
    buffer_.clear();
    if (!SendAll(out)) failed_ = true;
  }

  bool SendAll(std::string_view data) {
    const int fd = c_.socket_.native_handle();
    while (!data.empty()) {
      const ssize_t sent = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent > 0) {
        data.remove_prefix(static_cast<size_t>(sent));
        continue;
      }
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return false;
      pollfd fds[2] = {{fd, POLLOUT, 0}, {stopFd_, POLLIN, 0}};
      const auto wait = c_.limits_.writeTimeout.count();
      const int ready = ::poll(fds, 2, static_cast<int>(std::min<int64_t>(wait, INT_MAX)));
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0 || fds[1].revents != 0) return false;
    }
    return true;
  }

  Connection& c_;
  std::function<std::string(std::optional<uint64_t>)> makeHead_;
  const int stopFd_;
  std::string buffer_;
  bool started_ = false;
  bool failed_ = false;
};

void Connection::Stream(Response res) {
  bool keepAlive = false;
  StreamWriter writer(
      *this,
      [&](std::optional<uint64_t> length) {
        // An HTTP/1.0 client has no chunks: a long body ends where the connection does.
        if (!length && http10_) mustClose_ = true;
        keepAlive = KeepAlive();
        return Head(res, keepAlive, length);
      },
      server_.stopFd_);
  Status s;
  try {
    s = res.stream(writer);
  } catch (const std::exception& e) {
    s = Status::IOError(e.what());
  }
  bool ok = false;
  if (!s.ok() && !writer.started()) {
    // Nothing was sent yet: the failure is answered as a reply of its own.
    Response error;
    if (res.failed) {
      res.failed(error, s);
    } else {
      server_.refusal_(error, 500, "Internal server error");
    }
    asio::post(socket_.get_executor(),
               [self = shared_from_this(), error = std::move(error)]() mutable {
                 self->Reply(std::move(error));
               });
    return;
  }
  ok = s.ok() && writer.Finish();
  if (!s.ok())
    spdlog::error("{} {} failed while sent: {}", request_.method, request_.path, s.ToString());
  asio::post(socket_.get_executor(), [self = shared_from_this(), ok, keepAlive] {
    if (!ok) return self->Close(true);  // a reply cut short must not look complete
    self->Finish(keepAlive);
  });
}

}  // namespace

// --- HttpServer::Impl -------------------------------------------------------------

Status HttpServer::Impl::Listen(const std::string& address, int port, bool console,
                                int* boundPort) {
  const std::string where = address + ":" + std::to_string(port);
  boost::system::error_code ec;
  const auto ip = asio::ip::make_address(address, ec);
  if (ec) return Status::InvalidArgument("cannot listen on " + where + ": not an IP address");
  auto listener = std::make_unique<Listener>(*ioContext_);
  listener->console = console;
  tcp::acceptor& acceptor = listener->acceptor;
  const tcp::endpoint endpoint(ip, static_cast<unsigned short>(port));
  acceptor.open(endpoint.protocol(), ec);
  // SO_REUSEADDR lets a restarted server bind while old connections linger; never
  // SO_REUSEPORT, with which a second server would bind the same port and the
  // kernel would split connections between the two.
  if (!ec) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec) acceptor.bind(endpoint, ec);
  if (!ec) acceptor.listen(SOMAXCONN, ec);
  if (ec) {
    if (ec == asio::error::address_in_use) {
      return Status::IOError("cannot listen on " + where +
                             ": the address is already in use (is another server running?)");
    }
    return Status::IOError("cannot listen on " + where + ": " + ec.message());
  }
  *boundPort = acceptor.local_endpoint().port();
  listeners_.push_back(std::move(listener));
  return Status::OK();
}

Status HttpServer::Impl::Start() {
  {
    std::lock_guard lock(mutex_);
    if (started_) return Status::InvalidArgument("already started");
    if (stopping_) return Status::InvalidArgument("stopped");
    started_ = true;
  }
  if (listeners_.empty()) return Status::InvalidArgument("nothing to listen on");
  // Every connection is a descriptor: take what the system allows.
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
  }
  work_.emplace(ioContext_->get_executor());
  for (auto& listener : listeners_) Accept(listener.get());
  pool_.Start(std::max(1, options_.handlerThreads));
  for (int i = 0; i < std::max(1, options_.ioThreads); ++i) {
    ioThreads_.emplace_back([this] { ioContext_->run(); });
  }
  return Status::OK();
}

void HttpServer::Impl::Stop() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
  }
  const uint64_t one = 1;
  if (stopFd_ >= 0) {
    [[maybe_unused]] const ssize_t n = ::write(stopFd_, &one, sizeof(one));
  }
  work_.reset();
  ioContext_->stop();
  for (auto& t : ioThreads_) t.join();
  ioThreads_.clear();
  pool_.Stop();
  // No thread runs now: the port is free and every connection closed once this returns.
  for (auto& listener : listeners_) {
    boost::system::error_code ec;
    listener->acceptor.close(ec);
  }
  std::map<const void*, std::function<void()>> closers;
  {
    std::lock_guard lock(mutex_);
    closers = closers_;
  }
  for (auto& [connection, close] : closers) close();
}

void HttpServer::Impl::Accept(Listener* listener) {
  listener->acceptor.async_accept(
      asio::make_strand(*ioContext_),
      [this, listener](boost::system::error_code ec, tcp::socket socket) {
        if (ec == asio::error::operation_aborted || !listener->acceptor.is_open()) return;
        if (!ec) {
          OnAccepted(std::move(socket), listener);
          return Accept(listener);
        }
        // Out of descriptors or memory: wait a moment instead of spinning.
        spdlog::warn("accepting a connection failed: {}", ec.message());
        listener->retry.expires_after(std::chrono::milliseconds(50));
        listener->retry.async_wait([this, listener](boost::system::error_code e) {
          if (!e) Accept(listener);
        });
      });
}

void HttpServer::Impl::OnAccepted(tcp::socket socket, Listener* listener) {
  boost::system::error_code ec;
  const tcp::endpoint remote = socket.remote_endpoint(ec);
  if (ec) return;
  Peer peer = DescribePeer(remote);
  peer.trusted = trusted_.count(remote.address()) > 0 ||
                 (remote.address().is_v6() && remote.address().to_v6().is_v4_mapped() &&
                  trusted_.count(asio::ip::make_address_v4(asio::ip::v4_mapped,
                                                           remote.address().to_v6())) > 0);
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    const bool total = active_ >= options_.limits.maxConnections;
    auto it = perAddress_.find(peer.key);
    const int fromAddress = it == perAddress_.end() ? 0 : it->second;
    if (total || (!peer.trusted && fromAddress >= options_.limits.maxConnectionsPerAddress)) {
      RefuseConnection(socket, peer, total);
      return;
    }
    ++active_;
    if (!peer.trusted) ++perAddress_[peer.key];
  }
  auto connection =
      std::make_shared<Connection>(*this, std::move(socket), std::move(peer), listener->console);
  // Everything a connection does runs on its own strand, its start too.
  asio::dispatch(connection->executor(), [connection] { connection->Start(); });
}

// Called with mutex_ held: a canned reply, sent without waiting, then close.
void HttpServer::Impl::RefuseConnection(tcp::socket& socket, const Peer& peer, bool total) {
  static constexpr std::string_view kBody =
      "{\"response_header\":{\"response_code\":503,\"response_string\":\"Too many "
      "connections\"}}";
  static const std::string kReply =
      "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nRetry-After: 1\r\n"
      "Content-Type: application/json\r\nContent-Length: " +
      std::to_string(kBody.size()) + "\r\n\r\n" + std::string(kBody);
  [[maybe_unused]] const ssize_t n =
      ::send(socket.native_handle(), kReply.data(), kReply.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  boost::system::error_code ec;
  socket.shutdown(tcp::socket::shutdown_both, ec);
  socket.close(ec);
  ++refusedSinceLog_;
  const auto now = Clock::now();
  if (now - lastRefusalLog_ >= std::chrono::seconds(1)) {
    spdlog::warn("refused {} connection(s): {} (latest from {}; {} open)", refusedSinceLog_,
                 total ? "the server is at its connection limit of " +
                             std::to_string(options_.limits.maxConnections)
                       : "over the limit of " +
                             std::to_string(options_.limits.maxConnectionsPerAddress) +
                             " per address",
                 peer.ip, active_);
    refusedSinceLog_ = 0;
    lastRefusalLog_ = now;
  }
}

void HttpServer::Impl::Release(const Peer& peer, const void* connection) {
  std::lock_guard lock(mutex_);
  closers_.erase(connection);
  --active_;
  if (peer.trusted) return;
  auto it = perAddress_.find(peer.key);
  if (it != perAddress_.end() && --it->second <= 0) perAddress_.erase(it);
}

// --- HttpServer -------------------------------------------------------------------

HttpServer::HttpServer(HttpServerOptions options, Router router)
    : impl_(std::make_unique<Impl>(std::move(options), std::move(router))) {}

HttpServer::~HttpServer() = default;

void HttpServer::SetRefusalWriter(RefusalWriter writer) { impl_->refusal_ = std::move(writer); }

Status HttpServer::Listen(const std::string& address, int port, bool console, int* boundPort) {
  return impl_->Listen(address, port, console, boundPort);
}

Status HttpServer::Start() { return impl_->Start(); }

void HttpServer::Stop() { impl_->Stop(); }

const ConnectionLimits& HttpServer::limits() const { return impl_->options_.limits; }

int HttpServer::threadCount() const {
  return std::max(1, impl_->options_.ioThreads) + std::max(1, impl_->options_.handlerThreads);
}

}  // namespace zolvani::refserver
