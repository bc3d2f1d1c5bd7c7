#include "CliConfig.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

#include "CliError.h"

namespace zsm {

namespace fs = std::filesystem;

fs::path HostPaths::defaultRoot() {
  if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state)
    return fs::path(state) / "zsm";
  if (const char* home = std::getenv("HOME"); home && *home)
    return fs::path(home) / ".local" / "state" / "zsm";
  return fs::current_path() / "zsm-data";
}

bool CliConfig::complete() const { return firstMissing().empty(); }

std::string CliConfig::firstMissing() const {
  if (serverUrl.empty()) return "--server";
  if (user.empty()) return "--user";
  if (publicKey.empty()) return "--key";
  if (secret.empty()) return "--secret";
  return {};
}

nlohmann::json CliConfig::toJson(bool revealSecret) const {
  return {{"server", serverUrl},
          {"user", user},
          {"key", publicKey},
          {"secret", revealSecret ? secret : (secret.empty() ? "" : "(set)")},
          {"device_id", deviceId}};
}

std::optional<zolvani::Error> CliConfig::load(const HostPaths& paths, CliConfig* config) {
  *config = CliConfig();
  std::error_code ec;
  if (!fs::exists(paths.config(), ec)) return std::nullopt;
  std::ifstream in(paths.config(), std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  if (!in) return cliError(kCliErrorConfigFile, "cannot read " + paths.config().string());
  const nlohmann::json json = nlohmann::json::parse(text.str(), nullptr, false);
  if (json.is_discarded() || !json.is_object())
    return cliError(kCliErrorConfigFile, paths.config().string() + " is not a JSON object");
  auto field = [&json](const char* key) -> std::string {
    auto it = json.find(key);
    return it != json.end() && it->is_string() ? it->get<std::string>() : std::string();
  };
  config->serverUrl = field("server");
  config->user = field("user");
  config->publicKey = field("key");
  config->secret = field("secret");
  config->deviceId = field("device_id");
  return std::nullopt;
}

std::optional<zolvani::Error> CliConfig::save(const HostPaths& paths) const {
  std::error_code ec;
  fs::create_directories(paths.root, ec);
  if (ec)
    return cliError(kCliErrorConfigFile,
                    "cannot create " + paths.root.string() + ": " + ec.message());
  const fs::path temporary = paths.config().string() + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << toJson(/*revealSecret=*/true).dump(2) << "\n";
    out.flush();
    if (!out) return cliError(kCliErrorConfigFile, "cannot write " + temporary.string());
  }
  fs::permissions(temporary, fs::perms::owner_read | fs::perms::owner_write,
                  fs::perm_options::replace, ec);
  fs::rename(temporary, paths.config(), ec);
  if (ec)
    return cliError(kCliErrorConfigFile,
                    "cannot replace " + paths.config().string() + ": " + ec.message());
  return std::nullopt;
}

}  // namespace zsm
