/**
 * @file
 * libZuHelper: system services for the processes of an endpoint-security agent.
 *
 * Plain C, usable from C99, C++ and managed hosts. Unless a function says
 * otherwise it may be called from any thread, runs on the caller's thread and
 * lets no exception out. Strings are NUL-terminated UTF-8, buffers belong to
 * the caller. Functions named Zu... are the interface; the same functions
 * without the prefix are what they forward to, and may be called directly.
 *
 * Loading the library sets gOSVersion; unloading it or a normal exit releases
 * what it holds. A host that started the server calls ZuStopServer before that.
 */
#ifndef ZU_HELPER_H_
#define ZU_HELPER_H_

#include <stddef.h>
#include <stdint.h>

#if defined(__APPLE__)
#include <CoreFoundation/CoreFoundation.h>
#endif

#if defined(__GNUC__) || defined(__clang__)
#define ZU_EXPORT __attribute__((visibility("default")))
#else
#define ZU_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Result of the server functions when they refuse or fail (-2). */
#define ZU_SERVER_REFUSED 0xFFFFFFFEu

/** Longest text, in bytes, that a request or a reply can carry. */
#define ZU_MESSAGE_MAX 5242880u

/* ------------------------------------------------------------------ data -- */

/**
 * Version of the running system: major * 1000000 + minor * 1000 + patch
 * (10.11.0 is 10011000). macOS: the product's version. Linux: the kernel's
 * release. Set once, when the library is loaded.
 */
extern ZU_EXPORT uint32_t gOSVersion;

/** The server's queue of pending requests; NULL while no server runs. Opaque
 *  to hosts. */
struct ZuQueue;
extern ZU_EXPORT struct ZuQueue* gXpcRequestQueue;

/** Never read or written by the library; kept for hosts that link to it. */
extern ZU_EXPORT void* sendQueue;

/* ---------------------------------------------------------------- server -- */

/**
 * A host's answer to one command.
 *
 * On entry `buffer` holds the request's JSON text and a NUL, `*length` the
 * text's length in bytes. The callback writes its reply text and a NUL into the
 * same buffer and the reply's length into `*length`. A reply of exactly
 * `capacity` bytes is cut to what fits: the server has room for one NUL at
 * index `capacity`.
 *
 * When the reply needs more than `capacity` bytes, the callback stores the
 * length that it needs and leaves the request text alone. It is then called
 * once more with a buffer of that length plus one, at most ZU_MESSAGE_MAX,
 * which holds the request again; that second answer is final.
 *
 * The result is ignored. Callbacks run one at a time on the server's worker
 * thread; a slow one delays every client. A callback may call ZuStopServer.
 *
 * @param[in,out] buffer    request in, reply out; valid during the call only
 * @param[in]     capacity  bytes of text that `buffer` takes
 * @param[in,out] length    bytes of text in `buffer`
 */
typedef uint32_t (*ZuCommandCallback)(char* buffer, uint32_t capacity,
                                      uint32_t* length);

/**
 * Registers the callback for requests whose "CMD_" is `command`. A command
 * registered again keeps only the newer callback. Works before and after
 * ZuStartServer; ZuStopServer forgets every registration.
 *
 * @return 0, or ZU_SERVER_REFUSED when an argument is NULL or memory is short
 */
ZU_EXPORT uint32_t ZuSetServerCallbackForCommand(const char* command,
                                                 ZuCommandCallback callback);
ZU_EXPORT uint32_t SetServerCallbackForCommand(const char* command,
                                               ZuCommandCallback callback);

/**
 * Starts the server: a listener that admits only clients signed by the vendor,
 * and the thread that runs the callbacks. A second call while the server runs
 * does nothing. Problems (a service name that cannot be taken, say) are told in
 * the system log only.
 *
 * After ZuStopServer the process can start a server again but it ignores every
 * client: stopping is final.
 *
 * @return 0, always
 */
ZU_EXPORT uint32_t ZuStartServer(void);
ZU_EXPORT uint32_t StartServer(void);

/**
 * Stops the server for good. Requests that are already queued are still
 * processed; blocks until the callback that is running has returned, unless
 * it is called from that callback. Does nothing but log when no server runs.
 */
ZU_EXPORT void ZuStopServer(void);
ZU_EXPORT void StopServer(void);

/**
 * Sends `length` bytes to every connected client, which gets them as they are
 * under "<DATA>". Delivery is not confirmed. Never waits for a client: one that
 * does not read is disconnected once its queue is full.
 *
 * @param message  any bytes, copied
 * @param length   their number, at least 1; on Linux at most ZU_MESSAGE_MAX
 * @return 0 when sent (also to nobody), ZU_SERVER_REFUSED when `message` is
 *         NULL, `length` out of bounds, memory short or the server stopped
 */
ZU_EXPORT uint32_t ZuBroadcastMessageWithNoReply(const void* message,
                                                 int32_t length);
ZU_EXPORT uint32_t broadcastMessageWithNoReply(const void* message,
                                               int32_t length);

/**
 * Parks the calling thread, so that a host without a run loop of its own lets
 * the server work. Call it from the main thread. Never returns.
 */
ZU_EXPORT void ZuDispatchMain(void);

/** Body of the server's worker thread. Not for hosts: it returns NULL at once
 *  unless it runs on the thread that ZuStartServer made. */
ZU_EXPORT void* WorkerThread_ProcessXpcRequest(void* unused);

/**
 * Tells whether a running process satisfies the rule that the server holds its
 * clients to. Reads the program's file; nothing is logged.
 *
 * @param pid  process identifier
 * @return 1 when it does; 0 when it does not, does not exist or cannot be
 *         examined
 */
ZU_EXPORT uint32_t Util_clientIsSignedByZubrant(int32_t pid);

/* --------------------------------------------------------- UTF-16 strings --
 */

/**
 * The platform's string object: a CFStringRef on macOS, an object of this
 * library on Linux.
 */
#if defined(__APPLE__)
typedef CFStringRef ZuStringRef;
#else
typedef const struct ZuString* ZuStringRef;
#endif

/**
 * Makes a string object of `length` UTF-16 code units, which are copied.
 * @return the object, to be released with ZuStringRelease; NULL when `units` is
 *         NULL (and `length` is not 0) or memory is short
 */
ZU_EXPORT ZuStringRef ZuStringCreate(const uint16_t* units, uint32_t length);
/** Releases an object from ZuStringCreate; NULL is ignored. */
ZU_EXPORT void ZuStringRelease(ZuStringRef string);

/**
 * Copies a UTF-16 string, cut to `capacity` - 1 units and always terminated.
 *
 * @param[out] destination  array of `capacity` units
 * @param[in]  source       units ended by a 0 unit
 * @param      capacity     in code units, terminator included; 0 writes nothing
 *
 * Writes nothing when a pointer is NULL, and nothing behind the terminator.
 */
ZU_EXPORT void UniStrncpy(uint16_t* destination, const uint16_t* source,
                          uint64_t capacity);

/**
 * Copies a string object's UTF-16 units as they are (surrogates may be split),
 * cut to `capacity` - 1 units and terminated. A NULL string gives an empty one.
 *
 * @param      string       borrowed
 * @param[out] destination  array of `capacity` units
 * @param      capacity     in code units, terminator included; 0 writes nothing
 */
ZU_EXPORT void GetUnicodeStrFromCFString(ZuStringRef string,
                                         uint16_t* destination,
                                         uint32_t capacity);

/**
 * Converts text to UTF-16, reading each byte as Mac OS Roman, not as UTF-8:
 * one byte gives one unit. Cut to `capacity` - 1 units and terminated.
 *
 * @param[in]  text         not NULL
 * @param[out] destination  array of `capacity` units
 * @param      capacity     in code units, terminator included; 0 writes nothing
 */
ZU_EXPORT void GetUnicodeStrFromCString(const char* text, uint16_t* destination,
                                        uint32_t capacity);

/**
 * Converts UTF-16 units ended by a 0 unit to UTF-8.
 *
 * @return a new string for the caller to free(); empty when `source` holds a
 *         surrogate without its partner; NULL when `source` is NULL or memory
 *         is short
 */
ZU_EXPORT char* Unistr2Cstr(const uint16_t* source);

/* --------------------------------------------------------------- logging -- */

/** Does nothing, on purpose: hosts call it freely. Takes any pointer. */
ZU_EXPORT void ZuLogToSystem(const char* message);

#ifdef __cplusplus
}
#endif

#endif /* ZU_HELPER_H_ */
