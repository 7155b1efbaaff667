// The agent-wide settings object of a run and the start-up functions that
// fill it: install paths, server details from the server-info store, and the
// local computer's name, domain and address.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tarnutils/src/TarnSystemutil_mac.h"
#include "tarnutils/src/resourceidentity.h"

namespace tarn {

class Proplisthandler;

// A text property: absent until set.
using OptText = std::optional<std::string>;

#define TARN_TEXT_PROPERTY(name)                                 \
 public:                                                         \
  const OptText& name() const { return name##_; }                \
  void Set_##name(OptText value) { name##_ = std::move(value); } \
                                                                 \
 private:                                                        \
  OptText name##_;

#define TARN_VALUE_PROPERTY(type, name, initial)   \
 public:                                           \
  type name() const { return name##_; }            \
  void Set_##name(type value) { name##_ = value; } \
                                                   \
 private:                                          \
  type name##_ = initial;

// A plain holder: nothing is validated, converted or persisted here.
class TarnGlobvars {
  TARN_TEXT_PROPERTY(tarnServerName)
  TARN_TEXT_PROPERTY(tarnServerFlatName)
  TARN_TEXT_PROPERTY(tarnServerIP)
  TARN_TEXT_PROPERTY(tarnServerSecIP)
  TARN_TEXT_PROPERTY(tarnProtocol)
  TARN_TEXT_PROPERTY(tarnlastaccessName)
  TARN_VALUE_PROPERTY(std::uint32_t, tarnServerPort, 8020)
  TARN_VALUE_PROPERTY(std::uint32_t, tarnServerSecurePort, 8383)
  TARN_TEXT_PROPERTY(tarnDSName)
  TARN_TEXT_PROPERTY(tarnDSFlatName)
  TARN_TEXT_PROPERTY(tarnDSIP)
  TARN_TEXT_PROPERTY(tarnDSSecIP)
  TARN_TEXT_PROPERTY(tarnDSProtocol)
  TARN_TEXT_PROPERTY(tarnDSlastaccessName)
  TARN_VALUE_PROPERTY(std::uint32_t, tarnDSPort, 0)
  TARN_VALUE_PROPERTY(std::uint32_t, tarnDSSecurePort, 0)
  TARN_TEXT_PROPERTY(tarnagentPath)
  TARN_TEXT_PROPERTY(tarnagentBasePath)
  TARN_TEXT_PROPERTY(tarnagentLogPath)
  TARN_TEXT_PROPERTY(tarnagentDataDictPath)
  TARN_TEXT_PROPERTY(localComputerName)
  TARN_TEXT_PROPERTY(fqdnName)
  TARN_TEXT_PROPERTY(localIPAddress)
  TARN_TEXT_PROPERTY(localNameSpace)
  TARN_TEXT_PROPERTY(adDomain)
  TARN_TEXT_PROPERTY(tarnRemoteOffName)
  TARN_TEXT_PROPERTY(tarnAgentResourceID)
  TARN_TEXT_PROPERTY(tarnRemoteOffID)
  TARN_TEXT_PROPERTY(tarnCustomerID)
  TARN_TEXT_PROPERTY(tarnCustomerName)
  TARN_TEXT_PROPERTY(tarnMSPName)
  TARN_TEXT_PROPERTY(tarnAgentVersion)
  TARN_TEXT_PROPERTY(tarnagentStorageFilePath)
  TARN_VALUE_PROPERTY(bool, isRemoteOffAgent, false)
  TARN_VALUE_PROPERTY(bool, isDSEnabled, false)
  TARN_VALUE_PROPERTY(std::int32_t, tarnconfig_Policy, -1)
  TARN_TEXT_PROPERTY(tarnconfigPlistPath)
  TARN_TEXT_PROPERTY(tarnondemandPlistPath)
  // How the management server proves itself over HTTPS ("agent-conf.plist", ReadTlsSettings).
  TARN_TEXT_PROPERTY(tlsCaFile)
  TARN_VALUE_PROPERTY(bool, tlsVerify, false)
  TARN_TEXT_PROPERTY(tlsPinnedPublicKeys)
  // Set when a TLS key is unusable: why every HTTPS request fails.
  TARN_TEXT_PROPERTY(tlsSettingsError)
  // Whether the disk collector also reads the NVMe report and external volumes
  // ("agent-conf.plist", ReadCollectorSettings).
  TARN_VALUE_PROPERTY(bool, reportModernDisks, false)
};

#undef TARN_TEXT_PROPERTY
#undef TARN_VALUE_PROPERTY

// The process-wide settings object; InitTarnGlobalvars must have run.
TarnGlobvars& gv_globvars();
bool HasGlobvars();
// The server-info and resource stores (null until opened).
Proplisthandler* gv_serverinfohandler();
Proplisthandler* gv_resourceinfohandler();
void SetResourceInfoHandler(std::unique_ptr<Proplisthandler> handler);

// Creates the settings object with its defaults (replacing any earlier one).
TarnGlobvars& InitTarnGlobalvars();
// Releases the settings object, the server-info store and the resource store.
void DeinitTarnGlobalvars();

// GetAgentInstallPath, InitializeResourceID, InitializeServerDetails and
// InitializeLocalComputerDetails in that order; results ignored; returns 0.
DWORD InitializeAgentParams();

// The agent's folders as a working directory gives them: the base is the part before the
// first "/bin" (the whole directory when it has none), with "logs" and "data" below it.
struct AgentFolders {
  std::string base;
  std::string logs;
  std::string data;
};
AgentFolders AgentFoldersFor(const std::string& workingDirectory);

// The working directory; empty when it cannot be had.
std::string WorkingDirectory();

// Derives the agent, base, log, data and storage paths from the working
// directory (AgentFoldersFor), once: a second call changes nothing. 1 when the
// working directory is empty, else 0.
DWORD GetAgentInstallPath();

// Fills the server properties from "dupserverinfo.plist" (a working copy of
// "serverinfo.plist"). Always 0.
DWORD InitializeServerDetails();

// Fills the computer name, fully qualified name, address and the two plist
// paths; asks the server for the resource id when it is empty. Always 0.
DWORD InitializeLocalComputerDetails();

// Opens the resource store on tarnagentStorageFilePath (kept in
// gv_resourceinfohandler) and copies its "RESOURCEID" into tarnAgentResourceID
// when present. 0 when the store exists. UpdateResourceID and
// GetResourceIDFromServer are in resourceidentity.h.
DWORD InitializeResourceID();

}  // namespace tarn
