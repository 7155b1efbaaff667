#include "framework/persistent/dbutility.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "framework/utils/advtime.h"
#include "framework/utils/agentutils.h"

namespace tarn {
namespace {

OwnedBlock RawBytes(const char* text, std::int32_t& length) {
  length = std::max<std::int32_t>(length, 0);
  std::string bytes(static_cast<std::size_t>(length), '\0');
  const std::size_t available = std::min(bytes.size(), std::strlen(text));
  std::memcpy(bytes.data(), text, available);
  return OwnedBlock::Copy(bytes.data(), bytes.size());
}

// The low-order size bytes of value (little-endian storage).
OwnedBlock LowOrderBytes(std::int64_t value, std::int32_t size) {
  unsigned char bytes[8];
  const auto bits = static_cast<std::uint64_t>(value);
  for (int i = 0; i < 8; ++i) {
    bytes[i] = static_cast<unsigned char>(bits >> (8 * i));
  }
  return OwnedBlock::Copy(bytes, static_cast<std::size_t>(size));
}

std::optional<OwnedBlock> Boolean(const char* text, std::int32_t& length) {
  unsigned char value;
  if (strcasecmp(text, "TRUE") == 0) {
    value = 1;
  } else if (strcasecmp(text, "FALSE") == 0) {
    value = 0;
  } else {
    return std::nullopt;
  }
  length = 1;
  return OwnedBlock::Of(value);
}

}  // namespace

std::optional<OwnedBlock> ConvertToGenSQLType(const char* text, std::int32_t& length, int type) {
  if (text == nullptr) {
    return std::nullopt;
  }
  switch (type) {
    case kTypeNotSupported:
    case kTypeDecimal:
    case kTypeNumeric:
    case kTypeBlob:
    case kTypeClob:
      return RawBytes(text, length);
    case kTypeTinyInt:
    case kTypeUnsignedTinyInt:
    case kTypeSmallInt:
    case kTypeUnsignedSmallInt:
    case kTypeInt:
    case kTypeUnsignedInt:
      length = gv_numDataStorageSize[type];
      return LowOrderBytes(AlphaToInt(text), length);
    case kTypeLongInt:
    case kTypeUnsignedLongInt:
      length = gv_numDataStorageSize[type];
      return LowOrderBytes(AlphaToInt64(text), length);
    case kTypeFloat:
    case kTypeReal:
      length = gv_numDataStorageSize[type];
      return OwnedBlock::Of(static_cast<float>(AlphaToDouble(text)));
    case kTypeDouble:
      length = gv_numDataStorageSize[type];
      return OwnedBlock::Of(AlphaToDouble(text));
    case kTypeSqlChar:
    case kTypeChar:
    case kTypeText:
      length = static_cast<std::int32_t>(std::strlen(text));
      return OwnedBlock::Copy(text, std::strlen(text));
    case kTypeDate:
    case kTypeTime:
    case kTypeDateTime: {
      const auto dateTime = ConvertStringToAdvDateTime(text);
      if (!dateTime) {
        return std::nullopt;
      }
      length = kDateTimeRecordLength;
      return StoreAdvDateTime(*dateTime);
    }
    case kTypeBoolean:
      return Boolean(text, length);
    default:
      return std::nullopt;
  }
}

}  // namespace tarn
