/*
 * An agent's host, reduced to what serving clients takes: it registers its
 * commands, starts the server, tells the library's watchdog that it is alive,
 * and stops in good order on SIGTERM or SIGINT.
 * Plain C99; only the installed header and the library are needed.
 *
 * Commands (a request is a JSON object whose "CMD_" names one):
 *   ECHO       answers with the request
 *   GROW       answers with more than the request's buffer holds
 *   BROADCAST  sends "TEXT" to every client; answers how that went
 */
#define _POSIX_C_SOURCE 200809L

#include <ZuHelper.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Bytes of GROW's reply. */
#define GROWN_LENGTH 10000u

/* Where the signal handler leaves the signal's number for the stopping thread.
 */
static int stop_pipe[2];

static void Say(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  fputs("host: ", stdout);
  vprintf(format, arguments);
  fputc('\n', stdout);
  fflush(stdout);
  va_end(arguments);
}

/* Puts a reply into the server's buffer, or asks for a larger one. */
static void Answer(const char* reply, uint32_t needed, char* buffer,
                   uint32_t capacity, uint32_t* length) {
  *length = needed;
  if (needed > capacity) return; /* The request must stay where it is. */
  memcpy(buffer, reply, needed);
  buffer[needed] = '\0'; /* There is room for it behind a full buffer, too. */
}

/* What is in the buffer when a callback returns is the reply. */
static uint32_t Echo(char* buffer, uint32_t capacity, uint32_t* length) {
  (void)buffer;
  (void)capacity;
  Say("ECHO, %u bytes", *length);
  return 0;
}

/*
 * A reply that outgrows its buffer: the callback stores the length that it
 * needs and is called again, with the request and room for that many bytes.
 */
static uint32_t Grow(char* buffer, uint32_t capacity, uint32_t* length) {
  static const char kHead[] = "{\"RESP\":0,\"FILL\":\"";
  static const char kTail[] = "\"}";
  char* const reply = malloc(GROWN_LENGTH);
  if (reply == NULL) {
    Answer("{\"RESP\":-2}", 11, buffer, capacity, length);
    return 0;
  }
  memset(reply, 'x', GROWN_LENGTH);
  memcpy(reply, kHead, sizeof(kHead) - 1);
  memcpy(reply + GROWN_LENGTH - (sizeof(kTail) - 1), kTail, sizeof(kTail) - 1);
  Say("GROW, %u bytes of reply, room for %u: %s", GROWN_LENGTH, capacity,
      GROWN_LENGTH > capacity ? "asked for more" : "answered");
  Answer(reply, GROWN_LENGTH, buffer, capacity, length);
  free(reply);
  return 0;
}

/* The character behind a JSON string that begins at `text`. */
static const char* SkipString(const char* text) {
  for (++text; *text != '"'; ++text) {
    if (*text == '\\') ++text;
  }
  return text + 1;
}

/*
 * The string value of a member at the top of a JSON object, with its quotes
 * and its escapes as they are; NULL when there is none. The server has checked
 * that the request is valid JSON before it calls a callback, which is what
 * makes so little code enough. A real host has a JSON library.
 */
static const char* FindString(const char* object, const char* name,
                              size_t* size) {
  const size_t name_size = strlen(name);
  int depth = 0;
  for (const char* at = object; *at != '\0';) {
    if (*at == '"') {
      const char* const begin = at;
      at = SkipString(at);
      const size_t inner = (size_t)(at - begin) - 2;
      const char* const value = at + strspn(at, " \t\r\n");
      if (depth != 1 || *value != ':') continue;
      at = value + 1 + strspn(value + 1, " \t\r\n");
      if (*at == '"' && inner == name_size &&
          memcmp(begin + 1, name, inner) == 0) {
        *size = (size_t)(SkipString(at) - at);
        return at;
      }
      continue;
    }
    depth += (*at == '{' || *at == '[') - (*at == '}' || *at == ']');
    ++at;
  }
  return NULL;
}

static uint32_t Broadcast(char* buffer, uint32_t capacity, uint32_t* length) {
  size_t size = 0;
  const char* const text = FindString(buffer, "TEXT", &size);
  uint32_t result = ZU_SERVER_REFUSED;
  if (text != NULL && size < 4000) {
    char message[4096];
    const int written =
        snprintf(message, sizeof(message), "{\"EVENT\":\"TEXT\",\"TEXT\":%.*s}",
                 (int)size, text);
    result = ZuBroadcastMessageWithNoReply(message, written);
  }
  Say("BROADCAST, result %d", (int32_t)result);
  char reply[32];
  const int needed =
      snprintf(reply, sizeof(reply), "{\"RESP\":%d}", (int32_t)result);
  Answer(reply, (uint32_t)needed, buffer, capacity, length);
  return 0;
}

/*
 * Signals. The handler runs on whatever thread of ours takes the signal (the
 * library's take none). It does only what a handler may (write), and a thread
 * of ours does the rest: ZuStopServer waits for the callback that is running,
 * which no handler must.
 */
static void OnSignal(int number) {
  const int saved = errno;
  const char byte = (char)number;
  if (write(stop_pipe[1], &byte, 1) < 0) _exit(1);
  errno = saved;
}

/*
 * The same thread calls ZuDeadLockWatch, which every host has to do at least
 * every 30 seconds or be terminated. That the thread runs is all that it proves
 * here: a host with a main loop calls it from there, so that a loop that hangs
 * is found out. ZuDeadLockStop does the same for the way out: a host that is
 * not gone 15 seconds later, because a callback hangs, is killed.
 */
static void* StopOnSignal(void* unused) {
  static const int kReport_ms = 10000;
  struct pollfd stop = {stop_pipe[0], POLLIN, 0};
  char byte = 0;
  (void)unused;
  do {
    ZuDeadLockWatch();
  } while (poll(&stop, 1, kReport_ms) <= 0);
  while (read(stop_pipe[0], &byte, 1) < 0 && errno == EINTR) continue;
  Say("signal %d, stopping", byte);
  ZuDeadLockStop();
  ZuStopServer();
  Say("stopped");
  exit(0); /* Also runs the library's own clean-up. */
}

static void Register(const char* command, ZuCommandCallback callback) {
  if (ZuSetServerCallbackForCommand(command, callback) != 0) {
    fprintf(stderr, "host: cannot register %s\n", command);
    exit(1);
  }
}

int main(void) {
  pthread_t stopper;
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_handler = OnSignal;
  action.sa_flags = SA_RESTART;
  if (pipe(stop_pipe) != 0 ||
      pthread_create(&stopper, NULL, StopOnSignal, NULL) != 0 ||
      sigaction(SIGTERM, &action, NULL) != 0 ||
      sigaction(SIGINT, &action, NULL) != 0) {
    perror("host");
    return 1;
  }

  Register("ECHO", Echo);
  Register("GROW", Grow);
  Register("BROADCAST", Broadcast);
  ZuStartServer();
  Say("serving, process %ld", (long)getpid());
  ZuDispatchMain(); /* Never returns; the stopping thread ends the process. */
  return 0;
}
