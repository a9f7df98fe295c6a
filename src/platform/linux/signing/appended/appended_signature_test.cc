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
      {"largest", Trailer("\0\x10\0\0"s), kMax, State::kSigned,
       kMax - 40 - (1 << 20), 1 << 20},
      {"magic cut short", kMagic.substr(0, 27), 27, State::kUnsigned, 27},
      {"text behind", Trailer("\0\0\0\1"s).append("\n"), 100, State::kUnsigned,
       100},
      {"other type", "\0\0\1\0\0\0\0\0\0\0\0\1"s + kMagic, 100,
       State::kMalformed},
      {"no signature", Trailer("\0\0\0\0"s), 100, State::kMalformed},
      {"beyond the limit", Trailer("\0\x10\0\1"s), kMax, State::kMalformed},
      {"overflow", Trailer("\xff\xff\xff\xff"s), 40, State::kMalformed},
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

// A script with these lines of base64; the content has 10 bytes.
std::string Signed(const std::string& lines) {
  return "#!/bin/sh\n# -----BEGIN CMS-----\n" + lines + "# -----END CMS-----\n";
}

TEST(ScriptSignatureTest, IsParsed) {
  const std::string good = Signed("# AAEC\n");
  const std::string block = good.substr(10);
  std::string full;  // But for the last line.
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
    const SignatureLayout layout = ParseScriptSignature(
        tail.last(std::min(tail.size(), kMaxScriptTailSize)), tail.size());
    EXPECT_EQ(layout.state, c.state);
    EXPECT_EQ(layout.content_size, c.content_size);
    EXPECT_EQ(layout.signature_size, c.signature_size);
  }
}

// The bytes come back from either format, unless the file was cut meanwhile.
TEST(AppendedSignatureTest, IsRead) {
  std::string cms;
  for (int i = 0; i < 150; ++i) cms += static_cast<char>(i);
  const auto bytes = std::as_bytes(std::span(cms));
  const auto trailer = EncodeSignatureTrailer(150);
  const std::string files[] = {
      "\177ELF" + cms +
          std::string(reinterpret_cast<const char*>(trailer.data()),
                      trailer.size()),
      "#!\n" + EncodeScriptBlock(bytes),
  };
  for (const std::string& file : files) {
    const FileDescriptor descriptor(::memfd_create("appended", MFD_CLOEXEC));
    ASSERT_EQ(::write(descriptor.get(), file.data(), file.size()),
              static_cast<ssize_t>(file.size()));
    const SignatureLayout layout = ReadSignatureLayout(descriptor.get());
    ASSERT_EQ(layout.state, State::kSigned);
    EXPECT_EQ(ReadAppendedSignature(descriptor.get(), layout),
              std::vector(bytes.begin(), bytes.end()));
    ASSERT_EQ(::ftruncate(descriptor.get(), 100), 0);
    EXPECT_FALSE(ReadAppendedSignature(descriptor.get(), layout));
  }
}

}  // namespace
}  // namespace zu::platform
