#include <gtest/gtest.h>
#include <qor/qor_hashutil.h>

#include <cctype>
#include <cstring>
#include <random>
#include <string>

namespace {

class qorHashUtilTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { qorHashInitialize(); }
};

std::string randomText(std::mt19937& random, size_t length) {
  std::string text(length, 'a');
  for (char& c : text) c = static_cast<char>(1 + random() % 255);  // any byte but the terminator
  return text;
}

}  // namespace

TEST(qorNextHashSize, PicksTheSmallestPrimeAtLeastN) {
  EXPECT_EQ(qorNextHashSize(0), 3u);
  EXPECT_EQ(qorNextHashSize(1), 3u);
  EXPECT_EQ(qorNextHashSize(3), 3u);
  EXPECT_EQ(qorNextHashSize(4), 11u);
  EXPECT_EQ(qorNextHashSize(11), 11u);
  EXPECT_EQ(qorNextHashSize(12), 29u);
  EXPECT_EQ(qorNextHashSize(3238020942u), 3238020943u);
  EXPECT_EQ(qorNextHashSize(3238020943u), 3238020943u);
  EXPECT_EQ(qorNextHashSize(4294967295u), 3238020943u);
}

TEST(qorNextHashSize, LadderIsAscendingAndPrime) {
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

TEST_F(qorHashUtilTest, TableIsFixed) {
  EXPECT_EQ(qorHashData[0], 1115394567u);
  EXPECT_EQ(qorHashData[1], 1626644456u);
  EXPECT_EQ(qorHashData[2], 3790583965u);
  EXPECT_EQ(qorHashData[256], 1484194932u);
  const unsigned last = qorHashData[65535];
  qorHashInitialize();
  qorHashUninitialize();
  EXPECT_EQ(qorHashData[65535], last);
}

TEST_F(qorHashUtilTest, KnownValues) {
  EXPECT_EQ(qorXorHashString(""), 1484194932u);
  EXPECT_EQ(qorXorHashString("a"), 1288684982u);
  EXPECT_EQ(qorXorHashString("abc"), 3359717681u);
  EXPECT_EQ(qorXorHashBytes(3, "abc"), 1612613984u);
  EXPECT_EQ(qorXorHashStringNoCase("ABC"), qorXorHashString("abc"));
  EXPECT_EQ(qorXorHashStringNoCase("abc"), qorXorHashString("abc"));
  EXPECT_EQ(qorMultHashString("a"), 140282273u);
  EXPECT_EQ(qorMultHashString("abc"), 2151005830u);
  EXPECT_EQ(qorMultHashString("\xE9"), 4261704489u);
  EXPECT_EQ(qorMultHashString(""), 0u);
}

TEST_F(qorHashUtilTest, NullsHashToZero) {
  const char* null = nullptr;
  EXPECT_EQ(qorXorHashString(null), 0u);
  EXPECT_EQ(qorXorHashStringNoCase(null), 0u);
  EXPECT_EQ(qorMultHashString(null), 0u);
  EXPECT_EQ(qorXorHashBytes(5, nullptr), 0u);
  EXPECT_EQ(qorXorHashBytes(0, "abc"), 0u);
  const void* nullPointer = nullptr;
  EXPECT_EQ(qorHashPointer(nullPointer), 0u);
}

TEST_F(qorHashUtilTest, Position255UsesRowZero) {
  std::string text(256, 'x');
  text[255] = '\x07';
  unsigned expected = 0;
  for (unsigned i = 0; i < 256; ++i) {
    expected ^= qorHashData[((i + 1) % 256) * 256 + static_cast<unsigned char>(text[i])];
  }
  EXPECT_EQ(qorXorHashBytes(256, text.data()), expected);
  EXPECT_EQ(qorXorHashString(text.c_str()), expected ^ qorHashData[257 % 256 * 256]);
}

TEST_F(qorHashUtilTest, PassThroughAndPointer) {
  EXPECT_EQ(qorPassthruHashUInt32(7u), 7u);
  EXPECT_EQ(qorHashULong(4000000000u), 4000000000u);
  EXPECT_EQ(qorPassthruHashInt32(-1), 0xFFFFFFFFu);
  EXPECT_EQ(qorHashLong(-2), 0xFFFFFFFEu);
  const char bytes[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  const void* p = bytes;
  EXPECT_EQ(qorHashPointer(p), qorXorHashBytes(8, bytes));
}

// Properties over many generated strings: case folding matches hashing the
// lower-cased text, and the byte hash differs from the string hash by exactly
// the terminator term.
TEST_F(qorHashUtilTest, PropertiesOverGeneratedStrings) {
  std::mt19937 random(20261123);
  for (int round = 0; round < 5000; ++round) {
    const std::string text = randomText(random, random() % 600);
    std::string lower = text;
    for (char& c : lower) c = static_cast<char>(tolower(static_cast<signed char>(c)));
    const char* s = text.c_str();
    const char* l = lower.c_str();
    ASSERT_EQ(qorXorHashStringNoCase(s), qorXorHashString(l)) << "seed 20261123 round " << round;
    const unsigned terminator = qorHashData[((text.size() + 1) % 256) * 256];
    ASSERT_EQ(qorXorHashBytes(static_cast<unsigned>(text.size()), s) ^ terminator, qorXorHashString(s));
  }
}

// The hashes are computed several bytes at a time; a plain byte-by-byte
// oracle over every length from 0 to 600 catches a slip at any remainder.
TEST_F(qorHashUtilTest, MatchesByteByByteOracles) {
  std::mt19937 random(77);
  for (size_t length = 0; length <= 600; ++length) {
    const std::string text = randomText(random, length);
    unsigned xorHash = 0;
    unsigned multHash = 0;
    for (size_t i = 0; i < length; ++i) {
      const unsigned char byte = static_cast<unsigned char>(text[i]);
      xorHash ^= qorHashData[((i + 1) % 256) * 256 + byte];
      multHash = (multHash + static_cast<unsigned>(static_cast<signed char>(byte)) * 733u) * 1973u;
    }
    const char* s = text.c_str();
    ASSERT_EQ(qorXorHashBytes(static_cast<unsigned>(length), s), length == 0 ? 0u : xorHash) << length;
    ASSERT_EQ(qorXorHashString(s), xorHash ^ qorHashData[((length + 1) % 256) * 256]) << length;
    ASSERT_EQ(qorMultHashString(s), multHash) << length;
  }
}
