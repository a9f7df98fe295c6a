// The client against servers that the tests play themselves. A request's number
// is known beforehand (they count from 1), so most answers are written before
// the client asks, and one thread will do.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <thread>
#include <vector>

#include "ZuClient.h"
#include "block.h"
#include "linux/connect.h"
#include "linux/connection.h"
#include "tests/support/frame_peer.h"
#include "tests/support/test_root.h"
#include "zu_client.hpp"

namespace zu {
namespace {

using namespace std::string_literals;
using platform::FrameKind;
using platform::kFrameHasData;
using platform::kFrameInRegion;
using platform::kRegionThreshold;

constexpr int32_t kLong = 20000;     // A deadline that only a fault lets pass.
constexpr int32_t kShort = 30;       // One that is to pass.
constexpr size_t kLongBody = 70000;  // Does not fit in the client's buffer.

std::string Header(FrameKind kind, uint64_t request, uint64_t length = 0,
                   uint16_t flags = kFrameHasData) {
  return test::Encode(
      {.kind = kind, .flags = flags, .request = request, .length = length});
}
std::string Reply(uint64_t request, std::string_view body) {
  return Header(FrameKind::kReply, request, body.size()).append(body);
}
std::string Broadcast(std::string_view body) {
  return Header(FrameKind::kMessage, 0, body.size()).append(body);
}

const std::string kTimedOut = ZuClientStatusText(ZU_CLIENT_TIMED_OUT);
const std::string kGone = ZuClientStatusText(ZU_CLIENT_DISCONNECTED);
const std::string kWrong = ZuClientStatusText(ZU_CLIENT_PROTOCOL_ERROR);

// What came, or the status's text.
std::string TextOf(const ClientText& text) {
  return std::string(text ? text.text() : text.status_text());
}

// A client, and the server's end of its connection.
struct Pair : test::FramePeer {
  Pair() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    client = Client(new ZuClient(FileDescriptor(ends[0])));
    socket.reset(ends[1]);
  }
  std::string Ask(std::string_view request = "{}", int32_t timeout_ms = kLong) {
    return TextOf(client.Request(request, timeout_ms));
  }
  std::string Next(int32_t timeout_ms = kLong) {
    return TextOf(client.Receive(timeout_ms));
  }
  // Puts `text` into the region; the frame that says so.
  std::string RegionReply(uint64_t request, std::string_view text) const {
    text.copy(region, text.size());
    return Header(FrameKind::kReply, request, text.size(),
                  kFrameHasData | kFrameInRegion);
  }

  Client client;
};

// Each answer is all that the server says before it closes.
TEST(ClientTest, AnswersHaveTheirResults) {
  constexpr FrameKind kReply = FrameKind::kReply;
  constexpr uint16_t kInRegion = kFrameHasData | kFrameInRegion;
  const struct {
    const char* name;
    std::string bytes;
    std::string result;
  } cases[] = {
      {"empty", Reply(1, ""), ""},
      {"no data", Header(kReply, 1, 0, 0),
       ZuClientStatusText(ZU_CLIENT_NO_DATA)},
      {"broadcast without data first",
       Header(FrameKind::kMessage, 0, 0, 0) + Reply(1, "hello"), "hello"},
      {"nothing", "", kGone},
      {"magic", Header(kReply, 1).replace(0, 1, 1, 'X'), kWrong},
      {"kind of clients", Header(FrameKind::kRequest, 1), kWrong},
      {"unknown flag", Header(kReply, 1, 0, kFrameHasData | 4), kWrong},
      {"length above the limit", Header(kReply, 1, 5242881), kWrong},
      {"length without data", Header(kReply, 1, 1, 0), kWrong},
      {"number never asked", Header(kReply, 2), kWrong},
      {"region not lent", Header(kReply, 1, 0, kInRegion), kWrong},
      {"drop with data", Header(FrameKind::kNoReply, 1), kWrong},
      {"broadcast in region", Header(FrameKind::kMessage, 0, 0, kInRegion),
       kWrong},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Pair pair;
    pair.Send(c.bytes);
    ::shutdown(pair.socket.get(), SHUT_WR);
    EXPECT_EQ(pair.Ask(), c.result);
    EXPECT_EQ(pair.Next(), c.result == kWrong ? kWrong : kGone);
    EXPECT_TRUE(pair.Read());
    EXPECT_TRUE(pair.IsClosed());
  }
}

// Splits a stream of short, long and empty frames at every byte that matters.
TEST(ClientTest, FramesMayComeInPieces) {
  const std::string body(kLongBody, 'y');
  const std::string stream =
      Broadcast("one") + Broadcast(body) + Broadcast("") + Broadcast("two");
  for (size_t split = 0; split <= stream.size(); ++split) {
    if (split == 120) split = 65500;
    if (split == 65600) split = stream.size() - 120;
    Pair pair;
    pair.Send(std::string_view(stream).substr(0, split));
    EXPECT_EQ(pair.Ask("{}", 0), kTimedOut);
    pair.Send(std::string_view(stream).substr(split));
    for (const std::string& text : {"one"s, body, ""s, "two"s}) {
      ASSERT_TRUE(pair.Next() == text) << split;
    }
  }
}

TEST(ClientTest, ADeadlineInTheMiddleOfSendingBreaksTheConnection) {
  Pair pair;
  const std::string large(2 * ZU_CLIENT_MESSAGE_MAX, 'x');
  EXPECT_EQ(pair.client.Send(large, kShort), ZU_CLIENT_TIMED_OUT);
  EXPECT_EQ(pair.Ask(), kGone);
}

TEST(ClientTest, ARegionStaysLentAcrossAPassedDeadline) {
  Pair pair;
  const std::string body(kRegionThreshold, 'r');
  uint64_t number = 0;
  const auto step = [&](const std::string& reply, const std::string& result,
                        bool in_region) {
    pair.Send(reply);
    EXPECT_EQ(pair.Ask(body, reply.empty() ? kShort : kLong), result);
    const auto received = pair.Read();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->header.request, ++number);
    EXPECT_EQ((received->header.flags & kFrameInRegion) != 0, in_region);
    EXPECT_EQ(received->body, body);
  };
  step("", kTimedOut, true);
  const char* const region = pair.region;
  step(Reply(2, "in the stream"), "in the stream", false);
  pair.Send(pair.RegionReply(1, "late"));
  EXPECT_EQ(pair.Next(0), kTimedOut);
  step(pair.RegionReply(3, body), body, true);
  // Given back by a reply beside it and by none at all, too.
  step(Reply(4, "beside it"), "beside it", true);
  step(Header(FrameKind::kNoReply, 5, 0, 0),
       ZuClientStatusText(ZU_CLIENT_NO_REPLY), true);
  EXPECT_EQ(pair.region, region) << "second region";
  // It is not lent now.
  pair.Send(pair.RegionReply(5, "again"));
  EXPECT_EQ(pair.Next(), kWrong);
}

// Through a block first, which the client's own buffer is too small for.
TEST(ClientTest, RepliesGoIntoTheCallersBufferWhenTheyFit) {
  for (const size_t capacity : {kLongBody - 1, kLongBody}) {
    const bool fits = capacity == kLongBody;
    Pair pair;
    const std::string text(kLongBody, 'z');
    pair.Send(Reply(1, text));
    std::string buffer(kLongBody + 1, '.');
    size_t length = capacity;
    EXPECT_EQ(ZuClientRequestInto(pair.client.get(), "{}", 2, kLong,
                                  buffer.data(), &length),
              fits ? ZU_CLIENT_OK : ZU_CLIENT_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, kLongBody);
    EXPECT_EQ(buffer, (fits ? text : std::string(kLongBody, '.')) + ".");
  }
}

TEST(ClientTest, ThreadsShareOneConnection) {
  constexpr int kThreads = 6;
  constexpr int kRequests = 160;
  Pair pair;
  std::jthread server([&pair] {
    for (size_t served = 1; const auto received = pair.Read(); ++served) {
      const auto& [header, body] = *received;
      pair.Send(header.flags & kFrameInRegion
                    ? pair.RegionReply(header.request, body)
                    : Reply(header.request, body));
      if (served % 16 == 0) pair.Send(Broadcast(std::to_string(served / 16)));
    }
  });
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&pair, thread] {
      for (int i = 0; i < kRequests; ++i) {
        const size_t sizes[] = {10, 3000, kRegionThreshold, kLongBody};
        std::string body = std::to_string(thread) + "/" + std::to_string(i);
        body.resize(sizes[(thread + i) % 4], static_cast<char>('a' + i % 26));
        ASSERT_EQ(pair.Ask(body), body);
      }
    });
  }
  // Broadcasts reach the thread that waits for them, in order.
  for (int i = 1; i <= kThreads * kRequests / 16; ++i) {
    EXPECT_EQ(pair.Next(), std::to_string(i));
  }
  threads.clear();
  std::jthread waiting([&] { EXPECT_EQ(pair.Next(), kGone); });
  pair.client.Disconnect();
}

TEST(ClientTest, ReadingIsPassedOnWhenADeadlinePasses) {
  Pair pair;
  std::jthread hasty([&] { EXPECT_EQ(pair.Ask("{}", kShort), kTimedOut); });
  EXPECT_TRUE(pair.Read());  // From now on it reads for all.
  std::jthread patient([&] { EXPECT_EQ(pair.Next(), "at last"); });
  hasty.join();
  // The late reply is dropped.
  pair.Send(Reply(1, std::string(kLongBody, 'x')) + Broadcast("at last"));
}

TEST(ClientTest, OldestBroadcastsAreDroppedBeyondTheBounds) {
  client::BroadcastQueue queue;
  for (unsigned i = 1; i <= ZU_CLIENT_BROADCASTS_MAX + 3; ++i) {
    queue.Push(client::MakeBlock(i));
  }
  EXPECT_EQ(queue.lost(), 3u);
  EXPECT_EQ(queue.Pop().size, 4u);
  // The second one leaves no room for any other.
  queue.Push(client::MakeBlock(1));
  queue.Push(client::MakeBlock(ZU_CLIENT_BROADCAST_BYTES_MAX));
  EXPECT_EQ(queue.lost(), 3u + ZU_CLIENT_BROADCASTS_MAX);
  EXPECT_EQ(queue.Pop().size, size_t{ZU_CLIENT_BROADCAST_BYTES_MAX});
}

using ConnectTest = test::RootedTest;

TEST_F(ConnectTest, TakesOnlyWhatNobodyElseCouldHavePutThere) {
  constexpr char kDirectory[] = "/run/client_test";
  ASSERT_EQ(::mkdir(kDirectory, 0755), 0);
  const sockaddr_un address = test::UnixAddress(kDirectory + "/server"s);
  const FileDescriptor listener(
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address),
                   sizeof(address)),
            0);
  FileDescriptor connection;
  const auto connect = [&](const std::string& service = "server") {
    return client::ConnectTo(kDirectory, service.c_str(), kShort, connection);
  };
  EXPECT_EQ(connect(), ZU_CLIENT_NO_SERVER);
  ASSERT_EQ(::listen(listener.get(), 8), 0);
  EXPECT_EQ(connect(), ZU_CLIENT_OK);
  for (const std::string& name : {""s, "../x"s, std::string(110, 'x')}) {
    EXPECT_EQ(connect(name), ZU_CLIENT_BAD_ARGUMENT) << name;
  }
  for (const mode_t mode : {0775, 01757}) {
    ASSERT_EQ(::chmod(kDirectory, mode), 0);
    EXPECT_EQ(connect(), ZU_CLIENT_UNTRUSTED_SERVER);
  }
  ASSERT_EQ(::chmod(kDirectory, 0755), 0);
  // Not possible in a user namespace of one user.
  if (::chown(kDirectory, 65534, 0) == 0) {
    EXPECT_EQ(connect(), ZU_CLIENT_UNTRUSTED_SERVER);
  }
}

}  // namespace
}  // namespace zu
