#include "tests/scaleout/Balancer.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

namespace zolvani::refserver::testing {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Bound, read, closed; never listened on, so no connection can queue on it.
int FreeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    port = ntohs(addr.sin_port);
  }
  close(fd);
  return port;
}

bool Balancer::Start(const std::vector<int>& replicaPorts, std::string* error) {
  folder_ = std::filesystem::temp_directory_path() / ("zsm-haproxy-" + std::to_string(getpid()));
  std::filesystem::create_directories(folder_);
  port_ = FreeLoopbackPort();
  statsPort_ = FreeLoopbackPort();
  std::ostringstream servers;
  for (size_t i = 0; i < replicaPorts.size(); ++i) {
    servers << "  server r" << i + 1 << " 127.0.0.1:" << replicaPorts[i] << " check\n";
  }
  // The configuration of the server README's deployment section: reads are
  // retried on another replica, changes only when they never reached one.
  std::ofstream cfg(folder_ / "haproxy.cfg");
  cfg << "global\n  maxconn 4096\n"
      << "defaults\n  mode http\n  timeout connect 1s\n  timeout client 30s\n"
      << "  timeout server 30s\n  timeout check 500ms\n"
      << "frontend fe\n  bind 127.0.0.1:" << port_ << "\n"
      << "  http-request deny if { path_beg /admin }\n"
      << "  acl change path_end /subscribe /unsubscribe /addItemAndNotifyDevice\n"
      << "  use_backend zsm_change if change\n  default_backend zsm_read\n"
      << "backend zsm_read\n  balance roundrobin\n  retries 2\n  option redispatch 1\n"
      << "  retry-on conn-failure empty-response response-timeout\n"
      << "  option httpchk GET " << kHealthPath << "\n"
      << "  default-server inter 300ms fall 2 rise 2 maxconn 200\n"
      << servers.str()
      << "backend zsm_change\n  balance roundrobin\n  retries 2\n  option redispatch 1\n"
      << "  retry-on conn-failure\n  option httpchk GET " << kHealthPath << "\n"
      << "  default-server inter 300ms fall 2 rise 2 maxconn 200\n"
      << servers.str() << "listen stats\n  bind 127.0.0.1:" << statsPort_
      << "\n  stats enable\n  stats uri /stats\n";
  cfg.close();
  pid_ = fork();
  if (pid_ == 0) {
    const std::string log = (folder_ / "haproxy.log").string();
    FILE* out = std::fopen(log.c_str(), "w");
    if (out != nullptr) {
      dup2(fileno(out), STDOUT_FILENO);
      dup2(fileno(out), STDERR_FILENO);
    }
    const std::string file = (folder_ / "haproxy.cfg").string();
    execlp("haproxy", "haproxy", "-db", "-f", file.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  // Up when every replica is UP in both backends.
  const auto deadline = Clock::now() + 10s;
  while (Clock::now() < deadline) {
    int up = 0;
    for (auto& [key, status] : States()) up += status == "UP";
    if (up == static_cast<int>(2 * replicaPorts.size())) return true;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      break;
    }
    std::this_thread::sleep_for(50ms);
  }
  std::ifstream log(folder_ / "haproxy.log");
  std::stringstream text;
  text << log.rdbuf();
  *error = "haproxy did not bring the replicas up: " + text.str();
  for (auto& [server, status] : States()) *error += " " + server + "=" + status;
  return false;
}

void Balancer::Stop() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
  }
  std::error_code ec;
  if (!folder_.empty()) std::filesystem::remove_all(folder_, ec);
}

std::map<std::string, std::string> Balancer::Column(const std::string& name) {
  std::map<std::string, std::string> values;
  httplib::Client client("127.0.0.1", statsPort_);
  client.set_connection_timeout(1);
  client.set_read_timeout(1);
  client.set_url_encode(false);  // ";csv" must reach HAProxy as it is
  auto r = client.Get("/stats;csv");
  for (int retry = 0; retry < 3 && (!r || r->status != 200); ++retry) r = client.Get("/stats;csv");
  if (!r || r->status != 200) return values;
  std::istringstream lines(r->body);
  std::string line;
  std::vector<std::string> header;
  auto split = [](const std::string& text) {
    std::vector<std::string> cells;
    std::string cell;
    std::istringstream in(text);
    while (std::getline(in, cell, ',')) cells.push_back(cell);
    return cells;
  };
  while (std::getline(lines, line)) {
    if (line.rfind("# ", 0) == 0) {
      header = split(line.substr(2));
      continue;
    }
    auto cells = split(line);
    auto at = std::find(header.begin(), header.end(), name);
    if (cells.size() < 2 || at == header.end()) continue;
    const size_t i = static_cast<size_t>(at - header.begin());
    if (cells[1] == "FRONTEND" || cells[1] == "BACKEND" || i >= cells.size()) continue;
    values[cells[0] + "/" + cells[1]] = cells[i];
  }
  return values;
}

}  // namespace zolvani::refserver::testing
