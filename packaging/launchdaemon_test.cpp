// The macOS LaunchDaemon of the daily scan, read as launchd reads it: keys and value types,
// and paths that are those of the installed agent folder and of build-pkg.sh.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "platform/plist/plist_io.h"
#include "platform/plist/plist_value.h"

namespace tarn {
namespace {

const std::string kMacos = std::string(TARN_SOURCE_DIR) + "/packaging/macos/";

// The value of `NAME=value` at the start of a line of build-pkg.sh.
std::string ScriptSetting(const std::string& name) {
  std::ifstream file(kMacos + "build-pkg.sh");
  std::stringstream text;
  text << file.rdbuf();
  std::smatch match;
  const std::string script = text.str();
  if (!std::regex_search(script, match, std::regex("\n" + name + "=([^\n]*)\n"))) return "";
  return match[1];
}

std::string Text(const PlistPtr& dictionary, const char* key) {
  const PlistPtr value = dictionary->ValueForKey(key);
  EXPECT_TRUE(value && value->IsString()) << key;
  return value && value->IsString() ? value->String() : "";
}

TEST(LaunchDaemonTest, RunsTheInstalledScannerDailyAsAScheduledScan) {
  const std::string base = ScriptSetting("base");
  const std::string label = ScriptSetting("label");
  // The package installs the agent folder at the prefix the build installs into by default.
  EXPECT_EQ(base, TARN_DEFAULT_PREFIX);
  ASSERT_EQ(label, "org.tarn.tarninventory");

  const PlistPtr daemon = ReadPlistFile(kMacos + label + ".plist");
  ASSERT_TRUE(daemon && daemon->IsDictionary());
  EXPECT_EQ(Text(daemon, "Label"), label);

  const std::string bin = base + "/" + TARN_INSTALL_BINDIR;
  EXPECT_EQ(Text(daemon, "WorkingDirectory"), bin);
  const PlistPtr arguments = daemon->ValueForKey("ProgramArguments");
  ASSERT_TRUE(arguments && arguments->IsArray());
  ASSERT_EQ(arguments->Count(), 2u);
  EXPECT_EQ(arguments->ObjectAtIndex(0)->AsString(), bin + "/tarninventory");
  EXPECT_EQ(arguments->ObjectAtIndex(1)->AsString(), "scheduled");
  // launchd would run a program given only by Program instead.
  EXPECT_FALSE(daemon->ValueForKey("Program"));

  // Once a day: a calendar entry with an hour and a minute and nothing finer or coarser.
  const PlistPtr interval = daemon->ValueForKey("StartCalendarInterval");
  ASSERT_TRUE(interval && interval->IsDictionary());
  EXPECT_EQ(interval->Keys(), (std::vector<std::string>{"Hour", "Minute"}));
  const auto hour = interval->ValueForKey("Hour")->AsInteger();
  const auto minute = interval->ValueForKey("Minute")->AsInteger();
  ASSERT_TRUE(interval->ValueForKey("Hour")->IsInteger() && hour && minute);
  EXPECT_TRUE(*hour >= 0 && *hour <= 23 && *minute >= 0 && *minute <= 59);
  EXPECT_FALSE(daemon->ValueForKey("StartInterval"));

  for (const char* key : {"StandardOutPath", "StandardErrorPath"}) {
    EXPECT_EQ(Text(daemon, key).rfind(base + "/logs/", 0), 0u) << key;
  }
  EXPECT_NE(Text(daemon, "StandardOutPath"), Text(daemon, "StandardErrorPath"));
  // Created files are private (the scanner refuses logs others may read or change).
  const PlistPtr umask = daemon->ValueForKey("Umask");
  ASSERT_TRUE(umask && umask->IsInteger());
  EXPECT_EQ(*umask->AsInteger(), 077);
  const PlistPtr atLoad = daemon->ValueForKey("RunAtLoad");
  ASSERT_TRUE(atLoad && atLoad->IsBoolean());
  // No user: a LaunchDaemon runs as root, which the scanner needs.
  EXPECT_FALSE(daemon->ValueForKey("UserName"));
}

}  // namespace
}  // namespace tarn
