#pragma once

#include <exception>
#include <string>

namespace tarn {

// The exception the platform raises where the operating system's own libraries would raise:
// a container read out of range, an absent value put into a dictionary that forbids it, a
// message sent to a value of the wrong kind. Collector guards catch it and log its reason.
class PlatformException : public std::exception {
 public:
  PlatformException(std::string name, std::string reason);

  // The kind of failure, e.g. "NSRangeException".
  const std::string& name() const noexcept { return name_; }
  // What went wrong, in one sentence.
  const std::string& reason() const noexcept { return reason_; }
  // "name: reason", the form used in log lines.
  const std::string& description() const noexcept { return description_; }
  const char* what() const noexcept override { return description_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
  std::string description_;
};

// The names used by the platform's own raises.
inline constexpr const char* kRangeException = "NSRangeException";
inline constexpr const char* kInvalidArgumentException = "NSInvalidArgumentException";

}  // namespace tarn
