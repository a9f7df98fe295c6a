#include "platform/linux/signing/elf/elf_signature.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace zu::platform {
namespace {

using State = SignatureLayout::State;
using namespace std::string_literals;

const std::string kMagic = "~Module signature appended~\n";
const std::string kFixed = "\0\0\2\0\0\0\0\0"s;

// A trailer, for a signature whose size these four bytes state.
std::string Trailer(const std::string& size, const std::string& fixed = kFixed,
                    const std::string& magic = kMagic) {
  return fixed + size + magic;
}

TEST(SignatureTrailerTest, IsParsed) {
  constexpr auto kMax = std::numeric_limits<uint64_t>::max();
  const struct {
    const char* name;
    std::string tail;
    uint64_t file_size;
    State state;
    uint64_t content_size = 0;
    uint32_t signature_size = 0;
  } cases[] = {
      {"signed", Trailer("\0\0\1\2"s), 1040, State::kSigned, 742, 258},
      {"longer tail", std::string("xyz").append(Trailer("\0\0\0\1"s)), 100,
       State::kSigned, 59, 1},
      {"signature alone", Trailer("\0\0\0\1"s), 41, State::kSigned, 0, 1},
      {"largest", Trailer("\0\x10\0\0"s), kMax, State::kSigned,
       kMax - 40 - (1 << 20), 1 << 20},
      {"empty", "", 0, State::kUnsigned},
      {"unsigned", std::string(40, '~'), 100, State::kUnsigned, 100},
      {"magic cut short", kMagic.substr(0, 27), 27, State::kUnsigned, 27},
      {"magic without its start",
       Trailer("\0\0\0\1"s, kFixed, "-Module signature appended~\n"), 100,
       State::kUnsigned, 100},
      {"text behind", Trailer("\0\0\0\1"s).append("\n"), 100, State::kUnsigned,
       100},
      {"magic alone", kMagic, 28, State::kMalformed},
      {"block cut short", Trailer("\0\0\0\1"s).substr(1), 39,
       State::kMalformed},
      {"other type", Trailer("\0\0\0\1"s, "\0\0\1\0\0\0\0\0"s), 100,
       State::kMalformed},
      {"field not 0", Trailer("\0\0\0\1"s, "\0\0\2\0\0\0\0\1"s), 100,
       State::kMalformed},
      {"no signature", Trailer("\0\0\0\0"s), 100, State::kMalformed},
      {"beyond the start", Trailer("\0\0\0\x3d"s), 100, State::kMalformed},
      {"beyond the limit", Trailer("\0\x10\0\1"s), kMax, State::kMalformed},
      {"overflow", Trailer("\xff\xff\xff\xff"s), 40, State::kMalformed},
      {"tail longer than file", Trailer("\0\0\0\1"s), 39, State::kMalformed},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const SignatureLayout layout =
        ParseSignatureTrailer(std::as_bytes(std::span(c.tail)), c.file_size);
    EXPECT_EQ(layout.state, c.state);
    EXPECT_EQ(layout.content_size, c.content_size);
    EXPECT_EQ(layout.signature_size, c.signature_size);
  }
}

TEST(SignatureTrailerTest, IsEncoded) {
  const auto trailer = EncodeSignatureTrailer(0x00012345);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(trailer.data()),
                        trailer.size()),
            Trailer("\0\x01\x23\x45"s));
}

}  // namespace
}  // namespace zu::platform
