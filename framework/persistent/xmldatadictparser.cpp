#include "framework/persistent/xmldatadictparser.h"

#include <libxml/xmlreader.h>
#include <strings.h>

#include <array>
#include <climits>
#include <cstring>
#include <new>
#include <string_view>

#include "framework/logging/logger.h"
#include "framework/persistent/xmlsafety.h"

namespace tarn {
namespace {

struct ReaderDeleter {
  void operator()(xmlTextReader* reader) const { xmlFreeTextReader(reader); }
};
using ReaderPtr = std::unique_ptr<xmlTextReader, ReaderDeleter>;


const char* AsChars(const xmlChar* text) { return reinterpret_cast<const char*>(text); }
const xmlChar* AsXml(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

// The attributes the dictionary reads, in reading order.
constexpr std::array<const char*, 4> kReadAttributes = {"name", "system", "reference-table-name",
                                                        "isbidirectional"};

// Thrown inside the table builder to drop the table after its message was logged.
struct TableDropped {};

void Drop(const char* message) {
  ErrorLogText(message);
  throw TableDropped{};
}

void ReadAttributes(xmlTextReader* reader, XmlTagInfo& tag) {
  const int count = xmlTextReaderAttributeCount(reader);
  if (count <= 0) {
    return;
  }
  for (const char* name : kReadAttributes) {
    XmlText value(xmlTextReaderGetAttribute(reader, AsXml(name)));
    if (value) {
      tag.attributes.emplace_back(name, AsChars(value.get()));
    }
  }
  if (static_cast<std::size_t>(count) > tag.attributes.size()) {
    ErrorLogMessage("\n Not all Attributes were read\n");
  }
}

std::string CurrentName(xmlTextReader* reader) {
  const xmlChar* name = xmlTextReaderConstName(reader);
  return name == nullptr ? std::string() : std::string(AsChars(name));
}

// Reads the element the reader stands on, with its whole subtree. Null after
// logging when the reader fails before the element's end.
std::unique_ptr<XmlTagInfo> ReadElement(xmlTextReader* reader) {
  auto tag = std::make_unique<XmlTagInfo>();
  tag->tagName = CurrentName(reader);
  ReadAttributes(reader, *tag);
  if (xmlTextReaderIsEmptyElement(reader) == 1) {
    return tag;
  }
  const int depth = xmlTextReaderDepth(reader);
  while (xmlTextReaderRead(reader) == 1) {
    switch (xmlTextReaderNodeType(reader)) {
      case XML_READER_TYPE_ELEMENT: {
        auto child = ReadElement(reader);
        if (!child) {
          return nullptr;
        }
        tag->children.push_back(std::move(child));
        break;
      }
      case XML_READER_TYPE_TEXT:
      case XML_READER_TYPE_CDATA: {
        const xmlChar* value = xmlTextReaderConstValue(reader);
        tag->values.emplace_back(value == nullptr ? "" : AsChars(value));
        break;
      }
      case XML_READER_TYPE_END_ELEMENT:
        if (xmlTextReaderDepth(reader) == depth) {
          return tag;
        }
        break;
      default:
        break;
    }
  }
  ErrorLogMessage("\nxmlTextReaderRead returned error \n");
  return nullptr;
}

const std::string* Attribute(const XmlTagInfo& tag, std::string_view name) {
  for (const auto& [attributeName, value] : tag.attributes) {
    if (attributeName == name) {
      return &value;
    }
  }
  return nullptr;
}

const std::string* FirstAttributeValue(const XmlTagInfo& tag) {
  return tag.attributes.empty() ? nullptr : &tag.attributes.front().second;
}

const std::string* Text(const XmlTagInfo& tag) {
  return tag.values.empty() ? nullptr : &tag.values.front();
}

std::string TextOrEmpty(const XmlTagInfo& tag) {
  const std::string* text = Text(tag);
  return text == nullptr ? std::string() : *text;
}

const XmlTagInfo* Child(const XmlTagInfo& tag, std::string_view name) {
  for (const auto& child : tag.children) {
    if (child->tagName == name) {
      return child.get();
    }
  }
  return nullptr;
}

// The text of an element that must hold text only; dropMessage when it holds elements.
std::string LeafText(const XmlTagInfo& tag, const char* dropMessage) {
  if (tag.hasElementChild()) {
    Drop(dropMessage);
  }
  return TextOrEmpty(tag);
}

// Leading decimal number after optional blanks and sign, clamped to 32 bits; 0 without digits.
std::int32_t AlphabeticToNumeric(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n')) {
    ++i;
  }
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  long long value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = std::min<long long>(value * 10 + (text[i] - '0'), static_cast<long long>(INT_MAX) + 1);
  }
  value = negative ? -value : std::min<long long>(value, INT_MAX);
  return static_cast<std::int32_t>(value);
}

std::optional<AllowedValues> ParseAllowedValues(const XmlTagInfo& tag) {
  AllowedValues allowed;
  const auto& children = tag.children;
  for (std::size_t i = 0; i < children.size(); ++i) {
    const XmlTagInfo& child = *children[i];
    if (child.tagName == "from") {
      if (i + 1 >= children.size() || children[i + 1]->tagName != "to") {
        Drop("In the allowed values attribute, 'to' tag is missing.\n");
      }
      allowed.kind = kAllowedValuesRange;
      allowed.values = {LeafText(child, "\nNo Ending FROM tag \n"),
                        LeafText(*children[i + 1], "\nNo ending TO tag \n")};
      return allowed;
    }
    if (child.tagName == "value") {
      allowed.values.push_back(LeafText(child, "\n No ending Value tag\n"));
    }
  }
  if (allowed.values.empty()) {
    return std::nullopt;
  }
  return allowed;
}

ColumnDefn ParseColumnNode(const XmlTagInfo& tag, const std::string& tableName) {
  const std::string* name = FirstAttributeValue(tag);
  if (name == nullptr) {
    ErrorLogMessage("Column without name in table %s\n", tableName.c_str());
    throw TableDropped{};
  }
  const std::string* dataType = nullptr;
  const std::string* defaultText = nullptr;
  bool nullable = true;
  bool unique = false;
  std::int32_t maxSize = 0;
  std::optional<std::string> description;
  std::optional<std::string> generator;
  std::optional<AllowedValues> allowed;
  for (const auto& child : tag.children) {
    const std::string& field = child->tagName;
    if (field == "data-type") {
      dataType = Text(*child);
    } else if (field == "nullable") {
      nullable = strcasecmp(TextOrEmpty(*child).c_str(), "true") == 0;
    } else if (field == "max-size") {
      maxSize = AlphabeticToNumeric(TextOrEmpty(*child));
    } else if (field == "description") {
      description = TextOrEmpty(*child);
    } else if (field == "default-value") {
      defaultText = Text(*child);
    } else if (field == "unique") {
      unique = TextOrEmpty(*child) == "true";
    } else if (field == "uniquevalue-generation") {
      if (const XmlTagInfo* generatorTag = Child(*child, "generator-name")) {
        generator = TextOrEmpty(*generatorTag);
      }
    } else if (field == "allowed-values") {
      allowed = ParseAllowedValues(*child);
    }
  }
  const int type = GetGenDataTypeMacro(dataType == nullptr ? nullptr : dataType->c_str());
  return CreateColumnDefn(*name, type, defaultText == nullptr ? nullptr : defaultText->c_str(),
                          unique, std::move(generator), std::move(description), maxSize, nullable,
                          std::move(allowed));
}

std::vector<std::string> ParsePrimaryKey(const XmlTagInfo& tag) {
  std::vector<std::string> columns;
  for (const auto& child : tag.children) {
    if (child->tagName == "primary-key-column") {
      columns.push_back(LeafText(*child, "\nMissing primary-key-column end tag\n"));
    }
  }
  return columns;
}

FKeyDefn CreateFkeyConstrDefn(const XmlTagInfo& fkColumn, const std::string& referenceTable,
                              bool cascade, bool bidirectional) {
  const XmlTagInfo* local = Child(fkColumn, "fk-local-column");
  if (local == nullptr) {
    Drop("\n Missing endof FK-LOCAL-COLUMN tag\n");
  }
  const XmlTagInfo* reference = Child(fkColumn, "fk-reference-column");
  if (reference == nullptr) {
    Drop("\nMissing endof FK-REFERENCE-COLUMN\n");
  }
  FKeyDefn foreignKey;
  foreignKey.localColumn = LeafText(*local, "\n Missing endof FK-LOCAL-COLUMN tag\n");
  foreignKey.referenceColumn = LeafText(*reference, "\nMissing endof FK-REFERENCE-COLUMN\n");
  foreignKey.referenceTable = referenceTable;
  foreignKey.onDeleteCascade = cascade;
  foreignKey.bidirectional = bidirectional;
  return foreignKey;
}

void ParseForeignKey(const XmlTagInfo& tag, std::vector<FKeyDefn>& foreignKeys) {
  const std::string* referenceTable = Attribute(tag, "reference-table-name");
  const std::string* bidirectional = Attribute(tag, "isbidirectional");
  const bool isBidirectional = bidirectional != nullptr && *bidirectional == "true";
  bool cascade = false;
  if (const XmlTagInfo* constraints = Child(tag, "fk-constraints")) {
    cascade = LeafText(*constraints, "\nMissing endof FK-CONSTRAINTS tag\n") == "ON-DELETE-CASCADE";
  }
  const XmlTagInfo* fkColumns = Child(tag, "fk-columns");
  if (fkColumns == nullptr) {
    DebugLogMessage("fk-columns tag not found \n");
    return;
  }
  for (const auto& fkColumn : fkColumns->children) {
    if (fkColumn->tagName != "fk-column") {
      Drop("\nMissing end FK-COLUMNS\n");
    }
    foreignKeys.push_back(
        CreateFkeyConstrDefn(*fkColumn, referenceTable == nullptr ? std::string() : *referenceTable,
                             cascade, isBidirectional));
  }
}

std::optional<std::string> ParseTableDescription(const XmlTagInfo& table) {
  std::optional<std::string> description;
  for (std::size_t i = 0; i < table.children.size(); ++i) {
    const XmlTagInfo& child = *table.children[i];
    if (child.tagName != "description") {
      continue;
    }
    if (i != 0 || description) {
      Drop("\nDescription tag ambiguity \n");
    }
    description = LeafText(child, "\nNo Description end tag\n");
  }
  return description;
}

std::shared_ptr<const TableDefn> BuildTableDefinition(const XmlTagInfo& table) {
  const std::string* name = FirstAttributeValue(table);
  if (table.tagName != "table" || name == nullptr) {
    Drop("\nTABLE tag missing\n");
  }
  auto description = ParseTableDescription(table);
  std::vector<ColumnDefn> columns;
  ConstraintDefn constraints;
  for (const auto& child : table.children) {
    if (child->tagName == "columns") {
      for (const auto& column : child->children) {
        if (column->tagName == "column") {
          columns.push_back(ParseColumnNode(*column, *name));
        }
      }
    } else if (child->tagName == "primary-key") {
      for (auto& key : ParsePrimaryKey(*child)) {
        constraints.primaryKeyColumns.push_back(std::move(key));
      }
    } else if (child->tagName == "foreign-keys") {
      for (const auto& foreignKey : child->children) {
        if (foreignKey->tagName == "foreign-key") {
          ParseForeignKey(*foreignKey, constraints.foreignKeys);
        }
      }
    }
  }
  std::optional<ConstraintDefn> constraintDefn;
  if (!constraints.primaryKeyColumns.empty() || !constraints.foreignKeys.empty()) {
    constraintDefn = std::move(constraints);
  }
  return std::make_shared<const TableDefn>(*name, std::move(description), std::move(columns),
                                           std::move(constraintDefn));
}

struct DocDeleter {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};
// Asking the reader for its document makes the caller its owner.
using OwnedDoc = std::unique_ptr<xmlDoc, DocDeleter>;

// Parses one table element into a definition and appends it. False when the
// reader failed inside the table.
bool ParserTableNode(xmlTextReader* reader) {
  std::unique_ptr<XmlTagInfo> xmlTagInfoHeader = ReadElement(reader);
  if (!xmlTagInfoHeader) {
    return false;
  }
  const std::string* name = FirstAttributeValue(*xmlTagInfoHeader);
  TraceLogMessage("@@@@Parsing Table Info : %s @@@@\n", name == nullptr ? "" : name->c_str());
  if (auto definition = CreateTableDefinitionfromXml(*xmlTagInfoHeader)) {
    AddTableDefnIntoVector(std::move(definition));
    TraceLogMessage("\t@@@@ Loaded Table definition Successfully @@@@\n");
  }
  return true;
}

void ParserDataDictXML(const char* filePath) {
  OwnedDoc document;  // destroyed after the reader
  ReaderPtr reader(xmlReaderForFile(filePath, nullptr, kSafeXmlParseOptions));
  if (!reader) {
    ErrorLogMessage("Unable to open %s\n", filePath);
    return;
  }
  bool rootSeen = false;
  bool failed = false;
  int status = 0;
  while (!failed && (status = xmlTextReaderRead(reader.get())) == 1) {
    if (xmlTextReaderNodeType(reader.get()) != XML_READER_TYPE_ELEMENT) {
      continue;
    }
    if (!rootSeen) {
      rootSeen = true;
      // The root's start tag follows the whole DOCTYPE, so its declarations are known here.
      document.reset(xmlTextReaderCurrentDoc(reader.get()));
      failed = HasUnsafeDoctype(document.get());
      continue;
    }
    const std::string name = CurrentName(reader.get());
    if (name == "description") {
      failed = ReadElement(reader.get()) == nullptr;
    } else if (name == "table") {
      failed = !ParserTableNode(reader.get());
    }
  }
  if (failed || status < 0) {
    ErrorLogMessage("%s : failed to parse\n", filePath);
  }
}

}  // namespace

std::shared_ptr<const TableDefn> CreateTableDefinitionfromXml(const XmlTagInfo& table) {
  try {
    return BuildTableDefinition(table);
  } catch (const TableDropped&) {
    return nullptr;
  } catch (const std::bad_alloc&) {
    ErrorLogMessage("MEMORY_ALLOCATION_FAILURE\n");
    return nullptr;
  }
}

bool LoadDataDictFromXMLFile(const char* filePath) {
  if (filePath == nullptr) {
    return false;
  }
  try {
    ParserDataDictXML(filePath);
  } catch (const std::bad_alloc&) {
    ErrorLogMessage("MEMORY_ALLOCATION_FAILURE\n");
  }
  return true;
}

}  // namespace tarn
