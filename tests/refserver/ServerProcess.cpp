#include "ServerProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace zolvani::refserver::testing {

namespace {

using Clock = std::chrono::steady_clock;

std::string ReadFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::filesystem::path TempFile(const std::string& stem) {
  static int counter = 0;
  return std::filesystem::temp_directory_path() /
         (stem + "-" + std::to_string(::getpid()) + "-" + std::to_string(++counter));
}

// Spawns zsm-server with `args`, standard output into a pipe (its read end in
// `outFd`) and standard error into `errFile`.
pid_t Spawn(const std::vector<std::string>& args, int* outFd, const std::filesystem::path& errFile) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
  const int errFd = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  if (errFd >= 0) posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
  std::vector<std::string> all = {ZSM_SERVER_PROGRAM};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, ZSM_SERVER_PROGRAM, &actions, nullptr, argv.data(), environ) != 0) {
    pid = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  if (errFd >= 0) ::close(errFd);
  *outFd = pipeFds[0];
  return pid;
}

// Appends what `fd` yields within `timeout` to `out`; false at end of file.
bool ReadSome(int fd, std::string* out, std::chrono::milliseconds timeout) {
  pollfd p{fd, POLLIN, 0};
  const int ready = ::poll(&p, 1, static_cast<int>(timeout.count()));
  if (ready <= 0) return true;
  char buffer[4096];
  const ssize_t n = ::read(fd, buffer, sizeof(buffer));
  if (n <= 0) return false;
  out->append(buffer, static_cast<size_t>(n));
  return true;
}

}  // namespace

// --- ServerProcess ---------------------------------------------------------------

std::unique_ptr<ServerProcess> ServerProcess::Start(const std::filesystem::path& dataDir,
                                                    const std::vector<std::string>& args,
                                                    std::string* error) {
  std::unique_ptr<ServerProcess> server(new ServerProcess());
  server->logFile_ = TempFile("zsm-server-log");
  std::vector<std::string> all = {"serve", "--data", dataDir.string()};
  all.insert(all.end(), args.begin(), args.end());
  int outFd = -1;
  server->pid_ = Spawn(all, &outFd, server->logFile_);
  if (server->pid_ < 0) {
    *error = "cannot start " ZSM_SERVER_PROGRAM;
    return nullptr;
  }
  std::string out;
  const std::string marker = "listening on http://";
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while (Clock::now() < deadline && out.find('\n', out.find(marker)) == std::string::npos) {
    if (!ReadSome(outFd, &out, std::chrono::milliseconds(100))) break;
  }
  server->outFd_ = outFd;  // kept open: the server must not meet a closed pipe
  const size_t at = out.find(marker);
  const size_t colon = at == std::string::npos ? std::string::npos : out.find(':', at + marker.size());
  if (colon == std::string::npos) {
    *error = "no \"listening on\" line; stdout: " + out + " stderr: " + server->Log();
    server->Stop(std::chrono::seconds(2));
    return nullptr;
  }
  server->port_ = std::atoi(out.c_str() + colon + 1);
  return server;
}

ServerProcess::~ServerProcess() {
  if (!reaped_ && pid_ > 0) Stop(std::chrono::seconds(5));
  if (outFd_ >= 0) ::close(outFd_);
  std::error_code ec;
  std::filesystem::remove(logFile_, ec);
}

bool ServerProcess::Alive() {
  if (reaped_ || pid_ <= 0) return false;
  int status = 0;
  const pid_t r = ::waitpid(pid_, &status, WNOHANG);
  if (r == pid_) {
    reaped_ = true;
    status_ = status;
    return false;
  }
  return true;
}

std::string ServerProcess::Log() const { return ReadFile(logFile_); }

int ServerProcess::Stop(std::chrono::milliseconds timeout) {
  if (!reaped_ && pid_ > 0) {
    ::kill(pid_, SIGTERM);
    const auto deadline = Clock::now() + timeout;
    while (Alive() && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!reaped_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status_, 0);
      reaped_ = true;
      return -1;
    }
  }
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
}

ProgramResult RunServerProgram(const std::vector<std::string>& args,
                               std::chrono::milliseconds timeout) {
  ProgramResult result;
  const auto errFile = TempFile("zsm-server-err");
  int outFd = -1;
  const pid_t pid = Spawn(args, &outFd, errFile);
  if (pid < 0) return result;
  const auto deadline = Clock::now() + timeout;
  int status = 0;
  bool exited = false;
  bool open = true;
  while (Clock::now() < deadline) {
    if (open) open = ReadSome(outFd, &result.out, std::chrono::milliseconds(20));
    if (::waitpid(pid, &status, WNOHANG) == pid) {
      exited = true;
      break;
    }
    if (!open) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (!exited) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
  } else {
    while (open) open = ReadSome(outFd, &result.out, std::chrono::milliseconds(20));
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  ::close(outFd);
  result.err = ReadFile(errFile);
  std::error_code ec;
  std::filesystem::remove(errFile, ec);
  return result;
}

// --- HttpReply -------------------------------------------------------------------

int HttpReply::code() const {
  if (!json.is_object()) return -999;
  auto it = json.find("response_header");
  if (it == json.end() || !it->is_object()) return -999;
  return it->value("response_code", -999);
}

std::string HttpReply::header(std::string_view name) const {
  std::istringstream lines(head);
  std::string line;
  std::getline(lines, line);  // status line
  while (std::getline(lines, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t colon = line.find(':');
    if (colon != name.size()) continue;
    bool same = true;
    for (size_t i = 0; i < colon; ++i) {
      if (std::tolower(static_cast<unsigned char>(line[i])) !=
          std::tolower(static_cast<unsigned char>(name[i]))) {
        same = false;
      }
    }
    if (!same) continue;
    size_t start = colon + 1;
    while (start < line.size() && line[start] == ' ') ++start;
    return line.substr(start);
  }
  return "";
}

// --- RawConnection ---------------------------------------------------------------

RawConnection::RawConnection(int port, const std::string& from) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  sockaddr_in local{};
  local.sin_family = AF_INET;
  ::inet_pton(AF_INET, from.c_str(), &local.sin_addr);
  sockaddr_in remote{};
  remote.sin_family = AF_INET;
  remote.sin_port = htons(static_cast<uint16_t>(port));
  ::inet_pton(AF_INET, "127.0.0.1", &remote.sin_addr);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0 ||
      ::connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof(remote)) != 0) {
    ::close(fd);
    return;
  }
  fd_ = fd;
}

RawConnection::~RawConnection() { Close(); }

RawConnection::RawConnection(RawConnection&& other) noexcept
    : fd_(other.fd_), peerClosed_(other.peerClosed_), buffer_(std::move(other.buffer_)) {
  other.fd_ = -1;
}

void RawConnection::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void RawConnection::SetSendBuffer(int bytes) {
  ::setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
}

bool RawConnection::Send(std::string_view data) {
  while (!data.empty()) {
    if (fd_ < 0) return false;
    const ssize_t n = ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool RawConnection::Receive(std::chrono::milliseconds timeout) {
  if (fd_ < 0 || peerClosed_) return false;
  pollfd p{fd_, POLLIN, 0};
  const int ready = ::poll(&p, 1, static_cast<int>(std::max<int64_t>(0, timeout.count())));
  if (ready <= 0) return true;
  char buffer[64 * 1024];
  const ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
  if (n > 0) {
    buffer_.append(buffer, static_cast<size_t>(n));
    return true;
  }
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  peerClosed_ = true;  // end of file or reset
  return false;
}

std::optional<HttpReply> RawConnection::ReadReply(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (true) {
    const size_t headEnd = buffer_.find("\r\n\r\n");
    if (headEnd != std::string::npos) {
      HttpReply reply;
      reply.head = buffer_.substr(0, headEnd + 2);
      if (reply.head.rfind("HTTP/1.", 0) == 0 && reply.head.size() > 12) {
        reply.status = std::atoi(reply.head.c_str() + 9);
      }
      const std::string length = reply.header("Content-Length");
      const size_t want = length.empty() ? 0 : std::stoul(length);
      while (buffer_.size() < headEnd + 4 + want && Clock::now() < deadline) {
        if (!Receive(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now())))
          break;
      }
      if (buffer_.size() < headEnd + 4 + want) return std::nullopt;
      reply.body = buffer_.substr(headEnd + 4, want);
      buffer_.erase(0, headEnd + 4 + want);
      reply.json = nlohmann::json::parse(reply.body, nullptr, false);
      return reply;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || !Receive(left)) return std::nullopt;
  }
}

bool RawConnection::ClosedWithin(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!peerClosed_) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    Receive(left);
  }
  return true;
}

// --- Device ----------------------------------------------------------------------

std::string Base64(const std::string& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(bytes.data()),
                                static_cast<int>(bytes.size()));
  out.resize(static_cast<size_t>(n));
  return out;
}

std::string HmacSha256Hex(const std::string& key, const std::string& text) {
  unsigned char digest[32];
  unsigned int length = sizeof(digest);
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest, &length);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0x0f];
  }
  return hex;
}

int JsonNesting(std::string_view text) {
  int depth = 0;
  int deepest = 0;
  bool inString = false;
  bool escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return deepest;
}

std::string Device::Body(const nlohmann::json& members) const {
  nlohmann::json body = members.is_object() ? members : nlohmann::json::object();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
  body["request_header"] = {
      {"device_id", id}, {"user_id", user}, {"timestamp", seconds}, {"key", Base64(key)}};
  return body.dump();
}

std::string Device::Target(int port, const std::string& endpoint, const std::string& body) const {
  const std::string host = "127.0.0.1:" + std::to_string(port);
  const std::string path = "/Subscriptions/client/" + endpoint;
  const std::string text =
      "POST\n" + host + "\nhttp://" + host + path + "\n" + body + "\n" + Base64(secret);
  return path + "?sig=" + HmacSha256Hex(secret, text);
}

std::string Device::Request(int port, const std::string& endpoint, const std::string& body,
                            const std::string& extraHeaders) const {
  return "POST " + Target(port, endpoint, body) + " HTTP/1.1\r\nHost: 127.0.0.1:" +
         std::to_string(port) + "\r\nContent-Type: application/json\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n" + extraHeaders + "\r\n" + body;
}

HttpReply Device::Call(int port, const std::string& endpoint, const nlohmann::json& members,
                       std::chrono::milliseconds timeout) const {
  RawConnection connection(port);
  if (!connection.Send(Request(port, endpoint, Body(members)))) return {};
  return connection.ReadReply(timeout).value_or(HttpReply{});
}

}  // namespace zolvani::refserver::testing
