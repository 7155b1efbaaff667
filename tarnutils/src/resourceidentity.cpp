#include "tarnutils/src/resourceidentity.h"

#include <algorithm>
#include <memory>

#include "framework/imds/dataset.h"
#include "framework/imds/xmltodo.h"
#include "framework/logging/logger.h"
#include "platform/plist/plist_value.h"
#include "tarnutils/src/HttpHandler_mac.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/proplisthandler.h"

namespace tarn {
namespace {

constexpr const char* kTable = "Agentparams";
constexpr const char* kCriteria = "PARAM_NAME='RESOURCE_ID'";
constexpr const char* kValueColumn = "param_Value";

// Each value is one path segment: a "/" or ".." in a setting cannot reach another path.
std::string ResourceDocumentPath(const TarnGlobvars& vars) {
  const auto segment = [](const std::optional<std::string>& value) {
    return HttpHandlermac::EncodeUrlValue(Describe(value));
  };
  return "client-data/" + segment(vars.tarnCustomerID()) + "/domains/" +
         segment(vars.localNameSpace()) + "/resources/" + segment(vars.localComputerName()) +
         ".xml";
}

// The server's document gives Agentparams rows, in grouping elements at most; rows of other
// tables the agent knows are skipped.
const UntrustedXmlRules& ResourceDocumentRules() {
  static const UntrustedXmlRules rules{1024 * 1024, 256, {kTable}, true};
  return rules;
}

// The document from the server, as text up to its first zero byte; absent when it could not
// be had or came empty.
std::optional<std::string> FetchResourceDocument(const std::string& path) {
  HttpHandlermac client = HttpHandlermac::initWithTarnServerInfo();
  client.SetValidateServer(true);
  std::optional<std::string> body;
  if (client.TarnGetData(path, body) != 0 || !body || body->empty()) return std::nullopt;
  if (const auto end = body->find('\0'); end != std::string::npos) body->resize(end);
  return body;
}

// The id of the first RESOURCE_ID row; 0 also when there is no such row or it has no value.
DWORD TakeResourceIdFromTable() {
  std::unique_ptr<ResultData> selection = SelectRows(kTable, kCriteria);
  if (!selection) {
    ErrorLogMessage(
        "GetResourceIDFromServer :No rows found corresponding to the resource id in the "
        "resource id xml .\n");
    return 1;
  }
  if (GotoNextRowObject(selection.get()) == nullptr) return 0;
  const OwnedBlock* value = GetColumnValueByName(kValueColumn, nullptr, selection.get());
  if (value == nullptr) {
    ErrorLogMessage("GetResourceIDFromServer : Error while allocating the value of resourceid \n");
    return 0;
  }
  const std::string id = value->c_str();
  if (!IsResourceIdToken(id)) {
    ErrorLogMessage("GetResourceIDFromServer : The resource id from the server is not a valid id: %s\n",
                    id.c_str());
    return 1;
  }
  UserLogMessage("GetResourceIDFromServer : The Resource ID from the server is given  by %s \n",
                 id.c_str());
  return UpdateResourceID(id);
}

bool IsIdCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_' || c == '.';
}

}  // namespace

bool IsResourceIdToken(std::string_view id) {
  constexpr std::size_t kLongestId = 64;
  return !id.empty() && id.size() <= kLongestId && std::all_of(id.begin(), id.end(), IsIdCharacter);
}

DWORD UpdateResourceID(const std::optional<std::string>& resourceId) {
  if (!resourceId) return 1;
  TarnGlobvars& vars = gv_globvars();
  vars.Set_tarnAgentResourceID(resourceId);
  if (Proplisthandler* store = gv_resourceinfohandler()) {
    store->SetValueForKey("RESOURCEID", PlistValue::MakeString(*resourceId));
    store->WriteToProplist(vars.tarnagentStorageFilePath());
  }
  return 0;
}

DWORD GetResourceIDFromServer() {
  const std::string path = ResourceDocumentPath(gv_globvars());
  ConsoleWhere("DWORD GetResourceIDFromServer(NSString**)", 735, "resource xml url: %s\n",
               path.c_str());
  const std::optional<std::string> document = FetchResourceDocument(path);
  if (!document) {
    ErrorLogMessage("GetResourceIDFromServer : Unable to get the reource id xml from %s\n",
                    path.c_str());
    return 1;
  }
  if (CreateDOFromUntrustedXMLBuffer(document->data(), document->size(), ResourceDocumentRules()) !=
      1) {
    ErrorLogMessage(
        "GetResourceIDFromServer : Error occured  while loading resource id buffer to the "
        "memory : \n %s \n",
        path.c_str());
    return 1;
  }
  return TakeResourceIdFromTable();
}

}  // namespace tarn
