// AdminApi: the operator's JSON API under /admin/api/, independent of the HTTP
// library: it signs the console in and out, checks every request's session and
// every change's CSRF token and Origin, carries the request out on the stores,
// records each change in the audit log, and says which status and JSON to send.
//
// Reads are GET; changes are POST with a JSON object body (the transport admits
// no other methods). Names of feeds, items, accounts and devices travel in bodies
// and query parameters, never in the path, so they need no escaping rules of their
// own.
//
// Thread-safe: handles any number of requests at once; the stores, the sessions
// and the figures serialise themselves.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "reference/server/admin/ConsoleSessions.h"
#include "reference/server/admin/ConsoleStore.h"
#include "reference/server/admin/TrafficFigures.h"
#include "reference/server/store/Store.h"

namespace zolvani::refserver {

struct AdminRequest {
  std::string method;  // "GET" or "POST"
  std::string route;   // the path after /admin/api/, e.g. "feeds" or "feeds/create"
  std::map<std::string, std::string> query;
  std::string cookie;  // the Cookie header
  std::string csrf;    // the X-Zsm-Csrf header
  std::string origin;  // the Origin header
  std::string host;    // the Host header
  std::string peer;    // the client's address
  std::string body;
};

struct AdminReply {
  int status = 200;
  nlohmann::json body = nlohmann::json::object();
  std::vector<std::string> setCookies;  // Set-Cookie values
};

class AdminApi {
 public:
  static constexpr const char* kCookieName = "zsm_console";
  static constexpr const char* kCsrfHeader = "X-Zsm-Csrf";
  // Failed sign-ins allowed per minute before the console refuses further attempts
  // (429) until the minute has passed.
  static constexpr int kLoginFailuresPerMinute = 5;

  AdminApi(Store* content, ConsoleStore* console, ConsoleSessions* sessions,
           TrafficFigures* figures, std::filesystem::path mediaRoot,
           std::function<int64_t()> clockMs);

  AdminReply Handle(const AdminRequest& request);

  // The value of cookie `name` in a Cookie header; empty when absent.
  static std::string CookieValue(const std::string& header, const std::string& name);
  // Whether `origin` is this server as reached through `host`.
  static bool SameOrigin(const std::string& origin, const std::string& host);

 private:
  using Handler = AdminReply (AdminApi::*)(const AdminRequest&, const nlohmann::json&);
  struct Route {
    const char* method;
    const char* name;
    Handler handler;
  };
  static const std::vector<Route>& Routes();

  AdminReply Login(const AdminRequest& request, const nlohmann::json& body);
  AdminReply Logout(const AdminRequest& request, const nlohmann::json& body);
  AdminReply Session(const AdminRequest& request, const nlohmann::json& body);
  AdminReply Figures(const AdminRequest& request, const nlohmann::json& body);
  AdminReply Feeds(const AdminRequest& request, const nlohmann::json& body);
  AdminReply CreateFeed(const AdminRequest& request, const nlohmann::json& body);
  AdminReply UpdateFeed(const AdminRequest& request, const nlohmann::json& body);
  AdminReply Publishers(const AdminRequest& request, const nlohmann::json& body);
  AdminReply GrantPublisher(const AdminRequest& request, const nlohmann::json& body);
  AdminReply RevokePublisher(const AdminRequest& request, const nlohmann::json& body);
  AdminReply Items(const AdminRequest& request, const nlohmann::json& body);
  AdminReply PublishItem(const AdminRequest& request, const nlohmann::json& body);
  AdminReply RemoveItem(const AdminRequest& request, const nlohmann::json& body);
  AdminReply Media(const AdminRequest& request, const nlohmann::json& body);
  AdminReply Devices(const AdminRequest& request, const nlohmann::json& body);
  AdminReply SetDeviceRules(const AdminRequest& request, const nlohmann::json& body);
  AdminReply PushToDevice(const AdminRequest& request, const nlohmann::json& body);
  AdminReply Pushes(const AdminRequest& request, const nlohmann::json& body);
  AdminReply Accounts(const AdminRequest& request, const nlohmann::json& body);
  AdminReply SaveAccount(const AdminRequest& request, const nlohmann::json& body);
  AdminReply AuditEntries(const AdminRequest& request, const nlohmann::json& body);

  // Records a change made by `request`; a failure to record is logged, the change
  // stands.
  void RecordChange(const AdminRequest& request, const std::string& action,
                    const std::string& target, nlohmann::json details);
  // Counts a failed sign-in; true when the limit for this minute is reached.
  bool LoginThrottled(int64_t nowMs, bool recordFailure);

  Store* content_;
  ConsoleStore* console_;
  ConsoleSessions* sessions_;
  TrafficFigures* figures_;
  std::filesystem::path mediaRoot_;
  std::function<int64_t()> clockMs_;
  std::mutex loginMutex_;
  std::deque<int64_t> loginFailuresMs_;
};

}  // namespace zolvani::refserver
