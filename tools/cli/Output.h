// Output: how a command speaks. Human text goes to standard output line by line;
// with --json a command prints exactly one JSON document on standard output
// instead. Failures are always one line on standard error,
// "error: <domain> <code>: <description>", and (with --json) also a JSON document
// {"ok": false, "error": {...}} on standard output, so that scripts read one
// format whatever happened.
//
// Thread-safety: meant for the command's driving thread only.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "HostViews.h"
#include "zolvani/subscription/Error.h"
#include "zolvani/subscription/Value.h"

namespace zsm {

class Output {
 public:
  explicit Output(bool json) : json_(json) {}

  bool json() const { return json_; }
  // A line of human text; nothing in JSON mode.
  void line(const std::string& text) const;
  // The command's JSON document; nothing in human mode.
  void document(const nlohmann::json& document) const;
  // Prints the failure and returns the exit status its kind calls for
  // (see ExitStatus.h).
  int fail(const zolvani::Error& error) const;

 private:
  bool json_;
};

// Dates as seconds since 1970 with an ISO 8601 UTC rendering beside them.
std::string isoDate(double secondsSince1970);

}  // namespace zsm
