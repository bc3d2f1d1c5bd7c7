// The engine contract as one test suite that any engine implementation runs.
//
// An implementation provides an EngineHarness (how to make a prepared asset,
// mark it downloaded, and restart the engine as a process would after dying)
// and instantiates the suite:
//
//   INSTANTIATE_TEST_SUITE_P(MyEngine, EngineContractTest,
//                            ::testing::Values(EngineHarnessFactory{"MyEngine", makeMine}),
//                            harnessName);
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "zolvani/subscription/engine/EngineRoles.h"

namespace zolvani::testing {

class EngineHarness {
 public:
  virtual ~EngineHarness() = default;
  // The engine's roles; fresh objects after restart().
  virtual ZolvaniEngine roles() = 0;
  // A single-file asset made through the factory and ready for download.
  virtual std::shared_ptr<ZolvaniAsset> makeAsset(const std::string& assetID,
                                                  Date creationDate) = 0;
  // Marks an asset's download complete at `when`.
  virtual void markDownloaded(const std::string& uuid, Date when) = 0;
  // Ends the engine as a killed process would (unsaved store changes are lost)
  // and starts it again over the same persistent state.
  virtual void restart() = 0;
};

struct EngineHarnessFactory {
  std::string name;
  std::function<std::unique_ptr<EngineHarness>()> make;
};

// Keeps test names readable: a factory prints as its name.
inline void PrintTo(const EngineHarnessFactory& factory, std::ostream* out) { *out << factory.name; }

inline std::string harnessName(const ::testing::TestParamInfo<EngineHarnessFactory>& info) {
  return info.param.name;
}

class EngineContractTest : public ::testing::TestWithParam<EngineHarnessFactory> {
 protected:
  void SetUp() override { harness = GetParam().make(); }
  std::unique_ptr<EngineHarness> harness;
};

}  // namespace zolvani::testing
