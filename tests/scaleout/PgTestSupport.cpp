#include "tests/scaleout/PgTestSupport.h"

#include <algorithm>
#include <cctype>
#include <mutex>

namespace zolvani::refserver::testing {

PgCluster* SharedPgCluster(std::string* error) {
  static std::once_flag once;
  static std::unique_ptr<PgCluster> cluster;
  static Status started;
  std::call_once(once, [] {
    started = PgCluster::Start(&cluster);
    // Stopped when the program exits, with the cluster's destructor.
  });
  if (!started.ok()) *error = started.ToString();
  return cluster.get();
}

void PgTest::SetUp() {
  std::string error;
  cluster_ = SharedPgCluster(&error);
  ASSERT_NE(cluster_, nullptr) << "PostgreSQL is required for this test: " << error;
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string(info->test_suite_name()) + "_" + info->name();
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return std::isalnum(c) ? std::tolower(c) : '_'; });
  name.resize(std::min<size_t>(name.size(), 60));  // PostgreSQL's identifiers stop at 63
  Status s = cluster_->CreateMigratedDatabase(name, &url_);
  ASSERT_TRUE(s.ok()) << s.ToString();
}

std::unique_ptr<PgStore> PgTest::OpenStore(int poolSize) {
  PgStoreOptions options;
  options.pool.size = poolSize;
  std::unique_ptr<PgStore> store;
  Status s = PgStore::Open(url_, options, &store);
  EXPECT_TRUE(s.ok()) << s.ToString();
  return store;
}

}  // namespace zolvani::refserver::testing
