// Values from the host and from the server in the full document: whatever they hold, the
// upload stays well-formed XML with exactly the rows the scanner made.
#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/agent_folder.h"
#include "tests/inventory_server.h"
#include "tests/scan_checks.h"

namespace tarn::testing {
namespace {

namespace fs = std::filesystem;

struct Row {
  std::string table;
  std::map<std::string, std::string> columns;
};

struct DocFree {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};

// The rows of a full document as libxml2 reads them; nothing when it is not well-formed.
std::optional<std::vector<Row>> ParsedRows(const std::string& body) {
  std::unique_ptr<xmlDoc, DocFree> document(
      xmlReadMemory(body.data(), static_cast<int>(body.size()), nullptr, nullptr,
                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!document) return std::nullopt;
  std::vector<Row> rows;
  for (const xmlNode* node = xmlDocGetRootElement(document.get())->children; node != nullptr;
       node = node->next) {
    if (node->type != XML_ELEMENT_NODE) continue;
    Row row{reinterpret_cast<const char*>(node->name), {}};
    for (const xmlAttr* attribute = node->properties; attribute != nullptr;
         attribute = attribute->next) {
      xmlChar* value = xmlNodeGetContent(attribute->children);
      row.columns[reinterpret_cast<const char*>(attribute->name)] =
          value ? reinterpret_cast<const char*>(value) : "";
      xmlFree(value);
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

std::size_t CountOf(const std::vector<Row>& rows, const std::string& table) {
  return static_cast<std::size_t>(
      std::count_if(rows.begin(), rows.end(), [&](const Row& row) { return row.table == table; }));
}

const Row* AgentParam(const std::vector<Row>& rows, const std::string& name) {
  for (const Row& row : rows) {
    if (row.table == "AgentParams" && row.columns.at("PARAM_NAME") == name) return &row;
  }
  return nullptr;
}

// The recorded sample machine under another host name, replayed from BASE/data/machine.
void UseSampleNamed(const AgentFolder& agent, const std::string& hostName) {
  const fs::path folder = agent.data() / "machine";
  fs::copy(fs::path(TARN_SOURCE_DIR) / "testdata/machines/macbook-sample", folder,
           fs::copy_options::recursive);
  const fs::path manifest = folder / "manifest.plist";
  std::string text = ReadFileText(manifest);
  const std::string recorded = "<string>Office-Mac.local</string>";
  text.replace(text.find(recorded), recorded.size(), "<string>" + hostName + "</string>");
  WriteFileText(manifest, text);
  AgentFolder::WritePlist(agent.data() / "agent-conf.plist",
                          "\t<key>Loglevel</key><integer>3</integer>\n"
                          "\t<key>TOOL_REPLAY_DIRECTORY</key><string>machine</string>\n");
}

TEST(UploadValues, AForgedResourceIdIsNoIdAndRowsOfOtherTablesAreIgnored) {
  // The id itself holds markup: it is refused, never stored, and nothing is uploaded.
  AgentFolder agent("values-forged");
  agent.UseMachine("macbook-sample");
  InventoryServer server;
  server.SetResourceId(
      "1&quot; /&gt;&lt;WMIFetchedValue VALUE_ID=&quot;9&quot; PROPERTY_ID=&quot;1801&quot; "
      "CLASS_ID=&quot;18&quot; INSTANCE_ID=&quot;999&quot; VALUE=&quot;INJECTED-FAKE-APP&quot; "
      "FLAG=&quot;0&quot; /&gt;&lt;X A=&quot;");
  agent.ServeAt(server.port());
  EXPECT_EQ(agent.Run({"assetscan"}).exitCode, 0);
  EXPECT_TRUE(LastLineIs(agent, "Manual", {"ResIDNotfound", "---"})) << agent.AccessLog();
  EXPECT_TRUE(server.Uploads().empty());
  EXPECT_FALSE(fs::exists(agent.data() / "resource.plist"));

  // The document breaks out of the id's attribute into a row of a table the agent knows: the
  // row is ignored with a log line and the id before it is taken.
  AgentFolder again("values-other-table");
  again.UseMachine("macbook-sample");
  server.SetResourceId(
      "1\" /><WMIFetchedValue VALUE_ID=\"9\" PROPERTY_ID=\"1801\" CLASS_ID=\"18\" "
      "INSTANCE_ID=\"999\" VALUE=\"INJECTED-FAKE-APP\" FLAG=\"0");
  again.ServeAt(server.port());
  EXPECT_EQ(again.Run({"assetscan"}).exitCode, 0);
  EXPECT_TRUE(LastLineIs(again, "Manual", {"FullData", "Success"})) << again.AccessLog();
  ASSERT_EQ(server.Uploads().size(), 1u);
  EXPECT_EQ(server.Uploads()[0].body.find("INJECTED"), std::string::npos);
  EXPECT_NE(again.ScanLog().find("Rows of table WMIFetchedValue are ignored in this document.\n"),
            std::string::npos);
}

// Bytes that are not UTF-8 cannot be recorded in a replayed machine (its manifest is a property
// list); the same escaping covers them (UploadText's own test).
TEST(UploadValues, ComputerNamesWithMarkupKeepTheDocumentsShape) {
  struct Case {
    std::string hostName;  // as written in the manifest's XML
    std::string name;      // the computer name the rows must carry, once parsed
  };
  const Case cases[] = {
      {"Bob's &lt;&quot;Mac&quot;&gt; &amp; Co.local", "bob's <\"mac\"> & co"},
      {"Caf\xC3\xA9 &amp;&amp; &lt;b&gt;-Mac.local", "caf\xC3\xA9 && <b>-mac"},
  };
  std::size_t expectedRows = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AgentFolder agent("values-names");
    UseSampleNamed(agent, c.hostName);
    agent.WriteResourceId("42");
    InventoryServer server;
    agent.ServeAt(server.port());
    ASSERT_EQ(agent.Run({"assetscan"}).exitCode, 0);
    ASSERT_EQ(server.Uploads().size(), 1u);
    const auto rows = ParsedRows(server.Uploads()[0].body);
    ASSERT_TRUE(rows) << server.Uploads()[0].body.substr(0, 600);

    EXPECT_EQ(CountOf(*rows, "WMIData"), 1u);
    EXPECT_EQ(CountOf(*rows, "Resource"), 1u);
    EXPECT_EQ(CountOf(*rows, "InvAuditEntry"), 1u);
    EXPECT_EQ(CountOf(*rows, "AgentParams"), 8u);
    for (const Row& row : *rows) {
      if (row.table == "WMIData") {
        EXPECT_EQ(row.columns.at("COMPUTER_NAME"), c.name);
      }
      if (row.table == "Resource") {
        EXPECT_EQ(row.columns.at("NAME"), c.name);
      }
    }
    const Row* computer = AgentParam(*rows, "COMPUTER_NAME");
    ASSERT_NE(computer, nullptr);
    EXPECT_EQ(computer->columns.at("PARAM_VALUE"), c.name);
    // Both machines are the same apart from their names: the same rows in number.
    if (expectedRows == 0) expectedRows = rows->size();
    EXPECT_EQ(rows->size(), expectedRows);
  }
}

}  // namespace
}  // namespace tarn::testing
