#include "tarninventory/src/inventoryupload.h"

#include "framework/logging/logger.h"
#include "tarninventory/src/accesslog.h"
#include "tarninventory/src/scanrun.h"
#include "tarninventory/src/tarninventory.h"
#include "tarnutils/src/TarnDiagnostics.h"
#include "tarnutils/src/TarnGlobalvars.h"

namespace tarn {
namespace {

constexpr const char* kSendSignature = "DWORD SendInventoryData(const char*, NSString*)";

bool HaveResourceId() {
  return gv_globvars().tarnAgentResourceID().has_value() || GetResourceIDFromServer() == 0;
}

}  // namespace

DWORD SendInventoryData(const std::string& auditId, const std::string& accessLogPath) {
  if (!HaveResourceId()) {
    StderrWhere(kSendSignature, 173,
                "ResourceID is not present, hence inventory data will be posted in next refresh "
                "cycle\n");
    PrintAccessLogFailure(accessLogPath, kResIDNotfound);
    return 1;
  }
  CollectInventoryData(auditId);
  PrintAccessLogColumn(accessLogPath, IsDiffScan() ? kDiffData : kFullData);
  // This build collects and records but has no upload to the server yet: the
  // run is reported as not accepted, so no snapshot or scan time moves.
  ErrorLogMessage("SendInventoryData : no upload in this build, nothing was sent\n");
  PrintAccessLogColumn(accessLogPath, kFailure);
  return 1;
}

}  // namespace tarn
