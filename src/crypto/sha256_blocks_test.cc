#include "crypto/sha256_blocks.h"

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include "gtest/gtest.h"

namespace zu::crypto {
namespace {

// The digest's vectors try the machine's first method. The others have to do
// the same, from any state, whatever the number of blocks and wherever they
// lie. The states fill their 64 bits, which no state of a short message does.
TEST(Sha256Blocks, EveryMethodDoesTheSame) {
  std::mt19937_64 random(20);
  for (const size_t count : {0, 1, 2, 17}) {
    std::vector<uint64_t> start(8), words(8 * count + 1);
    std::ranges::generate(start, std::ref(random));
    std::ranges::generate(words, std::ref(random));
    const std::byte* const blocks = std::as_bytes(std::span(words)).data() + 3;
    std::vector<uint64_t> expected = start;
    Sha256Methods().front().compress(expected.data(), blocks, count);
    for (const Sha256Method& method : Sha256Methods().subspan(1)) {
      std::vector<uint64_t> hash = start;
      method.compress(hash.data(), blocks, count);
      EXPECT_EQ(hash, expected) << method.name << ", " << count << " blocks";
    }
  }
}

}  // namespace
}  // namespace zu::crypto
