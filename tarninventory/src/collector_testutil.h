// Helpers for the collectors' tests: readers of the rows a parse step returns
// and recorded reports; and, for the few checks that run a whole collector
// (gather, parse, record), a fixture with the shipped data dictionaries and
// class catalogue loaded, an empty value table, fresh run objects, fake tools
// and host facts.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

#include "framework/imds/dataset.h"
#include "framework/imds/store_testutil.h"
#include "framework/imds/xmltodo.h"
#include "framework/persistent/xmldatadictparser.h"
#include "platform/exception/platform_exception.h"
#include "platform/plist/plist_io.h"
#include "tarninventory/src/InvClassHandler.h"
#include "tarninventory/src/invscanhandler.h"
#include "tarninventory/src/scanrun.h"
#include "tarnutils/src/TarnGlobalvars.h"
#include "tarnutils/src/testutil.h"

namespace tarn::testing {

inline std::string SourceFile(const std::string& relative) {
  std::ifstream file(std::string(TARN_SOURCE_DIR) + "/" + relative, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// A recorded tool output of testdata/machines/MACHINE.
inline std::string MachineFile(const std::string& machine, const std::string& name) {
  return SourceFile("testdata/machines/" + machine + "/" + name);
}

// A system_profiler report as the tool prints it: the root array with one
// dictionary whose "_items" holds the given items (XML property-list text of
// the elements).
inline std::string Report(const std::string& dataType, const std::string& itemsXml) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<array>\n<dict>\n"
         "<key>_dataType</key><string>" +
         dataType + "</string>\n<key>_items</key><array>" + itemsXml +
         "</array>\n</dict>\n</array>\n</plist>\n";
}

// The rows of one class as "property|instance|value;", an absent value as "(none)".
inline std::string RowsText(const Rows& rows, std::int32_t classId) {
  std::string text;
  for (const CollectedRow& row : rows) {
    if (row.classId != classId) continue;
    text += std::to_string(row.propertyId) + "|" + std::to_string(row.instance) + "|" +
            row.value.value_or("(none)") + ";";
  }
  return text;
}

class CollectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetStore();
    for (const char* name : {"data-dictionary.xml", "data-dictionary-inv.xml",
                             "data-dictionary-framework.xml", "data-dictionary-onpremise.xml"}) {
      ASSERT_TRUE(
          LoadDataDictFromXMLFile((std::string(TARN_SOURCE_DIR) + "/data/" + name).c_str()));
    }
    const std::string catalogue = SourceFile("data/Mac_InvClasses.xml");
    ASSERT_EQ(CreateDOFromXMLBuffer(catalogue.data(), catalogue.size()), 1);
    invClassObj().Initialize();
    ASSERT_EQ(invClassObj().CreateInvTable(), 0u);
    ASSERT_EQ(CreateTable("WMIFetchedValue"), 1);
    ResetScanRun();
    InitTarnGlobalvars();
  }
  void TearDown() override {
    invClassObj().dealloc();
    DeinitTarnGlobalvars();
    ResetScanRun();
    ResetStore();
  }

  // The rows of one class only.
  static std::string RowsOfClass(std::int32_t classId) {
    const TableData* table = GetTableDataByName("WMIFetchedValue");
    std::string text;
    for (const auto& row : table->rows) {
      if (row->values[2]->Read<std::int32_t>() != classId) continue;
      text += std::to_string(row->values[1]->Read<std::int32_t>()) + "|" +
              std::to_string(row->values[3]->Read<std::int32_t>()) + "|" + row->values[4]->c_str() +
              ";";
    }
    return text;
  }

  static std::size_t RowCount() { return GetTableDataByName("WMIFetchedValue")->rows.size(); }

  FakePlatform platform_;
  ProplistXMLParser parser_;
};

}  // namespace tarn::testing
