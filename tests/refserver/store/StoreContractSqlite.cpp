// The store contract run against SqliteStore; another handle is another connection
// to the same server.sqlite, as another process on the same data folder has.
#include <filesystem>
#include <random>

#include "StoreContract.h"
#include "reference/server/store/sqlite/SqliteStore.h"

namespace zolvani::refserver::testing {
namespace {

class SqliteFactory : public StoreFactory {
 public:
  Status Prepare() override {
    std::random_device rd;
    dir_ = std::filesystem::temp_directory_path() /
           ("zsm-store-contract-" + std::to_string(rd()) + "-" + std::to_string(rd()));
    return Status::OK();
  }
  Status Open(std::unique_ptr<Store>* store) override {
    std::unique_ptr<SqliteStore> opened;
    Status s = SqliteStore::Open(dir_, &opened);
    if (s.ok()) *store = std::move(opened);
    return s;
  }
  void Discard() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

 private:
  std::filesystem::path dir_;
};

INSTANTIATE_TEST_SUITE_P(Sqlite, StoreContractTest,
                         ::testing::Values(StoreContractParam{
                             "Sqlite", [] { return std::make_unique<SqliteFactory>(); }}),
                         StoreContractParamName);

}  // namespace
}  // namespace zolvani::refserver::testing
