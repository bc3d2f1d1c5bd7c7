#include "tests/scaleout/PgCluster.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libpq-fe.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include "reference/server/store/postgres/PgSchema.h"

namespace zolvani::refserver::testing {

namespace {

// Runs argv (as `postgres` when we are root) to completion; its output goes to
// `log`. The exit code, or -1.
int Run(std::vector<std::string> argv, const std::filesystem::path& log) {
  if (geteuid() == 0) {
    argv.insert(argv.begin(), {"runuser", "-u", "postgres", "--"});
  }
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    FILE* out = std::fopen(log.c_str(), "a");
    if (out != nullptr) {
      dup2(fileno(out), STDOUT_FILENO);
      dup2(fileno(out), STDERR_FILENO);
    }
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int FreeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof addr;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    port = ntohs(addr.sin_port);
  }
  close(fd);
  return port;
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

std::filesystem::path PgBinDir() {
  if (const char* dir = std::getenv("ZSM_PG_BIN"); dir != nullptr && *dir != '\0') return dir;
  return "/usr/lib/postgresql/15/bin";
}

Status PgCluster::Start(std::unique_ptr<PgCluster>* cluster) {
  const auto bin = PgBinDir();
  if (!std::filesystem::exists(bin / "initdb") || !std::filesystem::exists(bin / "pg_ctl")) {
    return Status::NotFound("PostgreSQL 15 is not installed (no " + (bin / "initdb").string() +
                            "): run scripts/setup.sh");
  }
  std::string pattern = (std::filesystem::temp_directory_path() / "zsm-pg.XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) return Status::IOError("mkdtemp failed");
  std::unique_ptr<PgCluster> made(new PgCluster());
  made->folder_ = pattern;
  if (geteuid() == 0) {
    const passwd* pg = getpwnam("postgres");
    if (pg == nullptr) return Status::NotFound("no postgres user to run PostgreSQL as");
    if (chown(made->folder_.c_str(), pg->pw_uid, pg->pw_gid) != 0) {
      return Status::IOError("cannot give " + made->folder_.string() + " to postgres");
    }
  }
  const auto data = made->folder_ / "data";
  const auto log = made->folder_ / "setup.log";
  if (Run({(bin / "initdb").string(), "-D", data.string(), "-U", "zsm", "-A", "trust", "-E", "UTF8",
           "--locale=C.UTF-8", "--no-sync"},
          log) != 0) {
    return Status::IOError("initdb failed: " + ReadFile(log));
  }
  // A port found free can be taken before the server binds it: try a few.
  for (int attempt = 0; attempt < 5 && !made->running_; ++attempt) {
    made->port_ = FreeLoopbackPort();
    made->Resume();
  }
  if (!made->running_) return Status::IOError("PostgreSQL did not start: " + made->Log());
  made->StartWatchdog();
  *cluster = std::move(made);
  return Status::OK();
}

Status PgCluster::Resume() {
  if (running_) return Status::OK();
  const std::string options = "-c listen_addresses=127.0.0.1 -p " + std::to_string(port_) + " -k " +
                              folder_.string() +
                              " -c fsync=off -c synchronous_commit=off -c full_page_writes=off"
                              " -c max_connections=200";
  running_ = Run({(PgBinDir() / "pg_ctl").string(), "-D", (folder_ / "data").string(), "-l",
                  (folder_ / "server.log").string(), "-w", "-t", "30", "-o", options, "start"},
                 folder_ / "setup.log") == 0;
  return running_ ? Status::OK() : Status::IOError("PostgreSQL did not start: " + Log());
}

Status PgCluster::Pause() {
  // A clean stop: with synchronous_commit off, an immediate one could lose the
  // last commits, which an outage of a real database does not.
  if (!running_) return Status::OK();
  running_ = false;
  if (Run({(PgBinDir() / "pg_ctl").string(), "-D", (folder_ / "data").string(), "-m", "fast", "-w",
           "stop"},
          folder_ / "setup.log") != 0) {
    return Status::IOError("pg_ctl stop failed");
  }
  return Status::OK();
}

Status PgCluster::Stop() {
  if (!running_) return Status::OK();
  running_ = false;
  if (Run({(PgBinDir() / "pg_ctl").string(), "-D", (folder_ / "data").string(), "-m", "immediate",
           "-w", "stop"},
          folder_ / "setup.log") != 0) {
    return Status::IOError("pg_ctl stop failed");
  }
  return Status::OK();
}

void PgCluster::StartWatchdog() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return;
  const pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    return;
  }
  if (pid == 0) {
    // Called while the test program runs one thread; the child only waits.
    close(fds[1]);
    char c;
    while (read(fds[0], &c, 1) != 0) {
      if (errno != EINTR) break;
    }
    Stop();
    std::error_code ec;
    std::filesystem::remove_all(folder_, ec);
    _exit(0);
  }
  close(fds[0]);
  watchdogFd_ = fds[1];
  watchdog_ = pid;
}

PgCluster::~PgCluster() {
  if (watchdog_ > 0) {
    // The watchdog stops the cluster and deletes the folder.
    close(watchdogFd_);
    int status = 0;
    waitpid(watchdog_, &status, 0);
    return;
  }
  Stop();
  std::error_code ec;
  if (!folder_.empty()) std::filesystem::remove_all(folder_, ec);
}

std::string PgCluster::Log() const { return ReadFile(folder_ / "server.log"); }

Status PgCluster::CreateDatabase(const std::string& name, std::string* url) {
  const std::string base = "postgresql://zsm@127.0.0.1:" + std::to_string(port_) + "/";
  PGconn* conn = PQconnectdb((base + "postgres").c_str());
  if (PQstatus(conn) != CONNECTION_OK) {
    std::string message = PQerrorMessage(conn);
    PQfinish(conn);
    return Status::IOError("cannot connect to the test cluster: " + message);
  }
  PGresult* r = PQexec(conn, ("CREATE DATABASE \"" + name + "\"").c_str());
  const bool ok = PQresultStatus(r) == PGRES_COMMAND_OK;
  std::string message = PQresultErrorMessage(r);
  PQclear(r);
  PQfinish(conn);
  if (!ok) return Status::IOError("create database " + name + ": " + message);
  *url = base + name;
  return Status::OK();
}

Status PgCluster::CreateMigratedDatabase(const std::string& name, std::string* url) {
  Status s = CreateDatabase(name, url);
  if (!s.ok()) return s;
  return PgSchema::Migrate(*url);
}

}  // namespace zolvani::refserver::testing
