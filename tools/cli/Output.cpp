#include "Output.h"

#include <cmath>
#include <ctime>
#include <iostream>

#include "ExitStatus.h"
#include "zolvani/subscription/engine/ZolvaniAsset.h"

namespace zsm {

void Output::line(const std::string& text) const {
  if (!json_) std::cout << text << "\n" << std::flush;
}

void Output::document(const nlohmann::json& document) const {
  if (json_)
    std::cout << document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n"
              << std::flush;
}

int Output::fail(const zolvani::Error& error) const {
  std::cerr << "error: " << error.describe() << "\n" << std::flush;
  if (json_) document({{"ok", false}, {"error", errorJson(error)}});
  return exitStatusFor(error);
}

std::string isoDate(double secondsSince1970) {
  if (!std::isfinite(secondsSince1970)) return "?";
  const std::time_t t = static_cast<std::time_t>(std::floor(secondsSince1970));
  std::tm tm{};
  gmtime_r(&t, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

}  // namespace zsm
