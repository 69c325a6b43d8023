#include <gtest/gtest.h>
#include <qor/qor_assert.h>
#include <qor/qor_base2.h>
#include <qor/qor_exception.h>
#include <qor/qor_strings.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "qor_test_support.h"

extern "C" void qorTestThrowFromOtherObject();

using qortest::raisedText;
using qortest::startsWith;

TEST(qorException, WhatAppendsFileAndLine) {
  struct Row {
    const char* message;
    const char* file;
    unsigned long line;
    const char* expected;
  } rows[] = {
      {"x", "qor_stream", 7, "x [file qor_stream line 7]\n"},
      {"x", nullptr, 7, "x [file <unknown> line 7]\n"},
      {"x", "", 7, "x [file <unknown> line 7]\n"},
      {"line\n", "f", 1, "line\n [file f line 1]\n"},
      {"m", "f", 2147483647UL, "m [file f line 2147483647]\n"},   // every digit fits
      {"m", "f", 2147483648UL, "m [file f line -2147483648]\n"},  // the line prints as a signed int
  };
  for (const Row& row : rows) {
    EXPECT_EQ(raisedText([&] { qorThrow(row.message, row.file, row.line); }), row.expected) << row.expected;
  }
}

// A second what() nests the first text; the first result stays readable and
// the caller's message is never freed (ASan checks the frees and leaks).
TEST(qorException, LifetimeOfMessages) {
  char* mine = static_cast<char*>(malloc(8));
  strcpy(mine, "m");
  qorException* e = qorMakeExceptionToThrow(mine, "f", 3);
  EXPECT_EQ(e->m_Message, mine);
  EXPECT_EQ(e->m_Line, 3u);
  char* first = e->what();
  char* second = e->what();
  EXPECT_STREQ(first, "m [file f line 3]\n");
  EXPECT_STREQ(second, "m [file f line 3]\n [file f line 3]\n");
  delete e;
  EXPECT_STREQ(mine, "m");
  free(mine);
  delete qorMakeExceptionToThrow("constant", "f", 1);  // deleted without what()
}

TEST(qorException, ThrownAsPointerAcrossSharedObjects) {
  bool caughtReference = false;
  try {
    try {
      qorTestThrowFromOtherObject();
    } catch (qorException&) {
      caughtReference = true;
    }
  } catch (qorException* e) {
    EXPECT_STREQ(e->what(), "raised elsewhere [file thrower line 42]\n");
    delete e;
  }
  EXPECT_FALSE(caughtReference);
}

TEST(qorNextPowerOfTwoGreaterThan, EdgesAndShiftOracle) {
  const unsigned edges[][2] = {
      {0x40000000u, 0x80000000u}, {0x7FFFFFFFu, 0x80000000u}, {0x80000000u, 1u}, {0x80000005u, 8u}};
  for (const auto& edge : edges) EXPECT_EQ(qorNextPowerOfTwoGreaterThan(edge[0]), edge[1]) << edge[0];
  for (unsigned v = 0; v < (1u << 20); ++v) {
    unsigned expected = 1;
    while (expected <= v) expected <<= 1;
    ASSERT_EQ(qorNextPowerOfTwoGreaterThan(v), expected) << v;
  }
}

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
  const struct {
    int actual, sign;
  } compares[] = {{qorStrcmp(nullptr, ""), 0},   {qorStrcmp(nullptr, nullptr), 0}, {qorStrcmp(nullptr, "a"), -1},
                  {qorStrcmp("a", nullptr), 1},  {qorStricmp("ABC", "abc"), 0},    {qorStricmp(nullptr, ""), 0},
                  {qorStricmp("abc", "ABD"), -1}};
  for (const auto& c : compares) EXPECT_EQ((c.actual > 0) - (c.actual < 0), c.sign) << &c - compares;
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
      {"-123456", 3, ',', "-,123,456"},
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
