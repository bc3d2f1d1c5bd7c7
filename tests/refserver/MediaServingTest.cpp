// Media as devices download it: byte ranges with validators, refusals of paths that
// leave the media folder, and the HLS ladder.
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "RefServerFixture.h"

namespace zolvani::refserver::testing {
namespace {

class MediaServingTest : public RefServerFixture {
 protected:
  std::string FileBytes(const std::string& relative) {
    std::ifstream in(dir_ / "media" / relative, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
};

TEST_F(MediaServingTest, RangesHonourIfRange) {
  const std::string whole = FileBytes("files/clip.mp4");
  ASSERT_EQ(whole.size(), 300000u);
  httplib::Client client("127.0.0.1", server_->port());
  auto head = client.Get("/media/files/clip.mp4");
  ASSERT_TRUE(head);
  ASSERT_EQ(head->status, 200);
  EXPECT_EQ(head->body, whole);
  const std::string etag = head->get_header_value("ETag");
  const std::string lastModified = head->get_header_value("Last-Modified");
  ASSERT_FALSE(etag.empty());
  ASSERT_FALSE(lastModified.empty());

  struct Case {
    const char* name;
    httplib::Headers headers;
    int status;
    size_t first;  // expected bytes: whole.substr(first, length)
    size_t length;
    const char* contentRange;
  };
  const std::vector<Case> cases = {
      {"first ten", {{"Range", "bytes=0-9"}}, 206, 0, 10, "bytes 0-9/300000"},
      {"open end", {{"Range", "bytes=299990-"}}, 206, 299990, 10, "bytes 299990-299999/300000"},
      {"suffix", {{"Range", "bytes=-5"}}, 206, 299995, 5, "bytes 299995-299999/300000"},
      {"end past the size",
       {{"Range", "bytes=299999-400000"}},
       206,
       299999,
       1,
       "bytes 299999-299999/300000"},
      {"start past the size", {{"Range", "bytes=300000-"}}, 416, 0, 0, "bytes */300000"},
      {"If-Range with our ETag",
       {{"Range", "bytes=100-199"}, {"If-Range", etag}},
       206,
       100,
       100,
       "bytes 100-199/300000"},
      {"If-Range with our date",
       {{"Range", "bytes=100-199"}, {"If-Range", lastModified}},
       206,
       100,
       100,
       "bytes 100-199/300000"},
      {"If-Range with a changed ETag",
       {{"Range", "bytes=100-199"}, {"If-Range", "\"other\""}},
       200,
       0,
       300000,
       ""},
      {"If-Range with a weak ETag",
       {{"Range", "bytes=100-199"}, {"If-Range", "W/" + etag}},
       200,
       0,
       300000,
       ""},
      {"If-Range with another date",
       {{"Range", "bytes=100-199"}, {"If-Range", "Mon, 01 Jan 2001 00:00:00 GMT"}},
       200,
       0,
       300000,
       ""},
      {"several ranges", {{"Range", "bytes=0-1,5-6"}}, 200, 0, 300000, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto res = client.Get("/media/files/clip.mp4", c.headers);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, c.status);
    EXPECT_EQ(res->get_header_value("Content-Range"), c.contentRange);
    if (c.status != 416) {
      EXPECT_EQ(res->body, whole.substr(c.first, c.length));
      EXPECT_EQ(res->get_header_value("ETag"), etag);
    }
  }

  // A new version of the file gets a new validator, so a resumed download of the
  // old one starts again from the beginning.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  {
    std::ofstream out(dir_ / "media/files/clip.mp4", std::ios::binary | std::ios::trunc);
    out << std::string(1000, 'x');
  }
  auto changed =
      client.Get("/media/files/clip.mp4", {{"Range", "bytes=100-199"}, {"If-Range", etag}});
  ASSERT_TRUE(changed);
  EXPECT_EQ(changed->status, 200);
  EXPECT_EQ(changed->body, std::string(1000, 'x'));
  EXPECT_NE(changed->get_header_value("ETag"), etag);
}

TEST_F(MediaServingTest, ADownloadBegunOnOneServerResumesOnAnotherHoldingACopy) {
  // Behind a balancer the next request may reach another server, with its own copy
  // of the media folder made with times kept (rsync -a, cp -p).
  namespace fs = std::filesystem;
  const fs::path other = dir_ / "other-node";
  fs::create_directories(other / "media/files");
  const fs::path original = dir_ / "media/files/clip.mp4";
  const fs::path copy = other / "media/files/clip.mp4";
  fs::copy_file(original, copy);
  fs::last_write_time(copy, fs::last_write_time(original));
  ServerOptions options;
  options.dataDir = other;
  options.threads = 2;
  options.console = false;
  std::unique_ptr<ContentServer> second;
  ASSERT_TRUE(ContentServer::Create(options, &second).ok());
  ASSERT_TRUE(second->Start().ok());

  httplib::Client first("127.0.0.1", server_->port());
  httplib::Client next("127.0.0.1", second->port());
  auto begun = first.Get("/media/files/clip.mp4", {{"Range", "bytes=0-99"}});
  ASSERT_TRUE(begun);
  ASSERT_EQ(begun->status, 206);
  const std::string etag = begun->get_header_value("ETag");
  auto resumed = next.Get("/media/files/clip.mp4", {{"Range", "bytes=100-"}, {"If-Range", etag}});
  ASSERT_TRUE(resumed);
  EXPECT_EQ(resumed->status, 206);
  EXPECT_EQ(resumed->get_header_value("ETag"), etag);
  EXPECT_EQ(begun->body + resumed->body, FileBytes("files/clip.mp4"));

  // A copy whose time was not kept is another version as far as validators go: the
  // download starts again rather than mixing two files.
  fs::last_write_time(copy, fs::last_write_time(original) + std::chrono::seconds(5));
  auto restarted = next.Get("/media/files/clip.mp4", {{"Range", "bytes=100-"}, {"If-Range", etag}});
  ASSERT_TRUE(restarted);
  EXPECT_EQ(restarted->status, 200);
  EXPECT_EQ(restarted->body.size(), 300000u);
  second->Stop();
}

TEST_F(MediaServingTest, PathsOutsideTheMediaFolderAreNotServed) {
  std::ofstream(dir_ / "secret.txt") << "not media";
  std::filesystem::create_symlink(dir_ / "secret.txt", dir_ / "media/files/link.mp4");
  for (const char* path :
       {"/media/../secret.txt", "/media/%2e%2e/secret.txt", "/media/files/..%2f..%2fsecret.txt",
        "/media/files/link.mp4", "/media//etc/passwd", "/media/files/", "/media/files",
        "/media/files/missing.mp4", "/media/files/clip.mp4%00.txt", "/media/server.sqlite"}) {
    SCOPED_TRACE(path);
    const RawReply reply = Get(path);
    EXPECT_EQ(reply.status, 404);
    EXPECT_EQ(reply.body.find("not media"), std::string::npos);
  }
}

TEST_F(MediaServingTest, HlsLadderHasThreeVariantsWithCompletePlaylists) {
  const RawReply master = Get("/media/hls/show/master.m3u8");
  ASSERT_EQ(master.status, 200);
  EXPECT_EQ(master.body.rfind("#EXTM3U\n", 0), 0u);
  const std::regex variant(R"(#EXT-X-STREAM-INF:BANDWIDTH=(\d+)[^\n]*\n([^\n]+)\n)");
  std::set<int> bandwidths;
  std::vector<std::string> playlists;
  for (std::sregex_iterator it(master.body.begin(), master.body.end(), variant), end; it != end;
       ++it) {
    bandwidths.insert(std::stoi((*it)[1]));
    playlists.push_back((*it)[2]);
  }
  EXPECT_EQ(bandwidths.size(), 3u) << master.body;
  ASSERT_EQ(playlists.size(), 3u);
  for (const auto& playlist : playlists) {
    SCOPED_TRACE(playlist);
    const RawReply media = Get("/media/hls/show/" + playlist);
    ASSERT_EQ(media.status, 200);
    EXPECT_NE(media.body.find("#EXT-X-ENDLIST"), std::string::npos);
    EXPECT_NE(media.body.find("#EXT-X-MAP:URI=\"init.mp4\""), std::string::npos);
    const std::string folder = playlist.substr(0, playlist.rfind('/') + 1);
    int segments = 0;
    std::istringstream lines(media.body);
    for (std::string line; std::getline(lines, line);) {
      if (line.empty() || line[0] == '#') continue;
      EXPECT_EQ(Get("/media/hls/show/" + folder + line).status, 200) << line;
      ++segments;
    }
    EXPECT_EQ(segments, 3);
    EXPECT_EQ(Get("/media/hls/show/" + folder + "init.mp4").status, 200);
  }
}

}  // namespace
}  // namespace zolvani::refserver::testing
