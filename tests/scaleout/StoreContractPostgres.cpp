// The store contract run against PgStore; another handle is another replica's
// pool on the same database, in the program's throwaway cluster.
#include <atomic>

#include "tests/refserver/store/StoreContract.h"
#include "tests/scaleout/PgTestSupport.h"

namespace zolvani::refserver::testing {
namespace {

class PostgresFactory : public StoreFactory {
 public:
  Status Prepare() override {
    static std::atomic<int> next{0};
    std::string error;
    PgCluster* cluster = SharedPgCluster(&error);
    if (cluster == nullptr) return Status::Unavailable("PostgreSQL is required: " + error);
    return cluster->CreateMigratedDatabase("contract_" + std::to_string(next++), &url_);
  }
  Status Open(std::unique_ptr<Store>* store) override {
    std::unique_ptr<PgStore> opened;
    PgStoreOptions options;
    options.pool.size = 4;
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
