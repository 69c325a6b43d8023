#include <gtest/gtest.h>
#include <qor/qor_hashutil.h>
#include <qor/qor_random.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <random>
#include <string>

namespace {

class qorHashUtilTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { qorHashInitialize(); }
};

}  // namespace

TEST(qorNextHashSize, PicksTheSmallestPrimeAtLeastN) {
  // clang-format off
  const unsigned long long rows[][2] = {{0, 3}, {1, 3}, {3, 3}, {4, 11}, {11, 11}, {12, 29}, {3238020942u, 3238020943u},
                                        {3238020943u, 3238020943u}, {4294967295u, 3238020943u}};
  // clang-format on
  for (const auto& row : rows) EXPECT_EQ(qorNextHashSize(row[0]), row[1]) << row[0];
  ASSERT_EQ(qorNumHashPrimes, 20);
  EXPECT_EQ(qorMinHashPrime, 3u);
  EXPECT_EQ(qorMaxHashPrime, 3238020943u);
  for (int i = 0; i < qorNumHashPrimes; ++i) {
    const unsigned long long p = qorHashPrimes[i];
    if (i > 0) {
      EXPECT_GT(p, qorHashPrimes[i - 1]);
    }
    for (unsigned long long d = 2; d * d <= p; ++d) ASSERT_NE(p % d, 0u) << p;
  }
}

TEST_F(qorHashUtilTest, KnownValues) {
  const char* null = nullptr;
  const void* nullPointer = nullptr;
  const char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  const void* eightBytes = bytes;
  const struct {
    const char* label;
    unsigned long long actual, expected;
  } rows[] = {
      {"table[0]", qorHashData[0], 1115394567u},
      {"table[256]", qorHashData[256], 1484194932u},
      {"xor empty", qorXorHashString(""), 1484194932u},
      {"xor abc", qorXorHashString("abc"), 3359717681u},
      {"bytes abc", qorXorHashBytes(3, "abc"), 1612613984u},
      {"nocase ABC", qorXorHashStringNoCase("ABC"), 3359717681u},
      {"mult abc", qorMultHashString("abc"), 2151005830u},
      {"mult high byte", qorMultHashString("\xE9"), 4261704489u},
      {"mult empty", qorMultHashString(""), 0},
      {"xor null", qorXorHashString(null), 0},
      {"nocase null", qorXorHashStringNoCase(null), 0},
      {"mult null", qorMultHashString(null), 0},
      {"bytes null", qorXorHashBytes(5, nullptr), 0},
      {"bytes none", qorXorHashBytes(0, "abc"), 0},
      {"pointer null", qorHashPointer(nullPointer), 0},
      {"pointer", qorHashPointer(eightBytes), qorXorHashBytes(8, bytes)},
      {"uint32", qorPassthruHashUInt32(7u), 7},
      {"ulong", qorHashULong(4000000000u), 4000000000u},
      {"int32", qorPassthruHashInt32(-1), 0xFFFFFFFFu},
      {"long", qorHashLong(-2), 0xFFFFFFFEu},
  };
  for (const auto& row : rows) EXPECT_EQ(row.actual, row.expected) << row.label;
}

// The hashes work several bytes at a time; byte-by-byte oracles over every
// length from 0 to 600 catch a slip at any remainder or at position 255.
TEST_F(qorHashUtilTest, MatchesByteByByteOracles) {
  std::mt19937 random(77);
  for (size_t length = 0; length <= 600; ++length) {
    std::string text(length, 'a');
    for (char& c : text) c = static_cast<char>(1 + random() % 255);
    std::string lower = text;
    for (char& c : lower) c = static_cast<char>(tolower(static_cast<signed char>(c)));
    unsigned xorHash = 0;
    unsigned multHash = 0;
    for (size_t i = 0; i < length; ++i) {
      const unsigned char byte = static_cast<unsigned char>(text[i]);
      xorHash ^= qorHashData[((i + 1) % 256) * 256 + byte];
      multHash = (multHash + static_cast<unsigned>(static_cast<signed char>(byte)) * 733u) * 1973u;
    }
    const char* s = text.c_str();
    const char* l = lower.c_str();
    ASSERT_EQ(qorXorHashBytes(static_cast<unsigned>(length), s), length == 0 ? 0u : xorHash) << length;
    ASSERT_EQ(qorXorHashString(s), xorHash ^ qorHashData[((length + 1) % 256) * 256]) << length;
    ASSERT_EQ(qorMultHashString(s), multHash) << length;
    ASSERT_EQ(qorXorHashStringNoCase(s), qorXorHashString(l)) << length;
  }
}

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
