#include "tests/scaleout/LoadClient.h"

#include <algorithm>
#include <chrono>

#include "reference/server/protocol/RequestSigner.h"

namespace zolvani::refserver::testing {

int LoadReply::code() const {
  if (!body.is_object()) return -999;
  auto h = body.find("response_header");
  if (h == body.end() || !h->is_object()) return -999;
  return h->value("response_code", -999);
}

DeviceClient::DeviceClient(std::string host, int port, std::string user, std::string device,
                           std::string key, std::string secret)
    : host_(std::move(host)),
      port_(port),
      user_(std::move(user)),
      device_(std::move(device)),
      key_(std::move(key)),
      secret_(std::move(secret)),
      client_(std::make_unique<httplib::Client>(host_, port_)) {
  client_->set_keep_alive(true);
  client_->set_connection_timeout(5);
  client_->set_read_timeout(20);
  client_->set_write_timeout(10);
}

SignedPost DeviceClient::Prepare(const std::string& endpoint, nlohmann::json members) const {
  const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  members["request_header"] = {{"device_id", device_},
                               {"user_id", user_},
                               {"timestamp", now},
                               {"key", RequestSigner::Base64(key_)}};
  SignedPost post;
  post.body = members.dump();
  const std::string hostText = RequestSigner::HostText(host_, port_);
  const std::string path = "/Subscriptions/client/" + endpoint;
  post.target =
      path + "?sig=" +
      RequestSigner::Sign("POST", hostText, "http://" + hostText + path, post.body, secret_);
  return post;
}

LoadReply DeviceClient::Send(const SignedPost& post) {
  LoadReply reply;
  const auto start = std::chrono::steady_clock::now();
  auto result = client_->Post(post.target, post.body, "application/json");
  reply.ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  if (!result) return reply;
  reply.status = result->status;
  reply.retryAfter = result->get_header_value("Retry-After");
  reply.body = nlohmann::json::parse(result->body, nullptr, false);
  return reply;
}

void LatencyLog::Add(double ms, bool ok) {
  std::lock_guard lock(mutex_);
  if (ok) {
    ms_.push_back(ms);
  } else {
    ++errors_;
  }
}

size_t LatencyLog::ok() {
  std::lock_guard lock(mutex_);
  return ms_.size();
}

size_t LatencyLog::errors() {
  std::lock_guard lock(mutex_);
  return errors_;
}

double LatencyLog::Percentile(double p) {
  std::lock_guard lock(mutex_);
  if (ms_.empty()) return 0;
  std::sort(ms_.begin(), ms_.end());
  const size_t i = std::min(ms_.size() - 1, static_cast<size_t>(p / 100.0 * ms_.size()));
  return ms_[i];
}

}  // namespace zolvani::refserver::testing
