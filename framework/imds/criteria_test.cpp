#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "framework/imds/criteriaparser.h"
#include "framework/imds/dataset.h"
#include "framework/imds/store_testutil.h"
#include "framework/utils/stringutils.h"

namespace tarn {
namespace {

// The tree in prefix form: leaves as name/op/literal, inner nodes as and(..) / or(..).
std::string Shape(const CriteriaNode* node) {
  if (node == nullptr) {
    return "null";
  }
  if (node->isLeaf()) {
    return node->columnName + "/" + std::to_string(node->op) + "/" + node->literal;
  }
  return std::string(node->op == kOpAnd ? "and(" : "or(") + Shape(node->left.get()) + "," +
         Shape(node->right.get()) + ")";
}

TEST(CriteriaParserTest, BuildsTheTreeOfTheLanguage) {
  const struct {
    const char* criteria;
    const char* shape;
  } cases[] = {
      {"param_name='FULL_SCAN_UPDATED_TIME'", "param_name/5/'FULL_SCAN_UPDATED_TIME'"},
      {"class_id = 7", "class_id/5/7"},
      {" a\t<= 1.25 ", "a/3/1.25"},
      {"a>=1", "a/4/1"},
      {"a!=1", "a/6/1"},
      {"a<1", "a/1/1"},
      {"a>1", "a/2/1"},
      {"5 < a", "a/1/5"},  // not mirrored
      {"x_1='it is = (and) or'", "x_1/5/'it is = (and) or'"},
      {"a=1 and b=2 or c=3", "and(a/5/1,or(b/5/2,c/5/3))"},
      {"a=1 or b=2 and c=3", "or(a/5/1,and(b/5/2,c/5/3))"},
      {"(a=1 or b=2) and c=3", "and(or(a/5/1,b/5/2),c/5/3)"},
      {"((a=1))", "a/5/1"},
      {"andy=1 and order=2", "and(andy/5/1,order/5/2)"},
      {"a=1\nb=2", "b/5/2"},  // several criteria: the last one
  };
  for (const auto& c : cases) {
    const CriteriaTree tree = CriteriaParser(c.criteria);
    EXPECT_EQ(Shape(tree.get()), c.shape) << c.criteria;
  }
  const CriteriaTree tree = CriteriaParser("a=1 and b=2");
  EXPECT_EQ(tree->left->parent, tree.get());
  EXPECT_EQ(tree->right->parent, tree.get());
}

TEST(CriteriaParserTest, RejectsWhatTheLanguageDoesNotHave) {
  for (const char* criteria : {
           "",             // empty
           "   ",          // blanks only
           "a=1 AND b=2",  // AND is a name
           "a=1 Or b=2",   // so is Or
           "a==1",
           "a<>1",
           "a=b",
           "1=2",
           "_a=1",
           "a=-1",
           "a=1e3",
           "a=\"x\"",
           "a=7.",
           "a=.5",
           "a=1 and",
           "(a=1",
           "a=1)",
           "()",
           "a 1",
           "a=1\n",  // a trailing line feed leaves an empty criterion
           "a='x",
           "a=1;",
           "a=1 # b",
           "a=1\r",
           "a=1 and b=2 !",
           "LIKE 'x'",
           "caf\xC3\xA9='x'",
       }) {
    EXPECT_EQ(CriteriaParser(criteria), nullptr) << criteria;
  }
  EXPECT_EQ(CriteriaParser(nullptr), nullptr);
}

TEST(CriteriaParserTest, BoundsTheNestingDepth) {
  const auto nested = [](int depth) {
    return std::string(static_cast<std::size_t>(depth), '(') + "a=1" +
           std::string(static_cast<std::size_t>(depth), ')');
  };
  const auto chain = [](int terms) {
    std::string text = "a=1";
    for (int i = 1; i < terms; ++i) {
      text += " and a=1";
    }
    return text;
  };
  EXPECT_NE(CriteriaParser(nested(9995).c_str()), nullptr);
  EXPECT_EQ(CriteriaParser(nested(9996).c_str()), nullptr);
  EXPECT_EQ(CriteriaParser(nested(100000).c_str()), nullptr);
  EXPECT_NE(CriteriaParser(chain(4998).c_str()), nullptr);
  EXPECT_EQ(CriteriaParser(chain(4999).c_str()), nullptr);
}

class CriteriaSelectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::LoadStoreDictionary();
    ASSERT_EQ(CreateTable("InvParams"), 1);
    ASSERT_EQ(CreateTable("Samples"), 1);
    AddParam("RESOURCE_ID", "17", 7);
    AddParam("FULL_SCAN_UPDATED_TIME", "1700000000", 0);
    AddParam("resource_id", "x", 9);
    AddParam("\xC3\xA9t\xC3\xA9", "5", 3);
    AddParam(nullptr, nullptr, 12);
  }
  void TearDown() override { testing::ResetStore(); }

  // param_name, param_value, class_id, weight 1.5, a date, a note.
  static void AddParam(const char* name, const char* value, std::int32_t classId) {
    std::vector<ValueSlot> values(6);
    if (name != nullptr) {
      AllocateAndDoStrcpy(values[0], name);
    }
    if (value != nullptr) {
      AllocateAndDoStrcpy(values[1], value);
    }
    values[2] = OwnedBlock::Of(classId);
    values[3] = OwnedBlock::Of(1.5);
    values[4] = OwnedBlock::Of(AdvDate{2024, 3, 5});
    AllocateAndDoStrcpy(values[5], "note");
    ASSERT_EQ(
        AddNewRow("InvParams", CreateNewRowObject(std::move(values), std::vector<std::int32_t>(6))),
        1);
  }

  // The class_id values of the selected rows, in order; {-1} for a null result.
  static std::vector<std::int32_t> Select(const char* table, const char* criteria,
                                          const char* column = "class_id") {
    auto result = SelectRows(table, criteria);
    if (!result) {
      return {-1};
    }
    std::vector<std::int32_t> ids;
    while (GotoNextRowObject(result.get()) != nullptr) {
      const OwnedBlock* value = GetColumnValueByName(column, nullptr, result.get());
      ids.push_back(value == nullptr ? -99 : value->Read<std::int32_t>());
    }
    return ids;
  }
  using Ids = std::vector<std::int32_t>;
};

TEST_F(CriteriaSelectTest, SelectsRowsOfIntegerAndTextColumns) {
  EXPECT_EQ(Select("InvParams", "PARAM_NAME='RESOURCE_ID'"), Ids{7});
  EXPECT_EQ(Select("InvParams", "param_name='Resource_Id'"), Ids{});
  EXPECT_EQ(Select("InvParams", "class_id = 7"), Ids{7});
  EXPECT_EQ(Select("InvParams", "class_id = 7.0"), Ids{0});  // not a plain integer: 0
  EXPECT_EQ(Select("InvParams", "class_id='9'"), Ids{0});
  EXPECT_EQ(Select("InvParams", "5 > class_id"), (Ids{7, 9, 12}));  // class_id > 5
  EXPECT_EQ(Select("InvParams", "5 < class_id"), (Ids{0, 3}));
  // Right grouping: class_id >= 9 and (class_id <= 9 or class_id = 0).
  EXPECT_EQ(Select("InvParams", "class_id >= 9 and class_id <= 9 or class_id = 0"), Ids{9});
  EXPECT_EQ(Select("InvParams", "(class_id >= 9 and class_id <= 9) or class_id = 0"), (Ids{0, 9}));
  EXPECT_EQ(Select("InvParams", "class_id != 7 and (param_value = '5' or param_value='x')"),
            (Ids{9, 3}));
  // Byte-wise with signed bytes: the UTF-8 name orders below every ASCII name.
  EXPECT_EQ(Select("InvParams", "param_name < 'A'"), Ids{3});
  EXPECT_EQ(Select("InvParams", "param_name > 'R'"), (Ids{7, 9}));
  EXPECT_EQ(Select("InvParams", "param_name > 'RZ'"), (Ids{9}));
  EXPECT_EQ(Select("InvParams", "param_name >= 'RESOURCE_ID'"), (Ids{7, 9}));
  // An unquoted literal loses its first and last characters too.
  EXPECT_EQ(Select("InvParams", "param_value = 151"), Ids{3});
  EXPECT_EQ(Select("InvParams", "param_value = 5"), Ids{});
  // The null slot of the last row never matches, not even "!=".
  EXPECT_EQ(Select("InvParams", "param_name != 'zzz'"), (Ids{7, 0, 9, 3}));
}

TEST_F(CriteriaSelectTest, SomeColumnsNeverMatch) {
  EXPECT_EQ(Select("InvParams", "weight = 1.5"), Ids{});  // DOUBLE
  EXPECT_EQ(Select("InvParams", "weight != 1.5"), Ids{});
  EXPECT_EQ(Select("InvParams", "seen != '2000-01-01'"), Ids{});  // DATE
  EXPECT_EQ(Select("InvParams", "note = 'note'"), Ids{});         // TEXT
  EXPECT_EQ(Select("InvParams", "no_such_column = 1"), Ids{});
  EXPECT_EQ(Select("InvParams", "no_such_column = 1 or class_id = 7"), Ids{7});
  EXPECT_EQ(Select("InvParams", ""), Ids{-1});
  EXPECT_EQ(Select("InvParams", "class_id == 7"), Ids{-1});
  EXPECT_EQ(Select("InvParams", nullptr), (Ids{7, 0, 9, 3, 12}));
  EXPECT_EQ(Select("NotLoaded", nullptr), Ids{-1});
}

TEST_F(CriteriaSelectTest, ComparesUnsignedAndFloatColumnsByTheirType) {
  const auto addSample = [](std::int32_t id, std::int32_t unsignedValue, float ratio) {
    std::vector<ValueSlot> values(16);
    values[0] = OwnedBlock::Of(id);
    values[3] = OwnedBlock::Of(unsignedValue);
    values[4] = OwnedBlock::Of(ratio);
    ASSERT_EQ(AddNewRow("Samples", CreateNewRowObject(std::move(values), {})), 1);
  };
  addSample(1, -1, 1.25f);
  addSample(2, 3, std::numeric_limits<float>::quiet_NaN());
  addSample(3, 10, 0.5f);
  EXPECT_EQ(Select("Samples", "UINT > 5", "ID"), (Ids{1, 3}));  // 0xFFFFFFFF is large
  EXPECT_EQ(Select("Samples", "ID > 1 and ID < 3", "ID"), Ids{2});
  EXPECT_EQ(Select("Samples", "ratio >= 1.25", "ID"), Ids{1});
  EXPECT_EQ(Select("Samples", "ratio != 0.5", "ID"), (Ids{1, 2}));  // NaN differs
  EXPECT_EQ(Select("Samples", "ratio < 100", "ID"), (Ids{1, 3}));
}

}  // namespace
}  // namespace tarn
