// Requests and replies over the public interface and the client library.

#include <gmock/gmock.h>
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

using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

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

struct Row {
  const char* name;
  std::string request;
  std::string reply;
  const char* line;  // What is logged; null: the callback is called instead.
};

#define ZU_PROCESS "ZuHelperOSX.ProcessXpcRequest: "
constexpr char kNoDictionary[] = ZU_PROCESS "no dictionary to process";
constexpr char kNoCommand[] = ZU_PROCESS "no command message found";
constexpr char kUnknown[] = ZU_PROCESS
    "no command OTHER in uiCmdMap - dropped message since no callback found "
    "in dictionary";

std::vector<Row> Rows() {
  const auto echo = [](const char* name, const std::string& text,
                       const char* line) {
    return Row{name, text, text, line};
  };
  const std::string command = "{\"CMD_\":\"RECORD\"";
  return {
      echo("Known", command + "}", nullptr),
      echo("EscapedName", "{\"CMD_\":\"\\u0052ECORD\"}", nullptr),
      echo("LargeInteger", command + ",\"A\":-123456789012345678901234}",
           nullptr),
      echo("Depth512", Nested(512), nullptr),
      echo("Depth513", Nested(513), kNoDictionary),
      echo("Empty", "{}", kNoCommand),
      echo("NumberForName", "{\"CMD_\":5}", kNoCommand),
      echo("NullForName", "{\"CMD_\":null}", kNoCommand),
      echo("Array", "[\"CMD_\",\"RECORD\"]", kNoCommand),
      echo("Scalar", "\"CMD_\"", kNoDictionary),
      echo("NotJson", "CMD_=RECORD", kNoDictionary),
      echo("Truncated", command, kNoDictionary),
      echo("Infinite", command + ",\"A\":1e999}", kNoDictionary),
      echo("NotUtf8", command + ",\"A\":\"\xff\"}", kNoDictionary),
      echo("Unknown", "{\"CMD_\":\"OTHER\"}", kUnknown),
      Row{"Nul", "{}" + std::string(1, '\0') + "x", "{}", kNoDictionary},
      Row{"NoBytes", "", kErrorReply,
          ZU_PROCESS "received bad message, length = 0"},
      Row{"TooLong", RequestOfSize(ZU_MESSAGE_MAX + 1), kErrorReply,
          ZU_PROCESS "received bad message, length = 5242881"},
  };
}

Client ConnectToServer() {
  Client client;
  EXPECT_EQ(client.Connect(), ZU_CLIENT_OK);
  return client;
}

// The listener's last line about a client may come after that client's first
// reply; the log is empty behind it.
Client ConnectAndDrain(SystemLog& log) {
  Client client = ConnectToServer();
  EXPECT_TRUE(client.Request("{}", kWait_ms));
  EXPECT_TRUE(
      log.WaitForLine("ZuHelperOSX.xpc_connection_set_event_handler: "
                      "ClientConnectionHandler(client) completed"));
  log.Take();
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
  Client client = ConnectAndDrain(log);
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.name);
    log.Take();
    const ClientText reply = client.Request(row.request, kWait_ms);
    EXPECT_EQ(reply.status(), ZU_CLIENT_OK);
    EXPECT_TRUE(reply.text() == row.reply) << reply.text().substr(0, 200);
    const std::vector<Call> calls = TakeCalls();
    if (row.line == nullptr) {
      EXPECT_EQ(calls.size(), 1u);
      EXPECT_THAT(log.Take(), ElementsAre());
    } else {
      EXPECT_EQ(calls.size(), 0u);
      EXPECT_THAT(log.Take(), ElementsAre(row.line));
    }
  }
  ZuStopServer();
  return 0;
});

// Every size at a border of the buffers, each seen with room for its NUL and
// nothing of an earlier request behind it.
const ChildScenario kBuffers("Buffers", [](const Arguments&) {
  ZuSetServerCallbackForCommand("RECORD", &Record);
  ZuStartServer();
  Client client = ConnectToServer();
  for (const auto& [size, capacity] : std::vector<std::pair<size_t, uint32_t>>{
           {2048, 2048},
           {100, 2048},
           {2049, 2050},
           {65536, 65537},
           {32767, 32768},
           {ZU_MESSAGE_MAX, ZU_MESSAGE_MAX + 1},
           {64, 2048}}) {
    SCOPED_TRACE(size);
    const std::string request = RequestOfSize(size);
    const ClientText reply = client.Request(request, kWait_ms);
    EXPECT_TRUE(reply.text() == request);
    const std::vector<Call> calls = TakeCalls();
    if (calls.size() != 1) return 1;
    EXPECT_EQ(calls[0].capacity, capacity);
    EXPECT_EQ(calls[0].length, size);
    EXPECT_TRUE(calls[0].text == request);
    EXPECT_TRUE(calls[0].clean);
  }
  ZuStopServer();
  return 0;
});

// A callback that always asks for `wanted` bytes; the second call gets a buffer
// of `second` and the request again, and its answer is cut to `reply`.
struct Growth {
  size_t request;
  uint32_t wanted;
  uint32_t second;
  size_t reply;
};

const ChildScenario kGrowth("Growth", [](const Arguments&) {
  ZuSetServerCallbackForCommand("RECORD", &Record);
  ZuStartServer();
  Client client = ConnectToServer();
  for (const Growth& row : std::initializer_list<Growth>{
           {100, 2048, 0, 2048},
           {100, 2049, 2050, 2049},
           {100, 10000, 10001, 10000},
           {3000, 10000, 10001, 10000},
           {100, ZU_MESSAGE_MAX - 1, ZU_MESSAGE_MAX, ZU_MESSAGE_MAX - 1},
           {100, ZU_MESSAGE_MAX, ZU_MESSAGE_MAX, ZU_MESSAGE_MAX},
           {100, UINT32_MAX, ZU_MESSAGE_MAX, ZU_MESSAGE_MAX},
           // The second buffer is the smaller one.
           {ZU_MESSAGE_MAX, ZU_MESSAGE_MAX + 2, ZU_MESSAGE_MAX,
            ZU_MESSAGE_MAX}}) {
    SCOPED_TRACE(row.wanted);
    const bool grows = row.second != 0;
    bool first = grows;
    SetAnswer([&](char* buffer, uint32_t capacity, uint32_t* length) {
      if (!std::exchange(first, false)) std::memset(buffer, 'r', capacity + 1);
      *length = row.wanted;
    });
    const std::string request = RequestOfSize(row.request);
    const ClientText reply = client.Request(request, kWait_ms);
    EXPECT_EQ(reply.status(), ZU_CLIENT_OK);
    EXPECT_TRUE(reply.text() == std::string(row.reply, 'r'))
        << reply.text().size();
    const std::vector<Call> calls = TakeCalls();
    EXPECT_EQ(calls.size(), grows ? 2u : 1u);
    if (!grows) continue;
    EXPECT_EQ(calls[1].capacity, row.second);
    EXPECT_EQ(calls[1].length, row.request);
    EXPECT_TRUE(calls[1].text == request.substr(0, row.second));
    EXPECT_TRUE(calls[1].length > row.second || calls[1].clean);
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
  SystemLog log;
  EXPECT_EQ(ZuBroadcastMessageWithNoReply("early", 5), 0u);
  ZuStartServer();
  Client one = ConnectAndDrain(log);
  Client two = ConnectAndDrain(log);
  EXPECT_EQ(ZuBroadcastMessageWithNoReply(nullptr, 5), ZU_SERVER_REFUSED);
  EXPECT_EQ(ZuBroadcastMessageWithNoReply("x", 0), ZU_SERVER_REFUSED);
  EXPECT_EQ(ZuBroadcastMessageWithNoReply("x", -1), ZU_SERVER_REFUSED);
  const char* line =
      "< ZuHelperOSX.broadcastMessageWithNoReply: message not created";
  EXPECT_THAT(log.Take(), ElementsAre(line, line, line));
  const std::string large(1 << 20, 'b');
  const std::string bytes("a\0{", 3);
  for (const std::string& text : {bytes, large}) {
    EXPECT_EQ(ZuBroadcastMessageWithNoReply(text.data(),
                                            static_cast<int32_t>(text.size())),
              0u);
    EXPECT_TRUE(one.Receive(kWait_ms).text() == text);
    EXPECT_TRUE(two.Receive(kWait_ms).text() == text);
  }
  ZuStopServer();
  log.Take();
  EXPECT_EQ(ZuBroadcastMessageWithNoReply("x", 1), ZU_SERVER_REFUSED);
  EXPECT_EQ(ZuBroadcastMessageWithNoReply(nullptr, 0), ZU_SERVER_REFUSED);
  EXPECT_THAT(log.Take(), ElementsAre());
  return 0;
});

// While a callback takes its time, output still flows to those who read, and
// what clients send is still taken in.
const ChildScenario kSlowCallback("SlowCallback", [](const Arguments&) {
  ZuSetServerCallbackForCommand("RECORD", &Record);
  ZuStartServer();
  Client listener = ConnectToServer();
  Client requester = ConnectToServer();
  EXPECT_TRUE(listener.Request("{}", kWait_ms));
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
TEST_F(ServerRequestTest, GivesEachRequestItsBuffer) { Expect(kBuffers); }
TEST_F(ServerRequestTest, CallsAgainWithALargerBuffer) { Expect(kGrowth); }
TEST_F(ServerRequestTest, BroadcastsToEveryClient) { Expect(kBroadcasts); }

}  // namespace
}  // namespace zu::test
