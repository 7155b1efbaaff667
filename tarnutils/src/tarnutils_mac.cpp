#include "tarnutils/src/tarnutils_mac.h"

#include <cstdio>
#include <filesystem>
#include <system_error>
#include <vector>

#include "framework/logging/logger.h"
#include "framework/persistent/datadict.h"
#include "framework/system/rsrclockimpl.h"
#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/platform.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/proplisthandler.h"

namespace tarn {
namespace fs = std::filesystem;

namespace {

constexpr int kOldestGeneration = 9;

std::string GenerationPath(const std::string& directory, const std::string& baseName, int k) {
  return directory + "/" + baseName + std::to_string(k) + ".log";
}

// The names in directory, or nothing when it cannot be listed.
std::optional<std::vector<std::string>> ListDirectory(const std::string& directory,
                                                      std::string& errorText) {
  std::error_code error;
  std::vector<std::string> names;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
    names.push_back(it->path().filename().string());
  }
  if (error) {
    errorText = error.message();
    return std::nullopt;
  }
  return names;
}

std::string JoinForLog(const std::vector<std::string>& names) {
  std::string text = "(\n";
  for (std::size_t i = 0; i < names.size(); ++i) {
    text += "    \"" + names[i] + (i + 1 < names.size() ? "\",\n" : "\"\n");
  }
  return text + ")";
}

// Moves generation source to target: the target is deleted, the source copied
// over, and (for the current log) the source deleted.
void ShiftGeneration(const std::string& source, const std::string& target, bool deleteSource) {
  ConsoleLog("logfileabsPath: %s\n", source.c_str());
  ConsoleLog("torename_logabsPath: %s\n", target.c_str());
  std::error_code error;
  fs::remove(target, error);
  if (error) {
    ConsoleLog("Target file delete operation failed: failname:%s :Error %s\n", target.c_str(),
               error.message().c_str());
  }
  error = CopyRegularFile(source, target);
  if (error) {
    ConsoleLog("Copy file operation failed: failname:%s :Error %s\n", source.c_str(),
               error.message().c_str());
  }
  if (deleteSource && !fs::remove(source, error)) {
    ConsoleLog("File delete operation failed: failname:%s :Error %s\n", source.c_str(),
               error ? error.message().c_str() : "No such file or directory");
  }
}

void RotationPass(const std::string& directory, const std::string& baseName, int count) {
  for (int k = count - 1; k >= 0; --k) {
    if (k == kOldestGeneration) {
      const std::string oldest = GenerationPath(directory, baseName, k);
      std::error_code error;
      if (!fs::remove(oldest, error)) {
        ConsoleLog("Last file delete operation failed: failname:%s :Error %s\n", oldest.c_str(),
                   error ? error.message().c_str() : "No such file or directory");
      }
      continue;
    }
    if (k == 0) {
      ShiftGeneration(directory + "/" + baseName + ".log", GenerationPath(directory, baseName, 1),
                      true);
    } else {
      ShiftGeneration(GenerationPath(directory, baseName, k),
                      GenerationPath(directory, baseName, k + 1), false);
    }
  }
}

}  // namespace

PlistPtr AgentConfigurationValue(const char* key) {
  GetAgentInstallPath();
  const std::string path =
      gv_globvars().tarnagentDataDictPath().value_or("") + "/" + kAgentConfigurationFileName;
  const auto store = Proplisthandler::InitwithFile(path);
  return store ? store->GetValueForKey(key) : nullptr;
}

int GetLogLevel() {
  static const char* const kSignature = "int GetLogLevel()";
  try {
    const PlistPtr level = AgentConfigurationValue("Loglevel");
    if (!level) {
      ConsoleWhere(kSignature, 134, "Could nt get log level");
      return kDefaultLogLevel;
    }
    if (level->IsString()) {
      return static_cast<int>(std::strtol(level->String().c_str(), nullptr, 10));
    }
    return static_cast<int>(level->AsInteger().value_or(kDefaultLogLevel));
  } catch (const PlatformException& e) {
    ConsoleWhere(kSignature, 142, "Caught exception: description:%s, %s", e.reason().c_str(),
                 e.description().c_str());
    return kDefaultLogLevel;
  }
}

int StartLoggingEngine(const char* fileName, int level) {
  InitLogging();
  InitMutex();
  SetLogLevel(static_cast<std::uint8_t>(level));
  GetAgentInstallPath();
  const std::string logPath = gv_globvars().tarnagentLogPath().value_or("");
  std::printf("log filename: %s,filepath : %s\n", fileName, logPath.c_str());
  std::fflush(stdout);
  SetLoggingParameters(fileName, logPath.c_str(), 10000, 0, static_cast<std::uint8_t>(level));
  StartLoggingAppMode();
  // The log's own descriptor, not a second open of its path: standard error lands in the
  // file the engine checked, whatever is put at the path afterwards.
  if (RedirectStandardErrorToLog() == 0) {
    ConsoleLog("could not redirect standard error to %s/%s", logPath.c_str(), fileName);
  }
  return 0;
}

namespace {

// On or off for a switch (TLS_VERIFY, REPORT_MODERN_DISKS): "1", "true", "yes" or true, and
// "0", "false", "no" or false (texts in any letter case); the integers 1 and 0 count as their
// texts. Nothing for any other value.
std::optional<bool> SwitchSetting(const PlistValue& value) {
  if (value.IsBoolean()) return value.AsBoolean();
  if (value.IsInteger()) {
    const std::int64_t number = value.AsInteger().value_or(-1);
    return number == 0 || number == 1 ? std::optional<bool>(number == 1) : std::nullopt;
  }
  if (!value.IsString()) return std::nullopt;
  const std::string& text = value.String();
  for (const char* on : {"1", "true", "yes"}) {
    if (EqualsIgnoringCase(text, on)) return true;
  }
  for (const char* off : {"0", "false", "no"}) {
    if (EqualsIgnoringCase(text, off)) return false;
  }
  return std::nullopt;
}

// The text of a key that is set; "" (and an error line) for a value that is not a text.
std::string TextSetting(const PlistValue& value, const char* key) {
  if (value.IsString()) return value.String();
  ErrorLogMessage("ReadTlsSettings : %s is not a text\n", key);
  return "";
}

// Whether the chain and host name are checked: always with a CA file key (even an unusable
// one), else as TLS_VERIFY says. A TLS_VERIFY that is neither on nor off turns the checks on
// and fails every HTTPS request, so a mistyped value never ends in accepting any certificate.
bool ReadVerifySetting(const PlistPtr& verify, bool caFileSet, TarnGlobvars& vars) {
  if (!verify) return caFileSet;
  const std::optional<bool> on = SwitchSetting(*verify);
  if (!on) {
    ErrorLogMessage(
        "ReadTlsSettings : %s is not 1, true, yes, 0, false or no; HTTPS requests will fail\n",
        kTlsVerifyKey);
    vars.Set_tlsSettingsError(std::string(kTlsVerifyKey) + " in " + kAgentConfigurationFileName +
                              " is not 1, true, yes, 0, false or no");
  }
  return caFileSet || on.value_or(true);
}

}  // namespace

void ReadTlsSettings() {
  const PlistPtr caFile = AgentConfigurationValue(kTlsCaFileKey);
  const PlistPtr verify = AgentConfigurationValue(kTlsVerifyKey);
  const PlistPtr pins = AgentConfigurationValue(kTlsPinnedPublicKeyKey);
  TarnGlobvars& vars = gv_globvars();
  const std::string dataPath = vars.tarnagentDataDictPath().value_or("");
  if (!caFile && !verify && !pins) {
    return;  // any certificate is accepted, as the agent always did
  }
  vars.Set_tlsVerify(ReadVerifySetting(verify, caFile != nullptr, vars));
  if (caFile) {
    std::string path = TextSetting(*caFile, kTlsCaFileKey);
    if (!path.empty() && path.front() != '/') path = dataPath + "/" + path;
    if (!path.empty() && !isFileExists(path)) {
      ErrorLogMessage("ReadTlsSettings : CA file %s not found; HTTPS requests will fail\n",
                      path.c_str());
    }
    vars.Set_tlsCaFile(path.empty() ? std::nullopt : std::optional<std::string>(path));
  }
  if (pins) {
    // A pin that is set is kept as it is, the empty text too: the transport refuses anything
    // but a list of key hashes, so a damaged pin never ends in accepting any certificate.
    const std::string text = pins->IsString() ? pins->String() : "(not a text)";
    if (!IsPinnedPublicKeyList(text)) {
      ErrorLogMessage(
          "ReadTlsSettings : %s is not a list of sha256// key hashes; HTTPS requests will fail\n",
          kTlsPinnedPublicKeyKey);
    }
    vars.Set_tlsPinnedPublicKeys(text);
  }
  UserLogMessage("ReadTlsSettings : server certificate checked: %s, CA file: %s, pinned keys: %s\n",
                 vars.tlsVerify() ? "yes" : "no", Describe(vars.tlsCaFile()),
                 Describe(vars.tlsPinnedPublicKeys()));
}

void ReadCollectorSettings() {
  const PlistPtr value = AgentConfigurationValue(kReportModernDisksKey);
  if (!value) return;
  const std::optional<bool> on = SwitchSetting(*value);
  if (!on) {
    ErrorLogMessage("ReadCollectorSettings : %s is not 1, true, yes, 0, false or no; left off\n",
                    kReportModernDisksKey);
  } else if (*on) {
    UserLogMessage(
        "ReadCollectorSettings : %s is on: NVMe disks and external volumes are reported\n",
        kReportModernDisksKey);
  }
  gv_globvars().Set_reportModernDisks(on.value_or(false));
}

int StopLoggingEngine() {
  StopLogging();
  DeInitLogging();
  return 0;
}

DWORD RotateLog(const std::string& baseName) {
  GetAgentInstallPath();
  const std::string directory = gv_globvars().tarnagentLogPath().value_or("");
  const std::string current = directory + "/" + baseName + ".log";
  std::error_code error;
  const std::uintmax_t size = fs::file_size(current, error);
  if (!error && size < kRotateLogThreshold) {
    ConsoleLog("Given log file smaller: %llu\n", static_cast<unsigned long long>(size));
    return 0;
  }
  std::string errorText;
  const auto names = ListDirectory(directory, errorText);
  if (!names) {
    ConsoleLog("Error occurred while reading the directory:%s, Error: %s", directory.c_str(),
               errorText.c_str());
    return 1;
  }
  if (names->empty()) {
    return 1;
  }
  ConsoleLog("Files count: %i\n", static_cast<int>(names->size()));
  std::vector<std::string> targets;
  for (const std::string& name : *names) {
    if (name.find(baseName) != std::string::npos) {
      targets.push_back(name);
    }
  }
  ConsoleLog("File list array: %s\n", JoinForLog(targets).c_str());
  ConsoleLog("target log Files count: %i\n", static_cast<int>(targets.size()));
  RotationPass(directory, baseName, static_cast<int>(targets.size()));
  return 0;
}

}  // namespace tarn
