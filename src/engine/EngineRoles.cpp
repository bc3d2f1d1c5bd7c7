#include "zolvani/subscription/engine/EngineRoles.h"

#include <mutex>

namespace zolvani {
namespace {

std::once_flag installOnce;
std::optional<ZolvaniEngine> installed;

}  // namespace

bool ZolvaniEngine::complete() const {
  return downloadEngine && keelhall && eventHandler && logger && secureClock && appPersistence &&
         reachability && uuid && utilities && sessionHelper && assets;
}

bool installEngine(ZolvaniEngine engine) {
  bool took = false;
  std::call_once(installOnce, [&] {
    installed = std::move(engine);
    took = true;
  });
  return took;
}

const ZolvaniEngine* installedEngine() { return installed ? &*installed : nullptr; }

}  // namespace zolvani
