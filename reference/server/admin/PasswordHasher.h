// PasswordHasher: turns the console password into a memory-hard Argon2id hash in
// the PHC string form ("$argon2id$v=19$m=...,t=...,p=...$salt$hash") and checks a
// password against such a string. The string carries its own parameters and salt,
// so stronger parameters later still verify older hashes.
//
// Thread-safe. Each hash holds `memoryKiB` of memory for its duration; at most two
// run at once in a process, so that a flood of login attempts cannot make the
// server allocate without bound (others wait their turn).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "reference/server/Status.h"

namespace zolvani::refserver {

struct PasswordHashParams {
  uint32_t timeCost = 2;       // passes over memory
  uint32_t memoryKiB = 19456;  // 19 MiB
  uint32_t parallelism = 1;
};

class PasswordHasher {
 public:
  static constexpr size_t kMinPasswordLength = 8;
  static constexpr size_t kMaxPasswordLength = 1024;

  // A fresh random salt each call. Refuses passwords shorter than
  // kMinPasswordLength or longer than kMaxPasswordLength bytes.
  static Status Hash(std::string_view password, const PasswordHashParams& params,
                     std::string* encoded);
  // True only when `encoded` is a well-formed Argon2id string made from `password`;
  // anything else (another variant, a truncated or altered string) is false.
  static bool Verify(std::string_view encoded, std::string_view password);
};

}  // namespace zolvani::refserver
