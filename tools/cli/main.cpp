// zsm: the command-line host of the subscription manager.
#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include "CliError.h"
#include "Commands.h"
#include "ExitStatus.h"
#include "Output.h"
#include "UserInput.h"

namespace {

using namespace zsm;

// CLI11 reads "true"/"false" for optional<bool>; the rules read better as
// on/off too.
bool parseSwitch(const std::string& text, bool* value) {
  if (text == "true" || text == "on" || text == "yes" || text == "1") return *value = true, true;
  if (text == "false" || text == "off" || text == "no" || text == "0") return *value = false, true;
  return false;
}

// Global options that take a value, for finding the command word in argv.
bool takesValue(const std::string& option) {
  return option == "--data" || option == "--log-level" || option == "--timeout" ||
         option == "--keep-free";
}

// The first word of argv that is not a global option or its value; empty when
// there is none.
std::string commandWord(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") return i + 1 < argc ? argv[i + 1] : "";
    if (arg.rfind("-", 0) == 0) {
      if (takesValue(arg)) ++i;
      continue;
    }
    return arg;
  }
  return {};
}

std::vector<std::string> commandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; }))
    names.push_back(sub->get_name());
  return names;
}

// Whether the command line asks for JSON; read before parsing, so that a
// command line CLI11 refuses still gets its error as JSON.
bool gJson = false;

int usageError(const std::string& message) {
  return Output(gJson).fail(cliError(kCliErrorUsage, message));
}

// The help of zsm itself: its options and its commands. (App::help() of an
// app whose `help` subcommand was parsed would describe that subcommand.)
std::string topHelp(const CLI::App& app) {
  return app.get_formatter()->make_help(&app, "zsm", CLI::AppFormatMode::Normal);
}

// Every command's help after zsm's own, subcommands of commands included: what
// `zsm help --all` prints and the man page is made from.
std::string allHelp(const CLI::App& app) {
  std::string text = topHelp(app);
  std::function<void(const CLI::App&, const std::string&)> add = [&](const CLI::App& parent,
                                                                     const std::string& prefix) {
    for (const CLI::App* sub : parent.get_subcommands([](const CLI::App*) { return true; })) {
      const std::string name = prefix + " " + sub->get_name();
      text += "\n" + name + "\n" + std::string(name.size(), '=') + "\n" +
              sub->get_formatter()->make_help(sub, name, CLI::AppFormatMode::Normal);
      add(*sub, name);
    }
  };
  add(app, "zsm");
  return text;
}

int unknownCommand(const CLI::App& app, const std::string& word) {
  const std::string nearest = nearestName(word, commandNames(app));
  return usageError("unknown command \"" + word + "\"" +
                    (nearest.empty() ? "" : " (did you mean \"" + nearest + "\"?)") +
                    "; `zsm help` lists the commands");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "zsm: a host application for the Zolvani subscription manager and the reference "
      "download engine"};
  app.require_subcommand(1);
  // Global options may also follow the subcommand (`zsm items --json`).
  app.fallthrough();
  app.set_version_flag("--version", std::string("zsm ") + ZSM_VERSION);
  app.footer(std::string("Run `zsm help COMMAND` for a command's options.\n\n") + exitStatusHelp());
  CommandContext context;
  std::string data;
  double timeoutSeconds = 30;
  app.add_option("--data", data,
                 "data folder (config.json, user-defaults.json, engine/); default "
                 "$XDG_STATE_HOME/zsm or ~/.local/state/zsm");
  app.add_flag("--json", context.json, "print one JSON document instead of text");
  std::string logLevelText;
  app.add_option("--log-level", logLevelText,
                 "echo log lines up to this level to stderr: error, warning, info or debug "
                 "(or a number, 0 error ... 4 info)")
      ->check(CLI::Validator(
          [](std::string& text) {
            return parseLogLevel(text) ? std::string()
                                       : "takes error, warning, info, debug or a number >= 0";
          },
          "LEVEL"));
  app.add_option("--timeout", timeoutSeconds, "seconds to wait for the server, 0.1 to 3600")
      ->check(CLI::Range(0.1, 3600.0));
  double keepFreeMiB = -1;
  app.add_option("--keep-free", keepFreeMiB,
                 "MiB the engine keeps free on the data folder's file system beyond each "
                 "download, 0 to 1073741824 (default 64)")
      ->check(CLI::Range(0.0, 1073741824.0));
  std::function<int()> action;

  // config
  ConfigOptions configOptions;
  auto* config =
      app.add_subcommand("config", "show or change the server URL, user, keys and device");
  config->add_option("--server", configOptions.server, "content server URL, http://host:port");
  config->add_option("--user", configOptions.user, "account user name");
  config->add_option("--key", configOptions.key, "public key");
  config->add_option("--secret", configOptions.secret,
                     "secret that signs requests (visible to other users in the process list; "
                     "prefer --secret-file or ZSM_SECRET)");
  config->add_option("--secret-file", configOptions.secretFile,
                     "read the secret from FILE's first line; - reads standard input");
  config->add_option("--device-id", configOptions.deviceId,
                     "device identifier (new UUID by default)");
  config->add_flag("--reveal", configOptions.reveal, "show the secret");
  config->callback([&] { action = [&] { return runConfig(context, configOptions); }; });

  // settings
  SettingsOptions settingsOptions;
  auto* settings = app.add_subcommand("settings", "get or set the global defaults");
  settings->add_subcommand("get", "show the settings")->callback([] {});
  auto* settingsSet = settings->add_subcommand(
      "set",
      "set one: max-items N | autodelete on|off | max-bitrate N | last-sync DATE | verbose on|off; "
      "DATE is now, now-SPAN (now-7d), seconds since 1970 or UTC as settings prints it "
      "(2026-01-31T08:00:00Z)");
  settingsSet
      ->add_option("key", settingsOptions.key,
                   "setting name: max-items, autodelete, max-bitrate, last-sync, verbose")
      ->required();
  settingsSet->add_option("value", settingsOptions.value, "new value")->required();
  settings->callback([&] { action = [&] { return runSettings(context, settingsOptions); }; });

  app.add_subcommand("status", "check the server accepts this device; show status and counts")
      ->callback([&] { action = [&] { return runStatus(context); }; });

  // subscribe
  SubscribeOptions subscribeOptions;
  std::string autodeleteText;
  auto* subscribe = app.add_subcommand("subscribe", "subscribe to a feed with retention rules");
  subscribe->footer(
      "The rules given here hold until the next sync: the server is the authority on a feed's "
      "rules, and a sync replaces them with the server's rules for the feed when it has any. "
      "`zsm feeds` shows where each feed's rules came from.");
  subscribe->add_option("feed", subscribeOptions.feed, "feed identifier")->required();
  subscribe
      ->add_option("--max-items", subscribeOptions.maxItems,
                   "keep at most N items, 0 to 2147483647 (0: no limit; until the next sync)")
      ->check(CLI::Range(0, std::numeric_limits<std::int32_t>::max()));
  subscribe->add_option("--autodelete", autodeleteText,
                        "delete old items for new ones: on or off (until the next sync)");
  subscribe
      ->add_option("--max-bitrate", subscribeOptions.maxBitrate,
                   "bit/s cap for streams, 0 to 2147483647 (0: none; until the next sync)")
      ->check(CLI::Range(0, std::numeric_limits<std::int32_t>::max()));
  subscribe->callback([&] {
    action = [&] {
      if (!autodeleteText.empty()) {
        bool value = false;
        if (!parseSwitch(autodeleteText, &value))
          return Output(context.json)
              .fail(cliError(kCliErrorUsage,
                             "--autodelete takes on or off, not \"" + autodeleteText + "\""));
        subscribeOptions.autodelete = value;
      }
      return runSubscribe(context, subscribeOptions);
    };
  });

  UnsubscribeOptions unsubscribeOptions;
  auto* unsubscribe = app.add_subcommand("unsubscribe", "unsubscribe from one feed or all");
  unsubscribe->add_option("feed", unsubscribeOptions.feed, "feed identifier");
  unsubscribe->add_flag("--all", unsubscribeOptions.all, "every subscription of this device");
  unsubscribe->callback(
      [&] { action = [&] { return runUnsubscribe(context, unsubscribeOptions); }; });

  app.add_subcommand("subscriptions", "list the feeds the server has this device subscribed to")
      ->callback([&] { action = [&] { return runSubscriptions(context); }; });

  // sync
  SyncOptions syncOptions;
  double watchSeconds = 120;
  auto* sync = app.add_subcommand("sync", "ask the server for new items and queue their downloads");
  sync->add_flag("--force", syncOptions.force, "sync even if another sync is running");
  sync->add_flag("--watch", syncOptions.watch,
                 "stay and show the downloads until the queue drains");
  sync->add_option("--watch-timeout", watchSeconds, "seconds --watch waits at most, 1 to 86400")
      ->check(CLI::Range(1.0, 86400.0));
  std::string sinceText;
  sync->add_option("--since", sinceText,
                   "catch up: first move the last-sync date back to SPAN ago (30m, 12h, 7d, 2w), "
                   "so items published since then count as new")
      ->check(CLI::Validator(
          [](std::string& text) {
            return parseSpan(text) ? std::string()
                                   : "takes a span such as 30m, 12h, 7d or 2w (at most 100 years)";
          },
          "SPAN"));
  sync->footer(
      "A new device counts its first launch as its last sync, so its first sync adds only what "
      "was published after it. Use --since (for example `zsm sync --since 7d`) to fetch what "
      "came out before.");
  sync->callback([&] {
    action = [&] {
      syncOptions.watchTimeout =
          std::chrono::milliseconds(static_cast<long long>(watchSeconds * 1000));
      if (!sinceText.empty()) syncOptions.since = parseSpan(sinceText);
      return runSync(context, syncOptions);
    };
  });

  app.add_subcommand("feeds", "the feeds tracked on this device, with their rules and items")
      ->callback([&] { action = [&] { return runFeeds(context); }; });
  ItemsOptions itemsOptions;
  auto* items = app.add_subcommand("items", "the downloads on this device");
  items->add_option("--feed", itemsOptions.feed, "only this feed's items");
  items->footer(
      "A failed download says why below its line. `zsm items retry` and `zsm items "
      "forget` deal with failed ones.");
  ItemsActionOptions retryOptions, forgetOptions;
  double retryWatchSeconds = 120;
  auto* itemsRetry = items->add_subcommand(
      "retry", "queue failed downloads again and follow them (exit 4 when one fails again)");
  itemsRetry->add_option("id", retryOptions.ids, "asset identifier or UUID of a failed item");
  itemsRetry->add_flag("--all", retryOptions.all, "every failed download");
  itemsRetry
      ->add_option("--watch-timeout", retryWatchSeconds,
                   "seconds to follow them at most, 1 to 86400")
      ->check(CLI::Range(1.0, 86400.0));
  auto* itemsForget = items->add_subcommand(
      "forget", "delete items and their files (a later `sync --since` may bring them anew)");
  itemsForget->add_option("id", forgetOptions.ids, "asset identifier or UUID");
  itemsForget->add_flag("--all", forgetOptions.all, "every failed download");
  items->callback([&] {
    action = [&] {
      if (itemsRetry->parsed()) {
        retryOptions.watchTimeout =
            std::chrono::milliseconds(static_cast<long long>(retryWatchSeconds * 1000));
        return runItemsRetry(context, retryOptions);
      }
      if (itemsForget->parsed()) return runItemsForget(context, forgetOptions);
      return runItems(context, itemsOptions);
    };
  });
  app.add_subcommand("library",
                     "link each finished download as <data>/library/<feed>/<title>.<ext> and list "
                     "the links (the files themselves stay where the engine keeps them)")
      ->callback([&] { action = [&] { return runLibrary(context); }; });
  app.add_subcommand("deferred", "items held back because their feed is full")->callback([&] {
    action = [&] { return runDeferred(context); };
  });

  // publish
  PublishOptions publishOptions;
  auto* publish = app.add_subcommand("publish", "announce a new item to the server (push update)");
  publish->add_option("--title", publishOptions.title, "title");
  publish->add_option("--desc", publishOptions.desc, "description");
  publish->add_option("--url", publishOptions.downloadURL, "download URL");
  publish->add_option("--stream-url", publishOptions.streamURL, "stream URL");
  publish->add_option("--content-size", publishOptions.contentSize, "size in bytes (0 or more)")
      ->check(CLI::NonNegativeNumber);
  publish->add_option("--duration", publishOptions.duration, "duration in seconds (0 or more)")
      ->check(CLI::NonNegativeNumber);
  publish->add_option("--content-type", publishOptions.contentType, "media type 0 to 5 (3: stream)")
      ->check(CLI::Range(0, 5));
  publish->callback([&] { action = [&] { return runPublish(context, publishOptions); }; });

  // wake
  WakeOptions wakeOptions;
  auto* wake = app.add_subcommand("wake", "deliver a background wake the way the system would");
  wake->require_subcommand(1);
  auto* wakePush = wake->add_subcommand("push", "a remote push notice");
  bool noSync = false;
  wakePush->add_flag("--no-sync", noSync, "a notice that does not ask for a subscription sync");
  wakePush->add_flag("--watch", wakeOptions.watch, "follow the downloads afterwards");
  auto* wakeFetch = wake->add_subcommand("fetch", "a background fetch");
  wakeFetch->add_flag("--watch", wakeOptions.watch, "follow the downloads afterwards");
  wake->callback([&] {
    action = [&] {
      wakeOptions.push = wakePush->parsed();
      wakeOptions.subscriptionSync = !noSync;
      return runWake(context, wakeOptions);
    };
  });

  // demo
  DemoOptions demoOptions;
  auto* demo = app.add_subcommand(
      "demo",
      "run the whole system on this machine (about ten seconds at the default --link-rate)");
  demo->add_option("--server-program", demoOptions.serverProgram, "path of zsm-server");
  demo->add_option("--folder", demoOptions.workFolder,
                   "work folder (a new temporary one by default)");
  demo->add_option("--link-rate", demoOptions.linkRate,
                   "bytes per second between device and server (0: unlimited)")
      ->capture_default_str();
  demo->callback([&] { action = [&] { return runDemo(context, demoOptions, argv[0]); }; });

  // help [COMMAND]
  std::string helpTopic;
  bool helpAll = false;
  auto* help = app.add_subcommand("help", "show the help of zsm or of one command");
  help->add_option("command", helpTopic, "the command to explain");
  help->add_flag("--all", helpAll, "the help of zsm and of every command");
  help->callback([&] {
    action = [&]() -> int {
      if (helpAll) {
        std::cout << allHelp(app);
        return kExitOk;
      }
      if (helpTopic.empty()) {
        std::cout << topHelp(app);
        return kExitOk;
      }
      try {
        std::cout << app.get_subcommand(helpTopic)->help("zsm");
        return kExitOk;
      } catch (const CLI::OptionNotFound&) {
        return unknownCommand(app, helpTopic);
      }
    };
  });

  const std::string word = commandWord(argc, argv);
  bool asksForHelpOrVersion = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") break;
    asksForHelpOrVersion |= arg == "--help" || arg == "-h" || arg == "--version";
    gJson |= arg == "--json";
  }
  if (!word.empty()) {
    bool known = false;
    for (const auto& name : commandNames(app)) known |= name == word;
    if (!known) return unknownCommand(app, word);
  } else if (!asksForHelpOrVersion) {
    if (!gJson) std::cerr << topHelp(app);
    return usageError("a command is required; `zsm help` lists them");
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    usageError(e.what());
    if (!gJson) std::cerr << "(run `zsm help` or `zsm help <command>`)\n";
    return kExitUsage;
  }
  if (!logLevelText.empty()) context.logLevel = *parseLogLevel(logLevelText);
  context.paths.root = data.empty() ? HostPaths::defaultRoot() : std::filesystem::path(data);
  context.timeout = std::chrono::milliseconds(static_cast<long long>(timeoutSeconds * 1000));
  if (keepFreeMiB >= 0)
    context.keepFreeBytes = static_cast<std::uint64_t>(keepFreeMiB * 1024 * 1024);
  if (!action) {
    if (!gJson) std::cerr << topHelp(app);
    return usageError("a command is required; `zsm help` lists them");
  }
  return action();
}
