#include "tarnutils/src/TarnGlobalvars.h"

#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/file/file_util.h"
#include "platform/plist/plist_value.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/proplisthandler.h"
#include "tarnutils/src/resourceidentity.h"

namespace tarn {
namespace {

struct AgentSettings {
  std::unique_ptr<TarnGlobvars> globvars;
  std::unique_ptr<Proplisthandler> serverInfo;
  std::unique_ptr<Proplisthandler> resourceInfo;
};

AgentSettings& Settings() {
  static AgentSettings settings;
  return settings;
}

// The integer reading of a setting: a number's value, or the leading decimal
// digits of a text (after blanks and a sign); 0 for anything else.
long long IntegerValueOf(const PlistPtr& value) {
  if (!value) {
    return 0;
  }
  if (value->IsString()) {
    return std::strtoll(value->String().c_str(), nullptr, 10);
  }
  if (value->IsBoolean()) {
    return *value->AsBoolean() ? 1 : 0;
  }
  return value->AsInteger().value_or(0);
}

// The Boolean reading of a setting: a number is true when non-zero; a text is
// true when, after blanks, a sign and leading zeros, it starts with Y, T or a
// digit 1 to 9.
bool BoolValueOf(const PlistPtr& value) {
  if (!value) {
    return false;
  }
  if (value->IsBoolean()) {
    return *value->AsBoolean();
  }
  if (!value->IsString()) {
    return value->AsReal().value_or(0) != 0;
  }
  const std::string& text = value->String();
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  while (i < text.size() && text[i] == '0') ++i;
  if (i == text.size()) {
    return false;
  }
  const char c = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
  return c == 'Y' || c == 'T' || (c >= '1' && c <= '9');
}

std::uint32_t PortOf(const PlistPtr& value) {
  return static_cast<std::uint32_t>(IntegerValueOf(value));
}

// A remote-office agent unless the setting says "no" (a missing key counts as "no").
bool IsRemoteOfficeSetting(const PlistPtr& value) {
  if (!value) {
    return false;
  }
  if (value->IsBoolean()) {
    return *value->AsBoolean();
  }
  const OptText text = TextOf(value);
  return strcasecmp(text->c_str(), "no") != 0;
}

const char* YesNo(bool value) { return value ? "YES" : "NO"; }

constexpr const char* kServerDetails = "DWORD InitializeServerDetails()";

// Makes sure the working copy exists and holds more than two entries, then
// opens the store on it.
std::unique_ptr<Proplisthandler> OpenServerInfo(const std::string& source,
                                                const std::string& copy) {
  if (!isFileExists(copy)) {
    const std::error_code error = CopyRegularFile(source, copy);
    if (!error) {
      StderrWhere(kServerDetails, __LINE__, "File copy successful: %s\n", copy.c_str());
    } else {
      StderrWhere(kServerDetails, __LINE__, "Filecopy failed: %s, Reason: %s\n", copy.c_str(),
                  error.message().c_str());
    }
  }
  auto first = Proplisthandler::InitwithFile(copy);
  if (first && first->GetDataCount() <= 2) {
    StderrWhere(kServerDetails, __LINE__,
                "Datacount in dupserverinfo.plist is < 2 , hence copying serverinfo to "
                "dupserverinfo");
    CopyFileFolder(source, copy, true);
  }
  return Proplisthandler::InitwithFile(copy);
}

using TextSetter = void (TarnGlobvars::*)(OptText);

// Reads a text setting into a property and logs it as "<label><value>".
void ReadText(Proplisthandler& store, TarnGlobvars& vars, const char* key, TextSetter set,
              const char* label) {
  const OptText value = TextOf(store.GetValueForKey(key));
  (vars.*set)(value);
  StderrWhere(kServerDetails, __LINE__, "%s%s\n", label, Describe(value));
}

void ReadServerAddresses(Proplisthandler& store, TarnGlobvars& vars) {
  ReadText(store, vars, "SERVERNAME", &TarnGlobvars::Set_tarnServerName, "Server Name: ");
  ReadText(store, vars, "SERVERFLATNAME", &TarnGlobvars::Set_tarnServerFlatName,
           "Server Flat Name: ");
  ReadText(store, vars, "SERVERIPADDRESS", &TarnGlobvars::Set_tarnServerIP, "Server IP Address: ");
  ReadText(store, vars, "SERVERSECIPADDRESS", &TarnGlobvars::Set_tarnServerSecIP,
           "Server Secondary IP: ");
  ReadText(store, vars, "SERVERPROTOCOL", &TarnGlobvars::Set_tarnProtocol, "Server Protocol: ");
}

// The server address that last worked, defaulting to the server IP. Returns
// whether the key was present; marks the store changed when it was filled.
bool ReadServerLastAccess(Proplisthandler& store, TarnGlobvars& vars, bool& changed) {
  const OptText lastAccess = TextOf(store.GetValueForKey("tarnlastaccessname"));
  if (lastAccess) {
    vars.Set_tarnlastaccessName(lastAccess);
    StderrWhere(kServerDetails, __LINE__, "Server last access address: %s\n", lastAccess->c_str());
    return true;
  }
  vars.Set_tarnlastaccessName(vars.tarnServerIP());
  StderrWhere(kServerDetails, __LINE__,
              "Server is not found, hence setting IP as last access address: %s\n",
              Describe(vars.tarnServerIP()));
  store.SetValueForKey("tarnlastaccessname", vars.tarnServerIP()
                                                 ? PlistValue::MakeString(*vars.tarnServerIP())
                                                 : nullptr);
  changed = true;
  return false;
}

void ReadPortsAndCustomer(Proplisthandler& store, TarnGlobvars& vars) {
  vars.Set_tarnServerPort(PortOf(store.GetValueForKey("SERVERPORT")));
  StderrWhere(kServerDetails, __LINE__, "Server http port: %u\n", vars.tarnServerPort());
  vars.Set_tarnServerSecurePort(PortOf(store.GetValueForKey("SERVERSECUREPORT")));
  StderrWhere(kServerDetails, __LINE__, "Server https port: %u\n", vars.tarnServerSecurePort());
  ReadText(store, vars, "REMOTEOFFICENAME", &TarnGlobvars::Set_tarnRemoteOffName,
           "Remote Office name: ");
  ReadText(store, vars, "REMOTEOFFICEID", &TarnGlobvars::Set_tarnRemoteOffID, "Remote Office ID: ");
  ReadText(store, vars, "CUSTOMERID", &TarnGlobvars::Set_tarnCustomerID, "Customer ID: ");
  ReadText(store, vars, "CUSTOMERNAME", &TarnGlobvars::Set_tarnCustomerName, "Customer Name: ");
  ReadText(store, vars, "MSPNAME", &TarnGlobvars::Set_tarnMSPName, "MSP Name: ");
  ReadText(store, vars, "AGENTVERSION", &TarnGlobvars::Set_tarnAgentVersion, "Agent version: ");
}

void ReadDistributionServer(Proplisthandler& store, TarnGlobvars& vars) {
  ReadText(store, vars, "DSSERVERNAME", &TarnGlobvars::Set_tarnDSName,
           "Distribution Server Name: ");
  ReadText(store, vars, "DSSERVERIPADDRESS", &TarnGlobvars::Set_tarnDSIP,
           "Distribution Server IP: ");
  ReadText(store, vars, "DS_DNS_NAME", &TarnGlobvars::Set_tarnDSSecIP,
           "Distribution Server Secondary IP: ");
  ReadText(store, vars, "SERVERPROTOCOL", &TarnGlobvars::Set_tarnDSProtocol,
           "Distribution Server Protocol: ");
  vars.Set_tarnDSPort(PortOf(store.GetValueForKey("DSSERVERPORT")));
  StderrWhere(kServerDetails, __LINE__, "Distribution Server port: %u\n", vars.tarnDSPort());
  vars.Set_tarnDSSecurePort(PortOf(store.GetValueForKey("DSSERVERSECUREPORT")));
  StderrWhere(kServerDetails, __LINE__, "Distribution Server Secure port: %u\n",
              vars.tarnDSSecurePort());
}

// The distribution server's last-access address. Which branch runs depends on
// whether the server's own last-access key was present, not on this key.
void ReadDistributionLastAccess(Proplisthandler& store, TarnGlobvars& vars, bool serverKeyPresent,
                                bool& changed) {
  const OptText lastAccess = TextOf(store.GetValueForKey("tarnDSlastaccessname"));
  if (serverKeyPresent) {
    vars.Set_tarnDSlastaccessName(lastAccess);
    StderrWhere(kServerDetails, __LINE__, "DS last access address: %s\n", Describe(lastAccess));
    return;
  }
  vars.Set_tarnDSlastaccessName(vars.tarnDSIP());
  StderrWhere(kServerDetails, __LINE__,
              "Server is not found, hence setting IP as last access address: %s\n",
              Describe(vars.tarnDSIP()));
  store.SetValueForKey("tarnDSlastaccessname",
                       vars.tarnDSIP() ? PlistValue::MakeString(*vars.tarnDSIP()) : nullptr);
  changed = true;
}

void ReadRemoteOffice(Proplisthandler& store, TarnGlobvars& vars, bool serverKeyPresent,
                      bool& changed) {
  vars.Set_isRemoteOffAgent(IsRemoteOfficeSetting(store.GetValueForKey("ENABLEREMOTEOFFICEMGMT")));
  StderrWhere(kServerDetails, __LINE__, "Is Remote office Agent:%s\n",
              YesNo(vars.isRemoteOffAgent()));
  vars.Set_isDSEnabled(false);
  if (!vars.isRemoteOffAgent()) {
    return;
  }
  vars.Set_isDSEnabled(BoolValueOf(store.GetValueForKey("ENABLEDISTRIBUTIONSERVER")));
  if (!vars.isDSEnabled()) {
    StderrWhere(kServerDetails, __LINE__, "Is Distribution Server enabled: NO\n");
    return;
  }
  StderrWhere(kServerDetails, __LINE__, "Is Distribution Server enabled: YES\n");
  ReadDistributionServer(store, vars);
  ReadDistributionLastAccess(store, vars, serverKeyPresent, changed);
}

void ReadDomain(Proplisthandler& store, TarnGlobvars& vars) {
  const OptText domain = TextOf(store.GetValueForKey("MAC_DOMAIN"));
  if (domain) {
    vars.Set_localNameSpace(domain);
    StderrWhere(kServerDetails, __LINE__, "Domain Name: %s\n", domain->c_str());
  } else {
    vars.Set_localNameSpace("macosgroup");
    StderrWhere(kServerDetails, __LINE__, "Domain Name is not found hence set domain to : %s\n",
                "macosgroup");
  }
}

}  // namespace

AgentFolders AgentFoldersFor(const std::string& workingDirectory) {
  const auto bin = workingDirectory.find("/bin");
  const std::string base =
      bin == std::string::npos ? workingDirectory : workingDirectory.substr(0, bin);
  return {base, base + "/logs", base + "/data"};
}

std::string WorkingDirectory() {
  std::error_code error;
  const auto path = std::filesystem::current_path(error);
  return error ? std::string() : path.string();
}

TarnGlobvars& gv_globvars() { return *Settings().globvars; }
bool HasGlobvars() { return Settings().globvars != nullptr; }
Proplisthandler* gv_serverinfohandler() { return Settings().serverInfo.get(); }
Proplisthandler* gv_resourceinfohandler() { return Settings().resourceInfo.get(); }
void SetResourceInfoHandler(std::unique_ptr<Proplisthandler> handler) {
  Settings().resourceInfo = std::move(handler);
}

TarnGlobvars& InitTarnGlobalvars() {
  Settings().globvars = std::make_unique<TarnGlobvars>();
  return *Settings().globvars;
}

void DeinitTarnGlobalvars() {
  AgentSettings& settings = Settings();
  settings.globvars.reset();
  settings.serverInfo.reset();
  settings.resourceInfo.reset();
}

DWORD InitializeAgentParams() {
  StderrWhere("DWORD InitializeAgentParams()", __LINE__, "Getting Agent install path\n");
  GetAgentInstallPath();
  InitializeResourceID();
  InitializeServerDetails();
  InitializeLocalComputerDetails();
  return 0;
}

DWORD GetAgentInstallPath() {
  static const char* const kSignature = "DWORD GetAgentInstallPath()";
  TarnGlobvars& vars = gv_globvars();
  if (vars.tarnagentPath()) {
    return 0;
  }
  const std::string agentPath = WorkingDirectory();
  vars.Set_tarnagentPath(agentPath);
  const AgentFolders folders = AgentFoldersFor(agentPath);
  vars.Set_tarnagentBasePath(folders.base);
  vars.Set_tarnagentLogPath(folders.logs);
  vars.Set_tarnagentDataDictPath(folders.data);
  // The file name part starts with a slash, so the path holds "//" before it.
  vars.Set_tarnagentStorageFilePath(*vars.tarnagentDataDictPath() + "/" + "/resource.plist");
  ConsoleWhere(kSignature, __LINE__, "Agent path: %s\n", agentPath.c_str());
  ConsoleWhere(kSignature, __LINE__, "Agent log path: %s\n", vars.tarnagentLogPath()->c_str());
  ConsoleWhere(kSignature, __LINE__, "Agent data dict path: %s\n",
               vars.tarnagentDataDictPath()->c_str());
  return agentPath.empty() ? 1 : 0;
}

DWORD InitializeServerDetails() {
  StderrWhere(kServerDetails, __LINE__, "Getting server details\n");
  TarnGlobvars& vars = gv_globvars();
  const std::string dataPath = vars.tarnagentDataDictPath().value_or("");
  Settings().serverInfo =
      OpenServerInfo(dataPath + "/serverinfo.plist", dataPath + "/dupserverinfo.plist");
  Proplisthandler* store = Settings().serverInfo.get();
  if (store != nullptr) {
    store->PrintPlistData();
    bool changed = false;
    ReadServerAddresses(*store, vars);
    const bool serverKeyPresent = ReadServerLastAccess(*store, vars, changed);
    ReadPortsAndCustomer(*store, vars);
    ReadRemoteOffice(*store, vars, serverKeyPresent, changed);
    ReadDomain(*store, vars);
    if (changed) {
      store->WriteToProplist(std::nullopt);
    }
    ReadText(*store, vars, "MAC_AD_DOMAIN", &TarnGlobvars::Set_adDomain, "ADDomain Name: ");
  }
  StderrWhere(kServerDetails, __LINE__, "End of InitializeServerDetails\n");
  return 0;
}

DWORD InitializeLocalComputerDetails() {
  static const char* const kSignature = "DWORD InitializeLocalComputerDetails()";
  TarnGlobvars& vars = gv_globvars();
  const std::string name = GetComputerName();
  ConsoleWhere(kSignature, __LINE__, "Local computer Name: %s\n", name.c_str());
  vars.Set_localComputerName(name);
  const auto domain = getDNSDomainName();
  vars.Set_fqdnName(domain ? name + "." + *domain : name);
  const std::string address = GetLocalIPAddress();
  ConsoleWhere(kSignature, __LINE__, "Local computer IP Address: %s\n", address.c_str());
  vars.Set_localIPAddress(address);
  if (vars.tarnAgentResourceID().value_or("").empty()) {
    GetResourceIDFromServer();
  }
  ConsoleWhere(kSignature, __LINE__, "Agent resource ID: %s\n",
               Describe(vars.tarnAgentResourceID()));
  const std::string configPath =
      vars.tarnagentBasePath().value_or("") + "/SystemData/tarnconfig_data.plist";
  vars.Set_tarnconfigPlistPath(configPath);
  CreateDirectory(std::filesystem::path(configPath).parent_path().string());
  vars.Set_tarnondemandPlistPath(vars.tarnagentDataDictPath().value_or("") +
                                 "/tarnondemand_data.plist");
  return 0;
}

DWORD InitializeResourceID() {
  TarnGlobvars& vars = gv_globvars();
  SetResourceInfoHandler(Proplisthandler::InitwithFile(vars.tarnagentStorageFilePath()));
  Proplisthandler* store = gv_resourceinfohandler();
  if (store == nullptr) {
    return 1;
  }
  const OptText id = TextOf(store->GetValueForKey("RESOURCEID"));
  if (id && !IsResourceIdToken(*id)) {
    // Logging has not started yet: the console gets the line.
    ConsoleWhere("DWORD InitializeResourceID()", __LINE__,
                 "the stored resource id is not a valid id and is discarded\n");
  } else if (id) {
    vars.Set_tarnAgentResourceID(id);
  }
  return 0;
}

}  // namespace tarn
