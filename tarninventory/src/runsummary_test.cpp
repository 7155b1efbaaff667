#include "tarninventory/src/runsummary.h"

#include <gtest/gtest.h>

#include "tarninventory/src/accesslog.h"

namespace tarn {
namespace {

TEST(RunSummaryTest, TheLineFollowsTheWordsOfTheAccessLog) {
  const std::string start = AccessLogStartPiece("01-02-2024", kModeManual, "10:00:00");
  const std::string end = AccessLogEndPiece("10:00:09");
  RunFacts facts;
  facts.dataFolder = "/opt/t/data";
  struct Case {
    std::string text;  // the access log from the run's start piece on
    bool diffScan;
    std::optional<DWORD> uploadResult;
    std::optional<std::string> localFolder;
    std::string line;
    std::size_t addresses = 0;  // the server addresses the upload was offered to
  };
  const std::string see = "; see /opt/t/logs/tarndevicescan.log\n";
  const Case cases[] = {
      {start + AccessLogColumnPiece(kFullData) + AccessLogColumnPiece(kSuccess) + end, false, 0,
       std::nullopt, "tarninventory: FullData Success" + see},
      // The access log's words win over the run type the driver ended with.
      {start + AccessLogColumnPiece(kDiffData) + AccessLogColumnPiece(kFailure) + end, false, 7,
       std::nullopt,
       "tarninventory: DiffData Failure (server not reachable at 3 addresses: transport error 7)" +
           see,
       3},
      {start + AccessLogColumnPiece(kFullData) + AccessLogColumnPiece(kFailure) + end, false, 6,
       std::nullopt,
       "tarninventory: FullData Failure (server not reachable at 1 address: transport error 6)" +
           see,
       1},
      {start + AccessLogColumnPiece(kFullData) + AccessLogColumnPiece(kFailure) + end, false, 1,
       std::nullopt,
       "tarninventory: FullData Failure (the server did not accept the upload)" + see},
      {start + AccessLogColumnPiece(kFullData) + AccessLogColumnPiece(kSuccess) + end, false, 0,
       "/tmp/out", "tarninventory: FullData Success (written to /tmp/out)" + see},
      {start + AccessLogColumnPiece(kDiffData) + AccessLogColumnPiece(kFailure) + end, true, 1,
       "/tmp/out", "tarninventory: DiffData Failure (could not write into /tmp/out)" + see},
      {start + AccessLogFailurePiece(kResIDNotfound) + end, true, 1, std::nullopt,
       "tarninventory: DiffData ResIDNotfound (no resource id: the server did not give one)" + see},
      {start + AccessLogFailurePiece(kInvClassDoFail) + end, false, std::nullopt, std::nullopt,
       "tarninventory: FullData InvClassDoFail (the class catalogue "
       "/opt/t/data/Mac_InvClasses.xml is missing or unreadable)" +
           see},
      {start + AccessLogFailurePiece(kDatadictFail) + end, false, std::nullopt, std::nullopt,
       "tarninventory: FullData DatadictFail (a data dictionary in /opt/t/data is missing or "
       "unreadable)" +
           see},
      // The framework and on-premise dictionaries leave no word.
      {start + end, true, std::nullopt, std::nullopt,
       "tarninventory: DiffData stopped (a data dictionary in /opt/t/data is missing or "
       "unreadable)" +
           see},
      {AccessLogStartPiece("01-02-2024", kModeInvalidArgs, "10:00:00") + end, false, std::nullopt,
       std::nullopt,
       "tarninventory: InvalidArgs (give a scan word: assetscan, ondemand, scheduled or "
       "postinstall)" +
           see},
      // An access log that could not be written.
      {"", false, std::nullopt, std::nullopt, "tarninventory: FullData stopped" + see},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    facts.diffScan = c.diffScan;
    facts.uploadResult = c.uploadResult;
    facts.localFolder = c.localFolder;
    facts.uploadAddresses = c.addresses;
    EXPECT_EQ(
        SummaryLine(OutcomeOf(ReadAccessLogRun(c.text), facts), "/opt/t/logs/tarndevicescan.log"),
        c.line);
  }
  EXPECT_EQ(SummaryLine({"", "stopped", "folders open to others"}, std::nullopt),
            "tarninventory: stopped (folders open to others)\n");
}

}  // namespace
}  // namespace tarn
