// The engine's smaller services: logger, analytics events, secure clock,
// reachability, start-up credentials, keep-alive bookkeeping, event handlers.
#include <ifaddrs.h>
#include <net/if.h>

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "EngineCore.h"
#include "EngineLog.h"

namespace zolvani::reference {

std::shared_ptr<spdlog::logger> makeEngineLogger(const ReferenceEngineOptions& options) {
  try {
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
        (options.dataFolder / "engine.log").string(), options.logFileBytes, options.logFiles);
    auto logger = std::make_shared<spdlog::logger>("zolvani_reference_engine", sink);
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%l] %v");
    logger->set_level(spdlog::level::trace);
    logger->flush_on(spdlog::level::trace);
    return logger;
  } catch (const std::exception&) {
    return nullptr;
  }
}

void ReferenceEngine::Impl::log(const std::string& message, std::int64_t level) {
  if (level > options.logLevelLimit || !logger_) return;
  spdlog::level::level_enum l = level <= 0   ? spdlog::level::err
                                : level == 1 ? spdlog::level::warn
                                : level <= 3 ? spdlog::level::info
                                             : spdlog::level::debug;
  // The contract level travels with the line: several contract levels share
  // one spdlog level.
  logger_->log(l, "[L{}] {}", level, message);
}

void ReferenceEngine::Impl::logEvent(std::int64_t event, const std::string& file,
                                     const Value& data) {
  nlohmann::json line = {{"event", event},
                         {"file", file},
                         {"data", data.toJson()},
                         {"date", secureDate().secondsSince1970}};
  std::lock_guard l(eventsMutex_);
  if (!eventsFile_) return;
  std::string text = line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  std::fwrite(text.data(), 1, text.size(), eventsFile_);
  std::fflush(eventsFile_);
}

Date ReferenceEngine::Impl::secureDate() const {
  Date now = Date::now();
  std::lock_guard l(clockMutex_);
  return clockOffset_ ? Date(now.secondsSince1970 + *clockOffset_) : now;
}

void ReferenceEngine::Impl::observeServerDate(Date server) {
  std::lock_guard l(clockMutex_);
  clockOffset_ = server.secondsSince1970 - Date::now().secondsSince1970;
}

namespace {

bool nonLoopbackInterfaceUp() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  bool up = false;
  for (ifaddrs* i = list; i && !up; i = i->ifa_next) {
    if (!i->ifa_addr) continue;
    const int family = i->ifa_addr->sa_family;
    if (family != AF_INET && family != AF_INET6) continue;
    if ((i->ifa_flags & IFF_UP) && (i->ifa_flags & IFF_RUNNING) && !(i->ifa_flags & IFF_LOOPBACK))
      up = true;
  }
  freeifaddrs(list);
  return up;
}

bool loopbackURL(const std::string& url) {
  auto start = url.find("://");
  if (start == std::string::npos) return false;
  std::string host = url.substr(start + 3);
  host = host.substr(0, host.find_first_of("/?#"));
  if (auto at = host.rfind('@'); at != std::string::npos) host = host.substr(at + 1);
  if (!host.empty() && host[0] == '[') return host.rfind("[::1]", 0) == 0;
  host = host.substr(0, host.find(':'));
  return host == "localhost" || host.rfind("127.", 0) == 0;
}

}  // namespace

std::int64_t ReferenceEngine::Impl::reachabilityStatus() {
  std::lock_guard l(reachMutex_);
  if (reachOverride_) return *reachOverride_ ? 1 : 0;
  auto now = std::chrono::steady_clock::now();
  if (now - reachCheckedAt_ > std::chrono::seconds(1)) {
    std::string server;
    {
      std::lock_guard c(credentialsMutex);
      server = url.empty() ? options.keelhallURL : url;
    }
    reachCached_ = (nonLoopbackInterfaceUp() || loopbackURL(server)) ? 1 : 0;
    reachCheckedAt_ = now;
  }
  return reachCached_;
}

void ReferenceEngine::Impl::setReachabilityOverride(std::optional<bool> online) {
  {
    std::lock_guard l(reachMutex_);
    reachOverride_ = online;
    reachCheckedAt_ = {};
  }
  cv_.notify_all();
  offlineCv_.notify_all();
}

void ReferenceEngine::Impl::startup(std::string u, std::string usr, std::string device,
                                    std::string sec, std::string k) {
  {
    std::lock_guard l(credentialsMutex);
    url = std::move(u);
    user = std::move(usr);
    secret = std::move(sec);
    key = std::move(k);
  }
  if (!device.empty()) setMetaValue("external_device_id", device);
  started = true;
  log("Engine started for user " + user, 4);
}

void ReferenceEngine::Impl::keepAlive(const std::string& task, int delta) {
  std::lock_guard l(miscMutex_);
  int& count = keepAlive_[task];
  count += delta;
  if (count <= 0) keepAlive_.erase(task);
}

std::vector<std::pair<std::string, int>> ReferenceEngine::Impl::keepAliveTasks() const {
  std::lock_guard l(miscMutex_);
  return {keepAlive_.begin(), keepAlive_.end()};
}

void ReferenceEngine::Impl::registerHandler(std::shared_ptr<ZolvaniEventHandlerDelegate> handler) {
  std::lock_guard l(miscMutex_);
  std::erase_if(handlers_, [](const auto& w) { return w.expired(); });
  handlers_.push_back(handler);  // held weakly: the engine never keeps the manager alive
}

std::vector<std::shared_ptr<ZolvaniEventHandlerDelegate>> ReferenceEngine::Impl::liveHandlers()
    const {
  std::lock_guard l(miscMutex_);
  std::vector<std::shared_ptr<ZolvaniEventHandlerDelegate>> out;
  for (const auto& w : handlers_)
    if (auto h = w.lock()) out.push_back(h);
  return out;
}

}  // namespace zolvani::reference
