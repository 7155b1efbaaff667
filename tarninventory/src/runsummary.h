// The line a run ends with on the standard error it was started with: the scan kind, the
// result word of the access log and where the scan log is, e.g.
//   "tarninventory: FullData Failure (server not reachable at 3 addresses: transport
//    error 7); see /opt/tarninventory/logs/tarndevicescan.log"
// The scan log takes standard error over once logging starts, so the driver keeps a copy of
// the original descriptor for this line.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

struct RunOutcome {
  std::string kind;    // "FullData", "DiffData" or "InvalidArgs"; empty when not known
  std::string result;  // "Success", "Failure", a failure word of the access log, "stopped"
  std::string detail;  // why, in a few words; may be empty
};

// What the run wrote into its access-log line, from the text of the access log that begins
// with the run's start piece: the words after the start time and before the end time (none,
// a failure word and "---", or a scan mode and a status), and its mode word.
struct AccessLogRun {
  std::string modeWord;
  std::vector<std::string> words;
};
// Nothing when the text holds no start piece (the access log could not be written).
std::optional<AccessLogRun> ReadAccessLogRun(std::string_view runText);

// Where the run stood at its end, besides its access-log line.
struct RunFacts {
  bool diffScan = false;                   // the run type it ended with
  std::optional<DWORD> uploadResult;       // SendInventoryData's result, when it ran
  std::size_t uploadAddresses = 0;         // the server addresses the upload was offered to
  std::optional<std::string> localFolder;  // --local: where the documents went
  std::string dataFolder;                  // BASE/data
};

// The outcome of a run whose access-log line is `line` (nothing: it could not be written).
RunOutcome OutcomeOf(const std::optional<AccessLogRun>& line, const RunFacts& facts);

// "tarninventory: KIND RESULT (DETAIL); see SCANLOG", leaving out what is empty; without a
// scan log the line ends after the detail.
std::string SummaryLine(const RunOutcome& outcome, const std::optional<std::string>& scanLog);

}  // namespace tarn
