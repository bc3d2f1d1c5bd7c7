#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "CliError.h"

extern char** environ;

namespace zsm {

namespace {

int decodeStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return -WTERMSIG(status);
  return -1;
}

}  // namespace

std::optional<zolvani::Error> ChildProcess::start(const std::vector<std::string>& argv,
                                                  const std::filesystem::path& errorFile,
                                                  std::unique_ptr<ChildProcess>* child) {
  if (argv.empty()) return cliError(kCliErrorUsage, "no program to run");
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0)
    return cliError(kCliErrorServerProgram, std::string("pipe: ") + std::strerror(errno));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, errorFile.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  if (rc != 0) {
    close(pipeFds[0]);
    return cliError(kCliErrorServerProgram, "cannot run " + argv[0] + ": " + std::strerror(rc));
  }
  child->reset(new ChildProcess(pid, pipeFds[0]));
  return std::nullopt;
}

std::optional<zolvani::Error> ChildProcess::run(const std::vector<std::string>& argv,
                                                const std::filesystem::path& errorFile,
                                                std::chrono::milliseconds timeout,
                                                std::string* output, int* exitStatus) {
  std::unique_ptr<ChildProcess> child;
  if (auto error = start(argv, errorFile, &child)) return error;
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + timeout;
  std::string text;
  char chunk[4096];
  while (true) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      child->terminate(std::chrono::milliseconds(500));
      return cliError(kCliErrorTimeout, argv[0] + " did not finish in time");
    }
    pollfd p{child->out_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    const ssize_t n = read(child->out_, chunk, sizeof chunk);
    if (n > 0) {
      text.append(chunk, static_cast<std::size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    break;  // end of output
  }
  auto status = child->waitFor(std::chrono::duration_cast<std::chrono::milliseconds>(
      std::max(deadline - Clock::now(), Clock::duration(std::chrono::milliseconds(100)))));
  if (output) *output = text;
  if (!status) {
    child->terminate(std::chrono::milliseconds(500));
    return cliError(kCliErrorTimeout, argv[0] + " did not finish in time");
  }
  if (exitStatus) {
    *exitStatus = *status;
    return std::nullopt;
  }
  if (*status != 0) {
    return cliError(kCliErrorServerProgram, argv[0] + " " + (argv.size() > 1 ? argv[1] : "") +
                                                " failed with status " + std::to_string(*status) +
                                                " (see " + errorFile.string() + ")");
  }
  return std::nullopt;
}

ChildProcess::~ChildProcess() {
  terminate(std::chrono::milliseconds(2000));
  close(out_);
}

std::optional<std::string> ChildProcess::waitForLine(std::string_view prefix,
                                                     std::chrono::milliseconds timeout) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + timeout;
  char chunk[1024];
  while (true) {
    for (std::size_t nl; (nl = buffer_.find('\n')) != std::string::npos;) {
      std::string line = buffer_.substr(0, nl);
      buffer_.erase(0, nl + 1);
      if (line.rfind(prefix, 0) == 0) return line;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return std::nullopt;
    pollfd p{out_, POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return std::nullopt;
    const ssize_t n = read(out_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;  // the child closed its output (it ended)
    buffer_.append(chunk, static_cast<std::size_t>(n));
  }
}

std::optional<int> ChildProcess::waitFor(std::chrono::milliseconds timeout) {
  if (exitStatus_) return exitStatus_;
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + timeout;
  while (true) {
    int status = 0;
    const pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      exitStatus_ = decodeStatus(status);
      return exitStatus_;
    }
    if (r < 0 && errno != EINTR) {
      exitStatus_ = -1;
      return exitStatus_;
    }
    if (Clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

int ChildProcess::terminate(std::chrono::milliseconds grace) {
  if (exitStatus_) return *exitStatus_;
  kill(pid_, SIGTERM);
  if (auto status = waitFor(grace)) return *status;
  kill(pid_, SIGKILL);
  return waitFor(std::chrono::milliseconds(5000)).value_or(-SIGKILL);
}

}  // namespace zsm
