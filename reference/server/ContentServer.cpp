#include "reference/server/ContentServer.h"

#include <spdlog/spdlog.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>
#include <chrono>

#include <algorithm>

#include "reference/server/admin/AdminApi.h"
#include "reference/server/console/ConsoleSite.h"
#include "reference/server/media/MediaLibrary.h"
#include "reference/server/protocol/ProtocolHandler.h"
#include "reference/server/store/postgres/PgConsoleState.h"
#include "reference/server/store/postgres/PgStore.h"
#include "reference/server/store/sqlite/SqliteConsoleState.h"
#include "reference/server/store/sqlite/SqliteStore.h"

namespace zolvani::refserver {

namespace {

void SendJson(Response& res, int status, const nlohmann::json& body) {
  res.status = status;
  // 503 is only answered while the store cannot serve; a second later it may.
  if (status == 503) res.SetHeader("Retry-After", "1");
  res.SetContent(body.dump(), "application/json");
}

// A refusal in the protocol's reply form.
void SendRefusal(Response& res, int status, const std::string& reason) {
  SendJson(res, status,
           {{"response_header", {{"response_code", status}, {"response_string", reason}}}});
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
  // Connections cost no thread; these few threads serve every one of them.
  options.threads = std::clamp(options.threads, 1, 48);
  options.ioThreads = std::clamp(options.ioThreads, 1, 8);
  if (options.limits.maxConnections < 1) options.limits.maxConnections = 1;
  if (options.limits.maxConnectionsPerAddress < 1) options.limits.maxConnectionsPerAddress = 1;
  if (!options.clockMs) options.clockMs = &ContentServer::WallClockMs;
  for (const auto& proxy : options.trustedProxies) {
    unsigned char address[sizeof(in6_addr)];
    if (::inet_pton(AF_INET, proxy.c_str(), address) != 1 &&
        ::inet_pton(AF_INET6, proxy.c_str(), address) != 1) {
      return Status::InvalidArgument("trusted proxy \"" + proxy + "\" is not an IP address");
    }
  }
  if (options.nodeName.empty()) {
    char host[256] = {};
    options.nodeName = ::gethostname(host, sizeof(host) - 1) == 0 && host[0] != '\0'
                           ? std::string(host)
                           : std::string("node");
  }
  std::unique_ptr<Store> store;
  std::unique_ptr<ConsoleState> consoleState;
  Status s;
  if (options.databaseUrl.empty()) {
    std::unique_ptr<SqliteStore> sqlite;
    s = SqliteStore::Open(options.dataDir, &sqlite);
    if (!s.ok()) return s;
    store = std::move(sqlite);
    if (options.console) {
      std::unique_ptr<SqliteConsoleState> console;
      s = SqliteConsoleState::Open(options.dataDir, &console);
      if (!s.ok()) return s;
      consoleState = std::move(console);
    }
  } else {
    PgStoreOptions pg;
    pg.pool.size = options.databasePool;
    std::unique_ptr<PgStore> postgres;
    s = PgStore::Open(options.databaseUrl, pg, &postgres);
    if (!s.ok()) return s;
    // Console state lives in the same database, so every replica shares its
    // sessions, throttle and audit log; it borrows the store's connections (the
    // server destroys the console state before the store).
    if (options.console) consoleState = std::make_unique<PgConsoleState>(postgres->pool());
    store = std::move(postgres);
  }
  server->reset(new ContentServer(std::move(options), std::move(store), std::move(consoleState)));
  return Status::OK();
}

ContentServer::ContentServer(ServerOptions options, std::unique_ptr<Store> store,
                             std::unique_ptr<ConsoleState> consoleState)
    : options_(std::move(options)),
      store_(std::move(store)),
      consoleState_(std::move(consoleState)),
      figures_(options_.nodeName),
      media_(std::make_unique<MediaLibrary>(options_.dataDir / "media")),
      protocol_(std::make_unique<ProtocolHandler>(store_.get(), options_.freshnessWindowSeconds,
                                                  options_.clockMs)) {
  if (consoleState_) {
    AdminOptions adminOptions;
    adminOptions.sessions = options_.consoleSessions;
    adminOptions.trustedProxies = options_.consoleTrustedProxies;
    admin_ = std::make_unique<AdminApi>(store_.get(), consoleState_.get(), &figures_,
                                        media_->root(), options_.clockMs, adminOptions);
    consoleSite_ = std::make_unique<ConsoleSite>(admin_.get(), &figures_, options_.clockMs,
                                                 options_.consoleFromAnywhere,
                                                 options_.consolePort.has_value());
  }
  HttpServerOptions http;
  http.limits = options_.limits;
  http.ioThreads = options_.ioThreads;
  http.handlerThreads = options_.threads;
  http.trustedProxies = options_.trustedProxies;
  http_ = std::make_unique<HttpServer>(std::move(http), MakeRoutes());
  http_->SetRefusalWriter(&SendRefusal);
}

ContentServer::~ContentServer() { Stop(); }

const std::filesystem::path& ContentServer::mediaRoot() const { return media_->root(); }

std::string ContentServer::url() const {
  const bool ipv6 = options_.address.find(':') != std::string::npos;
  return "http://" + (ipv6 ? "[" + options_.address + "]" : options_.address) + ":" +
         std::to_string(port_.load());
}

Router ContentServer::MakeRoutes() {
  Router router;
  // The console's routes come first: the protocol's catch-all POST route below
  // would otherwise answer its changes.
  if (consoleSite_) consoleSite_->Install(&router);

  // Endpoints may sit below a path prefix when the base URL has one. The body has
  // been read through the transport's limits, whatever its framing.
  router.Post(R"((.*)/Subscriptions/client/([^/?]+))", [this](const Request& req, Response& res) {
    ProtocolRequest request;
    request.endpoint = req.matches[2];
    if (!ProtocolHandler::IsEndpoint(request.endpoint)) {
      figures_.Record("other", 404, 0, options_.clockMs());
      SendRefusal(res, 404, "Unknown endpoint");
      return;
    }
    request.body = req.body;
    request.host = req.header("Host");
    request.target = req.target;
    request.serverUrl = options_.publicUrl.empty() ? "http://" + request.host : options_.publicUrl;
    ProtocolReply reply = protocol_->Handle(request);
    int code = 0;
    if (reply.body.is_object() && reply.body.contains("response_header") &&
        reply.body["response_header"].is_object()) {
      code = reply.body["response_header"].value("response_code", 0);
    }
    figures_.Record(request.endpoint, reply.httpStatus, code, options_.clockMs());
    if (reply.stream) {
      res.status = reply.httpStatus;
      res.ReplaceHeader("Content-Type", "application/json");
      res.stream = [stream = std::move(reply.stream)](BodyWriter& writer) {
        return stream([&writer](std::string_view bytes) { return writer.Write(bytes); });
      };
      res.failed = [](Response& error, const Status& s) {
        spdlog::error("store failure: {}", s.ToString());
        SendRefusal(error, 500, "Internal server error");
      };
      return;
    }
    SendJson(res, reply.httpStatus, reply.body);
  });
  // Every other POST is answered without reading its body, so that no body is
  // read past the limit for nothing.
  router.Post(
      ".*", [](const Request&, Response& res) { SendRefusal(res, 404, "Not found"); }, false);

  router.Get("/health",
             [](const Request&, Response& res) { res.SetContent("ok\n", "text/plain"); });

  // The balancer's health check: ready only while this server reaches its store,
  // whereas /health says no more than that the process answers.
  router.Get("/ready", [this](const Request&, Response& res) {
    const Status s = store_->Ping();
    if (s.ok()) {
      res.SetContent("ready\n", "text/plain");
      return;
    }
    spdlog::warn("not ready: {}", s.ToString());
    res.status = 503;
    res.SetHeader("Retry-After", "1");
    res.SetContent("not ready: the store cannot be reached\n", "text/plain");
  });

  router.Get(R"(/media/(.+))", [this](const Request& req, Response& res) {
    MediaFile file;
    if (!media_->Find(req.matches[1], &file).ok()) {
      figures_.Record("media", 404, 0, options_.clockMs());
      res.status = 404;
      res.SetContent("not found\n", "text/plain");
      return;
    }
    res.SetHeader("Accept-Ranges", "bytes");
    res.SetHeader("ETag", file.etag);
    res.SetHeader("Last-Modified", file.lastModified);
    const size_t ranges = req.headerCount("Range");
    const bool hasRange = ranges > 0;
    if (!hasRange && req.hasHeader("If-None-Match") && req.header("If-None-Match") == file.etag) {
      res.status = 304;
      return;
    }
    RangeRequest range;
    if (hasRange && (!req.hasHeader("If-Range") ||
                     MediaLibrary::IfRangeMatches(req.header("If-Range"), file))) {
      // Several Range fields make an invalid header, which is ignored.
      if (ranges == 1) range = MediaLibrary::ParseRange(req.header("Range"), file.size);
    }
    figures_.Record("media", range.kind == RangeRequest::Kind::kUnsatisfiable ? 416 : 200, 0,
                    options_.clockMs());
    switch (range.kind) {
      case RangeRequest::Kind::kUnsatisfiable:
        res.status = 416;
        res.SetHeader("Content-Range", "bytes */" + std::to_string(file.size));
        return;
      case RangeRequest::Kind::kPartial: {
        res.status = 206;
        const uint64_t last = range.range.first + range.range.length - 1;
        res.SetHeader("Content-Range", "bytes " + std::to_string(range.range.first) + "-" +
                                           std::to_string(last) + "/" + std::to_string(file.size));
        res.SetHeader("Content-Type", file.contentType);
        res.file = Response::FileBody{file.path, range.range.first, range.range.length};
        return;
      }
      case RangeRequest::Kind::kWhole:
        res.status = 200;
        res.SetHeader("Content-Type", file.contentType);
        res.file = Response::FileBody{file.path, 0, file.size};
        return;
    }
  });
  return router;
}

Status ContentServer::Start() {
  if (started_) return Status::InvalidArgument("already started");
  int port = 0;
  Status s = http_->Listen(options_.address, options_.port, false, &port);
  if (!s.ok()) return s;
  if (consoleSite_ && options_.consolePort) {
    int consolePort = 0;
    s = http_->Listen(options_.consoleAddress, *options_.consolePort, true, &consolePort);
    if (!s.ok()) return s;
    consolePort_ = consolePort;
  }
  s = http_->Start();
  if (!s.ok()) return s;
  started_ = true;
  port_ = port;
  figures_.StartFlushing(store_.get(), options_.figuresEvery, options_.clockMs);
  spdlog::info("serving {} from {} ({} threads)", url(), options_.dataDir.string(),
               http_->threadCount());
  return Status::OK();
}

void ContentServer::Stop() {
  if (!started_) return;
  started_ = false;
  http_->Stop();
  figures_.StopFlushing();
}

}  // namespace zolvani::refserver
