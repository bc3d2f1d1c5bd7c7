// ConsoleAssets: the console's web pages (HTML, JavaScript modules, CSS), built
// into the program from reference/server/console/web/ so that the console works
// without any file or network beside the server.
//
// Immutable data; safe from any thread.
#pragma once

#include <span>
#include <string_view>

namespace zolvani::refserver {

struct ConsoleAsset {
  std::string_view path;  // relative to /admin/, e.g. "index.html", "js/app.js"
  std::string_view contentType;
  std::string_view body;
};

// Every asset; generated at build time.
std::span<const ConsoleAsset> ConsoleAssetTable();

// The asset at `path`, or null.
const ConsoleAsset* FindConsoleAsset(std::string_view path);

}  // namespace zolvani::refserver
