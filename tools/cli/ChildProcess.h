// ChildProcess: another program run beside the host (the demo's content server),
// with its standard output read line by line and its standard error sent to a
// file.
//
// Thread-safety: one thread owns a ChildProcess. The destructor ends the child
// if it still runs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zolvani/subscription/Error.h"

namespace zsm {

class ChildProcess {
 public:
  // Starts `argv[0]` with the arguments; standard error goes to `errorFile`
  // (appended), standard input is /dev/null.
  static std::optional<zolvani::Error> start(const std::vector<std::string>& argv,
                                             const std::filesystem::path& errorFile,
                                             std::unique_ptr<ChildProcess>* child);
  // Runs a program to its end and collects its standard output. Fails when it
  // takes longer than `timeout` (it is then killed), and on a non-zero exit
  // unless `exitStatus` is given to receive it.
  static std::optional<zolvani::Error> run(const std::vector<std::string>& argv,
                                           const std::filesystem::path& errorFile,
                                           std::chrono::milliseconds timeout, std::string* output,
                                           int* exitStatus = nullptr);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Reads standard output until a line starting with `prefix` arrives; the
  // line, or nothing when the child ended or `timeout` passed first.
  std::optional<std::string> waitForLine(std::string_view prefix,
                                         std::chrono::milliseconds timeout);
  // Asks the child to end (SIGTERM), waits up to `grace`, then kills it; returns
  // its exit status (or -signal).
  int terminate(std::chrono::milliseconds grace);
  pid_t pid() const { return pid_; }

 private:
  ChildProcess(pid_t pid, int out) : pid_(pid), out_(out) {}
  // Waits up to `timeout` for the child to end; its status, or none.
  std::optional<int> waitFor(std::chrono::milliseconds timeout);

  pid_t pid_;
  int out_;
  std::string buffer_;
  std::optional<int> exitStatus_;
};

}  // namespace zsm
