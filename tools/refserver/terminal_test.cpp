#include "tools/refserver/terminal.h"

#include <gtest/gtest.h>

namespace tarn::refserver {
namespace {

TEST(TerminalSafe, ControlCharactersAndBrokenUtf8AreEscapedPrintableTextIsKept) {
  EXPECT_EQ(TerminalSafe("\x1b]0;owned\x07\x1b[2J"), "\\x1b]0;owned\\x07\\x1b[2J");
  EXPECT_EQ(TerminalSafe(std::string("a\0b\nc\rd\x7f", 8)), "a\\x00b\\x0ac\\x0dd\\x7f");
  EXPECT_EQ(TerminalSafe("tab\tkept, caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"),
            "tab\tkept, caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
  // C1 controls written as UTF-8 (U+009B is a control sequence introducer), a lone
  // continuation byte, a truncated sequence and an overlong form.
  EXPECT_EQ(TerminalSafe("\xc2\x9b" "2J"), "\\xc2\\x9b2J");
  EXPECT_EQ(TerminalSafe("\x9b" "2J \xe2\x82 \xc0\xaf"), "\\x9b2J \\xe2\\x82 \\xc0\\xaf");
  EXPECT_EQ(TerminalSafe("\xc2\xa0"), "\xc2\xa0");  // U+00A0 is printable
}

TEST(TerminalSafe, EveryTextOfAComputerFromAnAgentIsEscaped) {
  ComputerDetails computer;
  computer.summary.name = "evil\x1b[2J";
  computer.summary.domain = "d\n";
  computer.inventory[18][1][1801] = "App\x1b]0;x\x07";
  computer.agentParams = {{"K\x1b", "V\x1b"}};
  UploadRecord upload;
  upload.auditId = "1\r";
  upload.items = {{18, Change::kAdded, "App\x1b]0;x\x07"}};
  computer.uploads = {upload};
  const ComputerDetails safe = TerminalSafe(computer);
  EXPECT_EQ(safe.summary.name, "evil\\x1b[2J");
  EXPECT_EQ(safe.summary.domain, "d\\x0a");
  EXPECT_EQ(safe.inventory.at(18).at(1).at(1801), "App\\x1b]0;x\\x07");
  EXPECT_EQ(safe.agentParams.front(), (std::pair<std::string, std::string>("K\\x1b", "V\\x1b")));
  EXPECT_EQ(safe.uploads.front().auditId, "1\\x0d");
  EXPECT_EQ(safe.uploads.front().items.front().label, "App\\x1b]0;x\\x07");
}

}  // namespace
}  // namespace tarn::refserver
