// The last step of a run: the resource id, the collectors, and the upload of
// what they recorded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

// Makes sure the computer has a resource id, runs the collectors and sends
// the result. 0 when the server accepted the upload; 1 when no resource id
// could be had or nothing was accepted. Writes the MODE and STATUS columns of
// the access log (or "ResIDNotfound").
// After an accepted upload it saves the snapshot "invFullData" and stores the scan times,
// the snapshot's modification time ("0" when it did not move) and clears the one-time
// full-scan latch; after a failed one nothing of the state store or snapshot changes. The
// result is the HTTP client's when the upload was tried.
// With the run's localFolder set (--local) no resource id is needed and nothing is sent: the
// documents are written into that folder (their paths printed on standard output), the
// status column says whether they were, and the state store and snapshot are not touched.
DWORD SendInventoryData(const std::string& auditId, const std::string& accessLogPath);

// The audit number of the full document: the audit id read as the C library's atol reads
// it (leading blanks and a sign, digits up to the first other character, no digits 0), kept
// as an unsigned 32-bit number; 12345 without an audit id.
std::uint32_t AuditNumber(const std::optional<std::string>& auditId);

}  // namespace tarn
