#include <gtest/gtest.h>
#include <qor/qor_exception.h>
#include <qor/qor_strings.h>

#include <cstring>
#include <random>
#include <string>

#include "qor_test_support.h"

using qortest::raisedText;
using qortest::startsWith;

TEST(qorMalloc, ZeroGivesNullOtherwiseZeroBytes) {
  EXPECT_EQ(qorMalloc(0), nullptr);
  char* p = qorMalloc(5);
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(p[i], 0);
  qorFree(p);
  qorFree(nullptr);
}

TEST(qorStrdup, CopiesWithTerminator) {
  EXPECT_EQ(qorStrdup(nullptr), nullptr);
  char* empty = qorStrdup("");
  EXPECT_EQ(empty[0], '\0');
  delete[] empty;
  const char* text = "hello";
  char* copy = qorStrdup(text);
  EXPECT_NE(copy, text);
  EXPECT_STREQ(copy, "hello");
  delete[] copy;
}

TEST(qorStrcmp, NullReadsAsEmpty) {
  EXPECT_EQ(qorStrcmp(nullptr, ""), 0);
  EXPECT_EQ(qorStrcmp(nullptr, nullptr), 0);
  EXPECT_LT(qorStrcmp(nullptr, "a"), 0);
  EXPECT_GT(qorStrcmp("a", nullptr), 0);
  EXPECT_EQ(qorStricmp("ABC", "abc"), 0);
  EXPECT_EQ(qorStricmp(nullptr, ""), 0);
  EXPECT_LT(qorStricmp("abc", "ABD"), 0);
}

TEST(qorStrcpy, ChecksDestinationFirst) {
  EXPECT_TRUE(
      startsWith(raisedText([] { qorStrcpy(nullptr, nullptr); }), "NULL Pointer: dst\n [file qor_strings line "));
  EXPECT_TRUE(startsWith(raisedText([] {
                           char buffer[4];
                           qorStrcpy(buffer, nullptr);
                         }),
                         "NULL Pointer: src\n [file qor_strings line "));
  char buffer[8];
  EXPECT_EQ(qorStrcpy(buffer, "abc"), buffer);
  EXPECT_STREQ(buffer, "abc");
}

TEST(qorStrncpy, IsStrncpy) {
  char buffer[6] = "zzzzz";
  EXPECT_EQ(qorStrncpy(buffer, "ab", 4), buffer);
  EXPECT_EQ(0, memcmp(buffer, "ab\0\0z", 6));
}

TEST(qorStradd, JoinsIntoNewBufferOrReturnsFirst) {
  char ab[] = "ab";
  EXPECT_EQ(qorStradd(ab, nullptr), ab);
  char* joined = qorStradd(ab, "cd");
  EXPECT_STREQ(joined, "abcd");
  EXPECT_STREQ(ab, "ab");
  qorFree(joined);
  char* empty = qorStradd(ab, "");
  EXPECT_NE(empty, ab);
  EXPECT_STREQ(empty, "ab");
  qorFree(empty);
  EXPECT_TRUE(startsWith(raisedText([] { qorStradd(nullptr, "x"); }), "NULL Pointer: dst\n [file qor_strings line "));
}

TEST(qorToLower, ChangesOnlyAsciiLettersInDefaultLocale) {
  char text[] = "AbC-123 xYz\xC9";
  qorToLower(text);
  EXPECT_STREQ(text, "abc-123 xyz\xC9");
  qorToUpper(text);
  EXPECT_STREQ(text, "ABC-123 XYZ\xC9");
  qorToLower(nullptr);
  qorToUpper(nullptr);
}

TEST(qorInsertCommas, GroupsFromTheRight) {
  struct Case {
    const char* in;
    unsigned frequency;
    const char* out;
  } cases[] = {
      {"1234567", 3, "1,234,567"},
      {"123456", 3, "123,456"},
      {"123", 3, "123"},
      {"1234", 2, "12,34"},
      {"1234", 1, "1,2,3,4"},
      {"-123456", 3, "-,123,456"},
      {"", 1, ""},
      {"", 5, ""},
      {"12", 7, "12"},
      {"1234567890", 4, "12,3456,7890"},
  };
  for (const Case& c : cases) {
    std::string out = "stale";
    qorInsertCommas(out, c.in, c.frequency, ',');
    EXPECT_EQ(out, c.out) << c.in << " / " << c.frequency;
  }
  std::string dotted;
  qorInsertCommas(dotted, "1000000", 3, '.');
  EXPECT_EQ(dotted, "1.000.000");
}

TEST(qorInsertCommas, SameStringAsOutputAndInput) {
  std::string value = "1234567";
  qorInsertCommas(value, value, 3, ',');
  EXPECT_EQ(value, "1,234,567");
}

TEST(qorInsertCommas, ZeroFrequencyRaisesEvenForEmptyInput) {
  EXPECT_TRUE(startsWith(raisedText([] {
                           std::string out;
                           qorInsertCommas(out, "", 0, ',');
                         }),
                         "frequency > 0\n [file qor_strings line "));
}

// Removing the separators gives back the input, and every group but the first
// is exactly `frequency` long, over many generated digit strings.
TEST(qorInsertCommas, RoundTripOverGeneratedInputs) {
  std::mt19937 random(1234);
  for (int round = 0; round < 2000; ++round) {
    std::string in(random() % 40, '0');
    for (char& c : in) c = static_cast<char>('0' + random() % 10);
    const unsigned frequency = 1 + random() % 6;
    std::string out;
    qorInsertCommas(out, in, frequency, ',');
    std::string stripped;
    size_t groupLength = 0;
    bool firstGroup = true;
    for (char c : out) {
      if (c == ',') {
        if (!firstGroup) {
          ASSERT_EQ(groupLength, frequency) << in;
        }
        ASSERT_GT(groupLength, 0u) << in;
        firstGroup = false;
        groupLength = 0;
      } else {
        stripped.push_back(c);
        ++groupLength;
      }
    }
    ASSERT_EQ(stripped, in);
    if (!firstGroup) {
      ASSERT_EQ(groupLength, frequency) << in;
    }
    const size_t expectedSeparators = in.empty() ? 0 : (in.size() - 1) / frequency;
    ASSERT_EQ(out.size(), in.size() + (frequency >= in.size() ? 0 : expectedSeparators)) << in;
  }
}
