#include "tarninventory/src/invscanhandler.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/console_log.h"
#include "platform/exception/platform_exception.h"
#include "platform/file/file_util.h"
#include "platform/plist/plist_io.h"
#include "tarninventory/src/tarninventoryutil.h"
#include "tarnutils/src/TarnStringutil.h"
#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {
namespace {

// The single-precision reading of a number, as the platform's floatValue gives it.
float FloatValueOf(const PlistValue& number) {
  if (number.IsReal()) return static_cast<float>(*number.AsReal());
  if (number.IsInteger() && number.IsUnsignedInteger()) {
    return static_cast<float>(*number.AsUnsigned());
  }
  if (number.IsString()) return std::strtof(number.String().c_str(), nullptr);
  return static_cast<float>(number.AsInteger().value_or(0));
}

}  // namespace

std::int64_t IntegerValueOf(const PlistPtr& value) {
  if (!value) return 0;
  if (value->IsBoolean()) return *value->AsBoolean() ? 1 : 0;
  if (value->IsString()) return std::strtoll(value->String().c_str(), nullptr, 10);
  return value->AsInteger().value_or(0);
}

std::string CurrentDirectory() {
  std::error_code error;
  const std::filesystem::path current = std::filesystem::current_path(error);
  return error ? std::string() : current.string();
}

void AddRow(Rows& rows, std::int32_t propertyId, std::int32_t classId, std::int32_t instance,
            OptView value) {
  rows.Add(propertyId, classId, instance, value);
}

void AddFillers(Rows& rows, std::int32_t classId, std::int32_t instance,
                std::initializer_list<std::int32_t> propertyIds) {
  for (const std::int32_t propertyId : propertyIds) {
    AddRow(rows, propertyId, classId, instance, kFiller);
  }
}

void RecordRow(std::int32_t propertyId, std::int32_t classId, std::int32_t instance,
               OptView value) {
  AddRowWMIFetchValueTable(propertyId, classId, instance, 0, value);
}

std::string adjustBytes(const PlistPtr& number) {
  if (IntegerValueOf(number) == 0) {
    return kZero;
  }
  // Decimal units to binary units, in single precision on purpose: large counts are first
  // rounded to 24 significant bits, as the inventory has always reported them.
  float converted = FloatValueOf(*number) / 1000000000.0f;
  converted = converted * 1073741824.0f;
  return std::to_string(static_cast<std::int64_t>(converted));
}

std::optional<std::string> PieceOf(const std::optional<std::string>& text,
                                   const std::string& separator, std::size_t index) {
  if (!text) return std::nullopt;
  std::vector<std::string> pieces = SplitText(*text, separator);
  if (index >= pieces.size()) {
    throw PlatformException(
        kRangeException,
        "index " + std::to_string(index) + " beyond bounds of the pieces of \"" + *text + "\"");
  }
  return std::move(pieces[index]);
}

std::string TextAfterColon(const std::string& output) { return *PieceOf(output, ": ", 1); }

std::optional<std::string> ProplistXMLParser::GetOutputForExecution(
    const std::string& launchPath, const std::vector<std::string>& arguments) {
  return tarn::GetOutputForExecution(launchPath, arguments);
}

PlistPtr ProplistXMLParser::GetItemsArrayfromPropertylist(
    const std::vector<std::string>& arguments) {
  const std::optional<std::string> output = GetOutputForExecution(kSystemProfiler, arguments);
  if (!output) {
    return nullptr;
  }
  return ValueForKey(ObjectAtIndex(ParsePlist(*output), 0), "_items");
}

namespace {

void LogUnreadableReport(const std::string& path) {
  ConsoleLog("Error: %s\n",
             ("The file \"" + path + "\" couldn't be read because it isn't in the correct format.")
                 .c_str());
}

}  // namespace

PlistPtr ProplistXMLParser::GetArrayObjectFromPlist(const std::string& path) {
  const PlistPtr report = ReadPlistFile(path);
  if (!report) {
    LogUnreadableReport(path);
    return nullptr;
  }
  return ValueForKey(ObjectAtIndex(report, 0), "_items");
}

}  // namespace tarn
