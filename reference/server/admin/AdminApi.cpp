#include "reference/server/admin/AdminApi.h"

#include <openssl/rand.h>
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

std::string QueryText(const AdminRequest& request, const char* name) {
  auto it = request.query.find(name);
  return it == request.query.end() ? "" : it->second;
}

}  // namespace

AdminApi::AdminApi(Store* content, ConsoleStore* console, ConsoleSessions* sessions,
                   TrafficFigures* figures, std::filesystem::path mediaRoot,
                   std::function<int64_t()> clockMs)
    : content_(content),
      console_(console),
      sessions_(sessions),
      figures_(figures),
      mediaRoot_(std::move(mediaRoot)),
      clockMs_(std::move(clockMs)) {}

const std::vector<AdminApi::Route>& AdminApi::Routes() {
  static const std::vector<Route> routes = {
      {"POST", "login", &AdminApi::Login},
      {"POST", "logout", &AdminApi::Logout},
      {"GET", "session", &AdminApi::Session},
      {"GET", "figures", &AdminApi::Figures},
      {"GET", "feeds", &AdminApi::Feeds},
      {"POST", "feeds/create", &AdminApi::CreateFeed},
      {"POST", "feeds/update", &AdminApi::UpdateFeed},
      {"GET", "publishers", &AdminApi::Publishers},
      {"POST", "publishers/grant", &AdminApi::GrantPublisher},
      {"POST", "publishers/revoke", &AdminApi::RevokePublisher},
      {"GET", "items", &AdminApi::Items},
      {"POST", "items/publish", &AdminApi::PublishItem},
      {"POST", "items/remove", &AdminApi::RemoveItem},
      {"GET", "media", &AdminApi::Media},
      {"GET", "devices", &AdminApi::Devices},
      {"POST", "devices/rules", &AdminApi::SetDeviceRules},
      {"POST", "devices/push", &AdminApi::PushToDevice},
      {"GET", "pushes", &AdminApi::Pushes},
      {"GET", "accounts", &AdminApi::Accounts},
      {"POST", "accounts/save", &AdminApi::SaveAccount},
      {"GET", "audit", &AdminApi::AuditEntries},
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
  if (route->handler == &AdminApi::Login) return Login(request, body);

  const auto session = sessions_->Find(CookieValue(request.cookie, kCookieName), clockMs_());
  if (!session) return Error(401, "sign in first");
  // A new password (set-console-password, possibly from another process) ends
  // every session signed in with the old one.
  int64_t passwordSetMs = 0;
  Status s = console_->PasswordSetMs(&passwordSetMs);
  if (!s.ok()) return FromStatus(s);
  if (session->createdMs < passwordSetMs) {
    sessions_->End(session->id);
    return Error(401, "the console password changed; sign in again");
  }
  if (change && !ConsoleSessions::CsrfMatches(*session, request.csrf)) {
    return Error(403, "cross-site request refused");
  }
  return (this->*(route->handler))(request, body);
}

bool AdminApi::LoginThrottled(int64_t nowMs, bool recordFailure) {
  std::lock_guard lock(loginMutex_);
  while (!loginFailuresMs_.empty() && nowMs - loginFailuresMs_.front() >= 60000) {
    loginFailuresMs_.pop_front();
  }
  if (recordFailure) loginFailuresMs_.push_back(nowMs);
  return static_cast<int>(loginFailuresMs_.size()) >= kLoginFailuresPerMinute;
}

AdminReply AdminApi::Login(const AdminRequest& request, const json& body) {
  const int64_t now = clockMs_();
  Members m(body);
  const std::string password = m.Text("password", true, PasswordHasher::kMaxPasswordLength);
  if (!m.problem().empty()) return Error(400, m.problem());
  if (LoginThrottled(now, false)) {
    return Error(429, "too many failed sign-ins; try again in a minute");
  }
  std::string encoded;
  Status s = console_->PasswordHash(&encoded);
  if (s.IsNotFound()) {
    return Error(503, "no console password is set; run zsm-server set-console-password");
  }
  if (!s.ok()) return FromStatus(s);
  if (!PasswordHasher::Verify(encoded, password)) {
    LoginThrottled(now, true);
    RecordChange(request, "login.refused", "console", json::object());
    return Error(401, "wrong password");
  }
  auto session = sessions_->Create(now);
  if (!session) return Error(500, "no random bytes for a session");
  RecordChange(request, "login", "console", json::object());
  AdminReply reply = Ok({{"csrf_token", session->csrfToken}});
  reply.setCookies.push_back(std::string(kCookieName) + "=" + session->id +
                             "; Path=/admin; HttpOnly; SameSite=Strict");
  return reply;
}

AdminReply AdminApi::Logout(const AdminRequest& request, const json&) {
  sessions_->End(CookieValue(request.cookie, kCookieName));
  RecordChange(request, "logout", "console", json::object());
  AdminReply reply = Ok();
  reply.setCookies.push_back(std::string(kCookieName) +
                             "=; Path=/admin; HttpOnly; SameSite=Strict; Max-Age=0");
  return reply;
}

AdminReply AdminApi::Session(const AdminRequest& request, const json&) {
  const auto session = sessions_->Find(CookieValue(request.cookie, kCookieName), clockMs_());
  if (!session) return Error(401, "sign in first");
  return Ok({{"csrf_token", session->csrfToken}, {"since_ms", session->createdMs}});
}

AdminReply AdminApi::Figures(const AdminRequest&, const json&) {
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

AdminReply AdminApi::Feeds(const AdminRequest&, const json&) {
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
                    {"title", f.feed.title},
                    {"subscribable", f.feed.subscribable},
                    {"rules", RulesJson(f.feed.defaults)},
                    {"items", f.items},
                    {"subscribers", f.subscribers},
                    {"publishers", std::move(publishers)}});
  }
  return Ok({{"feeds", std::move(list)}});
}

AdminReply AdminApi::CreateFeed(const AdminRequest& request, const json& body) {
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
  RecordChange(request, "feed.create", feed.id,
               {{"title", feed.title},
                {"subscribable", feed.subscribable},
                {"rules", RulesJson(feed.defaults)}});
  return Ok({{"id", feed.id}});
}

AdminReply AdminApi::UpdateFeed(const AdminRequest& request, const json& body) {
  Members m(body);
  const std::string id = m.Text("id", true, 128);
  if (!m.problem().empty()) return Error(400, m.problem());
  Feed feed;
  Status s = content_->FindFeed(id, &feed);
  if (!s.ok()) return FromStatus(s);
  const Feed before = feed;
  if (body.contains("title")) feed.title = m.Text("title", false, 512);
  if (auto v = m.Flag("subscribable")) feed.subscribable = *v;
  m.Rules(&feed.defaults);
  const bool toSubscribers = m.Flag("apply_to_subscribers").value_or(false);
  if (!m.problem().empty()) return Error(400, m.problem());
  s = content_->AddFeed(feed);
  int64_t devices = 0;
  // A subscribed device keeps the rules it got when it subscribed; the operator
  // asks explicitly for the new rules to reach those devices on their next sync.
  if (s.ok() && toSubscribers) s = content_->SetRulesForSubscribers(id, feed.defaults, &devices);
  if (!s.ok()) return FromStatus(s);
  RecordChange(request, "feed.update", id,
               {{"before",
                 {{"title", before.title},
                  {"subscribable", before.subscribable},
                  {"rules", RulesJson(before.defaults)}}},
                {"after",
                 {{"title", feed.title},
                  {"subscribable", feed.subscribable},
                  {"rules", RulesJson(feed.defaults)}}},
                {"devices_updated", devices}});
  return Ok({{"id", id}, {"devices_updated", devices}});
}

AdminReply AdminApi::Publishers(const AdminRequest& request, const json&) {
  std::vector<PublisherGrant> grants;
  Status s = content_->ListPublishers(QueryText(request, "feed"), &grants);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  for (const auto& g : grants) {
    list.push_back({{"feed", g.feed.empty() ? json(nullptr) : json(g.feed)}, {"user", g.user}});
  }
  return Ok({{"publishers", std::move(list)}});
}

AdminReply AdminApi::GrantPublisher(const AdminRequest& request, const json& body) {
  Members m(body);
  const std::string user = m.Text("user", true);
  const std::string feed = m.Text("feed", false, 128);  // absent: every feed
  if (!m.problem().empty()) return Error(400, m.problem());
  Status s = content_->GrantPublisher(feed, user);
  if (!s.ok()) return FromStatus(s);
  RecordChange(request, "publisher.grant", feed.empty() ? "*" : feed, {{"user", user}});
  return Ok();
}

AdminReply AdminApi::RevokePublisher(const AdminRequest& request, const json& body) {
  Members m(body);
  const std::string user = m.Text("user", true);
  const std::string feed = m.Text("feed", false, 128);
  if (!m.problem().empty()) return Error(400, m.problem());
  Status s = content_->RevokePublisher(feed, user);
  if (!s.ok()) return FromStatus(s);
  RecordChange(request, "publisher.revoke", feed.empty() ? "*" : feed, {{"user", user}});
  return Ok();
}

AdminReply AdminApi::Items(const AdminRequest& request, const json&) {
  std::vector<Item> items;
  Status s = content_->ListItems(QueryText(request, "feed"), QueryText(request, "user"),
                                 QueryInt(request, "limit", 200, 1, 1000), &items);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  for (const auto& item : items) list.push_back(ItemJson(item));
  return Ok({{"items", std::move(list)}});
}

AdminReply AdminApi::PublishItem(const AdminRequest& request, const json& body) {
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
  RecordChange(request, "item.publish", uuid,
               {{"feed", feed},
                {"user", user},
                {"media", media},
                {"url", url},
                {"title", title},
                {"notified_devices", notices.size()}});
  return Ok({{"uuid", uuid}, {"notified_devices", notices.size()}});
}

AdminReply AdminApi::RemoveItem(const AdminRequest& request, const json& body) {
  Members m(body);
  const std::string uuid = m.Text("uuid", true);
  if (!m.problem().empty()) return Error(400, m.problem());
  Status s = content_->RemoveItem(uuid);
  if (!s.ok()) return FromStatus(s);
  RecordChange(request, "item.remove", uuid, json::object());
  return Ok();
}

AdminReply AdminApi::Media(const AdminRequest&, const json&) {
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

AdminReply AdminApi::Devices(const AdminRequest&, const json&) {
  std::vector<DeviceSummary> devices;
  Status s = content_->ListDevices(&devices);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  for (const auto& d : devices) {
    json rules = json::object();
    CatalogSnapshot snapshot;
    // The rules the next catalog will report; reading items is not needed.
    if (content_->ReadCatalog(d.user, d.device, INT64_MAX, true, &snapshot).ok()) {
      for (const auto& [feed, r] : snapshot.rules) rules[feed] = RulesJson(r);
    }
    list.push_back({{"user", d.user},
                    {"device", d.device},
                    {"first_seen_ms", d.firstSeenMs},
                    {"last_seen_ms", d.lastSeenMs},
                    {"push_service", d.pushService},
                    {"subscriptions", d.subscriptions},
                    {"rules", std::move(rules)},
                    {"pending_pushes", d.pendingPushes}});
  }
  return Ok({{"devices", std::move(list)}});
}

AdminReply AdminApi::SetDeviceRules(const AdminRequest& request, const json& body) {
  Members m(body);
  const std::string user = m.Text("user", true);
  const std::string device = m.Text("device", true);
  const std::string feed = m.Text("feed", true, 128);
  FeedRules rules;
  m.Rules(&rules);
  if (!m.problem().empty()) return Error(400, m.problem());
  Status s = content_->SetRules(user, device, feed, rules);
  if (!s.ok()) return FromStatus(s);
  RecordChange(request, "device.rules", user + "/" + device,
               {{"feed", feed}, {"rules", RulesJson(rules)}});
  return Ok();
}

AdminReply AdminApi::PushToDevice(const AdminRequest& request, const json& body) {
  Members m(body);
  const std::string user = m.Text("user", true);
  const std::string device = m.Text("device", true);
  const std::string item = m.Text("item", true);
  if (!m.problem().empty()) return Error(400, m.problem());
  PushNotice notice;
  Status s = content_->AddPushNotice(user, device, item, clockMs_(), &notice);
  if (!s.ok()) return FromStatus(s);
  RecordChange(request, "device.push", user + "/" + device,
               {{"item", item}, {"notice", notice.id}});
  return Ok({{"notice", PushJson(notice)}});
}

AdminReply AdminApi::Pushes(const AdminRequest& request, const json&) {
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

AdminReply AdminApi::Accounts(const AdminRequest&, const json&) {
  std::vector<AccountSummary> accounts;
  Status s = content_->ListAccounts(&accounts);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  for (const auto& a : accounts) {
    list.push_back({{"user", a.user}, {"key", a.publicKey}, {"devices", a.devices}});
  }
  return Ok({{"accounts", std::move(list)}});
}

AdminReply AdminApi::SaveAccount(const AdminRequest& request, const json& body) {
  Members m(body);
  Account account;
  account.user = m.Text("user", true, 128);
  account.publicKey = m.Text("key", false, 512);
  account.secret = m.Text("secret", false, 512);
  const bool newSecret = m.Flag("new_secret").value_or(false);
  if (!m.problem().empty()) return Error(400, m.problem());
  Account existing;
  Status s = content_->FindAccount(account.user, &existing);
  if (!s.ok() && !s.IsNotFound()) return FromStatus(s);
  const bool exists = s.ok();
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
  s = content_->AddAccount(account);
  if (!s.ok()) return FromStatus(s);
  RecordChange(request, exists ? "account.update" : "account.create", account.user,
               {{"key", account.publicKey},
                {"secret_changed", !exists || made || account.secret != existing.secret}});
  json reply = {{"user", account.user}, {"key", account.publicKey}};
  if (made) reply["secret"] = account.secret;
  return Ok(std::move(reply));
}

AdminReply AdminApi::AuditEntries(const AdminRequest& request, const json&) {
  std::vector<AuditEntry> entries;
  Status s = console_->ListAudit(QueryInt(request, "limit", 100, 1, 1000),
                                 QueryInt(request, "before", 0, 0, INT32_MAX), &entries);
  if (!s.ok()) return FromStatus(s);
  json list = json::array();
  for (const auto& e : entries) {
    list.push_back({{"id", e.id},
                    {"at_ms", e.atMs},
                    {"peer", e.peer},
                    {"action", e.action},
                    {"target", e.target},
                    {"details", e.details}});
  }
  return Ok({{"entries", std::move(list)}});
}

void AdminApi::RecordChange(const AdminRequest& request, const std::string& action,
                            const std::string& target, json details) {
  AuditEntry entry;
  entry.atMs = clockMs_();
  entry.peer = request.peer;
  entry.action = action;
  entry.target = target;
  entry.details = std::move(details);
  Status s = console_->Record(std::move(entry));
  if (!s.ok()) spdlog::error("console: cannot record {} of {}: {}", action, target, s.ToString());
}

}  // namespace zolvani::refserver
