#include "reference/server/console/ConsoleSite.h"

#include "reference/server/console/ConsoleAssets.h"

namespace zolvani::refserver {

namespace {

void SendError(Response& res, int status, const std::string& message) {
  res.status = status;
  res.SetHeader("Cache-Control", "no-store");
  res.SetContent(nlohmann::json{{"error", message}}.dump(), "application/json");
}

// Pages take scripts, styles and data from this server only, and may not be
// framed by another site (which could trick a click).
void SetPageHeaders(Response& res) {
  res.SetHeader("Content-Security-Policy",
                "default-src 'self'; img-src 'self' data:; frame-ancestors 'none'; "
                "base-uri 'none'; form-action 'self'");
  res.SetHeader("X-Content-Type-Options", "nosniff");
  res.SetHeader("X-Frame-Options", "DENY");
  res.SetHeader("Referrer-Policy", "same-origin");
}

}  // namespace

bool ConsoleSite::IsLoopback(const std::string& address) {
  return address.rfind("127.", 0) == 0 || address == "::1" || address.rfind("::ffff:127.", 0) == 0;
}

bool ConsoleSite::Admitted(const Request& req, Response& res) {
  if (ownListener_ && !req.onConsoleListener) {
    // The public listener does not know the console at all.
    res.status = 404;
    res.SetContent("not found\n", "text/plain");
    return false;
  }
  if (req.viaTrustedProxy) {
    SendError(res, 403, "the console does not answer through a proxy");
    figures_->Record("console", 403, 0, clockMs_());
    return false;
  }
  if (fromAnywhere_ || IsLoopback(req.remoteAddr)) return true;
  SendError(res, 403, "the console answers on the loopback interface only");
  figures_->Record("console", 403, 0, clockMs_());
  return false;
}

void ConsoleSite::ServeAsset(const std::string& path, Response& res) {
  const ConsoleAsset* asset = FindConsoleAsset(path.empty() ? "index.html" : path);
  SetPageHeaders(res);
  if (asset == nullptr) {
    res.status = 404;
    res.SetContent("not found\n", "text/plain");
    return;
  }
  res.SetHeader("Cache-Control", "no-cache");
  res.SetContent(std::string(asset->body.data(), asset->body.size()),
                 std::string(asset->contentType));
}

void ConsoleSite::ServeApi(const Request& req, Response& res) {
  AdminRequest request;
  request.method = req.method;
  request.route = req.matches[1];
  for (const auto& [name, value] : req.params) request.query.emplace(name, value);
  request.cookie = req.header("Cookie");
  request.csrf = req.header(AdminApi::kCsrfHeader);
  request.origin = req.header("Origin");
  request.host = req.header("Host");
  request.peer = req.remoteAddr;
  request.forwardedFor = req.header("X-Forwarded-For");
  request.forwardedProto = req.header("X-Forwarded-Proto");
  request.body = req.body;
  AdminReply reply = api_->Handle(request);
  for (const auto& cookie : reply.setCookies) res.SetHeader("Set-Cookie", cookie);
  for (const auto& [name, value] : reply.headers) res.SetHeader(name, value);
  res.status = reply.status;
  res.SetHeader("Cache-Control", "no-store");
  SetPageHeaders(res);
  res.SetContent(reply.body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                 "application/json");
  figures_->Record("console", reply.status, 0, clockMs_());
}

void ConsoleSite::Install(Router* router) {
  router->Get("/admin", [this](const Request& req, Response& res) {
    if (!Admitted(req, res)) return;
    res.SetRedirect("/admin/");
  });
  router->Get(R"(/admin/api/([a-z/]+))", [this](const Request& req, Response& res) {
    if (!Admitted(req, res)) return;
    ServeApi(req, res);
  });
  // The transport has read the body within its limits, or refused the request.
  router->Post(R"(/admin/api/([a-z/]+))", [this](const Request& req, Response& res) {
    if (!Admitted(req, res)) return;
    ServeApi(req, res);
  });
  router->Get(R"(/admin/([A-Za-z0-9_./-]*))", [this](const Request& req, Response& res) {
    if (!Admitted(req, res)) return;
    ServeAsset(req.matches[1], res);
  });
}

}  // namespace zolvani::refserver
