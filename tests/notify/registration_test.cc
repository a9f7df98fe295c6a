// The registrations of hosts, through the exported names.

#include <arpa/inet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "support/file_descriptor.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_tool.h"
#include "tests/support/system_log.h"
#include "tests/support/test_root.h"
#include "tests/support/wait_until.h"

namespace {

using ::testing::ElementsAre;
using zu::FileDescriptor;
using zu::test::Arguments;
using zu::test::ChildScenario;
using zu::test::RunInChild;
using zu::test::WaitUntil;
using zu::test::WriteFile;

constexpr char kPowerName[] = "com.apple.system.powersources.timeremaining";
constexpr char kNetworkName[] = "com.apple.system.config.network_change";
constexpr char kBad[] = "RegisterAddressChangeFunc - Bad parameters";
constexpr char kCalling[] = "RegisterAddressChangeFunc - Calling callback";

std::atomic<int> g_calls[2];
std::atomic<int> g_unlimited{-1};
template <int kIndex>
void OnPower(uint8_t unlimited) {
  g_unlimited = unlimited;
  ++g_calls[kIndex];
}
template <int kIndex>
void OnNetwork() {
  ++g_calls[kIndex];
}

// Whether `act` leads to a call of that callback.
template <typename Act>
bool Calls(int index, Act act) {
  const int before = g_calls[index];
  act();
  return WaitUntil([=] { return g_calls[index] > before; });
}

auto Posting(const char* name) {
  return [name] { EXPECT_EQ(ZuSignalUI(name), 0u); };
}

using RegistrationTest = zu::test::RootedTest;

TEST_F(RegistrationTest, HoldsOnePowerCallback) {
  uint8_t unlimited[2] = {7, 7};
  ZuUnRegisterPowerSource();
  EXPECT_EQ(ZuRegisterPowerSource(&OnPower<0>, nullptr), 0);
  // One that is null does not count as held.
  EXPECT_EQ(ZuRegisterPowerSource(nullptr, unlimited), 1);
  EXPECT_EQ(ZuSignalUI(kPowerName), 0u);
  EXPECT_EQ(ZuRegisterPowerSource(&OnPower<0>, unlimited), 1);
  unlimited[0] = 7;
  EXPECT_EQ(ZuRegisterPowerSource(&OnPower<1>, unlimited), 1);
  EXPECT_LE(unlimited[0], 1);
  EXPECT_EQ(unlimited[1], 7);  // One byte is the caller's, and no more.
  EXPECT_TRUE(Calls(0, Posting(kPowerName)));
  EXPECT_EQ(g_unlimited, unlimited[0]);
  ZuUnRegisterPowerSource();
  EXPECT_EQ(ZuRegisterPowerSource(&OnPower<1>, unlimited), 1);
  EXPECT_TRUE(Calls(1, Posting(kPowerName)));
  ZuUnRegisterPowerSource();
}

TEST_F(RegistrationTest, HoldsOneNetworkCallback) {
  zu::test::SystemLog log;
  ZuUnRegisterAddressChange();
  EXPECT_EQ(ZuRegisterAddressChange(nullptr), 0u);
  EXPECT_EQ(ZuRegisterAddressChange(&OnNetwork<0>), 1u);
  EXPECT_EQ(gAddressChangeFunc, &OnNetwork<0>);
  EXPECT_EQ(RegisterAddressChangeFunc(&OnNetwork<1>), 0);
  EXPECT_TRUE(Calls(0, Posting(kNetworkName)));
  ZuUnRegisterAddressChange();
  EXPECT_EQ(gAddressChangeFunc, nullptr);
  EXPECT_THAT(log.Take(), ElementsAre(kBad, kBad, kCalling));
  EXPECT_EQ(ZuRegisterAddressChange(&OnNetwork<1>), 1u);
  EXPECT_TRUE(Calls(1, Posting(kNetworkName)));
  ZuUnRegisterAddressChange();
}

// Hosts may leave from inside a callback.
const ChildScenario kExits("Exits", [](const Arguments&) {
  EXPECT_EQ(ZuRegisterAddressChange([] { std::exit(g_calls[0]); }), 1u);
  g_calls[0] = 42;  // Shows the thread sanitizer which thread was first.
  EXPECT_EQ(ZuSignalUI(kNetworkName), 0u);
  for (;;) ::pause();
  return 0;
});

TEST_F(RegistrationTest, EndsInsideACallback) {
  EXPECT_EQ(RunInChild(kExits).status, 42);
}

// To the loopback interface, which a new network has as its first one.
void AddAddress() {
  ifreq request{{"lo"}, {}};
  const sockaddr_in address{AF_INET, 0, {::inet_addr("192.0.2.1")}, {}};
  std::memcpy(&request.ifr_addr, &address, sizeof address);
  const FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::ioctl(socket.get(), SIOCSIFADDR, &request), 0);
}

// The battery is in use when the adapter is not. What a device has of its own
// does not count.
void SetPower(const char* adapter) {
  const std::filesystem::path supplies = "/sys/class/power_supply";
  WriteFile(supplies / "AC/type", "Mains\n");
  WriteFile(supplies / "AC/online", adapter);
  WriteFile(supplies / "BAT0/type", "Battery\n");
  WriteFile(supplies / "BAT0/status", "Discharging\n");
  WriteFile(supplies / "phone/type", "USB\n");
  WriteFile(supplies / "phone/scope", "Device\n");
  WriteFile(supplies / "phone/online", "1\n");
}

const ChildScenario kSystem("System", [](const Arguments&) {
  EXPECT_EQ(::unshare(CLONE_NEWNET | CLONE_NEWNS), 0);
  EXPECT_EQ(::mount("test", "/sys/class", "tmpfs", 0, nullptr), 0);
  SetPower("2\n");  // One that can be told what to give.
  uint8_t unlimited = 7;
  EXPECT_EQ(ZuRegisterPowerSource(&OnPower<0>, &unlimited), 1);
  EXPECT_EQ(unlimited, 1);
  EXPECT_EQ(ZuRegisterAddressChange(&OnNetwork<1>), 1u);
  EXPECT_TRUE(Calls(1, &AddAddress));
  EXPECT_TRUE(Calls(0, [] { SetPower("0\n"); }));
  EXPECT_EQ(g_unlimited, 0);
  return 0;
});

TEST_F(RegistrationTest, HearsOfTheSystem) {
  const zu::test::ChildResult result = RunInChild(kSystem);
  EXPECT_EQ(result.status, 0) << result.output;
}

int Shell(const std::string& command) {
  const std::string line = "exec 2>/dev/null; zuctl=" ZU_TEST_ZUCTL "; ";
  return WEXITSTATUS(std::system((line + command).c_str()));
}

TEST_F(RegistrationTest, IsThereForScripts) {
  // It cannot be told when a program has begun to wait.
  EXPECT_EQ(Shell("$zuctl wait --count 2 'a name' --timeout 10 & "
                  "while kill -0 $!; do $zuctl notify 'a name'; done; wait $!"),
            0);
  EXPECT_EQ(Shell("$zuctl wait 'a name' --timeout 0.05"), 5);
}

}  // namespace
