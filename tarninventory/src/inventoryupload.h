// The last step of a run: the resource id, the collectors, and the upload of
// what they recorded.
#pragma once

#include <string>

#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

// Makes sure the computer has a resource id, runs the collectors and sends
// the result. 0 when the server accepted the upload; 1 when no resource id
// could be had or nothing was accepted. Writes the MODE and STATUS columns of
// the access log (or "ResIDNotfound").
DWORD SendInventoryData(const std::string& auditId, const std::string& accessLogPath);

}  // namespace tarn
