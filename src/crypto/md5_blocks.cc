#include "crypto/md5_blocks.h"

#include <array>
#include <bit>
#include <cstring>
#include <utility>

namespace zu::crypto {
namespace {

constexpr size_t kBlockSize = 64;
constexpr size_t kStepCount = 64;
constexpr size_t kRoundLength = 16;  // Steps, each with its message word.
// Message words that a block fills; the steps of the other eight, which are
// zero, add none.
constexpr size_t kWordCount = kBlockSize / sizeof(uint64_t);

// What the steps of one round have in common.
struct Round {
  std::array<int, 4> shifts;  // Taken in turn.
  size_t first_word;          // The message word of the first step ...
  size_t word_stride;         // ... and from one step to the next.
};

constexpr std::array<Round, kStepCount / kRoundLength> kRounds = {{
    {{7, 12, 17, 22}, 0, 1},
    {{5, 9, 14, 20}, 1, 5},
    {{4, 11, 16, 23}, 5, 3},
    {{6, 10, 15, 21}, 0, 7},
}};

// floor(2^32 * |sin(step + 1)|)
constexpr std::array<uint32_t, kStepCount> kConstants = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a,
    0xa8304613, 0xfd469501, 0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be,
    0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821, 0xf61e2562, 0xc040b340,
    0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8,
    0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c,
    0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70, 0x289b7ec6, 0xeaa127fa,
    0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92,
    0xffeff47d, 0x85845dd1, 0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1,
    0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

uint64_t LoadWord(const std::byte* block, size_t index) {
  static_assert(std::endian::native == std::endian::little);
  uint64_t word;
  std::memcpy(&word, block + index * sizeof word, sizeof word);
  return word;
}

// The digest is one chain of dependent operations: a step needs what the step
// before it made, its `b`. So all that does not need `b` is summed ahead, and
// from `b` to the new `a`, which is the next step's `b`, the way is as short as
// it can be: 6, 5, 5 and 6 operations in the four rounds, 352 in a block.
template <size_t kStep>
void Step(const std::byte* block, uint64_t& a, uint64_t b, uint64_t c,
          uint64_t d) {
  constexpr size_t kRoundNumber = kStep / kRoundLength;
  constexpr Round kRound = kRounds[kRoundNumber];
  constexpr size_t kWord =
      (kRound.first_word + kStep * kRound.word_stride) % kRoundLength;
  constexpr int kShift = kRound.shifts[kStep % kRound.shifts.size()];

  uint64_t sum = a + kConstants[kStep];
  if constexpr (kWord < kWordCount) sum += LoadWord(block, kWord);
  // The second round's function is (b & d) | (c & ~d), whose halves have no bit
  // in common: their sum is the same, and one of them can be added ahead.
  if constexpr (kRoundNumber == 1) sum += c & ~d;
  // Compilers regroup sums: clang would add the constants last, which costs it
  // a sixth. What is summed above this line stays ahead of what follows.
  asm("" : "+r"(sum));
  if constexpr (kRoundNumber == 0) sum += ((c ^ d) & b) ^ d;
  if constexpr (kRoundNumber == 1) sum += b & d;
  if constexpr (kRoundNumber == 2) sum += (c ^ d) ^ b;
  if constexpr (kRoundNumber == 3) sum += (b | ~d) ^ c;
  // A rotation of 32 bits made on 64, so no rotation: the two halves overlap,
  // and what is above bit 31 comes down.
  a = b + (sum << kShift | sum >> (32 - kShift));
}

// All steps, unrolled: the working values trade places instead of moving.
template <size_t... kSteps>
void CompressBlock(const std::byte* block, uint64_t* state,
                   std::index_sequence<kSteps...>) {
  uint64_t s[] = {state[0], state[1], state[2], state[3]};
  (Step<kSteps>(
       block, s[(kStepCount - kSteps) % 4], s[(kStepCount - kSteps + 1) % 4],
       s[(kStepCount - kSteps + 2) % 4], s[(kStepCount - kSteps + 3) % 4]),
   ...);
  // Not a loop: g++ 12 would run it on vectors, and `s` through memory.
  state[0] += s[0];
  state[1] += s[1];
  state[2] += s[2];
  state[3] += s[3];
}

}  // namespace

void CompressMd5(uint64_t* state, const std::byte* blocks, size_t count) {
  // A copy, to stay in registers from block to block.
  uint64_t total[] = {state[0], state[1], state[2], state[3]};
  for (; count != 0; --count, blocks += kBlockSize) {
    CompressBlock(blocks, total, std::make_index_sequence<kStepCount>());
  }
  std::memcpy(state, total, sizeof total);
}

}  // namespace zu::crypto
