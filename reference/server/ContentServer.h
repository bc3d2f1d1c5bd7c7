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
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "reference/server/Status.h"
#include "reference/server/admin/TrafficFigures.h"
#include "reference/server/http/GuardedServer.h"
#include "reference/server/store/ConsoleState.h"
#include "reference/server/store/Store.h"

namespace zolvani::refserver {

class AdminApi;
class ConsoleSite;
class MediaLibrary;
class ProtocolHandler;

struct ServerOptions {
  std::filesystem::path dataDir;  // holds server.sqlite and the media folder
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
  // Reverse proxies whose X-Forwarded-For and X-Forwarded-Proto the console
  // believes (see AdminOptions).
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
  // "http://address:port" once started.
  std::string url() const;
  Store* store() { return store_.get(); }
  // Null when the console is off.
  ConsoleState* consoleState() { return consoleState_.get(); }
  TrafficFigures* figures() { return &figures_; }
  const std::filesystem::path& mediaRoot() const;

  static int64_t WallClockMs();

 private:
  ContentServer(ServerOptions options, std::unique_ptr<Store> store,
                std::unique_ptr<ConsoleState> consoleState);
  void InstallRoutes();

  ServerOptions options_;
  std::unique_ptr<Store> store_;
  std::unique_ptr<ConsoleState> consoleState_;
  TrafficFigures figures_;
  std::unique_ptr<AdminApi> admin_;
  std::unique_ptr<ConsoleSite> consoleSite_;
  std::unique_ptr<MediaLibrary> media_;
  std::unique_ptr<ProtocolHandler> protocol_;
  std::unique_ptr<GuardedServer> http_;
  std::thread thread_;
  std::atomic<int> port_{0};
};

}  // namespace zolvani::refserver
