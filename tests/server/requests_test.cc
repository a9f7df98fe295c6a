// Requests, replies and broadcasts over the public interface and the client
// library.

#include <algorithm>
#include <cstring>
#include <functional>
#include <future>
#include <thread>

#include "client/zu_client.hpp"
#include "tests/server/signed_test.h"
#include "tests/support/system_log.h"

namespace zu::test {
namespace {

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
  ZuSetServerCallbackForCommand("RECORD", [](char*, uint32_t, uint32_t*) {
    ADD_FAILURE() << "replaced callback called";
    return 0u;
  });
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
              {100, 2048, kMax - 1, kMax, kMax - 1},
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

// While a callback takes its time, output still flows to those who read, and
// what clients send is still taken in.
const ChildScenario kSlowCallback("SlowCallback", [](const Arguments&) {
  ZuSetServerCallbackForCommand("RECORD", &Record);
  ZuStartServer();
  Client listener = ConnectToServer();
  Client requester = ConnectToServer();
  std::promise<void> entered;
  std::promise<void> heard;
  g_answer = [&](char*, uint32_t, uint32_t*) {
    entered.set_value();
    heard.get_future().wait();
  };
  std::jthread slow([&requester] {
    EXPECT_TRUE(requester.Request(RequestOfSize(100), kWait_ms));
  });
  entered.get_future().wait();
  // Together more than any socket holds, so that it takes a thread to send.
  const std::string text(1 << 20, 'b');
  for (int i = 0; i < 6; ++i) EXPECT_EQ(Broadcast(text), 0u);
  for (int i = 0; i < 6; ++i) {
    EXPECT_TRUE(listener.Receive(kWait_ms).text() == text);
  }
  heard.set_value();
  slow.join();
  ZuStopServer();
  return 0;
});

using ServerRequestTest = SignedTest;

TEST_F(ServerRequestTest, SendsWhileACallbackIsSlow) { Expect(kSlowCallback); }
TEST_F(ServerRequestTest, AnswersByTheTable) { Expect(kAnswers); }
TEST_F(ServerRequestTest, GivesEachCallItsBuffer) { Expect(kBuffers); }
TEST_F(ServerRequestTest, BroadcastsToEveryClient) { Expect(kBroadcasts); }

}  // namespace
}  // namespace zu::test
