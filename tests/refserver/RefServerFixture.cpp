#include "RefServerFixture.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <random>

#include "reference/server/media/SampleGenerator.h"

namespace zolvani::refserver::testing {

void RefServerFixture::SetUp() {
  std::random_device rd;
  dir_ = std::filesystem::temp_directory_path() /
         ("zsm-refserver-" + std::to_string(rd()) + "-" + std::to_string(rd()));
  ServerOptions options;
  options.dataDir = dir_;
  options.port = 0;
  options.threads = 8;
  options.clockMs = [this] { return nowMs_.load(); };
  ASSERT_TRUE(ContentServer::Create(options, &server_).ok());
  Store* store = server_->store();
  ASSERT_TRUE(store->AddAccount({"alice", "alice-key", "alice-secret"}).ok());
  ASSERT_TRUE(store->AddAccount({"bob", "bob-key", "bob-secret"}).ok());
  ASSERT_TRUE(store->AddFeed({"news", "News", true, {5, true, 0}}).ok());
  ASSERT_TRUE(store->AddFeed({"sports", "Sports", true, {3, false, 800000}}).ok());
  ASSERT_TRUE(store->AddFeed({"locked", "Locked", false, {1, true, 0}}).ok());
  ASSERT_TRUE(SampleGenerator::WriteMediaFile(dir_ / "media/files/clip.mp4", "clip", 300000).ok());
  ASSERT_TRUE(
      SampleGenerator::WriteHlsLadder(dir_ / "media/hls/show", SampleGenerator::DefaultLadder(), 3)
          .ok());
  ASSERT_TRUE(server_->Start().ok());
  ASSERT_GT(server_->port(), 0);
}

void RefServerFixture::TearDown() {
  if (server_) server_->Stop();
  server_.reset();
  std::error_code ec;
  std::filesystem::remove_all(dir_, ec);
}

std::string RefServerFixture::Base64(const std::string& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(bytes.data()),
                                static_cast<int>(bytes.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

std::string RefServerFixture::HmacHex(const std::string& key, const std::string& text) {
  unsigned char digest[32];
  unsigned int length = sizeof(digest);
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest, &length);
  std::string hex;
  char pair[3];
  for (unsigned int i = 0; i < length; ++i) {
    std::snprintf(pair, sizeof(pair), "%02x", digest[i]);
    hex += pair;
  }
  return hex;
}

std::string RefServerFixture::BodyText(const SignedRequest& r) const {
  nlohmann::json body = r.body;
  body["request_header"] = {{"device_id", r.device},
                            {"user_id", r.user},
                            {"timestamp", nowMs_.load() / 1000 + r.timestampOffset},
                            {"key", Base64(r.key)}};
  return body.dump();
}

std::string RefServerFixture::Signature(const SignedRequest& r, const std::string& bodyText) const {
  const std::string host = r.hostHeader.empty() ? HostHeader() : r.hostHeader;
  const std::string base = r.signedUrlBase.empty() ? "http://" + host : r.signedUrlBase;
  const std::string url = base + "/Subscriptions/client/" + r.endpoint;
  const std::string text = "POST\n" + host + "\n" + url + "\n" + bodyText + "\n" + Base64(r.secret);
  return HmacHex(r.secret, text);
}

RawReply RefServerFixture::Send(const SignedRequest& r) {
  const std::string body = BodyText(r);
  return Post("/Subscriptions/client/" + r.endpoint + "?sig=" + Signature(r, body), body,
              r.hostHeader);
}

namespace {

RawReply FromResult(const httplib::Result& result) {
  RawReply reply;
  if (!result) return reply;
  reply.status = result->status;
  reply.body = result->body;
  reply.json = nlohmann::json::parse(reply.body, nullptr, false);
  return reply;
}

}  // namespace

RawReply RefServerFixture::Post(const std::string& target, const std::string& bodyText,
                                const std::string& hostHeader) {
  httplib::Client client("127.0.0.1", server_->port());
  httplib::Headers headers = {{"Host", hostHeader.empty() ? HostHeader() : hostHeader}};
  return FromResult(client.Post(target.c_str(), headers, bodyText, "application/json"));
}

RawReply RefServerFixture::Get(const std::string& path, const httplib::Headers& headers) {
  httplib::Client client("127.0.0.1", server_->port());
  return FromResult(client.Get(path.c_str(), headers));
}

}  // namespace zolvani::refserver::testing
