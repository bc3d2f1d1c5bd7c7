// The engine contract suite run against the in-memory engine.
#include "engine/EngineContractSuite.h"
#include "support/InMemoryEngine.h"

namespace zolvani::testing {
namespace {

class InMemoryHarness final : public EngineHarness {
 public:
  ZolvaniEngine roles() override { return engine_->roles(); }
  std::shared_ptr<ZolvaniAsset> makeAsset(const std::string& assetID, Date creationDate) override {
    auto roles = engine_->roles();
    auto asset = roles.assets->assetWithRemoteURL(
        "http://127.0.0.1/" + assetID, assetID, "Title " + assetID, std::nullopt, std::nullopt,
        -42.0, -42.0, -1, false, std::nullopt, nullptr, nullptr);
    asset->_setCreationDate(creationDate);
    return asset;
  }
  void markDownloaded(const std::string& uuid, Date when) override {
    engine_->asset(uuid)->setDownloadComplete(when);
  }
  void restart() override { engine_->context()->rollback(); }

 private:
  std::shared_ptr<InMemoryEngine> engine_ = InMemoryEngine::create();
};

INSTANTIATE_TEST_SUITE_P(InMemory, EngineContractTest,
                         ::testing::Values(EngineHarnessFactory{
                             "InMemory", [] { return std::make_unique<InMemoryHarness>(); }}),
                         harnessName);

}  // namespace
}  // namespace zolvani::testing
