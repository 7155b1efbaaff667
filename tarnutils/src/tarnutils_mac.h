// Start-up helpers of the agent: the scan log's level, starting and stopping
// the logging engine, and rotation of the agent's logs.
#pragma once

#include <cstdint>
#include <string>

#include "platform/plist/plist_value.h"
#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

// Size at which a log is rotated (2 MiB).
inline constexpr std::uintmax_t kRotateLogThreshold = 2097152;

// The agent configuration "agent-conf.plist" in the agent data directory.
inline constexpr const char* kAgentConfigurationFileName = "agent-conf.plist";
// Its keys for the management server's certificate (all optional; none set accepts any
// certificate): a PEM bundle of authorities to check the chain against (absolute, or relative
// to the data directory), on ("1", "true", "yes", true or 1) to check against the system's
// authorities or off ("0", "false", "no", false or 0), and pinned public keys
// ("sha256//<base64>" joined by ";").
inline constexpr const char* kTlsCaFileKey = "TLS_CA_FILE";
inline constexpr const char* kTlsVerifyKey = "TLS_VERIFY";
inline constexpr const char* kTlsPinnedPublicKeyKey = "TLS_PINNED_PUBKEY";

// Its key that turns on the disks of current Macs in the disk collector: the NVMe report when
// no Serial-ATA or SAS disk is found, and external volumes' whole disks when the USB report
// lists no medium. Off unless set on ("1", "true", "yes", true or 1).
inline constexpr const char* kReportModernDisksKey = "REPORT_MODERN_DISKS";

// The value of key in "agent-conf.plist" (the agent paths are derived first); absent when
// the file or the key is missing.
PlistPtr AgentConfigurationValue(const char* key);

// "Loglevel" of "agent-conf.plist" in the agent data directory; 3 when it is
// missing or the store fails.
int GetLogLevel();

// Reads the three TLS keys of "agent-conf.plist" into the settings object (tlsCaFile,
// tlsVerify, tlsPinnedPublicKeys, tlsSettingsError) and logs the policy in force when any is
// set. A key that is set but unusable fails closed: a CA file that is not a text leaves the
// system's authorities in force; a pin that is not a list of key hashes (the empty text
// included) and a TLS_VERIFY that is neither on nor off fail every HTTPS request.
void ReadTlsSettings();

// Reads REPORT_MODERN_DISKS of "agent-conf.plist" into the settings object
// (reportModernDisks). Without the key nothing is logged; on logs that it is on, and a value
// that is neither on nor off ("0", "false", "no", false or 0) logs an error and stays off.
void ReadCollectorSettings();

// Starts the logging engine on fileName in the agent log directory at level,
// and points standard error at the same open file. Returns 0.
int StartLoggingEngine(const char* fileName, int level);

// Stops the engine and releases its names. Returns 0.
int StopLoggingEngine();

// Rotates "<log dir>/<baseName>.log" once it has reached 2 MiB, keeping
// generations "<baseName>1.log" (newest) to "<baseName>9.log"; files are copied without
// following links (CopyRegularFile). 0 when the log
// was small or a pass ran, 1 when the log directory could not be listed or is
// empty.
DWORD RotateLog(const std::string& baseName);

}  // namespace tarn
