#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "tarnutils/src/TarnStringutil.h"
#include "tarnutils/src/TarnSystemutil_mac.h"
#include "tarnutils/src/testutil.h"

namespace tarn {
namespace {

using testing::FakePlatform;
using testing::TempDir;
namespace fs = std::filesystem;

TEST(AlterChars, EscapesAndEndsAtTheFirstControlCharacter) {
  EXPECT_EQ(*alterChars("\"&<"), "&quot;&amp;&lt;");
  EXPECT_EQ(alterChars("\"&<")->size(), 15u);
  EXPECT_EQ(*alterChars("a>b"), "a&gt;b");
  EXPECT_EQ(*alterChars("ab&cd\"e<\x01f"), "ab&amp;cd&quot;e&lt;");
  EXPECT_EQ(*alterChars("abc\n"), "abc");
  EXPECT_EQ(*alterChars("a\tb"), "a");
  EXPECT_EQ(*alterChars("x\x7fy"), "x");
  EXPECT_EQ(*alterChars("it's caf\xc3\xa9"), "it's caf\xc3\xa9");
  EXPECT_EQ(*alterChars(""), "");
  EXPECT_FALSE(alterChars(nullptr));
  // Exactly the texts alterChars would change need it.
  const std::vector<std::string> texts = {"it's caf\xc3\xa9", "", "a&b", "<", "x>", "\"",
                                          "a\tb", "\x7f", std::string("a\0b", 3)};
  for (const std::string& text : texts) {
    EXPECT_EQ(NeedsAlteration(text), *alterChars(text.c_str()) != text) << text;
  }
}

TEST(UploadText, ValuesFromOutsideCannotChangeTheDocumentsShape) {
  EXPECT_FALSE(UploadText(std::nullopt));
  EXPECT_EQ(UploadText("office-mac"), "office-mac");
  EXPECT_EQ(UploadText("bob's <\"mac\"> & co"), "bob's &lt;&quot;mac&quot;&gt; &amp; co");
  // Bytes that are not UTF-8 become U+FFFD before the escaping.
  EXPECT_EQ(UploadText("caf\xC3\xA9-\xFF<\xFE"),
            "caf\xC3\xA9-\xEF\xBF\xBD&lt;\xEF\xBF\xBD");
  EXPECT_EQ(UploadText("name\nforged"), "name");
}

TEST(ComputerNames, FullAndFlatNamesAndAddresses) {
  FakePlatform fake;
  fake.host().hostName = "Office-Mac.local";
  EXPECT_EQ(GetComputerFullName(), "office-mac");
  EXPECT_EQ(GetComputerName(), "office-mac");
  fake.host().hostName = "Build01.lan";
  EXPECT_EQ(GetComputerName(), "build01");
  fake.host().hostName = "a.local.b.local";
  EXPECT_EQ(GetComputerFullName(), "a.b");

  fake.host().interfaces = {{"lo0", 2, "127.0.0.1"},
                            {"lo", 2, "127.0.0.1"},
                            {"en0", 2, "192.168.1.20"},
                            {"en0", 30, "fe80::1"},
                            {"en1", 2, "10.0.0.5"}};
  EXPECT_EQ(GetLocalIPAddress(), "192.168.1.20,10.0.0.5");
  fake.host().interfaces.clear();
  EXPECT_EQ(getIPAddress(), "");
}

TEST(LoggedOnUsers, SplitsCleansAndKeepsDuplicates) {
  FakePlatform fake;
  fake.tools().Answer("/usr/bin/users", {" "}, "alice bob CORP\\carol alice\n");
  EXPECT_EQ(*GetLoggedOnUsers(), "alice,bob,carol,alice");
  fake.tools().Answer("/usr/bin/users", {" "}, "\n");
  EXPECT_FALSE(GetLoggedOnUsers());
  fake.tools().Answer("/usr/bin/users", {" "}, std::nullopt);
  EXPECT_FALSE(GetLoggedOnUsers());
}

TEST(OsTexts, ReleaseNamesByVersionPrefix) {
  FakePlatform fake;
  auto setVersion = [&](const std::string& version) {
    fake.tools().Answer("/usr/bin/sw_vers", {"-productVersion"}, version + "\n");
    fake.tools().Answer("/usr/bin/sw_vers", {"-productName"}, "Mac OS X\n");
  };
  setVersion("10.11.6");
  EXPECT_EQ(*GetOSVersion(), "10.11.6");
  EXPECT_EQ(GetOSNameString(), "Mac OS X - El Capitan");
  EXPECT_EQ(GetOS_SPName(), "Mac OS X - El Capitan 10.11.6");
  setVersion("10.12.6");
  EXPECT_EQ(GetOSNameString(), "Mac OS X - Sierra");
  EXPECT_EQ(GetOS_SPName(), "Mac OS X - Sierra 10.12.6");
  setVersion("10.10.5");  // "10.1" is no prefix in the table: Yosemite, not a mis-match
  EXPECT_EQ(GetOSNameString(), "Mac OS X - Yosemite");
  setVersion("13.4");
  EXPECT_EQ(GetOSNameString(), "Mac OS X - Unknown");
  EXPECT_EQ(GetOS_SPName(), "13.4 - Unknown");
}

TEST(OsTexts, ComponentWiseMinimumVersion) {
  EXPECT_TRUE(IsVersionAtLeast("10.12", "10.12"));
  EXPECT_FALSE(IsVersionAtLeast("10.11.6", "10.12"));
  EXPECT_TRUE(IsVersionAtLeast("10.13.1", "10.12"));
  EXPECT_FALSE(IsVersionAtLeast("11.0", "10.12"));  // each component on its own
  EXPECT_TRUE(IsVersionAtLeast("10", "10.12"));     // running version ran out

  FakePlatform fake;
  fake.tools().Answer("/usr/bin/sw_vers", {"-productVersion"}, "10.14.6\n");
  EXPECT_TRUE(checkOSCompatibility("10.12"));
  fake.tools().Answer("/usr/bin/sw_vers", {"-productVersion"}, "10.9.5\n");
  EXPECT_FALSE(checkOSCompatibility("10.12"));
  // No sw_vers at all: no running components, so the walk answers true at once.
  fake.tools().Answer("/usr/bin/sw_vers", {"-productVersion"}, std::nullopt);
  EXPECT_TRUE(checkOSCompatibility("10.12"));
}

TEST(ToolRunners, ALaunchFailureIsLoggedWithItsReasonAndGivesNothing) {
  FakePlatform fake;
  for (const bool bounded : {true, false}) {
    ::testing::internal::CaptureStderr();
    const auto output = bounded ? GetOutputForExecution("/usr/sbin/ioreg", {"-l"})
                                : TarnUtil().GetOutputForExecution("/usr/sbin/ioreg", {"-l"});
    const std::string console = ::testing::internal::GetCapturedStderr();
    EXPECT_FALSE(output);
    EXPECT_NE(console.find("Caught exception in GetOutputForExecution: launch path not "
                           "accessible: /usr/sbin/ioreg: no answer set up by the test\n"),
              std::string::npos)
        << console;
  }
}

TEST(SingleInstanceGuard, AnyProcessOfThisNameAndUserStopsTheRunAndNothingIsWritten) {
  // Started from an agent folder with a data folder where a lock could be made.
  TempDir folder("guard");
  fs::create_directories(folder.path() / "bin");
  fs::create_directories(folder.path() / "data");
  const fs::path previous = fs::current_path();
  fs::current_path(folder.path() / "bin");
  FakePlatform fake;
  fake.host().ownPid = 100;
  fake.host().ownUid = 501;
  struct Case {
    std::vector<ProcessEntry> processes;
    bool running;
  };
  const Case cases[] = {
      {{{1, "launchd", 0}, {100, "tarninventory", 501}}, false},
      // Started from any agent folder: the table knows no folders.
      {{{100, "tarninventory", 501}, {200, "tarninventory", 501}}, true},
      // A program named like the scanner, started by another user.
      {{{100, "tarninventory", 501}, {200, "tarninventory", 502}}, false},
      {{{200, "tarninventoryX", 501}}, false},
  };
  for (const Case& c : cases) {
    fake.host().processes = c.processes;
    EXPECT_EQ(CheckIfCurrentProcessAlreadyRunning(), c.running);
  }
  EXPECT_TRUE(fs::is_empty(folder.path() / "data"));
  fs::current_path(previous);
}

TEST(SingleInstanceGuard, TheLockInTheDataFolderKeepsASecondRunOut) {
  TempDir data("guard-lock");
  EXPECT_TRUE(TakeInstanceLock(data.str()));
  const fs::path lock = data.path() / kInstanceLockFileName;
  ASSERT_TRUE(fs::is_regular_file(lock));
  EXPECT_EQ(fs::status(lock).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  // Another process finds the lock held; so does a second open in this one.
  EXPECT_EXIT(std::exit(TakeInstanceLock(data.str()) ? 0 : 3), ::testing::ExitedWithCode(3), "");
  EXPECT_FALSE(TakeInstanceLock(data.str()));
  ReleaseInstanceLock();
  EXPECT_TRUE(TakeInstanceLock(data.str()));
  ReleaseInstanceLock();

  // No data folder, or a link planted where the lock would be: no lock, and the run goes on
  // (the process table has decided), creating nothing.
  TempDir folder("guard-nolock");
  const std::string missing = (folder.path() / "missing").string();
  fs::create_directories(folder.path() / "data");
  fs::create_symlink(folder.path() / "elsewhere", folder.path() / "data" / kInstanceLockFileName);
  EXPECT_TRUE(TakeInstanceLock(missing));
  EXPECT_TRUE(TakeInstanceLock((folder.path() / "data").string()));
  EXPECT_FALSE(fs::exists(folder.path() / "elsewhere"));
  EXPECT_FALSE(fs::exists(missing));
}

TEST(DnsDomain, FirstServiceWithAddressesAndDomain) {
  const std::string kProfiler = "/usr/sbin/system_profiler";
  const std::vector<std::string> kNetwork = {"-xml", "SPNetworkDataType"};
  FakePlatform fake;
  const std::string report = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><array><dict><key>_items</key><array>
<dict><key>_name</key><string>Wi-Fi</string>
  <key>DNS</key><dict><key>DomainName</key><string>ignored.example.</string></dict></dict>
<dict><key>_name</key><string>Ethernet</string>
  <key>IPv4</key><dict><key>Addresses</key><array><string>10.1.2.3</string></array></dict>
  <key>DNS</key><dict><key>DomainName</key><string>corp.example.com.</string></dict></dict>
</array></dict></array></plist>)";
  fake.tools().Answer(kProfiler, kNetwork, report);
  EXPECT_EQ(*getDNSDomainName(), "corp.example.com");
  fake.tools().Answer(kProfiler, kNetwork, "<plist version=\"1.0\"><array/></plist>");
  EXPECT_FALSE(getDNSDomainName());  // element 0 of an empty report raises inside
  fake.tools().Answer(kProfiler, kNetwork, std::nullopt);
  EXPECT_FALSE(getDNSDomainName());
}

TEST(FileHelpers, CreateRemoveCopy) {
  TempDir dir("fileutil");
  const std::string file = dir.str() + "/a.txt";
  EXPECT_EQ(CreateFile(file), 0u);
  EXPECT_TRUE(isFileExists(file));
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(CreateFile(file), 0u);
  EXPECT_EQ(CreateFile(dir.str() + "/missing/x"), 1u);
  // A link, even a dangling one, counts as there and is left alone.
  fs::create_symlink(dir.path() / "target", dir.path() / "link.log");
  EXPECT_EQ(CreateFile(dir.str() + "/link.log"), 0u);
  EXPECT_FALSE(fs::exists(dir.path() / "target"));

  EXPECT_EQ(CreateDirectory(dir.str() + "/p/q/r"), 0u);
  EXPECT_TRUE(fs::is_directory(dir.path() / "p/q/r"));
  EXPECT_EQ(fs::status(dir.path() / "p/q").permissions(), fs::perms::owner_all);
  EXPECT_EQ(CreateDirectory(dir.str() + "/p/q/r"), 0u);

  std::ofstream(file) << "content";
  const std::string copy = dir.str() + "/new/sub/b.txt";
  EXPECT_EQ(CopyFileFolder(file, copy, false), 0u);
  EXPECT_EQ(CopyFileFolder(file, copy, false), 1u);  // exists, no replace
  std::ofstream(file) << "changed";
  EXPECT_EQ(CopyFileFolder(file, copy, true), 0u);
  std::ifstream in(copy);
  std::string text;
  in >> text;
  EXPECT_EQ(text, "changed");
  EXPECT_EQ(CopyFileFolder(dir.str() + "/nothing", dir.str() + "/c.txt", true), 1u);

  EXPECT_EQ(RemoveFile("b.txt", dir.str() + "/new/sub"), 0u);
  EXPECT_FALSE(isFileExists(copy));
  EXPECT_EQ(RemoveFile(copy), 0u);  // already absent
}

TEST(TimeTexts, Shapes) {
  EXPECT_TRUE(std::regex_match(GetCurrTime(), std::regex(R"(\d{2}:\d{2}:\d{2})")));
  EXPECT_TRUE(std::regex_match(GetCurrDateString(), std::regex(R"(\d{2}-\d{2}-\d{4})")));
  EXPECT_EQ(GetLocalTimeInLongStr().size(), std::to_string(GetLocalTimeInLong()).size());
}

}  // namespace
}  // namespace tarn
