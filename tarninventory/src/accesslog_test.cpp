#include "tarninventory/src/accesslog.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "tarnutils/src/testutil.h"

namespace tarn {
namespace {

using testing::TempDir;

std::string ReadAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

const std::string kHeader =
    "DATE\t\tSCANTYPE\tSTARTTIME\t\t\tMODE\t\t\tSTATUS\t\t\tENDTIME\n"
    "----\t\t--------\t---------\t\t\t-------\t\t\t-------\t\t\t-------";
// A local date "dd-MM-yyyy" and a local time "HH:mm:ss" as regular expressions.
const std::string kDate = R"(\d\d-\d\d-\d{4})";
const std::string kTime = R"(\d\d:\d\d:\d\d)";

TEST(AccessLogPieces, FormatsEachPieceWithItsWidthAndNeverCutsLongerValues) {
  // "InvalidArgs" fills the eleven characters exactly; a longer word is written whole.
  EXPECT_EQ(AccessLogStartPiece("05-03-2024", "InvalidArgs", "09:08:07"),
            "\n05-03-2024\tInvalidArgs\t   09:08:07\t");
  EXPECT_EQ(AccessLogStartPiece("05-03-2024", "Postinstall+1", "09:08:07"),
            "\n05-03-2024\tPostinstall+1\t   09:08:07\t");
  EXPECT_EQ(AccessLogFailurePiece("DatadictFail"), "\t   DatadictFail\t            ---");
  EXPECT_EQ(AccessLogFailurePiece("InvDatadictFailed!"), "\tInvDatadictFailed!\t            ---");
  EXPECT_EQ(AccessLogColumnPiece("FullData"), "\t       FullData");
  // The end piece has no leading tab.
  EXPECT_EQ(AccessLogEndPiece("23:59:01"), "       23:59:01");
  EXPECT_EQ(AccessLogPath("/var/log/tarn"), "/var/log/tarn/tarndevicescanaccess.log");
}

TEST(AccessLogFile, HeaderIsWrittenOnlyWhenTheFileIsCreated) {
  TempDir dir("accesslog-header");
  const std::string path = AccessLogPath(dir.str());
  CreateDeviceScanAccessLog(path);
  EXPECT_EQ(ReadAll(path), kHeader);

  CreateDeviceScanAccessLog(path);
  EXPECT_EQ(ReadAll(path), kHeader);

  const std::string other = dir.str() + "/existing.log";
  std::ofstream(other) << "earlier runs";
  CreateDeviceScanAccessLog(other);
  EXPECT_EQ(ReadAll(other), "earlier runs");
}

TEST(AccessLogFile, AppendsOnlyToAnExistingFile) {
  TempDir dir("accesslog-missing");
  const std::string missing = AccessLogPath(dir.str());
  PrintAccessLog(missing, "text");
  PrintAccessLogEndTime(missing);
  EXPECT_FALSE(std::filesystem::exists(missing));

  // A folder in the file's place is silently passed over.
  PrintAccessLog(dir.str(), "text");
  EXPECT_TRUE(std::filesystem::is_directory(dir.path()));

  const std::string path = dir.str() + "/plain.log";
  std::ofstream(path) << "abc";
  PrintAccessLog(path, "def");
  PrintAccessLog(path, "");
  PrintAccessLog(path, "\xc3\xa9");
  EXPECT_EQ(ReadAll(path), "abcdef\xc3\xa9");
}

TEST(AccessLogFile, APlantedLinkIsLeftAloneAndNeverWrittenThrough) {
  TempDir dir("accesslog-link");
  const std::string target = dir.str() + "/precious";
  std::ofstream(target) << "keep me";
  const std::string path = AccessLogPath(dir.str());
  std::filesystem::create_symlink(target, path);
  CreateDeviceScanAccessLog(path);
  PrintAccessLogStart(path, kModeManual);
  PrintAccessLogEndTime(path);
  EXPECT_EQ(ReadAll(target), "keep me");
  EXPECT_TRUE(std::filesystem::is_symlink(path));

  // A dangling link does not make a file appear at its target either.
  std::filesystem::remove(path);
  std::filesystem::create_symlink(dir.str() + "/elsewhere", path);
  CreateDeviceScanAccessLog(path);
  EXPECT_FALSE(std::filesystem::exists(dir.str() + "/elsewhere"));
}

TEST(AccessLogFile, CompleteLinesOfSeveralRuns) {
  TempDir dir("accesslog-runs");
  const std::string path = AccessLogPath(dir.str());
  CreateDeviceScanAccessLog(path);

  // A scheduled diff run that uploaded successfully.
  PrintAccessLogStart(path, kModeScheduled);
  PrintAccessLogColumn(path, kDiffData);
  PrintAccessLogColumn(path, kSuccess);
  PrintAccessLogEndTime(path);
  // A run stopped by a missing data dictionary.
  PrintAccessLogStart(path, kModeManual);
  PrintAccessLogFailure(path, kDatadictFail);
  PrintAccessLogEndTime(path);
  // A run given no valid scan-type word.
  PrintAccessLogStart(path, kModeInvalidArgs);
  PrintAccessLogEndTime(path);

  const std::string text = ReadAll(path);
  ASSERT_EQ(text.rfind(kHeader, 0), 0u) << text;
  const std::regex lines("\n" + kDate + "\t  Scheduled\t   " + kTime + "\t\t       DiffData" +
                         "\t        Success       " + kTime + "\n" + kDate + "\t     Manual\t   " +
                         kTime + "\t\t   DatadictFail\t            ---       " + kTime + "\n" +
                         kDate + "\tInvalidArgs\t   " + kTime + "\t       " + kTime);
  EXPECT_TRUE(std::regex_match(text.substr(kHeader.size()), lines)) << text;
}

}  // namespace
}  // namespace tarn
