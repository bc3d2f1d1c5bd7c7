// refserver_scaleout_load: one load, three set-ups, one table. D simulated devices
// (one thread and one kept-alive connection each) validate, subscribe to two
// feeds, then sync their catalog incrementally for S seconds, against
//   sqlite   one zsm-server process on its SQLite store,
//   pg-1     one replica on PostgreSQL (a throwaway local cluster),
//   pg-3     three replicas on that PostgreSQL behind HAProxy.
// Printed per set-up: requests/s answered OK, p50/p99 latency, errors, and CPU
// milliseconds per request of the servers, of PostgreSQL and of HAProxy (the
// load client's own CPU is left out).
//
//   refserver_scaleout_load [devices=1000] [seconds=10] [setups=sqlite,pg-1,pg-3]
//
// On one machine the replicas, the database, the balancer and the client share the
// same cores: the figures show the cost per request of each part, not what
// separate machines would reach.
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/refserver/ServerProcess.h"
#include "tests/scaleout/Balancer.h"
#include "tests/scaleout/LoadClient.h"
#include "tests/scaleout/PgCluster.h"

using namespace zolvani::refserver;
using namespace zolvani::refserver::testing;
using Clock = std::chrono::steady_clock;

namespace {

// CPU seconds (user + system) that `pid` used so far; 0 when it is gone.
double CpuSeconds(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(text.substr(close + 2));
  std::string f;
  double ticks = 0;
  for (int i = 3; fields >> f; ++i) {
    if (i == 14 || i == 15) ticks += std::atof(f.c_str());
    if (i == 15) break;
  }
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Every process whose command line contains `needle` (PostgreSQL's backends).
double CpuSecondsOf(const std::string& needle) {
  double total = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream cmd(entry.path() / "cmdline");
    std::string line((std::istreambuf_iterator<char>(cmd)), std::istreambuf_iterator<char>());
    if (line.find(needle) != std::string::npos) total += CpuSeconds(std::stoi(name));
  }
  return total;
}

struct Result {
  double seconds = 0;
  size_t ok = 0, errors = 0;
  double p50 = 0, p99 = 0;
  double serverCpu = 0, databaseCpu = 0, balancerCpu = 0;
};

void Run(int devices, int seconds, int port, const std::vector<pid_t>& servers, pid_t balancer,
         const std::string& pgNeedle, Result* result) {
  LatencyLog log;
  std::atomic<bool> stop{false};
  std::barrier ready(devices + 1);
  std::vector<std::thread> threads;
  for (int d = 0; d < devices; ++d) {
    threads.emplace_back([&, d] {
      DeviceClient device("127.0.0.1", port, "load", "dev-" + std::to_string(d), "load-key",
                          "load-secret");
      ready.arrive_and_wait();
      for (const char* feed : {"f1", "f2"}) {
        LoadReply r = device.Call("subscribe", {{"feed", feed}});
        log.Add(r.ms, r.ok());
      }
      std::optional<int64_t> since;
      while (!stop) {
        nlohmann::json body = nlohmann::json::object();
        if (since) body["filter"] = {{"since", *since}};
        LoadReply r = device.Call("catalog", body);
        log.Add(r.ms, r.ok());
        if (r.ok()) since = r.body.value("last_updated", int64_t{0});
      }
    });
  }
  ready.arrive_and_wait();
  double server0 = 0;
  for (pid_t p : servers) server0 += CpuSeconds(p);
  const double db0 = pgNeedle.empty() ? 0 : CpuSecondsOf(pgNeedle);
  const double lb0 = balancer > 0 ? CpuSeconds(balancer) : 0;
  const auto start = Clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  stop = true;
  double server1 = 0;
  for (pid_t p : servers) server1 += CpuSeconds(p);
  result->databaseCpu = pgNeedle.empty() ? 0 : CpuSecondsOf(pgNeedle) - db0;
  result->balancerCpu = balancer > 0 ? CpuSeconds(balancer) - lb0 : 0;
  result->serverCpu = server1 - server0;
  result->seconds = std::chrono::duration<double>(Clock::now() - start).count();
  for (auto& t : threads) t.join();
  result->ok = log.ok();
  result->errors = log.errors();
  result->p50 = log.Percentile(50);
  result->p99 = log.Percentile(99);
}

void Seed(const std::vector<std::string>& where) {
  auto run = [&](std::vector<std::string> args) {
    args.insert(args.end(), where.begin(), where.end());
    ProgramResult r = RunServerProgram(args);
    if (r.exitCode != 0) {
      std::fprintf(stderr, "%s failed: %s\n", args[0].c_str(), r.err.c_str());
      std::exit(1);
    }
  };
  run({"add-account", "--user", "load", "--key", "load-key", "--secret", "load-secret"});
  for (int f = 1; f <= 4; ++f) run({"add-feed", "--id", "f" + std::to_string(f)});
  for (int i = 0; i < 40; ++i) {
    run({"add-item", "--uuid", "item-" + std::to_string(i), "--feed",
         "f" + std::to_string(i % 4 + 1), "--url",
         "http://cdn.invalid/" + std::to_string(i) + ".mp4", "--title",
         "Item " + std::to_string(i)});
  }
}

std::vector<std::string> ServeArgs(const std::string& node) {
  return {"--port",
          "0",
          "--no-console",
          "--node-name",
          node,
          "--max-connections",
          "4096",
          "--max-connections-per-address",
          "4096",
          "--threads",
          "64"};
}

}  // namespace

int main(int argc, char** argv) {
  const int devices = argc > 1 ? std::atoi(argv[1]) : 1000;
  const int seconds = argc > 2 ? std::atoi(argv[2]) : 10;
  const std::string setups = argc > 3 ? argv[3] : "sqlite,pg-1,pg-3";
  std::map<std::string, Result> results;
  const auto temp =
      std::filesystem::temp_directory_path() / ("zsm-scaleout-bench-" + std::to_string(getpid()));
  std::filesystem::create_directories(temp / "media");

  if (setups.find("sqlite") != std::string::npos) {
    const auto data = temp / "sqlite";
    Seed({"--data", data.string()});
    std::string error;
    auto server = ServerProcess::Start(data, ServeArgs("solo"), &error);
    if (!server) {
      std::fprintf(stderr, "sqlite server: %s\n", error.c_str());
      return 1;
    }
    Run(devices, seconds, server->port(), {server->pid()}, -1, "", &results["sqlite"]);
  }

  std::unique_ptr<PgCluster> cluster;
  std::string url;
  if (setups.find("pg-") != std::string::npos) {
    Status s = PgCluster::Start(&cluster);
    if (s.ok()) s = cluster->CreateMigratedDatabase("bench", &url);
    if (!s.ok()) {
      std::fprintf(stderr, "PostgreSQL: %s\n", s.ToString().c_str());
      return 1;
    }
    Seed({"--database", url});
  }
  // PostgreSQL's backends name the database in their process title.
  const std::string backends = "zsm bench";
  for (int replicas : {1, 3}) {
    const std::string name = "pg-" + std::to_string(replicas);
    if (setups.find(name) == std::string::npos) continue;
    std::vector<std::unique_ptr<ServerProcess>> servers;
    std::vector<pid_t> pids;
    std::vector<int> ports;
    for (int r = 0; r < replicas; ++r) {
      auto args = ServeArgs("r" + std::to_string(r + 1));
      args.insert(args.end(), {"--database", url, "--db-pool", "8"});
      std::string error;
      servers.push_back(ServerProcess::Start(temp, args, &error));
      if (!servers.back()) {
        std::fprintf(stderr, "replica: %s\n", error.c_str());
        return 1;
      }
      pids.push_back(servers.back()->pid());
      ports.push_back(servers.back()->port());
    }
    Balancer balancer;
    int port = ports[0];
    pid_t balancerPid = -1;
    if (replicas > 1) {
      std::string error;
      if (!balancer.Start(ports, &error)) {
        std::fprintf(stderr, "haproxy: %s\n", error.c_str());
        return 1;
      }
      port = balancer.port();
      balancerPid = balancer.pid();
    }
    Run(devices, seconds, port, pids, balancerPid, backends, &results[name]);
  }
  cluster.reset();
  std::error_code ec;
  std::filesystem::remove_all(temp, ec);

  std::printf("%d devices, %d s of catalog syncs after 2 subscribes each\n", devices, seconds);
  std::printf("%-8s %10s %9s %9s %8s %12s %12s %12s\n", "setup", "ok req/s", "p50 ms", "p99 ms",
              "errors", "server ms/r", "pg ms/r", "haproxy ms/r");
  for (const auto& [name, r] : results) {
    const double n = std::max<double>(1, static_cast<double>(r.ok + r.errors));
    std::printf("%-8s %10.0f %9.1f %9.1f %8zu %12.3f %12.3f %12.3f\n", name.c_str(),
                static_cast<double>(r.ok) / r.seconds, r.p50, r.p99, r.errors,
                1000 * r.serverCpu / n, 1000 * r.databaseCpu / n, 1000 * r.balancerCpu / n);
  }
  return 0;
}
