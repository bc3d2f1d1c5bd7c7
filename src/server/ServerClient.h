// ServerClient: builds, signs and sends the library's requests to the content
// server, and judges their replies.
//
// Every request goes the same way: the endpoint URL
// "<server URL>/Subscriptions/client/<endpoint>", a JSON body holding a fresh
// "request_header" beside the endpoint's own members, a POST signed by
// RequestSigner, a blocking send on the processing queue, and the reply handed
// to the main queue. Other subsystems that talk to the server (the catalog
// sync) use this API rather than their own:
//
//   ServerClient::SendHooks hooks;
//   hooks.beforeSend = [&](const nlohmann::json& body) { ... trace the body ... };
//   bool sent = client.send("catalog", {{"filter", filter}},
//                           [](HttpReply reply) {
//                             ReplyVerdict v = client.judge().judge(
//                                 reply, ReplyRules::kCatalog, myTexts);
//                             ...
//                           },
//                           hooks);
//   if (!sent) { ... no request header: complete with the -3 error ... }
//
// Nothing is cached: URL, credentials, device identifier and clock are read
// from the engine on every request, so a changed configuration takes effect on
// the next one.
//
// Thread-safety: every member may be called from any thread. The processing
// queue and main queue given at construction must outlive the client's
// requests; replies never touch the client itself.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "server/ReplyJudge.h"
#include "server/RequestSigner.h"
#include "zolvani/subscription/engine/EngineRoles.h"
#include "zolvani/subscription/platform/DispatchQueue.h"
#include "zolvani/subscription/platform/HttpTransport.h"
#include "zolvani/subscription/platform/UserDefaults.h"

namespace zolvani {

class ServerClient {
 public:
  using LogFunction = std::function<void(const std::string&, std::int64_t)>;

  struct Dependencies {
    ZolvaniEngine engine;
    std::shared_ptr<UserDefaults> userDefaults;
    std::shared_ptr<HttpTransport> http;
    std::shared_ptr<DispatchQueue> mainQueue;
    // The processing queue; asked for at each send, since the owner may make
    // its queue after the client.
    std::function<std::shared_ptr<DispatchQueue>()> processingQueue;
    LogFunction log;                                 // the manager's logString
    std::function<void(std::int64_t)> reportStatus;  // the manager's reportStatus
  };

  // Optional steps around one send.
  struct SendHooks {
    // On the caller's thread, with the whole body, before it is sent.
    std::function<void(const nlohmann::json& body)> beforeSend;
    // On the processing queue, with the reply, before it goes to the main queue.
    std::function<void(const HttpReply& reply)> onProcessingQueue;
  };

  explicit ServerClient(Dependencies dependencies);
  ~ServerClient();
  ServerClient(const ServerClient&) = delete;
  ServerClient& operator=(const ServerClient&) = delete;

  static constexpr std::string_view kSubscriptionContext = "/Subscriptions";

  // "<server URL>/Subscriptions/client/<endpoint>", the server URL used exactly
  // as configured; none when the text does not parse as a URL.
  std::optional<std::string> urlForEndpoint(std::string_view endpoint) const;
  // The "request_header" object; none when there is no device identifier or
  // the engine has no user name.
  std::optional<nlohmann::json> requestHeader() const;
  void signRequest(HttpRequest& request) const;
  // A signed POST of `bodyText` to `endpoint`.
  HttpRequest makeRequest(std::string_view endpoint, std::string bodyText) const;

  // Sends {"request_header": ..., members...} to `endpoint` and calls
  // `onMainQueue` with the reply on the main queue. Returns false, sending
  // nothing and calling nothing, when there is no request header.
  bool send(std::string_view endpoint, nlohmann::json members,
            std::function<void(HttpReply)> onMainQueue, SendHooks hooks = {});

  // Compact JSON text of a body; text that is not UTF-8 is replaced rather
  // than refused, so no body ever fails to serialise.
  static std::string serialize(const nlohmann::json& body);
  // The JSON form of a push token: a string as it is, a byte buffer as
  // lower-case hex. None when the token is empty or of another type.
  static std::optional<nlohmann::json> pushTokenJson(const Value& token);

  const ReplyJudge& judge() const { return judge_; }
  bool verboseLogging() const;

  // A join of several requests that waits for good unless the client goes
  // away first; used by "remove every subscription", which by design never
  // completes when there is nothing to remove.
  class Join {
   public:
    void release() { done_.release(); }
    // Blocks until release() or until the client is destroyed; true on
    // release().
    bool wait();

   private:
    friend class ServerClient;
    std::counting_semaphore<> done_{0};
    std::atomic<bool> abandoned_{false};
  };
  std::shared_ptr<Join> makeJoin();

 private:
  Dependencies deps_;
  RequestSigner signer_;
  ReplyJudge judge_;
  std::mutex joinsMutex_;
  std::vector<std::weak_ptr<Join>> joins_;
};

}  // namespace zolvani
