#include "platform/linux/signing/appended/appended_signature.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <limits>
#include <string>

#include "support/file_descriptor.h"

namespace zu::platform {
namespace {

using State = SignatureLayout::State;
using namespace std::string_literals;

const std::string kMagic = "~Module signature appended~\n";

// A trailer, for a signature whose size these four bytes state.
std::string Trailer(const std::string& size) {
  return "\0\0\2\0\0\0\0\0"s + size + kMagic;
}

void ExpectLayout(const SignatureLayout& layout, const auto& expected) {
  EXPECT_EQ(layout.state, expected.state);
  EXPECT_EQ(layout.content_size, expected.content_size);
  EXPECT_EQ(layout.signature_size, expected.signature_size);
}

TEST(SignatureTrailerTest, IsParsed) {
  constexpr auto kMax = std::numeric_limits<uint64_t>::max();
  const struct {
    const char* name;
    std::string tail;
    uint64_t file_size;
    State state = State::kMalformed;
    uint64_t content_size = 0;
    uint32_t signature_size = 0;
  } cases[] = {
      {"signed", Trailer("\0\0\1\2"s), 1040, State::kSigned, 742, 258},
      {"largest", Trailer("\0\x10\0\0"s), kMax, State::kSigned,
       kMax - 40 - (1 << 20), 1 << 20},
      {"magic cut short", kMagic.substr(0, 27), 27, State::kUnsigned, 27},
      {"text behind", Trailer("\0\0\0\1"s).append("\n"), 100, State::kUnsigned,
       100},
      {"other type", "\0\0\1\0\0\0\0\0\0\0\0\1"s + kMagic, 100},
      {"no signature", Trailer("\0\0\0\0"s), 100},
      {"beyond the limit", Trailer("\0\x10\0\1"s), kMax},
      {"overflow", Trailer("\xff\xff\xff\xff"s), 40},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ExpectLayout(
        ParseSignatureTrailer(std::as_bytes(std::span(c.tail)), c.file_size),
        c);
  }
}

// A script with these lines of base64; the content has 10 bytes.
std::string Signed(const std::string& lines) {
  return "#!/bin/sh\n# -----BEGIN CMS-----\n" + lines + "# -----END CMS-----\n";
}

TEST(ScriptSignatureTest, IsParsed) {
  const std::string good = Signed("# AAEC\n");
  const std::string block = good.substr(10);
  std::string full;  // But for the end of its last line.
  for (int i = 0; i < 21845; ++i) full += "# " + std::string(64, 'A') + "\n";
  full += "# " + std::string(22, 'A');
  const struct {
    const char* name;
    std::string file;
    State state = State::kMalformed;
    uint64_t content_size = 0;
    uint32_t signature_size = 0;
  } cases[] = {
      {"signed", good, State::kSigned, 10, 3},
      {"signed twice", good + block, State::kSigned, good.size(), 3},
      {"largest", Signed(full + "==\n"), State::kSigned, 10, 1 << 20},
      {"larger", Signed(full + "A=\n")},
      {"unsigned", "#!/bin/sh\n", State::kUnsigned, 10},
      {"start within a line", "#!/bin/sh\nx" + block},
      {"lost bits", Signed("# AAF=\n")},
      {"padding within", Signed("# AA==AAEC\n")},
      {"short line", Signed("# AAEC\n# AAEC\n")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto tail = std::as_bytes(std::span(c.file));
    ExpectLayout(
        ParseScriptSignature(
            tail.last(std::min(tail.size(), kMaxScriptTailSize)), tail.size()),
        c);
  }
}

// The file may be cut after its layout was read.
TEST(AppendedSignatureTest, IsNotReadBehindTheEnd) {
  const FileDescriptor file(::memfd_create("appended", MFD_CLOEXEC));
  for (const std::string& text :
       {"\177ELF" + std::string(100, 'x') + Trailer("\0\0\0\144"s),
        Signed("# " + std::string(64, 'A') + "\n")}) {
    ASSERT_EQ(::ftruncate(file.get(), 0), 0);
    ASSERT_EQ(::pwrite(file.get(), text.data(), text.size(), 0),
              static_cast<ssize_t>(text.size()));
    const SignatureLayout layout = ReadSignatureLayout(file.get());
    EXPECT_TRUE(ReadAppendedSignature(file.get(), layout));
    ASSERT_EQ(::ftruncate(file.get(), 50), 0);
    EXPECT_FALSE(ReadAppendedSignature(file.get(), layout));
  }
}

}  // namespace
}  // namespace zu::platform
