// Helpers of the reference server's tests: a temporary folder, the shipped catalogue,
// a server on a loopback port with its own database, upload documents written by
// hand, and a reader of the server's computer JSON.
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>
#include <stdlib.h>

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tools/refserver/catalogue.h"
#include "tools/refserver/json.h"
#include "tools/refserver/server.h"
#include "tools/refserver/store.h"

namespace tarn::refserver::testing {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tarn-ref-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline const Catalogue& ShippedCatalogue() {
  static const Catalogue catalogue =
      Catalogue::Load(std::string(TARN_SOURCE_DIR) + "/data/Mac_InvClasses.xml");
  return catalogue;
}

// A server on 127.0.0.1 (free port) serving from a thread, with its database in the
// given file; HTTPS when a certificate and key are given. Access-log lines are kept.
class RunningServer {
 public:
  explicit RunningServer(const std::filesystem::path& database,
                         const std::filesystem::path& certificate = {},
                         const std::filesystem::path& key = {})
      : store_(database.string()),
        server_(
            store_, ShippedCatalogue(),
            [this](const std::string& line) {
              std::lock_guard lock(mutex_);
              log_.push_back(line);
            },
            certificate.string(), key.string()) {
    port_ = server_.Bind("127.0.0.1", 0);
    thread_ = std::thread([this] { server_.Serve(); });
  }
  ~RunningServer() {
    server_.Stop();
    thread_.join();
  }
  RunningServer(const RunningServer&) = delete;
  RunningServer& operator=(const RunningServer&) = delete;

  int port() const { return port_; }
  std::string url() const {
    return (server_.secure() ? "https" : "http") + std::string("://127.0.0.1:") +
           std::to_string(port_);
  }
  // A client of this server; over HTTPS it accepts the server's certificate.
  std::unique_ptr<httplib::Client> Client() const {
    auto client = std::make_unique<httplib::Client>(url());
    client->enable_server_certificate_verification(false);
    client->set_read_timeout(60, 0);
    return client;
  }
  std::vector<std::string> Log() const {
    std::lock_guard lock(mutex_);
    return log_;
  }

 private:
  Store store_;
  RefServer server_;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::vector<std::string> log_;
};

// The upload query as the scanner writes it.
inline std::string UploadPath(const std::string& computer, bool full,
                              const std::string& domain = "macosgroup") {
  return "//inventory?computer=" + computer + "&domain=" + domain +
         "&customerId=1&auditid=12345&resourceid=7&remoffId=301&isOnDemand=false" +
         (full ? "&scanType=1&jsonFormat=0&currScanTime=1700000000"
               : "&scanType=0&prevScanTime=1700000000&jsonFormat=1&currScanTime=1700000100");
}

struct Row {
  int classId;
  int instance;
  int propertyId;
  std::string value;  // written as is: escape it yourself
};

// A full inventory document as the scanner writes it.
inline std::string FullDocument(const std::vector<Row>& rows, const std::string& computer = "mac") {
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<TarnWMIData>\n"
                    "<WMIData OWNER_SID=\"S-1-1-0\" DATA_STATUS=\"0\" CLASS_FILTER=\"0\" "
                    "COMPUTER_NAME=\"" + computer + "\" NAME_SPACE=\"macosgroup\" IS_LOCAL=\"0\" />\n";
  int valueId = 0;
  for (const Row& row : rows) {
    xml += "<WMIFetchedValue VALUE_ID=\"" + std::to_string(++valueId) + "\" PROPERTY_ID=\"" +
           std::to_string(row.propertyId) + "\" CLASS_ID=\"" + std::to_string(row.classId) +
           "\" INSTANCE_ID=\"" + std::to_string(row.instance) + "\" VALUE=\"" + row.value +
           "\" FLAG=\"0\" />\n";
  }
  xml += "<AgentParams PARAM_TYPE=\"1\" PARAM_NAME=\"COMPUTER_NAME\" PARAM_VALUE=\"" + computer +
         "\" />\n<AgentParams PARAM_TYPE=\"1\" PARAM_NAME=\"scanType\" PARAM_VALUE=\"1\" />\n"
         "<Resource RESOURCE_ID=\"7\" NAME=\"" + computer + "\" DOMAIN_NETBIOS_NAME=\"macosgroup\" "
         "RESOURCE_TYPE=\"1\" IS_INACTIVE=\"0\" AGENT_STATUS=\"0\" ERROR_CODE=\"0\" "
         "CUSTOMER_ID=\"1\" />\n<InvAuditEntry AUDIT_ID=\"12345\" RESOURCE_ID=\"0\" "
         "START_TIME=\"0\" END_TIME=\"0\" AUDIT_STATUS=\"0\" REMARKS=\"0\" />\n</TarnWMIData>\n";
  return xml;
}

// A difference document: the given class entries (JSON members, without braces) plus
// the USER and AgentParams dictionaries.
inline std::string DifferenceDocument(const std::string& classes) {
  return "{\n" + classes + (classes.empty() ? "" : ",\n") +
         "  \"AgentParams\": {\"COMPUTER_NAME\": \"mac\", \"scanType\": \"0\"},\n"
         "  \"USER\": {\"USER_NAME\": \"mac\", \"USID\": \"S-1-1-0\"}\n}";
}

// One class's instances as the server's computer JSON gives them: a sorted list of
// property-id-to-value maps (instance numbers left out, so that two inventories
// built in different ways compare as sets).
using InstanceSet = std::multiset<std::map<std::string, std::string>>;
using InventorySets = std::map<int, InstanceSet>;

inline InventorySets InventoryOf(const JsonValue& computer) {
  InventorySets sets;
  if (!computer.contains("classes") || !computer.at("classes").is_array()) return sets;
  for (const JsonValue& entry : computer.at("classes")) {
    const int classId = entry.at("id").get<int>();
    for (const JsonValue& instance : entry.at("instances")) {
      std::map<std::string, std::string> values;
      for (const auto& value : instance.at("values").items()) {
        values[value.key()] = value.value().get<std::string>();
      }
      sets[classId].insert(values);
    }
  }
  return sets;
}

// The member key of a JSON object, or null when there is none (or it is not an object).
inline const JsonValue* FindMember(const JsonValue& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  const auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

// The number or text at member key of a JSON object (which must have it).
inline long long NumberAt(const JsonValue& object, const std::string& key) {
  if (!object.contains(key)) throw std::runtime_error("no member " + key);
  return object.at(key).get<long long>();
}
inline std::string StringAt(const JsonValue& object, const std::string& key) {
  if (!object.contains(key)) throw std::runtime_error("no member " + key);
  return object.at(key).get<std::string>();
}

}  // namespace tarn::refserver::testing
