#include "base/text.h"

#include <gtest/gtest.h>

namespace qor {
namespace {

TEST(Text, TrimmedRemovesBlanksAtBothEndsOnly) {
  EXPECT_EQ(trimmed("  0.7.12\n"), "0.7.12");
  EXPECT_EQ(trimmed("\t a b \r\n"), "a b");
  EXPECT_EQ(trimmed(" \n\t "), "");
  EXPECT_EQ(trimmed(""), "");
}

TEST(Text, Utf8Validation) {
  struct Case {
    std::string bytes;
    bool valid;
  };
  const Case cases[] = {
      {"plain ascii\n", true},
      {"正在准备首次启动运行环境…", true},
      {"\xF0\x9F\x98\x80", true},   // emoji, four bytes
      {"\xE2\x80", false},          // ellipsis cut in half
      {"\x80", false},              // stray continuation byte
      {"\xC0\xAF", false},          // overlong "/"
      {"\xED\xA0\x80", false},      // UTF-16 surrogate
      {"\xF4\x90\x80\x80", false},  // beyond U+10FFFF
      {"\xFF", false},
      {std::string("nul\0inside", 10), true},
  };
  for (const auto& c : cases)
    EXPECT_EQ(isValidUtf8(c.bytes), c.valid) << ::testing::PrintToString(c.bytes);
}

}  // namespace
}  // namespace qor
