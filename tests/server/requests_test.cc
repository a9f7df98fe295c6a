// Requests and replies over the public interface and the client library.

#include <algorithm>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "client/zu_client.hpp"
#include "tests/server/signed_test.h"
#include "tests/support/system_log.h"

namespace zu::test {
namespace {

constexpr int32_t kWait_ms = 20000;
constexpr char kErrorReply[] = "{\"RESP\":-2}";

// What one callback saw on entry.
struct Call {
  uint32_t capacity;
  uint32_t length;
  std::string text;  // Up to the NUL.
  bool clean;        // Nothing but NULs behind it.
};

// The recording callback, which answers as `g_answer` says.
std::mutex g_mutex;
std::vector<Call> g_calls;
std::function<void(char*, uint32_t, uint32_t*)> g_answer;

uint32_t Record(char* buffer, uint32_t capacity, uint32_t* length) {
  const std::lock_guard lock(g_mutex);
  g_calls.push_back({capacity, *length, buffer,
                     std::all_of(buffer + *length, buffer + capacity + 1,
                                 [](char c) { return c == '\0'; })});
  if (g_answer) g_answer(buffer, capacity, length);
  return 0;
}

std::vector<Call> TakeCalls() {
  const std::lock_guard lock(g_mutex);
  return std::exchange(g_calls, {});
}

void SetAnswer(std::function<void(char*, uint32_t, uint32_t*)> answer) {
  const std::lock_guard lock(g_mutex);
  g_answer = std::move(answer);
}

// A request of exactly `size` bytes for the recording callback.
std::string RequestOfSize(size_t size) {
  std::string text = "{\"CMD_\":\"RECORD\",\"PAD\":\"";
  text.append(size - text.size() - 2, 'x');
  return text + "\"}";
}

std::string Nested(int depth) {
  return "{\"CMD_\":\"RECORD\",\"A\":" + std::string(depth - 1, '[') + "1" +
         std::string(depth - 1, ']') + "}";
}

#define ZU_PROCESS "ZuHelperOSX.ProcessXpcRequest: "
constexpr char kNoDictionary[] = ZU_PROCESS "no dictionary to process";
constexpr char kNoCommand[] = ZU_PROCESS "no command message found";
constexpr char kUnknown[] = ZU_PROCESS
    "no command OTHER in uiCmdMap - dropped message since no callback found "
    "in dictionary";

struct Row {
  std::string request;
  const char* line = nullptr;  // What is logged, if no callback is called.
  std::string reply = request;
};

std::vector<Row> Rows() {
  const std::string command = "{\"CMD_\":\"RECORD\"";
  return {
      {command + "}"},
      {"{\"CMD_\":\"\\u0052ECORD\"}"},
      {command + ",\"A\":-123456789012345678901234}"},
      {Nested(512)},
      {Nested(513), kNoDictionary},
      {"{\"CMD_\":5}", kNoCommand},
      {"[\"CMD_\",\"RECORD\"]", kNoCommand},
      {"CMD_=RECORD", kNoDictionary},
      {command + ",\"A\":1e999}", kNoDictionary},
      {command + ",\"A\":\"\xff\"}", kNoDictionary},
      {"{\"CMD_\":\"OTHER\"}", kUnknown},
      {"{}" + std::string(1, '\0') + "x", kNoDictionary, "{}"},
      {"", ZU_PROCESS "received bad message, length = 0", kErrorReply},
      {RequestOfSize(ZU_MESSAGE_MAX + 1),
       ZU_PROCESS "received bad message, length = 5242881", kErrorReply},
  };
}

// With a reply, so that the server has it in its list.
Client ConnectToServer() {
  Client client;
  EXPECT_EQ(client.Connect(), ZU_CLIENT_OK);
  EXPECT_TRUE(client.Request("{}", kWait_ms));
  return client;
}

const ChildScenario kAnswers("Answers", [](const Arguments&) {
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
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.request.substr(0, 100));
    log.Take();
    const ClientText reply = client.Request(row.request, kWait_ms);
    EXPECT_EQ(reply.status(), ZU_CLIENT_OK);
    EXPECT_TRUE(reply.text() == row.reply) << reply.text().substr(0, 200);
    const std::vector<Call> calls = TakeCalls();
    const bool is_called = row.line == nullptr;
    EXPECT_EQ(calls.size(), is_called ? 1u : 0u);
    std::vector<std::string> lines;
    if (!is_called) lines.push_back(row.line);
    EXPECT_EQ(log.Take(), lines);
  }
  ZuStopServer();
  return 0;
});

// The callback's first call gets a buffer of `first` with the request, room for
// its NUL and nothing of an earlier request behind it. One that always asks for
// `wanted` bytes gets a buffer of `second` and the request again, and its
// answer is cut to `reply`.
struct Sizes {
  size_t request;
  uint32_t first;
  uint32_t wanted = 0;
  uint32_t second = 0;
  size_t reply = 0;
};

const ChildScenario kBuffers("Buffers", [](const Arguments&) {
  ZuSetServerCallbackForCommand("RECORD", &Record);
  ZuStartServer();
  Client client = ConnectToServer();
  constexpr uint32_t kMax = ZU_MESSAGE_MAX;
  for (const Sizes& row :
       std::initializer_list<Sizes>{{2048, 2048},
                                    {2049, 2050},
                                    {kMax, kMax + 1},
                                    {100, 2048, 2048, 0, 2048},
                                    {100, 2048, 2049, 2050, 2049},
                                    {3000, 3001, 10000, 10001, 10000},
                                    {100, 2048, kMax - 1, kMax, kMax - 1},
                                    {100, 2048, UINT32_MAX, kMax, kMax},
                                    // The second buffer is the smaller one.
                                    {kMax, kMax + 1, kMax + 2, kMax, kMax}}) {
    SCOPED_TRACE(row.wanted);
    bool first = row.second != 0;
    SetAnswer([&](char* buffer, uint32_t capacity, uint32_t* length) {
      if (row.wanted == 0) return;
      if (!std::exchange(first, false)) std::memset(buffer, 'r', capacity + 1);
      *length = row.wanted;
    });
    const std::string request = RequestOfSize(row.request);
    const ClientText reply = client.Request(request, kWait_ms);
    EXPECT_TRUE(reply.text() ==
                (row.wanted == 0 ? request : std::string(row.reply, 'r')))
        << reply.text().size();
    const std::vector<Call> calls = TakeCalls();
    if (calls.size() != (row.second != 0 ? 2u : 1u)) return 2;
    EXPECT_EQ(calls[0].capacity, row.first);
    for (const Call& call : calls) {
      EXPECT_EQ(call.length, row.request);
      EXPECT_TRUE(call.text == request.substr(0, call.capacity));
      EXPECT_TRUE(call.length > call.capacity || call.clean);
    }
    EXPECT_TRUE(row.second == 0 || calls[1].capacity == row.second);
  }
  SetAnswer([](char* buffer, uint32_t, uint32_t* length) {
    std::memcpy(buffer, "ab\0cd", 6);
    *length = 5;
  });
  EXPECT_EQ(client.Request(RequestOfSize(100), kWait_ms).text(), "ab");
  ZuStopServer();
  return 0;
});

const ChildScenario kBroadcasts("Broadcasts", [](const Arguments&) {
  EXPECT_EQ(ZuBroadcastMessageWithNoReply("early", 5), 0u);
  ZuStartServer();
  Client one = ConnectToServer();
  Client two = ConnectToServer();
  EXPECT_EQ(ZuBroadcastMessageWithNoReply(nullptr, 5), ZU_SERVER_REFUSED);
  EXPECT_EQ(ZuBroadcastMessageWithNoReply("x", 0), ZU_SERVER_REFUSED);
  EXPECT_EQ(ZuBroadcastMessageWithNoReply("x", -1), ZU_SERVER_REFUSED);
  EXPECT_EQ(ZuBroadcastMessageWithNoReply("a\0{", 3), 0u);
  for (Client* client : {&one, &two}) {
    EXPECT_EQ(client->Receive(kWait_ms).text(), std::string_view("a\0{", 3));
  }
  ZuStopServer();
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
  SetAnswer([&](char*, uint32_t, uint32_t*) {
    entered.set_value();
    heard.get_future().wait();
  });
  std::thread slow([&requester] {
    EXPECT_TRUE(requester.Request(RequestOfSize(100), kWait_ms));
  });
  entered.get_future().wait();
  // Together more than any socket holds, so that it takes a thread to send.
  const std::string text(1 << 20, 'b');
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(ZuBroadcastMessageWithNoReply(text.data(), 1 << 20), 0u);
  }
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
