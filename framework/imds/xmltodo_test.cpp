#include "framework/imds/xmltodo.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "framework/imds/dotoxml.h"
#include "framework/imds/store_testutil.h"

namespace tarn {
namespace {

constexpr const char* kRoot = "TarnWMIData";
constexpr const char* kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<TarnWMIData>\n";
constexpr const char* kTail = "</TarnWMIData>\n";

int LoadBuffer(const std::string& text) { return CreateDOFromXMLBuffer(text.data(), text.size()); }

std::string Write(std::initializer_list<const char*> tables) {
  const std::vector<const char*> names(tables);
  return ConvertDOtoXMLBuffer(names, kRoot).value_or("<failed>");
}

class XmlStoreTest : public ::testing::Test {
 protected:
  void SetUp() override { testing::LoadStoreDictionary(); }
  void TearDown() override { testing::ResetStore(); }
};

TEST_F(XmlStoreTest, ReadsReferencesInheritedKeysAndGroupingElements) {
  SetSequenceState("RESOURCE_SEQ", {500, 799});
  ASSERT_EQ(CreateDOFromXMLFile(testing::TestDataPath("imds/rows.xml").c_str()), 1);
  EXPECT_EQ(GetTableDataByName("ResourceList"), nullptr);
  EXPECT_EQ(
      Write({"Resource", "Child"}),
      std::string(kHead) +
          "<Resource RESOURCE_ID=\"500\" NAME=\"pc-01\" NOTES=\"with:colons\" STATUS=\"3\" />\n"
          "<Resource RESOURCE_ID=\"501\" NAME=\"pc-02\" BIG=\"12\" />\n"
          "<Child CHILD_ID=\"1\" RESOURCE_ID=\"500\" LABEL=\"c\" />\n"
          "<Child CHILD_ID=\"2\" RESOURCE_ID=\"500\" LABEL=\"c:d\" />\n"
          "<Child CHILD_ID=\"9\" RESOURCE_ID=\"501\" LABEL=\"outer\" />\n"
          "<Child CHILD_ID=\"9\" RESOURCE_ID=\"501\" LABEL=\"inner\" />\n" +
          kTail);
}

TEST_F(XmlStoreTest, ReferencesWithoutSequenceStateAllGetMinusOne) {
  ASSERT_EQ(CreateDOFromXMLFile(testing::TestDataPath("imds/rows.xml").c_str()), 1);
  auto result = SelectRows("Child", nullptr);
  ASSERT_EQ(result->rowCount, 4);
  while (GotoNextRowObject(result.get()) != nullptr) {
    EXPECT_EQ(GetColumnValueByName("RESOURCE_ID", nullptr, result.get())->Read<std::int32_t>(), -1);
  }
}

TEST_F(XmlStoreTest, ConvertsValuesByTypeAndWritesThemBack) {
  ASSERT_EQ(CreateDOFromXMLFile(testing::TestDataPath("imds/samples.xml").c_str()), 1);
  const TableData* table = GetTableDataByName("Samples");
  ASSERT_EQ(table->rowCount, 2);
  const RowObject& first = *table->rows[0];
  EXPECT_EQ(first.values[4]->size(), 4u);  // FLOAT kept as a 4-byte float
  EXPECT_EQ(first.values[4]->Read<float>(), 1.5f);
  EXPECT_EQ(first.lengths[5], 8);
  EXPECT_EQ(first.values[10]->Read<std::uint8_t>(), 0);  // "FALSE"
  EXPECT_EQ(first.values[11]->Read<std::uint8_t>(), 1);  // "yes"
  EXPECT_EQ(first.lengths[7], 4);                        // DATE record
  EXPECT_EQ(first.lengths[8], 3);                        // TIME record
  EXPECT_EQ(first.lengths[9], 24);                       // DATETIME record
  EXPECT_FALSE(first.values[13]);                        // BLOB plain values are not kept
  EXPECT_EQ(Write({"Samples"}),
            std::string(kHead) +
                "<Samples ID=\"1\" UINT=\"-1\" RATIO=\"1.500000\" AMOUNT=\"2.000000\" "
                "LABEL=\"say \"hi\" & more\" CLOCK=\"01:02:03\" STAMP=\"2024-01-02 03:04:05\" "
                "ODD=\"true\" BODY=\"a:b\" />\n"
                "<Samples ID=\"2\" TINY=\"0\" RATIO=\"0.250000\" DAY=\"1999-12-31\" FLAG=\"true\" "
                "ODD=\"false\" LEVEL=\"3\" />\n" +
                kTail);
}

TEST_F(XmlStoreTest, UnknownElementsFailTheImportUnlessTheyGroup) {
  testing::LogCapture log;
  EXPECT_EQ(LoadBuffer("<r><OtherList><Resource NAME=\"kept\"/></OtherList><Bogus/>"
                       "<Resource NAME=\"never\"/></r>"),
            0);
  auto result = SelectRows("Resource", nullptr);
  ASSERT_EQ(result->rowCount, 1);
  GotoNextRowObject(result.get());
  EXPECT_STREQ(GetColumnValueByName("name", nullptr, result.get())->c_str(), "kept");
  EXPECT_TRUE(log.Contains(
      "Cannot create and add a new row while constructing tabledata from XML file.\n"));
  EXPECT_TRUE(log.Contains("Cannot construct table data from XML buffer.\n"));

  EXPECT_EQ(CreateDOFromXMLFile(testing::TestDataPath("imds/bogus.xml").c_str()), 0);
  EXPECT_TRUE(log.Contains("error: could not parse file file.xml\n"));
  EXPECT_EQ(LoadBuffer("<r><Resource NAME=\"x\"></r>"), 0);
  EXPECT_EQ(LoadBuffer(""), 0);
  EXPECT_EQ(CreateDOFromXMLBuffer(nullptr, 0), 0);
  EXPECT_EQ(LoadBuffer("<r/>"), 1);
  EXPECT_EQ(LoadBuffer("<r>text<!-- c --><?pi x?></r>"), 1);
}

TEST_F(XmlStoreTest, DoctypeWithEntitiesOrExternalDtdIsRefused) {
  testing::LogCapture log;
  std::string bomb =
      "<?xml version=\"1.0\"?>\n<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\">]>\n"
      "<r><Resource NAME=\"";
  for (int i = 0; i < 20000; ++i) {
    bomb += "&a;";
  }
  bomb += "\"/></r>";
  EXPECT_EQ(LoadBuffer(bomb), 0);
  EXPECT_EQ(LoadBuffer("<!DOCTYPE r SYSTEM \"r.dtd\"><r><Resource NAME=\"x\"/></r>"), 0);
  EXPECT_EQ(LoadBuffer("<!DOCTYPE r PUBLIC \"-//x//y\" \"http://example.invalid/r.dtd\"><r/>"), 0);
  EXPECT_EQ(LoadBuffer("<!DOCTYPE r [<!ENTITY % p \"x\">]><r/>"), 0);
  EXPECT_EQ(GetTableDataByName("Resource"), nullptr);
  EXPECT_TRUE(log.Contains("error: could not parse file file.xml\n"));
  EXPECT_EQ(LoadBuffer("<!DOCTYPE r [<!ELEMENT r ANY>]><r><Resource NAME=\"ok\"/></r>"), 1);
}

TEST_F(XmlStoreTest, WriterFormsEdgeValuesExactly) {
  EXPECT_EQ(Write({}), std::string(kHead) + kTail);
  ASSERT_EQ(CreateTable("Child"), 1);  // loaded but empty
  EXPECT_EQ(Write({"Child", "NotLoaded"}), std::string(kHead) + kTail);

  ASSERT_EQ(CreateTable("Samples"), 1);
  std::vector<ValueSlot> values(16);
  values[0] = OwnedBlock::Of(std::int32_t{7});
  values[1] = OwnedBlock::Of(std::int32_t{-1});  // equal to the default: omitted
  values[6] = OwnedBlock::Copy(std::string(300, 'x').data(), 300);
  values[9] = StoreAdvDateTime(AdvDateTime{AdvDate{2024, 3, 5}, std::nullopt});
  values[10] = OwnedBlock::Of(std::int32_t{2});  // BOOLEAN holding 2
  values[12] = OwnedBlock::Copy(std::string(1000, 'y').data(), 1000);
  values[13] = OwnedBlock::Copy("blob", 4);
  ASSERT_EQ(AddNewRow("Samples", CreateNewRowObject(std::move(values), {})), 1);
  ASSERT_EQ(AddNewRow("Samples", CreateNewRowObject({}, {})), 1);  // only defaults

  // Long CHAR and TEXT attributes are written whole.
  const std::string longChar = "LABEL=\"" + std::string(300, 'x') + "\" ";
  const char* const names[] = {"samples", nullptr, "Child"};
  EXPECT_EQ(ConvertDOtoXMLBuffer(names, kRoot),
            std::string(kHead) + "<samples ID=\"7\" " + longChar +
                "STAMP=\"2024-03-05\" FLAG=\"false\" BODY=\"" + std::string(1000, 'y') +
                "\" />\n<samples />\n" + kTail);
}

TEST_F(XmlStoreTest, LoadsAndWritesOneHundredThousandRowsUnchanged) {
  constexpr int kRows = 100000;
  std::string document = kHead;
  for (int i = 0; i < kRows; ++i) {
    document += "<InvParams param_name=\"name" + std::to_string(i) + "\" param_value=\"value " +
                std::to_string(i * 7) + "\" class_id=\"" + std::to_string(i) +
                "\" note=\"a longer note for row " + std::to_string(i) + "\" />\n";
  }
  document += kTail;

  ASSERT_EQ(LoadBuffer(document), 1);
  const auto written = ConvertDOtoXMLBuffer(std::vector<const char*>{"InvParams"}, kRoot);
  ASSERT_TRUE(written);
  EXPECT_EQ(*written, document);
}

TEST_F(XmlStoreTest, ManyDistinctReferencesEachKeepOneIdentifier) {
  constexpr int kReferences = 100000;
  SetSequenceState("RESOURCE_SEQ", {1, 2 * kReferences});
  std::string document = kHead;
  for (int i = 0; i < kReferences; ++i) {
    document += "<Child CHILD_ID=\"" + std::to_string(i) +
                "\" RESOURCE_ID=\"Resource:RESOURCE_ID:r" + std::to_string(i) + "\" />\n";
  }
  // A reference met again takes the identifier it got first.
  document += "<Child CHILD_ID=\"-1\" RESOURCE_ID=\"Resource:RESOURCE_ID:r77\" />\n";
  document += kTail;

  ASSERT_EQ(LoadBuffer(document), 1);

  auto result = SelectRows("Child", nullptr);
  ASSERT_EQ(result->rowCount, kReferences + 1);
  std::int32_t expected = 1;
  while (GotoNextRowObject(result.get()) != nullptr) {
    const std::int32_t child =
        GetColumnValueByName("CHILD_ID", nullptr, result.get())->Read<std::int32_t>();
    const std::int32_t resource =
        GetColumnValueByName("RESOURCE_ID", nullptr, result.get())->Read<std::int32_t>();
    ASSERT_EQ(resource, child < 0 ? 78 : expected++) << "row of child " << child;
  }
}

int LoadUntrusted(const std::string& text) {
  static const UntrustedXmlRules rules{1024 * 1024, 256, {"RESOURCE"}};
  return CreateDOFromUntrustedXMLBuffer(text.data(), text.size(), rules);
}

int RowCount(const char* table) {
  const TableData* data = GetTableDataByName(table);
  return data == nullptr ? 0 : data->rowCount;
}

// count attributes with distinct short names (" a=''", " b=''", ..., " ba=''", ...).
std::string Attributes(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    std::string name;
    for (int rest = i; name.empty() || rest > 0; rest /= 26)
      name.insert(name.begin(), char('a' + rest % 26));
    text += " " + name + "=''";
  }
  return text;
}

TEST_F(XmlStoreTest, AnUntrustedDocumentGivesRowsOfItsTablesOnly) {
  EXPECT_EQ(LoadUntrusted("<r><ResourceList><Resource NAME=\"a\"/></ResourceList>"
                          "<Resource NAME=\"b\"" +
                          Attributes(255) + "/></r>"),
            1);
  EXPECT_EQ(RowCount("Resource"), 2);
  // A mebibyte of rows with the most attributes allowed still loads.
  std::string full = "<r>";
  const std::string row = "<Resource" + Attributes(256) + "/>";
  while (full.size() + row.size() + 4 < 1024 * 1024) full += row;
  full += "</r>";
  EXPECT_EQ(LoadUntrusted(full), 1);
  EXPECT_GT(RowCount("Resource"), 2);
}

TEST_F(XmlStoreTest, HostileUntrustedDocumentsFailFastBeforeTheyAddRows) {
  testing::LogCapture log;
  std::string deep;
  for (int i = 0; i < 300; ++i) deep += "<ResourceList>";
  std::string entities =
      "<!DOCTYPE r [<!ENTITY a \"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\">]><r><Resource NAME=\"";
  for (int i = 0; i < 20000; ++i) entities += "&a;";
  // 32000 namespace declarations in scope of every prefixed element after them.
  std::string namespaces;
  for (int level = 0; level < 128; ++level) {
    namespaces += "<ResourceList";
    for (int i = 0; i < 250; ++i) {
      namespaces += " xmlns:n" + std::to_string(level * 250 + i) + "=\"u\"";
    }
    namespaces += ">";
  }
  while (namespaces.size() < 1000 * 1000) namespaces += "<n0:Resource/>";
  struct Case {
    const char* name;
    std::string document;
  };
  const Case cases[] = {
      {"a row of another table", "<r><Child LABEL=\"x\"/></r>"},
      {"another table inside a grouping element", "<r><ResourceList><Child/></ResourceList></r>"},
      {"an element that is neither", "<r><Bogus/></r>"},
      {"257 attributes", "<r><Resource" + Attributes(257) + "/></r>"},
      {"111001 attributes in a megabyte", "<r><Resource" + Attributes(111001) + "/></r>"},
      {"over a mebibyte", "<r><!--" + std::string(1024 * 1024, 'x') + "--></r>"},
      {"not UTF-8", "<r><Resource NAME=\"caf\xE9\"/></r>"},
      {"UTF-16", std::string("\xFF\xFE<\0r\0/\0>\0", 10)},
      {"300 levels", deep},
      {"entities", entities + "\"/></r>"},
      // A quoted ">" in a declaration once hid the rest of the document from the checks.
      {"attributes behind an entity value",
       "<!DOCTYPE Tarn [<!ENTITY e \"><!--\">]><r><Resource" + Attributes(95000) + "/></r>"},
      {"attributes behind a notation",
       "<!DOCTYPE Tarn [<!NOTATION n SYSTEM \"x><!--\">]><r><Resource" + Attributes(95000) +
           "/></r>"},
      {"namespaces", namespaces},
      {"attributes behind a broken XML declaration",
       "<?xml version=\"1.0\" x><r><Resource" + Attributes(95000) + "/></r>?>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(LoadUntrusted(c.document), 0);
    EXPECT_EQ(RowCount("Child"), 0);
    EXPECT_EQ(RowCount("Resource"), 0);
  }
  EXPECT_TRUE(log.Contains("Element Child is not accepted in this document.\n"));
  EXPECT_TRUE(
      log.Contains("Document refused before parsing: an element has too many attributes.\n"));
  EXPECT_TRUE(log.Contains("Document refused before parsing: it is too long.\n"));
  EXPECT_TRUE(
      log.Contains("Document refused before parsing: it has a document type declaration.\n"));
  EXPECT_TRUE(log.Contains("Document refused before parsing: it declares too many namespaces.\n"));
  EXPECT_TRUE(log.Contains("Document refused before parsing: it is not UTF-8 text.\n"));
}

}  // namespace
}  // namespace tarn
