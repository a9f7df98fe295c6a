#include "platform/linux/signing/appended/appended_signature.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <limits>
#include <string>

namespace zu::platform {
namespace {

using State = SignatureLayout::State;
using namespace std::string_literals;

const std::string kMagic = "~Module signature appended~\n";

// A trailer, for a signature whose size these four bytes state.
std::string Trailer(const std::string& size) {
  return "\0\0\2\0\0\0\0\0"s + size + kMagic;
}

// A script with these lines of base64; the content has 10 bytes.
std::string Signed(const std::string& lines) {
  return "#!/bin/sh\n# -----BEGIN CMS-----\n" + lines + "# -----END CMS-----\n";
}

TEST(AppendedSignatureTest, IsFound) {
  constexpr auto kMax = std::numeric_limits<uint64_t>::max();
  const std::string good = Signed("# AAEC\n");
  const std::string block = good.substr(10);
  std::string full;  // But for the end of its last line.
  for (int i = 0; i < 21845; ++i) full += "# " + std::string(64, 'A') + "\n";
  full += "# " + std::string(22, 'A');
  const struct {
    const char* name;
    std::string tail;
    uint64_t file_size;  // 0: the tail is all.
    State state = State::kMalformed;
    uint64_t content_size = 0;
    uint32_t signature_size = 0;
  } cases[] = {
      {"signed", Trailer("\0\0\1\2"s), 1040, State::kSigned, 742, 258},
      {"largest", Trailer("\0\x10\0\0"s), kMax, State::kSigned,
       kMax - 40 - (1 << 20), 1 << 20},
      {"magic cut short", kMagic.substr(0, 27), 27, State::kUnsigned, 27},
      {"other type", "\0\0\1\0\0\0\0\0\0\0\0\1"s + kMagic, 100},
      {"no signature", Trailer("\0\0\0\0"s), 100},
      {"beyond the limit", Trailer("\0\x10\0\1"s), kMax},
      {"overflow", Trailer("\xff\xff\xff\xff"s), 40},
      {"script signed twice", good + block, 0, State::kSigned, good.size(), 3},
      {"largest in a script", Signed(full + "==\n"), 0, State::kSigned, 10,
       1 << 20},
      {"larger in a script", Signed(full + "A=\n"), 0},
      {"start within a line", "#!/bin/sh\nx" + block, 0},
      {"lost bits", Signed("# AAF=\n"), 0},
      {"short line", Signed("# AAEC\n# AAEC\n"), 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto tail = std::as_bytes(std::span(c.tail));
    const SignatureLayout layout =
        c.file_size != 0
            ? ParseSignatureTrailer(tail, c.file_size)
            : ParseScriptSignature(
                  tail.last(std::min(tail.size(), kMaxScriptTailSize)),
                  tail.size());
    EXPECT_EQ(layout.state, c.state);
    EXPECT_EQ(layout.content_size, c.content_size);
    EXPECT_EQ(layout.signature_size, c.signature_size);
  }
}

}  // namespace
}  // namespace zu::platform
