#include "reference/server/media/SampleGenerator.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

extern char** environ;

namespace zolvani::refserver {

namespace {

// 64-bit FNV-1a of the name seeds a xorshift generator.
uint64_t SeedFor(const std::string& name) {
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : name) {
    h ^= c;
    h *= 1099511628211ull;
  }
  return h == 0 ? 1 : h;
}

// Writes `text` to `file` unless it holds exactly that already, then gives it the
// fixed modification time of every sample file. Generating again, on this server or
// on another one, so leaves each file's validators as they were: a download begun
// before a restart, or on another server, resumes. A file is written beside its
// final name and renamed over it, so that a reader never sees half of it.
Status WriteSampleFile(const std::filesystem::path& file, const std::string& text) {
  bool same = false;
  {
    std::ifstream in(file, std::ios::binary);
    if (in) {
      std::ostringstream held;
      held << in.rdbuf();
      same = held.str() == text;
    }
  }
  if (!same) {
    std::filesystem::path partial = file;
    partial += ".partial";
    std::ofstream out(partial, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
      std::error_code ec;
      std::filesystem::remove(partial, ec);
      return Status::IOError("cannot write " + partial.string());
    }
    std::error_code ec;
    std::filesystem::rename(partial, file, ec);
    if (ec) return Status::IOError("cannot rename " + partial.string() + ": " + ec.message());
  }
  const struct timespec times[2] = {{SampleGenerator::kFileTimeSeconds, 0},
                                    {SampleGenerator::kFileTimeSeconds, 0}};
  if (::utimensat(AT_FDCWD, file.c_str(), times, 0) != 0) {
    return Status::IOError("cannot set the time of " + file.string());
  }
  return Status::OK();
}

Status MakeDirs(const std::filesystem::path& dir) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) return Status::IOError("cannot create " + dir.string() + ": " + ec.message());
  return Status::OK();
}

// The words of `text`, split at spaces (for arguments that hold none).
std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = std::min(text.find(' ', at), text.size());
    if (end > at) words.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return words;
}

// Starts ffmpeg with `args`, its output discarded; -1 when it cannot start.
// Several run at once: ffmpeg spends much of a short job starting up.
pid_t StartFfmpeg(std::vector<std::string> args) {
  args.insert(args.begin(), "ffmpeg");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int fd : {0, 1, 2})
    posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd == 0 ? O_RDONLY : O_WRONLY, 0);
  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, "ffmpeg", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return spawned == 0 ? pid : -1;
}

// Waits for a started ffmpeg; true when it ran and succeeded.
bool Succeeded(pid_t pid) {
  if (pid < 0) return false;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Lands every file ffmpeg made in `from` under the same name in `to`.
Status LandFolder(const std::filesystem::path& from, const std::filesystem::path& to) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(from, ec)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in && !in.eof()) return Status::IOError("cannot read " + entry.path().string());
    Status s = WriteSampleFile(to / entry.path().filename(), bytes);
    if (!s.ok()) return s;
  }
  if (ec) return Status::IOError("cannot list " + from.string() + ": " + ec.message());
  return Status::OK();
}

// A two-second test picture with a tone, with the index (moov) first so that a
// player starts before the end arrives. Bit-exact flags and one thread keep
// the bytes the same from run to run.
pid_t StartClip(const std::filesystem::path& scratch, int tone) {
  auto args = Words(
      "-nostdin -v error -y -f lavfi -i testsrc2=size=320x180:rate=25:duration=2 -f lavfi -i "
      "sine=frequency=" +
      std::to_string(tone) +
      ":sample_rate=44100:duration=2 -c:v mpeg4 -q:v 10 -c:a aac -b:a 48k -movflags +faststart "
      "-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -map_metadata -1 -threads 1 -f mp4");
  args.push_back(scratch.string());
  return StartFfmpeg(std::move(args));
}

// The clip's bytes once its job ended; empty when ffmpeg is missing or failed.
std::string FinishClip(pid_t job, const std::filesystem::path& scratch) {
  std::string bytes;
  if (Succeeded(job)) {
    std::ifstream in(scratch, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  std::error_code ec;
  std::filesystem::remove(scratch, ec);
  return bytes;
}

}  // namespace

Status SampleGenerator::WritePaddedClip(const std::filesystem::path& file, const std::string& clip,
                                        const std::string& name, uint64_t size) {
  // The file keeps the size asked for: a "free" box after the media fills it
  // up, which players skip. Without a clip, or for sizes too small for it, the
  // file is the synthetic stand-in.
  if (clip.empty() || clip.size() + 8 > size || size - clip.size() > 0xffffffffu)
    return WriteMediaFile(file, name, size);
  Status s = MakeDirs(file.parent_path());
  if (!s.ok()) return s;
  const auto pad = static_cast<uint32_t>(size - clip.size());
  std::string bytes = clip;
  bytes += {static_cast<char>(pad >> 24),
            static_cast<char>(pad >> 16),
            static_cast<char>(pad >> 8),
            static_cast<char>(pad),
            'f',
            'r',
            'e',
            'e'};
  bytes.resize(size, '\0');
  return WriteSampleFile(file, bytes);
}

Status SampleGenerator::WritePlayableMp4(const std::filesystem::path& file, const std::string& name,
                                         uint64_t size) {
  Status s = MakeDirs(file.parent_path());
  if (!s.ok()) return s;
  const int tone = 220 + static_cast<int>(SeedFor(name) % 660);
  const std::filesystem::path scratch = file.string() + ".clip.mp4";
  return WritePaddedClip(file, FinishClip(StartClip(scratch, tone), scratch), name, size);
}

Status SampleGenerator::WriteMediaFile(const std::filesystem::path& file, const std::string& name,
                                       uint64_t size) {
  Status s = MakeDirs(file.parent_path());
  if (!s.ok()) return s;
  std::string bytes;
  bytes.resize(size);
  // ftyp box: size 24, "ftyp", brand "isom", version 0x200, compatible "isomiso2".
  static constexpr unsigned char kFtyp[] = {0, 0, 0, 24, 'f', 't', 'y', 'p', 'i', 's', 'o', 'm',
                                            0, 0, 2, 0,  'i', 's', 'o', 'm', 'i', 's', 'o', '2'};
  uint64_t state = SeedFor(name);
  for (uint64_t i = 0; i < size; ++i) {
    if (i < sizeof(kFtyp)) {
      bytes[i] = static_cast<char>(kFtyp[i]);
      continue;
    }
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    bytes[i] = static_cast<char>(state & 0xff);
  }
  return WriteSampleFile(file, bytes);
}

std::vector<HlsVariant> SampleGenerator::DefaultLadder() {
  return {{400000, 640, 360}, {800000, 960, 540}, {1600000, 1280, 720}};
}

Status SampleGenerator::WriteHlsLadder(const std::filesystem::path& folder,
                                       const std::vector<HlsVariant>& variants, int segments) {
  Status s = MakeDirs(folder);
  if (!s.ok()) return s;
  constexpr int kSegmentSeconds = 2;
  std::string master = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-INDEPENDENT-SEGMENTS\n";
  for (const auto& v : variants) {
    const std::string name = "v" + std::to_string(v.bandwidth / 1000) + "k";
    master += "#EXT-X-STREAM-INF:BANDWIDTH=" + std::to_string(v.bandwidth) +
              ",RESOLUTION=" + std::to_string(v.width) + "x" + std::to_string(v.height) +
              ",CODECS=\"avc1.64001f,mp4a.40.2\"\n" + name + "/index.m3u8\n";
    const auto dir = folder / name;
    s = WriteMediaFile(dir / "init.mp4", folder.filename().string() + "/" + name + "/init", 1024);
    if (!s.ok()) return s;
    std::string playlist =
        "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:" + std::to_string(kSegmentSeconds) +
        "\n#EXT-X-MEDIA-SEQUENCE:0\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-MAP:URI=\"init.mp4\"\n";
    // Segment sizes follow the bandwidth, scaled down tenfold to keep samples small.
    const uint64_t segmentBytes = static_cast<uint64_t>(v.bandwidth) / 8 * kSegmentSeconds / 10;
    for (int i = 0; i < segments; ++i) {
      const std::string segment = "seg" + std::to_string(i) + ".m4s";
      s = WriteMediaFile(dir / segment, folder.filename().string() + "/" + name + "/" + segment,
                         segmentBytes);
      if (!s.ok()) return s;
      playlist += "#EXTINF:" + std::to_string(kSegmentSeconds) + ".000,\n" + segment + "\n";
    }
    playlist += "#EXT-X-ENDLIST\n";
    s = WriteSampleFile(dir / "index.m3u8", playlist);
    if (!s.ok()) return s;
  }
  return WriteSampleFile(folder / "master.m3u8", master);
}

Status SampleGenerator::WritePlayableHlsLadder(const std::filesystem::path& folder,
                                               const std::vector<HlsVariant>& variants,
                                               int segments) {
  Status s = MakeDirs(folder);
  if (!s.ok()) return s;
  constexpr int kSegmentSeconds = 2;
  const std::string seconds = std::to_string(kSegmentSeconds * segments);
  std::string master = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-INDEPENDENT-SEGMENTS\n";
  std::vector<pid_t> jobs;
  std::vector<std::pair<std::filesystem::path, std::filesystem::path>> landings;
  for (const auto& v : variants) {
    const std::string name = "v" + std::to_string(v.bandwidth / 1000) + "k";
    const auto dir = folder / name;
    // ffmpeg writes into a scratch folder; each file then lands as every sample
    // file does (unchanged bytes left alone, the fixed time), so that generating
    // again keeps the validators a resumed download relies on.
    const auto scratch = folder / ("." + name + ".partial");
    std::error_code cleared;
    std::filesystem::remove_all(scratch, cleared);
    s = MakeDirs(scratch);
    if (s.ok()) s = MakeDirs(dir);
    if (!s.ok()) {
      for (pid_t job : jobs) Succeeded(job);
      return s;
    }
    // The layout WriteHlsLadder writes (init.mp4, seg<N>.m4s, index.m3u8), with
    // H.264 and AAC as the CODECS say and a key frame starting each segment.
    // The picture is a quarter of the variant's size at 10 frames a second,
    // so that a server starts quickly; RESOLUTION states what it is.
    const std::string size =
        std::to_string(v.width / 8 * 2) + "x" + std::to_string(v.height / 8 * 2);
    auto args = Words("-nostdin -v error -y -f lavfi -i testsrc2=size=" + size +
                      ":rate=10:duration=" + seconds +
                      " -f lavfi -i sine=frequency=440:sample_rate=44100:duration=" + seconds +
                      " -c:v libx264 -preset ultrafast -profile:v high -level 3.1 -pix_fmt yuv420p "
                      "-g 20 -keyint_min 20 -sc_threshold 0 -b:v " +
                      std::to_string(v.bandwidth * 7 / 10) +
                      " -threads 1 -c:a aac -b:a 48k -fflags +bitexact -flags:v +bitexact "
                      "-flags:a +bitexact -map_metadata -1 -f hls -hls_time " +
                      std::to_string(kSegmentSeconds) +
                      " -hls_playlist_type vod -hls_segment_type fmp4 -hls_fmp4_init_filename "
                      "init.mp4 -hls_segment_filename");
    args.push_back((scratch / "seg%d.m4s").string());
    args.push_back((scratch / "index.m3u8").string());
    jobs.push_back(StartFfmpeg(std::move(args)));
    landings.emplace_back(scratch, dir);
    master += "#EXT-X-STREAM-INF:BANDWIDTH=" + std::to_string(v.bandwidth) + ",RESOLUTION=" + size +
              ",CODECS=\"avc1.64001f,mp4a.40.2\"\n" + name + "/index.m3u8\n";
  }
  bool made = true;
  for (pid_t job : jobs) made = Succeeded(job) && made;
  for (const auto& [scratch, dir] : landings) {
    if (made) s = LandFolder(scratch, dir);
    std::error_code cleared;
    std::filesystem::remove_all(scratch, cleared);
    if (!s.ok()) return s;
  }
  // Without ffmpeg (or with one that lacks an encoder) the ladder is synthetic.
  if (!made) return WriteHlsLadder(folder, variants, segments);
  return WriteSampleFile(folder / "master.m3u8", master);
}

Status SampleGenerator::Generate(const std::filesystem::path& dataDir, int64_t nowMs,
                                 nlohmann::json* seed) {
  const auto media = dataDir / "media";
  struct File {
    const char* path;
    uint64_t size;
  };
  static constexpr File kFiles[] = {{"files/morning-news-1.mp4", 256 * 1024},
                                    {"files/morning-news-2.mp4", 320 * 1024},
                                    {"files/morning-news-3.mp4", 384 * 1024},
                                    {"files/archive-1.mp4", 200 * 1024},
                                    {"files/welcome.mp4", 192 * 1024}};
  // One clip serves every sample file; it is made while the ladder is.
  Status made = MakeDirs(media / "files");
  if (!made.ok()) return made;
  const auto scratch = media / "files" / ".sample-clip.mp4";
  const pid_t clipJob = StartClip(scratch, 440);
  made = WritePlayableHlsLadder(media / "hls" / "feature", DefaultLadder(), 4);
  const std::string clip = FinishClip(clipJob, scratch);
  if (!made.ok()) return made;
  for (const auto& f : kFiles) {
    Status s = WritePaddedClip(media / f.path, clip, f.path, f.size);
    if (!s.ok()) return s;
  }

  // Items are spread over the last hours, oldest first, in whole seconds.
  const int64_t now = nowMs / 1000 * 1000;
  auto item = [&](const std::string& uuid, int hoursAgo, const std::string& path, int mediaType,
                  const std::string& title, const std::string& mime) {
    return nlohmann::json{{"remoteUUID", uuid},
                          {"created", now - int64_t{hoursAgo} * 3600 * 1000},
                          {"media", path},
                          {"metadata",
                           {{"title", title},
                            {"desc", title + " &amp; more"},
                            {"mediaType", mediaType},
                            {"availableFrom", (now / 1000) - int64_t{hoursAgo} * 3600},
                            {"catalogExpiry", (now / 1000) + 30 * 24 * 3600},
                            {"downloadExpiry", 7 * 24 * 3600},
                            {"expiryAfterPlay", 48 * 3600},
                            {"mime", mime}}}};
  };
  *seed = {
      {"accounts", {{{"user", kDemoUser}, {"key", kDemoKey}, {"secret", kDemoSecret}}}},
      {"feeds",
       {{{"id", "morning-news"},
         {"title", "Morning News"},
         {"subscribable", true},
         {"rules", {{"max_assets", 5}, {"auto_delete", true}, {"max_bitrate", 0}}},
         {"items",
          {item("news-0001", 5, "files/morning-news-1.mp4", 0, "Morning News 1", "video/mp4"),
           item("news-0002", 4, "files/morning-news-2.mp4", 0, "Morning News 2", "video/mp4"),
           item("news-0003", 3, "files/morning-news-3.mp4", 0, "Morning News 3", "video/mp4")}}},
        {{"id", "feature-films"},
         {"title", "Feature Films"},
         {"subscribable", true},
         {"rules", {{"max_assets", 2}, {"auto_delete", true}, {"max_bitrate", 1000000}}},
         {"items",
          {item("film-0001", 2, "hls/feature/master.m3u8", 3, "Feature",
                "application/x-mpegURL")}}},
        {{"id", "archive"},
         {"title", "Archive"},
         {"subscribable", false},
         {"items",
          {item("archive-0001", 6, "files/archive-1.mp4", 0, "Archive 1", "video/mp4")}}}}},
      {"direct_items", {[&] {
         auto direct = item("welcome-0001", 1, "files/welcome.mp4", 0, "Welcome", "video/mp4");
         direct["user"] = kDemoUser;
         return direct;
       }()}}};
  std::ofstream out(dataDir / "sample-seed.json", std::ios::binary | std::ios::trunc);
  out << seed->dump(2) << "\n";
  out.close();
  if (!out) return Status::IOError("cannot write " + (dataDir / "sample-seed.json").string());
  return Status::OK();
}

}  // namespace zolvani::refserver
