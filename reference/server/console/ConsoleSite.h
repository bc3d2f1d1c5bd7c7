// ConsoleSite: puts the operator's console on the server's HTTP transport: the
// pages under /admin/ and the JSON API under /admin/api/. Only clients on the
// loopback interface reach either unless the server was told otherwise, because
// the console administers everything the server holds. A request that came
// through a trusted proxy (a balancer's public side) is refused whatever address
// it names, and with a console listener of its own the console answers there only.
//
// Install() must run before the server's catch-all routes. Thread-safe once
// installed: requests are handed to the AdminApi, which serialises its own state.
#pragma once

#include <string>

#include "reference/server/admin/AdminApi.h"
#include "reference/server/admin/TrafficFigures.h"
#include "reference/server/http/Router.h"

namespace zolvani::refserver {

class ConsoleSite {
 public:
  // With `ownListener` the console answers only requests that arrived on the
  // console's own listener.
  ConsoleSite(AdminApi* api, TrafficFigures* figures, std::function<int64_t()> clockMs,
              bool fromAnywhere, bool ownListener = false)
      : api_(api),
        figures_(figures),
        clockMs_(std::move(clockMs)),
        fromAnywhere_(fromAnywhere),
        ownListener_(ownListener) {}

  void Install(Router* router);

  // Whether `address` (as the transport reports a peer) is on the loopback interface.
  static bool IsLoopback(const std::string& address);

 private:
  bool Admitted(const Request& req, Response& res);
  void ServeAsset(const std::string& path, Response& res);
  void ServeApi(const Request& req, Response& res);

  AdminApi* api_;
  TrafficFigures* figures_;
  std::function<int64_t()> clockMs_;
  bool fromAnywhere_;
  bool ownListener_;
};

}  // namespace zolvani::refserver
