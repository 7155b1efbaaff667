#include "framework/imds/xmltodo.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <strings.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "framework/imds/dataset.h"
#include "framework/logging/logger.h"
#include "framework/persistent/xmlsafety.h"
#include "framework/utils/agentutils.h"
#include "framework/utils/stringutils.h"
#include "platform/text/utf8.h"
#include "platform/text/xml_markup_bounds.h"

namespace tarn {
namespace {

struct DocDeleter {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};
using DocPtr = std::unique_ptr<xmlDoc, DocDeleter>;

const char* AsChars(const xmlChar* text) { return reinterpret_cast<const char*>(text); }

constexpr std::int32_t kInt32Length = 4;
constexpr std::int32_t kInt64Length = 8;
constexpr std::int32_t kFloatLength = 4;
constexpr std::int32_t kDoubleLength = 8;
constexpr std::int32_t kDateLength = 4;
constexpr std::int32_t kTimeLength = 3;
constexpr std::int32_t kBooleanLength = 1;
// Foreign keys followed at most this far to find the column that owns a generator.
constexpr int kMaxReferenceHops = 16;

enum class Source { kFile, kBuffer };

struct StoredValue {
  ValueSlot value;
  std::int32_t length = 0;
};

// Reads the integers of a pattern such as "d-d-d d:d:d" ("d" an integer with
// optional sign after optional blanks, a blank any run of white space, other
// characters themselves) as sscanf would; fields not read stay 0.
std::vector<int> ScanIntegers(const char* text, std::string_view pattern) {
  std::vector<int> fields;
  const char* p = text;
  const auto skipSpace = [&p] {
    while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r') {
      ++p;
    }
  };
  for (const char expected : pattern) {
    if (expected == ' ') {
      skipSpace();
    } else if (expected == 'd') {
      skipSpace();
      const char* start = p;
      const bool negative = *p == '-';
      if (*p == '+' || *p == '-') {
        ++p;
      }
      if (*p < '0' || *p > '9') {
        p = start;
        break;
      }
      long long value = 0;
      for (; *p >= '0' && *p <= '9'; ++p) {
        value = std::min<long long>(value * 10 + (*p - '0'), LLONG_MAX / 20);
      }
      fields.push_back(static_cast<int>(negative ? -value : value));
    } else if (*p == expected) {
      ++p;
    } else {
      break;
    }
  }
  const auto wanted = static_cast<std::size_t>(std::count(pattern.begin(), pattern.end(), 'd'));
  fields.resize(wanted, 0);
  return fields;
}

AdvDate DateOf(const std::vector<int>& f, std::size_t at) {
  return AdvDate{static_cast<std::uint16_t>(f[at]), static_cast<std::uint8_t>(f[at + 1]),
                 static_cast<std::uint8_t>(f[at + 2])};
}

AdvTime TimeOf(const std::vector<int>& f, std::size_t at) {
  return AdvTime{static_cast<std::uint8_t>(f[at]), static_cast<std::uint8_t>(f[at + 1]),
                 static_cast<std::uint8_t>(f[at + 2])};
}

// The value text converted to the column type's storage form.
StoredValue AllocateAndCopyColumnValue(int type, const char* text) {
  if (text == nullptr) {
    TraceLogMessage("value parameter in AllocateAndCopyColumnValue is NULL \n");
    return {};
  }
  if (IsRowInt32Type(type)) return {OwnedBlock::Of(AlphaToInt(text)), kInt32Length};
  switch (type) {
    case kTypeLongInt:
    case kTypeUnsignedLongInt:
      return {OwnedBlock::Of(AlphaToInt64(text)), kInt64Length};
    case kTypeFloat:
      return {OwnedBlock::Of(static_cast<float>(AlphaToDouble(text))), kFloatLength};
    case kTypeDouble:
      return {OwnedBlock::Of(AlphaToDouble(text)), kDoubleLength};
    case kTypeSqlChar:
    case kTypeChar:
    case kTypeText:
      return {OwnedBlock::Copy(text, std::strlen(text)),
              static_cast<std::int32_t>(std::strlen(text))};
    case kTypeDate:
      return {OwnedBlock::Of(DateOf(ScanIntegers(text, "d-d-d"), 0)), kDateLength};
    case kTypeTime:
      return {OwnedBlock::Of(TimeOf(ScanIntegers(text, "d:d:d"), 0)), kTimeLength};
    case kTypeDateTime: {
      const auto fields = ScanIntegers(text, "d-d-d d:d:d");
      AdvDateTime record;
      record.date = DateOf(fields, 0);
      record.time = TimeOf(fields, 3);
      return {StoreAdvDateTime(record), kDateTimeRecordLength};
    }
    case kTypeBoolean: {
      const std::uint8_t flag = strcasecmp(text, "false") == 0 ? 0 : 1;
      return {OwnedBlock::Of(flag), kBooleanLength};
    }
    default:
      return {};
  }
}

bool IsReferenceTextType(int type) {
  return type == kTypeSqlChar || type == kTypeChar || type == kTypeBlob || type == kTypeText;
}

bool IsDateTimeType(int type) {
  return type == kTypeDate || type == kTypeTime || type == kTypeDateTime;
}

std::string AttributeValue(const xmlDoc* document, const xmlAttr* attribute) {
  const xmlNode* children = attribute->children;
  if (children == nullptr) {
    return {};
  }
  if (children->type == XML_TEXT_NODE && children->next == nullptr) {
    return children->content == nullptr ? std::string() : AsChars(children->content);
  }
  XmlText joined(xmlNodeListGetString(const_cast<xmlDoc*>(document), children, 1));
  return joined ? std::string(AsChars(joined.get())) : std::string();
}

// The value of the element's first attribute named name ignoring letter case.
std::optional<std::string> FindAttribute(const xmlDoc* document, const xmlNode* element,
                                         const std::string& name) {
  for (const xmlAttr* attribute = element->properties; attribute != nullptr;
       attribute = attribute->next) {
    if (strcasecmp(AsChars(attribute->name), name.c_str()) == 0) {
      return AttributeValue(document, attribute);
    }
  }
  return std::nullopt;
}

const FKeyDefn* ForeignKeyOf(const TableDefn& definition, std::string_view column) {
  if (!definition.constraints()) {
    return nullptr;
  }
  for (const auto& foreignKey : definition.constraints()->foreignKeys) {
    if (EqualsIgnoringCase(foreignKey.localColumn, column)) {
      return &foreignKey;
    }
  }
  return nullptr;
}

bool IsPrimaryKeyColumn(const TableDefn& definition, std::string_view column) {
  if (!definition.constraints()) {
    return false;
  }
  for (const auto& key : definition.constraints()->primaryKeyColumns) {
    if (EqualsIgnoringCase(key, column)) {
      return true;
    }
  }
  return false;
}

// Reads the elements of one document into the tables; holds the identifier
// map of this import.
class DoImporter {
 public:
  // With rules, only their row tables take rows; every other element must be a grouping
  // element or, when the rules allow it, a row of another known table, which is skipped.
  explicit DoImporter(const xmlDoc* document, const UntrustedXmlRules* rules = nullptr)
      : document_(document), rules_(rules) {}

  // Processes the element children of parent in document order. False when
  // one of them (or a descendant) could not be read.
  bool ImportChildren(const xmlNode* parent) {
    for (const xmlNode* child = parent->children; child != nullptr; child = child->next) {
      if (child->type == XML_ELEMENT_NODE && !ImportElement(child)) {
        return false;
      }
    }
    return true;
  }

 private:
  bool ImportElement(const xmlNode* element) {
    const char* name = AsChars(element->name);
    if (rules_ != nullptr && !IsAllowedRowTable(name)) {
      if (IsGroupingElement(name)) {
        return ImportChildren(element);
      }
      if (rules_->skipOtherKnownTables && IsKnownTable(name)) {
        if (skippedTables_.insert(name).second) {
          ErrorLogMessage("Rows of table %s are ignored in this document.\n", name);
        }
        return true;
      }
      ErrorLogMessage("Element %s is not accepted in this document.\n", name);
      return false;
    }
    TableData* table = GetTableDataByName(name);
    if (table == nullptr) {
      CreateTable(name);
      table = GetTableDataByName(name);
    }
    if (table == nullptr) {
      if (FindSubString(name, "List")) {
        return ImportChildren(element);
      }
      ErrorLogMessage(
          "Cannot create and add a new row while constructing tabledata from XML file.\n");
      return false;
    }
    if (!AddRowFromElement(*table, name, element)) {
      ErrorLogMessage(
          "Cannot create and add a new row while constructing tabledata from XML file.\n");
      return false;
    }
    return ImportChildren(element);
  }

  bool AddRowFromElement(const TableData& table, const char* name, const xmlNode* element) {
    const TableDefn& definition = *table.tableDefn;
    const auto& columns = definition.columns();
    std::vector<ValueSlot> values(columns.size());
    std::vector<std::int32_t> lengths(columns.size(), 0);
    for (std::size_t i = 0; i < columns.size(); ++i) {
      StoredValue stored;
      bool present = false;
      if (const auto text = FindAttribute(document_, element, columns[i].name)) {
        present = AssignValue(definition, columns[i], *text, stored);
      }
      if (!present) {
        InheritValue(definition, columns[i], element, stored);
      }
      values[i] = std::move(stored.value);
      lengths[i] = stored.length;
    }
    return AddNewRow(name, CreateNewRowObject(std::move(values), std::move(lengths))) == 1;
  }

  // A column without attribute: the default, overridden by the value an
  // enclosing element carries for the referenced column (foreign key) or for
  // the same column (primary key).
  void InheritValue(const TableDefn& definition, const ColumnDefn& column, const xmlNode* element,
                    StoredValue& stored) {
    if (column.defaultValue) {
      stored = {*column.defaultValue, column.defaultLength};
    }
    std::optional<std::string> inherited;
    if (const FKeyDefn* foreignKey = ForeignKeyOf(definition, column.name)) {
      inherited = AncestorAttribute(element, foreignKey->referenceColumn);
    }
    if (!inherited && IsPrimaryKeyColumn(definition, column.name)) {
      inherited = AncestorAttribute(element, column.name);
    }
    if (inherited) {
      StoredValue fromAncestor;
      if (AssignValue(definition, column, *inherited, fromAncestor)) {
        stored = std::move(fromAncestor);
      }
    }
  }

  std::optional<std::string> AncestorAttribute(const xmlNode* element, const std::string& name) {
    for (const xmlNode* ancestor = element->parent;
         ancestor != nullptr && ancestor->type == XML_ELEMENT_NODE; ancestor = ancestor->parent) {
      if (auto value = FindAttribute(document_, ancestor, name)) {
        return value;
      }
    }
    return std::nullopt;
  }

  // Converts a value text for the column. False when the column is to be
  // treated as missing (a reference whose column cannot be found).
  bool AssignValue(const TableDefn& definition, const ColumnDefn& column, const std::string& text,
                   StoredValue& stored) {
    const int colons = static_cast<int>(std::count(text.begin(), text.end(), ':'));
    if (colons < 2 || IsDateTimeType(column.type)) {
      stored = AllocateAndCopyColumnValue(column.type, text.c_str());
      return true;
    }
    const std::size_t first = text.find(':');
    const std::size_t second = text.find(':', first + 1);
    const std::string afterSecond = text.substr(second + 1);
    if (IsReferenceTextType(column.type)) {
      stored = {OwnedBlock::Copy(afterSecond.data(), afterSecond.size()),
                static_cast<std::int32_t>(afterSecond.size())};
      return true;
    }
    const std::string thirdPart = afterSecond.substr(0, afterSecond.find(':'));
    if (EqualsIgnoringCase(definition.name(), "Workflow_Statements") &&
        column.name == "NEXT_STATEMENT_ID" && thirdPart == "0") {
      stored = AllocateAndCopyColumnValue(column.type, "0");
      return true;
    }
    const auto identifier = ResolveReference(text, text.substr(0, first),
                                             text.substr(first + 1, second - first - 1), thirdPart);
    if (!identifier) {
      return false;
    }
    stored = AllocateAndCopyColumnValue(column.type, std::to_string(*identifier).c_str());
    return true;
  }

  // The identifier of a reference: the one recorded for the same text in this
  // import, else a new one from the generator owning the referenced column
  // (following foreign keys), else the value as written.
  std::optional<std::int32_t> ResolveReference(const std::string& key, const std::string& table,
                                               const std::string& column,
                                               const std::string& value) {
    if (const auto known = identifiers_.find(key); known != identifiers_.end()) {
      return known->second;
    }
    const auto generator = OwningGenerator(table, column);
    if (!generator) {
      ErrorLogMessage("Unable to get Column details for AutoID generation \n");
      return std::nullopt;
    }
    std::optional<std::int32_t> identifier;
    if (!generator->empty()) {
      identifier = GenerateNextId(*generator);
    }
    if (!identifier) {
      identifier = AlphaToInt(value.c_str());
    }
    identifiers_.emplace(key, *identifier);
    return identifier;
  }

  // The generator name of the column that owns table.column's values: an
  // empty name when no column on the way has a generator; nullopt when the
  // table or column is unknown.
  static std::optional<std::string> OwningGenerator(std::string table, std::string column) {
    if (table.empty() || column.empty()) {
      return std::nullopt;
    }
    for (int hop = 0; hop < kMaxReferenceHops; ++hop) {
      const auto definition = GetTableDefnVector().Find(table);
      if (!definition) {
        return std::nullopt;
      }
      const int position = definition->FindColumnIgnoringCase(column);
      if (position < 0) {
        return std::nullopt;
      }
      const ColumnDefn& found = definition->columns()[static_cast<std::size_t>(position)];
      if (found.generatorName) {
        return *found.generatorName;
      }
      const FKeyDefn* foreignKey = ForeignKeyOf(*definition, found.name);
      if (foreignKey == nullptr) {
        break;
      }
      table = foreignKey->referenceTable;
      column = foreignKey->referenceColumn;
    }
    return std::string();
  }

  bool IsAllowedRowTable(const char* name) const {
    const std::vector<std::string>& tables = rules_->rowTables;
    return std::any_of(tables.begin(), tables.end(), [name](const std::string& table) {
      return EqualsIgnoringCase(table, name);
    });
  }

  static bool IsKnownTable(const char* name) {
    return GetTableDefnVector().Find(name) || GetTableDataByName(name) != nullptr;
  }

  static bool IsGroupingElement(const char* name) {
    return FindSubString(name, "List") && !IsKnownTable(name);
  }

  const xmlDoc* document_;
  const UntrustedXmlRules* rules_;
  // Tables whose rows were skipped, each logged once.
  std::set<std::string> skippedTables_;
  // Reference text to its identifier; an import can hold many thousands of references.
  std::unordered_map<std::string, std::int32_t> identifiers_;
};

int ImportDocument(DocPtr document, Source source,
                   const UntrustedXmlRules* rules = nullptr) {
  const xmlNode* root = document ? xmlDocGetRootElement(document.get()) : nullptr;
  if (root == nullptr || HasUnsafeDoctype(document.get())) {
    ErrorLogMessage("error: could not parse file file.xml\n");
    return 0;
  }
  bool imported = false;
  try {
    imported = DoImporter(document.get(), rules).ImportChildren(root);
  } catch (const std::bad_alloc&) {
    ErrorLogMessage(
        "Cannot create and add a new row while constructing tabledata from XML file.\n");
  }
  if (!imported) {
    ErrorLogMessage(source == Source::kFile ? "Cannot construct table data from XML file.\n"
                                            : "Cannot construct table data from XML buffer.\n");
    return 0;
  }
  return 1;
}

// Why an untrusted document is refused before parsing; nothing when it may be parsed.
const char* UntrustedRefusal(std::string_view text, const UntrustedXmlRules& rules) {
  if (text.size() > rules.maxBytes) return "it is too long";
  if (!IsValidUtf8(text)) return "it is not UTF-8 text";
  if (HasMarkupDeclaration(text)) return "it has a document type declaration";
  const XmlMarkupCounts counts = CountXmlMarkup(text);
  if (counts.mostAttributes > rules.maxAttributesPerElement) {
    return "an element has too many attributes";
  }
  if (counts.namespaceDeclarations > rules.maxNamespaceDeclarations) {
    return "it declares too many namespaces";
  }
  return nullptr;
}

}  // namespace

int CreateDOFromXMLFile(const char* filePath) {
  if (filePath == nullptr) {
    ErrorLogMessage("error: could not parse file file.xml\n");
    return 0;
  }
  return ImportDocument(DocPtr(xmlReadFile(filePath, nullptr, kSafeXmlParseOptions)),
                        Source::kFile);
}

int CreateDOFromXMLBuffer(const char* buffer, std::size_t length) {
  if (buffer == nullptr || length > static_cast<std::size_t>(INT_MAX)) {
    ErrorLogMessage("error: could not parse file file.xml\n");
    return 0;
  }
  return ImportDocument(DocPtr(xmlReadMemory(buffer, static_cast<int>(length), nullptr, nullptr,
                                             kSafeXmlParseOptions)),
                        Source::kBuffer);
}

int CreateDOFromUntrustedXMLBuffer(const char* buffer, std::size_t length,
                                   const UntrustedXmlRules& rules) {
  if (buffer == nullptr || length > static_cast<std::size_t>(INT_MAX)) {
    ErrorLogMessage("error: could not parse file file.xml\n");
    return 0;
  }
  if (const char* refusal = UntrustedRefusal(std::string_view(buffer, length), rules)) {
    ErrorLogMessage("Document refused before parsing: %s.\n", refusal);
    return 0;
  }
  return ImportDocument(DocPtr(xmlReadMemory(buffer, static_cast<int>(length), nullptr, "UTF-8",
                                             kSafeXmlParseOptions)),
                        Source::kBuffer, &rules);
}

}  // namespace tarn
