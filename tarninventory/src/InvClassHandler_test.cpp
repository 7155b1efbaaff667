#include "tarninventory/src/InvClassHandler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/imds/dataset.h"
#include "framework/imds/store_testutil.h"
#include "framework/imds/xmltodo.h"
#include "framework/persistent/xmldatadictparser.h"

namespace tarn {
namespace {

using Ids = std::vector<std::string>;

std::string DataFile(const std::string& name) {
  return std::string(TARN_SOURCE_DIR) + "/data/" + name;
}

class InvClassHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::ResetStore();
    LoadDataDictFromXMLFile(DataFile("data-dictionary-inv.xml").c_str());
  }
  void TearDown() override { testing::ResetStore(); }

  static void LoadCatalogue(const std::string& document) {
    ASSERT_EQ(CreateDOFromXMLBuffer(document.data(), document.size()), 1) << document;
  }

  testing::LogCapture log_;
  InvClassHandler handler_;
};

TEST_F(InvClassHandlerTest, IndexesClassesAndPropertiesInAscendingOrder) {
  LoadCatalogue(R"(<Catalogue>
    <WMIClass class_id="30" CLASS_NAME="Thirty"/>
    <WMIClass class_id="10" CLASS_NAME="Ten">
      <WMIClassProps PROPERTY_ID="1003" PROPERTY_NAME="Third" primary_key="1"/>
      <WMIClassProps PROPERTY_ID="1001" PROPERTY_NAME="First" primary_key="2"/>
      <WMIClassProps PROPERTY_ID="1002" PROPERTY_NAME="Second" primary_key="1"/>
    </WMIClass>
    <WMIClass class_id="20" CLASS_NAME="Twenty"/>
    <WMIClassProps class_id="30" PROPERTY_ID="3001" PROPERTY_NAME="Only"/>
    <WMIClassProps class_id="20" PROPERTY_ID="2002" PROPERTY_NAME="B"/>
    <WMIClassProps class_id="20" PROPERTY_ID="2001" PROPERTY_NAME="A"/>
    <MacProperties LAST_PROPERTY_ID="3001"/>
  </Catalogue>)");
  handler_.Initialize();
  EXPECT_EQ(handler_.GetLastPropertyID(), 0);

  EXPECT_EQ(handler_.CreateInvTable(), 0u);
  EXPECT_EQ(handler_.classCount(), 3u);
  EXPECT_EQ(handler_.GetclassIdArr(), (Ids{"10", "20", "30"}));
  EXPECT_EQ(handler_.GetLastPropertyID(), 3001);
  EXPECT_EQ(handler_.GetclassName(10), "Ten");
  EXPECT_EQ(handler_.GetclassName(30), "Thirty");
  EXPECT_EQ(handler_.GetpropertiesCountforClass(10), 3u);
  EXPECT_EQ(*handler_.GetpropertyIDArr(10), (Ids{"1001", "1002", "1003"}));
  EXPECT_EQ(*handler_.GetpropertyIDArr(20), (Ids{"2001", "2002"}));
  // Only the value 1 marks a key; the class without key properties has an empty list.
  EXPECT_EQ(*handler_.GetPrimaryKeysArr(10), (Ids{"1002", "1003"}));
  ASSERT_NE(handler_.GetPrimaryKeysArr(20), nullptr);
  EXPECT_TRUE(handler_.GetPrimaryKeysArr(20)->empty());
  EXPECT_EQ(handler_.GetpropertyName(10, "1001"), "First");
  EXPECT_EQ(handler_.GetpropertyName(20, "1001"), std::nullopt);
  EXPECT_TRUE(log_.Contains("SetLastPropertyID : 3001\n"));

  // Unknown classes.
  EXPECT_EQ(handler_.GetclassName(11), std::nullopt);
  EXPECT_EQ(handler_.GetpropertiesCountforClass(11), 0u);
  EXPECT_EQ(handler_.GetpropertyIDArr(11), nullptr);
  EXPECT_EQ(handler_.GetPrimaryKeysArr(4294967295u), nullptr);

  // The lists handed out stay valid after the index is released.
  const PropertyIdList kept = handler_.GetpropertyIDArr(10);
  handler_.dealloc();
  EXPECT_EQ(handler_.classCount(), 0u);
  EXPECT_EQ(handler_.GetclassName(10), std::nullopt);
  EXPECT_EQ(handler_.GetLastPropertyID(), 0);
  EXPECT_EQ(kept->size(), 3u);
}

TEST_F(InvClassHandlerTest, ClassWithoutPropertiesEndsTheIndexingThere) {
  LoadCatalogue(R"(<Catalogue>
    <WMIClass class_id="1" CLASS_NAME="One"><WMIClassProps PROPERTY_ID="101" PROPERTY_NAME="P"/></WMIClass>
    <WMIClass class_id="2" CLASS_NAME="Two"/>
    <WMIClass class_id="3" CLASS_NAME="Three"><WMIClassProps PROPERTY_ID="301" PROPERTY_NAME="Q"/></WMIClass>
    <MacProperties LAST_PROPERTY_ID="301"/>
  </Catalogue>)");
  handler_.Initialize();
  EXPECT_EQ(handler_.CreateInvTable(), 1u);
  EXPECT_TRUE(log_.Contains("CreateInvTable: WMIClassProps table is empty\n"));
  EXPECT_EQ(handler_.GetclassName(1), "One");
  EXPECT_EQ(handler_.GetclassName(2), std::nullopt);
  EXPECT_EQ(handler_.GetclassName(3), std::nullopt);
  // The failing class's id was listed before its properties were looked for.
  EXPECT_EQ(handler_.GetclassIdArr(), (Ids{"1", "2"}));
  EXPECT_EQ(handler_.GetLastPropertyID(), 301);
}

TEST_F(InvClassHandlerTest, LastMacPropertiesRowSetsTheLastPropertyId) {
  LoadCatalogue(R"(<Catalogue>
    <WMIClass class_id="5" CLASS_NAME="Five"><WMIClassProps PROPERTY_ID="501" PROPERTY_NAME="P"/></WMIClass>
    <MacProperties LAST_PROPERTY_ID="900"/>
    <MacProperties LAST_PROPERTY_ID="501"/>
  </Catalogue>)");
  handler_.Initialize();
  EXPECT_EQ(handler_.CreateInvTable(), 0u);
  EXPECT_EQ(handler_.GetLastPropertyID(), 501);
  EXPECT_TRUE(log_.Contains("SetLastPropertyID : 900\n"));
  EXPECT_TRUE(log_.Contains("SetLastPropertyID : 501\n"));
}

TEST_F(InvClassHandlerTest, EmptyOrMissingCatalogueLeavesAnEmptyIndex) {
  handler_.Initialize();
  EXPECT_EQ(handler_.CreateInvTable(), 1u);
  EXPECT_TRUE(log_.Contains("CreateInvTable: WMIClass table is empty\n"));
  EXPECT_EQ(handler_.classCount(), 0u);
  EXPECT_EQ(handler_.GetLastPropertyID(), 0);

  // Tables present but without rows, and no MacProperties row: the last id is 0.
  ASSERT_EQ(CreateTable("WMIClass"), 1);
  ASSERT_EQ(CreateTable("MacProperties"), 1);
  EXPECT_EQ(handler_.CreateInvTable(), 1u);
  LoadCatalogue(R"(<C><WMIClass class_id="7" CLASS_NAME="Seven"><WMIClassProps PROPERTY_ID="701"
      PROPERTY_NAME="P"/></WMIClass></C>)");
  EXPECT_EQ(handler_.CreateInvTable(), 0u);
  EXPECT_EQ(handler_.GetLastPropertyID(), 0);
  EXPECT_EQ(handler_.classCount(), 1u);
}

TEST_F(InvClassHandlerTest, RowWithoutANeededValueIsCaughtAndKeepsWhatWasBuilt) {
  LoadCatalogue(R"(<Catalogue>
    <WMIClass class_id="1" CLASS_NAME="One"><WMIClassProps PROPERTY_ID="101" PROPERTY_NAME="P"/></WMIClass>
    <WMIClass class_id="2"><WMIClassProps PROPERTY_ID="201" PROPERTY_NAME="Q"/></WMIClass>
    <WMIClass class_id="3" CLASS_NAME="Three"><WMIClassProps PROPERTY_ID="301"/></WMIClass>
  </Catalogue>)");
  handler_.Initialize();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(handler_.CreateInvTable(), 1u);
  const std::string console = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(console.find("-[InvClassHandler CreateInvTable] [Line "), std::string::npos) << console;
  EXPECT_NE(console.find("CreateInvTable : Caught exception>>>>>>>>>>>:"), std::string::npos);
  EXPECT_EQ(handler_.GetclassIdArr(), (Ids{"1"}));
  EXPECT_EQ(handler_.GetclassName(1), "One");

  // A property without a name fails the same way once the nameless class is gone.
  ASSERT_EQ(UnLoadTable("WMIClass"), 1);
  LoadCatalogue(R"(<C><WMIClass class_id="3" CLASS_NAME="Three"/></C>)");
  handler_.Initialize();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(handler_.CreateInvTable(), 1u);
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("Caught exception"), std::string::npos);
  EXPECT_EQ(handler_.GetclassIdArr(), (Ids{"3"}));
  EXPECT_EQ(handler_.GetclassName(3), std::nullopt);
}

}  // namespace
}  // namespace tarn
