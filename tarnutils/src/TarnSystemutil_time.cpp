// The local date and time as the logs and the access log show them.
#include "tarnutils/src/TarnSystemutil_mac.h"

#include <cstdio>
#include <ctime>

namespace tarn {

namespace {

std::tm LocalNow() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local;
}

}  // namespace

std::string GetCurrTime() {
  const std::tm now = LocalNow();
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", now.tm_hour, now.tm_min, now.tm_sec);
  return text;
}

std::string GetCurrDateString() {
  const std::tm now = LocalNow();
  char text[32];
  std::snprintf(text, sizeof text, "%02d-%02d-%04d", now.tm_mday, now.tm_mon + 1,
                now.tm_year + 1900);
  return text;
}

long GetLocalTimeInLong() { return static_cast<long>(std::time(nullptr)); }

std::string GetLocalTimeInLongStr() { return std::to_string(GetLocalTimeInLong()); }

}  // namespace tarn
