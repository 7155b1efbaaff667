#include "tools/refserver/upload.h"

#include <algorithm>
#include <set>

#include "tools/refserver/json.h"
#include "tools/refserver/xml_util.h"

namespace tarn::refserver {

namespace {

[[noreturn]] void BadRequest(const std::string& reason) { throw UploadError(400, reason); }

bool AllDigits(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A value of a difference as a full inventory carries it. The scanner cleans every value
// it writes into the full document (markup characters escaped, the text ended at its
// first control character), but sends a difference's values raw: "14.4.1" with the line
// end of the tool's output. The escaping is undone by reading the XML; the cut is made
// here, so that both kinds of upload store one value.
std::string AsFullInventoryValue(const std::string& raw) {
  const auto control = std::find_if(raw.begin(), raw.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
  });
  return std::string(raw.begin(), control);
}

// ---- query ---------------------------------------------------------------------------------

class QueryReader {
 public:
  explicit QueryReader(const std::multimap<std::string, std::string>& parameters)
      : parameters_(parameters) {}

  std::optional<std::string> Optional(const std::string& name) const {
    const auto found = parameters_.find(name);
    if (found == parameters_.end()) return std::nullopt;
    return found->second;
  }

  std::string Required(const std::string& name) const {
    auto value = Optional(name);
    if (!value) BadRequest("missing query parameter " + name);
    return *value;
  }

  std::string NonEmpty(const std::string& name) const {
    std::string value = Required(name);
    if (value.empty()) BadRequest("empty query parameter " + name);
    return value;
  }

  std::string Time(const std::string& name) const {
    std::string value = Required(name);
    if (!AllDigits(value)) BadRequest("query parameter " + name + " is not a time: " + value);
    return value;
  }

 private:
  const std::multimap<std::string, std::string>& parameters_;
};

// ---- full inventory --------------------------------------------------------------------------

std::string Where(const xmlNode* node) {
  std::string where = "<";
  where += ElementName(node);
  where += "> on line ";
  where += std::to_string(xmlGetLineNo(node));
  return where;
}

int RowInteger(const xmlNode* row, const char* name) {
  const auto text = Attribute(row, name);
  if (!text) BadRequest(Where(row) + " lacks " + name);
  const auto value = ParseInteger(*text);
  if (!value || *value < 0 || *value > 2'000'000'000) {
    BadRequest(Where(row) + " has a bad " + name + ": \"" + *text + "\"");
  }
  return static_cast<int>(*value);
}

class FullReader {
 public:
  explicit FullReader(const Catalogue& catalogue) : catalogue_(catalogue) {}

  FullUpload Read(const xmlNode* root) {
    if (ElementName(root) != "TarnWMIData") {
      BadRequest("full inventory: root element is <" + ElementName(root) +
                 ">, expected <TarnWMIData>");
    }
    for (const xmlNode* row = root->children; row != nullptr; row = row->next) {
      if (row->type == XML_ELEMENT_NODE) Row(row);
    }
    for (const char* required : {"WMIData", "Resource", "InvAuditEntry"}) {
      if (seen_.count(required) == 0) BadRequest(std::string("full inventory: no <") +
                                                 required + "> row");
    }
    return std::move(upload_);
  }

 private:
  void Row(const xmlNode* row) {
    const std::string name = ElementName(row);
    if (row->children != nullptr && xmlFirstElementChild(const_cast<xmlNode*>(row)) != nullptr) {
      BadRequest(Where(row) + " has child elements; rows are empty elements");
    }
    if (name == "WMIFetchedValue") {
      Value(row);
    } else if (name == "AgentParams") {
      const auto param = Attribute(row, "PARAM_NAME");
      if (!param || param->empty()) BadRequest(Where(row) + " lacks PARAM_NAME");
      upload_.agentParams.emplace_back(*param, Attribute(row, "PARAM_VALUE").value_or(""));
    } else if (name != "WMIData" && name != "Resource" && name != "InvAuditEntry") {
      BadRequest("full inventory: unexpected element " + Where(row));
    }
    seen_.insert(name);
  }

  void Value(const xmlNode* row) {
    const int propertyId = RowInteger(row, "PROPERTY_ID");
    const int classId = RowInteger(row, "CLASS_ID");
    int instance = RowInteger(row, "INSTANCE_ID");
    const ClassInfo* info = catalogue_.FindClass(classId);
    if (info == nullptr) BadRequest(Where(row) + ": class " + std::to_string(classId) +
                                    " is not in the catalogue");
    if (info->FindProperty(propertyId) == nullptr) {
      BadRequest(Where(row) + ": property " + std::to_string(propertyId) + " is not in class " +
                 std::to_string(classId) + " (" + info->name + ")");
    }
    if (classId == kOsClass && propertyId == kOsSoftwareInstanceProperty) instance = 1;
    // A value the writer left out (null) reads as empty text.
    upload_.inventory[classId][instance][propertyId] = Attribute(row, "VALUE").value_or("");
    ++upload_.valueCount;
  }

  const Catalogue& catalogue_;
  FullUpload upload_;
  std::set<std::string> seen_;
};

// ---- difference ------------------------------------------------------------------------------

// The members of an object, in document order (key() and value() of each).
auto ObjectAt(const JsonValue& value, const std::string& where) {
  if (!value.is_object()) BadRequest("difference: " + where + " is " + value.type_name() +
                                     ", expected an object");
  return value.items();
}

const JsonValue& ArrayAt(const JsonValue& value, const std::string& where) {
  if (!value.is_array()) BadRequest("difference: " + where + " is " + value.type_name() +
                                    ", expected an array");
  return value;
}

NameValues StringDictionary(const JsonValue& value, const std::string& where) {
  NameValues entries;
  for (const auto& member : ObjectAt(value, where)) {
    if (!member.value().is_string()) {
      BadRequest("difference: " + where + "." + member.key() + " is " +
                 member.value().type_name() + ", expected a string");
    }
    entries.emplace_back(member.key(), member.value().get<std::string>());
  }
  return entries;
}

Change StatusOf(const std::string& text, const std::string& where) {
  if (text == "0") return Change::kAdded;
  if (text == "1") return Change::kDeleted;
  if (text == "2") return Change::kModified;
  BadRequest("difference: " + where + ": unknown status \"" + text +
             "\" (0 added, 1 deleted, 2 modified)");
}

class DifferenceReader {
 public:
  explicit DifferenceReader(const Catalogue& catalogue) : catalogue_(catalogue) {}

  DifferenceUpload Read(const JsonValue& document) {
    bool haveParams = false;
    for (const auto& member : ObjectAt(document, "the document")) {
      if (member.key() == "AgentParams") {
        upload_.agentParams = StringDictionary(member.value(), member.key());
        haveParams = true;
      } else if (member.key() == "USER") {
        upload_.user = StringDictionary(member.value(), member.key());
      } else {
        Class(member.key(), member.value());
      }
    }
    if (!haveParams) BadRequest("difference: no \"AgentParams\" dictionary");
    return std::move(upload_);
  }

 private:
  void Class(const std::string& key, const JsonValue& statuses) {
    const auto id = AllDigits(key) ? ParseInteger(key) : std::nullopt;
    const ClassInfo* info =
        id && *id <= 1'000'000 ? catalogue_.FindClass(static_cast<int>(*id)) : nullptr;
    if (info == nullptr) {
      BadRequest("difference: \"" + key + "\" is not a class of the catalogue");
    }
    for (const auto& status : ObjectAt(statuses, "class " + key)) {
      const std::string where = "class " + key + " status " + status.key();
      const Change change = StatusOf(status.key(), "class " + key);
      if (info->id != kSoftwareClass) {
        Instances(*info, change, status.value(), where, false);
        continue;
      }
      for (const auto& group : ObjectAt(status.value(), where)) {
        if (group.key() != kOsGroup && group.key() != kApplicationGroup) {
          BadRequest("difference: " + where + ": unknown software group \"" + group.key() + "\"");
        }
        Instances(*info, change, group.value(), where + " group " + group.key(),
                  group.key() == kOsGroup);
      }
    }
  }

  void Instances(const ClassInfo& info, Change change, const JsonValue& list,
                 const std::string& where, bool osGroup) {
    std::size_t index = 0;
    for (const JsonValue& item : ArrayAt(list, where)) {
      const std::string at = where + " item " + std::to_string(index++);
      InstanceChange entry{info.id, change, {}};
      for (const auto& property : ObjectAt(item, at)) {
        const std::string& key = property.key();
        const auto id = AllDigits(key) ? ParseInteger(key) : std::nullopt;
        if (!id || *id > 1'000'000 || info.FindProperty(static_cast<int>(*id)) == nullptr) {
          BadRequest("difference: " + at + ": \"" + key + "\" is not a property of " +
                     info.name);
        }
        if (!property.value().is_string()) {
          BadRequest("difference: " + at + "." + key + " is " + property.value().type_name() +
                     ", expected a string");
        }
        entry.instance[static_cast<int>(*id)] =
            AsFullInventoryValue(property.value().get<std::string>());
      }
      // The scanner blanks the OS marker before sending; the stored row keeps it.
      if (osGroup) entry.instance[kSoftwareGroupProperty] = kOsGroup;
      upload_.changes.push_back(std::move(entry));
    }
  }

  const Catalogue& catalogue_;
  DifferenceUpload upload_;
};

}  // namespace

UploadQuery ReadUploadQuery(const std::multimap<std::string, std::string>& parameters) {
  const QueryReader query(parameters);
  UploadQuery result;
  result.computer = query.NonEmpty("computer");
  result.domain = query.Required("domain");
  result.customerId = query.NonEmpty("customerId");
  result.auditId = query.Required("auditid");
  result.resourceId = query.Optional("resourceid");
  result.remoteOfficeId = query.Required("remoffId");
  const std::string onDemand = query.Required("isOnDemand");
  if (onDemand != "true" && onDemand != "false") {
    BadRequest("query parameter isOnDemand is neither true nor false: " + onDemand);
  }
  result.onDemand = onDemand == "true";
  const std::string scanType = query.Required("scanType");
  if (scanType != "0" && scanType != "1") {
    BadRequest("query parameter scanType is neither 1 (full) nor 0 (difference): " + scanType);
  }
  result.full = scanType == "1";
  const std::string jsonFormat = query.Required("jsonFormat");
  if (jsonFormat != (result.full ? "0" : "1")) {
    BadRequest("query parameter jsonFormat=" + jsonFormat + " does not fit scanType=" + scanType);
  }
  result.currentScanTime = query.Time("currScanTime");
  if (!result.full) result.previousScanTime = query.Time("prevScanTime");
  return result;
}

FullUpload ParseFullUpload(std::string_view body, const Catalogue& catalogue) {
  XmlDocument doc;
  try {
    doc = ParseXml(body);
  } catch (const std::runtime_error& error) {
    BadRequest(std::string("full inventory: ") + error.what());
  }
  return FullReader(catalogue).Read(xmlDocGetRootElement(doc.get()));
}

DifferenceUpload ParseDifferenceUpload(std::string_view body, const Catalogue& catalogue) {
  JsonValue document;
  try {
    document = ParseJson(body);
  } catch (const JsonError& error) {
    BadRequest(std::string("difference: ") + error.what());
  }
  return DifferenceReader(catalogue).Read(document);
}

}  // namespace tarn::refserver
