// The client against servers that the tests play themselves. A request's number
// is known beforehand (they count from 1), so most answers are written before
// the client asks, and one thread will do.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
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

using client::ConnectTo;
using platform::FrameHeader;
using platform::FrameKind;
using platform::kFrameHasData;
using platform::kFrameInRegion;
using platform::kRegionThreshold;

constexpr int32_t kLong = 20000;     // A deadline that only a fault lets pass.
constexpr int32_t kShort = 30;       // One that is to pass.
constexpr size_t kLongBody = 70000;  // Does not fit in the client's buffer.

std::string Frame(FrameKind kind, uint64_t request, std::string_view body,
                  uint16_t flags = kFrameHasData) {
  FrameHeader header;
  header.kind = kind;
  header.flags = flags;
  header.request = request;
  header.length = body.size();
  std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
  return bytes.append(body);
}

std::string Reply(uint64_t request, std::string_view body) {
  return Frame(FrameKind::kReply, request, body);
}

// A header whose fields a row changes.
template <typename Change>
std::string Header(Change change) {
  FrameHeader header;
  header.kind = FrameKind::kReply;
  header.flags = kFrameHasData;
  header.request = 1;
  change(header);
  return {reinterpret_cast<const char*>(&header), sizeof(header)};
}

// The server's end of a connection.
class Server {
 public:
  struct Received {
    FrameHeader header;
    std::string body;
  };

  explicit Server(FileDescriptor socket) : socket_(std::move(socket)) {
    const timeval limit = {kLong / 1000, 0};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  }
  ~Server() {
    if (region_ != nullptr) ::munmap(region_, platform::kRegionSize);
  }

  void Write(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count =
          ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      ASSERT_GT(count, 0) << strerror(errno);
      bytes.remove_prefix(static_cast<size_t>(count));
    }
  }

  // The next frame that is not a region's; that is mapped. None at the end.
  std::optional<Received> Read() {
    Received received;
    if (!ReadExactly(&received.header, sizeof(FrameHeader))) return {};
    if (received.header.kind == FrameKind::kRegion) {
      EXPECT_EQ(received.header.length, platform::kRegionSize);
      EXPECT_EQ(region_, nullptr) << "second region";
      EXPECT_EQ(::fcntl(passed_.get(), F_GET_SEALS),
                F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
      region_ = static_cast<char*>(::mmap(nullptr, platform::kRegionSize,
                                          PROT_READ | PROT_WRITE, MAP_SHARED,
                                          passed_.get(), 0));
      EXPECT_NE(region_, MAP_FAILED);
      return Read();
    }
    received.body.resize(received.header.length);
    if (received.header.flags & kFrameInRegion) {
      std::memcpy(received.body.data(), region_, received.header.length);
    } else if (!ReadExactly(received.body.data(), received.body.size())) {
      return {};
    }
    return received;
  }

  bool HasMore(int timeout_ms) {
    pollfd entry = {socket_.get(), POLLIN, 0};
    return ::poll(&entry, 1, timeout_ms) > 0;
  }
  char* region() { return region_; }
  // Puts `text` into the region; the frame that says so.
  std::string RegionReply(uint64_t request, std::string_view text) {
    std::memcpy(region_, text.data(), text.size());
    return Frame(FrameKind::kReply, request, text,
                 kFrameHasData | kFrameInRegion)
        .substr(0, sizeof(FrameHeader));
  }
  void Close() { socket_.reset(); }

 private:
  bool ReadExactly(void* place, size_t size) {
    char* at = static_cast<char*>(place);
    while (size != 0) {
      iovec part = {at, size};
      alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
      msghdr message = {};
      message.msg_iov = &part;
      message.msg_iovlen = 1;
      message.msg_control = control;
      message.msg_controllen = sizeof(control);
      const ssize_t count =
          ::recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC);
      if (count <= 0) return false;
      if (const cmsghdr* entry = CMSG_FIRSTHDR(&message)) {
        int descriptor = -1;
        std::memcpy(&descriptor, CMSG_DATA(entry), sizeof(descriptor));
        passed_.reset(descriptor);
      }
      at += count;
      size -= static_cast<size_t>(count);
    }
    return true;
  }

  FileDescriptor socket_;
  FileDescriptor passed_;
  char* region_ = nullptr;
};

std::string StatusMark(ZuClientStatus status) {
  return std::string("<").append(ZuClientStatusText(status)).append(">");
}

// The text that came, or the status's mark.
std::string TextOf(const ClientText& text) {
  return text ? std::string(text.text()) : StatusMark(text.status());
}

struct Pair {
  Pair() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    client = Client(new ZuClient(FileDescriptor(ends[0])));
    server = std::make_unique<Server>(FileDescriptor(ends[1]));
  }
  std::string Ask(std::string_view request, int32_t timeout_ms = kLong) {
    return TextOf(client.Request(request, timeout_ms));
  }
  std::string Next(int32_t timeout_ms = kLong) {
    return TextOf(client.Receive(timeout_ms));
  }
  Client client;
  std::unique_ptr<Server> server;
};

// ------------------------------------------------- what a server may answer --

struct AnswerCase {
  const char* name;
  std::string bytes;  // Sent by the server; then it closes.
  std::string result;
  // What later calls return; the server's close when nothing was wrong.
  ZuClientStatus later = ZU_CLIENT_DISCONNECTED;
};

AnswerCase Wrong(const char* name, std::string bytes) {
  return {name, std::move(bytes), StatusMark(ZU_CLIENT_PROTOCOL_ERROR),
          ZU_CLIENT_PROTOCOL_ERROR};
}

void PrintTo(const AnswerCase& c, std::ostream* out) { *out << c.name; }

class AnswerTest : public testing::TestWithParam<AnswerCase> {};

TEST_P(AnswerTest, GivesItsResult) {
  const AnswerCase& c = GetParam();
  Pair pair;
  pair.server->Write(c.bytes);
  EXPECT_EQ(pair.Ask("{}", c.bytes.empty() ? kShort : kLong), c.result);
  if (c.later == ZU_CLIENT_PROTOCOL_ERROR) {
    EXPECT_TRUE(pair.server->Read().has_value());
    EXPECT_FALSE(pair.server->Read().has_value()) << "connection still open";
  }
  pair.server->Close();
  EXPECT_EQ(pair.Next(), StatusMark(c.later));
  if (c.later == ZU_CLIENT_PROTOCOL_ERROR) {
    EXPECT_EQ(pair.Ask("{}"), StatusMark(c.later));
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, AnswerTest,
    testing::Values(
        AnswerCase{"Text", Reply(1, "hello"), "hello"},
        AnswerCase{"Empty", Reply(1, ""), ""},
        AnswerCase{"Long", Reply(1, std::string(kLongBody, 'x')),
                   std::string(kLongBody, 'x')},
        AnswerCase{"WithoutData", Frame(FrameKind::kReply, 1, "", 0),
                   StatusMark(ZU_CLIENT_NO_DATA)},
        AnswerCase{"Dropped", Frame(FrameKind::kNoReply, 1, "", 0),
                   StatusMark(ZU_CLIENT_NO_REPLY)},
        AnswerCase{"BroadcastWithoutDataFirst",
                   Frame(FrameKind::kMessage, 0, "", 0) + Reply(1, "hello"),
                   "hello"},
        AnswerCase{"Silence", "", StatusMark(ZU_CLIENT_TIMED_OUT)},
        Wrong("Magic", Header([](FrameHeader& h) { h.magic ^= 1; })),
        Wrong("Version", Header([](FrameHeader& h) { h.version = 2; })),
        Wrong("KindOfClients",
              Header([](FrameHeader& h) { h.kind = FrameKind::kRequest; })),
        Wrong("RegionFromServer",
              Header([](FrameHeader& h) { h.kind = FrameKind::kRegion; })),
        Wrong("UnknownKind",
              Header([](FrameHeader& h) { h.kind = FrameKind{255}; })),
        Wrong("UnknownFlag", Header([](FrameHeader& h) { h.flags |= 4; })),
        Wrong("LengthAboveLimit",
              Header([](FrameHeader& h) { h.length = 5242881; })),
        Wrong("GiantLength",
              Header([](FrameHeader& h) { h.length = ~uint64_t{0}; })),
        Wrong("LengthWithoutData", Header([](FrameHeader& h) {
                h.flags = 0;
                h.length = 1;
              })),
        Wrong("NumberNeverAsked",
              Header([](FrameHeader& h) { h.request = 2; })),
        Wrong("NumberOfNobody", Header([](FrameHeader& h) { h.request = 0; })),
        Wrong("RegionNotLent",
              Header([](FrameHeader& h) { h.flags |= kFrameInRegion; })),
        Wrong("DropWithData",
              Header([](FrameHeader& h) { h.kind = FrameKind::kNoReply; })),
        Wrong("BroadcastWithNumber",
              Header([](FrameHeader& h) { h.kind = FrameKind::kMessage; })),
        Wrong("BroadcastInRegion", Header([](FrameHeader& h) {
                h.kind = FrameKind::kMessage;
                h.request = 0;
                h.flags |= kFrameInRegion;
              }))),
    [](const auto& test) { return std::string(test.param.name); });

TEST(ClientTest, CloseInTheMiddleOfAFrameDisconnects) {
  const std::string whole = Reply(1, "hello");
  for (const size_t size : {size_t{0}, size_t{1}, whole.size() - 1}) {
    Pair pair;
    pair.server->Write(whole.substr(0, size));
    std::thread closing([&] {
      EXPECT_TRUE(pair.server->Read().has_value());
      pair.server->Close();
    });
    EXPECT_EQ(pair.Ask("{}"), StatusMark(ZU_CLIENT_DISCONNECTED)) << size;
    EXPECT_EQ(pair.Ask("{}"), StatusMark(ZU_CLIENT_DISCONNECTED)) << size;
    closing.join();
  }
}

// Splits a stream of short, long and empty frames at every byte that matters.
TEST(ClientTest, FramesMayComeInPieces) {
  const std::string body(kLongBody, 'y');
  const auto broadcast = [](std::string_view text) {
    return Frame(FrameKind::kMessage, 0, text);
  };
  const std::string stream =
      broadcast("one") + broadcast(body) + broadcast("") + broadcast("two");
  for (size_t split = 0; split <= stream.size(); ++split) {
    const bool matters = split < 120 || stream.size() - split < 120 ||
                         (split > 65500 && split < 65600);
    if (!matters) continue;
    Pair pair;
    pair.server->Write(std::string_view(stream).substr(0, split));
    std::vector<std::string> messages;
    std::string next = pair.Next(0);  // Has the first piece read.
    if (next[0] != '<') messages.push_back(std::move(next));
    pair.server->Write(std::string_view(stream).substr(split));
    while (messages.size() < 4) {
      messages.push_back(pair.Next());
      ASSERT_NE(messages.back().substr(0, 1), "<") << split;
    }
    ASSERT_THAT(messages, testing::ElementsAre("one", body, "", "two"))
        << split;
  }
}

// ---------------------------------------------------------------- deadlines --

TEST(ClientTest, ALateReplyIsDroppedAndTheNextOneFound) {
  Pair pair;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(pair.Ask("{}", kShort), StatusMark(ZU_CLIENT_TIMED_OUT));
  EXPECT_GE(std::chrono::steady_clock::now() - begin,
            std::chrono::milliseconds(kShort));
  pair.server->Write(Reply(1, std::string(kLongBody, 'x')) + Reply(2, "two"));
  EXPECT_EQ(pair.Ask("{}"), "two");
}

// Reads of other things must not move the deadline.
TEST(ClientTest, BroadcastsDoNotPutOffTheDeadline) {
  Pair pair;
  std::atomic<bool> stop = false;
  std::thread server([&] {
    const std::string broadcast = Frame(FrameKind::kMessage, 0, "noise");
    // With nothing left to read, the pause below is one: the thread must not
    // fill the socket of a client that has stopped reading.
    EXPECT_TRUE(pair.server->Read().has_value());
    while (!stop) {
      pair.server->Write(broadcast);
      pair.server->HasMore(1);
    }
  });
  EXPECT_EQ(pair.Ask("{}", 10 * kShort), StatusMark(ZU_CLIENT_TIMED_OUT));
  stop = true;
  server.join();
  EXPECT_EQ(pair.Next(), "noise");
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

TEST(ClientTest, AMessageAboveTheLimitIsSent) {
  Pair pair;
  const std::string large(ZU_CLIENT_MESSAGE_MAX + 1, 'x');
  std::thread server([&] {
    const auto received = pair.server->Read();
    ASSERT_TRUE(received.has_value());
    EXPECT_EQ(received->body.size(), large.size());
    pair.server->Write(Reply(1, "too long"));
  });
  EXPECT_EQ(pair.Ask(large), "too long");
  server.join();
}

// --------------------------------------------------------------- the region --

TEST(ClientTest, ARegionStaysLentAcrossAPassedDeadline) {
  Pair pair;
  Server& server = *pair.server;
  const std::string body(kRegionThreshold, 'r');
  const auto expect = [&](uint64_t request, bool in_region) {
    const auto received = server.Read();
    ASSERT_TRUE(received.has_value());
    EXPECT_EQ(received->header.request, request);
    EXPECT_EQ((received->header.flags & kFrameInRegion) != 0, in_region);
    EXPECT_EQ(received->body, body);
  };
  EXPECT_EQ(pair.Ask(body, kShort), StatusMark(ZU_CLIENT_TIMED_OUT));
  expect(1, true);

  server.Write(Reply(2, "in the stream"));
  EXPECT_EQ(pair.Ask(body), "in the stream");
  expect(2, false);

  server.Write(server.RegionReply(1, "late"));
  EXPECT_EQ(pair.Next(0), StatusMark(ZU_CLIENT_TIMED_OUT));
  server.Write(server.RegionReply(3, body));
  EXPECT_EQ(pair.Ask(body), body);
  expect(3, true);

  // Given back by a reply beside it and by none at all, too.
  server.Write(Reply(4, "beside it"));
  EXPECT_EQ(pair.Ask(body), "beside it");
  expect(4, true);
  server.Write(Frame(FrameKind::kNoReply, 5, "", 0));
  EXPECT_EQ(pair.Ask(body), StatusMark(ZU_CLIENT_NO_REPLY));
  expect(5, true);
  // A body that has no answer cannot be lent.
  EXPECT_EQ(pair.client.Send(body, kLong), ZU_CLIENT_OK);
  expect(0, false);
  // It is not lent now.
  server.Write(server.RegionReply(5, "again"));
  EXPECT_EQ(pair.Next(), StatusMark(ZU_CLIENT_PROTOCOL_ERROR));
}

// Short, long and in the region; one byte too few, just enough, one more.
TEST(ClientTest, RepliesGoIntoTheCallersBufferWhenTheyFit) {
  struct Sizes {
    size_t request, reply;
  };
  for (const auto [request_size, size] :
       {Sizes{2, 100}, Sizes{2, kLongBody}, Sizes{kRegionThreshold, 100}}) {
    for (const size_t capacity : {size - 1, size, size + 1}) {
      Pair pair;
      const std::string text(size, 'z');
      std::thread server([&] {
        ASSERT_TRUE(pair.server->Read().has_value());
        pair.server->Write(pair.server->region() == nullptr
                               ? Reply(1, text)
                               : pair.server->RegionReply(1, text));
      });
      const std::string request(request_size, 'q');
      std::string buffer(size + 1, '.');
      size_t length = capacity;
      const ZuClientStatus status =
          ZuClientRequestInto(pair.client.get(), request.data(), request.size(),
                              kLong, buffer.data(), &length);
      server.join();
      EXPECT_EQ(length, size);
      const bool fits = capacity >= size;
      EXPECT_EQ(status, fits ? ZU_CLIENT_OK : ZU_CLIENT_BUFFER_TOO_SMALL);
      EXPECT_EQ(buffer, (fits ? text : std::string(size, '.')) + ".");
    }
  }
}

// ------------------------------------------------------------------ threads --

// Echoes, and broadcasts now and then. Keeps a request back until another one
// comes or none does for a moment, so that replies overtake each other.
void EchoOutOfOrder(Server& server) {
  std::deque<Server::Received> kept;
  size_t served = 0;
  while (auto received = server.Read()) {
    kept.push_back(std::move(*received));
    while (kept.size() > 1 || (!kept.empty() && !server.HasMore(1))) {
      const Server::Received request = std::move(kept.back());
      kept.pop_back();
      std::string frame =
          request.header.flags & kFrameInRegion
              ? server.RegionReply(request.header.request, request.body)
              : Reply(request.header.request, request.body);
      if (++served % 16 == 0) {
        frame += Frame(FrameKind::kMessage, 0, std::to_string(served / 16));
      }
      server.Write(frame);
    }
  }
}

TEST(ClientTest, ThreadsShareOneConnection) {
  constexpr int kThreads = 6;
  constexpr int kRequests = 160;
  Pair pair;
  std::thread server([&] { EchoOutOfOrder(*pair.server); });
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
  EXPECT_EQ(pair.client.LostBroadcasts(), 0u);

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
  pair.server->Write(Frame(FrameKind::kMessage, 0, "at last"));
  patient.join();
}

// ------------------------------------------------- the queue of broadcasts --

TEST(ClientTest, OldestBroadcastsAreDroppedBeyondTheBounds) {
  Pair pair;
  std::string stream;
  for (unsigned i = 1; i <= ZU_CLIENT_BROADCASTS_MAX + 3; ++i) {
    stream += Frame(FrameKind::kMessage, 0, std::to_string(i));
  }
  pair.server->Write(stream + Reply(1, "done"));
  EXPECT_EQ(pair.Ask("{}"), "done");
  EXPECT_EQ(pair.client.LostBroadcasts(), 3u);
  EXPECT_EQ(pair.Next(), "4");

  client::BroadcastQueue queue;
  constexpr size_t kFifth = ZU_CLIENT_BROADCAST_BYTES_MAX / 5;
  for (const size_t size : {kFifth, kFifth, 3 * kFifth, 2 * kFifth}) {
    queue.Push(client::MakeBlock(size));
  }
  EXPECT_EQ(queue.lost(), 2u);
  EXPECT_EQ(queue.Pop().size, 3 * kFifth);
}

// --------------------------------------------------------------- connecting --

struct Place {
  mode_t mode = 0755;
  uid_t owner = 0;
  uid_t server = 0;
  const char* service = "server";
  bool listens = true;
  bool backlog_full = false;
};

struct ConnectCase {
  const char* name;
  ZuClientStatus status;
  Place place{};
};

void PrintTo(const ConnectCase& c, std::ostream* out) { *out << c.name; }

class ConnectTest : public testing::TestWithParam<ConnectCase> {};

TEST_P(ConnectTest, TrustsOnlyWhatNobodyElseCouldHavePutThere) {
  const Place& c = GetParam().place;
  const ZuClientStatus status = GetParam().status;
  const uid_t self = ::geteuid();
  if (c.owner + c.server != 0 && self != 0) GTEST_SKIP() << "not root";
  const std::string directory = testing::TempDir() + "zu_client_test." +
                                std::to_string(::getpid()) + "." +
                                GetParam().name;
  std::filesystem::remove_all(directory);
  ASSERT_EQ(::mkdir(directory.c_str(), 0755), 0);

  sockaddr_un address = {AF_UNIX, {}};
  const std::string path = directory + "/server";
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const auto* where = reinterpret_cast<const sockaddr*>(&address);
  FileDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(listener.get(), where, sizeof(address)), 0);
  if (c.listens) {
    // The peer's credentials are those of the moment when it began to listen.
    const bool other = c.server != 0;
    ASSERT_EQ(::seteuid(other ? c.server : self), 0);
    EXPECT_EQ(::listen(listener.get(), 0), 0);
    ASSERT_EQ(::seteuid(self), 0);
  }
  FileDescriptor others;
  if (c.backlog_full) {
    others.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::connect(others.get(), where, sizeof(address)), 0);
  }
  ASSERT_EQ(::chmod(directory.c_str(), c.mode), 0);
  if (c.owner != 0) {
    ASSERT_EQ(::chown(directory.c_str(), c.owner, 0), 0);
  }

  FileDescriptor connection;
  EXPECT_EQ(ConnectTo(directory.c_str(), c.service, kShort, connection),
            status);
  EXPECT_EQ(connection.valid(), status == ZU_CLIENT_OK);
  if (connection.valid()) {
    EXPECT_EQ(::fcntl(connection.get(), F_GETFD), FD_CLOEXEC);
  }
  std::filesystem::remove_all(directory);
  EXPECT_EQ(ConnectTo(directory.c_str(), "server", kShort, connection),
            ZU_CLIENT_NO_SERVER);
}

const std::string kTooLong(110, 'x');

INSTANTIATE_TEST_SUITE_P(
    All, ConnectTest,
    testing::Values(
        ConnectCase{"Good", ZU_CLIENT_OK},
        ConnectCase{"NoSocket", ZU_CLIENT_NO_SERVER, {.service = "other"}},
        ConnectCase{"NobodyListens", ZU_CLIENT_NO_SERVER, {.listens = false}},
        ConnectCase{"BacklogFull", ZU_CLIENT_TIMED_OUT, {.backlog_full = true}},
        ConnectCase{"GroupWrites", ZU_CLIENT_UNTRUSTED_SERVER, {.mode = 0775}},
        ConnectCase{"OthersWrite", ZU_CLIENT_UNTRUSTED_SERVER, {.mode = 01757}},
        ConnectCase{"OthersOwn", ZU_CLIENT_UNTRUSTED_SERVER, {.owner = 65534}},
        ConnectCase{
            "OthersServe", ZU_CLIENT_UNTRUSTED_SERVER, {.server = 65534}},
        ConnectCase{"NoName", ZU_CLIENT_BAD_ARGUMENT, {.service = ""}},
        ConnectCase{"PathAsName", ZU_CLIENT_BAD_ARGUMENT, {.service = "../x"}},
        ConnectCase{"NameTooLong",
                    ZU_CLIENT_BAD_ARGUMENT,
                    {.service = kTooLong.c_str()}}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace zu
