// Requests, replies and broadcasts over the public interface and the client
// library; starting and stopping, in order and out of order.

#include <gmock/gmock.h>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <thread>

#include "client/zu_client.hpp"
#include "support/never_destroyed.h"
#include "tests/server/signed_test.h"
#include "tests/support/system_log.h"
#include "tests/support/wait_until.h"

namespace zu::test {
namespace {

using testing::ElementsAre;

constexpr int32_t kWait_ms = 20000;

// What one callback saw on entry.
struct Call {
  uint32_t capacity;
  uint32_t length;
  std::string text;  // Up to the NUL.
  bool clean;        // Nothing but NULs behind it.
};

// The recording callback, which answers as `g_answer` says. The client waits
// for each answer, so nothing here is touched by two threads at once.
std::vector<Call> g_calls;
std::function<void(char*, uint32_t, uint32_t*)> g_answer;

uint32_t Record(char* buffer, uint32_t capacity, uint32_t* length) {
  g_calls.push_back({capacity, *length, buffer,
                     std::all_of(buffer + *length, buffer + capacity + 1,
                                 [](char c) { return c == '\0'; })});
  if (g_answer) g_answer(buffer, capacity, length);
  return 0;
}

// A request of exactly `size` bytes for the recording callback.
std::string RequestOfSize(size_t size) {
  std::string text = "{\"CMD_\":\"RECORD\",\"PAD\":\"";
  text.append(size - text.size() - 2, 'x');
  return text + "\"}";
}

// With a reply, so that the server has it in its list.
Client ConnectToServer() {
  Client client;
  EXPECT_EQ(client.Connect(), ZU_CLIENT_OK);
  EXPECT_TRUE(client.Request("{}", kWait_ms));
  return client;
}

#define ZU_PROCESS "ZuHelperOSX.ProcessXpcRequest: "
constexpr char kNoDictionary[] = ZU_PROCESS "no dictionary to process";
constexpr char kNoCommand[] = ZU_PROCESS "no command message found";

const ChildScenario kAnswers("Answers", [](const Arguments&) {
  struct Row {
    std::string request;
    const char* line = nullptr;  // What is logged, if no callback is called.
    std::string reply = request;
  };
  const Row rows[] = {
      {"{\"CMD_\":\"RECORD\",\"A\":-123456789012345678901234}"},
      {"{\"CMD_\":\"\\u0052ECORD\"}"},
      {"{\"CMD_\":5}", kNoCommand},
      {"[\"CMD_\",\"RECORD\"]", kNoCommand},
      {"CMD_=RECORD", kNoDictionary},
      {"{\"CMD_\":\"OTHER\"}", ZU_PROCESS
       "no command OTHER in uiCmdMap - dropped message since no callback found "
       "in dictionary"},
      {"{}" + std::string(1, '\0') + "x", kNoDictionary, "{}"},
      {"", ZU_PROCESS "received bad message, length = 0", "{\"RESP\":-2}"},
      {RequestOfSize(ZU_MESSAGE_MAX + 1),
       ZU_PROCESS "received bad message, length = 5242881", "{\"RESP\":-2}"},
  };
  SystemLog log;
  // Replaced at once: it records nothing.
  ZuSetServerCallbackForCommand("RECORD",
                                [](char*, uint32_t, uint32_t*) { return 0u; });
  ZuSetServerCallbackForCommand("RECORD", &Record);
  EXPECT_EQ(ZuSetServerCallbackForCommand(nullptr, &Record), ZU_SERVER_REFUSED);
  EXPECT_EQ(ZuSetServerCallbackForCommand("RECORD", nullptr),
            ZU_SERVER_REFUSED);
  ZuStartServer();
  Client client = ConnectToServer();
  // The listener's last line may come after the first reply.
  EXPECT_TRUE(
      log.WaitForLine("ZuHelperOSX.xpc_connection_set_event_handler: "
                      "ClientConnectionHandler(client) completed"));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.request.substr(0, 100));
    log.Take();
    g_calls.clear();
    EXPECT_TRUE(client.Request(row.request, kWait_ms).text() == row.reply);
    EXPECT_EQ(g_calls.size(), row.line == nullptr ? 1u : 0u);
    std::vector<std::string> lines;
    if (row.line != nullptr) lines.push_back(row.line);
    EXPECT_EQ(log.Take(), lines);
  }
  ZuStopServer();
  return 0;
});

const ChildScenario kBuffers("Buffers", [](const Arguments&) {
  constexpr uint32_t kMax = ZU_MESSAGE_MAX;
  // The callback's first call gets a buffer of `first` with the request, room
  // for its NUL and nothing of an earlier request behind it. One that always
  // asks for `wanted` bytes gets a buffer of `second` and the request again,
  // and its answer is cut to `reply`.
  const struct {
    size_t request;
    uint32_t first;
    uint32_t wanted = 0;
    uint32_t second = 0;
    size_t reply = 0;
  } rows[] = {{2048, 2048},
              {2049, 2050},
              {kMax, kMax + 1},
              {100, 2048, 2048, 0, 2048},
              {100, 2048, 2049, 2050, 2049},
              {3000, 3001, 10000, 10001, 10000},
              {100, 2048, UINT32_MAX, kMax, kMax},
              // The second buffer is the smaller one.
              {kMax, kMax + 1, kMax + 2, kMax, kMax}};
  ZuSetServerCallbackForCommand("RECORD", &Record);
  ZuStartServer();
  Client client = ConnectToServer();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.wanted);
    const size_t calls = row.second != 0 ? 2 : 1;
    g_calls.clear();
    g_answer = [&](char* buffer, uint32_t capacity, uint32_t* length) {
      if (row.wanted == 0) return;
      if (g_calls.size() == calls) std::memset(buffer, 'r', capacity + 1);
      *length = row.wanted;
    };
    const std::string request = RequestOfSize(row.request);
    EXPECT_TRUE(client.Request(request, kWait_ms).text() ==
                (row.wanted == 0 ? request : std::string(row.reply, 'r')));
    if (g_calls.size() != calls) return 2;
    EXPECT_EQ(g_calls[0].capacity, row.first);
    for (const Call& call : g_calls) {
      EXPECT_EQ(call.length, row.request);
      EXPECT_TRUE(call.text == request.substr(0, call.capacity));
      EXPECT_TRUE(call.length > call.capacity || call.clean);
    }
    EXPECT_TRUE(calls == 1 || g_calls[1].capacity == row.second);
  }
  g_answer = [](char* buffer, uint32_t, uint32_t* length) {
    std::memcpy(buffer, "ab\0cd", 6);
    *length = 5;
  };
  EXPECT_EQ(client.Request(RequestOfSize(100), kWait_ms).text(), "ab");
  ZuStopServer();
  return 0;
});

uint32_t Broadcast(std::string_view text) {
  return ZuBroadcastMessageWithNoReply(text.data(),
                                       static_cast<int32_t>(text.size()));
}

// Up to a stop while clients come and go.
const ChildScenario kBroadcasts("Broadcasts", [](const Arguments&) {
  const std::string longest(ZU_MESSAGE_MAX, 'x');
  EXPECT_EQ(Broadcast("early"), 0u);
  ZuStartServer();
  Client one = ConnectToServer();
  Client two = ConnectToServer();
  EXPECT_EQ(ZuBroadcastMessageWithNoReply(nullptr, 5), ZU_SERVER_REFUSED);
  EXPECT_EQ(ZuBroadcastMessageWithNoReply("x", -1), ZU_SERVER_REFUSED);
  EXPECT_EQ(Broadcast(""), ZU_SERVER_REFUSED);
  EXPECT_EQ(Broadcast(longest + "x"), ZU_SERVER_REFUSED);
  for (const std::string_view text : {{"a\0{", 3}, std::string_view(longest)}) {
    EXPECT_EQ(Broadcast(text), 0u);
    EXPECT_TRUE(one.Receive(kWait_ms).text() == text);
    EXPECT_TRUE(two.Receive(kWait_ms).text() == text);
  }
  std::vector<std::jthread> threads;
  for (int sender = 0; sender < 3; ++sender) {
    threads.emplace_back([] {
      for (int i = 0; i < 2000; ++i) Broadcast("x");
    });
  }
  for (int i = 0; i < 10; ++i) ConnectToServer();
  ZuStopServer();
  threads.clear();
  EXPECT_EQ(Broadcast("x"), ZU_SERVER_REFUSED);
  return 0;
});

const ChildScenario kOnce("Once", [](const Arguments&) {
  SystemLog log;
  EXPECT_EQ(ZuStartServer(), 0u);
  EXPECT_NE(gXpcRequestQueue, nullptr);
  EXPECT_EQ(ZuStartServer(), 0u);
  EXPECT_THAT(
      log.Take(),
      ElementsAre("> ZuHelperOSX.StartServer:",
                  "ZuHelperOSX.StartServer: xpc_connection_set_event_handler",
                  "ZuHelperOSX.StartServer: xpc worker thread created",
                  "> ZuHelperOSX.StartServer:"));
  ZuStopServer();
  EXPECT_EQ(gXpcRequestQueue, nullptr);
  EXPECT_THAT(log.Take(),
              ElementsAre("> ZuHelperOSX.StopServer",
                          "ZuHelperOSX.StopServer: release dispatch queue",
                          "ZuHelperOSX.StopServer: cancel connection",
                          "ZuHelperOSX.StopServer: release gRequestQueue",
                          "ZuHelperOSX.StopServer: release uiCmdMap",
                          "ZuHelperOSX.StopServer: release gClientConnections",
                          "< ZuHelperOSX.StopServer: complete"));
  ZuStopServer();
  EXPECT_THAT(log.Take(), ElementsAre("> ZuHelperOSX.StopServer",
                                      "< ZuHelperOSX.StopServer: complete"));
  // Stopped for good: a new server is there and ignores everybody.
  EXPECT_EQ(ZuStartServer(), 0u);
  log.Take();
  Client client;
  EXPECT_EQ(client.Connect(), ZU_CLIENT_OK);
  EXPECT_EQ(client.Request("{}", kWait_ms).status(), ZU_CLIENT_DISCONNECTED);
  EXPECT_THAT(
      log.Take(),
      ElementsAre(
          "< ZuHelperOSX.xpc_connection_set_event_handler: gShuttingDown"));
  ZuStopServer();
  return 0;
});

std::promise<void> g_entered;
std::atomic<bool> g_open{false};

uint32_t WaitAtGate(char*, uint32_t, uint32_t*) {
  g_entered.set_value();
  g_open.wait(false);
  return 0;
}

// The request under way gets no answer, is told so, and the stop waits for it.
const ChildScenario kDuringCallback("DuringCallback", [](const Arguments&) {
  ZuSetServerCallbackForCommand("WAIT", &WaitAtGate);
  ZuStartServer();
  Client client;
  client.Connect();
  std::jthread requester([&client] {
    EXPECT_EQ(client.Request("{\"CMD_\":\"WAIT\"}", kWait_ms).status(),
              ZU_CLIENT_NO_REPLY);
  });
  g_entered.get_future().wait();
  std::jthread stopper([] {
    ZuStopServer();
    EXPECT_TRUE(g_open) << "did not wait";
  });
  EXPECT_TRUE(WaitUntil([] { return Broadcast("x") == ZU_SERVER_REFUSED; }));
  g_open = true;
  g_open.notify_all();
  stopper.join();
  requester.join();
  // The connection itself stays open; what comes over it is dropped.
  EXPECT_EQ(client.Request("{}", kWait_ms).status(), ZU_CLIENT_NO_REPLY);
  return 0;
});

// A host that stops inside of a callback, or just leaves there.
const ChildScenario kLeaves("Leaves", [](const Arguments& how) {
  ZuSetServerCallbackForCommand("Stop", [](char*, uint32_t, uint32_t*) {
    ZuStopServer();
    return 0u;
  });
  ZuSetServerCallbackForCommand(
      "Exit", [](char*, uint32_t, uint32_t*) -> uint32_t { std::exit(0); });
  ZuStartServer();
  // A call on it is still under way when a callback exits.
  static NeverDestroyed<Client> never_destroyed;
  Client& client = never_destroyed.value;
  client.Connect();
  EXPECT_EQ(client.Request("{\"CMD_\":\"" + how[0] + "\"}", kWait_ms).status(),
            ZU_CLIENT_NO_REPLY);
  ZuStopServer();
  return how[0] == "Exit" ? 1 : 0;
});

// A service name that cannot be taken is an error event, and nothing else.
const ChildScenario kWithoutName("WithoutName", [](const Arguments&) {
  SystemLog log;
  EXPECT_EQ(ZuStartServer(), 0u);
  EXPECT_TRUE(log.WaitForLine(
      "ZuHelperOSX.xpc_connection_set_event_handler: xpc_get_type(client) "
      "ERROR"));
  ZuStopServer();
  return 0;
});

// A living server keeps its name; a dead one's socket is no obstacle.
const ChildScenario kNameInUse("NameInUse", [](const Arguments&) -> int {
  ZuStartServer();
  EXPECT_EQ(RunInChild(kWithoutName, {}, kSignedProgram).status, 0);
  Client client;
  client.Connect();
  EXPECT_TRUE(client.Request("{}", kWait_ms));
  ::_exit(testing::UnitTest::GetInstance()->Failed() ? 1 : 0);
});

using ServerTest = SignedTest;

TEST_F(ServerTest, AnswersByTheTable) { Expect(kAnswers); }
TEST_F(ServerTest, GivesEachCallItsBuffer) { Expect(kBuffers); }
TEST_F(ServerTest, BroadcastsToEveryClient) { Expect(kBroadcasts); }
TEST_F(ServerTest, StopWaitsForTheCallback) { Expect(kDuringCallback); }
TEST_F(ServerTest, HostLeavesInDisorder) {
  for (const char* how : {"Stop", "Exit"}) {
    SCOPED_TRACE(how);
    Expect(kLeaves, {how});
  }
}
TEST_F(ServerTest, NeedsADirectoryOfItsOwn) {
  std::filesystem::create_directory(ZU_SOCKET_DIRECTORY);
  std::filesystem::permissions(ZU_SOCKET_DIRECTORY,
                               std::filesystem::perms::all);
  Expect(kWithoutName);
  std::filesystem::remove_all(ZU_SOCKET_DIRECTORY);
}
TEST_F(ServerTest, SharesItsNameWithNobody) {
  Expect(kNameInUse);
  Expect(kOnce);  // Starts once, and stops for good.
}

}  // namespace
}  // namespace zu::test
