// Environment for the programs that end-to-end tests start.
//
// The command-line host and the content server keep their manager, engine and
// observers for the life of the process, as a host application does, and let
// the process end without tearing them down. Under the leak checker that
// by-design lifetime reads as a leak, so children started by a test run with
// leak detection off; the test process itself keeps it.
#pragma once

#include <cstdlib>
#include <string>

namespace zolvani::testing {

inline void disableLeakCheckInChildren() {
  std::string options;
  if (const char* existing = std::getenv("ASAN_OPTIONS"); existing && *existing) {
    options = existing;
    options += ':';
  }
  options += "detect_leaks=0";
  ::setenv("ASAN_OPTIONS", options.c_str(), 1);
}

}  // namespace zolvani::testing
