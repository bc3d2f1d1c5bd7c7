#include "reference/server/admin/AdminApi.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <system_error>

#include "reference/server/SeedLoader.h"
#include "reference/server/admin/PasswordHasher.h"
#include "reference/server/media/MediaLibrary.h"
#include "reference/server/protocol/JsonLimits.h"

namespace zolvani::refserver {

namespace {

using json = nlohmann::json;

AdminReply Error(int status, std::string message) {
  AdminReply reply;
  reply.status = status;
  reply.body = {{"error", std::move(message)}};
  return reply;
}

AdminReply Ok(json body = json::object()) {
  AdminReply reply;
  reply.body = std::move(body);
  return reply;
}

AdminReply FromStatus(const Status& s) {
  switch (s.kind()) {
    case Status::Kind::kOk:
      return Ok();
    case Status::Kind::kInvalidArgument:
      return Error(400, s.message());
    case Status::Kind::kNotFound:
      return Error(404, s.message());
    case Status::Kind::kAlreadyExists:
    case Status::Kind::kFailedPrecondition:
      return Error(409, s.message());
    case Status::Kind::kPermissionDenied:
    case Status::Kind::kReplayed:
      return Error(403, s.message());
    case Status::Kind::kUnavailable:
      return Error(503, s.message());
    case Status::Kind::kIOError:
    case Status::Kind::kCorruption:
      break;
  }
  spdlog::error("console: {}", s.ToString());
  return Error(500, "the server could not do this: " + s.message());
}

std::string RandomHex(size_t bytes) {
  std::string raw(bytes, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(raw.data()), static_cast<int>(bytes)) != 1) {
    return "";
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (const char c : raw) {
    out += kHex[static_cast<unsigned char>(c) >> 4];
    out += kHex[static_cast<unsigned char>(c) & 0x0f];
  }
  return out;
}

// Reading members of a request body: each getter leaves `problem` naming the first
// member that is missing or of the wrong type.
class Members {
 public:
  explicit Members(const json& body) : body_(body) {}

  std::string Text(const char* name, bool required, size_t maxBytes = 256) {
    auto it = body_.find(name);
    if (it == body_.end() || it->is_null()) {
      if (required) Fail(std::string("\"") + name + "\" is required");
      return "";
    }
    if (!it->is_string()) {
      Fail(std::string("\"") + name + "\" must be a string");
      return "";
    }
    const auto& text = it->get_ref<const std::string&>();
    if (required && text.empty()) Fail(std::string("\"") + name + "\" must not be empty");
    if (text.size() > maxBytes) {
      Fail(std::string("\"") + name + "\" takes at most " + std::to_string(maxBytes) + " bytes");
    }
    if (std::any_of(text.begin(), text.end(),
                    [](char c) { return static_cast<unsigned char>(c) < 0x20; })) {
      Fail(std::string("\"") + name + "\" must not hold control characters");
    }
    return text;
  }

  std::optional<int64_t> Integer(const char* name, int64_t low, int64_t high) {
    auto it = body_.find(name);
    if (it == body_.end() || it->is_null()) return std::nullopt;
    if (!it->is_number_integer() || it->get<int64_t>() < low || it->get<int64_t>() > high) {
      Fail(std::string("\"") + name + "\" must be a whole number from " + std::to_string(low) +
           " to " + std::to_string(high));
      return std::nullopt;
    }
    return it->get<int64_t>();
  }

  std::optional<bool> Flag(const char* name) {
    auto it = body_.find(name);
    if (it == body_.end() || it->is_null()) return std::nullopt;
    if (!it->is_boolean()) {
      Fail(std::string("\"") + name + "\" must be true or false");
      return std::nullopt;
    }
    return it->get<bool>();
  }

  // Reads "max_assets", "auto_delete" and "max_bitrate" over `rules`.
  void Rules(FeedRules* rules) {
    if (auto v = Integer("max_assets", 0, 100000)) rules->maxAssets = static_cast<int32_t>(*v);
    if (auto v = Flag("auto_delete")) rules->autoDelete = *v;
    if (auto v = Integer("max_bitrate", 0, INT32_MAX)) rules->maxBitrate = static_cast<int32_t>(*v);
  }

  const std::string& problem() const { return problem_; }

 private:
  void Fail(std::string message) {
    if (problem_.empty()) problem_ = std::move(message);
  }
  const json& body_;
  std::string problem_;
};

json RulesJson(const FeedRules& r) {
  return {
      {"max_assets", r.maxAssets}, {"auto_delete", r.autoDelete}, {"max_bitrate", r.maxBitrate}};
}

json ItemJson(const Item& item) {
  return {{"uuid", item.uuid},
          {"feed", item.feed.empty() ? json(nullptr) : json(item.feed)},
          {"user", item.user.empty() ? json(nullptr) : json(item.user)},
          {"created_ms", item.createdMs},
          {"media", item.mediaPath},
          {"metadata", item.metadata}};
}

json PushJson(const PushNotice& n) {
  return {{"id", n.id},
          {"user", n.user},
          {"device", n.device},
          {"service", n.service},
          {"item", n.itemUuid},
          {"feed", n.feed},
          {"created_ms", n.createdMs},
          {"delivered", n.delivered}};
}

int QueryInt(const AdminRequest& request, const char* name, int fallback, int low, int high) {
  auto it = request.query.find(name);
  if (it == request.query.end() || it->second.empty() || it->second.size() > 9 ||
      it->second.find_first_not_of("0123456789") != std::string::npos) {
    return fallback;
  }
  return std::clamp(std::stoi(it->second), low, high);
}

// Whether `token` is the session's change token, compared in constant time.
bool CsrfMatches(const std::string& expected, std::string_view token) {
  return token.size() == expected.size() && !token.empty() &&
         CRYPTO_memcmp(token.data(), expected.data(), token.size()) == 0;
}

int64_t QueryInt64(const AdminRequest& request, const char* name) {
  auto it = request.query.find(name);
  if (it == request.query.end() || it->second.empty() || it->second.size() > 15 ||
      it->second.find_first_not_of("0123456789") != std::string::npos) {
    return 0;
  }
  return std::stoll(it->second);
}

std::string QueryText(const AdminRequest& request, const char* name) {
  auto it = request.query.find(name);
  return it == request.query.end() ? "" : it->second;
}

}  // namespace

AdminApi::AdminApi(Store* content, ConsoleState* console, TrafficFigures* figures,
                   std::filesystem::path mediaRoot, std::function<int64_t()> clockMs,
                   AdminOptions options)
    : content_(content),
      console_(console),
      figures_(figures),
      mediaRoot_(std::move(mediaRoot)),
      clockMs_(std::move(clockMs)),
      options_(std::move(options)) {}

const std::vector<AdminApi::Route>& AdminApi::Routes() {
  constexpr auto kViewer = OperatorRole::kViewer;
  constexpr auto kEditor = OperatorRole::kEditor;
  constexpr auto kAdministrator = OperatorRole::kAdministrator;
  static const std::vector<Route> routes = {
      {"POST", "login", nullptr, kViewer},
      {"POST", "logout", &AdminApi::Logout, kViewer},
      {"GET", "session", &AdminApi::Session, kViewer},
      {"GET", "figures", &AdminApi::Figures, kViewer},
      {"GET", "feeds", &AdminApi::Feeds, kViewer},
      {"POST", "feeds/create", &AdminApi::CreateFeed, kEditor},
      {"POST", "feeds/update", &AdminApi::UpdateFeed, kEditor},
      {"GET", "publishers", &AdminApi::Publishers, kViewer},
      {"POST", "publishers/grant", &AdminApi::GrantPublisher, kEditor},
      {"POST", "publishers/revoke", &AdminApi::RevokePublisher, kEditor},
      {"GET", "items", &AdminApi::Items, kViewer},
      {"POST", "items/publish", &AdminApi::PublishItem, kEditor},
      {"POST", "items/remove", &AdminApi::RemoveItem, kEditor},
      {"GET", "media", &AdminApi::Media, kViewer},
      {"GET", "devices", &AdminApi::Devices, kViewer},
      {"POST", "devices/rules", &AdminApi::SetDeviceRules, kEditor},
      {"POST", "devices/push", &AdminApi::PushToDevice, kEditor},
      {"GET", "pushes", &AdminApi::Pushes, kViewer},
      {"GET", "accounts", &AdminApi::Accounts, kViewer},
      {"POST", "accounts/save", &AdminApi::SaveAccount, kAdministrator},
      {"GET", "audit", &AdminApi::AuditEntries, kViewer},
      {"GET", "operators", &AdminApi::Operators, kAdministrator},
      {"POST", "operators/save", &AdminApi::SaveOperator, kAdministrator},
      {"POST", "operators/remove", &AdminApi::RemoveOperator, kAdministrator},
  };
  return routes;
}

std::string AdminApi::CookieValue(const std::string& header, const std::string& name) {
  size_t at = 0;
  while (at < header.size()) {
    const size_t end = std::min(header.find(';', at), header.size());
    std::string_view pair(header.data() + at, end - at);
    while (!pair.empty() && pair.front() == ' ') pair.remove_prefix(1);
    const size_t eq = pair.find('=');
    if (eq != std::string_view::npos && pair.substr(0, eq) == name) {
      return std::string(pair.substr(eq + 1));
    }
    at = end + 1;
  }
  return "";
}

bool AdminApi::SameOrigin(const std::string& origin, const std::string& host) {
  return !host.empty() && (origin == "http://" + host || origin == "https://" + host);
}

int64_t AdminApi::LoginDelayMs(int64_t failures, int freeFailures) {
  if (failures < freeFailures) return 0;
  const int64_t doublings = std::min<int64_t>(failures - freeFailures, 20);
  return std::min(kFirstDelayMs << doublings, kMaxDelayMs);
}

namespace {

// The first 64 bits of the SHA-256 of `text`, in hex: a version that changes
// whenever the text does.
std::string ShortDigest(const std::string& text) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < 8; ++i) {
    out += kHex[digest[i] >> 4];
    out += kHex[digest[i] & 0x0f];
  }
  return out;
}

}  // namespace

std::string AdminApi::FeedVersion(const Feed& feed) {
  return ShortDigest(json{{"id", feed.id},
                          {"title", feed.title},
                          {"subscribable", feed.subscribable},
                          {"rules", RulesJson(feed.defaults)}}
                         .dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string AdminApi::AccountVersion(const Account& account) {
  // The secret is part of what a save may overwrite, so a new secret makes a
  // new version; 64 bits of a digest give nothing of it away.
  return ShortDigest(
      json{{"user", account.user}, {"key", account.publicKey}, {"secret", account.secret}}.dump(
          -1, ' ', false, json::error_handler_t::replace));
}

std::string AdminApi::OperatorVersion(const Operator& op) {
  // Any change of role or password sets changedMs and so makes a new version;
  // the hash is in it too, for two changes within one millisecond.
  return ShortDigest(json{
      {"name", op.name},
      {"role", RoleName(op.role)},
      {"hash", op.passwordHash},
      {"changed_ms",
       op.changedMs}}.dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string AdminApi::RulesVersion(const FeedRules& rules) {
  return ShortDigest(RulesJson(rules).dump());
}

namespace {

// The part of an address the throttle counts as one client: an IPv6 client
// usually holds a whole /64, so it is one client.
std::string ClientKey(const std::string& address) {
  std::string a = address;
  if (a.rfind("::ffff:", 0) == 0 && a.find('.') != std::string::npos) a = a.substr(7);
  if (a.find(':') == std::string::npos) return a;
  // Expand to eight groups and keep four.
  std::vector<std::string> head, tail;
  const size_t gap = a.find("::");
  auto split = [](const std::string& text, std::vector<std::string>* groups) {
    size_t at = 0;
    while (at <= text.size() && !text.empty()) {
      const size_t end = std::min(text.find(':', at), text.size());
      groups->push_back(text.substr(at, end - at));
      at = end + 1;
    }
  };
  split(gap == std::string::npos ? a : a.substr(0, gap), &head);
  if (gap != std::string::npos) split(a.substr(gap + 2), &tail);
  while (head.size() + tail.size() < 8) head.push_back("0");
  head.insert(head.end(), tail.begin(), tail.end());
  std::string key;
  for (size_t i = 0; i < 4 && i < head.size(); ++i) key += head[i] + ":";
  return key + ":/64";
}

bool ListedAddress(const std::vector<std::string>& list, const std::string& address) {
  std::string a = address;
  if (a.rfind("::ffff:", 0) == 0 && a.find('.') != std::string::npos) a = a.substr(7);
  return std::find(list.begin(), list.end(), a) != list.end();
}

std::string Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return std::string(text);
}

}  // namespace

bool AdminApi::OverHttps(const AdminRequest& request) const {
  // A browser names the page's scheme in Origin; a proxy that ends TLS says so.
  if (request.origin.rfind("https://", 0) == 0) return true;
  if (!ListedAddress(options_.trustedProxies, request.peer)) return false;
  std::string proto = request.forwardedProto.substr(0, request.forwardedProto.find(','));
  proto = Trim(proto);
  std::transform(proto.begin(), proto.end(), proto.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return proto == "https";
}

std::string AdminApi::ClientAddress(const AdminRequest& request) const {
  if (request.forwardedFor.empty() || !ListedAddress(options_.trustedProxies, request.peer)) {
    return request.peer;
  }
  // The last address is the one the trusted proxy saw; the ones before it are
  // whatever the client claimed.
  const size_t comma = request.forwardedFor.rfind(',');
  std::string last = Trim(comma == std::string::npos ? request.forwardedFor
                                                     : request.forwardedFor.substr(comma + 1));
  if (last.empty() || last.size() > 64 ||
      last.find_first_not_of("0123456789abcdefABCDEF:.") != std::string::npos) {
    return request.peer;
  }
  return last;
}

std::string AdminApi::SessionCookie(const AdminRequest& request, const std::string& value) const {
  std::string cookie =
      std::string(kCookieName) + "=" + value + "; Path=/admin; HttpOnly; SameSite=Strict";
  if (OverHttps(request)) cookie += "; Secure";
  return cookie;
}

AdminReply AdminApi::Handle(const AdminRequest& request) {
  const Route* route = nullptr;
  bool otherMethod = false;
  for (const auto& r : Routes()) {
    if (request.route != r.name) continue;
    if (request.method == r.method) {
      route = &r;
    } else {
      otherMethod = true;
    }
  }
  if (route == nullptr) {
    return otherMethod ? Error(405, "use " + std::string(request.method == "GET" ? "POST" : "GET"))
                       : Error(404, "no such console request");
  }
  const bool change = request.method == "POST";
  // A change needs the Origin a browser sends with every POST, naming this server:
  // a page of another site cannot make it so. Sign-in is held to this too, so that
  // another site cannot sign a browser into a console of its choosing.
  if (change && !SameOrigin(request.origin, request.host)) {
    return Error(403, "cross-site request refused");
  }
  json body = json::object();
  if (change && !request.body.empty()) {
    if (JsonLimits::TextNestsDeeperThan(request.body, JsonLimits::kMaxRequestNesting)) {
      return Error(400, "the body nests too deeply");
    }
    body = json::parse(request.body, nullptr, false);
    if (body.is_discarded() || !body.is_object()) {
      return Error(400, "the body must be a JSON object");
    }
  }
  if (route->handler == nullptr) return Login(request, body);

  const int64_t now = clockMs_();
  ConsoleSession session;
  Status s = console_->FindSession(CookieValue(request.cookie, kCookieName), now, options_.sessions,
                                   &session);
  if (s.IsNotFound()) return Error(401, "sign in first");
  if (!s.ok()) return FromStatus(s);
  Caller caller;
  caller.client = ClientAddress(request);
  caller.sessionId = session.id;
  caller.csrfToken = session.csrfToken;
  caller.sinceMs = session.createdMs;
  if (session.operatorName.empty()) {
    // The one console password serves only a console without operators; a new
    // password (set-console-password, possibly from another process) ends every
    // session signed in with the old one.
    int64_t operators = 0, passwordSetMs = 0;
    s = console_->CountOperators(&operators);
    if (s.ok()) s = console_->PasswordSetMs(&passwordSetMs);
    if (!s.ok()) return FromStatus(s);
    if (operators > 0 || session.createdMs < passwordSetMs) {
      console_->EndSession(session.id);
      return Error(401, operators > 0 ? "the console has operators now; sign in with your name"
                                      : "the console password changed; sign in again");
    }
    caller.name = "console";
    caller.role = OperatorRole::kAdministrator;
  } else {
    // The operator's role is read on every request, so that a change takes effect
    // at once; a new password or role ends the sessions signed in before it.
    Operator op;
    s = console_->FindOperator(session.operatorName, &op);
    if (s.ok() && op.changedMs > session.createdMs) s = Status::NotFound("changed");
    if (s.IsNotFound()) {
      console_->EndSession(session.id);
      return Error(401, "your operator account changed; sign in again");
    }
    if (!s.ok()) return FromStatus(s);
    caller.name = op.name;
    caller.role = op.role;
  }
  if (change && !CsrfMatches(session.csrfToken, request.csrf)) {
    return Error(403, "cross-site request refused");
  }
  if (caller.role < route->role) {
    return Error(403, std::string("an operator with the role ") + RoleName(caller.role) +
                          " may not do this; it needs " + RoleName(route->role));
  }
  return (this->*(route->handler))(request, caller, body);
}

Status AdminApi::LoginWaitMs(const std::string& clientKey, const std::string& nameKey,
                             int64_t nowMs, int64_t* waitMs, int64_t seen[2]) {
  *waitMs = 0;
  int i = 0;
  for (const auto& [key, free] :
       {std::pair<const std::string&, int>{clientKey, kFreeFailuresPerClient},
        std::pair<const std::string&, int>{nameKey, kFreeFailuresPerName}}) {
    LoginFailures failures;
    Status s = console_->ReadLoginFailures(key, &failures);
    if (!s.ok()) return s;
    const bool forgotten = nowMs - failures.lastFailureMs > kForgetMs;
    seen[i++] = forgotten ? 0 : failures.failures;
    if (forgotten) continue;
    const int64_t until = failures.lastFailureMs + LoginDelayMs(failures.failures, free);
    *waitMs = std::max(*waitMs, until - nowMs);
  }
  return Status::OK();
}

Status AdminApi::ClaimLoginAttempt(const std::string& clientKey, const std::string& nameKey,
                                   bool named, int64_t nowMs, const int64_t seen[2],
                                   int64_t* waitMs) {
  *waitMs = 0;
  const std::pair<const std::string&, int> keys[] = {{clientKey, kFreeFailuresPerClient},
                                                     {nameKey, kFreeFailuresPerName}};
  for (int i = 0; i < (named ? 2 : 1); ++i) {
    const auto& [key, free] = keys[i];
    const int64_t read = seen[i];
    LoginFailures after;
    Status s = console_->RecordLoginFailure(key, nowMs, kForgetMs, &after);
    if (!s.ok()) return s;
    // This attempt's place among the failures: within the free ones, or the
    // very place the wait was checked for, it goes on; a place that another
    // attempt took first waits as a failure there would.
    const int64_t before = after.failures - 1;
    if (before >= free && before != read) {
      *waitMs = std::max(*waitMs, LoginDelayMs(before, free));
    }
  }
  return Status::OK();
}

AdminReply AdminApi::Login(const AdminRequest& request, const json& body) {
  const int64_t now = clockMs_();
  Members m(body);
  const std::string name = m.Text("name", false, 128);
  const std::string password = m.Text("password", true, PasswordHasher::kMaxPasswordLength);
  if (!m.problem().empty()) return Error(400, m.problem());
  Caller caller;
  caller.client = ClientAddress(request);
  caller.name = name;
  const std::string clientKey = "client " + ClientKey(caller.client);
  const std::string nameKey = "name " + name + " from " + ClientKey(caller.client);
  auto tooMany = [](int64_t waitMs) {
    // Even the right password waits: guessing must not learn anything meanwhile.
    const int64_t seconds = (waitMs + 999) / 1000;
    AdminReply reply = Error(
        429, "too many failed sign-ins from here; try again in " + std::to_string(seconds) + " s");
    reply.body["retry_after_s"] = seconds;
    reply.headers.emplace_back("Retry-After", std::to_string(seconds));
    return reply;
  };
  int64_t waitMs = 0;
  int64_t seen[2] = {0, 0};
  Status s = LoginWaitMs(clientKey, nameKey, now, &waitMs, seen);
  if (!s.ok()) return FromStatus(s);
  if (waitMs > 0) return tooMany(waitMs);
  int64_t operators = 0;
  s = console_->CountOperators(&operators);
  if (!s.ok()) return FromStatus(s);
  std::string encoded;
  if (operators > 0) {
    if (name.empty()) return Error(400, "give your operator name");
    Operator op;
    s = console_->FindOperator(name, &op);
    if (!s.ok() && !s.IsNotFound()) return FromStatus(s);
    encoded = op.passwordHash;  // empty for an unknown name: never verifies
  } else {
    s = console_->PasswordHash(&encoded);
    if (s.IsNotFound()) {
      return Error(503,
                   "no console password is set; run zsm-server set-console-password or "
                   "zsm-server add-operator");
    }
    if (!s.ok()) return FromStatus(s);
    if (!name.empty()) encoded.clear();  // no operators yet: a name cannot be right
  }
  // The attempt counts as a failure before the password is checked, and is
  // forgotten if it was right: guesses sent all at once, each read the count
  // before any was recorded, would otherwise all get past the wait.
  s = ClaimLoginAttempt(clientKey, nameKey, !name.empty(), now, seen, &waitMs);
  if (!s.ok()) return FromStatus(s);
  if (waitMs > 0) return tooMany(waitMs);
  if (encoded.empty()) {
    // An unknown name takes as long to refuse as a wrong password, so that the
    // time of a refusal does not tell which names exist.
    static const std::string decoy = [] {
      std::string e;
      PasswordHasher::Hash("decoy password for unknown names", PasswordHashParams{}, &e);
      return e;
    }();
    PasswordHasher::Verify(decoy, password);
  }
  if (encoded.empty() || !PasswordHasher::Verify(encoded, password)) {
    RecordChange(caller, "login.refused", "console", json::object());
    return Error(401, operators > 0 ? "wrong name or password" : "wrong password");
  }
  // A successful sign-in forgets this client's failures, never anyone else's.
  console_->ClearLoginFailures(clientKey);
  console_->ClearLoginFailures(nameKey);
  ConsoleSession session;
  session.id = RandomHex(32);
  session.csrfToken = RandomHex(32);
  if (session.id.empty() || session.csrfToken.empty()) {
    return Error(500, "no random bytes for a session");
  }
  session.operatorName = operators > 0 ? name : "";
  session.createdMs = session.lastUsedMs = now;
  s = console_->CreateSession(session, options_.sessions);
  if (!s.ok()) return FromStatus(s);
  if (operators == 0) caller.name = "console";
  RecordChange(caller, "login", "console", json::object());
  AdminReply reply = Ok({{"csrf_token", session.csrfToken}});
  reply.setCookies.push_back(SessionCookie(request, session.id));
  return reply;
}

AdminReply AdminApi::Logout(const AdminRequest& request, const Caller& caller, const json&) {
  console_->EndSession(caller.sessionId);
  RecordChange(caller, "logout", "console", json::object());
  AdminReply reply = Ok();
  reply.setCookies.push_back(SessionCookie(request, "") + "; Max-Age=0");
  return reply;
}

AdminReply AdminApi::Session(const AdminRequest&, const Caller& caller, const json&) {
  return Ok({{"csrf_token", caller.csrfToken},
             {"since_ms", caller.sinceMs},
             {"operator", caller.name},
             {"role", RoleName(caller.role)}});
}

AdminReply AdminApi::Figures(const AdminRequest&, const Caller&, const json&) {
  const int64_t now = clockMs_();
  // Every server on the store adds its counts every few seconds; this one's own
  // go in first, so that the page shows what it answered up to now.
  json figures;
  if (Status flushed = figures_->Flush(content_, now); !flushed.ok()) {
    spdlog::warn("figures kept for later: {}", flushed.ToString());
  }
  if (Status s = TrafficFigures::SharedSnapshot(content_, now, &figures); !s.ok()) {
    return FromStatus(s);
  }
  std::vector<FeedSummary> feeds;
  std::vector<DeviceSummary> devices;
  std::vector<AccountSummary> accounts;
  Status s = content_->ListFeeds(&feeds);
  if (s.ok()) s = content_->ListDevices(&devices);
  if (s.ok()) s = content_->ListAccounts(&accounts);
  if (!s.ok()) return FromStatus(s);
  int64_t items = 0, activeHour = 0;
  for (const auto& f : feeds) items += f.items;
  for (const auto& d : devices) activeHour += now - d.lastSeenMs <= 3600000;
  figures["store"] = {{"feeds", feeds.size()},
                      {"feed_items", items},
                      {"devices", devices.size()},
                      {"devices_seen_last_hour", activeHour},
                      {"accounts", accounts.size()}};
  return Ok(std::move(figures));
}

AdminReply AdminApi::Feeds(const AdminRequest&, const Caller&, const json&) {
  std::vector<FeedSummary> feeds;
  std::vector<PublisherGrant> grants;
  Status s = content_->ListFeeds(&feeds);
  if (s.ok()) s = content_->ListPublishers("", &grants);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  for (const auto& f : feeds) {
    json publishers = json::array();
    for (const auto& g : grants) {
      if (g.feed == f.feed.id || g.feed.empty()) publishers.push_back(g.user);
    }
    list.push_back({{"id", f.feed.id},
                    {"version", FeedVersion(f.feed)},
                    {"title", f.feed.title},
                    {"subscribable", f.feed.subscribable},
                    {"rules", RulesJson(f.feed.defaults)},
                    {"rules_version", RulesVersion(f.feed.defaults)},
                    {"items", f.items},
                    {"subscribers", f.subscribers},
                    {"publishers", std::move(publishers)}});
  }
  return Ok({{"feeds", std::move(list)}});
}

AdminReply AdminApi::CreateFeed(const AdminRequest&, const Caller& caller, const json& body) {
  Members m(body);
  Feed feed;
  feed.id = m.Text("id", true, 128);
  feed.title = m.Text("title", false, 512);
  feed.subscribable = m.Flag("subscribable").value_or(true);
  m.Rules(&feed.defaults);
  if (!m.problem().empty()) return Error(400, m.problem());
  Feed existing;
  Status s = content_->FindFeed(feed.id, &existing);
  if (s.ok()) return Error(409, "feed " + feed.id + " already exists");
  if (!s.IsNotFound()) return FromStatus(s);
  s = content_->AddFeed(feed);
  if (!s.ok()) return FromStatus(s);
  RecordChange(caller, "feed.create", feed.id,
               {{"title", feed.title},
                {"subscribable", feed.subscribable},
                {"rules", RulesJson(feed.defaults)}});
  return Ok({{"id", feed.id}});
}

AdminReply AdminApi::UpdateFeed(const AdminRequest&, const Caller& caller, const json& body) {
  Members m(body);
  const std::string id = m.Text("id", true, 128);
  const std::string version = m.Text("version", true, 64);
  if (!m.problem().empty()) return Error(400, m.problem());
  auto feedJson = [](const Feed& f) {
    return json{{"id", f.id},
                {"version", FeedVersion(f)},
                {"title", f.title},
                {"subscribable", f.subscribable},
                {"rules", RulesJson(f.defaults)}};
  };
  // Somebody saved this feed since the edit began: the operator sees what is
  // there now and decides, rather than writing every field back over it.
  auto stale = [&](const Feed& current) {
    AdminReply reply =
        Error(409, "feed " + id + " was changed by someone else since you opened it");
    reply.body["current"] = feedJson(current);
    return reply;
  };
  Feed before;
  Status s = content_->FindFeed(id, &before);
  if (!s.ok()) return FromStatus(s);
  if (version != FeedVersion(before)) return stale(before);
  Feed feed = before;
  if (body.contains("title")) feed.title = m.Text("title", false, 512);
  if (auto v = m.Flag("subscribable")) feed.subscribable = *v;
  m.Rules(&feed.defaults);
  const bool toSubscribers = m.Flag("apply_to_subscribers").value_or(false);
  if (!m.problem().empty()) return Error(400, m.problem());
  int64_t devices = 0;
  // A subscribed device keeps the rules it got when it subscribed; the operator
  // asks explicitly for the new rules to reach those devices on their next sync.
  s = content_->UpdateFeed(before, feed, toSubscribers, &devices);
  if (s.IsFailedPrecondition()) {
    Feed current;
    if (content_->FindFeed(id, &current).ok()) return stale(current);
  }
  if (!s.ok()) return FromStatus(s);
  RecordChange(caller, "feed.update", id,
               {{"before",
                 {{"title", before.title},
                  {"subscribable", before.subscribable},
                  {"rules", RulesJson(before.defaults)}}},
                {"after",
                 {{"title", feed.title},
                  {"subscribable", feed.subscribable},
                  {"rules", RulesJson(feed.defaults)}}},
                {"devices_updated", devices}});
  return Ok({{"id", id}, {"version", FeedVersion(feed)}, {"devices_updated", devices}});
}

AdminReply AdminApi::Publishers(const AdminRequest& request, const Caller&, const json&) {
  std::vector<PublisherGrant> grants;
  Status s = content_->ListPublishers(QueryText(request, "feed"), &grants);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  for (const auto& g : grants) {
    list.push_back({{"feed", g.feed.empty() ? json(nullptr) : json(g.feed)}, {"user", g.user}});
  }
  return Ok({{"publishers", std::move(list)}});
}

AdminReply AdminApi::GrantPublisher(const AdminRequest&, const Caller& caller, const json& body) {
  Members m(body);
  const std::string user = m.Text("user", true);
  const std::string feed = m.Text("feed", false, 128);  // absent: every feed
  if (!m.problem().empty()) return Error(400, m.problem());
  Status s = content_->GrantPublisher(feed, user);
  if (!s.ok()) return FromStatus(s);
  RecordChange(caller, "publisher.grant", feed.empty() ? "*" : feed, {{"user", user}});
  return Ok();
}

AdminReply AdminApi::RevokePublisher(const AdminRequest&, const Caller& caller, const json& body) {
  Members m(body);
  const std::string user = m.Text("user", true);
  const std::string feed = m.Text("feed", false, 128);
  if (!m.problem().empty()) return Error(400, m.problem());
  Status s = content_->RevokePublisher(feed, user);
  if (!s.ok()) return FromStatus(s);
  RecordChange(caller, "publisher.revoke", feed.empty() ? "*" : feed, {{"user", user}});
  return Ok();
}

AdminReply AdminApi::Items(const AdminRequest& request, const Caller&, const json&) {
  std::vector<Item> items;
  Status s = content_->ListItems(QueryText(request, "feed"), QueryText(request, "user"),
                                 QueryInt(request, "limit", 200, 1, 1000), &items);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  for (const auto& item : items) list.push_back(ItemJson(item));
  return Ok({{"items", std::move(list)}});
}

AdminReply AdminApi::PublishItem(const AdminRequest&, const Caller& caller, const json& body) {
  Members m(body);
  std::string uuid = m.Text("uuid", false);
  const std::string feed = m.Text("feed", false, 128);
  const std::string user = m.Text("user", false);
  const std::string media = m.Text("media", false, 1024);
  const std::string url = m.Text("url", false, 4096);
  const std::string title = m.Text("title", false, 1024);
  const std::string desc = m.Text("desc", false, 16384);
  const std::string mime = m.Text("mime", false, 128);
  const auto mediaType = m.Integer("media_type", 0, 5);
  if (!m.problem().empty()) return Error(400, m.problem());
  if (feed.empty() == user.empty()) {
    return Error(400, "an item goes either to a feed (\"feed\") or to an account (\"user\")");
  }
  if (media.empty() == url.empty()) {
    return Error(400, "an item needs either a file of the media folder (\"media\") or a \"url\"");
  }
  if (!url.empty() && url.rfind("http://", 0) != 0 && url.rfind("https://", 0) != 0) {
    return Error(400, "\"url\" must be an http:// or https:// address");
  }
  if (!media.empty()) {
    MediaFile file;
    if (!MediaLibrary(mediaRoot_).Find(media, &file).ok()) {
      return Error(400, "no file " + media + " in the media folder");
    }
  }
  if (uuid.empty()) uuid = "console-" + RandomHex(8);
  const int64_t now = clockMs_();
  json entry = {{"remoteUUID", uuid}, {"metadata", {{"title", title}, {"desc", desc}}}};
  // The media type follows the address when not given: an HLS manifest is 3.
  const std::string& address = media.empty() ? url : media;
  const bool hls = address.size() >= 5 && address.compare(address.size() - 5, 5, ".m3u8") == 0;
  entry["metadata"]["mediaType"] = mediaType.value_or(hls ? 3 : 0);
  if (!media.empty()) entry["media"] = media;
  if (!url.empty()) entry["metadata"]["downloadURL"] = url;
  if (!mime.empty()) entry["metadata"]["mime"] = mime;
  Item item;
  Status s = SeedLoader::ParseItem(entry, now, &item);
  if (!s.ok()) return FromStatus(s);
  item.feed = feed;
  item.user = user;
  std::vector<PushNotice> notices;
  s = content_->AddItem(item, now, &notices, /*replaceExisting=*/false);
  if (!s.ok()) return FromStatus(s);
  RecordChange(caller, "item.publish", uuid,
               {{"feed", feed},
                {"user", user},
                {"media", media},
                {"url", url},
                {"title", title},
                {"notified_devices", notices.size()}});
  return Ok({{"uuid", uuid}, {"notified_devices", notices.size()}});
}

AdminReply AdminApi::RemoveItem(const AdminRequest&, const Caller& caller, const json& body) {
  Members m(body);
  const std::string uuid = m.Text("uuid", true);
  if (!m.problem().empty()) return Error(400, m.problem());
  Status s = content_->RemoveItem(uuid);
  if (!s.ok()) return FromStatus(s);
  RecordChange(caller, "item.remove", uuid, json::object());
  return Ok();
}

AdminReply AdminApi::Media(const AdminRequest&, const Caller&, const json&) {
  constexpr size_t kMaxFiles = 1000;
  json files = json::array();
  std::error_code ec;
  const auto options = std::filesystem::directory_options::skip_permission_denied;
  std::filesystem::recursive_directory_iterator it(mediaRoot_, options, ec), end;
  for (; !ec && it != end && files.size() < kMaxFiles; it.increment(ec)) {
    if (!it->is_regular_file(ec) || it->is_symlink(ec)) continue;
    const auto path = it->path();
    const std::string name = path.filename().string();
    const std::string ext = path.extension().string();
    // Segments, initialisation files and variant playlists belong to a stream
    // published through its master playlist.
    if (ext == ".m4s" || ext == ".ts" || name == "init.mp4" || name == "index.m3u8") continue;
    files.push_back({{"path", std::filesystem::relative(path, mediaRoot_, ec).generic_string()},
                     {"size", it->file_size(ec)}});
  }
  std::sort(files.begin(), files.end(),
            [](const json& a, const json& b) { return a["path"] < b["path"]; });
  return Ok({{"files", std::move(files)}, {"truncated", files.size() >= kMaxFiles}});
}

AdminReply AdminApi::Devices(const AdminRequest&, const Caller&, const json&) {
  std::vector<DeviceSummary> devices;
  Status s = content_->ListDevices(&devices);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  for (const auto& d : devices) {
    json rules = json::object();
    json versions = json::object();
    CatalogSnapshot snapshot;
    // The rules the next catalog will report; reading items is not needed.
    if (content_->ReadCatalog(d.user, d.device, INT64_MAX, true, &snapshot).ok()) {
      for (const auto& [feed, r] : snapshot.rules) {
        rules[feed] = RulesJson(r);
        versions[feed] = RulesVersion(r);
      }
    }
    list.push_back({{"user", d.user},
                    {"device", d.device},
                    {"first_seen_ms", d.firstSeenMs},
                    {"last_seen_ms", d.lastSeenMs},
                    {"push_service", d.pushService},
                    {"subscriptions", d.subscriptions},
                    {"rules", std::move(rules)},
                    {"rules_versions", std::move(versions)},
                    {"pending_pushes", d.pendingPushes}});
  }
  return Ok({{"devices", std::move(list)}});
}

AdminReply AdminApi::SetDeviceRules(const AdminRequest&, const Caller& caller, const json& body) {
  Members m(body);
  const std::string user = m.Text("user", true);
  const std::string device = m.Text("device", true);
  const std::string feed = m.Text("feed", true, 128);
  const std::string version = m.Text("version", true, 64);
  if (!m.problem().empty()) return Error(400, m.problem());
  // What the device's catalog reports now: its own rules, or the feed's defaults.
  FeedRules current;
  CatalogSnapshot snapshot;
  Status s = content_->ReadCatalog(user, device, INT64_MAX, true, &snapshot);
  if (!s.ok()) return FromStatus(s);
  if (auto it = snapshot.rules.find(feed); it != snapshot.rules.end()) {
    current = it->second;
  } else {
    Feed f;
    s = content_->FindFeed(feed, &f);
    if (!s.ok()) return FromStatus(s);
    current = f.defaults;
  }
  auto stale = [&](const FeedRules& now) {
    AdminReply reply = Error(409, "the rules of " + device + " for " + feed +
                                      " were changed by someone else since you opened them");
    reply.body["current"] = RulesJson(now);
    reply.body["version"] = RulesVersion(now);
    return reply;
  };
  if (version != RulesVersion(current)) return stale(current);
  FeedRules rules = current;
  m.Rules(&rules);
  if (!m.problem().empty()) return Error(400, m.problem());
  s = content_->UpdateRules(user, device, feed, current, rules);
  if (s.IsFailedPrecondition()) return Error(409, s.message());
  if (!s.ok()) return FromStatus(s);
  RecordChange(caller, "device.rules", user + "/" + device,
               {{"feed", feed}, {"before", RulesJson(current)}, {"rules", RulesJson(rules)}});
  return Ok({{"version", RulesVersion(rules)}});
}

AdminReply AdminApi::PushToDevice(const AdminRequest&, const Caller& caller, const json& body) {
  Members m(body);
  const std::string user = m.Text("user", true);
  const std::string device = m.Text("device", true);
  const std::string item = m.Text("item", true);
  if (!m.problem().empty()) return Error(400, m.problem());
  PushNotice notice;
  Status s = content_->AddPushNotice(user, device, item, clockMs_(), &notice);
  if (!s.ok()) return FromStatus(s);
  RecordChange(caller, "device.push", user + "/" + device, {{"item", item}, {"notice", notice.id}});
  return Ok({{"notice", PushJson(notice)}});
}

AdminReply AdminApi::Pushes(const AdminRequest& request, const Caller&, const json&) {
  std::vector<PushNotice> notices;
  Status s = content_->ListPushes(QueryText(request, "user"), QueryText(request, "device"),
                                  QueryText(request, "all") != "1", false, &notices);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  // Newest first, at most a page of them.
  const size_t limit = static_cast<size_t>(QueryInt(request, "limit", 200, 1, 1000));
  for (auto it = notices.rbegin(); it != notices.rend() && list.size() < limit; ++it) {
    list.push_back(PushJson(*it));
  }
  return Ok({{"pushes", std::move(list)}});
}

AdminReply AdminApi::Accounts(const AdminRequest&, const Caller&, const json&) {
  std::vector<AccountSummary> accounts;
  Status s = content_->ListAccounts(&accounts);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  for (const auto& a : accounts) {
    // The summary keeps the secret in the store; the version needs it.
    Account full;
    Status found = content_->FindAccount(a.user, &full);
    if (!found.ok()) return FromStatus(found);
    list.push_back({{"user", a.user},
                    {"key", a.publicKey},
                    {"devices", a.devices},
                    {"version", AccountVersion(full)}});
  }
  return Ok({{"accounts", std::move(list)}});
}

AdminReply AdminApi::SaveAccount(const AdminRequest&, const Caller& caller, const json& body) {
  Members m(body);
  Account account;
  account.user = m.Text("user", true, 128);
  account.publicKey = m.Text("key", false, 512);
  account.secret = m.Text("secret", false, 512);
  // The account as the editor saw it; none when the editor meant a new one.
  const std::string version = m.Text("version", false, 64);
  const bool newSecret = m.Flag("new_secret").value_or(false);
  if (!m.problem().empty()) return Error(400, m.problem());
  // Somebody changed (or made) this account since the edit began: the operator
  // sees what is there now and decides, rather than overwriting a key or a
  // secret that devices may already have been given.
  auto stale = [&](const Account& current) {
    AdminReply reply = Error(
        409, version.empty()
                 ? "account " + account.user + " was added by someone else"
                 : "account " + account.user + " was changed by someone else since you opened it");
    reply.body["current"] = {
        {"user", current.user}, {"key", current.publicKey}, {"version", AccountVersion(current)}};
    return reply;
  };
  Account existing;
  Status s = content_->FindAccount(account.user, &existing);
  if (!s.ok() && !s.IsNotFound()) return FromStatus(s);
  const bool exists = s.ok();
  if (exists && version != AccountVersion(existing)) return stale(existing);
  if (!exists && !version.empty()) return Error(404, "unknown account " + account.user);
  if (account.publicKey.empty()) {
    account.publicKey = exists ? existing.publicKey : account.user + "-" + RandomHex(8);
  }
  // The secret is shown once, when the console made it; a kept one never leaves.
  bool made = false;
  if (account.secret.empty()) {
    if (exists && !newSecret) {
      account.secret = existing.secret;
    } else {
      account.secret = RandomHex(24);
      made = true;
    }
  }
  if (account.publicKey.empty() || account.secret.empty()) {
    return Error(500, "no random bytes for a key");
  }
  s = content_->UpdateAccount(exists ? std::optional<Account>(existing) : std::nullopt, account);
  if (s.IsFailedPrecondition()) {
    Account current;
    if (content_->FindAccount(account.user, &current).ok()) return stale(current);
  }
  if (!s.ok()) return FromStatus(s);
  RecordChange(caller, exists ? "account.update" : "account.create", account.user,
               {{"key", account.publicKey},
                {"secret_changed", !exists || made || account.secret != existing.secret}});
  json reply = {
      {"user", account.user}, {"key", account.publicKey}, {"version", AccountVersion(account)}};
  if (made) reply["secret"] = account.secret;
  return Ok(std::move(reply));
}

AdminReply AdminApi::AuditEntries(const AdminRequest& request, const Caller&, const json&) {
  AuditQuery query;
  query.operatorName = QueryText(request, "operator");
  query.action = QueryText(request, "action");
  query.fromMs = QueryInt64(request, "from");
  query.toMs = QueryInt64(request, "to");
  query.beforeId = QueryInt64(request, "before");
  query.limit = QueryInt(request, "limit", 100, 1, 1000);
  std::vector<AuditEntry> entries;
  // One more than asked says whether an older page exists.
  ++query.limit;
  Status s = console_->ListAudit(query, &entries);
  if (!s.ok()) return FromStatus(s);
  const bool more = static_cast<int>(entries.size()) == query.limit;
  if (more) entries.pop_back();
  json list = json::array();
  for (const auto& e : entries) {
    list.push_back({{"id", e.id},
                    {"at_ms", e.atMs},
                    {"operator", e.operatorName},
                    {"peer", e.peer},
                    {"action", e.action},
                    {"target", e.target},
                    {"details", e.details}});
  }
  json reply = {{"entries", std::move(list)}, {"more", more}};
  if (more) reply["next_before"] = entries.back().id;
  return Ok(std::move(reply));
}

AdminReply AdminApi::Operators(const AdminRequest&, const Caller&, const json&) {
  std::vector<Operator> operators;
  Status s = console_->ListOperators(&operators);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  for (const auto& op : operators) {
    list.push_back({{"name", op.name},
                    {"role", RoleName(op.role)},
                    {"created_ms", op.createdMs},
                    {"changed_ms", op.changedMs},
                    {"version", OperatorVersion(op)}});
  }
  return Ok({{"operators", std::move(list)}});
}

AdminReply AdminApi::SaveOperator(const AdminRequest&, const Caller& caller, const json& body) {
  Members m(body);
  const std::string name = m.Text("name", true, 128);
  const std::string roleName = m.Text("role", true, 32);
  const std::string password = m.Text("password", false, PasswordHasher::kMaxPasswordLength);
  // The operator as the editor saw them; none when the editor meant a new one.
  const std::string version = m.Text("version", false, 64);
  if (!m.problem().empty()) return Error(400, m.problem());
  OperatorRole role;
  if (!ParseRole(roleName, &role)) {
    return Error(400, "\"role\" is one of viewer, editor, administrator");
  }
  // Somebody changed (or added) this operator since the edit began: a role
  // written back from an old page would undo a colleague's demotion.
  auto stale = [&](const Operator& current) {
    AdminReply reply =
        Error(409, version.empty()
                       ? "operator " + name + " was added by someone else"
                       : "operator " + name + " was changed by someone else since you opened it");
    reply.body["current"] = {{"name", current.name},
                             {"role", RoleName(current.role)},
                             {"version", OperatorVersion(current)}};
    return reply;
  };
  Operator existing;
  Status s = console_->FindOperator(name, &existing);
  if (!s.ok() && !s.IsNotFound()) return FromStatus(s);
  const bool exists = s.ok();
  if (exists && version != OperatorVersion(existing)) return stale(existing);
  if (!exists && !version.empty()) return Error(404, "unknown operator " + name);
  if (!exists && password.empty()) return Error(400, "a new operator needs a \"password\"");
  std::string encoded;
  if (!password.empty()) {
    s = PasswordHasher::Hash(password, PasswordHashParams{}, &encoded);
    if (!s.ok()) return FromStatus(s);
  }
  const int64_t now = clockMs_();
  if (exists) {
    s = console_->UpdateOperator(name, &existing, role, encoded, now);
    if (s.IsFailedPrecondition()) {
      Operator current;
      if (console_->FindOperator(name, &current).ok() &&
          OperatorVersion(current) != OperatorVersion(existing)) {
        return stale(current);
      }
    }
  } else {
    s = console_->AddOperator({name, role, encoded, now, now});
    if (s.IsAlreadyExists()) {
      Operator current;
      if (console_->FindOperator(name, &current).ok()) return stale(current);
    }
  }
  if (!s.ok()) return FromStatus(s);
  RecordChange(caller, exists ? "operator.update" : "operator.create", name,
               {{"role", RoleName(role)}, {"password_changed", !encoded.empty()}});
  Operator saved{name, role, encoded.empty() ? existing.passwordHash : encoded,
                 exists ? existing.createdMs : now, now};
  return Ok({{"name", name}, {"role", RoleName(role)}, {"version", OperatorVersion(saved)}});
}

AdminReply AdminApi::RemoveOperator(const AdminRequest&, const Caller& caller, const json& body) {
  Members m(body);
  const std::string name = m.Text("name", true, 128);
  if (!m.problem().empty()) return Error(400, m.problem());
  Status s = console_->RemoveOperator(name);
  if (!s.ok()) return FromStatus(s);
  RecordChange(caller, "operator.remove", name, json::object());
  return Ok();
}

void AdminApi::RecordChange(const Caller& caller, const std::string& action,
                            const std::string& target, json details) {
  AuditEntry entry;
  entry.atMs = clockMs_();
  entry.operatorName = caller.name;
  entry.peer = caller.client;
  entry.action = action;
  entry.target = target;
  entry.details = std::move(details);
  Status s = console_->Record(std::move(entry));
  if (!s.ok()) spdlog::error("console: cannot record {} of {}: {}", action, target, s.ToString());
}

}  // namespace zolvani::refserver
