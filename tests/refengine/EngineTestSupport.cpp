#include "EngineTestSupport.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "zolvani/subscription/platform/Platform.h"

namespace zolvani::testing {

TempFolder::TempFolder() {
  path_ = std::filesystem::temp_directory_path() / ("zre-test-" + newUUIDString());
  std::filesystem::create_directories(path_);
}

TempFolder::~TempFolder() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

reference::ReferenceEngineOptions testOptions(const std::filesystem::path& folder) {
  reference::ReferenceEngineOptions o;
  o.dataFolder = folder;
  o.retryBaseDelay = std::chrono::milliseconds(10);
  o.retryMaxDelay = std::chrono::milliseconds(50);
  o.maxAttempts = 3;
  o.freeSpaceMargin = 0;
  o.reachabilityOverride = true;
  o.progressPersistInterval = std::chrono::milliseconds(50);
  o.keelhallURL = "http://127.0.0.1:1";
  return o;
}

std::unique_ptr<reference::ReferenceEngine> startEngine(
    const reference::ReferenceEngineOptions& options) {
  auto engine = std::make_unique<reference::ReferenceEngine>(options);
  auto error = engine->start();
  EXPECT_FALSE(error.has_value()) << (error ? error->describe() : "");
  return engine;
}

std::shared_ptr<ZolvaniAsset> makeFileAsset(reference::ReferenceEngine& engine,
                                            const std::string& url, const std::string& assetID) {
  return engine.roles().assets->assetWithRemoteURL(url, assetID, "Title " + assetID, std::nullopt,
                                                   std::nullopt, -42.0, -42.0, -1, false,
                                                   std::nullopt, nullptr, nullptr);
}

reference::AssetInfo waitForAsset(reference::ReferenceEngine& engine, const std::string& uuid,
                                  int timeoutMs) {
  using reference::AssetState;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    auto info = engine.assetInfo(uuid);
    if (!info) return {};
    if (info->state == AssetState::kComplete || info->state == AssetState::kFailed ||
        std::chrono::steady_clock::now() > deadline)
      return *info;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<std::filesystem::path> filesUnder(const std::filesystem::path& root) {
  std::vector<std::filesystem::path> out;
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
    if (it->is_regular_file()) out.push_back(it->path());
  return out;
}

}  // namespace zolvani::testing
