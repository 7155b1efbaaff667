// Installed applications.
#include <exception>
#include <filesystem>
#include <span>
#include <system_error>
#include <vector>

#include "framework/logging/logger.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/platform.h"
#include "tarninventory/src/invscanhandler.h"
#include "tarninventory/src/scandata.h"
#include "tarninventory/src/tarninventoryutil.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {
namespace {

constexpr const char* kSoftwareSignature = "-[ProplistXMLParser FetchInstalledSoftwareInfo]";

// The agent's own names: the helper is never reported, the agent only as its installed copy.
constexpr const char* kAgentHelperName = "TarnwellAgent";
constexpr const char* kAgentName = "Orvane Tarnwell - Agent";

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
bool IsInstalledAgentCopy(const OptText& path, const OptText& basePath) {
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
    // The report is the one large document of a run: only the four texts of each application
    // are kept, and the report is released before the rows are recorded.
    const std::vector<ApplicationFields> applications =
        ApplicationsIn(GetArrayObjectFromPlist(reportPath));
    RecordRowsOf([&](Rows& rows) {
      AddApplicationRows(applications, gv_globvars().tarnagentBasePath(), swSet, bufferDict, rows);
    });
    RemoveFile(reportPath);
  } catch (const PlatformException& failure) {
    ConsoleWhere(kSoftwareSignature, __LINE__, "Caught exception***************:%s",
                 failure.description().c_str());
  }
}

std::vector<ApplicationFields> ApplicationsIn(const PlistPtr& items) {
  std::vector<ApplicationFields> applications;
  applications.reserve(Count(items));
  for (std::size_t i = 0; i < Count(items); ++i) {
    ApplicationFields& fields = applications.emplace_back();
    try {
      const PlistPtr item = ObjectAtIndex(items, i);
      fields = {TextOf(ValueForKey(item, "_name")), TextOf(ValueForKey(item, "version")),
                TextOf(ValueForKey(item, "path")), TextOf(ValueForKey(item, "info")), nullptr};
    } catch (const PlatformException&) {
      // Read no further: the rows stop here with the same raise.
      fields.unreadable = std::current_exception();
      break;
    }
  }
  return applications;
}

void AddApplicationRows(std::span<const ApplicationFields> applications,
                        const OptText& agentBasePath, SoftwareSet& swSet, CollectorFacts& facts,
                        Rows& rows) {
  std::int32_t recorded = 0;
  for (const ApplicationFields& application : applications) {
    if (application.unreadable) std::rethrow_exception(application.unreadable);
    const OptText& name = application.name;
    const OptText& version = application.version;
    const OptText& path = application.path;
    if (name == kAgentHelperName) continue;
    if (name == kAgentName && !IsInstalledAgentCopy(path, agentBasePath)) continue;
    if (!name) {
      throw PlatformException(kInvalidArgumentException,
                              "*** setObjectForKey: key cannot be nil (an application without "
                              "\"_name\")");
    }
    // Same name and version: one application, however often it is installed.
    if (!swSet.emplace(*name, version.value_or(kFiller)).second) continue;
    ++recorded;
    AddRow(rows, 1801, kSoftwareClassId, recorded, name);
    AddRow(rows, 1802, kSoftwareClassId, recorded, version ? *version : kFiller);
    AddRow(rows, 1803, kSoftwareClassId, recorded, application.info.value_or(kFiller));
    AddRow(rows, 1812, kSoftwareClassId, recorded, path ? *path : kFiller);
    AddFillers(rows, kSoftwareClassId, recorded, {1804, 1805, 1806});
    AddRow(rows, 1807, kSoftwareClassId, recorded, kNotAvailable);
    AddFillers(rows, kSoftwareClassId, recorded, {1808, 1809});
    AddRow(rows, 1810, kSoftwareClassId, recorded, kNotAvailable);
    AddFillers(rows, kSoftwareClassId, recorded, {1811, 1813, 1814, 1815});
  }
  UserLogMessage("FetchInstalledSoftwareInfo : %d Softwares found \n", recorded);
  facts.osIndex = static_cast<std::uint32_t>(recorded) + 1;
}

void ParseInstalledSoftware(const PlistPtr& items, const OptText& agentBasePath, SoftwareSet& swSet,
                            CollectorFacts& facts, Rows& rows) {
  AddApplicationRows(ApplicationsIn(items), agentBasePath, swSet, facts, rows);
}

}  // namespace tarn
