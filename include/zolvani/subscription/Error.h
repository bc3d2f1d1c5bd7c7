// Error: the failure value that completions receive.
//
// An error is a domain, a signed code and a one-entry user information map under
// kLocalizedDescriptionKey holding the message. The library's own errors use the
// domain "ZolvaniSubscriptionManager"; transport failures keep their own domain.
// Plain value; safe to copy between threads.
#pragma once

#include "zolvani/subscription/Export.h"

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "zolvani/subscription/Value.h"

namespace zolvani {

inline constexpr std::string_view kLocalizedDescriptionKey = "LocalizedDescription";

struct ZSM_EXPORT Error {
  std::string domain;
  std::int64_t code = 0;
  Value::Map userInfo;

  static Error make(std::string domain, std::int64_t code, std::string description) {
    Error e;
    e.domain = std::move(domain);
    e.code = code;
    e.userInfo.emplace(std::string(kLocalizedDescriptionKey), Value(std::move(description)));
    return e;
  }

  // The message under kLocalizedDescriptionKey; empty when there is none.
  std::string localizedDescription() const {
    auto it = userInfo.find(kLocalizedDescriptionKey);
    return it == userInfo.end() ? std::string() : it->second.stringValue();
  }

  // "domain code: description", for log lines and command-line output.
  std::string describe() const;

  friend bool operator==(const Error&, const Error&) = default;
};

// Thrown only by the constructors that the system refuses (the manager's and the
// default data source's plain construction), carrying the exact reason text.
class ZSM_EXPORT InternalInconsistencyException : public std::logic_error {
 public:
  explicit InternalInconsistencyException(const std::string& reason) : std::logic_error(reason) {}
  std::string reason() const { return what(); }
};

}  // namespace zolvani
