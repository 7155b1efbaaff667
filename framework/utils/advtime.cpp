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

std::unique_ptr<AdvDateTime> CurrentSystemTime() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  if (localtime_r(&now, &local) == nullptr) {
    return nullptr;
  }
  return CreateAdvDateTime(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                           local.tm_min, local.tm_sec);
}

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

std::string CurrentDateTimeText() {
  const auto now = CurrentSystemTime();
  return now ? ConvertAdvDateTimeToString(now.get()).value_or("") : std::string();
}

}  // namespace tarn
