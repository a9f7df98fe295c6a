#include "platform/linux/ipc/frame_assembler.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "platform/ipc.h"

namespace zu::platform {
namespace {

std::string Encode(FrameKind kind, uint16_t flags, uint64_t length,
                   const std::string& body = "") {
  FrameHeader header;
  header.kind = kind;
  header.flags = flags;
  header.request = 7;
  header.length = length;
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) +
         body;
}

std::string Request(const std::string& body) {
  return Encode(FrameKind::kRequest, kFrameHasData, body.size(), body);
}

// Feeds the stream in pieces of at most `piece` bytes and writes down what
// comes out; an overlong frame shows as its length, the end of it all as "!".
std::vector<std::string> Feed(const std::string& stream, size_t piece) {
  FrameAssembler assembler;
  alignas(64) std::array<char, 256> scratch;
  std::vector<std::string> seen;
  size_t position = 0;
  while (position < stream.size()) {
    const auto to = assembler.NextDestination(scratch);
    size_t part = std::min(
        {piece, stream.size() - position, to.first.size() + to.second.size()});
    const size_t first = std::min(part, to.first.size());
    std::memcpy(to.first.data(), stream.data() + position, first);
    if (part > first) {
      std::memcpy(to.second.data(), stream.data() + position + first,
                  part - first);
    }
    position += part;
    const bool good = assembler.Consume(part, scratch, [&](const Frame& frame) {
      seen.push_back(frame.header.length > kMaxBodySize
                         ? std::to_string(frame.header.length)
                         : std::string(frame.body));
      return true;
    });
    if (!good) {
      seen.push_back("!");
      break;
    }
  }
  return seen;
}

TEST(FrameAssemblerTest, GivesTheSameFramesHoweverTheStreamIsCut) {
  const std::string large(1000, 'x');
  const std::string overlong(kMaxBodySize + 1, 'y');
  const std::string stream =
      Request("one") + Request("") + Request(large) +
      Encode(FrameKind::kRequest, 0, 0) + Request(large + "z") +
      Encode(FrameKind::kRequest, kFrameHasData, overlong.size(), overlong) +
      Request("last");
  const std::vector<std::string> frames = {
      "one", "", large, "", large + "z", std::to_string(kMaxBodySize + 1),
      "last"};
  for (const size_t piece : {1, 2, 23, 24, 25, 27, 100, 280, 1 << 20}) {
    EXPECT_EQ(Feed(stream, piece), frames) << piece;
  }
}

TEST(FrameAssemblerTest, AnswersAnEndlessBodyFromItsLength) {
  const std::string stream =
      Encode(FrameKind::kRequest, kFrameHasData, UINT64_MAX) +
      std::string(5000, 'x');
  EXPECT_EQ(Feed(stream, 100),
            std::vector<std::string>{std::to_string(UINT64_MAX)});
}

struct Rule {
  const char* name;
  std::string stream;
};
void PrintTo(const Rule& rule, std::ostream* out) { *out << rule.name; }

class FrameRule : public testing::TestWithParam<Rule> {};

TEST_P(FrameRule, EndsTheStream) {
  EXPECT_EQ(Feed(Request("a") + GetParam().stream + Request("b"), 64),
            (std::vector<std::string>{"a", "!"}));
}

std::string WithByte(size_t offset, char value) {
  std::string frame = Request("");
  frame[offset] = value;
  return frame;
}

INSTANTIATE_TEST_SUITE_P(
    Broken, FrameRule,
    testing::Values(
        Rule{"Magic", WithByte(0, 'X')}, Rule{"Version", WithByte(4, 2)},
        Rule{"KindZero", WithByte(5, 0)}, Rule{"KindOfServer", WithByte(5, 3)},
        Rule{"UnknownFlag", WithByte(6, 5)},
        Rule{"LengthWithoutData", Encode(FrameKind::kRequest, 0, 1)},
        Rule{"RegionWithoutData",
             Encode(FrameKind::kRequest, kFrameInRegion, 0)},
        Rule{"RegionForMessage",
             Encode(FrameKind::kMessage, kFrameHasData | kFrameInRegion, 1)},
        Rule{"BeyondRegion",
             Encode(FrameKind::kRequest, kFrameHasData | kFrameInRegion,
                    kRegionSize + 1)},
        Rule{"RegionOfOtherSize",
             Encode(FrameKind::kRegion, 0, kRegionSize - 1)}),
    [](const auto& rule) { return std::string(rule.param.name); });

}  // namespace
}  // namespace zu::platform
