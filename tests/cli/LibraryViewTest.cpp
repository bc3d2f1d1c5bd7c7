// The names the library view gives files: made from server text, so they must
// never escape their folder or break a file manager.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "LibraryView.h"

namespace zsm {
namespace {

namespace fs = std::filesystem;

TEST(LibraryViewTest, TitlesBecomeSafeFileNames) {
  struct Case {
    std::string title;
    std::string name;
  } cases[] = {
      {"Morning News 1", "Morning News 1"},
      {"../../etc/passwd", "_.._etc_passwd"},
      {"..", "untitled"},
      {".hidden", "hidden"},
      {"", "untitled"},
      {"   ", "untitled"},
      {"a/b\\c", "a_b_c"},
      {"line\nbreak\ttab", "line_break_tab"},
      {"  padded  ", "padded"},
      {"Caf\xC3\xA9 & cr\xC3\xA8me", "Caf\xC3\xA9 & cr\xC3\xA8me"},
      {std::string(300, 'x'), std::string(kMaxNameBytes, 'x')},
  };
  for (const auto& c : cases) EXPECT_EQ(safeFileName(c.title), c.name) << c.title;
  // A long name is cut at a character's start, never inside a UTF-8 sequence.
  std::string accents;
  for (int i = 0; i < 100; ++i) accents += "\xC3\xA9";
  const std::string cut = safeFileName(accents);
  EXPECT_LE(cut.size(), kMaxNameBytes);
  EXPECT_EQ(cut.size() % 2, 0u);
  EXPECT_EQ(cut, accents.substr(0, cut.size()));
}

TEST(LibraryViewTest, ExtensionsComeFromTheUrlOrTheFilesFirstBytes) {
  std::string pattern = (fs::temp_directory_path() / "zsm-library-XXXXXX").string();
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  const fs::path dir = pattern;
  const fs::path mp4 = dir / "content-mp4", other = dir / "content-other";
  std::ofstream(mp4, std::ios::binary) << std::string(
      "\0\0\0\x20"
      "ftypisom",
      12);
  std::ofstream(other, std::ios::binary) << "plain bytes here";
  struct Case {
    std::string url;
    fs::path file;
    std::string ext;
  } cases[] = {
      {"http://host/media/files/news.mp4", other, ".mp4"},
      {"http://host/media/files/NEWS.MKV?token=1#t=3", other, ".mkv"},
      {"https://host/a.b/file", mp4, ".mp4"},
      {"http://host/watch?v=abc.mp4", other, ""},
      {"http://host.example/", other, ""},
      {"http://host/x.toolongext", mp4, ".mp4"},
      {"http://host/x.m/4", other, ""},
      {"http://host/x.../", other, ""},
  };
  for (const auto& c : cases) EXPECT_EQ(mediaExtension(c.url, c.file), c.ext) << c.url;
  std::error_code ec;
  fs::remove_all(dir, ec);
}

}  // namespace
}  // namespace zsm
