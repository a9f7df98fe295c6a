// Starting and stopping, in order and out of order.

#include <gmock/gmock.h>
#include <atomic>
#include <future>
#include <thread>

#include "client/zu_client.hpp"
#include "support/never_destroyed.h"
#include "tests/server/signed_test.h"
#include "tests/support/process_state.h"
#include "tests/support/system_log.h"

namespace zu::test {
namespace {

using testing::ElementsAre;

constexpr int32_t kWait_ms = 20000;

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
  {
    std::vector<std::jthread> stoppers;
    for (int i = 0; i < 3; ++i) {
      stoppers.emplace_back([] {
        ZuStopServer();
        EXPECT_TRUE(g_open) << "did not wait";
      });
    }
    EXPECT_TRUE(WaitUntil([] {
      return ZuBroadcastMessageWithNoReply("x", 1) == ZU_SERVER_REFUSED;
    }));
    g_open = true;
    g_open.notify_all();
  }
  requester.join();
  // The connection itself stays open; what comes over it is dropped.
  EXPECT_EQ(client.Request("{}", kWait_ms).status(), ZU_CLIENT_NO_REPLY);
  return 0;
});

// A host that stops inside of a callback, or that just leaves: from a callback,
// or by returning from main.
const ChildScenario kLeaves("Leaves", [](const Arguments& how) {
  ZuSetServerCallbackForCommand("Stop", [](char*, uint32_t, uint32_t*) {
    ZuStopServer();
    return 0u;
  });
  ZuSetServerCallbackForCommand("Restart", [](char*, uint32_t, uint32_t*) {
    ZuStopServer();
    return ZuStartServer();
  });
  ZuSetServerCallbackForCommand(
      "Exit", [](char*, uint32_t, uint32_t*) -> uint32_t { std::exit(0); });
  ZuStartServer();
  // A call on it is still under way when a callback exits.
  static NeverDestroyed<Client> never_destroyed;
  Client& client = never_destroyed.value;
  client.Connect();
  const bool returns = how[0] == "Return";  // No such command: an echo.
  EXPECT_EQ(client.Request("{\"CMD_\":\"" + how[0] + "\"}", kWait_ms).status(),
            returns ? ZU_CLIENT_OK : ZU_CLIENT_NO_REPLY);
  if (!returns) ZuStopServer();
  return how[0] == "Exit" ? 1 : 0;
});

// Many starts and stops leave neither threads nor descriptors.
const ChildScenario kManyTimes("ManyTimes", [](const Arguments&) {
  const size_t descriptors = CountDescriptors();
  const size_t threads = CountThreads();
  for (int i = 0; i < 200; ++i) {
    ZuStopServer();  // There is none the first time.
    ZuStartServer();
  }
  ZuStopServer();
  // The last few loops may still be ending; a leak would show 200 times.
  EXPECT_LE(CountDescriptors(), descriptors + 100);
  // One may stay: the observer of notifications outlives the server.
  EXPECT_TRUE(WaitUntil([=] { return CountThreads() <= threads + 1; }));
  return 0;
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
  EXPECT_EQ(RunInChild(kWithoutName, {}, kDeadline, kSignedProgram).status, 0);
  Client client;
  client.Connect();
  EXPECT_TRUE(client.Request("{}", kWait_ms));
  ::_exit(testing::UnitTest::GetInstance()->Failed() ? 1 : 0);
});

using ServerLifecycleTest = SignedTest;

TEST_F(ServerLifecycleTest, StopWaitsForTheCallback) {
  Expect(kDuringCallback);
}
TEST_F(ServerLifecycleTest, HostLeavesInDisorder) {
  for (const char* how : {"Stop", "Restart", "Exit", "Return"}) {
    SCOPED_TRACE(how);
    Expect(kLeaves, {how});
  }
}
TEST_F(ServerLifecycleTest, LeavesNothingBehind) { Expect(kManyTimes); }
TEST_F(ServerLifecycleTest, NeedsADirectoryOfItsOwn) {
  std::filesystem::create_directory(ZU_SOCKET_DIRECTORY);
  std::filesystem::permissions(ZU_SOCKET_DIRECTORY,
                               std::filesystem::perms::all);
  Expect(kWithoutName);
  std::filesystem::remove_all(ZU_SOCKET_DIRECTORY);
}
TEST_F(ServerLifecycleTest, SharesItsNameWithNobody) {
  Expect(kNameInUse);
  Expect(kOnce);  // Starts once, and stops for good.
}

}  // namespace
}  // namespace zu::test
