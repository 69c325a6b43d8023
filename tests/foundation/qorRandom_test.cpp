#include <gtest/gtest.h>
#include <qor/qor_hashutil.h>
#include <qor/qor_random.h>

#include <climits>
#include <cstdint>

TEST(qorrandom, KnownSequences) {
  qorrandom one(1, 1);
  EXPECT_EQ(one.UniformRandom(), 2147482883);
  EXPECT_EQ(one.UniformRandom(), 2092764893);
  EXPECT_EQ(one.UniformRandom(), 1390461063);
  qorrandom table(12321, 32123);
  EXPECT_EQ(table.UniformRandom(), 1333346939);
  EXPECT_EQ(table.UniformRandom(), 1122406919);
  EXPECT_EQ(table.UniformRandom(), 102916340);
  qorrandom words(12321, 32123);
  EXPECT_EQ(words.UniformRandom32(), 1115394567u);
}

TEST(qorrandom, Constants) {
  EXPECT_EQ(qorrandom::MinSeed1, 1);
  EXPECT_EQ(qorrandom::MaxSeed1, 2147483562);
  EXPECT_EQ(qorrandom::MinSeed2, 1);
  EXPECT_EQ(qorrandom::MaxSeed2, 2147483398);
  EXPECT_EQ(qorrandom::MinOutput, 0);
  EXPECT_EQ(qorrandom::MaxOutput, 2147483561);
}

TEST(qorrandom, MakeSeedsFromText) {
  qorHashInitialize();
  int a = 0;
  int b = 0;
  qorrandom::MakeSeeds("abc", a, b);
  EXPECT_EQ(a, 1212234119);
  EXPECT_EQ(b, 3522432);
  qorrandom::MakeSeeds("", a, b);
  EXPECT_EQ(a, 1484194932);
  EXPECT_EQ(b, 1);
  qorrandom::MakeSeeds(nullptr, a, b);
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, 1);
  qorrandom fromText("abc");
  EXPECT_EQ(fromText.seed1, 1212234119);
  EXPECT_EQ(fromText.seed2, 3522432);
  qorrandom fromNull(static_cast<const char*>(nullptr));
  EXPECT_EQ(fromNull.seed1, 1);
}

TEST(qorrandom, ZeroSeedsStayZero) {
  qorrandom r(0, 0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(r.UniformRandom(), 2147483561);
  EXPECT_EQ(r.seed1, 0);
  EXPECT_EQ(r.seed2, 0);
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
