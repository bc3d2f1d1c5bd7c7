// Shared command plumbing, and the configuration, settings and status commands.
#include "Commands.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>

#include "CliError.h"
#include "ExitStatus.h"
#include "UserInput.h"
#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/platform/Platform.h"

namespace zsm {

using namespace zolvani;

std::optional<Error> openHost(const CommandContext& context, std::unique_ptr<HostRuntime>* runtime,
                              bool runTransfers) {
  HostOptions options;
  options.runTransfers = runTransfers;
  options.paths = context.paths;
  if (auto error = CliConfig::load(context.paths, &options.config)) return error;
  if (const char* secret = std::getenv(kSecretEnvironment); secret && *secret)
    options.config.secret = secret;
  options.echoLogLevel = context.logLevel;
  if (context.keepFreeBytes) options.freeSpaceMargin = *context.keepFreeBytes;
  return HostRuntime::open(options, runtime);
}

std::optional<Error> runToCompletion(HostRuntime& host,
                                     const std::function<void(std::function<void()>)>& start,
                                     std::chrono::milliseconds timeout, const std::string& what) {
  host.waitForFreshSecond();
  auto finished = std::make_shared<bool>(false);
  start([finished] { *finished = true; });
  if (!host.pumpUntil([finished] { return *finished; }, timeout)) {
    return cliError(kCliErrorTimeout, what + " did not finish within " +
                                          std::to_string(timeout.count() / 1000) + " s");
  }
  return std::nullopt;
}

// --- config ---------------------------------------------------------------------

namespace {

// The first line of `file` ("-": standard input), without its line end.
std::optional<Error> readSecret(const std::string& file, std::string* secret) {
  std::ifstream in;
  if (file != "-") {
    in.open(file);
    if (!in) return cliError(kCliErrorConfigFile, "cannot read the secret from " + file);
  }
  std::istream& from = file == "-" ? std::cin : in;
  if (!std::getline(from, *secret) && secret->empty())
    return cliError(kCliErrorUsage, "no secret in " + (file == "-" ? "standard input" : file));
  if (!secret->empty() && secret->back() == '\r') secret->pop_back();
  if (secret->empty())
    return cliError(kCliErrorUsage, "the secret read from " + file + " is empty");
  return std::nullopt;
}

}  // namespace

int runConfig(const CommandContext& context, const ConfigOptions& options) {
  const Output out = context.output();
  CliConfig config;
  if (auto error = CliConfig::load(context.paths, &config)) return out.fail(*error);
  if (options.secret && options.secretFile)
    return out.fail(cliError(kCliErrorUsage, "give --secret or --secret-file, not both"));
  std::optional<std::string> secret = options.secret;
  if (options.secretFile) {
    secret.emplace();
    if (auto error = readSecret(*options.secretFile, &*secret)) return out.fail(*error);
  }
  const bool changing = options.server || options.user || options.key || secret || options.deviceId;
  if (changing) {
    if (options.server) {
      // The library appends "/Subscriptions/client/<endpoint>" to the URL as it is.
      std::string url = *options.server;
      while (!url.empty() && url.back() == '/') url.pop_back();
      if (url.rfind("http://", 0) != 0 && url.rfind("https://", 0) != 0)
        return out.fail(cliError(kCliErrorUsage, "--server must be an http:// or https:// URL"));
      config.serverUrl = url;
    }
    if (options.user) config.user = *options.user;
    if (options.key) config.publicKey = *options.key;
    if (secret) config.secret = *secret;
    if (options.deviceId) config.deviceId = *options.deviceId;
    if (config.deviceId.empty()) config.deviceId = newUUIDString();
    if (auto error = config.save(context.paths)) return out.fail(*error);
  }
  // A secret from the environment counts for this invocation, unsaved.
  const char* fromEnvironment = std::getenv(kSecretEnvironment);
  const bool secretFromEnvironment = fromEnvironment && *fromEnvironment && !secret;
  if (secretFromEnvironment) config.secret = fromEnvironment;
  nlohmann::json doc = config.toJson(options.reveal);
  doc["data"] = context.paths.root.string();
  doc["complete"] = config.complete();
  doc["secret_from"] = secretFromEnvironment ? kSecretEnvironment : "config";
  out.document(doc);
  out.line("data folder: " + context.paths.root.string());
  out.line("server:      " + config.serverUrl);
  out.line("user:        " + config.user);
  out.line("public key:  " + config.publicKey);
  out.line("secret:      " + doc["secret"].get<std::string>() +
           (secretFromEnvironment ? std::string("   (from ") + kSecretEnvironment + ")" : ""));
  out.line("device id:   " + config.deviceId);
  if (!config.complete()) out.line("(not complete: set " + config.firstMissing() + ")");
  return 0;
}

// --- settings ----------------------------------------------------------------------

namespace {

std::optional<bool> parseBool(const std::string& text) {
  if (text == "true" || text == "yes" || text == "on" || text == "1") return true;
  if (text == "false" || text == "no" || text == "off" || text == "0") return false;
  return std::nullopt;
}

std::optional<std::int64_t> parseInteger(const std::string& text, std::int64_t low,
                                         std::int64_t high) {
  if (text.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < low || value > high) return std::nullopt;
  return value;
}

// "now", "now-<span>", seconds since 1970 (fractions allowed) or a UTC date
// as `settings` prints it.
std::optional<double> parseDate(const std::string& text, double now) {
  if (text == "now") return now;
  if (auto date = parseUtcDate(text)) return date;
  if (text.rfind("now-", 0) == 0) {
    auto back = parseSpan(text.substr(4));
    if (!back) return std::nullopt;
    return now - *back;
  }
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || errno != 0 || *end != '\0' || !std::isfinite(value)) return std::nullopt;
  return value;
}

nlohmann::json settingsJson(HostRuntime& host) {
  auto& m = host.manager();
  nlohmann::json doc = {
      {"max-items", m.maximumSubscriptionItemsPerFeed()},
      {"autodelete", m.autodeleteOldItems()},
      {"max-bitrate", m.maxBitrate()},
      {"verbose", host.platform().userDefaults->boolForKey(kVerboseKeelhallLoggingKey)}};
  if (auto last = m.lastSubscriptionSyncTime()) {
    doc["last-sync"] = last->secondsSince1970;
  } else {
    doc["last-sync"] = nullptr;
  }
  return doc;
}

}  // namespace

int runSettings(const CommandContext& context, const SettingsOptions& options) {
  const Output out = context.output();
  const std::string& k = options.key;
  const std::string& v = options.value;
  auto bad = [&](const std::string& expected) {
    return out.fail(cliError(
        kCliErrorUsage, "settings set " + k + ": expected " + expected + ", got \"" + v + "\""));
  };
  // Checks the value, and with a host sets it: a refused value is a usage error
  // whether or not the device is configured yet.
  auto apply = [&](HostRuntime* host) -> std::optional<int> {
    if (k == "max-items") {
      auto n = parseInteger(v, 0, INT32_MAX);
      if (!n) return bad("an integer from 0 to 2147483647 (0 means no limit)");
      if (host) host->manager().setMaximumSubscriptionItemsPerFeed(static_cast<std::int32_t>(*n));
    } else if (k == "autodelete") {
      auto b = parseBool(v);
      if (!b) return bad("true or false");
      if (host) host->manager().setAutodeleteOldItems(*b);
    } else if (k == "max-bitrate") {
      auto n = parseInteger(v, 0, INT32_MAX);
      if (!n) return bad("bits per second from 0 to 2147483647 (0 means no cap)");
      if (host) host->manager().setMaxBitrate(static_cast<std::int32_t>(*n));
    } else if (k == "last-sync") {
      // The library has no setter for this date; a host may move it through the
      // exported key, for example to fetch what a new device would otherwise skip.
      auto d = parseDate(v, host ? host->roles().secureClock->date().secondsSince1970 : 0);
      if (!d)
        return bad(
            "\"now\", \"now-<span>\" (such as now-7d), seconds since 1970 or a UTC date such as "
            "2026-01-31T08:00:00Z");
      if (host) host->platform().userDefaults->setDate(LastSyncKey, Date(*d));
    } else if (k == "verbose") {
      auto b = parseBool(v);
      if (!b) return bad("true or false");
      if (host) host->platform().userDefaults->setBool(kVerboseKeelhallLoggingKey, *b);
    } else {
      return out.fail(cliError(kCliErrorUsage,
                               "unknown setting \"" + k +
                                   "\" (max-items, autodelete, max-bitrate, last-sync, verbose)"));
    }
    return std::nullopt;
  };
  if (!k.empty())
    if (auto refused = apply(nullptr)) return *refused;
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host, /*runTransfers=*/false)) return out.fail(*error);
  if (!k.empty()) {
    if (auto refused = apply(host.get())) return *refused;
    if (!host->platform().userDefaults->synchronize())
      return out.fail(cliError(kCliErrorConfigFile, "the user-defaults file could not be written"));
  }
  const nlohmann::json doc = settingsJson(*host);
  out.document(doc);
  out.line("max-items:   " + doc["max-items"].dump() + "   (per new subscription; 0 = no limit)");
  out.line("autodelete:  " + doc["autodelete"].dump());
  out.line("max-bitrate: " + doc["max-bitrate"].dump() + "   (0 = no cap)");
  // Either form printed here is one that `settings set last-sync` takes back.
  out.line("last-sync:   " + (doc["last-sync"].is_null()
                                  ? std::string("never")
                                  : isoDate(doc["last-sync"].get<double>()) + "   (" +
                                        doc["last-sync"].dump() + " seconds since 1970)"));
  out.line("verbose:     " + doc["verbose"].dump());
  return 0;
}

// --- status ---------------------------------------------------------------------------

int runStatus(const CommandContext& context) {
  const Output out = context.output();
  std::unique_ptr<HostRuntime> host;
  if (auto error = openHost(context, &host, /*runTransfers=*/false)) return out.fail(*error);
  auto& m = host->manager();
  bool accepted = false;
  std::optional<Error> failure;
  auto waited = runToCompletion(
      *host,
      [&](std::function<void()> done) {
        m.authenticateServerConfigurationOnComplete([&, done](bool ok, std::optional<Error> error) {
          accepted = ok;
          failure = std::move(error);
          done();
        });
      },
      context.timeout, "the server check");
  if (waited) return out.fail(*waited);

  std::map<std::string, int> states;
  for (const auto& a : host->listAssets())
    ++states[std::string(reference::assetStateName(a.state))];
  const CliConfig& config = host->options().config;
  nlohmann::json doc = {
      {"server", config.serverUrl}, {"user", config.user},  {"device_id", config.deviceId},
      {"accepted", accepted},       {"status", m.status()}, {"status_name", statusName(m.status())},
      {"started", m.started()},     {"assets", states},     {"feeds", host->trackedFeeds()}};
  // A new installation stores its first launch as its last sync; until a sync
  // has finished there is no date worth showing.
  const bool synced = host->everSynced();
  doc["synced"] = synced;
  if (auto last = m.lastSubscriptionSyncTime(); last && synced) {
    doc["last_sync"] = last->secondsSince1970;
  } else {
    doc["last_sync"] = nullptr;
  }
  if (failure) doc["error"] = errorJson(*failure);
  if (!out.json()) {
    out.line("server:    " + config.serverUrl + (accepted ? "  (accepts this device)" : ""));
    out.line("user:      " + config.user + "   device: " + config.deviceId);
    out.line("status:    " + statusName(m.status()));
    out.line("last sync: " + (doc["last_sync"].is_null()
                                  ? std::string("never (this device has not synced yet)")
                                  : isoDate(doc["last_sync"].get<double>())));
    std::string assets;
    for (const auto& [state, count] : states)
      assets += (assets.empty() ? "" : ", ") + std::to_string(count) + " " + state;
    out.line("assets:    " + (assets.empty() ? std::string("none") : assets));
    out.line("feeds:     " + std::to_string(doc["feeds"].size()) + " tracked");
  }
  if (failure) {
    if (!out.json()) return out.fail(*failure);
    std::cerr << "error: " << failure->describe() << "\n";
    out.document(doc);
    return exitStatusFor(*failure);
  }
  if (!accepted)
    return out.fail(cliError(kCliErrorServer, "the server did not accept the configuration"));
  out.document(doc);
  return 0;
}

}  // namespace zsm
