// The registrations of hosts, through the exported names.

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/route.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ZuHelper.h"
#include "build_values.h"
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
constexpr char kFailed[] =
    "RegisterAddressChangeFunc - Couldn't register callback";
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

// When the callback that was registered second is called for a post, the first
// one has had all that came before it.
void AwaitEarlierCalls(const char* second_name) {
  EXPECT_TRUE(Calls(1, Posting(second_name)));
}

using RegistrationTest = zu::test::RootedTest;

TEST_F(RegistrationTest, HoldsOnePowerCallback) {
  uint8_t unlimited[2] = {7, 7};
  ZuUnRegisterPowerSource();
  EXPECT_EQ(ZuRegisterPowerSource(&OnPower<0>, nullptr), 0);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(ZuRegisterPowerSource(&OnPower<0>, unlimited), 1);
    EXPECT_LE(unlimited[0], 1);
    unlimited[0] = 7;
    EXPECT_EQ(ZuRegisterPowerSource(&OnPower<1>, unlimited), 1);
    EXPECT_LE(unlimited[0], 1);
    EXPECT_TRUE(Calls(0, Posting(kPowerName)));
    EXPECT_EQ(g_unlimited, unlimited[0]);
    ZuUnRegisterPowerSource();
  }
  EXPECT_EQ(unlimited[1], 7);  // One byte is the caller's, and no more.

  // One that is null does not count as held.
  EXPECT_EQ(ZuRegisterPowerSource(nullptr, unlimited), 1);
  EXPECT_EQ(ZuSignalUI(kPowerName), 0u);
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

// A process without a free descriptor cannot register; later it could.
const ChildScenario kFails("Fails", [](const Arguments&) {
  uint8_t unlimited = 7;
  ZuRegisterAddressChange(nullptr);  // Opens the log.
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = static_cast<rlim_t>(
      FileDescriptor(::open("/", O_RDONLY | O_CLOEXEC)).get());
  ::setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(ZuRegisterPowerSource(&OnPower<0>, &unlimited), 0);
  EXPECT_LE(unlimited, 1);
  EXPECT_EQ(ZuRegisterAddressChange(&OnNetwork<1>), 0u);
  limit.rlim_cur = before;
  ::setrlimit(RLIMIT_NOFILE, &limit);

  ZuUnRegisterPowerSource();
  ZuUnRegisterAddressChange();
  EXPECT_EQ(gAddressChangeFunc, &OnNetwork<1>);
  EXPECT_EQ(ZuRegisterPowerSource(&OnPower<0>, &unlimited), 1);
  EXPECT_EQ(ZuRegisterAddressChange(&OnNetwork<1>), 0u);
  EXPECT_EQ(ZuSignalUI(kPowerName), 0u);
  EXPECT_EQ(ZuSignalUI(kNetworkName), 0u);
  return g_calls[0] + g_calls[1];
});

// Hosts may leave from inside a callback.
const ChildScenario kExits("Exits", [](const Arguments&) {
  EXPECT_EQ(ZuRegisterAddressChange([] { std::exit(g_calls[0]); }), 1u);
  g_calls[0] = 42;  // Shows the thread sanitizer which thread was first.
  EXPECT_EQ(ZuSignalUI(kNetworkName), 0u);
  for (;;) ::pause();
  return 0;
});

TEST_F(RegistrationTest, KeepsWhatCouldNotBeRegistered) {
  zu::test::SystemLog log;
  const zu::test::ChildResult result = RunInChild(kFails);
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_THAT(log.Take(), ElementsAre(kBad, kFailed, kBad));
  EXPECT_EQ(RunInChild(kExits).status, 42);
}

// The kernel chooses the names: veth0 and veth1.
void AddVethPair() {
  struct {
    nlmsghdr header;
    ifinfomsg link;
    rtattr info;
    rtattr kind;
    char text[8] = "veth";
  } message{};
  message.kind = {.rta_len = RTA_LENGTH(5), .rta_type = IFLA_INFO_KIND};
  message.info = {.rta_len = RTA_LENGTH(sizeof(rtattr) + 8),
                  .rta_type = IFLA_LINKINFO};
  message.header = {
      .nlmsg_len = sizeof message,
      .nlmsg_type = RTM_NEWLINK,
      .nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK,
      .nlmsg_seq = 1,
      .nlmsg_pid = 0};
  const FileDescriptor socket(
      ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  EXPECT_GT(::send(socket.get(), &message, sizeof message, 0), 0);
  struct {
    nlmsghdr header;
    nlmsgerr error;
  } answer{};
  EXPECT_GT(::recv(socket.get(), &answer, sizeof answer, 0), 0);
  EXPECT_EQ(answer.error.error, 0);
}

template <typename Request>
void Control(int family, unsigned long operation, Request& request) {
  const FileDescriptor socket(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::ioctl(socket.get(), operation, &request), 0)
      << std::strerror(errno);
}

ifreq Interface() {
  ifreq request{};
  std::strcpy(request.ifr_name, "veth0");
  return request;
}

sockaddr Address(const char* text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, text, &address.sin_addr);
  sockaddr any;
  std::memcpy(&any, &address, sizeof any);
  return any;
}

void BringUp() {
  ifreq request = Interface();
  request.ifr_flags = IFF_UP;
  Control(AF_INET, SIOCSIFFLAGS, request);
}

void AddAddress() {
  ifreq request = Interface();
  request.ifr_addr = Address("192.0.2.1");
  Control(AF_INET, SIOCSIFADDR, request);
}

void AddRoute() {
  rtentry route{};
  route.rt_dst = Address("198.51.100.0");
  route.rt_genmask = Address("255.255.255.0");
  route.rt_gateway = Address("192.0.2.2");
  route.rt_flags = RTF_UP | RTF_GATEWAY;
  Control(AF_INET, SIOCADDRT, route);
}

void AddAddress6() {
  struct {
    in6_addr address;
    uint32_t prefix_length = 64;
    int index = 0;
  } request{};
  ifreq interface = Interface();
  Control(AF_INET6, SIOCGIFINDEX, interface);
  request.index = interface.ifr_ifindex;
  ::inet_pton(AF_INET6, "2001:db8::1", &request.address);
  Control(AF_INET6, SIOCSIFADDR, request);
}

const ChildScenario kNetwork("Network", [](const Arguments&) {
  EXPECT_EQ(::unshare(CLONE_NEWNET), 0);
  uint8_t unlimited = 7;
  EXPECT_EQ(ZuRegisterAddressChange(&OnNetwork<0>), 1u);
  EXPECT_EQ(ZuRegisterPowerSource(&OnPower<1>, &unlimited), 1);
  const struct {
    const char* what;
    void (*act)();
  } kRows[] = {{"link", &AddVethPair},
               {"state", &BringUp},
               {"address", &AddAddress},
               {"route", &AddRoute},
               {"IPv6 address", &AddAddress6}};
  for (const auto& row : kRows) {
    AwaitEarlierCalls(kPowerName);
    EXPECT_TRUE(Calls(0, row.act)) << row.what;
  }
  return 0;
});

// As the kernel tells of a device: a header, then lines that end with NUL.
void SendEvent(std::string event) {
  std::replace(event.begin(), event.end(), '\n', '\0');
  const FileDescriptor socket(
      ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
  sockaddr_nl kernel_events{};
  kernel_events.nl_family = AF_NETLINK;
  kernel_events.nl_groups = 1;
  EXPECT_GT(::sendto(socket.get(), event.data(), event.size(), 0,
                     reinterpret_cast<const sockaddr*>(&kernel_events),
                     sizeof kernel_events),
            0)
      << std::strerror(errno);
}

void SetPower(const char* online, const char* status) {
  const std::filesystem::path supplies = "/sys/class/power_supply";
  WriteFile(supplies / "AC/type", "Mains\n");
  WriteFile(supplies / "AC/online", online);
  WriteFile(supplies / "BAT0/type", "Battery\n");
  WriteFile(supplies / "BAT0/status", status);
}

const ChildScenario kPower("Power", [](const Arguments&) {
  EXPECT_EQ(::unshare(CLONE_NEWNET | CLONE_NEWNS), 0);
  EXPECT_EQ(::mount("test", "/sys/class", "tmpfs", 0, nullptr), 0);
  SetPower("1\n", "Charging\n");
  uint8_t unlimited = 7;
  EXPECT_EQ(ZuRegisterPowerSource(&OnPower<0>, &unlimited), 1);
  EXPECT_EQ(unlimited, 1);
  EXPECT_EQ(ZuRegisterAddressChange(&OnNetwork<1>), 1u);
  // The slow look, which needs no event.
  EXPECT_TRUE(Calls(0, [] { SetPower("0\n", "Discharging\n"); }));
  EXPECT_EQ(g_unlimited, 0);
  // Events of others do not count; one does without a change, too.
  const int before = g_calls[0];
  SendEvent("change@/devices/x\nSUBSYSTEM=net\nNAME=power_supply\n");
  AwaitEarlierCalls(kNetworkName);
  EXPECT_EQ(g_calls[0], before);
  EXPECT_TRUE(Calls(0, [] {
    SendEvent("change@/devices/BAT0\nACTION=change\nSUBSYSTEM=power_supply\n");
  }));
  EXPECT_EQ(g_calls[0], before + 1);
  EXPECT_EQ(g_unlimited, 0);
  return 0;
});

TEST_F(RegistrationTest, HearsOfTheSystem) {
  for (const ChildScenario* scenario : {&kNetwork, &kPower}) {
    const zu::test::ChildResult result = RunInChild(*scenario);
    EXPECT_EQ(result.status, 0) << scenario->name << '\n' << result.output;
  }
}

TEST_F(RegistrationTest, IsThereForScripts) {
  const struct {
    const char* command;
    int status;
  } kRows[] = {
      // It cannot be told when a program has begun to wait.
      {"$zuctl wait --count 2 'a name' --timeout 10 & "
       "while kill -0 $!; do $zuctl notify 'a name'; done; wait $!",
       0},
      {"$zuctl wait 'a name' --timeout 0.05", 5},
      {"$zuctl wait", 2},
      {"$zuctl notify --timeout 1 'a name'", 2},
      {"rm -rf " ZU_NOTIFICATION_DIRECTORY "; : >" ZU_NOTIFICATION_DIRECTORY
       "; $zuctl notify 'a name'",
       1},
  };
  for (const auto& row : kRows) {
    const std::string line = "exec 2>/dev/null; zuctl=" ZU_TEST_ZUCTL "; " +
                             std::string(row.command);
    const int status = std::system(line.c_str());
    EXPECT_EQ(WEXITSTATUS(status), row.status) << row.command;
  }
  std::filesystem::remove(ZU_NOTIFICATION_DIRECTORY);
}

}  // namespace
