#include "zolvani/subscription/platform/FileUserDefaults.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace zolvani {
namespace {

using nlohmann::json;

constexpr const char* kDateTag = "$date";
constexpr const char* kBytesTag = "$bytes";
constexpr const char* kMapTag = "$map";

std::string toHex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out.push_back(digits[c >> 4]);
    out.push_back(digits[c & 15]);
  }
  return out;
}

std::optional<std::string> fromHex(const std::string& hex) {
  if (hex.size() % 2) return std::nullopt;
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  out.reserve(hex.size() / 2);
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    int hi = nibble(hex[i]), lo = nibble(hex[i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out.push_back(static_cast<char>(hi << 4 | lo));
  }
  return out;
}

bool isTag(const std::string& k) { return k == kDateTag || k == kBytesTag || k == kMapTag; }

json encodeValue(const Value& v) {
  switch (v.type()) {
    case Value::Type::kDate:
      return json{{kDateTag, v.asDate()->secondsSince1970}};
    case Value::Type::kBytes:
      return json{{kBytesTag, toHex(v.asBytes()->data)}};
    case Value::Type::kArray: {
      json a = json::array();
      for (const auto& e : *v.asArray()) a.push_back(encodeValue(e));
      return a;
    }
    case Value::Type::kMap: {
      json o = json::object();
      for (const auto& [k, e] : *v.asMap()) o[k] = encodeValue(e);
      // A map that would read back as a tag is wrapped so it stays a map.
      if (o.size() == 1 && isTag(o.begin().key())) return json{{kMapTag, o}};
      return o;
    }
    default:
      return v.toJson();
  }
}

std::optional<Value> decodeValue(const json& j, int depth) {
  if (depth > 256) return std::nullopt;
  if (j.is_array()) {
    Value::Array a;
    for (const auto& e : j) {
      auto d = decodeValue(e, depth + 1);
      if (!d) return std::nullopt;
      a.push_back(std::move(*d));
    }
    return Value(std::move(a));
  }
  if (j.is_object()) {
    if (j.size() == 1) {
      auto only = j.begin();
      const std::string& k = only.key();
      const json& inner = only.value();
      if (k == kDateTag) {
        if (!inner.is_number()) return std::nullopt;
        return Value(Date(inner.get<double>()));
      }
      if (k == kBytesTag) {
        if (!inner.is_string()) return std::nullopt;
        auto bytes = fromHex(inner.get<std::string>());
        if (!bytes) return std::nullopt;
        return Value(Bytes{std::move(*bytes)});
      }
      if (k == kMapTag) {
        if (!inner.is_object()) return std::nullopt;
        Value::Map m;
        for (auto it = inner.begin(); it != inner.end(); ++it) {
          auto d = decodeValue(it.value(), depth + 1);
          if (!d) return std::nullopt;
          m.emplace(it.key(), std::move(*d));
        }
        return Value(std::move(m));
      }
    }
    Value::Map m;
    for (auto it = j.begin(); it != j.end(); ++it) {
      auto d = decodeValue(it.value(), depth + 1);
      if (!d) return std::nullopt;
      m.emplace(it.key(), std::move(*d));
    }
    return Value(std::move(m));
  }
  return Value::fromJson(j);
}

// Writes `text` to `path` durably: a temporary file beside it, flushed to disk,
// then renamed over the old file, then the folder flushed so the rename holds.
bool writeAtomically(const std::filesystem::path& path, const std::string& text, std::string* why) {
  std::error_code ec;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), ec);
  std::filesystem::path tmp = path;
  tmp += fmt::format(".tmp-{}", ::getpid());
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    *why = std::strerror(errno);
    return false;
  }
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      *why = std::strerror(errno);
      ::close(fd);
      ::unlink(tmp.c_str());
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  if (::fsync(fd) != 0 || ::close(fd) != 0) {
    *why = std::strerror(errno);
    ::unlink(tmp.c_str());
    return false;
  }
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    *why = std::strerror(errno);
    ::unlink(tmp.c_str());
    return false;
  }
  std::filesystem::path dir = path.has_parent_path() ? path.parent_path() : ".";
  int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    ::fsync(dfd);
    ::close(dfd);
  }
  return true;
}

}  // namespace

FileUserDefaults::FileUserDefaults() = default;

FileUserDefaults::FileUserDefaults(std::filesystem::path path, DiagnosticSink sink)
    : path_(std::move(path)), sink_(std::move(sink)) {
  load();
}

std::filesystem::path FileUserDefaults::defaultPath() {
  if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state)
    return std::filesystem::path(state) / "zolvani" / "user-defaults.json";
  if (const char* home = std::getenv("HOME"); home && *home)
    return std::filesystem::path(home) / ".local" / "state" / "zolvani" / "user-defaults.json";
  return "zolvani-user-defaults.json";
}

std::string FileUserDefaults::encode(const Value::Map& values) {
  json o = json::object();
  for (const auto& [k, v] : values) o[k] = encodeValue(v);
  return o.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::optional<Value::Map> FileUserDefaults::decode(const std::string& text) {
  json j = json::parse(text, nullptr, false);
  if (j.is_discarded() || !j.is_object()) return std::nullopt;
  Value::Map out;
  for (auto it = j.begin(); it != j.end(); ++it) {
    auto v = decodeValue(it.value(), 0);
    if (!v) return std::nullopt;
    out.emplace(it.key(), std::move(*v));
  }
  return out;
}

void FileUserDefaults::load() {
  std::error_code ec;
  if (!std::filesystem::exists(*path_, ec)) return;
  std::ifstream in(*path_, std::ios::binary);
  std::ostringstream text;
  if (in) text << in.rdbuf();
  std::optional<Value::Map> decoded;
  if (in.good() || in.eof()) decoded = decode(text.str());
  if (decoded) {
    values_ = std::move(*decoded);
    return;
  }
  // Keep the unreadable file for inspection and start afresh; losing settings
  // is better than refusing to start the host.
  auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                     std::chrono::system_clock::now().time_since_epoch())
                     .count();
  std::filesystem::path aside = *path_;
  aside += fmt::format(".corrupt-{}", seconds);
  std::filesystem::rename(*path_, aside, ec);
  if (sink_) {
    sink_(fmt::format("User defaults file {} could not be read; moved it to {} and started empty.",
                      path_->string(),
                      ec ? std::string("(could not move: ") + ec.message() + ")" : aside.string()),
          0);
  }
}

std::optional<Value> FileUserDefaults::objectForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

void FileUserDefaults::setObject(std::string_view key, Value value) {
  std::lock_guard lock(mutex_);
  values_.insert_or_assign(std::string(key), std::move(value));
}

void FileUserDefaults::removeObjectForKey(std::string_view key) {
  std::lock_guard lock(mutex_);
  auto it = values_.find(key);
  if (it != values_.end()) values_.erase(it);
}

bool FileUserDefaults::synchronize() {
  std::unique_lock lock(mutex_);
  ++synchronizeCount_;
  if (!path_) return true;
  std::string text = encode(values_);
  std::string why;
  // Writes are serialised by the lock so two threads never interleave renames.
  bool ok = writeAtomically(*path_, text, &why);
  lock.unlock();
  if (!ok && sink_)
    sink_(fmt::format("Could not write user defaults to {}: {}", path_->string(), why), 0);
  return ok;
}

std::size_t FileUserDefaults::synchronizeCount() const {
  std::lock_guard lock(mutex_);
  return synchronizeCount_;
}

}  // namespace zolvani
