#include "platform/exception/platform_exception.h"

#include <utility>

namespace tarn {

PlatformException::PlatformException(std::string name, std::string reason)
    : name_(std::move(name)), reason_(std::move(reason)), description_(name_ + ": " + reason_) {}

}  // namespace tarn
