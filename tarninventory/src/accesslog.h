// The device-scan access log "tarndevicescanaccess.log": one human-readable
// line per run (date, scan type, start time, mode, status, end time), written
// in pieces as the run learns them so that a run stopped half-way still
// leaves a partial line. The file is only ever appended to.
//
// The pieces of one line, in order:
//   start          "\n%s\t%11s\t%11s\t"  date "dd-MM-yyyy", mode word, time "HH:mm:ss"
//   early failure  "\t%15s\t%15s"        failure word, then "---"
//   scan mode      "\t%15s"              "FullData" or "DiffData"
//   status         "\t%15s"              "Success" or "Failure"
//   end            "%15s"                time "HH:mm:ss", deliberately without a leading tab
// Widths are minimum widths: longer values are written whole.
#pragma once

#include <string>
#include <string_view>

namespace tarn {

inline constexpr const char* kAccessLogFileName = "tarndevicescanaccess.log";
// The base name RotateLog is given for the access log.
inline constexpr const char* kAccessLogBaseName = "tarndevicescanaccess";

// The two header lines; the second has no line end, the first run's start piece supplies it.
inline constexpr std::string_view kAccessLogHeader =
    "DATE\t\tSCANTYPE\tSTARTTIME\t\t\tMODE\t\t\tSTATUS\t\t\tENDTIME\n"
    "----\t\t--------\t---------\t\t\t-------\t\t\t-------\t\t\t-------";

// Mode words of the SCANTYPE column.
inline constexpr const char* kModeManual = "Manual";
inline constexpr const char* kModeOndemand = "Ondemand";
inline constexpr const char* kModeScheduled = "Scheduled";
inline constexpr const char* kModePostinstall = "Postinstall";
inline constexpr const char* kModeInvalidArgs = "InvalidArgs";

// Words written where the MODE column stands when the run stops early.
inline constexpr const char* kDatadictFail = "DatadictFail";
inline constexpr const char* kInvDatadictFail = "InvDatadictFail";
inline constexpr const char* kInvClassDoFail = "InvClassDoFail";
inline constexpr const char* kResIDNotfound = "ResIDNotfound";
// The STATUS column after an early failure.
inline constexpr const char* kNoStatus = "---";

// MODE and STATUS words of a run that reached the upload.
inline constexpr const char* kFullData = "FullData";
inline constexpr const char* kDiffData = "DiffData";
inline constexpr const char* kSuccess = "Success";
inline constexpr const char* kFailure = "Failure";

// "<logDirectory>/tarndevicescanaccess.log".
std::string AccessLogPath(const std::string& logDirectory);

// The text of each piece.
std::string AccessLogStartPiece(const std::string& date, const std::string& modeWord,
                                const std::string& time);
std::string AccessLogFailurePiece(const std::string& failureWord);
std::string AccessLogColumnPiece(const std::string& word);
std::string AccessLogEndPiece(const std::string& time);

// Creates the file (mode 0600) with its header when nothing is at the path; an
// existing file, or a link, is left untouched.
void CreateDeviceScanAccessLog(const std::string& path);

// Appends text to the end of an existing file, opening and closing it. A
// missing or unwritable file, or anything but this user's regular file with one
// link (OpenOwnFile), makes this a silent no-op.
void PrintAccessLog(const std::string& path, std::string_view text);

// Appends the start piece with the current local date and time.
void PrintAccessLogStart(const std::string& path, const std::string& modeWord);
// Appends the early-failure piece (failureWord, then "---").
void PrintAccessLogFailure(const std::string& path, const std::string& failureWord);
// Appends a scan-mode or status piece.
void PrintAccessLogColumn(const std::string& path, const std::string& word);
// Appends the end piece with the current local time.
void PrintAccessLogEndTime(const std::string& path);

}  // namespace tarn
