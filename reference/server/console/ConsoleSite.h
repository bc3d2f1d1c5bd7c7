// ConsoleSite: puts the operator's console on the server's HTTP transport: the
// pages under /admin/ and the JSON API under /admin/api/. Only clients on the
// loopback interface reach either unless the server was told otherwise, because
// the console administers everything the server holds.
//
// Install() must run before the transport's catch-all routes. Thread-safe once
// installed: requests are handed to the AdminApi, which serialises its own state.
#pragma once

#include <string>

#include "reference/server/admin/AdminApi.h"
#include "reference/server/admin/TrafficFigures.h"
#include "reference/server/http/GuardedServer.h"

namespace zolvani::refserver {

class ConsoleSite {
 public:
  ConsoleSite(AdminApi* api, TrafficFigures* figures, std::function<int64_t()> clockMs,
              bool fromAnywhere)
      : api_(api), figures_(figures), clockMs_(std::move(clockMs)), fromAnywhere_(fromAnywhere) {}

  void Install(GuardedServer* http);

  // Whether `address` (as cpp-httplib reports a peer) is on the loopback interface.
  static bool IsLoopback(const std::string& address);

 private:
  bool Admitted(const httplib::Request& req, httplib::Response& res);
  void ServeAsset(const std::string& path, httplib::Response& res);
  void ServeApi(const httplib::Request& req, httplib::Response& res, const std::string& body);

  AdminApi* api_;
  TrafficFigures* figures_;
  std::function<int64_t()> clockMs_;
  bool fromAnywhere_;
};

}  // namespace zolvani::refserver
