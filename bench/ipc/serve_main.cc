// The server program of a peer.

#include <unistd.h>

#include <cstdio>

#include "peer.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s ADDRESS\n", argv[0]);
    return 2;
  }
  const bool served = zu::bench::Serve(argv[1], [] {
    const char ready = 'R';
    if (::write(STDOUT_FILENO, &ready, 1) != 1) std::perror("standard output");
  });
  return served ? 0 : 1;
}
