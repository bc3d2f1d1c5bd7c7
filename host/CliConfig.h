// CliConfig: what the command-line host remembers about its device between runs:
// the content server's URL, the account (user, public key, secret) and the device
// identifier, kept as config.json in the host's data folder. The same folder holds
// the user-defaults file and the engine's data folder (see HostPaths).
//
// Plain value type; load() and save() touch the file system and are not meant to
// run concurrently on one folder.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "zolvani/subscription/Error.h"

namespace zsm {

// Where the host keeps each of its files inside the data folder.
struct HostPaths {
  std::filesystem::path root;

  std::filesystem::path config() const { return root / "config.json"; }
  std::filesystem::path userDefaults() const { return root / "user-defaults.json"; }
  std::filesystem::path engine() const { return root / "engine"; }
  // The view of the downloads by feed and title (see LibraryView.h).
  std::filesystem::path library() const { return root / "library"; }

  // $XDG_STATE_HOME/zsm, else ~/.local/state/zsm, else ./zsm-data.
  static std::filesystem::path defaultRoot();
};

struct CliConfig {
  std::string serverUrl;
  std::string user;
  std::string publicKey;
  std::string secret;
  std::string deviceId;

  // True when every field a request needs is set.
  bool complete() const;
  // The first missing field's option name ("--server", ...), empty when complete.
  std::string firstMissing() const;

  // Secrets are shown as "(set)" unless `revealSecret`.
  nlohmann::json toJson(bool revealSecret) const;

  // Reads `paths.config()`; an absent file gives an empty configuration.
  static std::optional<zolvani::Error> load(const HostPaths& paths, CliConfig* config);
  // Writes through a temporary file renamed over the old one; the file is made
  // readable by its owner only because it holds the secret.
  std::optional<zolvani::Error> save(const HostPaths& paths) const;
};

}  // namespace zsm
