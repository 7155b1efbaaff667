// Date and time records of the data store and their text forms. No range
// checks are made: fields hold what was parsed, truncated to their widths.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "framework/utils/ownedblock.h"

namespace tarn {

struct AdvDate {
  std::uint16_t year = 0;
  std::uint8_t month = 0;
  std::uint8_t day = 0;
};

struct AdvTime {
  std::uint8_t hour = 0;
  std::uint8_t minute = 0;
  std::uint8_t second = 0;
};

// A date, a time, or both.
struct AdvDateTime {
  std::optional<AdvDate> date;
  std::optional<AdvTime> time;
};

std::unique_ptr<AdvDate> CreateAdvDate(int year, int month, int day);
std::unique_ptr<AdvTime> CreateAdvTime(int hour, int minute, int second);
std::unique_ptr<AdvDateTime> CreateAdvDateTime(int year, int month, int day, int hour, int minute,
                                               int second);

// The current local date and time (month 1 to 12).
std::unique_ptr<AdvDateTime> CurrentSystemTime();

// Whole seconds since 1970-01-01 UTC.
std::time_t GetCurrentSystemTime();

// Reads "Y-M-D h:m:s", "Y-M-D" (time 00:00:00) or "h:m:s" (date 0-0-0); a text
// with neither "-" nor ":" and a null text give null. Unread fields are 0; the
// result always has both parts.
std::unique_ptr<AdvDateTime> ConvertStringToAdvDateTime(const char* text);

// "%04d-%02d-%02d" / "%02d:%02d:%02d"; nullopt for a null record.
std::optional<std::string> ConvertAdvDateToString(const AdvDate* date);
std::optional<std::string> ConvertAdvTimeToString(const AdvTime* time);

// Both parts joined by a blank, or whichever part exists; nullopt for neither.
std::optional<std::string> ConvertAdvDateTimeToString(const AdvDateTime* dateTime);

// The storage form of a date-time record in a store value: a presence byte
// and the date fields (year little-endian, month, day), then a presence byte
// and the time fields (hour, minute, second).
OwnedBlock StoreAdvDateTime(const AdvDateTime& dateTime);
// Reads a block written by StoreAdvDateTime; nothing for any other bytes.
std::optional<AdvDateTime> LoadAdvDateTime(const OwnedBlock& block);

// The current local time as "%04d-%02d-%02d %02d:%02d:%02d".
std::string CurrentDateTimeText();
// The same text for a given moment (whole seconds since 1970-01-01 UTC).
std::string DateTimeTextAt(std::time_t moment);

}  // namespace tarn
