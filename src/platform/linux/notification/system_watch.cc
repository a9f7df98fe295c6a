#include "platform/linux/notification/system_watch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <cstdint>
#include <string_view>

#include "platform/linux/notification/power_supply.h"

namespace zu::platform {
namespace {

constexpr time_t kLookInterval_s = 5;
// The kernel's own bound is 2 KiB and a header.
constexpr size_t kLongestEvent = 8192;
constexpr uint32_t kKernelEvents = 1;
// More wait for the next look, so that a storm of messages ends it, too.
constexpr int kMessagesAtOnce = 1024;

FileDescriptor Subscribe(int protocol, uint32_t groups) {
  FileDescriptor socket(
      ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address),
             sizeof address) != 0) {
    socket.reset();
  }
  return socket;
}

// Reads what is there; whether a message counts or some were lost, which then
// may have. The senders are not checked: a forged message does no more than a
// post, which anybody can make.
template <typename Counts>
bool Drain(const FileDescriptor& socket, Counts counts) {
  char buffer[kLongestEvent];
  bool any = false;
  for (int i = 0; i < kMessagesAtOnce; ++i) {
    const ssize_t size = RetryOnInterrupt(
        [&] { return ::recv(socket.get(), buffer, sizeof buffer, 0); });
    if (size >= 0) {
      any |= counts(std::string_view(buffer, static_cast<size_t>(size)));
    } else if (errno == ENOBUFS) {
      any = true;
    } else {
      break;
    }
  }
  return any;
}

bool IsUnlimited() { return IsPowerUnlimited(ReadPowerSupplies()); }

}  // namespace

bool NetworkWatch::Open() {
  if (!netlink_.valid()) {
    netlink_ = Subscribe(NETLINK_ROUTE,
                         RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR |
                             RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE);
  }
  return netlink_.valid();
}

bool NetworkWatch::Read() {
  return Drain(netlink_, [](std::string_view /*message*/) { return true; });
}

// Without events the slow look does alone.
bool PowerWatch::Open() {
  if (timer_.valid()) return true;
  timer_.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  const itimerspec interval{.it_interval = {kLookInterval_s, 0},
                            .it_value = {kLookInterval_s, 0}};
  if (::timerfd_settime(timer_.get(), 0, &interval, nullptr) != 0) {
    Close();
    return false;
  }
  netlink_ = Subscribe(NETLINK_KOBJECT_UEVENT, kKernelEvents);
  unlimited_ = IsUnlimited();
  return true;
}

void PowerWatch::Close() {
  netlink_.reset();
  timer_.reset();
}

bool PowerWatch::Read() {
  using namespace std::string_view_literals;
  const bool told = Drain(netlink_, [](std::string_view event) {
    // Lines that end with NUL.
    return event.find("\0SUBSYSTEM=power_supply\0"sv) != event.npos;
  });
  uint64_t expirations = 0;
  const bool due = ::read(timer_.get(), &expirations, sizeof expirations) > 0;
  if (!told && !due) return false;
  const bool unlimited = IsUnlimited();
  const bool other = unlimited != unlimited_;
  unlimited_ = unlimited;
  return told || other;
}

}  // namespace zu::platform
