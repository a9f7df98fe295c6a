// Broadcasts while clients come and go and the server stops.

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "client/zu_client.hpp"
#include "tests/server/signed_test.h"

namespace zu::test {
namespace {

constexpr int32_t kWait_ms = 20000;

uint32_t Broadcast(size_t size) {
  return ZuBroadcastMessageWithNoReply(std::string(size, 'x').data(),
                                       static_cast<int32_t>(size));
}

// Whoever has an answer is in the list.
Client ConnectToServer() {
  Client client;
  EXPECT_EQ(client.Connect(), ZU_CLIENT_OK);
  EXPECT_TRUE(client.Request("{}", kWait_ms));
  return client;
}

// So few messages overrun no client's bound.
const ChildScenario kCrowd("Crowd", [](const Arguments&) {
  ZuStartServer();
  Client reader = ConnectToServer();
  EXPECT_EQ(Broadcast(ZU_MESSAGE_MAX), 0u);
  EXPECT_EQ(reader.Receive(kWait_ms).text().size(), ZU_MESSAGE_MAX);
  EXPECT_EQ(Broadcast(ZU_MESSAGE_MAX + 1), ZU_SERVER_REFUSED);
  std::vector<std::thread> threads;
  for (int sender = 0; sender < 3; ++sender) {
    threads.emplace_back([] {
      for (int i = 0; i < 2000; ++i) Broadcast(1);
    });
  }
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(ConnectToServer());
  ZuStopServer();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Broadcast(1), ZU_SERVER_REFUSED);
  return 0;
});

using ServerBroadcastTest = SignedTest;

TEST_F(ServerBroadcastTest, SurvivesACrowd) { Expect(kCrowd); }

}  // namespace
}  // namespace zu::test
