// AdminApi: the operator's JSON API under /admin/api/, independent of the HTTP
// library: it signs operators in and out, throttles failed sign-ins per client,
// checks every request's session, every change's CSRF token and Origin and the
// operator's role, carries the request out on the stores, records each change in
// the audit log under the operator's name, and says which status and JSON to send.
//
// Reads are GET; changes are POST with a JSON object body (the transport admits
// no other methods). Names of feeds, items, accounts and devices travel in bodies
// and query parameters, never in the path, so they need no escaping rules of their
// own. An edit of a feed carries the version it was made from; a save on a stale
// version is refused with 409 and the current state, so that nobody silently
// undoes a colleague's change.
//
// Thread-safe: handles any number of requests at once; the stores and the
// figures serialise themselves, and every piece of state shared between server
// processes (sessions, sign-in failures, operators) lives in the ConsoleState.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "reference/server/admin/TrafficFigures.h"
#include "reference/server/store/ConsoleState.h"
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
  std::string peer;    // the address the connection came from
  // X-Forwarded-For and X-Forwarded-Proto; believed only from a trusted proxy.
  std::string forwardedFor;
  std::string forwardedProto;
  std::string body;
};

struct AdminReply {
  int status = 200;
  nlohmann::json body = nlohmann::json::object();
  std::vector<std::string> setCookies;                       // Set-Cookie values
  std::vector<std::pair<std::string, std::string>> headers;  // e.g. Retry-After
};

struct AdminOptions {
  SessionLimits sessions;
  // Addresses of reverse proxies whose X-Forwarded-For and X-Forwarded-Proto are
  // believed: the client's address then comes from X-Forwarded-For (for the
  // sign-in throttle and the audit log), and "https" makes the session cookie
  // Secure.
  std::vector<std::string> trustedProxies;
};

class AdminApi {
 public:
  static constexpr const char* kCookieName = "zsm_console";
  static constexpr const char* kCsrfHeader = "X-Zsm-Csrf";
  // Sign-in throttle. A client (an address; an IPv6 address by its /64) may fail
  // kFreeFailuresPerClient times, and a name tried from one client
  // kFreeFailuresPerName times, without waiting; after that each further attempt
  // waits kFirstDelayMs, doubling with each failure up to kMaxDelayMs, measured
  // from the last failure. Failures are forgotten kForgetMs after the last one,
  // and a successful sign-in forgets the client's. Failures elsewhere never make
  // another client wait.
  static constexpr int kFreeFailuresPerClient = 10;
  static constexpr int kFreeFailuresPerName = 3;
  static constexpr int64_t kFirstDelayMs = 2000;
  static constexpr int64_t kMaxDelayMs = 15 * 60 * 1000;
  static constexpr int64_t kForgetMs = 60 * 60 * 1000;

  AdminApi(Store* content, ConsoleState* console, TrafficFigures* figures,
           std::filesystem::path mediaRoot, std::function<int64_t()> clockMs,
           AdminOptions options = {});

  AdminReply Handle(const AdminRequest& request);

  // The value of cookie `name` in a Cookie header; empty when absent.
  static std::string CookieValue(const std::string& header, const std::string& name);
  // Whether `origin` is this server as reached through `host`.
  static bool SameOrigin(const std::string& origin, const std::string& host);
  // How long a client with `failures` failures must wait after the last one.
  static int64_t LoginDelayMs(int64_t failures, int freeFailures);
  // The version of a feed an edit is made from: changes whenever a field does.
  static std::string FeedVersion(const Feed& feed);
  // The version of a device's rules for one feed, as an edit of them carries it.
  static std::string RulesVersion(const FeedRules& rules);
  // The version of an account an edit is made from: changes with its key or secret.
  static std::string AccountVersion(const Account& account);
  // The version of an operator an edit is made from: changes with role or password.
  static std::string OperatorVersion(const Operator& op);

 private:
  // Who makes a request, as its session says.
  struct Caller {
    std::string name;  // the operator's, or "console" for the one console password
    OperatorRole role = OperatorRole::kViewer;
    std::string client;  // the client's address
    std::string sessionId;
    std::string csrfToken;
    int64_t sinceMs = 0;
  };
  using Handler = AdminReply (AdminApi::*)(const AdminRequest&, const Caller&,
                                           const nlohmann::json&);
  struct Route {
    const char* method;
    const char* name;
    Handler handler;
    OperatorRole role;  // the least role that may use it
  };
  static const std::vector<Route>& Routes();

  AdminReply Logout(const AdminRequest& request, const Caller& caller, const nlohmann::json& body);
  AdminReply Session(const AdminRequest& request, const Caller& caller, const nlohmann::json& body);
  AdminReply Figures(const AdminRequest& request, const Caller& caller, const nlohmann::json& body);
  AdminReply Feeds(const AdminRequest& request, const Caller& caller, const nlohmann::json& body);
  AdminReply CreateFeed(const AdminRequest& request, const Caller& caller,
                        const nlohmann::json& body);
  AdminReply UpdateFeed(const AdminRequest& request, const Caller& caller,
                        const nlohmann::json& body);
  AdminReply Publishers(const AdminRequest& request, const Caller& caller,
                        const nlohmann::json& body);
  AdminReply GrantPublisher(const AdminRequest& request, const Caller& caller,
                            const nlohmann::json& body);
  AdminReply RevokePublisher(const AdminRequest& request, const Caller& caller,
                             const nlohmann::json& body);
  AdminReply Items(const AdminRequest& request, const Caller& caller, const nlohmann::json& body);
  AdminReply PublishItem(const AdminRequest& request, const Caller& caller,
                         const nlohmann::json& body);
  AdminReply RemoveItem(const AdminRequest& request, const Caller& caller,
                        const nlohmann::json& body);
  AdminReply Media(const AdminRequest& request, const Caller& caller, const nlohmann::json& body);
  AdminReply Devices(const AdminRequest& request, const Caller& caller, const nlohmann::json& body);
  AdminReply SetDeviceRules(const AdminRequest& request, const Caller& caller,
                            const nlohmann::json& body);
  AdminReply PushToDevice(const AdminRequest& request, const Caller& caller,
                          const nlohmann::json& body);
  AdminReply Pushes(const AdminRequest& request, const Caller& caller, const nlohmann::json& body);
  AdminReply Accounts(const AdminRequest& request, const Caller& caller,
                      const nlohmann::json& body);
  AdminReply SaveAccount(const AdminRequest& request, const Caller& caller,
                         const nlohmann::json& body);
  AdminReply AuditEntries(const AdminRequest& request, const Caller& caller,
                          const nlohmann::json& body);
  AdminReply Operators(const AdminRequest& request, const Caller& caller,
                       const nlohmann::json& body);
  AdminReply SaveOperator(const AdminRequest& request, const Caller& caller,
                          const nlohmann::json& body);
  AdminReply RemoveOperator(const AdminRequest& request, const Caller& caller,
                            const nlohmann::json& body);

  // Signing in is not a session's request: it has its own checks.
  AdminReply Login(const AdminRequest& request, const nlohmann::json& body);
  // Whether the request reached the server over https (directly, as the
  // browser's Origin says, or through a trusted proxy that says so).
  bool OverHttps(const AdminRequest& request) const;
  // The client's address: the forwarded one behind a trusted proxy.
  std::string ClientAddress(const AdminRequest& request) const;
  std::string SessionCookie(const AdminRequest& request, const std::string& value) const;
  // Records a change; a failure to record is logged, the change stands.
  void RecordChange(const Caller& caller, const std::string& action, const std::string& target,
                    nlohmann::json details);
  // The milliseconds the sign-in throttle makes this attempt wait (0 when
  // none), and the failure counts that was worked out from (`seen`: the
  // client's, then the name's).
  Status LoginWaitMs(const std::string& clientKey, const std::string& nameKey, int64_t nowMs,
                     int64_t* waitMs, int64_t seen[2]);
  // Counts an attempt as a failure before its password is checked; `waitMs`
  // is set when attempts sent at once took the places the check allowed.
  Status ClaimLoginAttempt(const std::string& clientKey, const std::string& nameKey, bool named,
                           int64_t nowMs, const int64_t seen[2], int64_t* waitMs);

  Store* content_;
  ConsoleState* console_;
  TrafficFigures* figures_;
  std::filesystem::path mediaRoot_;
  std::function<int64_t()> clockMs_;
  AdminOptions options_;
};

}  // namespace zolvani::refserver
