#include "tools/refserver/catalogue.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "tools/refserver/xml_util.h"

namespace tarn::refserver {

namespace {

int RequiredInteger(const xmlNode* node, const char* name) {
  const auto text = Attribute(node, name);
  const auto value = text ? ParseInteger(*text) : std::nullopt;
  if (!value || *value <= 0 || *value > 1'000'000) {
    throw CatalogueError("catalogue: " + ElementName(node) + " element on line " +
                         std::to_string(xmlGetLineNo(node)) + " lacks a valid " + name);
  }
  return static_cast<int>(*value);
}

// Reads the catalogue's elements depth first; a WMIClassProps row takes its class
// from its own class_id or from the enclosing WMIClass element.
class Reader {
 public:
  std::map<int, ClassInfo> classes;

  void Walk(const xmlNode* node, int enclosingClass) {
    for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
      if (child->type != XML_ELEMENT_NODE) continue;
      const std::string name = ElementName(child);
      int classId = enclosingClass;
      if (name == "WMIClass") {
        classId = RequiredInteger(child, "class_id");
        ClassInfo& info = classes[classId];
        info.id = classId;
        info.name = Attribute(child, "CLASS_NAME").value_or("Class " + std::to_string(classId));
      } else if (name == "WMIClassProps") {
        AddProperty(child, enclosingClass);
      }
      Walk(child, classId);
    }
  }

 private:
  void AddProperty(const xmlNode* node, int enclosingClass) {
    const int classId =
        Attribute(node, "class_id") ? RequiredInteger(node, "class_id") : enclosingClass;
    if (classId == 0) {
      throw CatalogueError("catalogue: WMIClassProps on line " +
                           std::to_string(xmlGetLineNo(node)) + " belongs to no class");
    }
    PropertyInfo property;
    property.id = RequiredInteger(node, "PROPERTY_ID");
    property.name = Attribute(node, "PROPERTY_NAME").value_or(std::to_string(property.id));
    property.primaryKey = Attribute(node, "primary_key").value_or("0") == "1";
    ClassInfo& info = classes[classId];
    info.id = classId;
    info.properties.push_back(std::move(property));
  }
};

}  // namespace

const PropertyInfo* ClassInfo::FindProperty(int propertyId) const {
  const auto found = std::lower_bound(
      properties.begin(), properties.end(), propertyId,
      [](const PropertyInfo& property, int wanted) { return property.id < wanted; });
  return found != properties.end() && found->id == propertyId ? &*found : nullptr;
}

Catalogue Catalogue::Load(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw CatalogueError("cannot read the class catalogue " + path);
  std::ostringstream text;
  text << file.rdbuf();
  try {
    return Parse(text.str());
  } catch (const CatalogueError& error) {
    throw CatalogueError(path + ": " + error.what());
  }
}

Catalogue Catalogue::Parse(const std::string& document) {
  XmlDocument doc;
  try {
    doc = ParseXml(document);
  } catch (const std::runtime_error& error) {
    throw CatalogueError(std::string("catalogue: ") + error.what());
  }
  Reader reader;
  reader.Walk(xmlDocGetRootElement(doc.get()), 0);
  if (reader.classes.empty()) throw CatalogueError("catalogue: no WMIClass element");
  Catalogue catalogue;
  for (auto& [id, info] : reader.classes) {
    std::sort(info.properties.begin(), info.properties.end(),
              [](const PropertyInfo& a, const PropertyInfo& b) { return a.id < b.id; });
    for (const PropertyInfo& property : info.properties) {
      if (property.primaryKey) info.primaryKeys.push_back(property.id);
    }
  }
  catalogue.classes_ = std::move(reader.classes);
  return catalogue;
}

const ClassInfo* Catalogue::FindClass(int classId) const {
  const auto found = classes_.find(classId);
  return found != classes_.end() ? &found->second : nullptr;
}

std::string Catalogue::ClassName(int classId) const {
  const ClassInfo* info = FindClass(classId);
  return info != nullptr ? info->name : "Class " + std::to_string(classId);
}

std::string Catalogue::PropertyName(int classId, int propertyId) const {
  const ClassInfo* info = FindClass(classId);
  const PropertyInfo* property = info != nullptr ? info->FindProperty(propertyId) : nullptr;
  return property != nullptr ? property->name : std::to_string(propertyId);
}

std::string Catalogue::InstanceKey(int classId, const Instance& instance) const {
  const ClassInfo* info = FindClass(classId);
  if (info == nullptr) return {};
  std::string key;
  for (const int propertyId : info->primaryKeys) {
    const auto value = instance.find(propertyId);
    if (value != instance.end()) key += value->second;
  }
  return key;
}

}  // namespace tarn::refserver
