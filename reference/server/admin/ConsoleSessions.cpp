#include "reference/server/admin/ConsoleSessions.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <algorithm>

namespace zolvani::refserver {

namespace {

std::string Hex(const unsigned char* bytes, size_t size) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(size * 2);
  for (size_t i = 0; i < size; ++i) {
    out += kHex[bytes[i] >> 4];
    out += kHex[bytes[i] & 0x0f];
  }
  return out;
}

std::optional<std::string> RandomHex() {
  unsigned char bytes[32];
  if (RAND_bytes(bytes, sizeof(bytes)) != 1) return std::nullopt;
  return Hex(bytes, sizeof(bytes));
}

std::string Digest(std::string_view id) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(id.data()), id.size(), digest);
  return Hex(digest, sizeof(digest));
}

}  // namespace

bool ConsoleSessions::Expired(const ConsoleSession& s, int64_t nowMs) const {
  return nowMs - s.lastUsedMs > limits_.idle.count() ||
         nowMs - s.createdMs > limits_.lifetime.count();
}

std::optional<ConsoleSession> ConsoleSessions::Create(int64_t nowMs) {
  auto id = RandomHex();
  auto token = RandomHex();
  if (!id || !token) return std::nullopt;
  ConsoleSession session{*id, *token, nowMs, nowMs};
  std::lock_guard lock(mutex_);
  std::erase_if(sessions_, [&](const auto& entry) { return Expired(entry.second, nowMs); });
  while (!sessions_.empty() && sessions_.size() >= limits_.maxSessions) {
    auto oldest = std::min_element(sessions_.begin(), sessions_.end(), [](auto& a, auto& b) {
      return a.second.lastUsedMs < b.second.lastUsedMs;
    });
    sessions_.erase(oldest);
  }
  sessions_[Digest(session.id)] = session;
  return session;
}

std::optional<ConsoleSession> ConsoleSessions::Find(std::string_view id, int64_t nowMs) {
  if (id.size() != 64) return std::nullopt;
  const std::string key = Digest(id);
  std::lock_guard lock(mutex_);
  auto it = sessions_.find(key);
  if (it == sessions_.end()) return std::nullopt;
  if (Expired(it->second, nowMs)) {
    sessions_.erase(it);
    return std::nullopt;
  }
  it->second.lastUsedMs = std::max(it->second.lastUsedMs, nowMs);
  return it->second;
}

void ConsoleSessions::End(std::string_view id) {
  const std::string key = Digest(id);
  std::lock_guard lock(mutex_);
  sessions_.erase(key);
}

void ConsoleSessions::EndAll() {
  std::lock_guard lock(mutex_);
  sessions_.clear();
}

size_t ConsoleSessions::size() {
  std::lock_guard lock(mutex_);
  return sessions_.size();
}

bool ConsoleSessions::CsrfMatches(const ConsoleSession& session, std::string_view token) {
  return token.size() == session.csrfToken.size() && !token.empty() &&
         CRYPTO_memcmp(token.data(), session.csrfToken.data(), token.size()) == 0;
}

}  // namespace zolvani::refserver
