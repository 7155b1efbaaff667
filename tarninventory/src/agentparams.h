// The agent parameters both upload forms carry: the AgentParams rows of a full scan's XML
// document and the "AgentParams" dictionary of a difference document.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tarn {

class TarnGlobvars;

struct AgentParam {
  const char* name;
  std::optional<std::string> value;  // absent settings are left out of both forms
  // The value comes from the host or the server (names, resource id), not from the agent's
  // own settings files: the XML form escapes it like a recorded value.
  bool fromOutside;
};

// The parameters of this run, in the XML form's order: names, resource id, partner and
// customer, this scan's time, the previous scan's time ("0" when unknown; difference scans
// only) and the scan type ("0" difference, "1" full).
std::vector<AgentParam> AgentParamsOf(const TarnGlobvars& settings, const std::string& currentScanTime,
                                      const std::optional<std::string>& previousScanTime,
                                      bool diffScan);

}  // namespace tarn
