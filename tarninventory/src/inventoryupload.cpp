#include "tarninventory/src/inventoryupload.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "framework/imds/dotoxml.h"
#include "framework/logging/logger.h"
#include "platform/console_log.h"
#include "tarninventory/src/FullScanHandler.h"
#include "tarninventory/src/accesslog.h"
#include "tarninventory/src/diffdocument.h"
#include "tarninventory/src/fileattributes.h"
#include "tarninventory/src/localinventory.h"
#include "tarninventory/src/runcontext.h"
#include "tarninventory/src/scanrun.h"
#include "tarninventory/src/scansettings.h"
#include "tarninventory/src/uploadrows.h"
#include "tarnutils/src/HttpHandler_mac.h"
#include "tarnutils/src/JsonEncoder.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/proplisthandler.h"

namespace tarn {
namespace {

using OptText = std::optional<std::string>;

constexpr const char* kSendSignature = "DWORD SendInventoryData(const char*, NSString*)";
constexpr const char* kFullDocumentRoot = "TarnWMIData";
constexpr const char* const kFullDocumentTables[] = {"WMIData", "WMIFetchedValue", "AgentParams",
                                                     "Resource", "InvAuditEntry"};

bool HaveResourceId(const RunContext& context) {
  return context.settings.tarnAgentResourceID().has_value() || GetResourceIDFromServer() == 0;
}

Proplisthandler& StateStore(const RunContext& context) {
  return *context.run.tarninventory_datalist;
}

OptText StoredText(const RunContext& context, const char* key) {
  return TextOf(StateStore(context).GetValueForKey(key));
}

void StoreText(const RunContext& context, const char* key, const OptText& value) {
  StateStore(context).SetValueForKey(key, value ? PlistValue::MakeString(*value) : nullptr);
}

std::string SnapshotPath(const RunContext& context) {
  return context.settings.tarnagentDataDictPath().value_or("") + "/" + kSnapshotFileName;
}

// A value as one query parameter: a "&", "#" or "=" in it cannot add or cut parameters.
std::string QueryValue(const OptText& value) {
  return HttpHandlermac::EncodeUrlValue(Describe(value));
}

// Pieces 1 to 4 of the upload address: who sends, for which audit and customer.
std::string AddressStart(const RunContext& context, const std::string& auditId) {
  const TarnGlobvars& vars = context.settings;
  std::string address = "/inventory?computer=" + QueryValue(vars.localComputerName()) +
                        "&domain=" + QueryValue(vars.localNameSpace()) +
                        "&customerId=" + QueryValue(vars.tarnCustomerID()) +
                        "&auditid=" + QueryValue(auditId);
  if (vars.tarnAgentResourceID()) {
    address += "&resourceid=" + QueryValue(vars.tarnAgentResourceID());
  }
  // An absent remote-office id is sent as the platform's text for a null object.
  address += "&remoffId=" + QueryValue(vars.tarnRemoteOffID());
  address += context.run.isOndemandScan ? "&isOnDemand=true" : "&isOnDemand=false";
  return address;
}

// The previous difference-scan time as sent: "0" when none was stored.
std::string PreviousTimeOrZero(const OptText& previous) {
  return previous && !previous->empty() ? *previous : "0";
}

// The body of a full upload: the five tables as one document.
std::string FullScanBody(const std::string& auditId, const std::string& currentTime,
                         const OptText& previousTime) {
  CreateWMIParentTablevalues(0, std::nullopt);
  createComputerInfoRow();
  const std::uint32_t auditNumber = AuditNumber(auditId);
  StderrWhere(kSendSignature, 252, "Converted audit id is: %ul\n", auditNumber);
  createInvAuditEntryRow(auditNumber);
  AddAgentParamsforInvinXML(currentTime, previousTime);
  std::string document = ConvertDOtoXMLBuffer(kFullDocumentTables, kFullDocumentRoot).value_or("");
  UserLogMessage("SendInventoryData : Sending full data in xml \n");
  UserLogMessage("INVENTORY data buffer: %s\n", document.c_str());
  return document;
}

// The body of a difference upload: what changed since the snapshot, as pretty JSON. A
// document that cannot be written as JSON is sent without a body.
std::string DiffScanBody(const RunContext& context, const std::string& auditId,
                         const std::string& currentTime, const std::string& previousTime) {
  ScanRun& run = context.run;
  if (run.fullScanobj) {
    run.fullScanobj->WritetoDiffData();
  }
  AddUserinDict(run.invDiffData);
  AddAgentParamsinDict(run.invDiffData, auditId, currentTime, previousTime);
  JsonEncoderError error;
  OptText json = EncodeJson(run.invDiffData, kJsonPrettyPrint, &error);
  if (!json) {
    ConsoleLog("SendInventoryData :Error on converting diff data to json :: %s",
               error.localizedDescription.c_str());
    return "";
  }
  UserLogMessage("SendInventoryData : Sending json diff data \n");
  ConsoleWhere(kSendSignature, 233, "Jsonstr :: success  %s", json->c_str());
  return std::move(*json);
}

}  // namespace

std::uint32_t AuditNumber(const std::optional<std::string>& auditId) {
  if (!auditId) return 12345;
  // atol: leading blanks, an optional sign, then digits up to the first other character.
  const std::string& text = *auditId;
  std::size_t at = 0;
  while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at]))) ++at;
  bool negative = false;
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) negative = text[at++] == '-';
  std::uint64_t value = 0;
  for (; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])); ++at) {
    value = value * 10 + static_cast<std::uint64_t>(text[at] - '0');  // wraps like the C type
  }
  return static_cast<std::uint32_t>(negative ? 0 - value : value);
}

bool EnsureResourceId(const RunContext& context, const std::string& accessLogPath) {
  if (HaveResourceId(context)) return true;
  StderrWhere(kSendSignature, 173,
              "ResourceID is not present, hence inventory data will be posted in next refresh "
              "cycle\n");
  PrintAccessLogFailure(accessLogPath, kResIDNotfound);
  return false;
}

PreparedUpload PrepareUpload(const RunContext& context, const std::string& auditId,
                             const std::string& accessLogPath) {
  PreparedUpload upload{AddressStart(context, auditId), "", std::to_string(context.clock.Now())};
  const OptText previousTime = StoredText(context, kInvDiffScanTime);
  if (!context.IsDiffScan()) {
    upload.address += "&scanType=1&jsonFormat=0&currScanTime=" + upload.currentTime;
    PrintAccessLogColumn(accessLogPath, kFullData);
    upload.body = FullScanBody(auditId, upload.currentTime, previousTime);
  } else {
    const std::string previous = PreviousTimeOrZero(previousTime);
    upload.address +=
        "&scanType=0&prevScanTime=" + previous + "&jsonFormat=1&currScanTime=" + upload.currentTime;
    PrintAccessLogColumn(accessLogPath, kDiffData);
    upload.body = DiffScanBody(context, auditId, upload.currentTime, previous);
  }
  return upload;
}

SentUpload SendUpload(PreparedUpload upload, const std::string& accessLogPath) {
  UserLogMessage("SendInventoryData:urltosend: %s\n", upload.address.c_str());
  HttpHandlermac client = HttpHandlermac::initWithTarnServerInfo();
  const SentUpload sent{client.TarnSendData(upload.address, std::move(upload.body)),
                        client.PostAddressCount()};
  PrintAccessLogColumn(accessLogPath, sent.result == 0 ? kSuccess : kFailure);
  return sent;
}

DWORD SaveLocalUpload(const RunContext& context, const PreparedUpload& upload,
                      const std::string& auditId, const std::string& accessLogPath) {
  const std::string& folder = *context.run.localFolder;
  const std::string computer = context.settings.localComputerName().value_or("");
  const std::time_t now = context.clock.Now();
  std::vector<std::pair<std::string, std::string>> documents;
  if (context.IsDiffScan()) {
    documents.emplace_back("full.xml", FullScanBody(auditId, upload.currentTime,
                                                    StoredText(context, kInvDiffScanTime)));
    documents.emplace_back("diff.json", upload.body);
  } else {
    documents.emplace_back("full.xml", upload.body);
  }
  DWORD result = 0;
  for (const auto& [suffix, text] : documents) {
    const auto path = WriteLocalDocument(folder, LocalDocumentName(computer, now, suffix), text);
    if (!path) {
      ErrorLogMessage("SendInventoryData : could not write %s into %s\n", suffix.c_str(),
                      folder.c_str());
      result = 1;
      break;
    }
    UserLogMessage("SendInventoryData : written to %s\n", path->c_str());
    std::printf("%s\n", path->c_str());
  }
  std::fflush(stdout);
  PrintAccessLogColumn(accessLogPath, result == 0 ? kSuccess : kFailure);
  return result;
}

void RecordAcceptedScan(const RunContext& context, const std::string& currentTime) {
  ScanRun& run = context.run;
  const std::string snapshot = SnapshotPath(context);
  FullScanHandler::SaveCurrentScanData(run.invScanData, snapshot, run.fullScanobj.get());
  StoreText(context, kInvScanTime, currentTime);
  if (context.IsDiffScan()) {
    StoreText(context, kInvDiffScanTime, currentTime);
  }
  StateStore(context).WriteToProplist();

  // A snapshot whose modification time did not move was not written: the stored "0" makes
  // the next run a full scan, so no difference is ever computed from a stale snapshot.
  const OptText modified = FileLastModifiedTime(snapshot);
  const OptText previous = StoredText(context, kInvFullDataLastModified);
  if (!modified || modified == previous) {
    UserLogMessage(
        "PreviousScanDataLastModified time : %s & CurrentLastModified : %s time of FullScan "
        "data is same . Hence assuming as \" FullScan data Save Failed\" \n",
        Describe(previous), Describe(modified));
    StoreText(context, kInvFullDataLastModified, "0");
  } else {
    UserLogMessage("PreviousLastModified time : %s & CurrentLastModified : %s\n",
                   Describe(previous), modified->c_str());
    StoreText(context, kInvFullDataLastModified, modified);
  }
  if (StoredText(context, kEnableOneTimeFullscan) == "1") {
    StoreText(context, kEnableOneTimeFullscan, "0");
  }
  StateStore(context).WriteToProplist();
}

}  // namespace tarn
