#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_strings.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "qor_test_support.h"

using qortest::raisedText;
using qortest::startsWith;

TEST(qorStrings, CopiesComparesAndCases) {
  EXPECT_EQ(qorMalloc(0), nullptr);
  char* zeroed = qorMalloc(5);
  EXPECT_EQ(std::string(zeroed, 5), std::string(5, '\0'));
  qorFree(zeroed);
  qorFree(nullptr);
  EXPECT_EQ(qorStrdup(nullptr), nullptr);
  const char* text = "hello";
  char* copy = qorStrdup(text);
  EXPECT_NE(copy, text);
  EXPECT_STREQ(copy, "hello");
  delete[] copy;
  EXPECT_EQ(qorStrcmp(nullptr, ""), 0);
  EXPECT_EQ(qorStrcmp(nullptr, nullptr), 0);
  EXPECT_LT(qorStrcmp(nullptr, "a"), 0);
  EXPECT_GT(qorStrcmp("a", nullptr), 0);
  EXPECT_EQ(qorStricmp("ABC", "abc"), 0);
  EXPECT_EQ(qorStricmp(nullptr, ""), 0);
  EXPECT_LT(qorStricmp("abc", "ABD"), 0);
  char buffer[8] = "zzzzzzz";
  EXPECT_EQ(qorStrncpy(buffer, "ab", 4), buffer);
  EXPECT_EQ(0, memcmp(buffer, "ab\0\0zzz", 8));
  EXPECT_EQ(qorStrcpy(buffer, "abc"), buffer);
  EXPECT_STREQ(buffer, "abc");
  char mixed[] = "AbC-123 xYz\xC9";  // only ASCII letters change in the default locale
  qorToLower(mixed);
  EXPECT_STREQ(mixed, "abc-123 xyz\xC9");
  qorToUpper(mixed);
  EXPECT_STREQ(mixed, "ABC-123 XYZ\xC9");
  qorToLower(nullptr);
  qorToUpper(nullptr);
}

TEST(qorStrings, StraddJoinsIntoANewBufferOrReturnsTheFirst) {
  char ab[] = "ab";
  EXPECT_EQ(qorStradd(ab, nullptr), ab);
  for (const char* second : {"cd", ""}) {
    char* joined = qorStradd(ab, second);
    EXPECT_NE(joined, ab);
    EXPECT_EQ(std::string(joined), std::string("ab") + second);
    qorFree(joined);
  }
  EXPECT_STREQ(ab, "ab");
}

TEST(qorStrings, NullArgumentsRaise) {
  char buffer[4];
  const struct {
    std::function<void()> call;
    const char* prefix;
  } rows[] = {
      {[] { qorStrcpy(nullptr, nullptr); }, "NULL Pointer: dst\n [file qor_strings line "},
      {[&] { qorStrcpy(buffer, nullptr); }, "NULL Pointer: src\n [file qor_strings line "},
      {[] { qorStradd(nullptr, "x"); }, "NULL Pointer: dst\n [file qor_strings line "},
      {[] {
         std::string out;
         qorInsertCommas(out, "", 0, ',');
       },
       "frequency > 0\n [file qor_strings line "},
  };
  for (const auto& row : rows) EXPECT_TRUE(startsWith(raisedText(row.call), row.prefix)) << row.prefix;
}

TEST(qorInsertCommas, GroupsFromTheRight) {
  const struct {
    const char* in;
    unsigned frequency;
    char separator;
    const char* out;
  } rows[] = {
      {"1234567", 3, ',', "1,234,567"},
      {"123456", 3, ',', "123,456"},
      {"123", 3, ',', "123"},
      {"1234", 2, ',', "12,34"},
      {"1234", 1, ',', "1,2,3,4"},
      {"-123456", 3, ',', "-,123,456"},
      {"", 1, ',', ""},
      {"12", 7, ',', "12"},
      {"1234567890", 4, ',', "12,3456,7890"},
      {"1000000", 3, '.', "1.000.000"},
  };
  for (const auto& row : rows) {
    std::string out = "stale";
    qorInsertCommas(out, row.in, row.frequency, row.separator);
    EXPECT_EQ(out, row.out) << row.in << " / " << row.frequency;
  }
  std::string same = "1234567";  // output and input the same string
  qorInsertCommas(same, same, 3, ',');
  EXPECT_EQ(same, "1,234,567");
}

// Removing the separators gives back the input, and the groups read from the
// right are all `frequency` long but the first, over many generated inputs.
TEST(qorInsertCommas, RoundTripOverGeneratedInputs) {
  std::mt19937 random(1234);
  for (int round = 0; round < 2000; ++round) {
    std::string in(random() % 40, '0');
    for (char& c : in) c = static_cast<char>('0' + random() % 10);
    const unsigned frequency = 1 + random() % 6;
    std::string out;
    qorInsertCommas(out, in, frequency, ',');
    std::string expected;
    for (size_t i = 0; i < in.size(); ++i) {
      if (i > 0 && (in.size() - i) % frequency == 0) expected.push_back(',');
      expected.push_back(in[i]);
    }
    ASSERT_EQ(out, expected) << in << " / " << frequency;
  }
}
