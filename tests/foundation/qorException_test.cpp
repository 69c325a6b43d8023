#include <gtest/gtest.h>
#include <qor/qor_assert.h>
#include <qor/qor_base2.h>
#include <qor/qor_exception.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qor_test_support.h"

extern "C" void qorTestThrowFromOtherObject();
extern "C" void qorTestStrcpyNull();

using qortest::raisedText;

TEST(qorException, WhatAppendsFileAndLine) {
  EXPECT_EQ(raisedText([] { qorThrow("x", "qor_stream", 7); }), "x [file qor_stream line 7]\n");
}

TEST(qorException, NullAndEmptyFileBecomeUnknown) {
  const std::string expected = "x [file <unknown> line 7]\n";
  EXPECT_EQ(raisedText([] { qorThrow("x", nullptr, 7); }), expected);
  EXPECT_EQ(raisedText([] { qorThrow("x", "", 7); }), expected);
}

TEST(qorException, TrailingNewlineOfMessageStaysBeforeSuffix) {
  EXPECT_EQ(raisedText([] { qorThrow("line\n", "f", 1); }), "line\n [file f line 1]\n");
}

// Catches a buffer too small for long line numbers.
TEST(qorException, EveryDigitOfTheLinePrints) {
  EXPECT_EQ(raisedText([] { qorThrow("m", "f", 2147483647UL); }), "m [file f line 2147483647]\n");
  // The line prints as a signed int.
  EXPECT_EQ(raisedText([] { qorThrow("m", "f", 2147483648UL); }), "m [file f line -2147483648]\n");
}

TEST(qorException, SecondWhatNestsTheFirstAndBothStayValid) {
  qorException* e = qorMakeExceptionToThrow("m", "f", 3);
  char* first = e->what();
  const std::string firstCopy = first;
  char* second = e->what();
  EXPECT_EQ(firstCopy, "m [file f line 3]\n");
  EXPECT_EQ(std::string(first), firstCopy);  // still readable: not freed by the second call
  EXPECT_EQ(std::string(second), "m [file f line 3]\n [file f line 3]\n");
  delete e;
}

// Deleting without what(), with a constant or a composed message, must
// neither free a constant nor leak the composed buffer (ASan/LSan check it).
TEST(qorException, DeleteWithoutWhatNeitherFreesConstantsNorLeaks) {
  delete qorMakeExceptionToThrow("constant", "f", 1);
  try {
    qorTestStrcpyNull();
  } catch (qorException* e) {
    delete e;
  }
}

TEST(qorException, MessageFromCallerIsNeverFreed) {
  char* mine = static_cast<char*>(malloc(8));
  strcpy(mine, "mine");
  qorException* e = qorMakeExceptionToThrow(mine, "f", 1);
  e->what();
  delete e;
  EXPECT_STREQ(mine, "mine");
  free(mine);
}

TEST(qorException, ThrownAsPointerNotObject) {
  bool caughtReference = false;
  bool caughtPointer = false;
  try {
    try {
      qorThrow("m", "f", 1);
    } catch (qorException&) {
      caughtReference = true;
    }
  } catch (qorException* e) {
    caughtPointer = true;
    delete e;
  }
  EXPECT_FALSE(caughtReference);
  EXPECT_TRUE(caughtPointer);
}

TEST(qorException, CaughtAcrossSharedObjects) {
  EXPECT_EQ(raisedText([] { qorTestThrowFromOtherObject(); }), "raised elsewhere [file thrower line 42]\n");
  EXPECT_EQ(raisedText([] { qorTestStrcpyNull(); }).rfind("NULL Pointer: dst\n [file qor_strings line ", 0), 0u);
}

TEST(qorException, MakeStoresFieldsUnchanged) {
  const char* message = "msg";
  qorException* e = qorMakeExceptionToThrow(message, "unit", 99);
  EXPECT_EQ(e->m_Message, message);
  EXPECT_STREQ(e->m_File, "unit");
  EXPECT_EQ(e->m_Line, 99u);
  delete e;
}

TEST(qorNextPowerOfTwoGreaterThan, Edges) {
  EXPECT_EQ(qorNextPowerOfTwoGreaterThan(0), 1u);
  EXPECT_EQ(qorNextPowerOfTwoGreaterThan(1), 2u);
  EXPECT_EQ(qorNextPowerOfTwoGreaterThan(2), 4u);
  EXPECT_EQ(qorNextPowerOfTwoGreaterThan(3), 4u);
  EXPECT_EQ(qorNextPowerOfTwoGreaterThan(4), 8u);
  EXPECT_EQ(qorNextPowerOfTwoGreaterThan(1023), 1024u);
  EXPECT_EQ(qorNextPowerOfTwoGreaterThan(1024), 2048u);
  EXPECT_EQ(qorNextPowerOfTwoGreaterThan(0x40000000u), 0x80000000u);
  EXPECT_EQ(qorNextPowerOfTwoGreaterThan(0x7FFFFFFFu), 0x80000000u);
  EXPECT_EQ(qorNextPowerOfTwoGreaterThan(0x80000000u), 1u);
  EXPECT_EQ(qorNextPowerOfTwoGreaterThan(0x80000005u), 8u);
}

TEST(qorNextPowerOfTwoGreaterThan, AgreesWithShiftOracleBelow2To31) {
  for (unsigned v = 0; v < (1u << 20); ++v) {
    unsigned expected = 1;
    while (expected <= v) expected <<= 1;
    ASSERT_EQ(qorNextPowerOfTwoGreaterThan(v), expected) << v;
  }
}
