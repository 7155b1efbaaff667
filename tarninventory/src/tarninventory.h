// The scan run driver: one invocation performs one inventory scan of this
// computer and one upload, then exits.
//
// Command line: the scan-type word ("assetscan", "ondemand", "scheduled",
// "postinstall", compared without letter case), for "ondemand" an optional
// flag ("1" asks for a full scan), and an optional audit id.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

struct RunContext;

// Argument codes of the scan-type word.
inline constexpr int kArgAssetscan = 1;
inline constexpr int kArgOndemand = 2;
inline constexpr int kArgScheduled = 3;
inline constexpr int kArgPostinstall = 4;
inline constexpr int kArgInvalid = 7;

// The audit id of a run started without one.
inline constexpr const char* kDefaultAuditId = "12345";

// The data dictionaries, loaded in this order.
inline constexpr const char* kResourceDataDictionary = "data-dictionary.xml";
inline constexpr const char* kInventoryDataDictionary = "data-dictionary-inv.xml";
inline constexpr const char* kFrameworkDataDictionary = "data-dictionary-framework.xml";
inline constexpr const char* kOnPremiseDataDictionary = "data-dictionary-onpremise.xml";
inline constexpr const char* kClassCatalogueFileName = "Mac_InvClasses.xml";

// The whole run; the process exit code: 0 once the upload step was reached,
// 1 when the run stopped earlier.
int RunInventoryScan(int argc, const char* const* argv);

// The argument code of argv[1]; kArgInvalid, after a line on standard
// output, when it is missing or unknown.
int ProcessInputArgs(int argc, const char* const* argv);

// The requested run type (6 for "scheduled" and for "ondemand" without the
// flag "1", else 5). Opens the run's access-log line and sets
// isOndemandScan for "ondemand".
std::int32_t GetScanType(int argumentCode, int argc, const char* const* argv,
                         const std::string& accessLogPath);

// Loads one data dictionary from the agent data directory. 0, or 1 when it
// is missing or does not load.
DWORD LoadTarnDataDictionary(const char* fileName);

// Loads the four data dictionaries, stopping at the first failure (the first
// two failures also write the access log). 0, or 1.
DWORD LoadDataDicts(const std::string& accessLogPath);

// Loads the class catalogue "Mac_InvClasses.xml" into its tables. 0, or 1
// after writing "InvClassDoFail" to the access log.
DWORD CreateDoFromInvClasses(const std::string& accessLogPath);

// One collector of the run, with the line logged before it runs.
struct CollectorStep {
  const char* logLine;
  std::function<void()> collect;
};

// Runs the steps in order. A platform exception raised by a step ends the
// sequence (the later steps are skipped) after a console line; any other
// exception is passed on.
void RunCollectorSequence(const std::vector<CollectorStep>& steps);

// Re-loads the inventory data dictionary, empties WMIFetchedValue and runs
// the collectors. Always 0.
int CollectInventoryData(const RunContext& context, const std::string& auditId);

}  // namespace tarn
