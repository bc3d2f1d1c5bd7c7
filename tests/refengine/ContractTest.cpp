// The engine contract suite run against the reference engine.
#include "EngineTestSupport.h"
#include "engine/EngineContractSuite.h"

namespace zolvani::testing {
namespace {

class ReferenceHarness final : public EngineHarness {
 public:
  ReferenceHarness() { engine_ = startEngine(testOptions(folder_.path())); }
  ZolvaniEngine roles() override { return engine_->roles(); }
  std::shared_ptr<ZolvaniAsset> makeAsset(const std::string& assetID, Date creationDate) override {
    auto asset = makeFileAsset(*engine_, "http://127.0.0.1:1/" + assetID, assetID);
    asset->_setCreationDate(creationDate);
    return asset;
  }
  void markDownloaded(const std::string& uuid, Date when) override {
    engine_->markDownloaded(uuid, when);
  }
  void restart() override {
    // Nothing is saved on the way down: what the store has is what a killed
    // process would leave.
    engine_.reset();
    engine_ = startEngine(testOptions(folder_.path()));
  }

 private:
  TempFolder folder_;
  std::unique_ptr<reference::ReferenceEngine> engine_;
};

INSTANTIATE_TEST_SUITE_P(Reference, EngineContractTest,
                         ::testing::Values(EngineHarnessFactory{
                             "Reference", [] { return std::make_unique<ReferenceHarness>(); }}),
                         harnessName);

}  // namespace
}  // namespace zolvani::testing
