// FileUserDefaults: a UserDefaults kept in one JSON file.
//
// The file is read once at construction and rewritten by synchronize() through a
// temporary file in the same folder that is flushed and renamed over the old one,
// so after a crash the file holds either the old or the new content. Types that
// JSON lacks are written as tagged objects ({"$date": seconds},
// {"$bytes": "hex"}). A file that cannot be read or parsed does not stop the
// host: it is reported through the diagnostic sink, moved aside to
// "<path>.corrupt-<seconds>", and the store starts empty.
//
// Without a path the store lives in memory only and synchronize() succeeds.
//
// Thread-safety: safe to use from any thread.
#pragma once

#include "zolvani/subscription/Export.h"

#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "zolvani/subscription/platform/UserDefaults.h"

namespace zolvani {

class ZSM_EXPORT FileUserDefaults final : public UserDefaults {
 public:
  // Receives (message, level) for problems with the file; levels are the
  // engine logger's (0 error, 1 warning).
  using DiagnosticSink = std::function<void(const std::string&, int)>;

  // In-memory store.
  FileUserDefaults();
  explicit FileUserDefaults(std::filesystem::path path, DiagnosticSink sink = {});

  // "$XDG_STATE_HOME/zolvani/user-defaults.json", else
  // "$HOME/.local/state/zolvani/user-defaults.json", else a file in the
  // current folder.
  static std::filesystem::path defaultPath();

  std::optional<Value> objectForKey(std::string_view key) const override;
  void setObject(std::string_view key, Value value) override;
  void removeObjectForKey(std::string_view key) override;
  bool synchronize() override;

  const std::optional<std::filesystem::path>& path() const { return path_; }
  // How many times synchronize() has written (or, in memory, been called).
  std::size_t synchronizeCount() const;

  // Encoding of a whole map to the file's JSON text and back; exposed for tests.
  static std::string encode(const Value::Map& values);
  static std::optional<Value::Map> decode(const std::string& text);

 private:
  void load();

  std::optional<std::filesystem::path> path_;
  DiagnosticSink sink_;
  mutable std::mutex mutex_;
  Value::Map values_;
  std::size_t synchronizeCount_ = 0;
};

}  // namespace zolvani
