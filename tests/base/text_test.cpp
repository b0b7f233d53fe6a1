#include "base/text.h"

#include <gtest/gtest.h>

namespace qor {
namespace {

TEST(Text, Utf8Validation) {
  const std::pair<std::string, bool> cases[] = {
      {"正在准备首次启动运行环境…", true},
      {"\xF0\x9F\x98\x80", true},  // four bytes
      {std::string("nul\0inside", 10), true},
      {"\xE2\x80", false},          // cut in half
      {"\x80", false},              // stray continuation byte
      {"\xC0\xAF", false},          // overlong "/"
      {"\xED\xA0\x80", false},      // UTF-16 surrogate
      {"\xF4\x90\x80\x80", false},  // beyond U+10FFFF
      {"\xFF", false},
  };
  for (const auto& [bytes, valid] : cases) {
    EXPECT_EQ(isValidUtf8(bytes), valid) << ::testing::PrintToString(bytes);
  }
}

}  // namespace
}  // namespace qor
