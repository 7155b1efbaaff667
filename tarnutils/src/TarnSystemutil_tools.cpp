// Running a reporting tool through the platform's tool runner, bounded or not.
#include "tarnutils/src/TarnSystemutil_mac.h"

#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/platform.h"
#include "tarnutils/src/TarnDiagnostics.h"

namespace tarn {

std::optional<std::string> GetOutputForExecution(const std::string& launchPath,
                                                 const std::vector<std::string>& arguments) {
  try {
    return CurrentPlatform().Tools().Run(launchPath, arguments, WaitPolicy::kBounded);
  } catch (const PlatformException& e) {
    ConsoleLog("Caught exception in GetOutputForExecution: %s\n", e.reason().c_str());
    return std::nullopt;
  }
}

std::optional<std::string> TarnUtil::GetOutputForExecution(
    const std::string& launchPath, const std::vector<std::string>& arguments) {
  static const char* const kSignature =
      "-[TarnUtil GetOutputForExecution:(NSString*)launchPath arguments:(NSArray*)arguments]";
  try {
    ConsoleWhere(kSignature, __LINE__, "LaunchPath: %s\n", launchPath.c_str());
    auto output = CurrentPlatform().Tools().Run(launchPath, arguments, WaitPolicy::kUnbounded);
    ConsoleWhere(kSignature, __LINE__, "output the process: %s\n", Describe(output));
    return output;
  } catch (const PlatformException& e) {
    ConsoleLog("Caught exception in GetOutputForExecution: %s\n", e.reason().c_str());
    return std::nullopt;
  }
}

}  // namespace tarn
