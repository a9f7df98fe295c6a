// A time-stamping authority of the tests' own.
#ifndef ZU_TESTS_SUPPORT_TIMESTAMP_AUTHORITY_H_
#define ZU_TESTS_SUPPORT_TIMESTAMP_AUTHORITY_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "tests/support/test_authority.h"

namespace zu::test {

// A token (RFC 3161): that `value` was there at `time`, in seconds of the Unix
// epoch. Failing to make it throws std::runtime_error.
std::vector<std::byte> MakeTimestampToken(const Credential& tsa,
                                          std::span<const std::byte> value,
                                          int64_t time);

}  // namespace zu::test

#endif  // ZU_TESTS_SUPPORT_TIMESTAMP_AUTHORITY_H_
