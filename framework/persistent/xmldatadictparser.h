// Reader of data-dictionary XML files (libxml2 text reader).
//
// Each table element is first read into a tree of tag records (tag name, the
// attributes name, system, reference-table-name and isbidirectional, the
// element's texts, its children), then turned into a table definition that is
// appended to gv_tableDefnVect. A structural error is logged and drops the
// table being read; definitions already added stay.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "framework/persistent/datadict.h"

namespace tarn {

// One element of a table being read.
struct XmlTagInfo {
  std::string tagName;
  // Only the four attributes the dictionary uses, in the order name, system,
  // reference-table-name, isbidirectional.
  std::vector<std::pair<std::string, std::string>> attributes;
  std::vector<std::string> values;
  std::vector<std::unique_ptr<XmlTagInfo>> children;
  // True when the element contained a child element.
  bool hasElementChild() const { return !children.empty(); }
};

// Parses the file and appends one definition per table element. Returns true
// for every non-null path, also when the file cannot be opened or is
// malformed (logged only); false for a null path.
bool LoadDataDictFromXMLFile(const char* filePath);

// Turns a table's tag tree into a definition; null after logging the reason
// when the tree is not a valid table.
std::shared_ptr<const TableDefn> CreateTableDefinitionfromXml(const XmlTagInfo& table);

}  // namespace tarn
