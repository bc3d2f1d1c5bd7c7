// The store contract run against PgStore: each test gets a migrated database of its
// own on the program's throwaway cluster, and each handle is a pool of its own, as
// each replica has.
#include <atomic>
#include <string>

#include "reference/server/store/postgres/PgStore.h"
#include "tests/refserver/store/StoreContract.h"
#include "tests/scaleout/PgTestSupport.h"

namespace zolvani::refserver::testing {
namespace {

class PostgresFactory : public StoreFactory {
 public:
  Status Prepare() override {
    static std::atomic<int> made{0};
    std::string error;
    PgCluster* cluster = SharedPgCluster(&error);
    if (cluster == nullptr) return Status::IOError("PostgreSQL is required: " + error);
    return cluster->CreateMigratedDatabase("contract_" + std::to_string(++made), &url_);
  }
  Status Open(std::unique_ptr<Store>* store) override {
    PgStoreOptions options;
    options.pool.size = 4;
    std::unique_ptr<PgStore> opened;
    Status s = PgStore::Open(url_, options, &opened);
    if (s.ok()) *store = std::move(opened);
    return s;
  }
  void Discard() override {}  // the cluster goes with the program

 private:
  std::string url_;
};

INSTANTIATE_TEST_SUITE_P(Postgres, StoreContractTest,
                         ::testing::Values(StoreContractParam{
                             "Postgres", [] { return std::make_unique<PostgresFactory>(); }}),
                         StoreContractParamName);

}  // namespace
}  // namespace zolvani::refserver::testing
