#include "reference/server/ContentServer.h"

#include <httplib.h>
#include <spdlog/spdlog.h>

#include <unistd.h>

#include <chrono>
#include <fstream>

#include "reference/server/admin/AdminApi.h"
#include "reference/server/admin/ConsoleStore.h"
#include "reference/server/console/ConsoleSite.h"
#include "reference/server/media/MediaLibrary.h"
#include "reference/server/protocol/ProtocolHandler.h"
#include "reference/server/store/postgres/PgStore.h"
#include "reference/server/store/sqlite/SqliteStore.h"

namespace zolvani::refserver {

namespace {

void SendJson(httplib::Response& res, int status, const nlohmann::json& body) {
  res.status = status;
  // 503 is only answered while the store cannot serve; a second later it may.
  if (status == 503) res.set_header("Retry-After", "1");
  res.set_content(body.dump(), "application/json");
}

// A refusal in the protocol's reply form.
void SendRefusal(httplib::Response& res, int status, const std::string& reason) {
  SendJson(res, status,
           {{"response_header", {{"response_code", status}, {"response_string", reason}}}});
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
  options.limits.warmThreads = options.threads;
  if (options.limits.maxConnections < 1) options.limits.maxConnections = 1;
  if (options.limits.maxConnectionsPerAddress < 1) options.limits.maxConnectionsPerAddress = 1;
  if (!options.clockMs) options.clockMs = &ContentServer::WallClockMs;
  if (options.nodeName.empty()) {
    char host[256] = {};
    options.nodeName = ::gethostname(host, sizeof(host) - 1) == 0 && host[0] != '\0'
                           ? std::string(host)
                           : std::string("node");
  }
  std::unique_ptr<Store> store;
  Status s;
  if (options.databaseUrl.empty()) {
    std::unique_ptr<SqliteStore> sqlite;
    s = SqliteStore::Open(options.dataDir, &sqlite);
    store = std::move(sqlite);
  } else {
    PgStoreOptions pg;
    pg.pool.size = options.databasePool;
    std::unique_ptr<PgStore> postgres;
    s = PgStore::Open(options.databaseUrl, pg, &postgres);
    store = std::move(postgres);
  }
  if (!s.ok()) return s;
  std::unique_ptr<ConsoleStore> consoleStore;
  if (options.console) {
    s = ConsoleStore::Open(options.dataDir, &consoleStore);
    if (!s.ok()) return s;
  }
  server->reset(new ContentServer(std::move(options), std::move(store), std::move(consoleStore)));
  return Status::OK();
}

ContentServer::ContentServer(ServerOptions options, std::unique_ptr<Store> store,
                             std::unique_ptr<ConsoleStore> consoleStore)
    : options_(std::move(options)),
      store_(std::move(store)),
      consoleStore_(std::move(consoleStore)),
      figures_(options_.nodeName),
      sessions_(options_.consoleSessions),
      media_(std::make_unique<MediaLibrary>(options_.dataDir / "media")),
      protocol_(std::make_unique<ProtocolHandler>(store_.get(), options_.freshnessWindowSeconds,
                                                  options_.clockMs)),
      http_(std::make_unique<GuardedServer>(options_.limits)) {
  if (consoleStore_) {
    admin_ = std::make_unique<AdminApi>(store_.get(), consoleStore_.get(), &sessions_, &figures_,
                                        media_->root(), options_.clockMs);
    consoleSite_ = std::make_unique<ConsoleSite>(admin_.get(), &figures_, options_.clockMs,
                                                 options_.consoleFromAnywhere);
  }
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
  http_->SetRefusalWriter(&SendRefusal);
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
        SendRefusal(res, 500, "Internal server error");
      });

  // The console's routes come first: the protocol's catch-all POST route below
  // would otherwise answer its changes.
  if (consoleSite_) consoleSite_->Install(http_.get());

  // Endpoints may sit below a path prefix when the base URL has one. The body is
  // read here, through the transport's limit, whatever its framing.
  http_->Post(R"((.*)/Subscriptions/client/([^/?]+))", [this](
                                                           const httplib::Request& req,
                                                           httplib::Response& res,
                                                           const httplib::ContentReader& reader) {
    ProtocolRequest request;
    request.endpoint = req.matches[2].str();
    if (!ProtocolHandler::IsEndpoint(request.endpoint)) {
      figures_.Record("other", 404, 0, options_.clockMs());
      SendRefusal(res, 404, "Unknown endpoint");
      return;
    }
    const int refusal = GuardedServer::ReadBody(reader, &request.body);
    if (refusal == 413) {
      SendRefusal(
          res, 413,
          "Request body larger than " + std::to_string(http_->limits().maxBodyBytes) + " bytes");
      return;
    }
    if (refusal != 0) {
      SendRefusal(res, refusal, refusal == 408 ? "Request timeout" : "Malformed request body");
      return;
    }
    request.host = req.get_header_value("Host");
    request.target = req.target;
    request.serverUrl = options_.publicUrl.empty() ? "http://" + request.host : options_.publicUrl;
    ProtocolReply reply = protocol_->Handle(request);
    int code = 0;
    if (reply.body.is_object() && reply.body.contains("response_header") &&
        reply.body["response_header"].is_object()) {
      code = reply.body["response_header"].value("response_code", 0);
    }
    figures_.Record(request.endpoint, reply.httpStatus, code, options_.clockMs());
    SendJson(res, reply.httpStatus, reply.body);
  });
  // Every other POST is answered without reading its body, so that the library
  // never reads one past the limit.
  http_->Post(".*", [](const httplib::Request&, httplib::Response& res,
                       const httplib::ContentReader&) { SendRefusal(res, 404, "Not found"); });

  http_->Get("/health", [](const httplib::Request&, httplib::Response& res) {
    res.set_content("ok\n", "text/plain");
  });
  // The balancer's health check: ready only while this server reaches its store,
  // whereas /health says no more than that the process answers.
  http_->Get("/ready", [this](const httplib::Request&, httplib::Response& res) {
    const Status s = store_->Ping();
    if (s.ok()) {
      res.set_content("ready\n", "text/plain");
      return;
    }
    spdlog::warn("not ready: {}", s.ToString());
    res.status = 503;
    res.set_header("Retry-After", "1");
    res.set_content("not ready: the store cannot be reached\n", "text/plain");
  });

  http_->Get(R"(/media/(.+))", [this](const httplib::Request& req, httplib::Response& res) {
    MediaFile file;
    if (!media_->Find(req.matches[1].str(), &file).ok()) {
      figures_.Record("media", 404, 0, options_.clockMs());
      res.status = 404;
      res.set_content("not found\n", "text/plain");
      return;
    }
    res.set_header("Accept-Ranges", "bytes");
    res.set_header("ETag", file.etag);
    res.set_header("Last-Modified", file.lastModified);
    // The transport hands Range over renamed, so that the library neither refuses
    // what it cannot parse nor slices the reply itself.
    const size_t ranges = req.get_header_value_count(GuardedServer::kRangeHeader);
    const bool hasRange = ranges > 0;
    if (!hasRange && req.has_header("If-None-Match") &&
        req.get_header_value("If-None-Match") == file.etag) {
      res.status = 304;
      return;
    }
    RangeRequest range;
    if (hasRange && (!req.has_header("If-Range") ||
                     MediaLibrary::IfRangeMatches(req.get_header_value("If-Range"), file))) {
      // Several Range fields make an invalid header, which is ignored.
      if (ranges == 1) {
        range =
            MediaLibrary::ParseRange(req.get_header_value(GuardedServer::kRangeHeader), file.size);
      }
    }
    figures_.Record("media", range.kind == RangeRequest::Kind::kUnsatisfiable ? 416 : 200, 0,
                    options_.clockMs());
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
  int port = 0;
  Status s = http_->Bind(options_.address, options_.port, &port);
  if (!s.ok()) return s;
  port_ = port;
  thread_ = std::thread([this] { http_->Serve(); });
  figures_.StartFlushing(store_.get(), options_.figuresEvery, options_.clockMs);
  // Stop() right after Start() must find the loop running, or it would miss it.
  while (!http_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  spdlog::info("serving {} from {}", url(), options_.dataDir.string());
  return Status::OK();
}

void ContentServer::Stop() {
  if (!thread_.joinable()) return;
  http_->Shutdown();
  thread_.join();
  figures_.StopFlushing();
}

}  // namespace zolvani::refserver
