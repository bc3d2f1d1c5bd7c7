// zsm-server: the reference content server and its administration commands.
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>
#include <CLI/CLI.hpp>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <termios.h>
#include <unistd.h>

#include "reference/server/ContentServer.h"
#include "reference/server/SeedLoader.h"
#include "reference/server/admin/PasswordHasher.h"
#include "reference/server/media/SampleGenerator.h"
#include "reference/server/store/postgres/PgConsoleState.h"
#include "reference/server/store/postgres/PgImport.h"
#include "reference/server/store/postgres/PgSchema.h"
#include "reference/server/store/postgres/PgStore.h"
#include "reference/server/store/sqlite/SqliteConsoleState.h"
#include "reference/server/store/sqlite/SqliteStore.h"

namespace {

using namespace zolvani::refserver;

int Fail(const Status& s) {
  std::cerr << "zsm-server: " << s.ToString() << "\n";
  return 1;
}

// The level names zsm also takes ("warning" as well as spdlog's "warn"), and
// zsm's numbers: 0 error, 1 warning, 2 to 4 info, 5 and above debug.
std::optional<spdlog::level::level_enum> LogLevel(const std::string& text) {
  if (text == "error" || text == "err") return spdlog::level::err;
  if (text == "warning" || text == "warn") return spdlog::level::warn;
  if (text == "info") return spdlog::level::info;
  if (text == "debug") return spdlog::level::debug;
  if (text == "trace") return spdlog::level::trace;
  if (text == "off") return spdlog::level::off;
  if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789") != std::string::npos)
    return std::nullopt;
  const int n = std::stoi(text);
  if (n == 0) return spdlog::level::err;
  if (n == 1) return spdlog::level::warn;
  if (n <= 4) return spdlog::level::info;
  return spdlog::level::debug;
}

// The PostgreSQL store at `databaseUrl` when one is given, else the SQLite store
// in `dataDir`.
Status OpenStore(const std::string& dataDir, const std::string& databaseUrl,
                 std::unique_ptr<Store>* store) {
  if (!databaseUrl.empty()) {
    std::unique_ptr<PgStore> pg;
    PgStoreOptions options;
    options.pool.size = 1;  // one command, one connection
    Status s = PgStore::Open(databaseUrl, options, &pg);
    if (s.ok()) *store = std::move(pg);
    return s;
  }
  if (dataDir.empty()) return Status::InvalidArgument("--data or --database is required");
  std::unique_ptr<SqliteStore> sqlite;
  Status s = SqliteStore::Open(dataDir, &sqlite);
  if (s.ok()) *store = std::move(sqlite);
  return s;
}

// The console state in the database at `databaseUrl` when one is given (shared by
// every replica on it), else `dataDir`/console.sqlite.
Status OpenConsole(const std::string& dataDir, const std::string& databaseUrl,
                   std::unique_ptr<ConsoleState>* console) {
  if (!databaseUrl.empty()) {
    std::unique_ptr<PgConsoleState> pg;
    Status s = PgConsoleState::Open(databaseUrl, 1, &pg);
    if (s.ok()) *console = std::move(pg);
    return s;
  }
  if (dataDir.empty()) return Status::InvalidArgument("--data or --database is required");
  std::unique_ptr<SqliteConsoleState> sqlite;
  Status s = SqliteConsoleState::Open(dataDir, &sqlite);
  if (s.ok()) *console = std::move(sqlite);
  return s;
}

Status Generate(const std::string& dataDir, Store* store) {
  nlohmann::json seed;
  const int64_t now = ContentServer::WallClockMs();
  Status s = SampleGenerator::Generate(dataDir, now, &seed);
  if (!s.ok()) return s;
  // Generating again (a restart with --generate-sample, or the command run twice)
  // keeps what the first generation made, creation times included.
  SeedSummary summary;
  s = SeedLoader::Apply(seed, store, now, &summary, SeedMode::kAddMissing);
  if (s.ok()) {
    spdlog::info(
        "sample content: {} account(s), {} feed(s), {} item(s) added, {} kept as they were",
        summary.accounts, summary.feeds, summary.items, summary.kept);
  }
  return s;
}

struct ServeFlags {
  std::string databaseUrl;
  int databasePool = 8;
  std::string address = "127.0.0.1";
  int port = 0;
  std::string seedFile;
  bool generate = false;
  std::string publicUrl;
  int threads = 8;
  int ioThreads = 2;
  std::vector<std::string> trustedProxies;
  std::string consoleAddress = "127.0.0.1";
  int consolePort = -1;  // -1: the console shares the public listener
  ConnectionLimits limits;
  double headerTimeout = 5;
  double bodyTimeout = 10;
  double keepAliveTimeout = 2;
  bool noConsole = false;
  bool consoleFromAnywhere = false;
  std::string nodeName;
  std::vector<std::string> consoleTrustedProxies;
};

std::chrono::milliseconds Milliseconds(double seconds) {
  return std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000.0 + 0.5));
}

int Serve(const std::string& dataDir, const ServeFlags& flags) {
  // Signals are taken by sigwait below; block them before any thread starts so
  // that every thread inherits the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  ServerOptions options;
  options.dataDir = dataDir;
  options.databaseUrl = flags.databaseUrl;
  options.databasePool = flags.databasePool;
  options.address = flags.address;
  options.port = flags.port;
  options.publicUrl = flags.publicUrl;
  options.threads = flags.threads;
  options.ioThreads = flags.ioThreads;
  options.trustedProxies = flags.trustedProxies;
  options.consoleAddress = flags.consoleAddress;
  if (flags.consolePort >= 0) options.consolePort = flags.consolePort;
  options.limits = flags.limits;
  options.limits.headerTimeout = Milliseconds(flags.headerTimeout);
  options.limits.bodyTimeout = Milliseconds(flags.bodyTimeout);
  options.limits.keepAliveIdle = Milliseconds(flags.keepAliveTimeout);
  options.console = !flags.noConsole;
  options.consoleFromAnywhere = flags.consoleFromAnywhere;
  options.nodeName = flags.nodeName;
  options.consoleTrustedProxies = flags.consoleTrustedProxies;
  std::unique_ptr<ContentServer> server;
  Status s = ContentServer::Create(options, &server);
  if (!s.ok()) return Fail(s);
  if (flags.generate) {
    s = Generate(dataDir, server->store());
    if (!s.ok()) return Fail(s);
  }
  if (!flags.seedFile.empty()) {
    SeedSummary summary;
    s = SeedLoader::ApplyFile(flags.seedFile, server->store(), ContentServer::WallClockMs(),
                              &summary);
    if (!s.ok()) return Fail(s);
    spdlog::info("seed: {} account(s), {} feed(s), {} item(s), {} publisher grant(s)",
                 summary.accounts, summary.feeds, summary.items, summary.publishers);
  }
  s = server->Start();
  if (!s.ok()) return Fail(s);
  std::cout << "listening on " << server->url() << std::endl;
  if (options.console) {
    std::string hash;
    int64_t operators = 0;
    server->consoleState()->CountOperators(&operators);
    const bool ready = operators > 0 || server->consoleState()->PasswordHash(&hash).ok();
    const std::string consoleUrl = options.consolePort ? "http://" + options.consoleAddress + ":" +
                                                             std::to_string(server->consolePort())
                                                       : server->url();
    spdlog::info("console: {}/admin/{}", consoleUrl,
                 ready ? "" : " (no password yet: run zsm-server set-console-password)");
  }
  int received = 0;
  sigwait(&signals, &received);
  spdlog::info("signal {}: shutting down", received);
  server->Stop();
  return 0;
}

// Reads a new password from ZSM_CONSOLE_PASSWORD, or else the first line of
// standard input (asked for, without echo, on a terminal), so that it never
// appears in a process listing or a shell's history.
std::string ReadPassword(const char* prompt) {
  if (const char* env = std::getenv("ZSM_CONSOLE_PASSWORD"); env != nullptr && *env != '\0') {
    return env;
  }
  std::string password;
  const bool terminal = isatty(STDIN_FILENO) != 0;
  termios saved{};
  if (terminal && tcgetattr(STDIN_FILENO, &saved) == 0) {
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    std::cerr << prompt << std::flush;
    std::getline(std::cin, password);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    std::cerr << "\n";
  } else {
    std::getline(std::cin, password);
  }
  if (!password.empty() && password.back() == '\r') password.pop_back();
  return password;
}

int SetConsolePassword(const std::string& dataDir, const std::string& databaseUrl) {
  const std::string password = ReadPassword("new console password: ");
  std::string encoded;
  Status s = PasswordHasher::Hash(password, PasswordHashParams{}, &encoded);
  if (!s.ok()) return Fail(s);
  std::unique_ptr<ConsoleState> console;
  s = OpenConsole(dataDir, databaseUrl, &console);
  if (!s.ok()) return Fail(s);
  int64_t operators = 0;
  s = console->CountOperators(&operators);
  if (!s.ok()) return Fail(s);
  if (operators > 0) {
    std::cerr << "zsm-server: warning: the console has operators, who sign in with their own "
                 "passwords; the console password is not used any more\n";
  }
  const int64_t now = ContentServer::WallClockMs();
  s = console->SetPasswordHash(encoded, now);
  if (s.ok()) {
    AuditEntry entry;
    entry.atMs = now;
    entry.operatorName = "command line";
    entry.peer = "command line";
    entry.action = "console.password";
    entry.target = "console";
    s = console->Record(std::move(entry));
  }
  if (!s.ok()) return Fail(s);
  std::cout << "console password set; sessions signed in with the old one have ended\n";
  return 0;
}

// Creates a named operator; the first one ends the one-password console.
int AddOperator(const std::string& dataDir, const std::string& databaseUrl, const std::string& name,
                const std::string& roleName) {
  OperatorRole role;
  if (!ParseRole(roleName, &role)) {
    return Fail(Status::InvalidArgument("--role is one of viewer, editor, administrator"));
  }
  std::unique_ptr<ConsoleState> console;
  Status s = OpenConsole(dataDir, databaseUrl, &console);
  if (!s.ok()) return Fail(s);
  int64_t operators = 0;
  s = console->CountOperators(&operators);
  if (!s.ok()) return Fail(s);
  if (operators == 0 && role != OperatorRole::kAdministrator) {
    return Fail(Status::FailedPrecondition(
        "the first operator must be an administrator (--role administrator), who can then add "
        "the others"));
  }
  const std::string password = ReadPassword(("password for " + name + ": ").c_str());
  std::string encoded;
  s = PasswordHasher::Hash(password, PasswordHashParams{}, &encoded);
  if (!s.ok()) return Fail(s);
  const int64_t now = ContentServer::WallClockMs();
  s = console->AddOperator({name, role, encoded, now, now});
  if (s.ok()) {
    AuditEntry entry;
    entry.atMs = now;
    entry.operatorName = "command line";
    entry.peer = "command line";
    entry.action = "operator.create";
    entry.target = name;
    entry.details = {{"role", RoleName(role)}, {"password_changed", true}};
    s = console->Record(std::move(entry));
  }
  if (!s.ok()) return Fail(s);
  std::cout << "operator " << name << " added as " << RoleName(role) << "\n";
  if (operators == 0) {
    std::cout << "the console password no longer signs in; operators sign in with their names\n";
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  spdlog::set_default_logger(spdlog::stderr_color_mt("zsm-server"));
  CLI::App app{"zsm-server: reference content server for the subscription protocol"};
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("zsm-server ") + ZSM_VERSION);
  std::string logLevel = "info";
  app.add_option("--log-level", logLevel,
                 "error, warning, info, debug, trace or off; or a number, 0 error ... 4 info, "
                 "5 debug")
      ->capture_default_str()
      ->check(CLI::Validator(
          [](std::string& text) {
            return LogLevel(text) ? std::string()
                                  : "takes error, warning, info, debug, trace, off or a number";
          },
          "LEVEL"));

  std::string dataDir;
  std::string databaseUrl;
  // Every command works on the SQLite store of a data folder, or on a PostgreSQL
  // database that replicas share.
  auto addData = [&dataDir, &databaseUrl](CLI::App* cmd) {
    cmd->add_option("--data", dataDir,
                    "data folder (server.sqlite, media/); with --database only media/");
    cmd->add_option("--database", databaseUrl,
                    "PostgreSQL URL (postgresql://user@host:port/db) of a shared store")
        ->envname("ZSM_DATABASE_URL");
  };

  auto* serve = app.add_subcommand("serve", "serve the protocol and the media folder");
  addData(serve);
  ServeFlags flags;
  serve->add_option("--db-pool", flags.databasePool, "connections to the database (--database)")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  serve->add_option("--address", flags.address, "address to listen on")->capture_default_str();
  serve->add_option("--port", flags.port, "port; 0 picks a free one")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  serve->add_option("--seed", flags.seedFile, "seed file (JSON) applied before serving")
      ->check(CLI::ExistingFile);
  serve->add_flag("--generate-sample", flags.generate,
                  "generate the sample content first, as generate-sample does (for a demo; "
                  "replicas are started without it)");
  serve->add_option("--public-url", flags.publicUrl,
                    "base URL devices use for media (default: each request's Host)");
  serve
      ->add_option("--threads", flags.threads,
                   "threads that run requests (at most 48; connections cost none)")
      ->capture_default_str()
      ->check(CLI::Range(1, 1024));
  serve->add_option("--io-threads", flags.ioThreads, "threads that run every connection's I/O")
      ->capture_default_str()
      ->check(CLI::Range(1, 8));
  serve->add_option("--trusted-proxy", flags.trustedProxies,
                    "address of a balancer in front (repeatable): exempt from the per-address "
                    "cap, client address taken from X-Forwarded-For, console refused through it");
  serve
      ->add_option("--console-port", flags.consolePort,
                   "serve the console on this port only (0: a free one), not on --port")
      ->check(CLI::Range(0, 65535));
  serve->add_option("--console-address", flags.consoleAddress, "address of the console's listener")
      ->capture_default_str();
  serve
      ->add_option("--max-connections", flags.limits.maxConnections,
                   "open connections in all; more are refused with 503")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000));
  serve
      ->add_option("--max-connections-per-address", flags.limits.maxConnectionsPerAddress,
                   "open connections from one address (IPv6: one /64)")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000));
  serve
      ->add_option("--header-timeout", flags.headerTimeout,
                   "seconds for a request line and headers to arrive")
      ->capture_default_str()
      ->check(CLI::Range(0.05, 3600.0));
  serve
      ->add_option("--body-timeout", flags.bodyTimeout,
                   "seconds for a request body to arrive after its headers")
      ->capture_default_str()
      ->check(CLI::Range(0.05, 3600.0));
  serve
      ->add_option("--keep-alive-timeout", flags.keepAliveTimeout,
                   "seconds an idle connection is kept between requests")
      ->capture_default_str()
      ->check(CLI::Range(0.05, 3600.0));

  serve
      ->add_option("--node-name", flags.nodeName,
                   "names this server among those sharing a database, in the console's figures "
                   "and in log lines (default: the host name)")
      ->check(CLI::Validator(
          [](std::string& text) {
            const bool ok = !text.empty() && text.size() <= 64 &&
                            text.find_first_not_of(
                                "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTU"
                                "VWXYZ0123456789._-") == std::string::npos;
            return ok ? std::string() : "takes 1 to 64 letters, digits, '.', '_' or '-'";
          },
          "NAME"));
  serve->add_flag("--no-console", flags.noConsole, "do not serve the operator's console at /admin");
  serve->add_flag("--console-from-anywhere", flags.consoleFromAnywhere,
                  "let clients beyond the loopback interface reach the console");
  serve->add_option("--console-trusted-proxy", flags.consoleTrustedProxies,
                    "address of a reverse proxy whose X-Forwarded-For/-Proto the console "
                    "believes (repeatable)");

  auto* setPassword = app.add_subcommand(
      "set-console-password",
      "set the console's password from ZSM_CONSOLE_PASSWORD or the first line of stdin");
  addData(setPassword);

  auto* addOperatorCmd = app.add_subcommand(
      "add-operator",
      "add a console operator; the password comes from ZSM_CONSOLE_PASSWORD or stdin");
  addData(addOperatorCmd);
  std::string operatorName, operatorRole;
  addOperatorCmd->add_option("name", operatorName, "the operator's sign-in name")->required();
  addOperatorCmd->add_option("--role", operatorRole, "viewer, editor or administrator")->required();

  auto* addAccount = app.add_subcommand("add-account", "add or replace an account");
  addData(addAccount);
  Account account;
  addAccount->add_option("--user", account.user, "user name (request header user_id)")->required();
  addAccount->add_option("--key", account.publicKey, "public key (sent Base64-encoded)")
      ->required();
  addAccount->add_option("--secret", account.secret, "secret used to sign requests")->required();

  auto* addFeed = app.add_subcommand("add-feed", "add or replace a feed");
  addData(addFeed);
  Feed feed;
  bool notSubscribable = false;
  addFeed->add_option("--id", feed.id, "feed identifier")->required();
  addFeed->add_option("--title", feed.title, "title");
  addFeed->add_flag("--not-subscribable", notSubscribable, "devices may not subscribe");
  addFeed->add_option("--max-assets", feed.defaults.maxAssets, "default max_assets")
      ->capture_default_str();
  addFeed->add_option("--auto-delete", feed.defaults.autoDelete, "default auto_delete (true/false)")
      ->capture_default_str();
  addFeed->add_option("--max-bitrate", feed.defaults.maxBitrate, "default max_bitrate")
      ->capture_default_str();

  auto* addItem = app.add_subcommand("add-item", "add an item to a feed, or a direct item");
  addData(addItem);
  std::string itemFeed, itemUser, itemUuid, itemMedia, itemUrl, itemTitle, itemDesc, itemMime;
  int mediaType = 0;
  std::optional<int64_t> created;
  addItem->add_option("--uuid", itemUuid, "remoteUUID")->required();
  auto* feedOpt = addItem->add_option("--feed", itemFeed, "feed identifier");
  auto* userOpt = addItem->add_option("--user", itemUser, "account of a direct item");
  feedOpt->excludes(userOpt);
  addItem->add_option("--media", itemMedia, "path under the media folder");
  addItem->add_option("--url", itemUrl, "external downloadURL instead of --media");
  addItem->add_option("--title", itemTitle, "title");
  addItem->add_option("--desc", itemDesc, "description");
  addItem->add_option("--media-type", mediaType, "0-5; 3 is an HLS manifest")
      ->check(CLI::Range(0, 5));
  addItem->add_option("--mime", itemMime, "permitted MIME type");
  addItem->add_option("--created", created, "seconds or milliseconds since 1970 (default now)");

  auto* setRule = app.add_subcommand("set-rule", "set a device's rules for a feed");
  addData(setRule);
  std::string ruleUser, ruleDevice, ruleFeed;
  FeedRules rules;
  setRule->add_option("--user", ruleUser, "account")->required();
  setRule->add_option("--device", ruleDevice, "device_id")->required();
  setRule->add_option("--feed", ruleFeed, "feed identifier")->required();
  setRule->add_option("--max-assets", rules.maxAssets, "max_assets")->required();
  setRule->add_option("--auto-delete", rules.autoDelete, "auto_delete (true/false)")
      ->capture_default_str();
  setRule->add_option("--max-bitrate", rules.maxBitrate, "max_bitrate")->capture_default_str();

  auto* grant =
      app.add_subcommand("grant-publisher", "let an account's devices publish into a feed");
  addData(grant);
  auto* revoke = app.add_subcommand("revoke-publisher", "withdraw a publishing grant");
  addData(revoke);
  std::string grantUser, grantFeed;
  bool allFeeds = false;
  for (auto* cmd : {grant, revoke}) {
    cmd->add_option("--user", grantUser, "account")->required();
    auto* feedOption = cmd->add_option("--feed", grantFeed, "feed identifier");
    auto* allOption = cmd->add_flag("--all-feeds", allFeeds, "every feed, present and future");
    feedOption->excludes(allOption);
  }
  auto* listPublishers =
      app.add_subcommand("list-publishers", "print publishing grants, one JSON per line");
  addData(listPublishers);
  std::string listFeed;
  listPublishers->add_option("--feed", listFeed, "only grants that cover this feed");

  auto* generateCmd = app.add_subcommand(
      "generate-sample",
      "write and publish sample content once; what is already there, files and items, is kept");
  addData(generateCmd);

  auto* listPushes = app.add_subcommand("list-pushes", "print push notices, one JSON per line");
  addData(listPushes);
  std::string pushUser, pushDevice;
  bool all = false, consume = false;
  listPushes->add_option("--user", pushUser, "only this account");
  listPushes->add_option("--device", pushDevice, "only this device");
  listPushes->add_flag("--all", all, "include notices already delivered");
  listPushes->add_flag("--consume", consume, "mark the listed notices delivered");

  auto* migrate =
      app.add_subcommand("migrate", "bring a PostgreSQL database to the schema this program needs");
  std::string migrateUrl;
  migrate->add_option("--database", migrateUrl, "PostgreSQL URL")
      ->envname("ZSM_DATABASE_URL")
      ->required();

  auto* importSqlite = app.add_subcommand(
      "import-sqlite",
      "copy a data folder's SQLite store (and console.sqlite) into an empty PostgreSQL "
      "database");
  std::string importData, importUrl;
  importSqlite->add_option("--data", importData, "data folder holding server.sqlite")
      ->required()
      ->check(CLI::ExistingDirectory);
  importSqlite->add_option("--database", importUrl, "PostgreSQL URL, migrated")
      ->envname("ZSM_DATABASE_URL")
      ->required();

  CLI11_PARSE(app, argc, argv);
  spdlog::set_level(*LogLevel(logLevel));
  if (serve->parsed() && !flags.nodeName.empty()) {
    // Log lines of several servers end up side by side; each names its server.
    spdlog::set_pattern("[%Y-%m-%d %H:%M:%S.%e] [" + flags.nodeName + "] [%^%l%$] %v");
  }

  if (migrate->parsed()) {
    int from = 0, to = 0;
    Status s = PgSchema::Migrate(migrateUrl, &from, &to);
    if (!s.ok()) return Fail(s);
    std::cout << (from == to ? "schema already at version " + std::to_string(to)
                             : "schema migrated from version " + std::to_string(from) + " to " +
                                   std::to_string(to))
              << "\n";
    return 0;
  }
  if (importSqlite->parsed()) {
    ImportSummary summary;
    Status s = ImportSqlite(importData, importUrl, &summary);
    if (!s.ok()) return Fail(s);
    std::cout << summary.ToString() << "\n";
    return 0;
  }
  if (dataDir.empty() && (serve->parsed() || generateCmd->parsed())) {
    return Fail(Status::InvalidArgument(
        "--data is required: it holds the media folder (and, without --database, the store)"));
  }
  flags.databaseUrl = databaseUrl;
  if (serve->parsed()) return Serve(dataDir, flags);
  if (setPassword->parsed()) return SetConsolePassword(dataDir, databaseUrl);
  if (addOperatorCmd->parsed()) {
    return AddOperator(dataDir, databaseUrl, operatorName, operatorRole);
  }
  std::unique_ptr<Store> store;
  Status s = OpenStore(dataDir, databaseUrl, &store);
  if (!s.ok()) return Fail(s);
  const int64_t now = ContentServer::WallClockMs();
  if (addAccount->parsed()) {
    s = store->AddAccount(account);
  } else if (addFeed->parsed()) {
    feed.subscribable = !notSubscribable;
    s = store->AddFeed(feed);
  } else if (addItem->parsed()) {
    if (itemFeed.empty() && itemUser.empty())
      return Fail(Status::InvalidArgument("--feed or --user is required"));
    nlohmann::json entry = {
        {"remoteUUID", itemUuid},
        {"metadata", {{"title", itemTitle}, {"desc", itemDesc}, {"mediaType", mediaType}}}};
    if (!itemMedia.empty()) entry["media"] = itemMedia;
    if (!itemUrl.empty()) entry["metadata"]["downloadURL"] = itemUrl;
    if (!itemMime.empty()) entry["metadata"]["mime"] = itemMime;
    if (created) entry["created"] = *created;
    Item item;
    s = SeedLoader::ParseItem(entry, now, &item);
    item.feed = itemFeed;
    item.user = itemUser;
    std::vector<PushNotice> notices;
    if (s.ok() && !itemMedia.empty() && !dataDir.empty() &&
        !std::filesystem::is_regular_file(std::filesystem::path(dataDir) / "media" / itemMedia)) {
      spdlog::warn("{} is not in {}/media yet; devices will get 404 until it is", itemMedia,
                   dataDir);
    }
    if (s.ok()) s = store->AddItem(item, now, &notices);
    if (s.ok()) std::cout << "added " << item.uuid << ", " << notices.size() << " push notice(s)\n";
  } else if (grant->parsed() || revoke->parsed()) {
    if (grantFeed.empty() != allFeeds) {
      return Fail(Status::InvalidArgument("--feed or --all-feeds is required"));
    }
    s = grant->parsed() ? store->GrantPublisher(grantFeed, grantUser)
                        : store->RevokePublisher(grantFeed, grantUser);
  } else if (listPublishers->parsed()) {
    std::vector<PublisherGrant> grants;
    s = store->ListPublishers(listFeed, &grants);
    for (const auto& g : grants) {
      std::cout << nlohmann::json{{"feed", g.feed.empty() ? nlohmann::json(nullptr)
                                                          : nlohmann::json(g.feed)},
                                  {"user", g.user}}
                       .dump()
                << "\n";
    }
  } else if (setRule->parsed()) {
    s = store->SetRules(ruleUser, ruleDevice, ruleFeed, rules);
  } else if (generateCmd->parsed()) {
    s = Generate(dataDir, store.get());
  } else if (listPushes->parsed()) {
    std::vector<PushNotice> notices;
    s = store->ListPushes(pushUser, pushDevice, !all, consume, &notices);
    for (const auto& n : notices) {
      std::cout << nlohmann::json{{"id", n.id},
                                  {"user", n.user},
                                  {"device", n.device},
                                  {"service", n.service},
                                  {"token", n.token},
                                  {"item", n.itemUuid},
                                  {"feed", n.feed},
                                  {"created", n.createdMs},
                                  {"delivered", n.delivered}}
                       .dump()
                << "\n";
    }
  }
  if (!s.ok()) return Fail(s);
  return 0;
}
