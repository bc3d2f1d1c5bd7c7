#include "reference/server/console/ConsoleAssets.h"

namespace zolvani::refserver {

const ConsoleAsset* FindConsoleAsset(std::string_view path) {
  for (const ConsoleAsset& asset : ConsoleAssetTable()) {
    if (asset.path == path) return &asset;
  }
  return nullptr;
}

}  // namespace zolvani::refserver
