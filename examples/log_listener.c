/*
 * Prints what programs write to the system log, a line each, for machines (and
 * demonstrations) without a log daemon:
 *
 *   log_listener /dev/log
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char** argv) {
  static char text[65536];
  struct sockaddr_un address;
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  if (argc != 2 || strlen(argv[1]) >= sizeof(address.sun_path)) {
    fprintf(stderr, "usage: log_listener SOCKET-PATH\n");
    return 2;
  }
  strcpy(address.sun_path, argv[1]);
  const int listener = socket(AF_UNIX, SOCK_DGRAM, 0);
  if (listener < 0 ||
      bind(listener, (struct sockaddr*)&address, sizeof(address)) != 0) {
    perror(argv[1]);
    return 1;
  }
  for (;;) {
    const ssize_t size = recv(listener, text, sizeof(text) - 1, 0);
    if (size < 0) {
      perror(argv[1]);
      return 1;
    }
    text[size] = '\0';
    /* Before the text stands its priority, as in "<11>". */
    const char* const behind = strchr(text, '>');
    puts(text[0] == '<' && behind != NULL ? behind + 1 : text);
    fflush(stdout);
  }
}
