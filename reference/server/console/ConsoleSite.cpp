#include "reference/server/console/ConsoleSite.h"

#include "reference/server/console/ConsoleAssets.h"

namespace zolvani::refserver {

namespace {

void SendError(httplib::Response& res, int status, const std::string& message) {
  res.status = status;
  res.set_header("Cache-Control", "no-store");
  res.set_content(nlohmann::json{{"error", message}}.dump(), "application/json");
}

// Pages take scripts, styles and data from this server only, and may not be
// framed by another site (which could trick a click).
void SetPageHeaders(httplib::Response& res) {
  res.set_header("Content-Security-Policy",
                 "default-src 'self'; img-src 'self' data:; frame-ancestors 'none'; "
                 "base-uri 'none'; form-action 'self'");
  res.set_header("X-Content-Type-Options", "nosniff");
  res.set_header("X-Frame-Options", "DENY");
  res.set_header("Referrer-Policy", "same-origin");
}

}  // namespace

bool ConsoleSite::IsLoopback(const std::string& address) {
  return address.rfind("127.", 0) == 0 || address == "::1" || address.rfind("::ffff:127.", 0) == 0;
}

bool ConsoleSite::Admitted(const httplib::Request& req, httplib::Response& res) {
  if (fromAnywhere_ || IsLoopback(req.remote_addr)) return true;
  SendError(res, 403, "the console answers on the loopback interface only");
  figures_->Record("console", 403, 0, clockMs_());
  return false;
}

void ConsoleSite::ServeAsset(const std::string& path, httplib::Response& res) {
  const ConsoleAsset* asset = FindConsoleAsset(path.empty() ? "index.html" : path);
  SetPageHeaders(res);
  if (asset == nullptr) {
    res.status = 404;
    res.set_content("not found\n", "text/plain");
    return;
  }
  res.set_header("Cache-Control", "no-cache");
  res.set_content(asset->body.data(), asset->body.size(), std::string(asset->contentType));
}

void ConsoleSite::ServeApi(const httplib::Request& req, httplib::Response& res,
                           const std::string& body) {
  AdminRequest request;
  request.method = req.method;
  request.route = req.matches[1].str();
  for (const auto& [name, value] : req.params) request.query.emplace(name, value);
  request.cookie = req.get_header_value("Cookie");
  request.csrf = req.get_header_value(AdminApi::kCsrfHeader);
  request.origin = req.get_header_value("Origin");
  request.host = req.get_header_value("Host");
  request.peer = req.remote_addr;
  request.forwardedFor = req.get_header_value("X-Forwarded-For");
  request.forwardedProto = req.get_header_value("X-Forwarded-Proto");
  request.body = body;
  AdminReply reply = api_->Handle(request);
  for (const auto& cookie : reply.setCookies) res.set_header("Set-Cookie", cookie);
  for (const auto& [name, value] : reply.headers) res.set_header(name, value);
  res.status = reply.status;
  res.set_header("Cache-Control", "no-store");
  SetPageHeaders(res);
  res.set_content(reply.body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                  "application/json");
  figures_->Record("console", reply.status, 0, clockMs_());
}

void ConsoleSite::Install(GuardedServer* http) {
  http->Get("/admin", [this](const httplib::Request& req, httplib::Response& res) {
    if (!Admitted(req, res)) return;
    res.set_redirect("/admin/");
  });
  http->Get(R"(/admin/api/([a-z/]+))", [this](const httplib::Request& req, httplib::Response& res) {
    if (!Admitted(req, res)) return;
    ServeApi(req, res, "");
  });
  http->Post(R"(/admin/api/([a-z/]+))", [this, http](const httplib::Request& req,
                                                     httplib::Response& res,
                                                     const httplib::ContentReader& reader) {
    if (!Admitted(req, res)) return;
    std::string body;
    const int refusal = GuardedServer::ReadBody(reader, &body);
    if (refusal != 0) {
      SendError(res, refusal,
                refusal == 413
                    ? "body larger than " + std::to_string(http->limits().maxBodyBytes) + " bytes"
                    : "malformed or late body");
      return;
    }
    ServeApi(req, res, body);
  });
  http->Get(R"(/admin/([A-Za-z0-9_./-]*))",
            [this](const httplib::Request& req, httplib::Response& res) {
              if (!Admitted(req, res)) return;
              ServeAsset(req.matches[1].str(), res);
            });
}

}  // namespace zolvani::refserver
