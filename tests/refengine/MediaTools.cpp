#include "MediaTools.h"

#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace zolvani::testing {
namespace {

std::string quote(const std::string& s) {
  std::string out = "'";
  for (char c : s) {
    if (c == '\'')
      out += "'\\''";
    else
      out += c;
  }
  return out + "'";
}

std::string contentTypeFor(const std::filesystem::path& path) {
  const std::string ext = path.extension().string();
  if (ext == ".m3u8") return "application/vnd.apple.mpegurl";
  if (ext == ".mpd") return "application/dash+xml";
  if (ext == ".vtt") return "text/vtt";
  if (ext == ".ts") return "video/mp2t";
  if (ext == ".key") return "application/octet-stream";
  return "video/mp4";
}

}  // namespace

CommandResult runCommand(const std::string& command) {
  CommandResult result;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return result;
  char buffer[4096];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) result.output.append(buffer, n);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

bool mediaToolsPresent() {
  return runCommand("ffmpeg -version").status == 0 && runCommand("ffprobe -version").status == 0;
}

CommandResult ffmpeg(const std::filesystem::path& folder, const std::string& arguments) {
  return runCommand("cd " + quote(folder.string()) +
                    " && ffmpeg -nostdin -hide_banner -v error -y " + arguments);
}

Playback play(const std::filesystem::path& manifest) {
  Playback p;
  // Bounded: a manifest ffmpeg cannot follow may keep it reading forever.
  auto decode = runCommand("timeout -s KILL 30 ffmpeg -nostdin -hide_banner -v error -i " +
                           quote(manifest.string()) + " -f null -");
  p.decoded = decode.status == 0 && decode.output.empty();
  p.errors = decode.output;
  auto probe = runCommand(
      "timeout -s KILL 30 ffprobe -v error -show_entries stream=codec_type -of csv=p=0 " +
      quote(manifest.string()));
  std::istringstream lines(probe.output);
  std::string line;
  while (std::getline(lines, line))
    if (!line.empty()) p.streams.insert(line);
  if (probe.status != 0) p.errors += probe.output;
  return p;
}

void serveFolder(MediaServer& server, const std::filesystem::path& folder,
                 const std::string& prefix) {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::ostringstream body;
    body << in.rdbuf();
    server.add(prefix + std::filesystem::relative(entry.path(), folder).generic_string(),
               body.str(), contentTypeFor(entry.path()));
  }
}

}  // namespace zolvani::testing
