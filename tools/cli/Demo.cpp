// zsm demo: the whole system on this machine in about ten seconds. It starts the
// reference content server on a free loopback port with generated content,
// configures a fresh device in a new folder, subscribes to two feeds with
// different rules, syncs while showing the downloads, lists the library, has new
// content published and syncs again so that a retention rule deletes the oldest
// item, then stops everything and says where the files are.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <thread>

#include "ChildProcess.h"
#include "CliError.h"
#include "Commands.h"
#include "LibraryView.h"
#include "ProgressBoard.h"
#include "ThrottledLink.h"
#include "zolvani/subscription/Constants.h"
#include "zolvani/subscription/platform/Platform.h"

namespace zsm {

namespace fs = std::filesystem;
using namespace zolvani;

namespace {

// The demo account the server's generated sample content creates.
constexpr const char* kDemoUser = "demo";
constexpr const char* kDemoKey = "demo-public-key";
constexpr const char* kDemoSecret = "demo-secret";

void say(const std::string& text) { std::cout << text << "\n" << std::flush; }
void step(int n, const std::string& text) {
  std::cout << "\n== " << n << ". " << text << "\n" << std::flush;
}

std::string findServerProgram(const std::string& given, const char* argv0) {
  if (!given.empty()) return given;
  std::error_code ec;
  fs::path self = fs::read_symlink("/proc/self/exe", ec);
  if (ec && argv0) self = fs::absolute(argv0, ec);
  const fs::path candidates[] = {
      self.parent_path() / "zsm-server",
#ifdef ZSM_SERVER_BUILD_PATH
      fs::path(ZSM_SERVER_BUILD_PATH),
#endif
      self.parent_path().parent_path().parent_path() / "reference" / "server" / "zsm-server",
  };
  for (const auto& c : candidates)
    if (!c.empty() && fs::exists(c, ec) && access(c.c_str(), X_OK) == 0) return c.string();
  return "zsm-server";
}

// Runs a sync on the open device and follows its downloads.
std::optional<Error> syncAndWatch(HostRuntime& host, std::chrono::milliseconds timeout) {
  host.markCompleteBaseline();
  bool ok = false;
  std::optional<Error> failure;
  auto waited = runToCompletion(
      host,
      [&](std::function<void()> done) {
        host.manager().syncSubscriptionsWithKeelhallNowUsingForce(
            true, [&, done](bool success, std::optional<Value::Array>, std::optional<Error> e) {
              ok = success;
              failure = std::move(e);
              done();
            });
      },
      timeout, "the sync");
  if (waited) return waited;
  if (!ok) return failure.value_or(cliError(kCliErrorIncomplete, "the sync did not run"));
  bool drained = false;
  watchDownloads(host, true, std::chrono::milliseconds(45000), &drained);
  if (!drained) return cliError(kCliErrorDownloads, "the downloads did not finish in time");
  return std::nullopt;
}

void showLibrary(HostRuntime& host) {
  for (const auto& f : feedsJson(host)) {
    say("  feed " + f["feed"].get<std::string>() + " (max items " + f["max_items"].dump() +
        ", auto-delete " + (f["autodelete"].get<bool>() ? "on" : "off") +
        "): " + std::to_string(f["items"].size()) + " item(s), " +
        std::to_string(f["deferred"].size()) + " deferred");
  }
  for (const auto& i : itemsJson(host, "")) {
    const std::string where = i["feed"].is_null() ? "direct" : i["feed"].get<std::string>();
    say("    " + i["asset_id"].get<std::string>() + "  [" + where + "]  " +
        i["state"].get<std::string>() + "  " + i["description"].get<std::string>());
  }
}

bool holdsAsset(HostRuntime& host, const std::string& assetId) {
  for (const auto& i : itemsJson(host, ""))
    if (i["asset_id"] == assetId) return true;
  return false;
}

}  // namespace

int runDemo(const CommandContext& context, const DemoOptions& options, const char* argv0) {
  const Output out(false);
  using Clock = std::chrono::steady_clock;
  const auto began = Clock::now();

  fs::path work = options.workFolder;
  std::error_code ec;
  if (work.empty()) {
    std::string pattern = (fs::temp_directory_path(ec) / "zsm-demo-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
      return out.fail(cliError(kCliErrorConfigFile, "cannot make a temporary folder"));
    work = pattern;
  }
  const fs::path serverData = work / "server";
  const fs::path serverLog = work / "server.log";
  const fs::path toolLog = work / "server-admin.log";
  HostPaths device{work / "device"};
  fs::create_directories(serverData, ec);
  fs::create_directories(device.root, ec);

  step(1, "Starting the content server with generated sample content");
  const std::string serverProgram = findServerProgram(options.serverProgram, argv0);
  std::unique_ptr<ChildProcess> server;
  if (auto error =
          ChildProcess::start({serverProgram, "serve", "--data", serverData.string(), "--address",
                               "127.0.0.1", "--port", "0", "--generate-sample"},
                              serverLog, &server))
    return out.fail(*error);
  const auto listening = server->waitForLine("listening on ", std::chrono::seconds(60));
  if (!listening) {
    return out.fail(cliError(kCliErrorServerProgram,
                             "the content server did not start; see " + serverLog.string()));
  }
  const std::string serverUrl = listening->substr(std::string("listening on ").size());
  say("  " + serverProgram + " serves " + serverUrl + " (pid " + std::to_string(server->pid()) +
      ")");
  std::string url = serverUrl;
  std::unique_ptr<ThrottledLink> link;
  if (options.linkRate > 0) {
    link = std::make_unique<ThrottledLink>(std::stoi(serverUrl.substr(serverUrl.rfind(':') + 1)),
                                           options.linkRate);
    if (auto error = link->start()) return out.fail(*error);
    url = "http://127.0.0.1:" + std::to_string(link->port());
    say("  the device reaches it through a link of " + std::to_string(options.linkRate / 1024) +
        " KiB/s per connection at " + url + " (--link-rate 0 for full speed)");
  }
  auto admin = [&](std::vector<std::string> args) -> std::optional<Error> {
    args.insert(args.begin(), serverProgram);
    args.insert(args.begin() + 2, {"--data", serverData.string()});
    std::string output;
    return ChildProcess::run(args, toolLog, std::chrono::seconds(15), &output);
  };

  step(2, "Configuring a fresh device in " + device.root.string());
  CliConfig config;
  config.serverUrl = url;
  config.user = kDemoUser;
  config.publicKey = kDemoKey;
  config.secret = kDemoSecret;
  config.deviceId = newUUIDString();
  if (auto error = config.save(device)) return out.fail(*error);
  say("  user " + config.user + ", device " + config.deviceId);

  int status = 0;
  {
    HostOptions hostOptions;
    hostOptions.paths = device;
    hostOptions.config = config;
    hostOptions.echoLogLevel = context.logLevel;
    std::unique_ptr<HostRuntime> host;
    if (auto error = HostRuntime::open(hostOptions, &host)) return out.fail(*error);
    host->setEventListener([](const std::string& line) { say("  " + line); });
    auto& m = host->manager();
    // A new device treats its first launch as its last sync: only content
    // published later counts as new. The sample items are a few hours old, so
    // the demo moves the date back a day (what `zsm sync --since 1d` does).
    host->platform().userDefaults->setDate(
        LastSyncKey, Date(host->roles().secureClock->date().secondsSince1970 - 86400));
    host->platform().userDefaults->synchronize();
    say("  last sync moved back one day, so the last hours' items count as new "
        "(`zsm sync --since 1d` does the same)");

    step(3, "Subscribing to two feeds with different rules");
    struct Subscription {
      const char* feed;
      std::int32_t maxItems;
      bool autodelete;
      std::int32_t maxBitrate;
    };
    const Subscription subscriptions[] = {{"morning-news", 3, true, 0},
                                          {"feature-films", 1, false, 1000000}};
    for (const auto& s : subscriptions) {
      bool ok = false;
      std::optional<Error> failure;
      auto waited = runToCompletion(
          *host,
          [&](std::function<void()> done) {
            m.registerForSubscription(s.feed, s.maxItems, s.autodelete, s.maxBitrate,
                                      [&, done](bool success, std::optional<Error> e) {
                                        ok = success;
                                        failure = std::move(e);
                                        done();
                                      });
          },
          context.timeout, "subscribe");
      if (waited) return out.fail(*waited);
      if (!ok) return out.fail(failure.value_or(cliError(kCliErrorIncomplete, "subscribe failed")));
      // The server is the authority on a device's rules: every catalog carries
      // them and they replace the device's. The provider records the same rules
      // for this device so that both sides agree.
      if (auto error = admin({"set-rule", "--user", kDemoUser, "--device", config.deviceId,
                              "--feed", s.feed, "--max-assets", std::to_string(s.maxItems),
                              "--auto-delete", s.autodelete ? "true" : "false", "--max-bitrate",
                              std::to_string(s.maxBitrate)}))
        return out.fail(*error);
      say(std::string("  ") + s.feed + ": keep at most " + std::to_string(s.maxItems) +
          " item(s), auto-delete " + (s.autodelete ? "on" : "off") + ", max bitrate " +
          (s.maxBitrate ? std::to_string(s.maxBitrate) + " bit/s" : "none"));
    }

    step(4, "Syncing and downloading");
    if (auto error = syncAndWatch(*host, context.timeout)) return out.fail(*error);

    step(5, "The library on this device");
    showLibrary(*host);
    const bool hadOldest = holdsAsset(*host, "news-0001");

    step(6, "New content: the provider adds Morning News 4, the device publishes a clip");
    if (auto error = admin({"add-item", "--feed", "morning-news", "--uuid", "news-0004", "--media",
                            "files/morning-news-1.mp4", "--title", "Morning News 4", "--desc",
                            "Morning News 4 &amp; more", "--mime", "video/mp4"}))
      return out.fail(*error);
    say("  added news-0004 to morning-news");
    host->waitForFreshSecond();
    const std::size_t mark = host->logMark();
    Value::Map clip{{"title", Value("Clip from this device")},
                    {"desc", Value("Published with a push update")},
                    {"downloadURL", Value(url + "/media/files/welcome.mp4")},
                    {"contentType", Value(0)}};
    m.generatePushUpdate(clip);
    bool published = false;
    host->pumpUntil(
        [&] {
          for (const auto& l : host->logSince(mark)) {
            if (l.message.find("Push request was successful") != std::string::npos)
              published = true;
            if (l.level == 0) return true;
          }
          return published;
        },
        context.timeout);
    say(published ? "  the clip was published; the server notifies the subscribed devices"
                  : "  the clip could not be published (see the engine log)");

    step(7,
         "Syncing again: morning-news keeps 3 downloaded items, so once Morning News 4 is in, "
         "the oldest goes");
    const std::size_t deletedBefore = host->events().deleted.size();
    if (auto error = syncAndWatch(*host, context.timeout)) return out.fail(*error);
    showLibrary(*host);
    const std::size_t deleted = host->events().deleted.size() - deletedBefore;
    const bool oldestGone = hadOldest && !holdsAsset(*host, "news-0001");
    const bool newest = holdsAsset(*host, "news-0004");
    say("  retention: " + std::to_string(deleted) + " asset(s) deleted; news-0001 " +
        (oldestGone ? "deleted" : "still present") + "; news-0004 " +
        (newest ? "downloaded" : "missing"));
    if (!oldestGone || !newest) {
      status = out.fail(cliError(kCliErrorIncomplete,
                                 "the second sync did not replace the oldest morning-news item"));
    }
    // The downloads by feed and title, for a person to open.
    std::vector<LibraryEntry> entries;
    if (auto error = updateLibrary(*host, device.library(), &entries))
      say("  the library view was not made: " + error->describe());
    for (const auto& e : entries)
      say("  " + e.link.lexically_relative(device.root).string());
  }

  step(8, "Stopping");
  if (link) link->stop();
  server->terminate(std::chrono::seconds(5));
  say("  server stopped");
  const auto seconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began).count() / 1000.0;
  char took[32];
  std::snprintf(took, sizeof took, "%.1f", seconds);
  say("\nThe demo took " + std::string(took) + " s. Files are in " + work.string() + ":");
  say("  device:  " + device.root.string() +
      "  (config.json, user-defaults.json, engine/, library/)");
  say("  library: " + device.library().string() + "  (the downloads by feed and title)");
  say("  server:  " + serverData.string() + "  (server.sqlite, media/)");
  say("  logs:    " + serverLog.string() + ", " + (device.engine() / "").string());
  say("Look around with: zsm --data " + device.root.string() + " items");
  return status;
}

}  // namespace zsm
