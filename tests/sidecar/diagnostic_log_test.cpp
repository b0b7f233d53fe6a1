// The application's log: private, capped and rotated; and the pass-through to
// standard error, which drops rather than waits.
#include "sidecar/diagnostic_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/files.h"
#include "sidecar_test_support.h"

namespace qor {
namespace {

namespace fs = std::filesystem;
using testing::linesOf;

class DiagnosticLogTest : public testing::SidecarTest {
 protected:
  fs::path folder() const { return product() / "logs"; }
  fs::path file(const std::string& suffix = "") const {
    return folder() / (std::string(DiagnosticLog::fileName) + suffix);
  }
};

// Ten lines of 20 bytes into files of at most 50: the newest two lines in the
// file, the two before in ".1", the two before those in ".2", older ones gone.
TEST_F(DiagnosticLogTest, PrivateCappedAndRotated) {
  const mode_t savedMask = umask(0);
  {
    DiagnosticLog log(folder(), 50);
    for (int n = 0; n < 10; ++n) log.append("[sidecar] line " + std::to_string(n) + "...\n");
  }
  umask(savedMask);
  const std::vector<std::pair<std::string, std::vector<std::string>>> expected = {
      {"", {"[sidecar] line 8...", "[sidecar] line 9..."}},
      {".1", {"[sidecar] line 6...", "[sidecar] line 7..."}},
      {".2", {"[sidecar] line 4...", "[sidecar] line 5..."}}};
  for (const auto& [suffix, lines] : expected) {
    EXPECT_EQ(linesOf(file(suffix)), lines) << suffix;
    EXPECT_EQ(fs::status(file(suffix)).permissions(), privateFileMode) << suffix;
  }
  EXPECT_FALSE(fs::exists(file(".3")));
  EXPECT_EQ(fs::status(folder()).permissions(), fs::perms::owner_all);

  // A later run appends to what is there and keeps the cap.
  DiagnosticLog(folder(), 50).append("[sidecar] again\n");
  EXPECT_EQ(linesOf(file(".1")), expected[0].second);
  EXPECT_EQ(linesOf(file()), std::vector<std::string>{"[sidecar] again"});
}

// A file where the folder should be: the bytes are lost, nothing else happens.
TEST_F(DiagnosticLogTest, AnUnwritableLogLosesOnlyItsLines) {
  fs::create_directories(product());
  ASSERT_TRUE(writeFileAtomically(folder(), "in the way"));
  DiagnosticLog log(folder());
  log.append("[sidecar] lost\n");
  EXPECT_EQ(readTextFile(folder()), "in the way");
}

// Standard error as a pipe nobody reads: writes return at once, dropping
// what does not fit, and the pipe holds only whole earlier pieces.
TEST(StandardError, APipeNobodyReadsDropsInsteadOfWaiting) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const int savedError = dup(STDERR_FILENO);
  ASSERT_GE(dup2(fds[1], STDERR_FILENO), 0);
  const std::string piece(1000, 'x');
  for (int n = 0; n < 1000; ++n) writeToStandardError(piece);  // 1 MB into a 64 kB pipe
  dup2(savedError, STDERR_FILENO);
  close(savedError);
  close(fds[1]);

  std::string held;
  char buffer[65536];
  for (ssize_t got; (got = read(fds[0], buffer, sizeof buffer)) > 0;) held.append(buffer, got);
  close(fds[0]);
  EXPECT_GT(held.size(), 32768u);
  EXPECT_LT(held.size(), 1000u * piece.size());
  EXPECT_EQ(held.size() % piece.size(), 0u);
  EXPECT_EQ(held.find_first_not_of('x'), std::string::npos);
}

}  // namespace
}  // namespace qor
