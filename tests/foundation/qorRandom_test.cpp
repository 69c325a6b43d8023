#include <gtest/gtest.h>
#include <qor/qor_hashutil.h>
#include <qor/qor_random.h>

#include <climits>
#include <cstdint>

TEST(qorrandom, KnownSequencesAndSeeds) {
  qorHashInitialize();
  qorrandom one(1, 1);
  qorrandom table(12321, 32123);
  for (int expected : {2147482883, 2092764893, 1390461063}) EXPECT_EQ(one.UniformRandom(), expected);
  for (int expected : {1333346939, 1122406919, 102916340}) EXPECT_EQ(table.UniformRandom(), expected);
  EXPECT_EQ(qorrandom(12321, 32123).UniformRandom32(), 1115394567u);
  qorrandom zero(0, 0);  // zero seeds stay zero and give the top output
  for (int i = 0; i < 3; ++i) EXPECT_EQ(zero.UniformRandom(), 2147483561);
  EXPECT_EQ(zero.seed1 | zero.seed2, 0);
  const struct {
    const char* text;
    int seed1, seed2;
  } rows[] = {{"abc", 1212234119, 3522432}, {"", 1484194932, 1}, {nullptr, 1, 1}};
  for (const auto& row : rows) {
    int a = 0, b = 0;
    qorrandom::MakeSeeds(row.text, a, b);
    EXPECT_EQ(a, row.seed1) << (row.text ? row.text : "null");
    EXPECT_EQ(b, row.seed2) << (row.text ? row.text : "null");
    qorrandom fromText(row.text);
    EXPECT_EQ(fromText.seed1, row.seed1);
    EXPECT_EQ(fromText.seed2, row.seed2);
  }
}

// Schrage's method must equal the plain 64-bit modular products; any seeds,
// in or out of range, stay inside int arithmetic (UBSan checks).
TEST(qorrandom, MatchesModularArithmeticOracle) {
  const int seeds[][2] = {{1, 1},   {12321, 32123},           {INT_MAX, INT_MAX}, {INT_MIN, INT_MIN},
                          {-5, 77}, {2147483562, 2147483398}, {53668, 52774}};
  for (const auto& pair : seeds) {
    qorrandom r(pair[0], pair[1]);
    int64_t s1 = pair[0];
    int64_t s2 = pair[1];
    for (int i = 0; i < 1000; ++i) {
      const int value = r.UniformRandom();
      if (s1 >= 0 && s2 >= 0 && s1 < 2147483563 && s2 < 2147483399) {
        s1 = s1 * 40014 % 2147483563;
        s2 = s2 * 40692 % 2147483399;
        int64_t z = s1 - s2;
        if (z <= 0) z += 2147483562;
        ASSERT_EQ(value, z - 1) << pair[0] << "," << pair[1] << " draw " << i;
      }
      ASSERT_GE(value, qorrandom::MinOutput);
      ASSERT_LE(value, qorrandom::MaxOutput);
      s1 = r.seed1;
      s2 = r.seed2;
    }
  }
}
