// RefServerFixture: a reference server running in-process on 127.0.0.1 with a
// controllable clock, a seeded store in a temporary folder, and a client that signs
// requests the way a device does (written here from the protocol, independently of
// the server's own signing code).
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "reference/server/ContentServer.h"

namespace zolvani::refserver::testing {

struct SignedRequest {
  std::string endpoint = "validate";
  nlohmann::json body = nlohmann::json::object();  // members besides "request_header"
  std::string user = "alice";
  std::string device = "device-1";
  std::string key = "alice-key";        // public key, Base64-encoded into the header
  std::string secret = "alice-secret";  // signing secret
  int64_t timestampOffset = 0;          // seconds added to the server's clock
  std::string hostHeader;               // empty: "127.0.0.1:<port>"
  std::string signedUrlBase;            // empty: "http://" + host header
};

struct RawReply {
  int status = 0;  // 0: no reply
  std::string body;
  nlohmann::json json;  // parsed body, discarded when not JSON
  int code() const {
    return json.is_object() ? json["response_header"].value("response_code", -999) : -999;
  }
};

class RefServerFixture : public ::testing::Test {
 protected:
  static constexpr int64_t kNowMs = 1700000000000;  // 2023-11-14 22:13:20 UTC

  void SetUp() override;
  void TearDown() override;

  // Standard Base64 and lower-case hex HMAC-SHA256, for building signatures.
  static std::string Base64(const std::string& bytes);
  static std::string HmacHex(const std::string& key, const std::string& text);

  // The header and the body text a device would send for `r` now.
  std::string BodyText(const SignedRequest& r) const;
  // Signature of `bodyText` posted to `r.endpoint`.
  std::string Signature(const SignedRequest& r, const std::string& bodyText) const;

  // Builds, signs and posts `r`.
  RawReply Send(const SignedRequest& r);
  // Posts `bodyText` to `target` (path and query) as given.
  RawReply Post(const std::string& target, const std::string& bodyText,
                const std::string& hostHeader = "");

  RawReply Get(const std::string& path, const httplib::Headers& headers = {});

  std::string HostHeader() const { return "127.0.0.1:" + std::to_string(server_->port()); }

  std::filesystem::path dir_;
  std::atomic<int64_t> nowMs_{kNowMs};
  std::unique_ptr<ContentServer> server_;
};

}  // namespace zolvani::refserver::testing
