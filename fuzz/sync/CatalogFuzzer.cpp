// Feeds arbitrary bytes, as a catalog body, through the catalog parser, the
// default data source in both modes, and both admission steps over the
// in-memory engine. Nothing may crash, hang or throw.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "support/TestEnvironment.h"
#include "sync/CatalogSync.h"
#include "sync/ItemAdmission.h"

namespace {

using zolvani::testing::TestBed;

// A manager over the in-memory engine; renewed now and then so that assets
// made by earlier inputs do not pile up.
std::unique_ptr<TestBed> bed;
int uses = 0;

TestBed& currentBed() {
  if (!bed || ++uses % 2000 == 0) {
    bed = std::make_unique<TestBed>([](TestBed& b) {
      b.engine->readyInline = true;
      b.engine->setDate(zolvani::Date(1800000000.0));
    });
    bed->defaults->setDate(zolvani::LastSyncKey, zolvani::Date(1700000000.0));
    // Feeds named by short identifiers get rules, so admission reaches the
    // feed store's tracking and deferring paths.
    bed->manager->setMaxItems(2, false, 0, "A");
    bed->manager->setMaxItems(-1, false, 0, "B");
    bed->manager->setMaxItems(1, true, 0, "C");
  }
  return *bed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  nlohmann::json response = zolvani::CatalogSync::parseCatalog(body);
  auto part = [&](const char* key) {
    return response.is_object() && response.contains(key) ? response[key] : nlohmann::json();
  };

  TestBed& b = currentBed();
  std::optional<zolvani::Value::Array> subscriptions = zolvani::Value::Array{"A", "B", "C", ""};
  zolvani::sync::ItemAdmission::processDirectItems(b.manager, part("contentItems"));
  zolvani::sync::ItemAdmission::processFeeds(b.manager, part("collections"), subscriptions,
                                             zolvani::Date(1700000000.0), nullptr, [] {});
  (void)zolvani::CatalogSync::lastSyncDate(part("last_updated"), zolvani::Date(1800000000.0));
  b.mainQueue->poll();
  return 0;
}
