#include "tarninventory/src/agentparams.h"

#include "tarnutils/src/TarnGlobalvars.h"

namespace tarn {

std::vector<AgentParam> AgentParamsOf(const TarnGlobvars& settings, const std::string& currentScanTime,
                                      const std::optional<std::string>& previousScanTime,
                                      bool diffScan) {
  std::vector<AgentParam> params = {
      {"COMPUTER_NAME", settings.localComputerName(), true},
      {"DOMAIN_NETBIOS_NAME", settings.localNameSpace(), true},
      {"RESOURCE_ID", settings.tarnAgentResourceID(), true},
      {"MSP_NAME", settings.tarnMSPName(), false},
      {"CUSTOMER_NAME", settings.tarnCustomerName(), false},
      {"CUSTOMER_ID", settings.tarnCustomerID(), false},
      {"currScanTime", currentScanTime, false},
  };
  if (diffScan) params.push_back({"prevScanTime", previousScanTime.value_or("0"), false});
  params.push_back({"scanType", diffScan ? "0" : "1", false});
  return params;
}

}  // namespace tarn
