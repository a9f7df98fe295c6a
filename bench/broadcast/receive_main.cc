// The program of the receiving ends: carries out the benchmark's commands.

#include <unistd.h>

#include <cstdio>
#include <vector>

#include "peer.h"
#include "receiver.h"

namespace zu::bench {
namespace {

bool Receive(const std::string& address, std::vector<Receiver>& receivers,
             const Command& command) {
  while (receivers.size() < command.clients) {
    receivers.push_back(ConnectReceiver(address));
    if (!receivers.back()) return false;
  }
  if (command.size == 0) return true;
  for (const Receiver& receiver : receivers) {
    if (!receiver(command.size)) return false;
  }
  return true;
}

}  // namespace
}  // namespace zu::bench

int main(int argc, char** argv) {
  using zu::bench::Command;
  using zu::bench::Outcome;
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s ADDRESS\n", argv[0]);
    return 2;
  }
  std::vector<zu::bench::Receiver> receivers;
  Command command;
  while (::read(STDIN_FILENO, &command, sizeof command) == sizeof command) {
    Outcome outcome;
    if (zu::bench::Receive(argv[1], receivers, command)) outcome.exchanges = 1;
    if (::write(STDOUT_FILENO, &outcome, sizeof outcome) != sizeof outcome) {
      return 1;
    }
  }
  return 0;
}
