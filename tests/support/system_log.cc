#include "tests/support/system_log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "tests/support/test_root.h"

namespace zu::test {
namespace {

constexpr sockaddr_un kAddress = {AF_UNIX, "/dev/log"};
constexpr std::string_view kMark = "mark";
constexpr std::string_view kStop = "stop";

// "<11>Jan  2 03:04:05 program: text"; the C library writes it so.
std::string LineOf(std::string_view message) {
  constexpr std::string_view kPriority = "<11>";
  constexpr size_t kTimeLength = 16;
  const size_t colon = message.find(": ", kPriority.size() + kTimeLength);
  if (!message.starts_with(kPriority) || colon == message.npos) {
    return std::string(message);
  }
  return std::string(message.substr(colon + 2));
}

}  // namespace

SystemLog::SystemLog() {
  if (!InTestRoot()) return;
  socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&kAddress),
             sizeof kAddress) != 0) {
    throw std::runtime_error("/dev/log is taken");
  }
  reader_ = std::thread(&SystemLog::Receive, this);
}

SystemLog::~SystemLog() {
  if (!socket_.valid()) return;
  Send(kStop);
  reader_.join();
  ::unlink(kAddress.sun_path);
}

bool SystemLog::WaitForLine(std::string_view line,
                            std::chrono::milliseconds deadline) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(
      lock, deadline, [&] { return std::ranges::count(lines_, line) != 0; });
}

std::vector<std::string> SystemLog::Take() {
  if (!socket_.valid()) return {};
  // The socket keeps the order of its messages, whoever sends them.
  Send(kMark);
  std::unique_lock lock(mutex_);
  ++marks_sent_;
  if (!changed_.wait_for(lock, kDeadline,
                         [&] { return marks_received_ == marks_sent_; })) {
    throw std::runtime_error("/dev/log does not deliver");
  }
  return std::exchange(lines_, {});
}

void SystemLog::Receive() {
  std::string buffer(65536, '\0');
  for (;;) {
    const ssize_t size = RetryOnInterrupt(
        [&] { return ::recv(socket_.get(), buffer.data(), buffer.size(), 0); });
    if (size < 0) return;
    const std::string_view message(buffer.data(), static_cast<size_t>(size));
    if (message == kStop) return;
    const std::lock_guard lock(mutex_);
    if (message == kMark) {
      ++marks_received_;
    } else {
      lines_.push_back(LineOf(message));
    }
    changed_.notify_all();
  }
}

void SystemLog::Send(std::string_view message) {
  const FileDescriptor sender(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ::sendto(sender.get(), message.data(), message.size(), 0,
           reinterpret_cast<const sockaddr*>(&kAddress), sizeof kAddress);
}

}  // namespace zu::test
