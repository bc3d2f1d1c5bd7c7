#include "reference/server/media/SampleGenerator.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

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

}  // namespace

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
  for (const auto& f : kFiles) {
    Status s = WriteMediaFile(media / f.path, f.path, f.size);
    if (!s.ok()) return s;
  }
  Status s = WriteHlsLadder(media / "hls" / "feature", DefaultLadder(), 4);
  if (!s.ok()) return s;

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
