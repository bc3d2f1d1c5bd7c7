// Helpers for the reference engine's tests: a fresh data folder per test and an
// engine started over it with test-friendly options.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "zolvani/reference/ReferenceEngine.h"

namespace zolvani::testing {

// A fresh, empty folder under the system temporary folder, removed on
// destruction.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Options for tests: the given folder, short retry delays, a small free-space
// margin, online.
reference::ReferenceEngineOptions testOptions(const std::filesystem::path& folder);

// A started engine; fails the current test when start() fails.
std::unique_ptr<reference::ReferenceEngine> startEngine(
    const reference::ReferenceEngineOptions& options);

// Makes a single-file asset through the factory.
std::shared_ptr<ZolvaniAsset> makeFileAsset(reference::ReferenceEngine& engine,
                                            const std::string& url, const std::string& assetID);

// Waits (bounded) until the asset reaches a final state; returns its info.
reference::AssetInfo waitForAsset(reference::ReferenceEngine& engine, const std::string& uuid,
                                  int timeoutMs = 10000);

std::string readFile(const std::filesystem::path& path);

// Every regular file under `root`.
std::vector<std::filesystem::path> filesUnder(const std::filesystem::path& root);

}  // namespace zolvani::testing
