#include "reference/server/ContentServer.h"

#include <httplib.h>
#include <spdlog/spdlog.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <fstream>

#include "reference/server/MediaLibrary.h"
#include "reference/server/ProtocolHandler.h"

namespace zolvani::refserver {

namespace {

constexpr size_t kMaxBodyBytes = 1 << 20;

void SendJson(httplib::Response& res, int status, const nlohmann::json& body) {
  res.status = status;
  res.set_content(body.dump(), "application/json");
}

// Streams [first, first + length) of `path`.
void ProvideFileRange(httplib::Response& res, const std::filesystem::path& path, uint64_t first,
                      uint64_t length, const std::string& contentType) {
  if (length == 0) {
    res.set_content("", contentType);
    return;
  }
  auto in = std::make_shared<std::ifstream>(path, std::ios::binary);
  res.set_content_provider(static_cast<size_t>(length), contentType,
                           [in, first](size_t offset, size_t want, httplib::DataSink& sink) {
                             char buffer[64 * 1024];
                             const size_t chunk = std::min(want, sizeof(buffer));
                             in->clear();
                             in->seekg(static_cast<std::streamoff>(first + offset));
                             in->read(buffer, static_cast<std::streamsize>(chunk));
                             const auto got = in->gcount();
                             if (got <= 0)
                               return false;  // the file shrank under us: end the connection
                             return sink.write(buffer, static_cast<size_t>(got));
                           });
}

// The HTTP library listens with a queue of five pending connections, far too few
// when hundreds of devices connect at once: the rest are dropped and retried after
// a second, or reset. Listening again on a bound socket only changes its queue
// length, so the server finds its own listening socket and widens the queue.
void WidenListenQueue(int port) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
    int fd = -1;
    try {
      fd = std::stoi(entry.path().filename().string());
    } catch (const std::exception&) {
      continue;
    }
    int accepting = 0;
    socklen_t size = sizeof(accepting);
    if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &size) != 0 || accepting == 0) {
      continue;
    }
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) continue;
    int boundPort = -1;
    if (address.ss_family == AF_INET) {
      boundPort = ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    } else if (address.ss_family == AF_INET6) {
      boundPort = ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
    }
    if (boundPort == port) ::listen(fd, SOMAXCONN);
  }
}

}  // namespace

int64_t ContentServer::WallClockMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

Status ContentServer::Create(ServerOptions options, std::unique_ptr<ContentServer>* server) {
  if (options.dataDir.empty()) return Status::InvalidArgument("a data folder is required");
  if (options.port < 0 || options.port > 65535) return Status::InvalidArgument("bad port");
  if (options.threads < 1) options.threads = 1;
  if (!options.clockMs) options.clockMs = &ContentServer::WallClockMs;
  std::unique_ptr<ContentStore> store;
  Status s = ContentStore::Open(options.dataDir, &store);
  if (!s.ok()) return s;
  server->reset(new ContentServer(std::move(options), std::move(store)));
  return Status::OK();
}

ContentServer::ContentServer(ServerOptions options, std::unique_ptr<ContentStore> store)
    : options_(std::move(options)),
      store_(std::move(store)),
      media_(std::make_unique<MediaLibrary>(options_.dataDir / "media")),
      protocol_(std::make_unique<ProtocolHandler>(store_.get(), options_.freshnessWindowSeconds,
                                                  options_.clockMs)),
      http_(std::make_unique<httplib::Server>()) {
  InstallRoutes();
}

ContentServer::~ContentServer() { Stop(); }

const std::filesystem::path& ContentServer::mediaRoot() const { return media_->root(); }

std::string ContentServer::url() const {
  const bool ipv6 = options_.address.find(':') != std::string::npos;
  return "http://" + (ipv6 ? "[" + options_.address + "]" : options_.address) + ":" +
         std::to_string(port_.load());
}

void ContentServer::InstallRoutes() {
  const int threads = options_.threads;
  http_->new_task_queue = [threads] {
    return new httplib::ThreadPool(static_cast<size_t>(threads));
  };
  http_->set_payload_max_length(kMaxBodyBytes);
  http_->set_keep_alive_max_count(1000);
  http_->set_keep_alive_timeout(2);
  http_->set_read_timeout(10, 0);
  http_->set_write_timeout(10, 0);
  http_->set_exception_handler(
      [](const httplib::Request& req, httplib::Response& res, std::exception_ptr ep) {
        std::string what = "unknown";
        try {
          if (ep) std::rethrow_exception(ep);
        } catch (const std::exception& e) {
          what = e.what();
        } catch (...) {
        }
        spdlog::error("{} {} failed: {}", req.method, req.path, what);
        SendJson(res, 500,
                 {{"response_header",
                   {{"response_code", 500}, {"response_string", "Internal server error"}}}});
      });

  // Endpoints may sit below a path prefix when the base URL has one.
  http_->Post(R"((.*)/Subscriptions/client/([^/?]+))", [this](const httplib::Request& req,
                                                              httplib::Response& res) {
    ProtocolRequest request;
    request.endpoint = req.matches[2].str();
    if (!ProtocolHandler::IsEndpoint(request.endpoint)) {
      SendJson(
          res, 404,
          {{"response_header", {{"response_code", 404}, {"response_string", "Unknown endpoint"}}}});
      return;
    }
    request.host = req.get_header_value("Host");
    request.target = req.target;
    request.body = req.body;
    request.serverUrl = options_.publicUrl.empty() ? "http://" + request.host : options_.publicUrl;
    ProtocolReply reply = protocol_->Handle(request);
    SendJson(res, reply.httpStatus, reply.body);
  });

  http_->Get("/health", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("ok\n", "text/plain");
  });

  http_->Get(R"(/media/(.+))", [this](const httplib::Request& req, httplib::Response& res) {
    MediaFile file;
    if (!media_->Find(req.matches[1].str(), &file).ok()) {
      res.status = 404;
      res.set_content("not found\n", "text/plain");
      return;
    }
    // This handler answers Range itself (with If-Range); the library must not
    // slice the reply a second time.
    const_cast<httplib::Request&>(req).ranges.clear();
    res.set_header("Accept-Ranges", "bytes");
    res.set_header("ETag", file.etag);
    res.set_header("Last-Modified", file.lastModified);
    const bool hasRange = req.has_header("Range");
    if (!hasRange && req.has_header("If-None-Match") &&
        req.get_header_value("If-None-Match") == file.etag) {
      res.status = 304;
      return;
    }
    RangeRequest range;
    if (hasRange && (!req.has_header("If-Range") ||
                     MediaLibrary::IfRangeMatches(req.get_header_value("If-Range"), file))) {
      range = MediaLibrary::ParseRange(req.get_header_value("Range"), file.size);
    }
    switch (range.kind) {
      case RangeRequest::Kind::kUnsatisfiable:
        res.status = 416;
        res.set_header("Content-Range", "bytes */" + std::to_string(file.size));
        return;
      case RangeRequest::Kind::kPartial: {
        res.status = 206;
        const uint64_t last = range.range.first + range.range.length - 1;
        res.set_header("Content-Range", "bytes " + std::to_string(range.range.first) + "-" +
                                            std::to_string(last) + "/" + std::to_string(file.size));
        ProvideFileRange(res, file.path, range.range.first, range.range.length, file.contentType);
        return;
      }
      case RangeRequest::Kind::kWhole:
        res.status = 200;
        ProvideFileRange(res, file.path, 0, file.size, file.contentType);
        return;
    }
  });
}

Status ContentServer::Start() {
  if (thread_.joinable()) return Status::InvalidArgument("already started");
  int port = options_.port;
  if (port == 0) {
    port = http_->bind_to_any_port(options_.address);
    if (port <= 0) return Status::IOError("cannot bind " + options_.address);
  } else if (!http_->bind_to_port(options_.address, port)) {
    return Status::IOError("cannot bind " + options_.address + ":" + std::to_string(port));
  }
  port_ = port;
  WidenListenQueue(port);
  thread_ = std::thread([this] { http_->listen_after_bind(); });
  // Stop() right after Start() must find the loop running, or it would miss it.
  while (!http_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  spdlog::info("serving {} from {}", url(), options_.dataDir.string());
  return Status::OK();
}

void ContentServer::Stop() {
  if (!thread_.joinable()) return;
  http_->stop();
  thread_.join();
}

}  // namespace zolvani::refserver
