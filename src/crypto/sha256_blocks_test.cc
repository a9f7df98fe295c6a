#include "crypto/sha256_blocks.h"

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/crypto/plain_digests.h"

namespace zu::crypto {
namespace {

// Every method, from any state, whatever the number of blocks and wherever
// they lie. The states fill their 64 bits, which no state of a short message
// does.
TEST(Sha256Blocks, EveryMethodGivesWhatThePlainFormGives) {
  ASSERT_FALSE(Sha256Methods().empty());
  std::mt19937_64 random(20);
  for (const size_t count : {0, 1, 2, 3, 8, 17}) {
    const size_t offset = random() % 16;
    std::vector<std::byte> bytes(offset + 64 * count);
    std::generate(bytes.begin(), bytes.end(),
                  [&] { return std::byte(random()); });
    std::vector<uint64_t> start(8);
    std::generate(start.begin(), start.end(), std::ref(random));
    std::vector<uint64_t> expected = start;
    for (size_t i = 0; i < count; ++i) {
      test::PlainSha256Block(expected.data(), bytes.data() + offset + 64 * i);
    }
    for (const Sha256Method& method : Sha256Methods()) {
      std::vector<uint64_t> hash = start;
      method.compress(hash.data(), bytes.data() + offset, count);
      EXPECT_EQ(hash, expected) << method.name << ", " << count << " blocks";
    }
  }
}

}  // namespace
}  // namespace zu::crypto
