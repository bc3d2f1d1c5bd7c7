// What the hostile-client tests use to drive a real zsm-server program over
// loopback: the program as a child process, raw TCP connections from chosen
// loopback addresses, and a device that signs requests the way the protocol says
// (written from the protocol, independently of the server's own signing code).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace zolvani::refserver::testing {

// `zsm-server serve` as a child process with its standard error in a file.
class ServerProcess {
 public:
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  // Runs `zsm-server serve --data dataDir <args>` and waits for its "listening on"
  // line. Null, with the reason in `error`, when it exits or stays silent.
  static std::unique_ptr<ServerProcess> Start(const std::filesystem::path& dataDir,
                                              const std::vector<std::string>& args,
                                              std::string* error);

  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  // Whether the process is still running.
  bool Alive();
  // What it wrote to standard error so far.
  std::string Log() const;
  // SIGTERM, then waits up to `timeout`; the exit status, or -1 when it did not
  // exit cleanly (killed by a signal, or still running and then killed).
  int Stop(std::chrono::milliseconds timeout = std::chrono::seconds(10));

 private:
  ServerProcess() = default;

  pid_t pid_ = -1;
  int port_ = 0;
  int outFd_ = -1;
  std::filesystem::path logFile_;
  bool reaped_ = false;
  int status_ = 0;
};

struct ProgramResult {
  int exitCode = -1;  // -1: did not exit within the time given, or was killed
  std::string out;
  std::string err;
};

// Runs zsm-server with `args` to completion (an admin command, or a second server
// that should refuse to start), at most `timeout`.
ProgramResult RunServerProgram(const std::vector<std::string>& args,
                               std::chrono::milliseconds timeout = std::chrono::seconds(15));

struct HttpReply {
  int status = 0;  // 0: nothing or not HTTP
  std::string head;
  std::string body;
  nlohmann::json json;  // the body parsed; discarded when not JSON
  int code() const;     // "response_header"."response_code", -999 when absent
  std::string header(std::string_view name) const;  // first value, case-insensitive name
};

// One TCP connection to 127.0.0.1:port from a loopback address of our choice.
class RawConnection {
 public:
  RawConnection(int port, const std::string& from = "127.0.0.1");
  ~RawConnection();
  RawConnection(RawConnection&& other) noexcept;
  RawConnection& operator=(RawConnection&&) = delete;
  RawConnection(const RawConnection&) = delete;

  bool connected() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  // Sends everything; false when the peer is gone.
  bool Send(std::string_view data);
  // Reads one reply (head, then a Content-Length body) within `timeout`.
  std::optional<HttpReply> ReadReply(std::chrono::milliseconds timeout);
  // Whether the peer closed (or reset) the connection within `timeout`; data that
  // arrives meanwhile is kept in received().
  bool ClosedWithin(std::chrono::milliseconds timeout);
  const std::string& received() const { return buffer_; }
  void SetSendBuffer(int bytes);
  void Close();

 private:
  // Receives what is there within `timeout`; false once the peer closed.
  bool Receive(std::chrono::milliseconds timeout);

  int fd_ = -1;
  bool peerClosed_ = false;
  std::string buffer_;
};

// A device of an account, signing requests for a server on 127.0.0.1:port.
struct Device {
  std::string user;
  std::string key;
  std::string secret;
  std::string id;

  // The body text with "request_header" (the clock's current second) added.
  std::string Body(const nlohmann::json& members) const;
  // The request target, signature included, for `body` posted to `endpoint`.
  std::string Target(int port, const std::string& endpoint, const std::string& body) const;
  // A complete request, Content-Length framed.
  std::string Request(int port, const std::string& endpoint, const std::string& body,
                      const std::string& extraHeaders = "") const;
  // Signs and posts `members` to `endpoint` on a connection of its own.
  HttpReply Call(int port, const std::string& endpoint, const nlohmann::json& members,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
};

std::string Base64(const std::string& bytes);
std::string HmacSha256Hex(const std::string& key, const std::string& text);
// Deepest nesting of arrays and objects in `text`, outside strings.
int JsonNesting(std::string_view text);

}  // namespace zolvani::refserver::testing
