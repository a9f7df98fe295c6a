#include "tests/support/system_log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <stdexcept>
#include <utility>

#include "tests/support/test_root.h"
#include "tests/support/wait_until.h"

namespace zu::test {
namespace {

constexpr sockaddr_un kAddress = {AF_UNIX, "/dev/log"};

// "<11>Jan  2 03:04:05 program: text"; the C library writes it so.
std::string LineOf(std::string_view message) {
  constexpr size_t kNameAt = sizeof "<11>Jan  2 03:04:05";
  const size_t colon = message.find(": ", kNameAt);
  const bool is_error = message.starts_with("<11>") && colon != message.npos;
  return std::string(is_error ? message.substr(colon + 2) : message);
}

}  // namespace

// A stream holds what nobody has read yet; of datagrams the kernel keeps ten,
// and then whoever logs waits.
SystemLog::SystemLog() {
  if (!InTestRoot()) return;
  socket_.reset(
      ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&kAddress),
             sizeof kAddress) != 0 ||
      ::listen(socket_.get(), SOMAXCONN) != 0) {
    throw std::runtime_error("/dev/log is taken");
  }
}

SystemLog::~SystemLog() {
  if (socket_.valid()) ::unlink(kAddress.sun_path);
}

bool SystemLog::WaitForLine(std::string_view line) {
  return WaitUntil([&] {
    Receive();
    return std::ranges::count(lines_, line) != 0;
  });
}

std::vector<std::string> SystemLog::Take() {
  Receive();
  return std::exchange(lines_, {});
}

// Each process has a connection, and ends its lines with NULs.
void SystemLog::Receive() {
  for (int sender; (sender = ::accept(socket_.get(), nullptr, nullptr)) >= 0;) {
    senders_.push_back({FileDescriptor(sender), {}});
  }
  for (auto& [socket, text] : senders_) {
    char block[4096];
    for (ssize_t size; (size = ::recv(socket.get(), block, sizeof block,
                                      MSG_DONTWAIT)) > 0;) {
      text.append(block, static_cast<size_t>(size));
    }
    for (size_t end; (end = text.find('\0')) != text.npos;) {
      lines_.push_back(LineOf(std::string_view(text).substr(0, end)));
      text.erase(0, end + 1);
    }
  }
}

}  // namespace zu::test
