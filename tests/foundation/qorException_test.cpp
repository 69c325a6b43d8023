#include <gtest/gtest.h>
#include <qor/qor_assert.h>
#include <qor/qor_base2.h>
#include <qor/qor_exception.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "qor_test_support.h"

extern "C" void qorTestThrowFromOtherObject();
extern "C" void qorTestStrcpyNull();

using qortest::raisedText;

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
  EXPECT_TRUE(
      qortest::startsWith(raisedText([] { qorTestStrcpyNull(); }), "NULL Pointer: dst\n [file qor_strings line "));
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
