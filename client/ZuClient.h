/**
 * @file
 * ZuClient: talking to an agent's server.
 *
 * The server admits only programs that the vendor signed. A message is any
 * bytes, for requests a JSON object whose member "CMD_" names the command. The
 * transport is the system's: XPC on macOS, a Unix-domain socket on Linux.
 *
 * Any number of threads may use one connection at the same time; each waits for
 * its own answer only. There is no thread behind the connection: what the
 * server sends is read while some thread is inside ZuClientRequest or
 * ZuClientReceive (on macOS the system reads). A connection on which nobody
 * reads for long is closed by a server that has much to tell.
 *
 * A connection that broke stays broken: every later call returns why. Whoever
 * wants another one closes it and connects again. A connection belongs to the
 * process that made it: the server closes it when a child uses it.
 *
 * Deadlines are milliseconds from the call on: 0 does not wait, a negative
 * number sets none. No function raises a signal, and none but those that take a
 * deadline blocks.
 */
#ifndef ZU_CLIENT_H_
#define ZU_CLIENT_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Longest message, in bytes, that the server takes or sends. */
#define ZU_CLIENT_MESSAGE_MAX 5242880u

/** Bounds of the broadcasts that wait for a ZuClientReceive, per connection. */
#define ZU_CLIENT_BROADCASTS_MAX 256u
#define ZU_CLIENT_BROADCAST_BYTES_MAX 16777216u

/** How a call ended. The numbers do not change between versions. */
typedef enum ZuClientStatus {
  ZU_CLIENT_OK = 0,
  /** Nobody listens under that name. (macOS learns it from the first message.)
   */
  ZU_CLIENT_NO_SERVER = 1,
  /** Linux: somebody other than the system's or the caller's own user could
   *  have put that server there. Nothing was sent to it. */
  ZU_CLIENT_UNTRUSTED_SERVER = 2,
  /** The server closed the connection: it ended, or it refused this program's
   *  signature, which may show at any time after connecting. Also what every
   *  call returns after ZuClientDisconnect. */
  ZU_CLIENT_DISCONNECTED = 3,
  /** The deadline passed. The server may still carry the request out. */
  ZU_CLIENT_TIMED_OUT = 4,
  /** The server dropped the request without an answer. (macOS cannot tell this
   *  from ZU_CLIENT_DISCONNECTED and reports that.) */
  ZU_CLIENT_NO_REPLY = 5,
  /** An answer came, without data. */
  ZU_CLIENT_NO_DATA = 6,
  /** The reply is longer than the caller's buffer, and is lost. */
  ZU_CLIENT_BUFFER_TOO_SMALL = 7,
  ZU_CLIENT_OUT_OF_MEMORY = 8,
  /** An argument breaks its rule. Nothing was done. */
  ZU_CLIENT_BAD_ARGUMENT = 9,
  /** The server sent what no server of ours sends. The connection is broken. */
  ZU_CLIENT_PROTOCOL_ERROR = 10,
  /** A system call failed; errno says why. */
  ZU_CLIENT_SYSTEM_ERROR = 11
} ZuClientStatus;

/** One line of English for a status, without a full stop. Static; never NULL,
 *  whatever the number. */
const char* ZuClientStatusText(ZuClientStatus status);

/** A connection. */
typedef struct ZuClient ZuClient;

/**
 * Connects to a server.
 *
 * Linux: the server is the socket of that name in the directory that was fixed
 * when the library was built. The directory must belong to root or to the
 * calling user, nobody else may be able to write to it, and the server must run
 * as the user who owns it.
 *
 * @param      service     the service's name; NULL: the agent's
 * @param      timeout_ms  deadline; a server that is alive accepts at once
 * @param[out] client      the connection, to be closed with ZuClientClose; NULL
 *                         when there is none
 * @return ZU_CLIENT_OK, NO_SERVER, UNTRUSTED_SERVER, TIMED_OUT, OUT_OF_MEMORY,
 *         BAD_ARGUMENT (an empty or too long name, one with a '/') or
 *         SYSTEM_ERROR
 */
ZuClientStatus ZuClientConnect(const char* service, int32_t timeout_ms,
                               ZuClient** client);

/**
 * Closes a connection and frees it. NULL is ignored. No other thread may be
 * using it: end their calls with ZuClientDisconnect first.
 */
void ZuClientClose(ZuClient* client);

/**
 * Breaks a connection, which stays valid until it is closed. Calls that other
 * threads have under way return ZU_CLIENT_DISCONNECTED, as do all later ones,
 * but broadcasts that are already queued can still be received.
 */
void ZuClientDisconnect(ZuClient* client);

/**
 * Sends a request and waits for its reply.
 *
 * @param      data        the request, `size` bytes. NULL with size 0 sends a
 *                         message without data. One that exceeds
 *                         ZU_CLIENT_MESSAGE_MAX is sent all the same: the
 *                         server answers it with its error reply.
 * @param      size        bytes in `data`
 * @param      timeout_ms  deadline, sending included. When it passes in the
 *                         middle of sending, the connection is broken.
 * @param[out] reply       the reply, with a NUL behind it, for the caller to
 *                         free(); NULL unless the result is ZU_CLIENT_OK
 * @param[out] reply_size  its bytes, without that NUL; may be NULL
 * @return ZU_CLIENT_OK, or any status but NO_SERVER (on Linux),
 *         UNTRUSTED_SERVER and BUFFER_TOO_SMALL
 */
ZuClientStatus ZuClientRequest(ZuClient* client, const void* data, size_t size,
                               int32_t timeout_ms, void** reply,
                               size_t* reply_size);

/**
 * The same, with the reply put into the caller's memory: nothing is allocated.
 *
 * @param[out]    reply       memory for the reply, not overlapping `data`;
 *                            written only on ZU_CLIENT_OK. No NUL is added.
 * @param[in,out] reply_size  In: bytes that `reply` holds. Out: bytes of the
 *                            reply, also with ZU_CLIENT_BUFFER_TOO_SMALL; 0
 *                            with any other status. ZU_CLIENT_MESSAGE_MAX bytes
 *                            hold every reply.
 */
ZuClientStatus ZuClientRequestInto(ZuClient* client, const void* data,
                                   size_t size, int32_t timeout_ms, void* reply,
                                   size_t* reply_size);

/**
 * Sends a message that nobody answers. What becomes of it is not told.
 * Arguments and results are those of ZuClientRequest.
 */
ZuClientStatus ZuClientSend(ZuClient* client, const void* data, size_t size,
                            int32_t timeout_ms);

/**
 * Takes the next broadcast, in the order in which the server sent them.
 *
 * Broadcasts that come while nobody receives are queued, up to
 * ZU_CLIENT_BROADCASTS_MAX of them and ZU_CLIENT_BROADCAST_BYTES_MAX bytes.
 * Beyond that the oldest are dropped: they tell of a state that newer ones have
 * replaced.
 *
 * @param      timeout_ms  deadline
 * @param[out] message     the broadcast, with a NUL behind it, for the caller
 *                         to free(); NULL unless the result is ZU_CLIENT_OK
 * @param[out] size        its bytes, without that NUL; may be NULL
 * @return ZU_CLIENT_OK, DISCONNECTED, TIMED_OUT, OUT_OF_MEMORY, BAD_ARGUMENT,
 *         PROTOCOL_ERROR or SYSTEM_ERROR; on macOS also NO_SERVER
 */
ZuClientStatus ZuClientReceive(ZuClient* client, int32_t timeout_ms,
                               void** message, size_t* size);

/** Number of broadcasts that were dropped since the connection was made,
 *  because the queue's bounds or memory left no room. */
uint64_t ZuClientLostBroadcasts(ZuClient* client);

#ifdef __cplusplus
}
#endif

#endif /* ZU_CLIENT_H_ */
