#include "tarninventory/src/runsummary.h"

#include <sstream>

#include "tarninventory/src/accesslog.h"

namespace tarn {
namespace {

// " at N addresses" (" at 1 address"); nothing when the count is not known.
std::string AtAddresses(std::size_t count) {
  if (count == 0) return "";
  return " at " + std::to_string(count) + (count == 1 ? " address" : " addresses");
}

// The detail of a run that stopped or failed, by the result word it wrote.
std::string DetailOf(const std::string& result, const RunFacts& facts) {
  if (result == kSuccess) {
    return facts.localFolder ? "written to " + *facts.localFolder : "";
  }
  if (result == kFailure) {
    if (facts.localFolder) return "could not write into " + *facts.localFolder;
    if (facts.uploadResult == 1u) return "the server did not accept the upload";
    if (facts.uploadResult) {
      return "server not reachable" + AtAddresses(facts.uploadAddresses) + ": transport error " +
             std::to_string(*facts.uploadResult);
    }
    return "";
  }
  if (result == kResIDNotfound) return "no resource id: the server did not give one";
  if (result == kInvClassDoFail) {
    return "the class catalogue " + facts.dataFolder +
           "/Mac_InvClasses.xml is missing or "
           "unreadable";
  }
  // DatadictFail, InvDatadictFail, and the two dictionaries that leave no word.
  return "a data dictionary in " + facts.dataFolder + " is missing or unreadable";
}

}  // namespace

std::optional<AccessLogRun> ReadAccessLogRun(std::string_view runText) {
  std::istringstream stream{std::string(runText)};
  std::vector<std::string> all;
  for (std::string word; stream >> word;) all.push_back(word);
  // date, mode word, start time ... end time
  if (all.size() < 3) return std::nullopt;
  AccessLogRun run;
  run.modeWord = all[1];
  if (all.size() > 4) run.words.assign(all.begin() + 3, all.end() - 1);
  return run;
}

RunOutcome OutcomeOf(const std::optional<AccessLogRun>& line, const RunFacts& facts) {
  RunOutcome outcome;
  if (line && line->modeWord == kModeInvalidArgs) {
    outcome.kind = kModeInvalidArgs;
    outcome.detail = "give a scan word: assetscan, ondemand, scheduled or postinstall";
    return outcome;
  }
  outcome.kind = facts.diffScan ? kDiffData : kFullData;
  if (!line || line->words.empty()) {
    outcome.result = "stopped";
  } else if (line->words.size() >= 2 && line->words[1] == kNoStatus) {
    outcome.result = line->words[0];  // the failure word
  } else {
    outcome.kind = line->words.front();  // FullData or DiffData, as the access log says
    outcome.result = line->words.back();
  }
  if (line) outcome.detail = DetailOf(outcome.result, facts);
  return outcome;
}

std::string SummaryLine(const RunOutcome& outcome, const std::optional<std::string>& scanLog) {
  std::string line = "tarninventory:";
  for (const std::string* word : {&outcome.kind, &outcome.result}) {
    if (!word->empty()) line += " " + *word;
  }
  if (!outcome.detail.empty()) line += " (" + outcome.detail + ")";
  if (scanLog) line += "; see " + *scanLog;
  return line + "\n";
}

}  // namespace tarn
