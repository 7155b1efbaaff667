// The index of the inventory class catalogue.
//
// The catalogue document "Mac_InvClasses.xml" is loaded into the tables
// WMIClass, WMIClassProps and MacProperties; CreateInvTable reads those
// tables once per run and keeps, per class id, the class name, the property
// ids in ascending order with their names, the primary-key property ids, and
// the highest property id of the catalogue (LAST_PROPERTY_ID), which marks
// the end of one recorded instance. Ids are keyed by their decimal text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tarnutils/src/TarnSystemutil_mac.h"

namespace tarn {

// Property ids (decimal texts) shared between the index and its readers.
using PropertyIdList = std::shared_ptr<const std::vector<std::string>>;

class InvClassHandler {
 public:
  // One indexed class.
  struct ClassEntry {
    std::string className;
    // Property id text to property name.
    std::unordered_map<std::string, std::string> propertyNames;
    // "PROPERTYIDS": every property id, ascending by PROPERTY_ID.
    PropertyIdList propertyIds;
    // "PRIMARY_KEY": the ids whose primary_key is 1, in the same order (possibly empty).
    PropertyIdList primaryKeys;
  };

  // Empties the index.
  void Initialize();

  // Builds the index from the loaded tables. 0 when every class was indexed;
  // 1 when WMIClass has no rows, when a class has no WMIClassProps rows (the
  // classes before it stay indexed) or when a row lacks a value it needs.
  DWORD CreateInvTable();

  // Stores the LAST_PROPERTY_ID of the last MacProperties row (0 without rows).
  void SetLastPropertyID();
  // The stored LAST_PROPERTY_ID, 0 when none is stored.
  int GetLastPropertyID() const;

  // Number of class ids indexed.
  std::size_t classCount() const;
  // A copy of the class ids (decimal texts) in ascending order.
  std::vector<std::string> GetclassIdArr() const;
  // The class's name, or nothing for an unknown class.
  std::optional<std::string> GetclassName(std::uint32_t classId) const;
  // Number of properties of the class, 0 for an unknown class.
  std::size_t GetpropertiesCountforClass(std::uint32_t classId) const;
  // The class's property ids, or null for an unknown class.
  PropertyIdList GetpropertyIDArr(std::uint32_t classId) const;
  // The class's primary-key property ids, or null for an unknown class.
  PropertyIdList GetPrimaryKeysArr(std::uint32_t classId) const;
  // The name of a property of the class, or nothing when either is unknown.
  std::optional<std::string> GetpropertyName(std::uint32_t classId,
                                             const std::string& propertyId) const;

  // Releases the index; lookups then answer as for an empty catalogue.
  void dealloc();

 private:
  const ClassEntry* FindClass(std::uint32_t classId) const;
  // Indexes one class from its WMIClassProps rows. False when it has none.
  bool IndexClass(std::int32_t classId, const std::string& className);

  // INVTableDict: the class entries by class id text, and "LAST_PROPERTY_ID".
  std::unordered_map<std::string, ClassEntry> classes_;
  std::optional<std::int32_t> lastPropertyId_;
  // INVTableKeys: the class ids in ascending class_id order.
  std::vector<std::string> classIds_;
};

// The run's catalogue index (invClassObj), shared by the driver and the recorder.
InvClassHandler& invClassObj();

}  // namespace tarn
