// Installed applications.
#include <array>
#include <exception>
#include <iterator>
#include <filesystem>
#include <system_error>
#include <vector>

#include "framework/logging/logger.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/platform.h"
#include "tarninventory/src/invscanhandler.h"
#include "tarninventory/src/scanrun.h"
#include "tarninventory/src/tarninventoryutil.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {
namespace {

constexpr std::int32_t kSoftwareClass = 18;
constexpr const char* kSoftwareSignature = "-[ProplistXMLParser FetchInstalledSoftwareInfo]";

// The agent's own names: the helper is never reported, the agent only as its installed copy.
constexpr const char* kAgentHelperName = "TarnwellAgent";
constexpr const char* kAgentName = "Orvane Tarnwell - Agent";

using OptText = std::optional<std::string>;

// The path without its last component, as the platform's path functions give it: trailing
// slashes go first; "/X.app" gives "/", "X.app" gives "".
std::string DeletingLastPathComponent(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Only the copy of the agent installed in the agent's own folder is reported.
bool IsInstalledAgentCopy(const OptText& path) {
  const OptText basePath = gv_globvars().tarnagentBasePath();
  return path && basePath && DeletingLastPathComponent(*path) == *basePath;
}

}  // namespace

void ProplistXMLParser::FetchInstalledSoftwareInfo() {
  try {
    // The report goes to a private folder made for this run, written by the tool runner
    // itself (no shell); the folder goes with everything in it however this ends.
    const ScratchDirectory scratch(CurrentDirectory());
    const std::string reportPath = scratch.FilePath("inv-apps.plist");
    // The status is the one a shell running the tool with its output redirected reports.
    const int status = scratch.valid()
                           ? CurrentPlatform().Tools().RunToFile(
                                 kSystemProfiler, {"SPApplicationsDataType", "-xml"}, reportPath)
                           : kShellOutputFailed;
    if (!scratch.valid() || !isFileExists(reportPath)) {
      ConsoleWhere(kSoftwareSignature, __LINE__, "Could n't fetch installed applications %d\n",
                   status);
      return;
    }
    RecordInstalledSoftwareReport(reportPath);
    RemoveFile(reportPath);
  } catch (const PlatformException& failure) {
    ConsoleWhere(kSoftwareSignature, __LINE__, "Caught exception***************:%s",
                 failure.description().c_str());
  }
}

// What the collector reads of one item of the applications report.
struct ApplicationFields {
  OptText name;
  OptText version;
  OptText path;
  OptText info;
};

namespace {

// The fields of one item, read in the order name, version, path, info.
ApplicationFields FieldsOf(const PlistPtr& item) {
  return {TextAt(item, "_name"), TextAt(item, "version"), TextAt(item, "path"),
          TextAt(item, "info")};
}

// The same from a parsed report, the item's dictionary walked once for all four keys.
ApplicationFields FieldsOf(const PlistNode& item) {
  static constexpr const char* kKeys[] = {"_name", "version", "path", "info"};
  std::array<PlistNode, std::size(kKeys)> values;
  ValuesForKeys(item, kKeys, values);
  return {TextOf(values[0]), TextOf(values[1]), TextOf(values[2]), TextOf(values[3])};
}

// The fields of every item, in order, as far as they can be read: what reading the next
// item raised, if anything, comes back instead of being thrown, so that the items before it
// are still recorded first.
template <typename Node>
std::exception_ptr ReadApplications(const Node& items, std::vector<ApplicationFields>& read) {
  try {
    for (std::size_t i = 0; i < Count(items); ++i) {
      // A dictionary answers every key, so "info" cannot raise where "_name" did not.
      read.push_back(FieldsOf(ObjectAtIndex(items, i)));
    }
  } catch (const PlatformException&) {
    return std::current_exception();
  }
  return nullptr;
}

}  // namespace

void ProplistXMLParser::RecordInstalledSoftware(const PlistPtr& items) {
  std::vector<ApplicationFields> applications;
  const std::exception_ptr failure = ReadApplications(items, applications);
  RecordApplications(applications, failure);
}

void ProplistXMLParser::RecordInstalledSoftwareReport(const std::string& path) {
  // The report is the one large document of a run: it is read in place, and released before
  // the applications are recorded.
  std::vector<ApplicationFields> applications;
  std::exception_ptr failure;
  {
    const std::unique_ptr<PlistDocument> report = ReadPlistDocument(path);
    const PlistNode items =
        report ? ValueForKey(ObjectAtIndex(report->Root(), 0), "_items") : PlistNode();
    failure = ReadApplications(items, applications);
  }
  RecordApplications(applications, failure);
}

void ProplistXMLParser::RecordApplications(const std::vector<ApplicationFields>& applications,
                                           const std::exception_ptr& failure) {
  std::int32_t recorded = 0;
  for (const ApplicationFields& application : applications) {
    const OptText& name = application.name;
    const OptText& version = application.version;
    const OptText& path = application.path;
    if (name == kAgentHelperName) continue;
    if (name == kAgentName && !IsInstalledAgentCopy(path)) continue;
    if (!name) {
      throw PlatformException(kInvalidArgumentException,
                              "*** setObjectForKey: key cannot be nil (an application without "
                              "\"_name\")");
    }
    // Same name and version: one application, however often it is installed.
    if (!swSet.emplace(*name, version.value_or(kFiller)).second) continue;
    ++recorded;
    RecordValue(1801, kSoftwareClass, recorded, name);
    RecordValue(1802, kSoftwareClass, recorded, version ? *version : kFiller);
    RecordValue(1803, kSoftwareClass, recorded, application.info.value_or(kFiller));
    RecordValue(1812, kSoftwareClass, recorded, path ? *path : kFiller);
    RecordFillers(kSoftwareClass, recorded, {1804, 1805, 1806});
    RecordValue(1807, kSoftwareClass, recorded, kNotAvailable);
    RecordFillers(kSoftwareClass, recorded, {1808, 1809});
    RecordValue(1810, kSoftwareClass, recorded, kNotAvailable);
    RecordFillers(kSoftwareClass, recorded, {1811, 1813, 1814, 1815});
  }
  if (failure) std::rethrow_exception(failure);
  UserLogMessage("FetchInstalledSoftwareInfo : %d Softwares found \n", recorded);
  CurrentScanRun().osIndex = static_cast<std::uint32_t>(recorded) + 1;
}

}  // namespace tarn
