// MediaTools: real media for the engine's tests, made and checked with the
// ffmpeg and ffprobe command-line tools.
//
// Fixtures are made at test time from ffmpeg's built-in sources (a test
// pattern and a sine tone), a couple of seconds at a tiny resolution, so that
// the engine meets what a real packager writes. A downloaded copy is checked
// the way a user would: ffmpeg decodes it to nowhere without an error and
// ffprobe lists its streams.
//
// Thread-safety: the functions keep no shared state.
#pragma once

#include <filesystem>
#include <set>
#include <string>

#include "MediaServer.h"

namespace zolvani::testing {

struct CommandResult {
  int status = -1;
  std::string output;  // stdout and stderr together
};

CommandResult runCommand(const std::string& command);

// True when ffmpeg and ffprobe run; the tests fail (not skip) otherwise, since
// scripts/setup.sh installs them.
bool mediaToolsPresent();

// Runs "ffmpeg -v error <arguments>" in `folder`; the output on failure.
CommandResult ffmpeg(const std::filesystem::path& folder, const std::string& arguments);

struct Playback {
  bool decoded = false;           // ffmpeg read every packet without an error
  std::string errors;             // what it said
  std::set<std::string> streams;  // ffprobe's codec types: "video", "audio", "subtitle"
};
Playback play(const std::filesystem::path& manifest);

// Serves every file under `folder` at `prefix` + its relative path, with a
// content type from its extension.
void serveFolder(MediaServer& server, const std::filesystem::path& folder,
                 const std::string& prefix);

}  // namespace zolvani::testing
