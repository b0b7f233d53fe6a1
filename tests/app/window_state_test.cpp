// The saved window state: what a file gives back, how it is written, and
// which size a window opens with on a given screen.
#include "app/window_state.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <utility>

#include "support/temporary_folder.h"

namespace qor {
namespace {

class WindowStateTest : public ::testing::Test {
 protected:
  static mode_t modeOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 0777;
  }

  const testing::TemporaryFolder folder_{"qor-window"};
  const std::filesystem::path& root_ = folder_.path();
};

TEST_F(WindowStateTest, WrittenForTheUserOnlyAndReadBack) {
  const auto file = root_ / "QOR Velmora" / "window.ini";
  EXPECT_EQ(readWindowState(file), std::nullopt);
  for (const WindowState state : {WindowState{1000, 700, false}, WindowState{1500, 900, true}}) {
    ASSERT_TRUE(writeWindowState(file, state));
    EXPECT_EQ(readWindowState(file), state);
  }
  EXPECT_EQ(modeOf(file.parent_path()), 0700u);
  EXPECT_EQ(modeOf(file), 0600u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()), {}), 1)
      << "no temporary file is left beside it";

  // A folder that cannot be made is an error, and nothing is written.
  std::ofstream(root_ / "plain") << "a file";
  EXPECT_FALSE(writeWindowState(root_ / "plain" / "window.ini", {}));
}

TEST_F(WindowStateTest, DamagedFilesGiveNothing) {
  const std::pair<const char*, std::optional<WindowState>> files[] = {
      {"[Window]\nwidth=900\nheight=600\nmaximized=true\n", WindowState{900, 600, true}},
      {"", std::nullopt},
      {"not a key file\x01", std::nullopt},
      {"[Window]\nwidth=900\nmaximized=false\n", std::nullopt},
      {"[Window]\nwidth=0\nheight=600\nmaximized=false\n", std::nullopt},
      {"[Window]\nwidth=-5\nheight=600\nmaximized=false\n", std::nullopt},
      {"[Window]\nwidth=wide\nheight=600\nmaximized=false\n", std::nullopt},
      {"[Window]\nwidth=900\nheight=600\nmaximized=perhaps\n", std::nullopt},
      {"[Other]\nwidth=900\nheight=600\nmaximized=false\n", std::nullopt},
  };
  const auto file = root_ / "window.ini";
  for (const auto& [text, expected] : files) {
    std::ofstream(file, std::ios::trunc) << text;
    EXPECT_EQ(readWindowState(file), expected) << text;
  }
}

TEST(WindowStateFit, ASizeThatNoLongerFitsFallsBackToTheFirstRunSize) {
  const WindowState firstRun{1280, 820, false};
  const std::tuple<std::optional<WindowState>, int, int, WindowState> cases[] = {
      {std::nullopt, 1920, 1080, firstRun},
      {WindowState{1000, 700, false}, 1920, 1080, WindowState{1000, 700, false}},
      {WindowState{1920, 1080, true}, 1920, 1080, WindowState{1920, 1080, true}},
      {WindowState{1921, 700, false}, 1920, 1080, firstRun},
      {WindowState{1000, 1081, false}, 1920, 1080, firstRun},
      {WindowState{2560, 1440, true}, 1920, 1080, WindowState{1280, 820, true}},
  };
  for (const auto& [saved, width, height, expected] : cases) {
    EXPECT_EQ(fitWindowState(saved, width, height), expected) << width << "x" << height;
  }
}

}  // namespace
}  // namespace qor
