#include "tarninventory/src/tarninventory.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>

#include "framework/imds/dataset.h"
#include "framework/imds/xmltodo.h"
#include "framework/logging/logger.h"
#include "framework/persistent/xmldatadictparser.h"
#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/memory/freed_memory.h"
#include "platform/plist/plist_value.h"
#include "platform/replay/replay_platform.h"
#include "platform/text/utf8.h"
#include "tarninventory/src/InvClassHandler.h"
#include "tarninventory/src/accesslog.h"
#include "tarninventory/src/commandline.h"
#include "tarninventory/src/inventoryupload.h"
#include "tarninventory/src/invscanhandler.h"
#include "tarninventory/src/localinventory.h"
#include "tarninventory/src/runcontext.h"
#include "tarninventory/src/runsummary.h"
#include "tarninventory/src/scanrun.h"
#include "tarninventory/src/scansettings.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/proplisthandler.h"
#include "tarnutils/src/tarnutils_mac.h"

namespace tarn {
namespace {

constexpr const char* kMainSignature = "int main(int, const char**)";
constexpr const char* kLoadDataDictsSignature = "DWORD LoadDataDicts(NSString*)";
constexpr const char* kCollectSignature = "char* CollectInventoryData(const char*)";

constexpr const char* kScanLogBaseName = "tarndevicescan";
constexpr const char* kScanLogFileName = "tarndevicescan.log";
// Key of "agent-conf.plist" naming a recorded machine to replay instead of running tools.
constexpr const char* kToolReplayDirectoryKey = "TOOL_REPLAY_DIRECTORY";
// Key of "agent-conf.plist": "1" makes a recorded machine's tools take their recorded time.
constexpr const char* kToolReplayTimingKey = "TOOL_REPLAY_TIMING";
// Key of "agent-conf.plist": "1" runs the tools one after another, each when its collector
// asks for it, instead of side by side from the start of the run.
constexpr const char* kToolGatherSerialKey = "TOOL_GATHER_SERIAL";

std::string DataDictPath() { return gv_globvars().tarnagentDataDictPath().value_or(""); }
std::string LogPath() { return gv_globvars().tarnagentLogPath().value_or(""); }

// Mode word and log line of each argument code.
struct ScanMode {
  const char* modeWord;
  const char* logLine;
};

ScanMode ModeOf(int argumentCode) {
  switch (argumentCode) {
    case kArgAssetscan:
      return {kModeManual, "scanType : Manual\n"};
    case kArgOndemand:
      return {kModeOndemand, "scanType : Ondemand\n"};
    case kArgScheduled:
      return {kModeScheduled, "scanType : Scheduled\n"};
    case kArgPostinstall:
      return {kModePostinstall, "scanType : PostInstall\n"};
    default:
      return {kModeInvalidArgs, nullptr};
  }
}

bool EqualsIgnoringCase(const char* left, const char* right) {
  return ::strcasecmp(left, right) == 0;
}

// The full-scan flag of "ondemand": argument 2 equal to "1".
bool OndemandAsksFullScan(int argc, const char* const* argv) {
  return argc > 2 && EqualsIgnoringCase(argv[2], "1");
}

// True when "agent-conf.plist" holds the text "1" (or the number 1) at the key.
bool AgentConfigurationIsOn(const char* key) {
  const PlistPtr value = AgentConfigurationValue(key);
  if (!value) return false;
  if (value->IsString()) return value->String() == "1";
  return value->IsInteger() && value->AsInteger() == 1;
}

// Replaces the live platform by a recorded machine when "agent-conf.plist"
// names one; a relative folder is taken from the data directory.
void InstallConfiguredPlatform() {
  const PlistPtr configured = AgentConfigurationValue(kToolReplayDirectoryKey);
  const std::optional<std::string> folder = configured ? configured->AsString() : std::nullopt;
  if (!folder || folder->empty()) {
    return;
  }
  const std::string machine = folder->front() == '/' ? *folder : DataDictPath() + "/" + *folder;
  ReplayOptions options;
  options.timing = AgentConfigurationIsOn(kToolReplayTimingKey);
  std::unique_ptr<Platform> replay = MakeReplayPlatform(machine, std::move(options));
  if (!replay) {
    ErrorLogMessage(
        "Recorded machine at %s could not be read, running the tools of this computer\n",
        machine.c_str());
    return;
  }
  InstallPlatform(std::move(replay));
  UserLogMessage("Replaying the recorded machine at %s\n", machine.c_str());
}

// The stop path of a run that did not reach the upload. Without an access-log path (a run
// that may not write into its folders) no access-log piece is written.
int StopInventoryScan(const std::optional<std::string>& accessLogPath) {
  StderrWhere(kMainSignature, 57, "main : stopping inventory scan\n");
  std::fflush(stderr);
  StopLoggingEngine();
  if (accessLogPath) {
    PrintAccessLogEndTime(*accessLogPath);
  }
  DeinitTarnGlobalvars();
  return 1;
}

// The logs, the state store and the snapshot are written only into folders that belong to
// this user and that nobody else may change: in a folder others can write, they could put a
// link or their own file where the run writes. A folder that does not exist yet is created
// private when it is needed.
bool AgentFoldersArePrivate() {
  for (const std::string& folder : {LogPath(), DataDictPath()}) {
    const FolderState state = CheckOwnFolder(folder);
    if (state == FolderState::kLink) {
      StderrWhere(kMainSignature, __LINE__,
                  "main : %s is a link; refusing to log or keep data there\n", folder.c_str());
      return false;
    }
    if (state == FolderState::kExposed) {
      StderrWhere(kMainSignature, __LINE__,
                  "main : %s is writable by group or others or not owned by this user; "
                  "refusing to log or keep data there\n",
                  folder.c_str());
      return false;
    }
  }
  return true;
}

// Opens the scan state store. With a throwaway folder (a local run) the store is a copy made
// there: the run reads what the real one holds, and what it writes goes with the folder.
void OpenScanStateStore(const std::string& throwaway) {
  std::string path = DataDictPath() + "/" + kScanStateStoreFileName;
  if (!throwaway.empty()) {
    const std::string copy = throwaway + "/" + kScanStateStoreFileName;
    CopyRegularFile(path, copy);  // a missing store stays missing in the copy
    path = copy;
  }
  CurrentScanRun().tarninventory_datalist = Proplisthandler::InitwithFile(path);
}

void FinishInventoryScan(const std::string& accessLogPath) {
  ReleaseScanRun();
  invClassObj().dealloc();
  StopLoggingEngine();
  PrintAccessLogEndTime(accessLogPath);
  DeinitTarnGlobalvars();
}

// The run's last line, on the standard error the run was started with.
void TellOutcome(const UniqueFd& console, const RunOutcome& outcome,
                 const std::optional<std::string>& scanLog) {
  if (console.valid()) WriteAll(console.get(), SummaryLine(outcome, scanLog));
}

// What this run wrote into its access-log line: the file from where it stood before the run.
std::optional<AccessLogRun> ThisRunsAccessLogLine(const std::string& path, std::size_t start) {
  const std::string text = ReadWholeFile(path).value_or("");
  return ReadAccessLogRun(start < text.size() ? std::string_view(text).substr(start) : "");
}

std::size_t SizeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

// The scan: the command line from its scan word on, and --local.
int RunScan(const CommandLine& command) {
  const int argc = static_cast<int>(command.arguments.size());
  const char* const* argv = command.arguments.data();
  // The logs, the state store and the snapshot hold the whole inventory:
  // everything this run creates is for its owner only.
  ::umask(077);
  if (CheckIfCurrentProcessAlreadyRunning()) {
    return 1;
  }
  const int argumentCode = ProcessInputArgs(argc, argv);
  InitTarnGlobalvars();
  GetAgentInstallPath();
  // Standard error goes into the scan log once logging starts; the run's last line goes to
  // the standard error it was started with.
  const UniqueFd console(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
  if (!AgentFoldersArePrivate()) {
    StopInventoryScan(std::nullopt);
    TellOutcome(console,
                {"", "stopped", "the data or log folder is open to others; nothing was written"},
                std::nullopt);
    return 1;
  }
  // The second guard: its lock file is made only in a data folder that passed the checks.
  if (!TakeInstanceLock(DataDictPath())) {
    DeinitTarnGlobalvars();
    return 1;
  }
  // A local run writes its access-log line and its state store into a private folder of its
  // own that goes with it: the real ones stay as they are for the next run.
  std::optional<ScratchDirectory> throwaway;
  RunFacts facts;
  if (command.localFolder) {
    throwaway.emplace("");
    if (!throwaway->valid()) {
      StopInventoryScan(std::nullopt);
      TellOutcome(console, {"", "stopped", "no temporary folder for a local run"}, std::nullopt);
      return 1;
    }
    facts.localFolder = std::filesystem::absolute(*command.localFolder).lexically_normal().string();
  }
  const int level = GetLogLevel();
  RotateLog(kScanLogBaseName);
  StartLoggingEngine(kScanLogFileName, level);
  RemoveStaleScratchFolders(WorkingDirectory());  // where the collectors make theirs
  InstallConfiguredPlatform();
  if (command.localFolder) {
    InstallPlatform(WithoutNetwork(InstallPlatform(nullptr)));
  }
  ReadTlsSettings();
  ReadCollectorSettings();
  const std::string scanLog = LogPath() + "/" + kScanLogFileName;
  facts.dataFolder = DataDictPath();

  const std::string accessLogPath =
      throwaway ? throwaway->FilePath(kAccessLogFileName) : AccessLogPath(LogPath());
  if (!throwaway) {
    RotateLog(kAccessLogBaseName);
  }
  CreateDeviceScanAccessLog(accessLogPath);
  const std::size_t accessLogStart = SizeOf(accessLogPath);

  ResetScanRun();
  OpenScanStateStore(throwaway ? throwaway->path() : std::string());
  ScanRun& run = CurrentScanRun();
  run.localFolder = facts.localFolder;
  run.scanType = GetScanType(argumentCode, argc, argv, accessLogPath);
  if (argumentCode == kArgInvalid || LoadDataDicts(accessLogPath) == 1 ||
      CreateDoFromInvClasses(accessLogPath) != 0) {
    facts.diffScan = IsDiffScan();
    StopInventoryScan(accessLogPath);
    TellOutcome(console, OutcomeOf(ThisRunsAccessLogLine(accessLogPath, accessLogStart), facts),
                scanLog);
    return 1;
  }
  const SystemClock clock;
  const RunContext context = ContextOfThisRun(clock);
  run.scanType = DecideRunType(context, run.scanType);
  // From here on the run needs every tool's result: they start now, side by side, and each
  // is handed over (with what was logged about it) when the run asks for it.
  std::optional<SideBySideGather> gather;
  if (!AgentConfigurationIsOn(kToolGatherSerialKey)) {
    gather.emplace(context.platform, CollectorCommands(context.settings.reportModernDisks()),
                   CurrentDirectory());
  }

  InitializeAgentParams();
  invClassObj().Initialize();
  invClassObj().CreateInvTable();

  const std::string auditId = argc >= 4 ? argv[3] : kDefaultAuditId;
  // The driver goes on whatever the upload's result; the last line reports it. A local run
  // needs no resource id, writes its documents instead of sending them and records nothing.
  if (run.localFolder || EnsureResourceId(context, accessLogPath)) {
    CollectInventoryData(context, auditId);
    gather.reset();
    PreparedUpload upload = PrepareUpload(context, auditId, accessLogPath);
    const std::string currentTime = upload.currentTime;
    if (run.localFolder) {
      facts.uploadResult = SaveLocalUpload(context, upload, auditId, accessLogPath);
    } else {
      const SentUpload sent = SendUpload(std::move(upload), accessLogPath);
      facts.uploadResult = sent.result;
      facts.uploadAddresses = sent.addresses;
      if (sent.result == 0) RecordAcceptedScan(context, currentTime);
    }
  } else {
    facts.uploadResult = 1;
  }
  gather.reset();
  facts.diffScan = IsDiffScan();
  FinishInventoryScan(accessLogPath);
  TellOutcome(console, OutcomeOf(ThisRunsAccessLogLine(accessLogPath, accessLogStart), facts),
              scanLog);
  return 0;
}

}  // namespace

int ProcessInputArgs(int argc, const char* const* argv) {
  if (argc < 2) {
    std::fputs("Give correct argument", stdout);
    std::fflush(stdout);
    return kArgInvalid;
  }
  const char* word = argv[1];
  if (EqualsIgnoringCase(word, "assetscan")) return kArgAssetscan;
  if (EqualsIgnoringCase(word, "ondemand")) return kArgOndemand;
  if (EqualsIgnoringCase(word, "scheduled")) return kArgScheduled;
  if (EqualsIgnoringCase(word, "postinstall")) return kArgPostinstall;
  std::fputs("Invalid argument ", stdout);
  std::fflush(stdout);
  UserLogMessage("tarninventory:ProcessInputArgs : %s\n", word);
  return kArgInvalid;
}

std::int32_t GetScanType(int argumentCode, int argc, const char* const* argv,
                         const std::string& accessLogPath) {
  const ScanMode mode = ModeOf(argumentCode);
  if (mode.logLine != nullptr) {
    UserLogText(mode.logLine);
  }
  std::int32_t runType = kFullScanType;
  if (argumentCode == kArgScheduled) {
    runType = kDiffScanType;
  } else if (argumentCode == kArgOndemand) {
    CurrentScanRun().isOndemandScan = true;
    runType = OndemandAsksFullScan(argc, argv) ? kFullScanType : kDiffScanType;
  }
  PrintAccessLogStart(accessLogPath, mode.modeWord);
  return runType;
}

DWORD LoadTarnDataDictionary(const char* fileName) {
  const std::string path = DataDictPath() + "/" + fileName;
  StderrWhere("DWORD LoadTarnDataDictionary(const char*)", 469,
              "LoadTarnDataDictionary :Data dictionary file path: %s\n", path.c_str());
  if (!isFileExists(path)) {
    UserLogMessage("LoadTarnDataDictionary :Data dictionary not found at path : %s", path.c_str());
    return 1;
  }
  const int loaded = LoadDataDictFromXMLFile(path.c_str()) ? 1 : 0;
  if (loaded == 0) {
    UserLogMessage("LoadTarnDataDictionary :Loading data dictionary failed\n");
    return 1;
  }
  UserLogMessage("LoadTarnDataDictionary :Data dictionary loaded successfully: %d\n...", loaded);
  return 0;
}

DWORD LoadDataDicts(const std::string& accessLogPath) {
  if (LoadTarnDataDictionary(kResourceDataDictionary) != 0) {
    StderrWhere(kLoadDataDictsSignature, 435, "Unable to load data dictionary\n");
    PrintAccessLogFailure(accessLogPath, kDatadictFail);
    return 1;
  }
  if (LoadTarnDataDictionary(kInventoryDataDictionary) != 0) {
    StderrWhere(kLoadDataDictsSignature, 442, "Unable to load data dictionary-inv\n");
    PrintAccessLogFailure(accessLogPath, kInvDatadictFail);
    return 1;
  }
  // The two later dictionaries leave the access-log line without a status on purpose.
  if (LoadTarnDataDictionary(kFrameworkDataDictionary) != 0) {
    ErrorLogMessage("LoadDataDicts : Unable to load data-dictionary-framework.xml\n");
    return 1;
  }
  if (LoadTarnDataDictionary(kOnPremiseDataDictionary) != 0) {
    ErrorLogMessage("LoadDataDicts : Unable to load data-dictionary-onpremise.xml\n");
    return 1;
  }
  return 0;
}

DWORD CreateDoFromInvClasses(const std::string& accessLogPath) {
  const std::string path = DataDictPath() + "/" + kClassCatalogueFileName;
  if (!isFileExists(path)) {
    UserLogMessage("CreateDoFromInvClasses : NotFound at path %s \n", path.c_str());
  } else {
    // The document is read as UTF-8 text; bytes that are not UTF-8 make it unreadable.
    const std::optional<std::string> text = ReadWholeFile(path);
    const bool readable = text && IsValidUtf8(*text);
    const std::string buffer = readable ? *text : "";
    if (readable && CreateDOFromXMLBuffer(buffer.c_str(), buffer.size()) != 0) {
      UserLogMessage("CreateDoFromInvClasses : success \n");
      return 0;
    }
    ErrorLogMessage("CreateDoFromInvClasses: failed to create DO from buffer:\n %s\n failure",
                    buffer.c_str());
  }
  PrintAccessLogFailure(accessLogPath, kInvClassDoFail);
  return 1;
}

void RunCollectorSequence(const std::vector<CollectorStep>& steps) {
  try {
    for (const CollectorStep& step : steps) {
      UserLogText(step.logLine);
      step.collect();
    }
  } catch (const PlatformException& failure) {
    ConsoleWhere(kCollectSignature, 386, "Caught exception-------------:%s",
                 failure.description().c_str());
  }
}

int CollectInventoryData(const RunContext& context, const std::string& auditId) {
  (void)auditId;  // the collectors do not use it; the upload does
  if (LoadTarnDataDictionary(kInventoryDataDictionary) != 0) {
    return 0;
  }
  UnLoadTable("WMIFetchedValue");
  CreateTable("WMIFetchedValue");
  ProplistXMLParser parser;
  parser.reportModernDisks = context.settings.reportModernDisks();
  RunCollectorSequence({
      {"Calling FetchInstalledSoftwareInfo method\n",
       [&] {
         parser.FetchInstalledSoftwareInfo();
         // The applications report, the largest by far, is gone: its pages go back.
         ReturnFreedMemory();
       }},
      {"Calling FetchOSandProcessorInfo method\n", [&] { parser.FetchOSandProcessorInfo(); }},
      {"Calling FetchVideoControllerInfo method\n", [&] { parser.FetchVideoControllerInfo(); }},
      {"Calling FetchCDDriveInfo method\n", [&] { parser.FetchCDDriveInfo(); }},
      // The line names an older operation; the disk collector is what runs.
      {"Calling FetchDiskDriveInfo method\n", [&] { parser.FetchHDDDetails(); }},
      {"Calling FetchComputerInfo method\n", [&] { parser.FetchComputerInfo(); }},
      {"Calling FetchNetworkAdapterinfo method\n", [&] { parser.FetchNetworkAdapterinfo(); }},
      {"Calling FetchSystemEnclosure method\n", [&] { parser.FetchSystemEnclosure(); }},
      {"Calling FetchPrinterInfo method\n", [&] { parser.FetchPrinterInfo(); }},
      {"Calling FetchPhysicalMemoryInfo method\n", [&] { parser.FetchPhysicalMemoryInfo(); }},
  });
  return 0;
}

int RunInventoryScan(int argc, const char* const* argv) {
  const CommandLine command = ReadCommandLine(argc, argv);
  switch (command.action) {
    case CommandLine::Action::kVersion:
      std::fputs(VersionText().c_str(), stdout);
      return 0;
    case CommandLine::Action::kHelp:
      std::fputs(UsageText().c_str(), stdout);
      return 0;
    case CommandLine::Action::kUsageError:
      std::fputs((command.error + UsageText()).c_str(), stderr);
      return 1;
    case CommandLine::Action::kScan:
      break;
  }
  return RunScan(command);
}

}  // namespace tarn
