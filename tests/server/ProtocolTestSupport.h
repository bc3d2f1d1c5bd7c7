// Shared pieces of the protocol tests: a manager wired to a real libcurl
// transport and a scripted loopback server, an independent recomputation of
// the request signature, and completion capture.
#pragma once

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/ScriptedHttpServer.h"
#include "support/TestEnvironment.h"
#include "zolvani/subscription/platform/CurlHttpTransport.h"

namespace zolvani::testing {

inline constexpr const char* kSecret = "top-secret-key";
inline constexpr const char* kPublicKey = "public key";
inline constexpr const char* kLinePrefix =
    "-[ZolvaniSubscriptionManager logString:atLevel:] [Line 1581] ";

// Base64 and HMAC done with OpenSSL directly, not with the library's code.
inline std::string opensslBase64(const std::string& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                          reinterpret_cast<const unsigned char*>(bytes.data()),
                          static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(n));
  return out;
}

inline std::string opensslHmacHex(const std::string& key, const std::string& message) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest, &length);
  std::string hex;
  char buffer[3];
  for (unsigned int i = 0; i < length; ++i) {
    std::snprintf(buffer, sizeof buffer, "%02x", digest[i]);
    hex += buffer;
  }
  return hex;
}

// Checks the URL, "Host" header and signature of a recorded request against a
// signature recomputed here from what went over the wire.
inline void expectSigned(const RecordedRequest& request, const std::string& baseUrl,
                         const std::string& endpoint, const std::string& expectedHost,
                         const std::string& secret = kSecret) {
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.headerValues("Content-Type"), std::vector<std::string>{"application/json"});
  ASSERT_EQ(request.headerValues("Host"), std::vector<std::string>{expectedHost});
  const std::string url = baseUrl + "/Subscriptions/client/" + endpoint;
  ASSERT_EQ(request.query.substr(0, 4), "sig=") << request.target;
  const std::string signature = request.query.substr(4);
  EXPECT_EQ(signature.size(), 64u);
  EXPECT_EQ(signature.find_first_not_of("0123456789abcdef"), std::string::npos);
  const std::string toSign =
      "POST\n" + expectedHost + "\n" + url + "\n" + request.body + "\n" + opensslBase64(secret);
  EXPECT_EQ(signature, opensslHmacHex(secret, toSign)) << "string to sign:\n" << toSign;
}

struct Outcome {
  bool called = false;
  bool calledBeforeReturn = false;
  bool success = false;
  std::optional<Error> error;
  std::optional<Value::Array> list;
};

// A manager over the in-memory engine whose requests go over libcurl to a
// scripted server on 127.0.0.1.
struct Loopback {
  explicit Loopback(std::chrono::milliseconds timeout = std::chrono::milliseconds(5000))
      : bed([&](TestBed& b) {
          b.transport = std::make_shared<CurlHttpTransport>(CurlHttpTransport::Options{timeout});
          b.engine->setCredentials(server.baseUrl(), "alice", kSecret, kPublicKey);
        }) {}

  // Runs what the main queue still holds (status notifications posted after a
  // completion), so no task keeps the manager alive past the test.
  ~Loopback() { bed.settle(std::chrono::milliseconds(500)); }

  // Pumps the main queue until `outcome` is called.
  bool await(const std::shared_ptr<Outcome>& outcome,
             std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
    return bed.mainQueue->runUntil([&] { return outcome->called; }, timeout);
  }

  ResultCompletion result(const std::shared_ptr<Outcome>& outcome) {
    return [outcome](bool success, std::optional<Error> error) {
      outcome->called = true;
      outcome->success = success;
      outcome->error = std::move(error);
    };
  }
  SubscriptionsCompletion lookup(const std::shared_ptr<Outcome>& outcome) {
    return [outcome](std::optional<Value::Array> list, std::optional<Error> error) {
      outcome->called = true;
      outcome->success = !error;
      outcome->list = std::move(list);
      outcome->error = std::move(error);
    };
  }

  bool loggedLine(const std::string& text, std::int64_t level) const {
    return bed.engine->logged(kLinePrefix + text, level);
  }

  ScriptedHttpServer server;
  TestBed bed;
};

}  // namespace zolvani::testing
