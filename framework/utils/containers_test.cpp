#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "framework/system/rsrclockimpl.h"
#include "framework/utils/hashtable.h"
#include "framework/utils/stringbuffer.h"
#include "framework/utils/stringutils.h"
#include "framework/utils/vector.h"

namespace tarn {
namespace {

TEST(StringBuffer, GrowsByWholeIncrementsOnly) {
  StringBuffer buffer;
  EXPECT_EQ(buffer.capacity(), 10000);
  EXPECT_EQ(buffer.increment(), 1000);
  const std::string start(9990, 'a');
  ASSERT_EQ(Append(buffer, start), 1);
  EXPECT_EQ(buffer.capacity(), 10000);

  ASSERT_EQ(Append(buffer, std::string(20, 'b')), 1);
  EXPECT_EQ(buffer.capacity(), 11000);
  EXPECT_EQ(buffer.length(), 10010u);
  EXPECT_EQ(buffer.view(), start + std::string(20, 'b'));

  StringBuffer other;
  Append(other, start);
  Append(other, std::string(2500, 'c'));
  EXPECT_EQ(other.capacity(), 13000);
  EXPECT_EQ(std::string(other.data()).size(), 12490u);  // zero-filled past the text

  StringBuffer exact;
  ASSERT_EQ(InitStringBuffer(exact, 4, 3), 1);
  Append(exact, "abcd");
  EXPECT_EQ(exact.capacity(), 4);
  Append(exact, "e");
  EXPECT_EQ(exact.capacity(), 7);
  EXPECT_STREQ(exact.data(), "abcde");
}

TEST(HashTable, PlacesKeysByTheStoreHash) {
  HashTable<int> table;
  ASSERT_EQ(InitHashTable(table, 0), 1);
  EXPECT_EQ(table.bucketCount(), 10);
  EXPECT_EQ(FindIndex("ab", 10), (98 + 26 * (97 % 10)) % 10);
  EXPECT_EQ(FindIndex("ab", 10), 0);
  EXPECT_EQ(FindIndex("", 10), 0);
  EXPECT_EQ(FindIndex("abc", 50), ((99 + 26 * ((98 + 26 * (97 % 50)) % 50)) % 50));

  // Bytes of 128 and above are negative: h = -61 mod 50 = -11 -> bucket 39.
  const std::string high = "\xc3";
  EXPECT_EQ(FindIndex(high, 50), 39);
  for (const char* key : {"\xff\xff\xff", "\xc3\xa9t\xc3\xa9", "\x80z\x90"}) {
    const auto index = FindIndex(key, 7);
    EXPECT_GE(index, 0);
    EXPECT_LT(index, 7);
  }

  ASSERT_TRUE(PutHashNode(table, "ab", 1));
  ASSERT_TRUE(PutHashNode(table, "k", 2));  // 107 mod 10 = 7
  ASSERT_TRUE(PutHashNode(table, "u", 3));  // 117 mod 10 = 7, chained after "k"
  ASSERT_TRUE(PutHashNode(table, "ab", 4));
  EXPECT_EQ(table.bucket(0).size(), 1u);  // replaced, not added
  EXPECT_EQ(*GetHashNodeValue(table, "ab"), 4);
  EXPECT_EQ(GetHashNodeValue(table, "AB"), nullptr);  // letter case significant
  EXPECT_EQ(GetHashKeys(table), (std::vector<std::string>{"ab", "k", "u"}));

  EXPECT_TRUE(DeleteHashNode(table, "k"));
  EXPECT_FALSE(DeleteHashNode(table, "k"));
  EXPECT_EQ(GetHashKeys(table), (std::vector<std::string>{"ab", "u"}));
  FreeHashTable(table);
  EXPECT_FALSE(PutHashNode(table, "ab", 1));
}

TEST(Vector, PositionsAndSortedInsertion) {
  Vector<int> vector;
  int a = 1, b = 2, c = 3, d = 4;
  AddElementByRefPtr(vector, &a);
  AddElementByRefPtr(vector, &c);
  EXPECT_EQ(ElementAt(vector, 1), &c);
  EXPECT_EQ(ElementAt(vector, 2), nullptr);
  EXPECT_EQ(ElementAt(vector, -1), nullptr);
  EXPECT_EQ(InsertElementAt(vector, &d, 2), 1);  // position == count appends
  EXPECT_EQ(InsertElementAt(vector, &b, 1), 1);
  EXPECT_EQ(InsertElementAt(vector, &b, 9), 0);
  EXPECT_EQ(vector.items(), (std::vector<int*>{&a, &b, &c, &d}));
  EXPECT_EQ(GetNthElement(vector, 2, 1), &d);
  EXPECT_EQ(DeleteElementByRefPtr(vector, &c), 1);
  EXPECT_EQ(DeleteElementAt(vector, 0), 1);
  EXPECT_EQ(vector.items(), (std::vector<int*>{&b, &d}));
  EXPECT_EQ(c, 3);  // payloads are never freed or touched

  Vector<int> sorted;
  InitVector<int>(sorted, [](const int* x, const int* y) { return *x - *y; });
  int five = 5, one = 1, three = 3, otherThree = 3;
  for (int* p : {&five, &one, &three}) {
    EXPECT_EQ(AddElementByRefPtr(sorted, p), 1);
  }
  EXPECT_EQ(AddElementByRefPtr(sorted, &otherThree), 0);
  EXPECT_EQ(sorted.items(), (std::vector<int*>{&one, &three, &five}));
  FreeVector(sorted);
  EXPECT_EQ(sorted.count(), 0);
}

TEST(Substrings, SingleForwardScanQuirks) {
  EXPECT_EQ(NumberOfCharsToFirstOccurance("hello world", "world"), 6);
  EXPECT_EQ(NumberOfCharsToFirstOccurance("world", "world"), 0);
  EXPECT_EQ(NumberOfCharsToFirstOccurance("hello", "xyz"), 0);
  EXPECT_EQ(NumberOfCharsToFirstOccurance(nullptr, "x"), -1);
  // The mismatching character is not retried as a new start.
  EXPECT_EQ(NumberOfOccuranceOfSubString("aab", "ab"), 0);
  EXPECT_EQ(NumberOfOccuranceOfSubString("abab", "ab"), 2);
  EXPECT_EQ(NumberOfOccuranceOfSubString("aaaa", "aa"), 2);  // non-overlapping
  EXPECT_EQ(NumberOfOccuranceOfSubString("x", nullptr), -1);

  EXPECT_EQ(*GetStringBeforeSubString("key::value", "::"), "key");
  EXPECT_EQ(*GetStringBeforeSubString("keyvalue", "::"), "");
  EXPECT_EQ(*GetStringAfterSubString("key::value", "::"), "value");
  EXPECT_EQ(*GetStringAfterSubString("keyvalue", "::"), "yvalue");  // first two dropped
  EXPECT_EQ(*GetStringAfterSubString("k", "::"), "");
  EXPECT_FALSE(GetStringAfterSubString(nullptr, "::"));

  EXPECT_EQ(GetTokensListFromString("a,b,c", ","), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(GetTokensListFromString("a,,b,", ","), (std::vector<std::string>{"a", "", "b", ""}));
  EXPECT_EQ(GetTokensListFromString("plain", ","), (std::vector<std::string>{"plain"}));
  EXPECT_EQ(GetTokensListFromString("xaab", "ab"), (std::vector<std::string>{"xaab"}));

  EXPECT_TRUE(FindSubString("aab", "ab"));  // the full search finds what the scan misses
  EXPECT_FALSE(FindSubString("", ""));
  EXPECT_FALSE(FindSubString("ab", "abc"));
}

TEST(CopyHelpers, StoreATerminatedCopy) {
  OptionalBlock slot;
  ASSERT_EQ(AllocateAndDoStrcpy(slot, "text"), 1);
  EXPECT_EQ(slot->size(), 4u);
  EXPECT_STREQ(slot->c_str(), "text");

  const unsigned char bytes[] = {1, 2, 3};
  ASSERT_EQ(AllocateAndDoMemcpy(slot, bytes, sizeof bytes), 1);
  EXPECT_EQ(slot->size(), 3u);
  EXPECT_EQ(slot->data()[2], 3);
  EXPECT_EQ(slot->data()[3], 0);  // the extra zero byte
  EXPECT_EQ(slot->Read<std::int32_t>(), 0x030201);  // short blocks read zero-padded

  EXPECT_EQ(AllocateAndDoStrcpy(slot, nullptr), 99);
  EXPECT_FALSE(slot);
}

TEST(ResourceLocks, TakeAndGiveBackAnswers) {
  int key = 0;
  EXPECT_EQ(HandleResource(&key, kResourceTake), kResourceTaken);
  EXPECT_EQ(HandleResource(&key, kResourceTake), kResourceBusy);
  EXPECT_EQ(HandleResource(&key, kResourceClean), 1);
  EXPECT_EQ(HandleResource(&key, kResourceTake), kResourceBusy);  // clean released nothing
  EXPECT_EQ(HandleResource(&key, kResourceGiveBack), kResourceReleased);
  EXPECT_EQ(HandleResource(&key, kResourceGiveBack), kResourceBusy);
}

TEST(ResourceLocks, SynchronizeWaitsForTheHolder) {
  int key = 0;
  int shared = 0;
  SynchronizeResource(&key);
  std::thread other([&] {
    ResourceGuard guard(&key);
    shared += 10;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  shared = 1;  // still ours: the other thread is polling
  UnsynchronizeResource(&key);
  other.join();
  EXPECT_EQ(shared, 11);
  const auto first = NextResourceWaitDelay();
  EXPECT_EQ(NextResourceWaitDelay(), first + 10);  // the delay only grows
}

}  // namespace
}  // namespace tarn
