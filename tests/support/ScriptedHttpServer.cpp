#include "support/ScriptedHttpServer.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace zolvani::testing {
namespace {

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

}  // namespace

std::vector<std::string> RecordedRequest::headerValues(std::string_view name) const {
  std::vector<std::string> out;
  for (const auto& [n, v] : headers)
    if (sameName(n, name)) out.push_back(v);
  return out;
}

ScriptedHttpServer::ScriptedHttpServer() : server_(std::make_unique<httplib::Server>()) {
  auto serve = [this](const httplib::Request& req, httplib::Response& res) {
    RecordedRequest recorded;
    recorded.method = req.method;
    recorded.path = req.path;
    recorded.target = req.target;
    auto q = req.target.find('?');
    if (q != std::string::npos) recorded.query = req.target.substr(q + 1);
    for (const auto& [name, value] : req.headers) recorded.headers.emplace_back(name, value);
    recorded.body = req.body;

    ScriptedReply reply;
    std::unique_lock lock(mutex_);
    requests_.push_back(recorded);
    if (handler_) {
      auto handler = handler_;
      lock.unlock();
      reply = handler(recorded);
      lock.lock();
    } else if (!replies_.empty()) {
      reply = std::move(replies_.front());
      replies_.pop_front();
    } else {
      reply = fallback_;
    }
    changed_.notify_all();
    if (reply.silent) {
      changed_.wait(lock, [this] { return stopping_; });
      res.status = 503;
      return;
    }
    res.status = reply.status;
    for (const auto& [name, value] : reply.headers) res.set_header(name.c_str(), value);
    res.set_content(reply.body, reply.contentType.c_str());
  };
  server_->Post(".*", serve);
  server_->Get(".*", serve);
  server_->Put(".*", serve);
  server_->Delete(".*", serve);
  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("ScriptedHttpServer: cannot bind 127.0.0.1");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // stop() is a no-op until the accept loop runs, so wait for it here.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!server_->is_running() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

ScriptedHttpServer::~ScriptedHttpServer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

std::string ScriptedHttpServer::baseUrl() const {
  return "http://127.0.0.1:" + std::to_string(port_);
}

void ScriptedHttpServer::enqueue(ScriptedReply reply) {
  std::lock_guard lock(mutex_);
  replies_.push_back(std::move(reply));
}

void ScriptedHttpServer::setFallback(ScriptedReply reply) {
  std::lock_guard lock(mutex_);
  fallback_ = std::move(reply);
}

void ScriptedHttpServer::setHandler(std::function<ScriptedReply(const RecordedRequest&)> handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

std::vector<RecordedRequest> ScriptedHttpServer::requests() const {
  std::lock_guard lock(mutex_);
  return requests_;
}

std::size_t ScriptedHttpServer::requestCount() const {
  std::lock_guard lock(mutex_);
  return requests_.size();
}

bool ScriptedHttpServer::waitForRequests(std::size_t count,
                                         std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

}  // namespace zolvani::testing
