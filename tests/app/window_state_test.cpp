// The saved window state: what a file gives back, how it is written, and
// which size a window opens with on a given screen.
#include "app/window_state.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <utility>

#include "support/temporary_folder.h"

namespace qor {
namespace {

class WindowStateTest : public ::testing::Test {
 protected:
  const testing::TemporaryFolder folder_{"qor-window"};
  const std::filesystem::path& root_ = folder_.path();
};

// Written in a private folder, with no temporary file left beside it. (Reading it back at the
// next start, and the file's own mode, are seen through the window.)
TEST_F(WindowStateTest, WrittenInAPrivateFolder) {
  const auto file = root_ / "QOR Velmora" / "window.ini";
  EXPECT_EQ(readWindowState(file), std::nullopt);
  ASSERT_TRUE(writeWindowState(file, {1500, 900, true}));
  EXPECT_EQ(readWindowState(file), (WindowState{1500, 900, true}));
  EXPECT_EQ(std::filesystem::status(file.parent_path()).permissions(),
            std::filesystem::perms::owner_all);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()), {}), 1);

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
