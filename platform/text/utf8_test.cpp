#include "platform/text/utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace tarn {
namespace {

TEST(Utf8, SequencesAreCheckedWhereverTheyFallAmongAsciiWords) {
  const std::string good[] = {"caf\xC3\xA9", "\xE2\x80\x99", "\xF0\x9F\x98\x80",
                              "\xF4\x8F\xBF\xBF"};
  const std::string bad[] = {"\xC3",         "\xC0\xAF",         "\xE0\x80\xAF",
                             "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80",
                             "\xFF",         "\x80"};
  // Every offset from the start of a word, so that a sequence starts inside an ASCII word,
  // on its boundary, and straddles two words.
  for (std::size_t lead = 0; lead < 17; ++lead) {
    const std::string ascii(lead, 'a');
    for (const std::string& text : good) {
      EXPECT_TRUE(IsValidUtf8(ascii + text + ascii)) << lead;
    }
    for (const std::string& text : bad) {
      EXPECT_FALSE(IsValidUtf8(ascii + text + ascii)) << lead << " " << text.size();
      EXPECT_FALSE(IsValidUtf8(ascii + text)) << lead;
    }
  }
  EXPECT_TRUE(IsValidUtf8(""));
  EXPECT_TRUE(IsValidUtf8(std::string(64, 'x')));
  // A truncated sequence at the very end is refused.
  EXPECT_FALSE(IsValidUtf8(std::string(16, 'x') + "\xE2\x80"));
}

}  // namespace
}  // namespace tarn

namespace tarn {
namespace {

TEST(WithValidUtf8Test, ReplacesOnlyTheBytesThatStartNoSequence) {
  EXPECT_EQ(WithValidUtf8("caf\xC3\xA9 \xE2\x82\xAC"), "caf\xC3\xA9 \xE2\x82\xAC");
  EXPECT_EQ(WithValidUtf8("Bob\xFF" "s"), "Bob\xEF\xBF\xBDs");
  // A truncated sequence loses each of its bytes; an overlong form and a surrogate too.
  EXPECT_EQ(WithValidUtf8("a\xE2\x82"), "a\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(WithValidUtf8("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(WithValidUtf8("\xED\xA0\x80").size(), 9u);
  EXPECT_TRUE(IsValidUtf8(WithValidUtf8("\x80\xBF\xF5\xF8 x \xF4\x90\x80\x80")));
}

}  // namespace
}  // namespace tarn
