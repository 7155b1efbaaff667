// Column data-type codes of the store and the conversion of texts into a
// type's storage form (dictionary defaults, criteria literals).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "framework/utils/ownedblock.h"

namespace tarn {

enum GenDataType : int {
  kTypeNotSupported = 0,
  kTypeTinyInt = 1,
  kTypeUnsignedTinyInt = 2,
  kTypeSmallInt = 3,
  kTypeUnsignedSmallInt = 4,
  kTypeInt = 5,
  kTypeUnsignedInt = 6,
  kTypeLongInt = 7,
  kTypeUnsignedLongInt = 8,
  kTypeFloat = 9,
  kTypeDouble = 10,
  kTypeReal = 11,
  kTypeDecimal = 12,
  kTypeNumeric = 13,
  kTypeSqlChar = 14,
  kTypeChar = 15,
  kTypeDate = 16,
  kTypeTime = 17,
  kTypeDateTime = 18,
  kTypeBoolean = 19,
  kTypeBlob = 20,
  kTypeClob = 21,
  kTypeText = 22,
};

// Storage size in bytes of the numeric type codes 0 to 11.
inline constexpr std::array<std::int32_t, 12> gv_numDataStorageSize = {0, 1, 1, 2, 2, 4,
                                                                        4, 8, 8, 4, 8, 4};

// The type codes whose values rows hold as 32-bit integers, whatever their declared size: the
// XML reader stores them so, and the writer, the comparison and the dumps read them so. Code 4
// (unsigned small int) is accepted by the dictionary but has no row form.
inline constexpr std::array<bool, 23> kRowInt32Types = [] {
  std::array<bool, 23> types{};
  for (const int type : {kTypeTinyInt, kTypeUnsignedTinyInt, kTypeSmallInt, kTypeInt,
                         kTypeUnsignedInt}) {
    types[static_cast<std::size_t>(type)] = true;
  }
  return types;
}();

constexpr bool IsRowInt32Type(int type) {
  return type >= 0 && static_cast<std::size_t>(type) < kRowInt32Types.size() &&
         kRowInt32Types[static_cast<std::size_t>(type)];
}

// The length ConvertToGenSQLType reports for a date/time record.
inline constexpr std::int32_t kDateTimeRecordLength = 24;

// Converts text to the storage form of type and sets length to the value's
// length in bytes. For codes 0, 12, 13, 20 and 21 length is also the input:
// that many bytes are taken (zero-filled past the end of text). Integers are
// stored in their type's storage size, DATE/TIME/DATETIME as a stored AdvDateTime
// record (StoreAdvDateTime), BOOLEAN as one byte 1 or 0. Returns nullopt for a null text, a
// type above 22, a date/time text that does not read, or a BOOLEAN text other
// than "TRUE"/"FALSE" (any letter case).
std::optional<OwnedBlock> ConvertToGenSQLType(const char* text, std::int32_t& length, int type);

}  // namespace tarn
