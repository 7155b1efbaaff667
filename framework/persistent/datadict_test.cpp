#include "framework/persistent/datadict.h"

#include <gtest/gtest.h>

#include "framework/imds/store_testutil.h"
#include "framework/persistent/xmldatadictparser.h"
#include "framework/utils/advtime.h"

namespace tarn {
namespace {

using testing::LoadStoreDictionary;
using testing::LogCapture;
using testing::ResetStore;
using testing::TestDataPath;

class DataDictTest : public ::testing::Test {
 protected:
  void SetUp() override { LoadStoreDictionary(); }
  void TearDown() override { ResetStore(); }
};

TEST(GetGenDataTypeMacroTest, MapsTextsIgnoringCaseAndUnknownToZero) {
  const struct {
    const char* text;
    int code;
  } cases[] = {
      {"ADV_SQL_NOT_SUPPORTED_TYPE", 0},
      {"adv_sql_tinyint", 1},
      {"ADV_SQL_UNSIGNED_TINYINT", 2},
      {"ADV_SQL_SMALLINT", 3},
      {"ADV_SQL_UNSIGNED_SMALLINT", 4},
      {"ADV_SQL_INT", 5},
      {"BigInt", 5},
      {"INTEGER", 5},
      {"long", 5},
      {"ADV_SQL_UNSIGNED_INT", 6},
      {"ADV_SQL_UNSIGNED_LONG_INT", 8},
      {"FLOAT", 9},
      {"ADV_SQL_DOUBLE", 10},
      {"ADV_SQL_REAL", 11},
      {"ADV_SQL_DECIMAL", 12},
      {"ADV_SQL_NUMERIC", 13},
      {"ADV_SQL_CHAR", 14},
      {"nchar", 15},
      {"TIMESTAMP", 18},
      {"Date", 16},
      {"TIME", 17},
      {"BOOLEAN", 19},
      {"BLOB", 20},
      {"CLOB", 21},
      {"text", 22},
      {"VARCHAR", 0},
      {"ADV_SQL_LONG_INT", 0},
      {"", 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(GetGenDataTypeMacro(c.text), c.code) << c.text;
  }
  LogCapture log;
  EXPECT_EQ(GetGenDataTypeMacro(nullptr), 0);
  EXPECT_TRUE(
      log.Contains("Column data type not supported - Error while creating column definition.\n"));
}

TEST_F(DataDictTest, ReadsColumnsWithTypesFlagsAndDefaults) {
  const TableDefn* resource = GetTableDefnEntry("Resource");
  ASSERT_NE(resource, nullptr);
  EXPECT_EQ(resource->description(), "One managed computer");
  ASSERT_EQ(resource->columns().size(), 5u);

  const ColumnDefn* id = GetColumnDefnEntry("Resource", "RESOURCE_ID");
  ASSERT_NE(id, nullptr);
  EXPECT_TRUE(id->unique);
  EXPECT_FALSE(id->nullable);
  EXPECT_EQ(id->generatorName, "RESOURCE_SEQ");

  const ColumnDefn* name = GetColumnDefnEntry("Resource", "NAME");
  EXPECT_EQ(name->type, kTypeChar);  // CHAR of max size 255 stays CHAR
  EXPECT_EQ(name->maxSize, 255);
  EXPECT_TRUE(name->nullable);                                     // "TRUE" in any letter case
  EXPECT_FALSE(name->unique);                                      // only exactly "true"
  EXPECT_EQ(GetColumnType("Resource", "NOTES"), kTypeText);        // 256 becomes TEXT
  EXPECT_TRUE(GetColumnDefnEntry("Resource", "NOTES")->nullable);  // absent means nullable

  const ColumnDefn* big = GetColumnDefnEntry("Resource", "BIG");
  EXPECT_EQ(big->type, kTypeInt);
  ASSERT_TRUE(big->defaultValue);
  EXPECT_EQ(big->defaultLength, 4);
  EXPECT_EQ(big->defaultValue->Read<std::int32_t>(), -7);

  // Integer defaults of every width are held as 32-bit values, like the rows.
  const ColumnDefn* tiny = GetColumnDefnEntry("Samples", "TINY");
  EXPECT_EQ(tiny->defaultLength, 4);
  EXPECT_EQ(tiny->defaultValue->Read<std::int32_t>(), -1);

  // DATE and TIME defaults are held as the record their type names.
  const ColumnDefn* day = GetColumnDefnEntry("Samples", "DAY");
  ASSERT_TRUE(day->defaultValue);
  EXPECT_EQ(day->defaultLength, 4);
  const auto date = day->defaultValue->Read<AdvDate>();
  EXPECT_EQ(ConvertAdvDateToString(&date), "2024-03-05");
  const auto time = GetColumnDefnEntry("Samples", "CLOCK")->defaultValue->Read<AdvTime>();
  EXPECT_EQ(ConvertAdvTimeToString(&time), "10:20:30");

  const ColumnDefn* flag = GetColumnDefnEntry("Samples", "FLAG");
  ASSERT_TRUE(flag->defaultValue);
  EXPECT_EQ(flag->defaultValue->Read<std::uint8_t>(), 0);
  EXPECT_FALSE(GetColumnDefnEntry("Samples", "ODD")->defaultValue);  // not TRUE/FALSE

  const auto& level = GetColumnDefnEntry("Samples", "LEVEL")->allowedValues;
  ASSERT_TRUE(level);
  EXPECT_EQ(level->kind, kAllowedValuesEnumeration);
  EXPECT_EQ(level->values, (std::vector<std::string>{"1", "2", "3"}));
  const auto& percent = GetColumnDefnEntry("Samples", "PERCENT")->allowedValues;
  ASSERT_TRUE(percent);
  EXPECT_EQ(percent->kind, kAllowedValuesRange);
  EXPECT_EQ(percent->values, (std::vector<std::string>{"0", "100"}));
}

TEST_F(DataDictTest, ReadsPrimaryAndForeignKeys) {
  const TableDefn* child = GetTableDefnEntry("Child");
  ASSERT_TRUE(child->constraints());
  EXPECT_EQ(child->constraints()->primaryKeyColumns, std::vector<std::string>{"CHILD_ID"});
  const FKeyDefn* foreignKey = GetFKeyDefn(child, "resource_id");
  ASSERT_NE(foreignKey, nullptr);
  EXPECT_EQ(foreignKey->localColumn, "RESOURCE_ID");
  EXPECT_EQ(foreignKey->referenceColumn, "RESOURCE_ID");
  EXPECT_EQ(foreignKey->referenceTable, "Resource");
  EXPECT_TRUE(foreignKey->onDeleteCascade);
  EXPECT_TRUE(foreignKey->bidirectional);
  EXPECT_EQ(GetFKeyDefn(child, "LABEL"), nullptr);

  LogCapture log;
  EXPECT_FALSE(GetTableDefnEntry("Samples")->constraints());
  EXPECT_EQ(GetFKeyDefn(GetTableDefnEntry("Samples"), "ID"), nullptr);
  EXPECT_TRUE(log.Contains("No constraint Definition \n"));
  EXPECT_EQ(GetFKeyDefn(GetTableDefnEntry("Resource"), "RESOURCE_ID"), nullptr);
  EXPECT_TRUE(log.Contains("No Foreignkey Entries in Definition \n"));
}

TEST_F(DataDictTest, TableNamesIgnoreLetterCaseColumnNamesDoNot) {
  LogCapture log;
  const TableDefn* found = GetTableDefnEntry("resource");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->name(), "Resource");  // the first of two definitions of the name
  EXPECT_EQ(GetTableDefnVector().definitions().size(), 5u);

  EXPECT_EQ(GetColumnDefnEntry("RESOURCE", "name"), nullptr);
  EXPECT_NE(GetColumnDefnEntry("RESOURCE", "NAME"), nullptr);
  EXPECT_EQ(GetColumnType("Resource", "name"), 0);

  bool exists = false;
  EXPECT_NE(GetDefaultValue("Resource", "STATUS", exists), nullptr);
  EXPECT_TRUE(exists);
  EXPECT_EQ(GetDefaultValue("Resource", "NAME", exists), nullptr);
  EXPECT_TRUE(exists);
  EXPECT_EQ(GetDefaultValue("Resource", "MISSING", exists), nullptr);
  EXPECT_FALSE(exists);

  EXPECT_EQ(GetTableDefnEntry(nullptr), nullptr);
  EXPECT_EQ(GetColumnDefnEntry("Resource", nullptr), nullptr);
  EXPECT_EQ(GetColumnDefnEntry("Nowhere", "A"), nullptr);
  const std::string text = log.Text();
  EXPECT_NE(text.find("Table Name is NULL.\n"), std::string::npos);
  EXPECT_NE(text.find("Cannot fetch default value;\n"), std::string::npos);
  EXPECT_NE(text.find("No definition found for table Nowhere\n"), std::string::npos);
  EXPECT_NE(text.find("@@@@ Inside GetColumnDefnEntry @@@@\n"), std::string::npos);

  // Freeing the first definition of a name uncovers the second.
  EXPECT_EQ(FreeTableDefn("RESOURCE"), 1);
  ASSERT_NE(GetTableDefnEntry("Resource"), nullptr);
  EXPECT_EQ(GetTableDefnEntry("Resource")->name(), "resource");
  EXPECT_EQ(FreeTableDefn("Resource"), 1);
  EXPECT_EQ(GetTableDefnEntry("Resource"), nullptr);
  EXPECT_EQ(FreeTableDefn("Resource"), 0);
  DeInitDataDictionary();
  EXPECT_EQ(GetTableDefnEntry("Child"), nullptr);
}

TEST_F(DataDictTest, MissingFileIsReportedOnlyInTheLog) {
  LogCapture log;
  const std::string path = TestDataPath("datadict/no-such-file.xml");
  EXPECT_TRUE(LoadDataDictFromXMLFile(path.c_str()));
  EXPECT_TRUE(log.Contains("Unable to open " + path + "\n"));
  EXPECT_EQ(GetTableDefnEntry("Before"), nullptr);
  EXPECT_FALSE(LoadDataDictFromXMLFile(nullptr));
}

TEST_F(DataDictTest, StructuralErrorsDropOnlyTheirTable) {
  LogCapture log;
  const std::string path = TestDataPath("datadict/broken.xml");
  EXPECT_TRUE(LoadDataDictFromXMLFile(path.c_str()));

  const TableDefn* before = GetTableDefnEntry("Before");
  ASSERT_NE(before, nullptr);
  EXPECT_EQ(before->columns()[1].type, kTypeNotSupported);  // no data-type element
  EXPECT_NE(GetTableDefnEntry("NoFkColumns"), nullptr);
  EXPECT_NE(GetTableDefnEntry("After"), nullptr);
  for (const char* dropped : {"NoTo", "TwoDescriptions", "NestedPrimaryKey", "NoLocalColumn"}) {
    EXPECT_EQ(GetTableDefnEntry(dropped), nullptr) << dropped;
  }
  const std::string text = log.Text();
  for (const char* message :
       {"Column data type not supported - Error while creating column definition.\n",
        "In the allowed values attribute, 'to' tag is missing.\n", "\nDescription tag ambiguity \n",
        "\nMissing primary-key-column end tag\n", "\n Missing endof FK-LOCAL-COLUMN tag\n",
        "fk-columns tag not found \n", "\n Not all Attributes were read\n",
        "@@@@Parsing Table Info : NoTo @@@@\n",
        "\t@@@@ Loaded Table definition Successfully @@@@\n"}) {
    EXPECT_NE(text.find(message), std::string::npos) << message;
  }
  EXPECT_EQ(text.find(" : failed to parse\n"), std::string::npos);
}

TEST_F(DataDictTest, MalformedFileKeepsTheTablesReadBeforeTheError) {
  LogCapture log;
  const std::string path = TestDataPath("datadict/truncated.xml");
  EXPECT_TRUE(LoadDataDictFromXMLFile(path.c_str()));
  EXPECT_NE(GetTableDefnEntry("First"), nullptr);
  EXPECT_EQ(GetTableDefnEntry("Unfinished"), nullptr);
  EXPECT_EQ(GetTableDefnEntry("After"), nullptr);
  EXPECT_TRUE(log.Contains(path + " : failed to parse\n"));
}

TEST_F(DataDictTest, DoctypeWithEntitiesOrExternalDtdIsRefused) {
  LogCapture log;
  for (const char* name : {"entity.xml", "external-dtd.xml"}) {
    const std::string path = TestDataPath(std::string("datadict/") + name);
    EXPECT_TRUE(LoadDataDictFromXMLFile(path.c_str()));
    EXPECT_TRUE(log.Contains(path + " : failed to parse\n")) << name;
  }
  EXPECT_EQ(GetTableDefnEntry("Refused"), nullptr);
  EXPECT_EQ(GetTableDefnVector().definitions().size(), 5u);  // store.xml only

  EXPECT_TRUE(LoadDataDictFromXMLFile(TestDataPath("datadict/plain-doctype.xml").c_str()));
  EXPECT_NE(GetTableDefnEntry("Accepted"), nullptr);
}

TEST_F(DataDictTest, PrintTableDefinitionDumpsEachColumn) {
  LogCapture log;
  PrintTableDefinition(GetTableDefnEntry("Resource"));
  const std::string text = log.Text();
  EXPECT_NE(text.find("Table Name : Resource\n"), std::string::npos);
  EXPECT_NE(text.find("Description: One managed computer\n"), std::string::npos);
  EXPECT_NE(text.find("Column Type : 22\n"), std::string::npos);
  EXPECT_NE(text.find("Description : Free text\n"), std::string::npos);
  EXPECT_NE(text.find("Foreign key Constraints\n"), std::string::npos);
}

}  // namespace
}  // namespace tarn
