#include "reference/server/admin/PasswordHasher.h"

#include <argon2.h>
#include <openssl/rand.h>

#include <semaphore>
#include <vector>

namespace zolvani::refserver {

namespace {

constexpr size_t kSaltBytes = 16;
constexpr size_t kHashBytes = 32;
// Verification parses parameters from stored text; anything far beyond what Hash()
// makes is refused rather than allocated.
constexpr uint32_t kMaxMemoryKiB = 1u << 20;  // 1 GiB
constexpr uint32_t kMaxTimeCost = 16;

std::counting_semaphore<2>& HashSlots() {
  static std::counting_semaphore<2> slots(2);
  return slots;
}

class SlotHold {
 public:
  SlotHold() { HashSlots().acquire(); }
  ~SlotHold() { HashSlots().release(); }
  SlotHold(const SlotHold&) = delete;
  SlotHold& operator=(const SlotHold&) = delete;
};

// Reads "m=<n>,t=<n>,p=<n>" from the parameter field of a PHC string.
bool ParametersWithinLimits(std::string_view encoded) {
  const size_t m = encoded.find("$m=");
  const size_t t = encoded.find(",t=");
  if (m == std::string_view::npos || t == std::string_view::npos || t < m) return false;
  auto number = [&](size_t at, uint64_t* value) {
    *value = 0;
    size_t digits = 0;
    while (at < encoded.size() && encoded[at] >= '0' && encoded[at] <= '9' && digits < 10) {
      *value = *value * 10 + static_cast<uint64_t>(encoded[at] - '0');
      ++at;
      ++digits;
    }
    return digits > 0;
  };
  uint64_t memory = 0, time = 0;
  return number(m + 3, &memory) && number(t + 3, &time) && memory <= kMaxMemoryKiB &&
         time <= kMaxTimeCost;
}

}  // namespace

Status PasswordHasher::Hash(std::string_view password, const PasswordHashParams& params,
                            std::string* encoded) {
  if (password.size() < kMinPasswordLength) {
    return Status::InvalidArgument("a console password needs at least " +
                                   std::to_string(kMinPasswordLength) + " characters");
  }
  if (password.size() > kMaxPasswordLength) {
    return Status::InvalidArgument("a console password takes at most " +
                                   std::to_string(kMaxPasswordLength) + " bytes");
  }
  unsigned char salt[kSaltBytes];
  if (RAND_bytes(salt, sizeof(salt)) != 1) return Status::IOError("no random bytes for a salt");
  const size_t length = argon2_encodedlen(params.timeCost, params.memoryKiB, params.parallelism,
                                          kSaltBytes, kHashBytes, Argon2_id);
  std::vector<char> out(length + 1, '\0');
  int rc;
  {
    SlotHold hold;
    rc = argon2id_hash_encoded(params.timeCost, params.memoryKiB, params.parallelism,
                               password.data(), password.size(), salt, sizeof(salt), kHashBytes,
                               out.data(), out.size());
  }
  if (rc != ARGON2_OK) {
    return Status::InvalidArgument(std::string("cannot hash the password: ") +
                                   argon2_error_message(rc));
  }
  *encoded = out.data();
  return Status::OK();
}

bool PasswordHasher::Verify(std::string_view encoded, std::string_view password) {
  if (encoded.rfind("$argon2id$", 0) != 0 || encoded.size() > 512) return false;
  if (password.size() > kMaxPasswordLength) return false;
  if (!ParametersWithinLimits(encoded)) return false;
  const std::string text(encoded);  // argon2 wants a terminated string
  SlotHold hold;
  return argon2id_verify(text.c_str(), password.data(), password.size()) == ARGON2_OK;
}

}  // namespace zolvani::refserver
