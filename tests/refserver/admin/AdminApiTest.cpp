// The admin API's gatekeeping (every route without a session, with a forged change
// and with a good session) and what its changes do to the store and the audit log.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "reference/server/admin/AdminApi.h"
#include "reference/server/admin/PasswordHasher.h"
#include "reference/server/store/sqlite/SqliteConsoleState.h"
#include "reference/server/store/sqlite/SqliteStore.h"

namespace zolvani::refserver {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

constexpr const char* kPassword = "console password 1";
constexpr const char* kHost = "127.0.0.1:8080";
constexpr const char* kOrigin = "http://127.0.0.1:8080";

class AdminApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("zsm-admin-" + std::to_string(::getpid()) + "-" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_ / "media" / "clips");
    std::ofstream(dir_ / "media" / "clips" / "one.mp4") << "not really a video";
    ASSERT_TRUE(SqliteStore::Open(dir_, &content_).ok());
    ASSERT_TRUE(SqliteConsoleState::Open(dir_, &console_).ok());
    AdminOptions options;
    options.trustedProxies = {"10.0.0.1"};
    api_ = std::make_unique<AdminApi>(
        content_.get(), console_.get(), &figures_, dir_ / "media", [this] { return nowMs_.load(); },
        options);
    ASSERT_TRUE(content_->AddAccount({"demo", "demo-key", "demo-secret"}).ok());
    Feed news{"news", "News", true, {5, true, 0}};
    ASSERT_TRUE(content_->AddFeed(news).ok());
    ASSERT_TRUE(content_->TouchDevice("demo", "box-1", nowMs_).ok());
    ASSERT_TRUE(content_->Subscribe("demo", "box-1", "news").ok());
    Item item;
    item.uuid = "news-1";
    item.feed = "news";
    item.createdMs = nowMs_;
    item.metadata = {{"downloadURL", "http://example.test/1.mp4"}};
    ASSERT_TRUE(content_->AddItem(item, nowMs_).ok());
  }

  void TearDown() override {
    api_.reset();
    content_.reset();
    console_.reset();
    fs::remove_all(dir_);
  }

  void SetPassword() {
    std::string encoded;
    ASSERT_TRUE(PasswordHasher::Hash(kPassword, {1, 1024, 1}, &encoded).ok());
    ASSERT_TRUE(console_->SetPasswordHash(encoded, nowMs_).ok());
  }

  AdminReply Call(const std::string& method, const std::string& route, const json& body = {},
                  const std::string& cookie = "", const std::string& csrf = "",
                  const std::string& origin = kOrigin) {
    AdminRequest r;
    r.method = method;
    r.route = route;
    r.cookie = cookie;
    r.csrf = csrf;
    r.origin = origin;
    r.host = kHost;
    r.peer = peer_;
    r.forwardedFor = forwardedFor_;
    r.forwardedProto = forwardedProto_;
    r.body = body.is_null() ? "" : body.dump();
    return api_->Handle(r);
  }

  // Signs in; the cookie header a browser would send and the change token.
  std::pair<std::string, std::string> SignIn(const std::string& name = "",
                                             const std::string& password = kPassword) {
    json body = {{"password", password}};
    if (!name.empty()) body["name"] = name;
    AdminReply reply = Call("POST", "login", body);
    EXPECT_EQ(reply.status, 200) << reply.body.dump();
    EXPECT_EQ(reply.setCookies.size(), 1u);
    if (reply.setCookies.empty()) return {};
    const std::string& cookie = reply.setCookies[0];
    return {"theme=dark; " + cookie.substr(0, cookie.find(';')),
            reply.body.value("csrf_token", "")};
  }

  std::vector<std::string> AuditActions() {
    std::vector<AuditEntry> entries;
    EXPECT_TRUE(console_->ListAudit(AuditQuery{}, &entries).ok());
    std::vector<std::string> actions;
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) actions.push_back(it->action);
    return actions;
  }

  fs::path dir_;
  std::atomic<int64_t> nowMs_{1700000000000};
  std::string peer_ = "127.0.0.1";
  std::string forwardedFor_;
  std::string forwardedProto_;
  std::unique_ptr<SqliteStore> content_;
  std::unique_ptr<SqliteConsoleState> console_;
  TrafficFigures figures_;
  std::unique_ptr<AdminApi> api_;
};

TEST_F(AdminApiTest, EveryRouteWantsASessionAndEveryChangeItsTokenAndOrigin) {
  SetPassword();
  const auto [cookie, csrf] = SignIn();
  ASSERT_FALSE(csrf.empty());
  const std::string forged(64, 'a');
  struct Route {
    const char* method;
    const char* name;
    json body;  // a body that succeeds with a good session
  } routes[] = {
      {"GET", "session", nullptr},
      {"GET", "figures", nullptr},
      {"GET", "feeds", nullptr},
      {"GET", "publishers", nullptr},
      {"GET", "items", nullptr},
      {"GET", "media", nullptr},
      {"GET", "devices", nullptr},
      {"GET", "pushes", nullptr},
      {"GET", "accounts", nullptr},
      {"GET", "audit", nullptr},
      {"POST", "feeds/create", {{"id", "sport"}, {"title", "Sport"}, {"max_assets", 3}}},
      {"POST",
       "feeds/update",
       {{"id", "news"},
        {"version", AdminApi::FeedVersion({"news", "News", true, {5, true, 0}})},
        {"max_assets", 2}}},
      {"POST", "publishers/grant", {{"user", "demo"}, {"feed", "news"}}},
      {"POST", "publishers/revoke", {{"user", "demo"}, {"feed", "news"}}},
      {"POST", "items/publish", {{"feed", "news"}, {"media", "clips/one.mp4"}, {"title", "One"}}},
      {"POST",
       "devices/rules",
       {{"user", "demo"},
        {"device", "box-1"},
        {"feed", "news"},
        {"version", AdminApi::RulesVersion({5, true, 0})},
        {"max_assets", 1}}},
      {"POST", "devices/push", {{"user", "demo"}, {"device", "box-1"}, {"item", "news-1"}}},
      {"POST", "items/remove", {{"uuid", "news-1"}}},
      {"POST", "accounts/save", {{"user", "kiosk"}}},
      {"GET", "operators", nullptr},
  };
  for (const auto& r : routes) {
    SCOPED_TRACE(std::string(r.method) + " " + r.name);
    const bool change = std::string(r.method) == "POST";
    const size_t auditBefore = AuditActions().size();
    // No session at all, and a session that was never issued.
    EXPECT_EQ(Call(r.method, r.name, r.body, "", csrf).status, 401);
    EXPECT_EQ(Call(r.method, r.name, r.body, "zsm_console=" + forged, csrf).status, 401);
    if (change) {
      // The cookie alone, as a cross-site form would send it if SameSite failed.
      EXPECT_EQ(Call(r.method, r.name, r.body, cookie, "").status, 403);
      EXPECT_EQ(Call(r.method, r.name, r.body, cookie, forged).status, 403);
      // The right token from another site's page, or with no Origin.
      EXPECT_EQ(Call(r.method, r.name, r.body, cookie, csrf, "http://evil.test").status, 403);
      EXPECT_EQ(Call(r.method, r.name, r.body, cookie, csrf, "").status, 403);
      EXPECT_EQ(Call(r.method, r.name, r.body, cookie, csrf, "null").status, 403);
      // Nothing refused made it into the audit log, so nothing changed.
      EXPECT_EQ(AuditActions().size(), auditBefore);
    }
    const AdminReply good = Call(r.method, r.name, r.body, cookie, csrf);
    EXPECT_EQ(good.status, 200) << good.body.dump();
    EXPECT_EQ(AuditActions().size(), auditBefore + (change ? 1 : 0));
    // A read with the other method is not a way around the checks.
    EXPECT_EQ(Call(change ? "GET" : "POST", r.name, r.body, cookie, csrf).status, 405);
  }
  EXPECT_EQ(Call("GET", "nothing-here", nullptr, cookie, csrf).status, 404);

  // A new password ends sessions signed in before it, even from another process.
  const auto [other, otherCsrf] = SignIn();
  nowMs_ += 1000;
  ASSERT_TRUE(console_->SetPasswordHash("$argon2id$unused", nowMs_).ok());
  EXPECT_EQ(Call("GET", "feeds", nullptr, other).status, 401);
  SetPassword();
  const auto [fresh, freshCsrf] = SignIn();
  EXPECT_EQ(Call("GET", "feeds", nullptr, fresh).status, 200);

  // Signing out ends the session for every later request.
  EXPECT_EQ(Call("POST", "logout", json::object(), fresh, freshCsrf).status, 200);
  EXPECT_EQ(Call("GET", "feeds", nullptr, fresh, freshCsrf).status, 401);
  EXPECT_EQ(Call("GET", "feeds", nullptr, cookie, csrf).status, 401);
}

TEST_F(AdminApiTest, SignInNeedsThePasswordAndGivesAStrictHttpOnlyCookie) {
  // No password yet: the console says how to set one.
  AdminReply none = Call("POST", "login", {{"password", kPassword}});
  EXPECT_EQ(none.status, 503);
  EXPECT_NE(none.body["error"].get<std::string>().find("set-console-password"), std::string::npos);
  SetPassword();

  struct Case {
    json body;
    std::string origin;
    int status;
  } cases[] = {
      {{{"password", "wrong password"}}, kOrigin, 401},
      {{{"password", 12345678}}, kOrigin, 400},
      {json::object(), kOrigin, 400},
      {{{"password", kPassword}}, "http://evil.test", 403},  // another site signing us in
  };
  for (const auto& c : cases) {
    const AdminReply reply = Call("POST", "login", c.body, "", "", c.origin);
    EXPECT_EQ(reply.status, c.status) << c.body.dump();
    EXPECT_TRUE(reply.setCookies.empty());
  }
  AdminReply good = Call("POST", "login", {{"password", kPassword}});
  ASSERT_EQ(good.status, 200);
  ASSERT_EQ(good.setCookies.size(), 1u);
  const std::string& cookie = good.setCookies[0];
  EXPECT_EQ(cookie.rfind("zsm_console=", 0), 0u);
  EXPECT_NE(cookie.find("; HttpOnly"), std::string::npos);
  EXPECT_NE(cookie.find("; SameSite=Strict"), std::string::npos);
  EXPECT_NE(cookie.find("; Path=/admin"), std::string::npos);
  // The session identifier and the change token are different secrets.
  EXPECT_EQ(cookie.find(good.body["csrf_token"].get<std::string>()), std::string::npos);
}

// Guesses sent all at once each read the failure count before any of them
// was recorded; counted before their passwords are checked, no more of them
// are checked than one after another would be.
TEST_F(AdminApiTest, GuessesSentAtOnceGetNoMoreTriesThanOneAfterAnother) {
  SetPassword();
  peer_ = "203.0.113.50";
  constexpr int kGuesses = 3 * AdminApi::kFreeFailuresPerClient;
  std::atomic<int> refused{0}, held{0}, other{0};
  std::vector<std::thread> guessers;
  for (int i = 0; i < kGuesses; ++i) {
    guessers.emplace_back([&, i] {
      const int status = Call("POST", "login", {{"password", "guess " + std::to_string(i)}}).status;
      (status == 401 ? refused : status == 429 ? held : other)++;
    });
  }
  for (auto& t : guessers) t.join();
  EXPECT_EQ(refused.load(), AdminApi::kFreeFailuresPerClient);
  EXPECT_EQ(held.load(), kGuesses - AdminApi::kFreeFailuresPerClient);
  EXPECT_EQ(other.load(), 0);
  // The operator elsewhere signs in at once.
  peer_ = "127.0.0.1";
  EXPECT_EQ(Call("POST", "login", {{"password", kPassword}}).status, 200);
}

TEST_F(AdminApiTest, AStrangersFailuresMakeOnlyTheStrangerWaitLongerAndLonger) {
  SetPassword();
  auto login = [&](const std::string& peer, const std::string& password,
                   const std::string& forwarded = "") {
    peer_ = peer;
    forwardedFor_ = forwarded;
    return Call("POST", "login", {{"password", password}});
  };
  const std::string stranger = "203.0.113.7";
  for (int i = 0; i < AdminApi::kFreeFailuresPerClient; ++i) {
    EXPECT_EQ(login(stranger, "guess " + std::to_string(i)).status, 401) << i;
  }
  // The stranger waits, even with the right password, so guessing learns nothing.
  AdminReply waiting = login(stranger, kPassword);
  EXPECT_EQ(waiting.status, 429);
  EXPECT_EQ(waiting.body["retry_after_s"], AdminApi::kFirstDelayMs / 1000);
  ASSERT_EQ(waiting.headers.size(), 1u);
  EXPECT_EQ(waiting.headers[0].first, "Retry-After");
  // So does the same client through the trusted proxy, and its neighbour in the
  // same IPv6 /64 is the same client too.
  EXPECT_EQ(login("10.0.0.1", kPassword, "198.51.100.1, " + stranger).status, 429);
  for (int i = 0; i < AdminApi::kFreeFailuresPerClient; ++i) login("2001:db8:1:2::1", "guess");
  EXPECT_EQ(login("2001:db8:1:2:ffff::9", kPassword).status, 429);
  EXPECT_EQ(login("2001:db8:1:3::1", kPassword).status, 200);  // another /64
  // The operator elsewhere is never made to wait, nor is a client an untrusted
  // proxy claims to forward.
  EXPECT_EQ(login("127.0.0.1", kPassword).status, 200);
  EXPECT_EQ(login("10.0.0.2", kPassword, stranger).status, 200);

  // Each further failure doubles the wait, up to the ceiling.
  struct Step {
    int64_t afterMs;
    int status;
  } steps[] = {
      {AdminApi::kFirstDelayMs - 1, 429},  // not yet
      {1, 401},                            // the 11th failure: now 4 s
      {3999, 429},
      {1, 401},  // the 12th: now 8 s
      {7999, 429},
      {1, 401},
  };
  for (const auto& st : steps) {
    nowMs_ += st.afterMs;
    EXPECT_EQ(login(stranger, "guess again").status, st.status) << st.afterMs;
  }
  EXPECT_EQ(AdminApi::LoginDelayMs(AdminApi::kFreeFailuresPerClient + 100,
                                   AdminApi::kFreeFailuresPerClient),
            AdminApi::kMaxDelayMs);
  // After the wait the right password signs in and forgets the client's failures.
  nowMs_ += 16000;
  EXPECT_EQ(login(stranger, kPassword).status, 200);
  EXPECT_EQ(login(stranger, "one more guess").status, 401);
  EXPECT_EQ(login(stranger, kPassword).status, 200);
  const auto actions = AuditActions();
  EXPECT_EQ(std::count(actions.begin(), actions.end(), "login.refused"),
            2 * AdminApi::kFreeFailuresPerClient + 4);
}

TEST_F(AdminApiTest, OperatorsReplaceTheConsolePasswordAndEachRoleIsHeldToIt) {
  SetPassword();
  const auto [before, beforeCsrf] = SignIn();
  auto hash = [](const char* password) {
    std::string encoded;
    EXPECT_TRUE(PasswordHasher::Hash(password, {1, 1024, 1}, &encoded).ok());
    return encoded;
  };
  ASSERT_TRUE(console_
                  ->AddOperator({"alice", OperatorRole::kAdministrator, hash("alice password"),
                                 nowMs_, nowMs_})
                  .ok());
  ASSERT_TRUE(
      console_->AddOperator({"ed", OperatorRole::kEditor, hash("ed password"), nowMs_, nowMs_})
          .ok());
  ASSERT_TRUE(
      console_->AddOperator({"vic", OperatorRole::kViewer, hash("vic password"), nowMs_, nowMs_})
          .ok());
  nowMs_ += 1000;
  // With operators the one console password stops: its sessions end, and it no
  // longer signs in.
  EXPECT_EQ(Call("GET", "feeds", nullptr, before).status, 401);
  EXPECT_EQ(Call("POST", "login", {{"password", kPassword}}).status, 400);
  EXPECT_EQ(Call("POST", "login", {{"name", "alice"}, {"password", kPassword}}).status, 401);
  EXPECT_EQ(Call("POST", "login", {{"name", "nobody"}, {"password", "alice password"}}).status,
            401);
  // A name tried wrongly too often from here waits; other names from here do not.
  for (int i = 0; i < AdminApi::kFreeFailuresPerName; ++i) {
    EXPECT_EQ(Call("POST", "login", {{"name", "vic"}, {"password", "guess"}}).status, 401);
  }
  EXPECT_EQ(Call("POST", "login", {{"name", "vic"}, {"password", "vic password"}}).status, 429);

  const auto admin = SignIn("alice", "alice password");
  const auto editor = SignIn("ed", "ed password");
  nowMs_ += AdminApi::kFirstDelayMs;
  const auto viewer = SignIn("vic", "vic password");
  ASSERT_FALSE(viewer.second.empty());
  EXPECT_EQ(Call("GET", "session", nullptr, viewer.first).body["role"], "viewer");

  struct Case {
    const char* route;
    json body;
    OperatorRole needs;
  } cases[] = {
      {"feeds/create", {{"id", "sport"}}, OperatorRole::kEditor},
      {"publishers/grant", {{"user", "demo"}, {"feed", "news"}}, OperatorRole::kEditor},
      {"items/publish", {{"feed", "news"}, {"url", "http://a.test/x"}}, OperatorRole::kEditor},
      {"devices/rules",
       {{"user", "demo"},
        {"device", "box-1"},
        {"feed", "news"},
        {"version", AdminApi::RulesVersion({5, true, 0})},
        {"max_assets", 1}},
       OperatorRole::kEditor},
      {"accounts/save", {{"user", "kiosk"}}, OperatorRole::kAdministrator},
      {"operators/save",
       {{"name", "olga"}, {"role", "viewer"}, {"password", "olga password"}},
       OperatorRole::kAdministrator},
  };
  const std::pair<std::string, std::string>* sessions[] = {&viewer, &editor, &admin};
  for (const auto& c : cases) {
    for (int role = 0; role < 3; ++role) {
      const auto& [cookie, csrf] = *sessions[role];
      const AdminReply reply = Call("POST", c.route, c.body, cookie, csrf);
      const bool allowed = role >= static_cast<int>(c.needs);
      SCOPED_TRACE(std::string(c.route) + " as " + RoleName(static_cast<OperatorRole>(role)));
      if (allowed) {
        EXPECT_NE(reply.status, 403) << reply.body.dump();
        EXPECT_NE(reply.status, 401) << reply.body.dump();
      } else {
        EXPECT_EQ(reply.status, 403) << reply.body.dump();
      }
    }
  }
  EXPECT_EQ(Call("GET", "operators", nullptr, editor.first).status, 403);
  EXPECT_EQ(Call("GET", "feeds", nullptr, viewer.first).status, 200);

  // Every entry names the operator who made it.
  std::vector<AuditEntry> entries;
  AuditQuery byEd;
  byEd.operatorName = "ed";
  byEd.action = "feed.";
  ASSERT_TRUE(console_->ListAudit(byEd, &entries).ok());
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].target, "sport");
  AdminReply audit = Call("GET", "audit", nullptr, viewer.first);  // a viewer reads the log
  ASSERT_EQ(audit.status, 200);
  for (const auto& e : audit.body["entries"]) {
    EXPECT_FALSE(e["operator"].get<std::string>().empty() && e["action"] != "login.refused")
        << e.dump();
  }

  // A new role ends the operator's sessions; the last administrator stays.
  nowMs_ += 1000;
  json listed = Call("GET", "operators", nullptr, admin.first).body["operators"];
  json edSeen;
  for (const auto& op : listed)
    if (op["name"] == "ed") edSeen = op;
  ASSERT_TRUE(edSeen.contains("version")) << listed.dump();
  AdminReply demoted = Call("POST", "operators/save",
                            {{"name", "ed"}, {"role", "viewer"}, {"version", edSeen["version"]}},
                            admin.first, admin.second);
  ASSERT_EQ(demoted.status, 200) << demoted.body.dump();
  EXPECT_EQ(Call("GET", "feeds", nullptr, editor.first).status, 401);
  // A password reset from a page opened before the demotion would write the
  // old role back: refused, with the operator as they are now.
  nowMs_ += 1000;
  AdminReply stale = Call("POST", "operators/save",
                          {{"name", "ed"},
                           {"role", "editor"},
                           {"password", "a new password for ed"},
                           {"version", edSeen["version"]}},
                          admin.first, admin.second);
  ASSERT_EQ(stale.status, 409) << stale.body.dump();
  EXPECT_EQ(stale.body["current"]["role"], "viewer");
  EXPECT_EQ(stale.body["current"]["version"], demoted.body["version"]);
  Operator ed;
  ASSERT_TRUE(console_->FindOperator("ed", &ed).ok());
  EXPECT_EQ(ed.role, OperatorRole::kViewer);
  // Adding an operator whose name someone else took meanwhile.
  EXPECT_EQ(Call("POST", "operators/save",
                 {{"name", "ed"}, {"role", "editor"}, {"password", "pw pw pw pw"}}, admin.first,
                 admin.second)
                .status,
            409);
  EXPECT_EQ(Call("POST", "operators/remove", {{"name", "alice"}}, admin.first, admin.second).status,
            409);
}

// Runs `sql` on one of the server's database files through a connection of
// its own, as a fault planted from outside.
void ExecOn(const fs::path& file, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << sqlite3_errmsg(db);
  sqlite3_close(db);
}

// A write the store refuses answers with an error, changes nothing, records
// no change and leaves the edit's version good, so the operator sends the
// same edit again once the store takes writes; a sign-in whose attempt cannot
// be counted is refused rather than let past the throttle.
TEST_F(AdminApiTest, AFailedWriteChangesNothingAndTheSameEditGoesThroughAfterwards) {
  std::string hash;
  ASSERT_TRUE(PasswordHasher::Hash(kPassword, {1, 1024, 1}, &hash).ok());
  ASSERT_TRUE(console_->AddOperator({"alice", OperatorRole::kAdministrator, hash, 1, 1}).ok());
  ASSERT_TRUE(console_->AddOperator({"ed", OperatorRole::kEditor, hash, 1, 1}).ok());
  const auto [cookie, csrf] = SignIn("alice");
  const json account = Call("GET", "accounts", nullptr, cookie).body["accounts"][0];
  const json operators = Call("GET", "operators", nullptr, cookie).body["operators"];
  json ed;
  for (const auto& op : operators)
    if (op["name"] == "ed") ed = op;
  struct Case {
    const char* what;
    fs::path file;
    const char* table;
    const char* route;
    json body;
    std::function<bool()> landed;
  } cases[] = {
      {"an account's new key",
       dir_ / "server.sqlite",
       "accounts",
       "accounts/save",
       {{"user", "demo"}, {"key", "key-2"}, {"version", account["version"]}},
       [&] {
         Account a;
         return content_->FindAccount("demo", &a).ok() && a.publicKey == "key-2";
       }},
      {"an operator's new role",
       dir_ / "console.sqlite",
       "operators",
       "operators/save",
       {{"name", "ed"}, {"role", "viewer"}, {"version", ed["version"]}},
       [&] {
         Operator op;
         return console_->FindOperator("ed", &op).ok() && op.role == OperatorRole::kViewer;
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    AuditQuery changes;
    changes.operatorName = "alice";
    std::vector<AuditEntry> before, after;
    ASSERT_TRUE(console_->ListAudit(changes, &before).ok());
    ExecOn(c.file, std::string("CREATE TRIGGER fault BEFORE UPDATE ON ") + c.table +
                       " BEGIN SELECT RAISE(ABORT, 'injected fault'); END");
    const AdminReply refused = Call("POST", c.route, c.body, cookie, csrf);
    EXPECT_GE(refused.status, 500) << refused.body.dump();
    EXPECT_FALSE(c.landed());
    ASSERT_TRUE(console_->ListAudit(changes, &after).ok());
    EXPECT_EQ(after.size(), before.size()) << "a change that did not happen was recorded";
    ExecOn(c.file, "DROP TRIGGER fault");
    const AdminReply again = Call("POST", c.route, c.body, cookie, csrf);
    EXPECT_EQ(again.status, 200) << again.body.dump();
    EXPECT_TRUE(c.landed());
  }

  peer_ = "198.51.100.20";
  ExecOn(dir_ / "console.sqlite",
         "CREATE TRIGGER fault BEFORE INSERT ON login_failures "
         "BEGIN SELECT RAISE(ABORT, 'injected fault'); END");
  json right = {{"name", "alice"}, {"password", kPassword}};
  const AdminReply uncounted = Call("POST", "login", right);
  EXPECT_GE(uncounted.status, 500) << uncounted.body.dump();
  EXPECT_TRUE(uncounted.setCookies.empty());
  ExecOn(dir_ / "console.sqlite", "DROP TRIGGER fault");
  EXPECT_EQ(Call("POST", "login", right).status, 200);
}

TEST_F(AdminApiTest, AnEditFromAStaleVersionIsRefusedWithWhatIsThereNow) {
  SetPassword();
  const auto [first, firstCsrf] = SignIn();
  const auto [second, secondCsrf] = SignIn();
  const std::string opened =
      Call("GET", "feeds", nullptr, second).body["feeds"][0]["version"].get<std::string>();
  // The first operator saves a new title.
  AdminReply saved =
      Call("POST", "feeds/update", {{"id", "news"}, {"version", opened}, {"title", "Harbour news"}},
           first, firstCsrf);
  ASSERT_EQ(saved.status, 200) << saved.body.dump();
  const std::string now = saved.body["version"];
  EXPECT_NE(now, opened);
  // The second, whose form was opened before, would have written the old title
  // back and pushed its rules to the devices: refused, with the feed as it is.
  AdminReply stale = Call("POST", "feeds/update",
                          {{"id", "news"},
                           {"version", opened},
                           {"title", "News"},
                           {"max_assets", 1},
                           {"apply_to_subscribers", true}},
                          second, secondCsrf);
  ASSERT_EQ(stale.status, 409) << stale.body.dump();
  EXPECT_EQ(stale.body["current"]["title"], "Harbour news");
  EXPECT_EQ(stale.body["current"]["version"], now);
  Feed feed;
  ASSERT_TRUE(content_->FindFeed("news", &feed).ok());
  EXPECT_EQ(feed.title, "Harbour news");
  EXPECT_EQ(feed.defaults.maxAssets, 5);
  CatalogSnapshot snap;
  ASSERT_TRUE(content_->ReadCatalog("demo", "box-1", std::nullopt, true, &snap).ok());
  EXPECT_EQ(snap.rules["news"].maxAssets, 5);
  // Reapplied on the current version, only the fields the operator changed go in.
  AdminReply again =
      Call("POST", "feeds/update",
           {{"id", "news"}, {"version", now}, {"max_assets", 1}, {"apply_to_subscribers", true}},
           second, secondCsrf);
  ASSERT_EQ(again.status, 200) << again.body.dump();
  EXPECT_EQ(again.body["devices_updated"], 1);
  ASSERT_TRUE(content_->FindFeed("news", &feed).ok());
  EXPECT_EQ(feed.title, "Harbour news");
  EXPECT_EQ(feed.defaults.maxAssets, 1);
  // The store refuses a write whose expected state is gone, whatever the caller.
  Feed expected = feed;
  expected.title = "something else";
  EXPECT_TRUE(content_->UpdateFeed(expected, feed, false, nullptr).IsFailedPrecondition());
  EXPECT_TRUE(content_->UpdateFeed(feed, Feed{"gone", "", true, {}}, false, nullptr).IsNotFound());
  // A device's rules are edited the same way: the later of two edits made from
  // the same rules is refused and told what they are now.
  const std::string rulesSeen =
      Call("GET", "devices", nullptr, first).body["devices"][0]["rules_versions"]["news"];
  json rulesEdit = {
      {"user", "demo"}, {"device", "box-1"}, {"feed", "news"}, {"version", rulesSeen}};
  rulesEdit["max_bitrate"] = 800000;
  ASSERT_EQ(Call("POST", "devices/rules", rulesEdit, first, firstCsrf).status, 200);
  rulesEdit.erase("max_bitrate");
  rulesEdit["auto_delete"] = false;
  AdminReply rulesStale = Call("POST", "devices/rules", rulesEdit, second, secondCsrf);
  ASSERT_EQ(rulesStale.status, 409) << rulesStale.body.dump();
  EXPECT_EQ(rulesStale.body["current"]["max_bitrate"], 800000);
  rulesEdit["version"] = rulesStale.body["version"];
  ASSERT_EQ(Call("POST", "devices/rules", rulesEdit, second, secondCsrf).status, 200);
  ASSERT_TRUE(content_->ReadCatalog("demo", "box-1", std::nullopt, true, &snap).ok());
  EXPECT_EQ(snap.rules["news"].maxBitrate, 800000);  // both edits stand
  EXPECT_FALSE(snap.rules["news"].autoDelete);
  EXPECT_EQ(snap.rules["news"].maxAssets, 1);
  EXPECT_TRUE(
      content_
          ->UpdateRules("demo", "box-1", "news", FeedRules{1, true, 800000}, FeedRules{9, true, 0})
          .IsFailedPrecondition());

  // An account likewise: a key set from a page opened before another operator
  // gave the account a new secret would otherwise pass unnoticed.
  json accountSeen = Call("GET", "accounts", nullptr, second).body["accounts"][0];
  ASSERT_EQ(accountSeen["user"], "demo");
  AdminReply renewed =
      Call("POST", "accounts/save",
           {{"user", "demo"}, {"new_secret", true}, {"version", accountSeen["version"]}}, first,
           firstCsrf);
  ASSERT_EQ(renewed.status, 200) << renewed.body.dump();
  AdminReply staleKey =
      Call("POST", "accounts/save",
           {{"user", "demo"}, {"key", "second-key"}, {"version", accountSeen["version"]}}, second,
           secondCsrf);
  ASSERT_EQ(staleKey.status, 409) << staleKey.body.dump();
  EXPECT_EQ(staleKey.body["current"]["version"], renewed.body["version"]);
  EXPECT_EQ(staleKey.body.dump().find(renewed.body["secret"].get<std::string>()),
            std::string::npos);
  Account demo;
  ASSERT_TRUE(content_->FindAccount("demo", &demo).ok());
  EXPECT_EQ(demo.secret, renewed.body["secret"]);
  EXPECT_NE(demo.publicKey, "second-key");
  AdminReply keyAgain = Call(
      "POST", "accounts/save",
      {{"user", "demo"}, {"key", "second-key"}, {"version", staleKey.body["current"]["version"]}},
      second, secondCsrf);
  ASSERT_EQ(keyAgain.status, 200) << keyAgain.body.dump();
  ASSERT_TRUE(content_->FindAccount("demo", &demo).ok());
  EXPECT_EQ(demo.publicKey, "second-key");
  EXPECT_EQ(demo.secret, renewed.body["secret"]);  // both edits stand
  // Two operators "adding" one new account: the second is told it exists.
  ASSERT_EQ(Call("POST", "accounts/save", {{"user", "lobby"}}, first, firstCsrf).status, 200);
  AdminReply twice = Call("POST", "accounts/save", {{"user", "lobby"}}, second, secondCsrf);
  ASSERT_EQ(twice.status, 409) << twice.body.dump();
  EXPECT_NE(twice.body["error"].get<std::string>().find("added by someone else"),
            std::string::npos);
  EXPECT_EQ(Call("POST", "accounts/save", {{"user", "nobody"}, {"version", "0"}}, first, firstCsrf)
                .status,
            404);

  // An edit must say which version it was made from.
  EXPECT_EQ(Call("POST", "feeds/update", {{"id", "news"}, {"title", "x"}}, first, firstCsrf).status,
            400);
}

TEST_F(AdminApiTest, TheSessionCookieIsSecureWhenTheConsoleIsReachedOverHttps) {
  SetPassword();
  struct Case {
    std::string peer, origin, proto;
    bool secure;
  } cases[] = {
      {"127.0.0.1", kOrigin, "", false},
      {"127.0.0.1", "https://127.0.0.1:8080", "", true},  // the browser's page is https
      {"10.0.0.1", kOrigin, "https", true},               // a trusted proxy ended TLS
      {"10.0.0.1", kOrigin, "HTTPS, http", true},
      {"10.0.0.1", kOrigin, "http", false},
      {"10.0.0.2", kOrigin, "https", false},  // anyone else's word is not taken
  };
  for (const auto& c : cases) {
    peer_ = c.peer;
    forwardedProto_ = c.proto;
    const AdminReply reply = Call("POST", "login", {{"password", kPassword}}, "", "", c.origin);
    ASSERT_EQ(reply.status, 200) << c.peer << " " << c.proto;
    ASSERT_EQ(reply.setCookies.size(), 1u);
    EXPECT_EQ(reply.setCookies[0].find("; Secure") != std::string::npos, c.secure)
        << c.peer << " " << c.origin << " " << c.proto << ": " << reply.setCookies[0];
  }
}

TEST_F(AdminApiTest, ChangesReachDevicesAndBadInputIsRefusedWithReasons) {
  SetPassword();
  const auto [cookie, csrf] = SignIn();
  auto post = [&](const std::string& route, const json& body) {
    return Call("POST", route, body, cookie, csrf);
  };
  // A feed's new rules reach its subscribers only when asked to.
  auto version = [&] {
    return Call("GET", "feeds", nullptr, cookie).body["feeds"][0]["version"].get<std::string>();
  };
  ASSERT_EQ(
      post("feeds/update", {{"id", "news"}, {"version", version()}, {"max_assets", 2}}).status,
      200);
  CatalogSnapshot snap;
  ASSERT_TRUE(content_->ReadCatalog("demo", "box-1", std::nullopt, true, &snap).ok());
  EXPECT_EQ(snap.rules["news"].maxAssets, 5);
  AdminReply applied = post("feeds/update", {{"id", "news"},
                                             {"version", version()},
                                             {"max_assets", 1},
                                             {"auto_delete", false},
                                             {"apply_to_subscribers", true}});
  ASSERT_EQ(applied.status, 200);
  EXPECT_EQ(applied.body["devices_updated"], 1);
  ASSERT_TRUE(content_->ReadCatalog("demo", "box-1", std::nullopt, true, &snap).ok());
  EXPECT_EQ(snap.rules["news"].maxAssets, 1);
  EXPECT_FALSE(snap.rules["news"].autoDelete);

  // Publishing notifies subscribers; removing takes the item out of catalogs.
  AdminReply published =
      post("items/publish", {{"feed", "news"}, {"media", "clips/one.mp4"}, {"title", "One"}});
  ASSERT_EQ(published.status, 200) << published.body.dump();
  EXPECT_EQ(published.body["notified_devices"], 1);
  const std::string uuid = published.body["uuid"];
  ASSERT_EQ(post("items/remove", {{"uuid", uuid}}).status, 200);
  ASSERT_TRUE(content_->ReadCatalog("demo", "box-1", std::nullopt, true, &snap).ok());
  ASSERT_EQ(snap.feeds.size(), 1u);
  for (const auto& item : snap.feeds[0].second) EXPECT_NE(item.uuid, uuid);

  // A new account's secret is made up and shown once; listings never show it.
  AdminReply account = post("accounts/save", {{"user", "kiosk"}});
  ASSERT_EQ(account.status, 200);
  const std::string secret = account.body["secret"];
  EXPECT_GE(secret.size(), 32u);
  EXPECT_EQ(Call("GET", "accounts", nullptr, cookie).body.dump().find(secret), std::string::npos);
  EXPECT_EQ(Call("GET", "audit", nullptr, cookie).body.dump().find(secret), std::string::npos);
  AdminReply kept =
      post("accounts/save",
           {{"user", "kiosk"}, {"key", "new-key"}, {"version", account.body["version"]}});
  ASSERT_EQ(kept.status, 200) << kept.body.dump();
  EXPECT_FALSE(kept.body.contains("secret"));
  Account stored;
  ASSERT_TRUE(content_->FindAccount("kiosk", &stored).ok());
  EXPECT_EQ(stored.secret, secret);
  EXPECT_EQ(stored.publicKey, "new-key");

  struct Case {
    const char* route;
    json body;
    int status;
    const char* says;
  } cases[] = {
      {"feeds/create", {{"id", "news"}}, 409, "already exists"},
      {"feeds/create", {{"id", ""}}, 400, "\"id\""},
      {"feeds/create", {{"id", "x\ny"}}, 400, "control"},
      {"feeds/create", {{"id", "x"}, {"max_assets", -1}}, 400, "max_assets"},
      {"feeds/create", {{"id", "x"}, {"max_assets", "5"}}, 400, "max_assets"},
      {"feeds/update", {{"id", "nope"}, {"version", "0"}}, 404, "nope"},
      {"items/publish", {{"feed", "news"}, {"media", "../server.sqlite"}}, 400, "media folder"},
      {"items/publish", {{"feed", "news"}, {"media", "clips/missing.mp4"}}, 400, "media folder"},
      {"items/publish", {{"feed", "news"}, {"url", "file:///etc/passwd"}}, 400, "http"},
      {"items/publish",
       {{"feed", "news"}, {"user", "demo"}, {"url", "http://a.test/x"}},
       400,
       "either"},
      {"items/publish",
       {{"feed", "news"}, {"uuid", "news-1"}, {"url", "http://a.test/x"}},
       409,
       "news-1"},
      {"items/publish", {{"feed", "gone"}, {"url", "http://a.test/x"}}, 404, "gone"},
      {"items/remove", {{"uuid", "never"}}, 404, "never"},
      {"devices/push", {{"user", "demo"}, {"device", "box-9"}, {"item", "news-1"}}, 404, "box-9"},
      {"publishers/grant", {{"user", "nobody"}, {"feed", "news"}}, 404, "nobody"},
  };
  for (const auto& c : cases) {
    const AdminReply reply = post(c.route, c.body);
    EXPECT_EQ(reply.status, c.status) << c.route << " " << c.body.dump();
    EXPECT_NE(reply.body.value("error", "").find(c.says), std::string::npos)
        << c.route << " " << reply.body.dump();
  }
  // Bodies that are not JSON objects, or nest without end, are refused whole.
  for (const std::string& body :
       {std::string("[]"), std::string("nonsense"), std::string(100, '[')}) {
    AdminRequest r;
    r.method = "POST";
    r.route = "feeds/create";
    r.cookie = cookie;
    r.csrf = csrf;
    r.origin = kOrigin;
    r.host = kHost;
    r.body = body;
    EXPECT_EQ(api_->Handle(r).status, 400) << body;
  }
}

TEST(AdminApiHelpersTest, CookiesAndOriginsAreReadExactly) {
  struct CookieCase {
    const char* header;
    const char* value;
  } cookies[] = {
      {"zsm_console=abc", "abc"},
      {"a=1; zsm_console=abc; b=2", "abc"},
      {"xzsm_console=abc", ""},
      {"zsm_console_old=abc", ""},
      {"", ""},
      {";;;", ""},
  };
  for (const auto& c : cookies) {
    EXPECT_EQ(AdminApi::CookieValue(c.header, "zsm_console"), c.value) << c.header;
  }
  struct OriginCase {
    const char* origin;
    const char* host;
    bool same;
  } origins[] = {
      {"http://127.0.0.1:8080", "127.0.0.1:8080", true},
      {"https://console.example", "console.example", true},
      {"http://127.0.0.1:8081", "127.0.0.1:8080", false},
      {"http://127.0.0.1:8080.evil.test", "127.0.0.1:8080", false},
      {"http://localhost:8080", "127.0.0.1:8080", false},
      {"null", "127.0.0.1:8080", false},
      {"", "", false},
  };
  for (const auto& c : origins) {
    EXPECT_EQ(AdminApi::SameOrigin(c.origin, c.host), c.same) << c.origin << " " << c.host;
  }
}

}  // namespace
}  // namespace zolvani::refserver
