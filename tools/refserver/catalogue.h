// The inventory class catalogue (the agent's Mac_InvClasses.xml): class names,
// property names and the primary-key properties that identify an instance
// between two scans.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/refserver/inventory.h"

namespace tarn::refserver {

class CatalogueError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct PropertyInfo {
  int id = 0;
  std::string name;
  bool primaryKey = false;
};

struct ClassInfo {
  int id = 0;
  std::string name;
  std::vector<PropertyInfo> properties;  // ascending by property id
  std::vector<int> primaryKeys;          // the same order

  const PropertyInfo* FindProperty(int propertyId) const;
};

class Catalogue {
 public:
  // Reads the catalogue document. WMIClassProps rows may sit inside their WMIClass
  // element or carry class_id themselves. Raises CatalogueError when the file cannot
  // be read or parsed, or has no class.
  static Catalogue Load(const std::string& path);
  // The same from a document in memory.
  static Catalogue Parse(const std::string& document);

  const ClassInfo* FindClass(int classId) const;
  const std::map<int, ClassInfo>& classes() const { return classes_; }
  // The class's name, or "Class N" for a class the catalogue does not know.
  std::string ClassName(int classId) const;
  std::string PropertyName(int classId, int propertyId) const;

  // The instance's matching key: the values of the class's primary-key properties in
  // catalogue order, concatenated without separator, skipping those the instance
  // lacks; empty for a class without primary keys (or unknown to the catalogue).
  std::string InstanceKey(int classId, const Instance& instance) const;

 private:
  std::map<int, ClassInfo> classes_;
};

}  // namespace tarn::refserver
