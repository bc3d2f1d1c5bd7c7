// Errors of the command-line host itself (bad arguments, missing configuration,
// time-outs), in the same shape as the library's and the engine's errors so that
// every failure prints as one line with its domain and code.
//
// Plain constants and a helper; safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "zolvani/subscription/Error.h"

namespace zsm {

inline constexpr std::string_view kCliErrorDomain = "zsm";

enum CliErrorCode : std::int64_t {
  kCliErrorUsage = 1,          // an argument that cannot be used
  kCliErrorNotConfigured = 2,  // the device has no server, user or keys yet
  kCliErrorConfigFile = 3,     // config.json could not be read or written
  kCliErrorTimeout = 4,        // the server did not answer in time
  kCliErrorServerProgram = 5,  // the content server program could not be run
  kCliErrorIncomplete = 6,     // the demo's checks did not hold
  kCliErrorDownloads = 7,      // downloads failed or did not finish in time
  kCliErrorServer = 8,         // the server did not accept what was asked of it
};

inline zolvani::Error cliError(CliErrorCode code, std::string description) {
  return zolvani::Error::make(std::string(kCliErrorDomain), code, std::move(description));
}

}  // namespace zsm
