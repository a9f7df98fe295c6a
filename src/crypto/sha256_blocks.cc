// One block is 64 rounds over eight working words, and a schedule that makes 64
// words of the block's 16. The rounds are a chain of additions and rotations
// that keeps the integer units busy, so the schedule is left to the vector
// units: two words a vector, a group of 16 words ahead of the rounds that use
// them and woven in between.
#include "crypto/sha256_blocks.h"

#include <bit>
#include <cstring>
#include <utility>

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#endif

#include "crypto/sha256_constants.h"

// Everything below becomes one function for each kind of processor.
#define ZU_INLINE [[gnu::always_inline]] inline

namespace zu::crypto {
namespace {

using Word = uint64_t;
// More than two words would need words of the same vector as their input.
using Pair [[gnu::vector_size(16)]] = Word;

constexpr size_t kBlockSize = 64;
constexpr size_t kRounds = 64;
constexpr size_t kGroup = 16;  // Words that a block holds.
constexpr size_t kPairs = kGroup / 2;
constexpr Word kConstants[kRounds] = {ZU_SHA256_CONSTANTS};
constexpr auto kEachPair = std::make_index_sequence<kPairs>();

// Of the words of a group and their constants, where the rounds find them.
using Sums = Word[kPairs][2];

struct State {
  // The working words a to h, which move down by one in each round. Here they
  // stay where they are, and their names move.
  Word words[8];
  // Of this round, which is the a ^ b of the round before.
  Word b_xor_c;
};

template <size_t kRound>
ZU_INLINE void Round(State& state, Word word_and_constant) {
  const auto word = [&](size_t letter) -> Word& {
    return state.words[(letter - kRound) % 8];
  };
  const Word a = word(0), b = word(1), e = word(4), f = word(5), g = word(6);
  // In this order: e is what the round before worked out last.
  Word sum = word(7) + word_and_constant;
  sum += ((f ^ g) & e) ^ g;
  sum += std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
  word(3) += sum;
  // The majority of a, b and c is b, unless b stands alone.
  const Word a_xor_b = a ^ b;
  word(7) = sum + ((a_xor_b & state.b_xor_c) ^ b) +
            (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22));
  state.b_xor_c = a_xor_b;
}

static_assert(std::endian::native == std::endian::little);
ZU_INLINE Word ReadBigEndian(const std::byte* bytes) {
  uint32_t word;
  std::memcpy(&word, bytes, sizeof word);
  return __builtin_bswap32(word);
}

// The last word of one pair and the first of the next.
ZU_INLINE Pair Between(Pair first, Pair second) {
  return __builtin_shufflevector(first, second, 1, 2);
}

template <int kRotate1, int kRotate2, int kShift>
ZU_INLINE Pair Mix(Pair x) {
  return (x >> kRotate1 | x << (64 - kRotate1)) ^
         (x >> kRotate2 | x << (64 - kRotate2)) ^ x >> kShift;
}

template <size_t kIndex>
ZU_INLINE void StoreSum(Pair words, const Word* constants, Sums& sums) {
  Pair sum;
  std::memcpy(&sum, constants + 2 * kIndex, sizeof sum);
  sum += words;
  std::memcpy(sums[kIndex], &sum, sizeof sum);
  // Through memory, and now: compilers would rather move words between the two
  // kinds of registers, at the cost of both kinds of units, and put the vector
  // instructions of a whole group in one place.
  asm("" : "+m"(sums[kIndex]));
}

// Two rounds, and the pair of words for the two that come 16 later.
template <size_t kIndex>
ZU_INLINE void TwoRounds(State& state, Pair (&words)[kPairs],
                         const Word* next_constants, Sums& sums) {
  const auto pair = [&](size_t ahead) -> Pair& {
    return words[(kIndex + ahead) % kPairs];
  };
  pair(0) +=
      Between(pair(4), pair(5)) + Mix<7, 18, 3>(Between(pair(0), pair(1)));
  Round<2 * kIndex>(state, sums[kIndex][0]);
  pair(0) += Mix<17, 19, 10>(pair(7));
  Round<2 * kIndex + 1>(state, sums[kIndex][1]);
  StoreSum<kIndex>(pair(0), next_constants, sums);
}

template <size_t... kIndex>
ZU_INLINE void Compress(Word* hash, const std::byte* block,
                        std::index_sequence<kIndex...>) {
  State state;
  // Word by word: a copy of the whole would go through vectors, and the first
  // round would wait for it.
  for (size_t i = 0; i < 8; ++i) state.words[i] = hash[i];
  state.b_xor_c = hash[1] ^ hash[2];

  Sums sums;
  Pair words[kPairs] = {Pair{ReadBigEndian(block + 8 * kIndex),
                             ReadBigEndian(block + 8 * kIndex + 4)}...};
  (StoreSum<kIndex>(words[kIndex], kConstants, sums), ...);
#pragma GCC unroll 1
  for (size_t round = kGroup; round < kRounds; round += kGroup) {
    (TwoRounds<kIndex>(state, words, kConstants + round, sums), ...);
  }
  ((Round<2 * kIndex>(state, sums[kIndex][0]),
    Round<2 * kIndex + 1>(state, sums[kIndex][1])),
   ...);

  for (size_t i = 0; i < 8; ++i) hash[i] += state.words[i];
}

ZU_INLINE void CompressAll(Word* hash, const std::byte* blocks, size_t count) {
  for (; count > 0; --count, blocks += kBlockSize) {
    Compress(hash, blocks, kEachPair);
  }
}

void CompressPortable(Word* hash, const std::byte* blocks, size_t count) {
  CompressAll(hash, blocks, count);
}

#if defined(__x86_64__)

// With results in registers of their own (AVX, and BMI2's rotation), half of
// the copies go away.
[[gnu::target("avx,bmi2")]] void CompressAvx(Word* hash,
                                             const std::byte* blocks,
                                             size_t count) {
  CompressAll(hash, blocks, count);
}

// Asks the processor itself, because not every tool chain that we link with
// has what __builtin_cpu_supports needs.
[[gnu::target("xsave")]] bool HasAvxAndBmi2() {
  constexpr unsigned kVectorState = 6;  // The halves of the AVX registers.
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
  if ((c & bit_OSXSAVE) == 0 || (c & bit_AVX) == 0) return false;
  if ((_xgetbv(0) & kVectorState) != kVectorState) return false;
  return __get_cpuid_count(7, 0, &a, &b, &c, &d) && (b & bit_BMI2) != 0;
}

#endif

}  // namespace

std::span<const Sha256Method> Sha256Methods() {
  static constexpr Sha256Method kMethods[] = {
#if defined(__x86_64__)
    {"avx", CompressAvx},
#endif
    {"portable", CompressPortable},
  };
#if defined(__x86_64__)
  // Asked once: in a virtual machine the answer takes many microseconds.
  static const bool has_avx = HasAvxAndBmi2();
  if (!has_avx) return std::span(kMethods).subspan(1);
#endif
  return kMethods;
}

void CompressSha256(uint64_t* hash, const std::byte* blocks, size_t count) {
  Sha256Methods().front().compress(hash, blocks, count);
}

}  // namespace zu::crypto
