#include "platform/linux/ipc/frame_assembler.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "platform/ipc.h"

namespace zu::platform {
namespace {

constexpr FrameKind kRequest = FrameKind::kRequest;
constexpr uint16_t kInRegion = kFrameHasData | kFrameInRegion;

std::string Encode(FrameKind kind, uint16_t flags, uint64_t length,
                   const std::string& body = "") {
  const FrameHeader header{.kind = kind, .flags = flags, .length = length};
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) +
         body;
}

std::string Request(const std::string& body) {
  return Encode(kRequest, kFrameHasData, body.size(), body);
}

// Feeds the stream in pieces of at most `piece` bytes and writes down what
// comes out; an overlong frame shows as its length, the end of it all as "!".
std::vector<std::string> Feed(std::string_view stream, size_t piece) {
  FrameAssembler assembler;
  alignas(64) std::array<char, 256> scratch;
  std::vector<std::string> seen;
  while (!stream.empty()) {
    const auto to = assembler.NextDestination(scratch);
    const std::string_view part =
        stream.substr(0, std::min(piece, to.first.size() + to.second.size()));
    const size_t first = part.copy(to.first.data(), to.first.size());
    part.substr(first).copy(to.second.data(), to.second.size());
    stream.remove_prefix(part.size());
    if (!assembler.Consume(part.size(), scratch, [&](const Frame& frame) {
          seen.push_back(frame.header.length > kMaxBodySize
                             ? std::to_string(frame.header.length)
                             : std::string(frame.body));
          return true;
        })) {
      seen.push_back("!");
      break;
    }
  }
  return seen;
}

TEST(FrameAssemblerTest, GivesTheSameFramesHoweverTheStreamIsCut) {
  const std::string large(1000, 'x');
  const std::string overlong(kMaxBodySize + 1, 'y');
  const std::string stream = Request("one") + Request("") + Request(large) +
                             Encode(kRequest, 0, 0) + Request(large + "z") +
                             Request(overlong) + Request("last") +
                             Encode(kRequest, kFrameHasData, UINT64_MAX, large);
  const std::vector<std::string> frames = {
      "one",       "",
      large,       "",
      large + "z", std::to_string(overlong.size()),
      "last",      std::to_string(UINT64_MAX)};
  for (const size_t piece : {1, 2, 23, 24, 25, 27, 100, 280, 1 << 20}) {
    EXPECT_EQ(Feed(stream, piece), frames) << piece;
  }
}

TEST(FrameAssemblerTest, ABrokenRuleEndsTheStream) {
  const struct {
    const char* name;
    std::string stream;
  } rows[] = {
      {"magic", Request("").replace(0, 1, 1, 'X')},
      {"version", Request("").replace(4, 1, 1, 2)},
      {"kind of the server", Encode(FrameKind::kReply, kFrameHasData, 0)},
      {"unknown flag", Encode(kRequest, kFrameHasData | 4, 0)},
      {"length without data", Encode(kRequest, 0, 1)},
      {"region without data", Encode(kRequest, kFrameInRegion, 0)},
      {"region for a message", Encode(FrameKind::kMessage, kInRegion, 1)},
      {"beyond the region", Encode(kRequest, kInRegion, kRegionSize + 1)},
      {"other size", Encode(FrameKind::kRegion, 0, kRegionSize - 1)},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Feed(Request("a") + row.stream + Request("b"), 64),
              (std::vector<std::string>{"a", "!"}))
        << row.name;
  }
}

}  // namespace
}  // namespace zu::platform
