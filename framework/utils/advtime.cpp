#include "framework/utils/advtime.h"

#include <cstdio>
#include <cstring>

#include "framework/logging/logger.h"

namespace tarn {
namespace {

std::string DateText(const AdvDate& date) {
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d", date.year, date.month, date.day);
  return text;
}

std::string TimeText(const AdvTime& time) {
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", time.hour, time.minute, time.second);
  return text;
}

AdvDate MakeDate(int year, int month, int day) {
  return AdvDate{static_cast<std::uint16_t>(year), static_cast<std::uint8_t>(month),
                 static_cast<std::uint8_t>(day)};
}

AdvTime MakeTime(int hour, int minute, int second) {
  return AdvTime{static_cast<std::uint8_t>(hour), static_cast<std::uint8_t>(minute),
                 static_cast<std::uint8_t>(second)};
}

}  // namespace

std::unique_ptr<AdvDate> CreateAdvDate(int year, int month, int day) {
  return std::make_unique<AdvDate>(MakeDate(year, month, day));
}

std::unique_ptr<AdvTime> CreateAdvTime(int hour, int minute, int second) {
  return std::make_unique<AdvTime>(MakeTime(hour, minute, second));
}

std::unique_ptr<AdvDateTime> CreateAdvDateTime(int year, int month, int day, int hour, int minute,
                                               int second) {
  auto dateTime = std::make_unique<AdvDateTime>();
  dateTime->date = MakeDate(year, month, day);
  dateTime->time = MakeTime(hour, minute, second);
  return dateTime;
}

namespace {

std::unique_ptr<AdvDateTime> LocalTimeAt(std::time_t moment) {
  std::tm local{};
  if (localtime_r(&moment, &local) == nullptr) {
    return nullptr;
  }
  return CreateAdvDateTime(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                           local.tm_min, local.tm_sec);
}

}  // namespace

std::unique_ptr<AdvDateTime> CurrentSystemTime() { return LocalTimeAt(std::time(nullptr)); }

std::time_t GetCurrentSystemTime() { return std::time(nullptr); }

std::unique_ptr<AdvDateTime> ConvertStringToAdvDateTime(const char* text) {
  TraceLogMessage("Inside ConvertStringToAdvDateTime \n");
  if (text == nullptr) {
    TraceLogMessage("datetimeStr NULL \n");
    return nullptr;
  }
  const bool hasDate = std::strchr(text, '-') != nullptr;
  const bool hasTime = std::strchr(text, ':') != nullptr;
  int f[6] = {0, 0, 0, 0, 0, 0};
  if (hasDate && hasTime) {
    std::sscanf(text, "%d-%d-%d %d:%d:%d", &f[0], &f[1], &f[2], &f[3], &f[4], &f[5]);
  } else if (hasDate) {
    std::sscanf(text, "%d-%d-%d", &f[0], &f[1], &f[2]);
  } else if (hasTime) {
    std::sscanf(text, "%d:%d:%d", &f[3], &f[4], &f[5]);
  } else {
    return nullptr;
  }
  return CreateAdvDateTime(f[0], f[1], f[2], f[3], f[4], f[5]);
}

std::optional<std::string> ConvertAdvDateToString(const AdvDate* date) {
  if (date == nullptr) {
    return std::nullopt;
  }
  return DateText(*date);
}

std::optional<std::string> ConvertAdvTimeToString(const AdvTime* time) {
  if (time == nullptr) {
    return std::nullopt;
  }
  return TimeText(*time);
}

std::optional<std::string> ConvertAdvDateTimeToString(const AdvDateTime* dateTime) {
  if (dateTime == nullptr) {
    return std::nullopt;
  }
  const AdvDate* date = dateTime->date ? &*dateTime->date : nullptr;
  const AdvTime* time = dateTime->time ? &*dateTime->time : nullptr;
  if (date != nullptr && time != nullptr) {
    return *ConvertAdvDateToString(date) + " " + *ConvertAdvTimeToString(time);
  }
  if (date != nullptr) {
    return ConvertAdvDateToString(date);
  }
  return ConvertAdvTimeToString(time);
}

namespace {
constexpr std::size_t kStoredDateTimeSize = 9;
}  // namespace

OwnedBlock StoreAdvDateTime(const AdvDateTime& dateTime) {
  const AdvDate date = dateTime.date.value_or(AdvDate{});
  const AdvTime time = dateTime.time.value_or(AdvTime{});
  const unsigned char bytes[kStoredDateTimeSize] = {
      static_cast<unsigned char>(dateTime.date.has_value()),
      static_cast<unsigned char>(date.year & 0xff),
      static_cast<unsigned char>(date.year >> 8),
      date.month,
      date.day,
      static_cast<unsigned char>(dateTime.time.has_value()),
      time.hour,
      time.minute,
      time.second};
  return OwnedBlock::Copy(bytes, sizeof bytes);
}

std::optional<AdvDateTime> LoadAdvDateTime(const OwnedBlock& block) {
  const unsigned char* bytes = block.data();
  if (block.size() != kStoredDateTimeSize || bytes[0] > 1 || bytes[5] > 1) {
    return std::nullopt;
  }
  AdvDateTime dateTime;
  if (bytes[0] == 1) {
    dateTime.date = AdvDate{static_cast<std::uint16_t>(bytes[1] | (bytes[2] << 8)), bytes[3],
                            bytes[4]};
  }
  if (bytes[5] == 1) {
    dateTime.time = AdvTime{bytes[6], bytes[7], bytes[8]};
  }
  return dateTime;
}

std::string CurrentDateTimeText() { return DateTimeTextAt(std::time(nullptr)); }

std::string DateTimeTextAt(std::time_t moment) {
  const auto local = LocalTimeAt(moment);
  return local ? ConvertAdvDateTimeToString(local.get()).value_or("") : std::string();
}

}  // namespace tarn
