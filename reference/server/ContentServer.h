// ContentServer: the reference content server as an object that a program or a test
// starts and stops in-process. It answers the protocol endpoints under
// /Subscriptions/client/<name> and publishes the media folder under /media with
// byte ranges and validators. Unless turned off, it also serves the operator's
// console under /admin (see console/ConsoleSite.h) and counts what it answers for
// the console's figures.
//
// Start() and Stop() are meant for one controlling thread; requests are served on
// the server's own pool of threads. The store is safe to use from other threads
// while the server runs (for example to add items in a test).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "reference/server/Status.h"
#include "reference/server/admin/ConsoleSessions.h"
#include "reference/server/admin/TrafficFigures.h"
#include "reference/server/http/GuardedServer.h"
#include "reference/server/store/Store.h"

namespace zolvani::refserver {

class AdminApi;
class ConsoleSite;
class ConsoleStore;
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
  // Connection threads kept ready; more start on demand, one per open connection,
  // up to limits.maxConnections.
  int threads = 64;
  ConnectionLimits limits;           // deadlines, connection caps, size limits
  std::function<int64_t()> clockMs;  // milliseconds since 1970; wall clock when empty
  // The operator's console under /admin, answering loopback clients only unless
  // consoleFromAnywhere is set.
  bool console = true;
  bool consoleFromAnywhere = false;
  SessionLimits consoleSessions;
  // Names this server among those sharing its store, in the console's figures and
  // in logs; the host name when empty.
  std::string nodeName;
  // How often this server adds its traffic figures to the store.
  std::chrono::milliseconds figuresEvery{10000};
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
  // "http://address:port" once started.
  std::string url() const;
  Store* store() { return store_.get(); }
  // Null when the console is off.
  ConsoleStore* consoleStore() { return consoleStore_.get(); }
  TrafficFigures* figures() { return &figures_; }
  const std::string& nodeName() const { return options_.nodeName; }
  const std::filesystem::path& mediaRoot() const;

  static int64_t WallClockMs();

 private:
  ContentServer(ServerOptions options, std::unique_ptr<Store> store,
                std::unique_ptr<ConsoleStore> consoleStore);
  void InstallRoutes();

  ServerOptions options_;
  std::unique_ptr<Store> store_;
  std::unique_ptr<ConsoleStore> consoleStore_;
  TrafficFigures figures_;
  ConsoleSessions sessions_;
  std::unique_ptr<AdminApi> admin_;
  std::unique_ptr<ConsoleSite> consoleSite_;
  std::unique_ptr<MediaLibrary> media_;
  std::unique_ptr<ProtocolHandler> protocol_;
  std::unique_ptr<GuardedServer> http_;
  std::thread thread_;
  std::atomic<int> port_{0};
};

}  // namespace zolvani::refserver
