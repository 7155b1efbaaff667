// The last step of a run: the resource id, the collectors, and the upload of
// what they recorded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

struct RunContext;

// The upload of a run, in the steps the driver calls in turn: EnsureResourceId before the
// collectors, then PrepareUpload, SendUpload and, after an accepted upload,
// RecordAcceptedScan.

// True when the computer has a resource id (asking the server when the settings have none);
// false after a console line and "ResIDNotfound" in the access log: nothing is collected or
// sent then.
bool EnsureResourceId(const RunContext& context, const std::string& accessLogPath);

// What is sent: the address's path and query, the body, and the scan time it carries.
struct PreparedUpload {
  std::string address;
  std::string body;
  std::string currentTime;
};

// Builds the address and the body of what the collectors recorded (the XML document of the
// tables for a full scan, the JSON difference document for a difference scan) and writes the
// access log's MODE column. The scan time is the context clock's.
PreparedUpload PrepareUpload(const RunContext& context, const std::string& auditId,
                             const std::string& accessLogPath);

// What posting the upload gave: 0 when the server accepted it, otherwise the HTTP client's
// result; and how many server addresses it was offered to.
struct SentUpload {
  DWORD result = 1;
  std::size_t addresses = 0;
};

// Posts the upload and writes the STATUS column.
SentUpload SendUpload(PreparedUpload upload, const std::string& accessLogPath);

// A local run (--local): the documents of the upload are written into the run's local folder
// instead of being sent, each path on standard output; a difference scan writes the
// difference and, beside it, the whole inventory as a full upload would carry it. Writes the
// STATUS column; 0 when every document was written.
DWORD SaveLocalUpload(const RunContext& context, const PreparedUpload& upload,
                      const std::string& auditId, const std::string& accessLogPath);

// After an accepted upload: saves the snapshot "invFullData", stores the scan times and the
// snapshot's modification time ("0" when it did not move) and clears the one-time full-scan
// latch. Nothing calls it after a failed upload, so the state store and the snapshot stay.
void RecordAcceptedScan(const RunContext& context, const std::string& currentTime);

// The audit number of the full document: the audit id read as the C library's atol reads
// it (leading blanks and a sign, digits up to the first other character, no digits 0), kept
// as an unsigned 32-bit number; 12345 without an audit id.
std::uint32_t AuditNumber(const std::optional<std::string>& auditId);

}  // namespace tarn
