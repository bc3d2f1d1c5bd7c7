// How many requests per second the library can build and sign (request header,
// JSON body, serialisation, HMAC and URL), set against the HMAC alone. Nothing
// is sent: the benchmark measures the client's own work per request.
#include <benchmark/benchmark.h>

#include <memory>

#include "server/RequestSigner.h"
#include "server/ServerClient.h"
#include "zolvani/subscription/engine/EngineRoles.h"
#include "zolvani/subscription/platform/FileUserDefaults.h"

namespace zolvani {
namespace {

class BenchEngine final : public ZolvaniDownloadEngine, public ZFM_UUID, public ZolvaniSecureClock {
 public:
  bool started() override { return true; }
  std::string user() override { return "bench-user"; }
  std::string keelhallURL() override { return "https://content.example.test:8443/api"; }
  std::string secret() override { return "0123456789abcdef0123456789abcdef"; }
  std::string key() override { return "public-key-for-the-benchmark"; }
  void startupWithKeelhall(std::string, std::string, std::string, std::string, std::string, bool,
                           std::function<void(bool, std::optional<Error>)>) override {}
  std::vector<std::string> assetsInQueue() override { return {}; }
  void addToQueue(std::shared_ptr<ZolvaniAsset>, std::uint64_t,
                  std::function<void(bool, std::optional<Error>)>) override {}
  std::string UUID() override { return "6F9619FF-8B86-D011-B42D-00C04FC964FF"; }
  Date date() override { return Date(1700000000.0); }
};

std::unique_ptr<ServerClient> makeClient() {
  auto engine = std::make_shared<BenchEngine>();
  ServerClient::Dependencies deps;
  deps.engine.downloadEngine = engine;
  deps.engine.uuid = engine;
  deps.engine.secureClock = engine;
  deps.userDefaults = std::make_shared<FileUserDefaults>();
  return std::make_unique<ServerClient>(std::move(deps));
}

// A catalog-like request: header, a small filter, serialised, signed.
void BM_BuildAndSignRequest(benchmark::State& state) {
  auto client = makeClient();
  for (auto _ : state) {
    nlohmann::json body = nlohmann::json::object();
    body["request_header"] = *client->requestHeader();
    body["filter"] = {{"since", 1699999999000}, {"subscribed", true}};
    HttpRequest request = client->makeRequest("catalog", ServerClient::serialize(body));
    benchmark::DoNotOptimize(request.url);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel("requests");
}
BENCHMARK(BM_BuildAndSignRequest);

// The HMAC-SHA256 of a string to sign of the same size, nothing else.
void BM_HmacOnly(benchmark::State& state) {
  auto client = makeClient();
  nlohmann::json body = nlohmann::json::object();
  body["request_header"] = *client->requestHeader();
  body["filter"] = {{"since", 1699999999000}, {"subscribed", true}};
  const std::string toSign = RequestSigner::stringToSign(
      "POST", "content.example.test:8443",
      "https://content.example.test:8443/api/Subscriptions/client/catalog",
      ServerClient::serialize(body), "MDEyMzQ1Njc4OWFiY2RlZjAxMjM0NTY3ODlhYmNkZWY=");
  const std::string key = "0123456789abcdef0123456789abcdef";
  for (auto _ : state) benchmark::DoNotOptimize(RequestSigner::hmacSha256Hex(key, toSign));
  state.SetItemsProcessed(state.iterations());
  state.SetLabel("signatures");
}
BENCHMARK(BM_HmacOnly);

}  // namespace
}  // namespace zolvani

BENCHMARK_MAIN();
