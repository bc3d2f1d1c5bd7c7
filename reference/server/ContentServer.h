// ContentServer: the reference content server as an object that a program or a test
// starts and stops in-process. It answers the protocol endpoints under
// /Subscriptions/client/<name> and publishes the media folder under /media with
// byte ranges and validators. Unless turned off, it also serves the operator's
// console under /admin (see console/ConsoleSite.h) and counts what it answers for
// the console's figures.
//
// Start() and Stop() are meant for one controlling thread; requests are served on
// the transport's few I/O threads and its pool of handler threads (http/HttpServer.h). The store is
// safe to use from other threads while the server runs (for example to add items in a test).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "reference/server/Status.h"
#include "reference/server/admin/TrafficFigures.h"
#include "reference/server/http/HttpServer.h"
#include "reference/server/store/ConsoleState.h"
#include "reference/server/store/Store.h"

namespace zolvani::refserver {

class AdminApi;
class ConsoleSite;
class MediaLibrary;
class ProtocolHandler;

struct ServerOptions {
  // Holds server.sqlite and the media folder; with a database only the media folder.
  std::filesystem::path dataDir;
  // A PostgreSQL URL ("postgresql://user@host:port/db") that replicas share; empty:
  // the embedded SQLite store in dataDir.
  std::string databaseUrl;
  int databasePool = 8;  // connections to the database per server
  std::string address = "127.0.0.1";
  int port = 0;  // 0: any free port; see ContentServer::port()
  // How devices reach this server, "http://host:port", used for media URLs in the
  // catalog. Empty: taken from the Host header of each request.
  std::string publicUrl;
  int64_t freshnessWindowSeconds = 300;
  // Threads that run handlers, which may wait for the store; connections cost no
  // thread of their own.
  int threads = 8;
  int ioThreads = 2;        // threads that run every connection's I/O
  ConnectionLimits limits;  // deadlines, connection caps, size limits
  // Balancers in front of this server: their connections are exempt from the
  // per-address cap, their requests' client address is the last X-Forwarded-For
  // entry, and the console refuses requests that came through them.
  std::vector<std::string> trustedProxies;
  std::function<int64_t()> clockMs;  // milliseconds since 1970; wall clock when empty
  // The operator's console under /admin, answering loopback clients only unless
  // consoleFromAnywhere is set.
  bool console = true;
  bool consoleFromAnywhere = false;
  // When consolePort is set (0: any free port, see consolePort()), the console is
  // served on this listener of its own, and never on the public one.
  std::string consoleAddress = "127.0.0.1";
  std::optional<int> consolePort;
  SessionLimits consoleSessions;
  // Names this server among those sharing its store, in the console's figures and
  // in logs; the host name when empty.
  std::string nodeName;
  // How often this server adds its traffic figures to the store.
  std::chrono::milliseconds figuresEvery{10000};
  // Reverse proxies in front of the console (a TLS terminator) whose
  // X-Forwarded-For and X-Forwarded-Proto the console believes (see AdminOptions);
  // unlike trustedProxies, which names the balancer in front of the devices.
  std::vector<std::string> consoleTrustedProxies;
};

class ContentServer {
 public:
  static Status Create(ServerOptions options, std::unique_ptr<ContentServer>* server);
  ~ContentServer();

  ContentServer(const ContentServer&) = delete;
  ContentServer& operator=(const ContentServer&) = delete;

  // Binds the address and serves on a background thread. Fails when another
  // server listens on the port.
  Status Start();
  // Stops serving and waits for the serving thread; safe to call more than once.
  void Stop();

  int port() const { return port_; }
  // The console's own listener's port; 0 when it has none.
  int consolePort() const { return consolePort_; }
  // "http://address:port" once started.
  std::string url() const;
  Store* store() { return store_.get(); }
  // Null when the console is off.
  ConsoleState* consoleState() { return consoleState_.get(); }
  TrafficFigures* figures() { return &figures_; }
  const std::string& nodeName() const { return options_.nodeName; }
  const std::filesystem::path& mediaRoot() const;

  static int64_t WallClockMs();

 private:
  ContentServer(ServerOptions options, std::unique_ptr<Store> store,
                std::unique_ptr<ConsoleState> consoleState);
  Router MakeRoutes();

  ServerOptions options_;
  std::unique_ptr<Store> store_;
  std::unique_ptr<ConsoleState> consoleState_;
  TrafficFigures figures_;
  std::unique_ptr<AdminApi> admin_;
  std::unique_ptr<ConsoleSite> consoleSite_;
  std::unique_ptr<MediaLibrary> media_;
  std::unique_ptr<ProtocolHandler> protocol_;
  std::unique_ptr<HttpServer> http_;
  bool started_ = false;
  std::atomic<int> port_{0};
  std::atomic<int> consolePort_{0};
};

}  // namespace zolvani::refserver
