// The client against servers that the tests play themselves. A request's number
// is known beforehand (they count from 1), so most answers are written before
// the client asks, and one thread will do.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ZuClient.h"
#include "block.h"
#include "linux/connect.h"
#include "linux/connection.h"
#include "platform/linux/ipc_frame.h"
#include "support/file_descriptor.h"
#include "zu_client.hpp"

namespace zu {
namespace {

using namespace std::string_literals;
using client::ConnectTo;
using platform::FrameHeader;
using platform::FrameKind;
using platform::kFrameHasData;
using platform::kFrameInRegion;
using platform::kRegionThreshold;

constexpr int32_t kLong = 20000;     // A deadline that only a fault lets pass.
constexpr int32_t kShort = 30;       // One that is to pass.
constexpr size_t kLongBody = 70000;  // Does not fit in the client's buffer.

std::string Header(FrameKind kind, uint64_t request, uint64_t length = 0,
                   uint16_t flags = kFrameHasData) {
  FrameHeader header;
  header.kind = kind;
  header.flags = flags;
  header.request = request;
  header.length = length;
  return {reinterpret_cast<const char*>(&header), sizeof(header)};
}

std::string Reply(uint64_t request, std::string_view body) {
  return Header(FrameKind::kReply, request, body.size()).append(body);
}

std::string Broadcast(std::string_view body) {
  return Header(FrameKind::kMessage, 0, body.size()).append(body);
}

std::string StatusMark(ZuClientStatus status) {
  return std::string("<").append(ZuClientStatusText(status)).append(">");
}

// The text that came, or the status's mark.
std::string TextOf(const ClientText& text) {
  return text ? std::string(text.text()) : StatusMark(text.status());
}

struct Received {
  FrameHeader header;
  std::string body;
};

// A client, and the server's end of its connection.
struct Pair {
  Pair() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    client = Client(new ZuClient(FileDescriptor(ends[0])));
    server.reset(ends[1]);
  }
  std::string Ask(std::string_view request, int32_t timeout_ms = kLong) {
    return TextOf(client.Request(request, timeout_ms));
  }
  std::string Next(int32_t timeout_ms = kLong) {
    return TextOf(client.Receive(timeout_ms));
  }

  void Write(std::string_view bytes) {
    EXPECT_EQ(::send(server.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  // The next frame that is not a region's; that is mapped. None at the end.
  std::optional<Received> Read() {
    Received received;
    iovec part = {&received.header, sizeof(FrameHeader)};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    if (::recvmsg(server.get(), &message, MSG_WAITALL) <= 0) return {};
    if (received.header.kind == FrameKind::kRegion) {
      EXPECT_EQ(region, nullptr) << "second region";
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof(int));
      const FileDescriptor memory(descriptor);
      EXPECT_EQ(::fcntl(memory.get(), F_GET_SEALS),
                F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
      region = static_cast<char*>(::mmap(nullptr, received.header.length,
                                         PROT_READ | PROT_WRITE, MAP_SHARED,
                                         memory.get(), 0));
      return Read();
    }
    received.body.resize(received.header.length);
    if (received.header.flags & kFrameInRegion) {
      std::memcpy(received.body.data(), region, received.header.length);
    } else {
      ::recv(server.get(), received.body.data(), received.body.size(),
             MSG_WAITALL);
    }
    return received;
  }
  bool HasMore(int timeout_ms) {
    pollfd entry = {server.get(), POLLIN, 0};
    return ::poll(&entry, 1, timeout_ms) > 0;
  }
  // Puts `text` into the region; the frame that says so.
  std::string RegionReply(uint64_t request, std::string_view text) {
    std::memcpy(region, text.data(), text.size());
    return Header(FrameKind::kReply, request, text.size(),
                  kFrameHasData | kFrameInRegion);
  }

  Client client;
  FileDescriptor server;
  char* region = nullptr;
};

// Each answer is all that the server says before it closes.
TEST(ClientTest, AnswersHaveTheirResults) {
  constexpr FrameKind kReply = FrameKind::kReply;
  constexpr uint16_t kInRegion = kFrameHasData | kFrameInRegion;
  const std::string gone = StatusMark(ZU_CLIENT_DISCONNECTED);
  const std::string wrong = StatusMark(ZU_CLIENT_PROTOCOL_ERROR);
  const auto with_byte = [](size_t at, char byte) {
    return Header(kReply, 1).replace(at, 1, 1, byte);
  };
  const struct {
    const char* name;
    std::string bytes;
    std::string result;
  } cases[] = {
      {"empty", Reply(1, ""), ""},
      {"no data", Header(kReply, 1, 0, 0), StatusMark(ZU_CLIENT_NO_DATA)},
      {"dropped", Header(FrameKind::kNoReply, 1, 0, 0),
       StatusMark(ZU_CLIENT_NO_REPLY)},
      {"broadcast without data first",
       Header(FrameKind::kMessage, 0, 0, 0) + Reply(1, "hello"), "hello"},
      {"nothing", "", gone},
      {"half a header", Reply(1, "hello").substr(0, 12), gone},
      {"half a body", Reply(1, "hello").substr(0, 28), gone},
      {"magic", with_byte(0, 'X'), wrong},
      {"version", with_byte(4, 2), wrong},
      {"kind of clients", Header(FrameKind::kRequest, 1), wrong},
      {"unknown flag", Header(kReply, 1, 0, kFrameHasData | 4), wrong},
      {"length above the limit", Header(kReply, 1, 5242881), wrong},
      {"length without data", Header(kReply, 1, 1, 0), wrong},
      {"number never asked", Header(kReply, 2), wrong},
      {"number of nobody", Header(kReply, 0), wrong},
      {"region not lent", Header(kReply, 1, 0, kInRegion), wrong},
      {"drop with data", Header(FrameKind::kNoReply, 1), wrong},
      {"broadcast with number", Header(FrameKind::kMessage, 1), wrong},
      {"broadcast in region", Header(FrameKind::kMessage, 0, 0, kInRegion),
       wrong},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Pair pair;
    pair.Write(c.bytes);
    ::shutdown(pair.server.get(), SHUT_WR);
    EXPECT_EQ(pair.Ask("{}"), c.result);
    EXPECT_EQ(pair.Next(), c.result == wrong ? wrong : gone);
    EXPECT_EQ(pair.Ask("{}"), c.result == wrong ? wrong : gone);
    EXPECT_TRUE(pair.Read().has_value());
    EXPECT_FALSE(pair.Read().has_value()) << "connection still open";
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
    pair.Write(std::string_view(stream).substr(0, split));
    EXPECT_EQ(pair.Ask("{}", 0), StatusMark(ZU_CLIENT_TIMED_OUT));
    pair.Write(std::string_view(stream).substr(split));
    for (const std::string& text : {"one"s, body, ""s, "two"s}) {
      ASSERT_TRUE(pair.Next() == text) << split;
    }
  }
}

// Reads of other things must not move the deadline.
TEST(ClientTest, BroadcastsDoNotPutOffTheDeadline) {
  Pair pair;
  std::atomic<bool> stop = false;
  std::thread server([&] {
    // With nothing left to read, the pause below is one: the thread must not
    // fill the socket of a client that has stopped reading.
    EXPECT_TRUE(pair.Read().has_value());
    while (!stop) {
      pair.Write(Broadcast("noise"));
      pair.HasMore(1);
    }
  });
  EXPECT_EQ(pair.Ask("{}", 10 * kShort), StatusMark(ZU_CLIENT_TIMED_OUT));
  stop = true;
  server.join();
  // A late reply is dropped.
  pair.Write(Reply(1, std::string(kLongBody, 'x')) + Reply(2, "two"));
  EXPECT_EQ(pair.Ask("{}"), "two");
}

TEST(ClientTest, ADeadlineInTheMiddleOfSendingBreaksTheConnection) {
  const std::string large(2 * ZU_CLIENT_MESSAGE_MAX, 'x');
  for (const bool answered : {false, true}) {
    Pair pair;
    EXPECT_EQ(answered ? pair.client.Request(large, kShort).status()
                       : pair.client.Send(large, kShort),
              ZU_CLIENT_TIMED_OUT);
    EXPECT_EQ(pair.Ask("{}"), StatusMark(ZU_CLIENT_DISCONNECTED));
  }
}

TEST(ClientTest, ARegionStaysLentAcrossAPassedDeadline) {
  Pair pair;
  const std::string body(kRegionThreshold, 'r');
  uint64_t number = 0;
  const auto step = [&](const std::string& reply, const std::string& result,
                        bool in_region) {
    pair.Write(reply);
    EXPECT_EQ(pair.Ask(body, reply.empty() ? kShort : kLong), result);
    const auto received = pair.Read();
    ASSERT_TRUE(received.has_value());
    EXPECT_EQ(received->header.request, ++number);
    EXPECT_EQ((received->header.flags & kFrameInRegion) != 0, in_region);
    EXPECT_EQ(received->body, body);
  };
  step("", StatusMark(ZU_CLIENT_TIMED_OUT), true);
  step(Reply(2, "in the stream"), "in the stream", false);
  pair.Write(pair.RegionReply(1, "late"));
  EXPECT_EQ(pair.Next(0), StatusMark(ZU_CLIENT_TIMED_OUT));
  step(pair.RegionReply(3, body), body, true);
  // Given back by a reply beside it and by none at all, too.
  step(Reply(4, "beside it"), "beside it", true);
  step(Header(FrameKind::kNoReply, 5, 0, 0), StatusMark(ZU_CLIENT_NO_REPLY),
       true);
  // It is not lent now.
  pair.Write(pair.RegionReply(5, "again"));
  EXPECT_EQ(pair.Next(), StatusMark(ZU_CLIENT_PROTOCOL_ERROR));
}

// Short and long; one byte too few, and just enough.
TEST(ClientTest, RepliesGoIntoTheCallersBufferWhenTheyFit) {
  for (const size_t size : {size_t{100}, kLongBody}) {
    for (const size_t missing : {1, 0}) {
      Pair pair;
      const std::string text(size, 'z');
      const std::string untouched(size + 1, '.');
      pair.Write(Reply(1, text));
      std::string buffer = untouched;
      size_t length = size - missing;
      EXPECT_EQ(ZuClientRequestInto(pair.client.get(), "{}", 2, kLong,
                                    buffer.data(), &length),
                missing != 0 ? ZU_CLIENT_BUFFER_TOO_SMALL : ZU_CLIENT_OK);
      EXPECT_EQ(length, size);
      EXPECT_EQ(buffer, missing != 0 ? untouched : text + ".");
    }
  }
}

// Echoes, and broadcasts now and then. Keeps a request back until another one
// comes or none does for a moment, so that replies overtake each other.
void EchoOutOfOrder(Pair& pair) {
  std::vector<Received> kept;
  size_t served = 0;
  while (auto received = pair.Read()) {
    kept.push_back(std::move(*received));
    if (kept.size() == 1 && pair.HasMore(1)) continue;
    for (; !kept.empty(); kept.pop_back()) {
      const auto& [header, body] = kept.back();
      pair.Write(header.flags & kFrameInRegion
                     ? pair.RegionReply(header.request, body)
                     : Reply(header.request, body));
      if (++served % 16 == 0)
        pair.Write(Broadcast(std::to_string(served / 16)));
    }
  }
}

TEST(ClientTest, ThreadsShareOneConnection) {
  constexpr int kThreads = 6;
  constexpr int kRequests = 160;
  Pair pair;
  std::thread server([&] { EchoOutOfOrder(pair); });
  std::vector<std::thread> threads;
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
  for (std::thread& thread : threads) thread.join();

  std::thread waiting(
      [&] { EXPECT_EQ(pair.Next(), StatusMark(ZU_CLIENT_DISCONNECTED)); });
  pair.client.Disconnect();
  waiting.join();
  server.join();
}

// The thread that reads for all leaves; another one must take over.
TEST(ClientTest, ReadingIsPassedOnWhenADeadlinePasses) {
  Pair pair;
  std::thread patient([&] { EXPECT_EQ(pair.Next(), "at last"); });
  std::vector<std::thread> hasty;
  for (int i = 0; i < 4; ++i) {
    hasty.emplace_back([&pair, i] {
      EXPECT_EQ(pair.Ask("{}", kShort * (1 + i % 2)),
                StatusMark(ZU_CLIENT_TIMED_OUT));
    });
  }
  for (std::thread& thread : hasty) thread.join();
  pair.Write(Broadcast("at last"));
  patient.join();
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

TEST(ClientTest, ConnectsOnlyToWhatNobodyElseCouldHavePutThere) {
  const std::string directory =
      testing::TempDir() + "zu_client_test." + std::to_string(::getpid());
  ASSERT_EQ(::mkdir(directory.c_str(), 0755), 0);
  sockaddr_un address = {AF_UNIX, {}};
  directory.copy(address.sun_path, directory.size());
  std::strcat(address.sun_path, "/server");
  const FileDescriptor listener(
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address),
                   sizeof(address)),
            0);
  FileDescriptor connection;
  const auto connect = [&](const std::string& service = "server") {
    return ConnectTo(directory.c_str(), service.c_str(), kShort, connection);
  };
  EXPECT_EQ(connect(), ZU_CLIENT_NO_SERVER);
  ASSERT_EQ(::listen(listener.get(), 0), 0);
  EXPECT_EQ(connect(), ZU_CLIENT_OK);
  EXPECT_EQ(connect(), ZU_CLIENT_TIMED_OUT);  // No room in the backlog.
  for (const std::string& name : {""s, "../x"s, std::string(110, 'x')}) {
    EXPECT_EQ(connect(name), ZU_CLIENT_BAD_ARGUMENT) << name;
  }
  for (const mode_t mode : {0775, 01757}) {
    ASSERT_EQ(::chmod(directory.c_str(), mode), 0);
    EXPECT_EQ(connect(), ZU_CLIENT_UNTRUSTED_SERVER);
  }
  ASSERT_EQ(::chmod(directory.c_str(), 0755), 0);
  if (::geteuid() == 0) {
    // The peer's credentials are those of the moment when it began to listen.
    ASSERT_EQ(::seteuid(65534), 0);
    EXPECT_EQ(::listen(listener.get(), 8), 0);
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(connect(), ZU_CLIENT_UNTRUSTED_SERVER);
    ASSERT_EQ(::chown(directory.c_str(), 65534, 0), 0);
    EXPECT_EQ(connect(), ZU_CLIENT_UNTRUSTED_SERVER);
  }
  std::filesystem::remove_all(directory);
  EXPECT_EQ(connect(), ZU_CLIENT_NO_SERVER);
}

}  // namespace
}  // namespace zu
