// ConsoleSessions: the signed-in console sessions of one server process. A session
// is named by a random identifier that travels only in an HttpOnly cookie, and
// carries a second random token that the console's pages send back in a header
// with every change (a page on another site can make the browser send the cookie
// only where SameSite allows it, and can never read the token).
//
// Sessions live in memory: restarting the server signs everyone out. A session
// ends after `idle` without use or `lifetime` after sign-in, whichever comes
// first; beyond `maxSessions` the least recently used one is dropped.
//
// Thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace zolvani::refserver {

struct ConsoleSession {
  std::string id;         // the cookie's value; 64 hex digits
  std::string csrfToken;  // 64 hex digits
  int64_t createdMs = 0;
  int64_t lastUsedMs = 0;
};

struct SessionLimits {
  std::chrono::milliseconds idle = std::chrono::minutes(30);
  std::chrono::milliseconds lifetime = std::chrono::hours(12);
  size_t maxSessions = 64;
};

class ConsoleSessions {
 public:
  explicit ConsoleSessions(SessionLimits limits = {}) : limits_(limits) {}

  // Starts a session; empty when no random bytes could be had.
  std::optional<ConsoleSession> Create(int64_t nowMs);
  // The live session named `id`, marked as used now; empty when unknown or expired.
  std::optional<ConsoleSession> Find(std::string_view id, int64_t nowMs);
  void End(std::string_view id);
  void EndAll();
  size_t size();

  // Whether `token` is the session's change token, compared in constant time.
  static bool CsrfMatches(const ConsoleSession& session, std::string_view token);

 private:
  bool Expired(const ConsoleSession& s, int64_t nowMs) const;

  const SessionLimits limits_;
  std::mutex mutex_;
  // Keyed by the SHA-256 of the identifier, so that looking a cookie up compares
  // digests, never the secret itself.
  std::map<std::string, ConsoleSession> sessions_;
};

}  // namespace zolvani::refserver
