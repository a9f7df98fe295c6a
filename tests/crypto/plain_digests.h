// The compression functions of the two digests as their definitions read, to
// compare the library's with. Slow on purpose; the constants are worked out and
// not copied.
#ifndef ZU_TESTS_CRYPTO_PLAIN_DIGESTS_H_
#define ZU_TESTS_CRYPTO_PLAIN_DIGESTS_H_

#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zu::test {

inline void PlainMd5Block(uint64_t* state, const std::byte* block) {
  constexpr int kShifts[4][4] = {
      {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
  uint64_t x[16] = {};  // The block and 64 zero bytes.
  for (int i = 0; i < 64; ++i) {
    x[i / 8] |= std::to_integer<uint64_t>(block[i]) << (8 * (i % 8));
  }
  uint64_t a = state[0], b = state[1], c = state[2], d = state[3];
  for (int i = 0; i < 64; ++i) {
    uint64_t f = 0;
    int k = 0;
    if (i < 16) {
      f = (b & c) | (~b & d), k = i;
    } else if (i < 32) {
      f = (b & d) | (c & ~d), k = (5 * i + 1) % 16;
    } else if (i < 48) {
      f = b ^ c ^ d, k = (3 * i + 5) % 16;
    } else {
      f = c ^ (b | ~d), k = 7 * i % 16;
    }
    const auto sine =
        static_cast<uint64_t>(std::fabs(std::sin(i + 1)) * 4294967296.0);
    const uint64_t sum = a + f + x[k] + sine;
    const int s = kShifts[i / 16][i % 4];
    a = d, d = c, c = b;
    b += (sum << s) | (sum >> (32 - s));
  }
  state[0] += a, state[1] += b, state[2] += c, state[3] += d;
}

// The first 32 bits behind the point of the cube root of each of the first 64
// primes.
inline std::array<uint64_t, 64> CubeRootFractions() {
  std::array<uint64_t, 64> fractions{};
  size_t count = 0;
  for (int number = 2; count < fractions.size(); ++number) {
    bool prime = true;
    for (int i = 2; i * i <= number; ++i) prime = prime && number % i != 0;
    if (!prime) continue;
    const long double root = std::cbrt(static_cast<long double>(number));
    fractions[count++] =
        static_cast<uint64_t>((root - std::floor(root)) * 4294967296.0L);
  }
  return fractions;
}

inline void PlainSha256Block(uint64_t* hash, const std::byte* block) {
  static const std::array<uint64_t, 64> kConstants = CubeRootFractions();
  using std::rotr;
  uint64_t w[64] = {};
  for (int t = 0; t < 64; ++t) {
    if (t < 16) {
      for (int i = 0; i < 4; ++i) {
        w[t] = w[t] << 8 | std::to_integer<uint64_t>(block[4 * t + i]);
      }
    } else {
      const uint64_t x = w[t - 2], y = w[t - 15];
      w[t] = (rotr(x, 17) ^ rotr(x, 19) ^ (x >> 10)) + w[t - 7] +
             (rotr(y, 7) ^ rotr(y, 18) ^ (y >> 3)) + w[t - 16];
    }
  }
  uint64_t v[8];  // a to h
  std::memcpy(v, hash, sizeof v);
  for (int t = 0; t < 64; ++t) {
    const auto [a, b, c, d, e, f, g, h] = v;
    const uint64_t t1 = h + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) +
                        ((e & f) ^ (~e & g)) + kConstants[t] + w[t];
    const uint64_t t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) +
                        ((a & b) ^ (a & c) ^ (b & c));
    std::memmove(v + 1, v, 7 * sizeof v[0]);
    v[4] += t1, v[0] = t1 + t2;
  }
  for (int i = 0; i < 8; ++i) hash[i] += v[i];
}

}  // namespace zu::test

#endif  // ZU_TESTS_CRYPTO_PLAIN_DIGESTS_H_
