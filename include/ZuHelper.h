/**
 * @file
 * libZuHelper: system services for the processes of an endpoint-security agent.
 *
 * Plain C, usable from C99, C++ and managed hosts. Unless a function says
 * otherwise it may be called from any thread, runs on the caller's thread and
 * lets no exception out. Strings are NUL-terminated UTF-8, buffers belong to
 * the caller. Functions named Zu... are the interface; the same functions
 * without the prefix are what they forward to, and may be called directly. A
 * thread must not be cancelled (pthread_cancel) inside a call.
 *
 * Loading the library sets gOSVersion and starts the watchdog, which every host
 * has to call (ZuDeadLockWatch); unloading it or a normal exit releases what it
 * holds. A host that started the server calls ZuStopServer before that.
 */
#ifndef ZU_HELPER_H_
#define ZU_HELPER_H_

#include <stddef.h>
#include <stdint.h>

#if defined(__APPLE__)
#include <CoreFoundation/CoreFoundation.h>
#include <Security/SecStaticCode.h>
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
 * ("SERI" has another caller too: see ZuSetServerCallbackForCommand.)
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
 * The callback of "SERI" is also called when the companion product asks for the
 * gateway data with a system notification, from ZuStartServer on: with 2048
 * bytes of which nothing is told, and a length of 0. It writes the data, a JSON
 * array or object of at most 2047 bytes, and its length; a negative length
 * stands for no data. The data go into a property list in the companion's
 * container of every local user, and the companion is told. This call comes on
 * the thread that delivers notifications, perhaps while another callback runs
 * on the worker, and may still be under way when ZuStopServer returns.
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

/* -------------------------------------------------------- code signatures --
 */

/** What a signature is worth. Functions that return it return one of these. */
#define ZU_SIGNATURE_NONE 0u    /**< unsigned, or nothing is known */
#define ZU_SIGNATURE_INVALID 1u /**< signed, but not validly */
#define ZU_SIGNATURE_VALID 2u   /**< signed and valid */

/** Capacity, in bytes, of the name and date buffers of ZuAuthenticodeGetInfo
 *  and ZuAuthenticodeGetModelBundleInfo: callers supply at least that much. */
#define ZU_SIGNER_NAME_SIZE 4096u
/** Size, in bytes, of their buffer for a thumbprint's text. */
#define ZU_THUMBPRINT_TEXT_SIZE 42u
/** Size, in bytes, of a thumbprint: a SHA-1 digest. */
#define ZU_THUMBPRINT_SIZE 20u

/**
 * Tells whether the file or bundle at `path` is validly signed, nested code
 * and resources included. An ad-hoc signature, which names nobody, can be
 * valid. Certificates must be in their time (or have been at the signature's
 * secure timestamp) and not be revoked; who issued them does not matter.
 *
 * Reads every sealed file and may ask the network, for ten seconds at most on
 * Linux: not for threads that have to stay responsive.
 *
 * @param path  a file, a bundle's directory, or a bundle's main executable,
 *              which stands for the bundle; may be NULL
 * @return 1 when it is validly signed, else 0
 */
ZU_EXPORT uint32_t ZuAuthenticodeValidateBundle(const char* path);
/** The same as a status: ZU_SIGNATURE_NONE also where nothing is. */
ZU_EXPORT uint32_t GetBundleSignatureStatus(const char* path);

/**
 * Tells who signed a file and when, and whether the signature is valid, for
 * every architecture in it. Resources of a bundle are not checked.
 *
 * Every buffer may be NULL, holds UTF-8 and is terminated, but for an issuer's
 * name that a signer's of exactly that length fills. A name or date that does
 * not fit leaves it empty.
 *
 * @param      path             as for ZuAuthenticodeValidateBundle
 * @param      checkRevocation  not 0: certificates must be in their time, not
 *                              be revoked, and lead to a trusted anchor; asks
 *                              the network
 * @param[out] issuerName       who issued the signer's certificate; the signer
 *                              where that is the only certificate
 * @param      issuerCapacity   bytes in that buffer, terminator included
 * @param[out] signerName       who signed
 * @param      signerCapacity   likewise
 * @param[out] signingDate      "month/day/year hour:minute" in GMT: the secure
 *                              timestamp, else the time that the signer
 *                              claims; empty when there is neither
 * @param      dateCapacity     likewise
 * @return ZU_SIGNATURE_NONE also for a signature that names nobody (ad-hoc).
 *         When nothing is at `path`, the buffers are left as they were; in all
 *         other cases they are emptied first. The names are filled in for
 *         invalid signatures, too.
 *
 * Thread-safe; nothing is kept between calls.
 */
ZU_EXPORT uint32_t GetSignatureStatusForPath(
    const char* path, uint8_t checkRevocation, char* issuerName,
    uint32_t issuerCapacity, char* signerName, uint32_t signerCapacity,
    char* signingDate, uint32_t dateCapacity);
/** The same for the program that a process runs; without such a process the
 *  buffers are left as they were. */
ZU_EXPORT uint32_t GetSignatureStatusForPID(
    int32_t pid, uint8_t checkRevocation, char* issuerName,
    uint32_t issuerCapacity, char* signerName, uint32_t signerCapacity,
    char* signingDate, uint32_t dateCapacity);

/**
 * The platform's code object and array of certificates: a SecStaticCodeRef (or
 * SecCodeRef) and a CFArrayRef of SecCertificateRef on macOS, objects of this
 * library on Linux.
 */
#if defined(__APPLE__)
typedef SecStaticCodeRef ZuCodeRef;
typedef CFArrayRef ZuCertificatesRef;
#else
typedef const struct ZuCode* ZuCodeRef;
typedef const struct ZuCertificates* ZuCertificatesRef;
#endif

/**
 * Makes a code object of what is at `path`, or of what a process runs.
 * @return the object, to be released with ZuCodeRelease or handed to
 *         GetSignatureStatus; NULL when there is no such code
 */
ZU_EXPORT ZuCodeRef ZuCodeCreateWithPath(const char* path);
ZU_EXPORT ZuCodeRef ZuCodeCreateWithPID(int32_t pid);
/** Releases a code object; NULL is ignored. */
ZU_EXPORT void ZuCodeRelease(ZuCodeRef code);

/**
 * The certificates that a signature lists, the signer's first. They are not
 * checked.
 * @return the array, to be released with ZuCertificatesRelease; NULL when the
 *         code is NULL, not signed, or lists none
 */
ZU_EXPORT ZuCertificatesRef ZuCodeCopyCertificates(ZuCodeRef code);
/** Releases an array from ZuCodeCopyCertificates; NULL is ignored. */
ZU_EXPORT void ZuCertificatesRelease(ZuCertificatesRef certificates);

/**
 * GetSignatureStatusForPath for a code object, which it releases in any case.
 * @param code  may be NULL: the buffers are emptied, the result is
 *              ZU_SIGNATURE_NONE
 */
ZU_EXPORT uint32_t GetSignatureStatus(ZuCodeRef code, uint8_t checkRevocation,
                                      char* issuerName, uint32_t issuerCapacity,
                                      char* signerName, uint32_t signerCapacity,
                                      char* signingDate, uint32_t dateCapacity);

/**
 * Tells whether certificates, the signer's first, lead to a trusted anchor and
 * none of them is known to be revoked. A responder that does not answer is no
 * reason against them, nor (on Linux) is their time. Asks the network.
 *
 * @param certificates  borrowed; NULL counts as untrusted
 * @return 1 when they are trusted, else 0
 */
ZU_EXPORT uint32_t ValidateCerts(ZuCertificatesRef certificates);

/**
 * The SHA-1 digest of the signer's certificate (DER), which tells publishers
 * apart. The signature is not checked.
 *
 * @param      path      as for ZuAuthenticodeValidateBundle
 * @param[out] digest    ZU_THUMBPRINT_SIZE bytes
 * @param      capacity  exactly ZU_THUMBPRINT_SIZE; any other is refused
 * @return 1; 0 when nothing was written: a wrong argument, no such code, or a
 *         signature without certificates
 */
ZU_EXPORT uint32_t ZuGetSecThumbprint(const char* path, uint8_t* digest,
                                      uint16_t capacity);
ZU_EXPORT uint32_t GetSecThumbprint(const char* path, uint8_t* digest,
                                    uint16_t capacity);
/** The same for the program that a process runs. */
ZU_EXPORT uint32_t GetSecThumbprintForPID(int32_t pid, uint8_t* digest,
                                          uint16_t capacity);

/**
 * All of that at once: whether a file is signed, whether validly, by whom,
 * when, and the signer's thumbprint.
 *
 * @param      path             as for ZuAuthenticodeValidateBundle
 * @param      checkRevocation  as for GetSignatureStatusForPath; only its low
 *                              byte counts
 * @param[out] isSigned         not NULL: 1 when the file is signed, validly or
 *                              not, else 0
 * @param[out] isValid          not NULL: 1 when the signature is valid, else 0
 * @param[out] issuerName       ZU_SIGNER_NAME_SIZE bytes, or NULL
 * @param[out] signerNameCopy   the signer's name once more, WITHOUT a
 *                              terminator: hand in zeros; room for the name, or
 *                              NULL
 * @param[out] signerName       ZU_SIGNER_NAME_SIZE bytes, or NULL
 * @param[out] signingDate      ZU_SIGNER_NAME_SIZE bytes, or NULL
 * @param[out] thumbprintHex    ZU_THUMBPRINT_TEXT_SIZE bytes: 40 upper-case
 *                              hexadecimal digits and a NUL; or NULL. Left as
 *                              it was when the file is not signed.
 * @return 1, also for files that are not signed; 0 when `isSigned` or `isValid`
 *         is NULL (nothing is written then) or the thumbprint of a signed file
 *         cannot be had (`isValid` is then left as it was)
 *
 * ZuAuthenticodeGetInfo runs one call at a time in the whole process, network
 * included; ZuAuthenticodeGetModelBundleInfo does not, and leaves the last byte
 * of `thumbprintHex` unspecified where the other writes a second NUL.
 */
ZU_EXPORT uint32_t ZuAuthenticodeGetInfo(const char* path,
                                         int32_t checkRevocation,
                                         uint64_t* isSigned, uint32_t* isValid,
                                         char* issuerName, char* signerNameCopy,
                                         char* signerName, char* signingDate,
                                         char* thumbprintHex);
ZU_EXPORT uint32_t ZuAuthenticodeGetModelBundleInfo(
    const char* path, int32_t checkRevocation, uint64_t* isSigned,
    uint32_t* isValid, char* issuerName, char* signerNameCopy, char* signerName,
    char* signingDate, char* thumbprintHex);

/* ------------------------------------------------- watchdog and semaphore --
 */

/*
 * A thread of the library, started when it is loaded, terminates a host that
 * hangs or grows too large. About every 30 seconds it scores the host: 10 for
 * each cycle in a row without a call of ZuDeadLockWatch, and 5 for each with
 * more than 1280 MiB of resident and compressed (Linux: swapped) memory. When
 * the sum has been 100 or more for three cycles in a row it sends the process
 * SIGHUP; if it is still there and still unhealthy in the cycle after that,
 * SIGTERM; and then SIGKILL. A host without any sign of life gets the SIGHUP
 * after five and a half minutes. What is sent goes to the watchdog's thread,
 * and the host's handlers for SIGHUP and SIGTERM then run there; it takes no
 * other signals. A child that the host forks has no watchdog.
 */

/**
 * Tells the watchdog that the host is alive; to be called at least every 30
 * seconds, best where it proves something. One atomic operation without a lock:
 * callable from any thread and from signal handlers, as often as one likes.
 *
 * @return 1 when there has been such a call since the watchdog last looked,
 *         else 0
 */
ZU_EXPORT uint8_t ZuDeadLockWatch(void);
ZU_EXPORT uint8_t watchdog_keepalive(void);

/**
 * Ends the watching for good, because the process is about to exit: if it has
 * neither exited nor unloaded the library within 15 seconds, the watchdog kills
 * it. Calling it again does not change that time. Does not block; callable from
 * signal handlers.
 * @return 0, or the platform's error number when the watchdog was not woken
 */
ZU_EXPORT uint32_t ZuDeadLockStop(void);
ZU_EXPORT uint32_t watchdog_stop(void);

/**
 * Ends the watching for good; no exit is expected. Also takes a ZuDeadLockStop
 * back while its 15 seconds run. Does not block; callable from signal handlers.
 * @return as ZuDeadLockStop
 */
ZU_EXPORT uint32_t ZuDeadLockDisable(void);
ZU_EXPORT uint32_t watchdog_disable(void);

/**
 * What the watchdog asks in each cycle. Not for hosts: every call counts as a
 * cycle, and they are the watchdog's thread's alone.
 * @return the score, 0 when healthy
 */
ZU_EXPORT uint32_t watchdog_memoryuse(void);
ZU_EXPORT uint32_t watchdog_deadlock(void);

/**
 * Scores the processor time that the process has used since the last call: 10
 * for each call in a row that finds more than 90 per cent of one processor, in
 * whole seconds. The watchdog does not use it. One thread at a time.
 * @return the score; 0 in the first call
 */
ZU_EXPORT uint32_t watchdog_cpuuse(void);

/**
 * Takes the mark that tells the whole system that one instance of the agent is
 * running: a named semaphore, of which only the name is used. It goes when
 * ZuUnlinkSemaphore is called, or when any process that has the library loaded
 * unloads it or exits in the ordinary way.
 *
 * When this call made the mark, it also sets fatal_error_termination_handler
 * for SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGQUIT, SIGTERM, SIGINT and SIGTSTP,
 * also for those that the host had ignored; if there was one of these, SIGINT
 * is ignored afterwards. Unloading gives signals that are still set to the
 * handler their default action.
 *
 * @return 0; EEXIST when the mark is there already, or another errno value
 */
ZU_EXPORT uint32_t ZuOpenSemaphore(void);
ZU_EXPORT uint32_t OpenSemaphore(void);

/** Removes the mark, whoever made it. @return 0, or -1 with errno set */
ZU_EXPORT int32_t ZuUnlinkSemaphore(void);
ZU_EXPORT int32_t UnlinkSemaphore(void);

/**
 * A signal handler: removes the mark, then lets the signal have its default
 * action, which ends the process (SIGTSTP stops it). Async-signal-safe.
 */
ZU_EXPORT void fatal_error_termination_handler(int signalNumber);

/** Not 0 once fatal_error_termination_handler has been entered. */
extern ZU_EXPORT volatile int32_t fatal_error_in_progress;

/* --------------------------------------------------------- notifications --
 */

/**
 * Posts the system-wide notification of that name, which tells every observer
 * of it, in any process, that something has changed. Posts that come close
 * together may reach an observer as one.
 *
 * @param name  the host's choice
 * @return 0, with observers or without; else the platform's status number
 *         (on Linux 1 for NULL, 1000000 when the notification directory cannot
 *         be used)
 */
ZU_EXPORT uint32_t ZuSignalUI(const char* name);
ZU_EXPORT uint32_t SignalUI(const char* name);

/**
 * Called when something about the machine's power has changed, on a thread of
 * the system's (macOS) or of the library's (Linux; every notification waits
 * while it runs). It may call every function below.
 *
 * @param unlimited  1 when power is unlimited at that time, else 0
 */
typedef void (*ZuPowerSourceCallback)(uint8_t unlimited);

/**
 * Has the callback called with each change from here on, and tells how things
 * are. One callback is held at a time: while there is one, nothing is
 * registered and only the state is told. Power is unlimited when it comes from
 * outside or no battery of the system's is being discharged.
 *
 * When the registration fails the callback is held all the same, for good:
 * nothing can be registered or unregistered from then on.
 *
 * @param      callback   may be NULL: then nobody is called, and it does not
 *                        count as held
 * @param[out] unlimited  one byte, 1 or 0; also set when the registration fails
 * @return 1, also when a callback was held already; 0 when `unlimited` is NULL
 *         or the registration fails
 */
ZU_EXPORT uint8_t ZuRegisterPowerSource(ZuPowerSourceCallback callback,
                                        uint8_t* unlimited);
ZU_EXPORT uint8_t RegisterPowerSource(ZuPowerSourceCallback callback,
                                      uint8_t* unlimited);

/** Gives up a registration that succeeded, if there is one. The callback may
 *  be called once more after that. */
ZU_EXPORT void ZuUnRegisterPowerSource(void);
ZU_EXPORT void UnRegisterPowerSource(void);

/** Called when the network's configuration has changed, as the callback above.
 *  One change of an interface may give several calls. */
typedef void (*ZuAddressChangeCallback)(void);

/** The network callback that is held; NULL when none is. For hosts to read. */
extern ZU_EXPORT ZuAddressChangeCallback gAddressChangeFunc;

/**
 * Has the callback called with each change of the network. A failed
 * registration leaves it held, as above. Calls of ZuRegisterAddressChange wait
 * for each other; the rest takes no lock.
 *
 * @param callback  not NULL
 * @return 1; 0 when one is held already, `callback` is NULL or the registration
 *         fails, which is logged
 */
ZU_EXPORT uint32_t ZuRegisterAddressChange(ZuAddressChangeCallback callback);
ZU_EXPORT uint8_t RegisterAddressChangeFunc(ZuAddressChangeCallback callback);

/** As ZuUnRegisterPowerSource, for the network. */
ZU_EXPORT void ZuUnRegisterAddressChange(void);
ZU_EXPORT void UnRegisterAddressChange(void);

/* --------------------------------------------------------------- digests -- */

#if defined(__cplusplus)
#define ZU_STATIC_ASSERT(condition, name) static_assert(condition, #name)
#else
#define ZU_STATIC_ASSERT(condition, name) \
  typedef char zu_assert_##name[(condition) ? 1 : -1]
#endif

/**
 * The two message digests below have the shape of MD5 and of SHA-256 but run
 * on 64-bit words throughout, on purpose: they agree with the standard digests
 * for no message, and are good for comparing with digests from this library
 * only. They depend on the message alone, never on how it was split into calls.
 * They check no pointer (which may be NULL where the length is 0), report no
 * error and block for nothing. Contexts are the caller's; one context belongs
 * to one thread at a time, different ones to any.
 */

/** State of the MD5-shaped digest. */
typedef struct ZuMD5Context {
  uint64_t state[4];  /**< A, B, C, D; the digest is in the low halves. */
  uint64_t count[2];  /**< Length so far in bits, the low word first. */
  uint8_t buffer[64]; /**< The bytes that fill no block yet. */
} ZuMD5Context;
ZU_STATIC_ASSERT(sizeof(ZuMD5Context) == 112, md5_context_size);

/** Size of an MD5-shaped digest, in bytes. */
#define ZU_MD5_SIZE 16u
/** Size of the array that MD5Close writes the digest to, in bytes. */
#define ZU_MD5_OUTPUT_SIZE 20u

/** Begins a digest. `buffer` stays as it is. */
ZU_EXPORT void MD5Open(ZuMD5Context* context);

/** Adds `length` bytes to the digest; any number of calls, 0 bytes too. */
ZU_EXPORT void MD5Digest(ZuMD5Context* context, const void* data,
                         uint32_t length);

/**
 * Ends a digest and wipes the context, which has to be opened again for another
 * one.
 *
 * @param[out] digest  array of ZU_MD5_OUTPUT_SIZE bytes, more than the digest:
 *                     the last 4 are scratch and hold nothing of use
 */
ZU_EXPORT void MD5Close(ZuMD5Context* context, uint8_t* digest);

/** State of the SHA-256-shaped digest. */
typedef struct ZuSHA256Context {
  uint32_t total_length;   /**< Bytes compressed so far, modulo 2^32. */
  uint32_t pending_length; /**< Bytes in `block` that are not, 0 to 63. */
  uint8_t block[128];      /**< Room for the two blocks of the padding. */
  uint64_t hash[8];        /**< H0 to H7; the digest is in the low halves. */
} ZuSHA256Context;
ZU_STATIC_ASSERT(sizeof(ZuSHA256Context) == 200, sha256_context_size);

/** Size of a SHA-256-shaped digest, in bytes. */
#define ZU_SHA256_SIZE 32u
/** Size of its text with the NUL, in bytes. */
#define ZU_SHA256_TEXT_SIZE 65u

/** The round constants of SHA-256, each in the low half of its word. */
extern ZU_EXPORT const uint64_t sha256_k[64];

/** Begins a digest. */
ZU_EXPORT void ZuSHA256_Init(ZuSHA256Context* context);

/** Adds `length` bytes to the digest; any number of calls, 0 bytes too. */
ZU_EXPORT void ZuSHA256_Update(ZuSHA256Context* context, const void* data,
                               uint32_t length);

/**
 * Ends a digest. The context is not wiped. Messages of 512 MiB and more have
 * the same length field as those that are shorter by a multiple of that.
 *
 * @param[out] digest  array of ZU_SHA256_SIZE bytes
 */
ZU_EXPORT void ZuSHA256_Final(ZuSHA256Context* context, uint8_t* digest);

/** Makes a context and begins a digest. The caller owns the context until
 *  Zu_SHA256_Finish frees it. A process without memory ends here. */
ZU_EXPORT ZuSHA256Context* Zu_SHA256_Start(void);

/** As ZuSHA256_Update. */
ZU_EXPORT void Zu_SHA256_Update(ZuSHA256Context* context, const void* data,
                                uint32_t length);

/**
 * Ends a digest and frees its context.
 *
 * @param[out] text  array of ZU_SHA256_TEXT_SIZE bytes: 64 upper-case
 *                   hexadecimal digits and a NUL
 */
ZU_EXPORT void Zu_SHA256_Finish(ZuSHA256Context* context, char* text);

/* ------------------------------------------- file hashes, cipher, archives --
 */

/** Sizes of the texts of file hashes with the NUL, in bytes. */
#define ZU_MD5_TEXT_SIZE 33u
#define ZU_SHA1_TEXT_SIZE 41u

/**
 * The MD5-shaped digest (see MD5Open) and the SHA-1 of a file, in upper-case
 * hexadecimal digits and a NUL.
 *
 * The file is read once, 64 KiB at a time, and may be of any kind: of a
 * directory nothing can be read, so it gives the hashes of an empty message, as
 * does every read error those of what was read before it. Blocks as long as
 * reading takes (a pipe, until its writers are gone). Large files keep two
 * processors busy.
 *
 * @param[in]  path       of the file, in the file system's encoding
 * @param[out] md5_text   array of ZU_MD5_TEXT_SIZE bytes
 * @param[out] sha1_text  array of ZU_SHA1_TEXT_SIZE bytes
 * @return 1; 0 when an argument is NULL, the file cannot be opened or memory is
 *         short, and the texts are then untouched. ZuGetMd5AndSha1HashesOSX
 *         gives 1 at once when both texts are NULL: nothing was asked for.
 */
ZU_EXPORT uint8_t ZuGetMd5AndSha1HashesOSX(const char* path, char* md5_text,
                                           char* sha1_text);
ZU_EXPORT uint8_t GetMd5AndSha1(const char* path, char* md5_text,
                                char* sha1_text);

/** Results of Zu_CCCrypt_Message: CommonCrypto's, on every system. */
#define ZU_CRYPT_SUCCESS 0
#define ZU_CRYPT_PARAMETER_ERROR (-4300)
#define ZU_CRYPT_BUFFER_TOO_SMALL (-4301)
#define ZU_CRYPT_MEMORY_FAILURE (-4302)
#define ZU_CRYPT_ALIGNMENT_ERROR (-4303)
#define ZU_CRYPT_DECODE_ERROR (-4304)

/**
 * Encrypts or decrypts one message with AES-256 in CBC mode and PKCS#7 padding.
 * `output` may be `input` itself; otherwise the two must not overlap.
 *
 * @param[in]     input          the message
 * @param         input_length   in bytes, at least 1
 * @param[in]     key            `key_length` bytes
 * @param         key_length     in bytes; 32 is the only one taken
 * @param[in]     iv             initialisation vector of 16 bytes
 * @param[out]    output         what it holds after a failure is undefined
 * @param[in,out] output_length  In: capacity of `output` in bytes. Encrypting
 *                               takes the next multiple of 16 above the input's
 *                               length, decrypting the input's length. Out: the
 *                               bytes produced, which are fewer when padding
 *                               was taken off; with ZU_CRYPT_BUFFER_TOO_SMALL,
 *                               the capacity that it takes; unchanged with
 *                               ZU_CRYPT_PARAMETER_ERROR, 0 with the others.
 * @param         encrypt        0 decrypts, anything else encrypts
 * @return ZU_CRYPT_SUCCESS; ZU_CRYPT_PARAMETER_ERROR when a pointer is NULL,
 *         the input empty or too long for any ciphertext, or the key's length
 *         not 32; ZU_CRYPT_BUFFER_TOO_SMALL; ZU_CRYPT_MEMORY_FAILURE;
 *         when decrypting, ZU_CRYPT_ALIGNMENT_ERROR for input that is not whole
 *         blocks, and ZU_CRYPT_DECODE_ERROR for padding that is none
 */
ZU_EXPORT int32_t Zu_CCCrypt_Message(const void* input, uint64_t input_length,
                                     const void* key, uint64_t key_length,
                                     const void* iv, void* output,
                                     uint64_t* output_length, uint8_t encrypt);
ZU_EXPORT int32_t CCCrypt_Message(const void* input, uint64_t input_length,
                                  const void* key, uint64_t key_length,
                                  const void* iv, void* output,
                                  uint64_t* output_length, uint8_t encrypt);

/**
 * Unpacks a bzip2-compressed tar archive into the folder that holds it, as the
 * superuser: runs /usr/bin/tar through /usr/bin/sudo. Blocks until it is done.
 *
 * Only what the tools print to their standard output tells of a failure, and
 * they complain elsewhere. Look for what the archive was to bring.
 *
 * @param[in] path  of the archive
 * @return 1 when the tools printed nothing (or what is not UTF-8), also when
 *         they could not be started; 0 when they printed, or `path` is NULL,
 *         empty or not UTF-8
 */
ZU_EXPORT uint8_t ZuDecompress(const char* path);
ZU_EXPORT uint8_t Decompress(const char* path);
/* ------------------------------------------------------------- processes -- */

/** Statuses of the process functions. */
#define ZU_PROCESS_OK 0u
#define ZU_PROCESS_NO_MEMORY 3u
#define ZU_PROCESS_BAD_ARGUMENT 4u
#define ZU_PROCESS_NO_DATA 5u
#define ZU_PROCESS_EXCEPTION 14u
#define ZU_PROCESS_NO_PATH 18u
#define ZU_PROCESS_NO_TABLE 0xFFFFFFFFu

/** One record of the process table, in bytes, and where it holds (as 32-bit
 *  integers) the identifiers of the process and of its parent. */
#define ZU_PROCESS_RECORD_SIZE 648u
#define ZU_PROCESS_RECORD_PID 40u
#define ZU_PROCESS_RECORD_PARENT 560u

/**
 * Reads the process table: one record a process, which on macOS is the kernel's
 * struct kinfo_proc, on Linux zero but for the two identifiers, in ascending
 * order of them. There, a parent is 0 also where the kernel does not tell it.
 *
 * @param[out] buffer  the records, for the caller to free()
 * @param[out] length  their size in bytes
 * @return ZU_PROCESS_OK, ZU_PROCESS_NO_MEMORY, or ZU_PROCESS_NO_TABLE when the
 *         table cannot be read (on macOS also when it grew meanwhile); `buffer`
 *         and `length` are then of no use
 */
ZU_EXPORT uint32_t GetProcessesInfo(void** buffer, size_t* length);

/**
 * Lists the identifiers of all processes, in the table's order.
 *
 * @param[out]    pids   array of `*count` entries; those behind the ones
 *                       written stay as they are. May be NULL when `*count` is
 *                       0 or less.
 * @param[in,out] count  In: capacity in entries. Out: number of processes,
 *                       which exceeds the capacity when the list was cut.
 * @return as GetProcessesInfo, with `*count` unchanged on failure
 */
ZU_EXPORT uint32_t ListProcesses(int32_t* pids, int32_t* count);

/**
 * Always reports no children, which is what hosts of this interface rely on.
 *
 * @param      pid    process identifier
 * @param      pids   never written
 * @param[out] count  0
 * @return as GetProcessesInfo; ZU_PROCESS_NO_DATA when memory is short after
 *         the table was read; `*count` is unchanged on failure
 */
ZU_EXPORT uint32_t ListChildProcesses(int32_t pid, int32_t* pids,
                                      int32_t* count);

/**
 * Collects all descendants of a process: its children in the table's order,
 * then in the same way the descendants of each of them. No identifier is added
 * twice, so cycles end.
 *
 * @param[in,out] found        array with room for `table_count` more entries
 * @param[in]     table        records as from GetProcessesInfo
 * @param         table_count  their number
 * @param         parent       process identifier
 * @param[in,out] found_count  entries in `found`
 */
ZU_EXPORT void _markChildProcesses(int32_t* found, const void* table,
                                   int32_t table_count, int32_t parent,
                                   int32_t* found_count);

/**
 * Lists the names of the users who are logged in, each once and with its NUL,
 * in a buffer that is zeroed first. From the login records, which are processed
 * by a cursor that the whole process shares: one thread at a time. On Linux
 * systems without login records, from the login manager's sessions.
 *
 * Provide a buffer that takes all names: from the first name that does not fit
 * on, names are left out, and nothing tells.
 *
 * @param[out] buffer  array of `*size` bytes
 * @param[in]  size    pointer to its capacity in bytes
 * @return 0
 */
ZU_EXPORT uint32_t GetActiveUsers(char* buffer, const int32_t* size);

/** 1 when the process runs 64-bit code (x86_64 or arm64), also when that cannot
 *  be told or there is no such process; 0 when it does not. Linux: where the
 *  caller is denied the kernel's record of the process, the executable itself
 *  is read, which blocks while what serves its file system does not answer. */
ZU_EXPORT uint32_t IsProcess64bits(int32_t pid);

/**
 * The right to read another process's memory. macOS: its task port, which the
 * caller owns. Linux: nothing to own; the process's identifier, when the kernel
 * lets the caller read that process.
 *
 * @param      pid   process identifier; the caller's own always succeeds
 * @param[out] task  the task; on failure, nothing of use
 * @return 0, or the kernel's status (kern_return_t; on Linux 5, "failure")
 */
ZU_EXPORT int32_t GetMachTask(int32_t pid, uint32_t* task);

/** 1 when the process exists and may be signalled by the caller. Otherwise 0,
 *  and errno is ESRCH, whatever the reason. */
ZU_EXPORT uint32_t IsProcessRunning(int32_t pid);

/**
 * The path of a process's executable.
 *
 * @param         pid     process identifier, not 0
 * @param[out]    buffer  gets the path and a NUL when it takes both, else
 *                        nothing
 * @param[in,out] size    In: capacity of `buffer` in bytes, at least 1. Out, on
 *                        success: the path's length without its NUL; `buffer`
 *                        was too small unless that is below the capacity.
 * @return ZU_PROCESS_OK; ZU_PROCESS_BAD_ARGUMENT for a 0 or NULL;
 *         ZU_PROCESS_NO_PATH when the system does not tell
 *
 * Linux: for a file that is gone, or whose name ends in " (deleted)", looks
 * that name up, which blocks while what serves one of the folders on its way
 * does not answer.
 */
ZU_EXPORT uint32_t GetProcessFullPath(int32_t pid, char* buffer,
                                      uint32_t* size);

/** Sends SIGTERM to every member of the process's group.
 *  @return 0; -1 with errno when that fails or there is no such process */
ZU_EXPORT int32_t KillProcess(int32_t pid);

/**
 * The calling process's name.
 *
 * @param[out]    buffer  gets the name in UTF-8 and a NUL, cut to whole
 *                        characters that fit, when the name's length is below
 *                        the capacity; else nothing
 * @param[in,out] size    In: capacity of `buffer` in bytes. Out: the name's
 *                        length in UTF-16 code units; leave room for letters of
 *                        several bytes.
 * @return 1; 0 when the process has no name, with `*size` unchanged
 */
ZU_EXPORT uint32_t GetCurrentProcessName(char* buffer, uint64_t* size);

/**
 * Lists the paths of the executable images in a process, main executable first,
 * each with its NUL: with the first method below and, when that fails, with the
 * second (which is not tried for process 1 on systems from 10.14 on).
 *
 * @param         pid     process identifier, not 0
 * @param[out]    buffer  gets the entries that fit, in order
 * @param[in,out] size    In: capacity of `buffer` in bytes, at least 1. Out:
 *                        bytes that the whole list needs; unchanged when the
 *                        status is not 0, or when the second method declines
 * @return ZU_PROCESS_OK, also when the list was cut; ZU_PROCESS_BAD_ARGUMENT
 *         for a 0 or NULL; else the status of the last method tried
 */
ZU_EXPORT uint32_t GetProcessModules(int32_t pid, char* buffer, uint32_t* size);

/**
 * First method: reads the dynamic loader's list in the target's memory, with
 * 64-bit layout. Duplicates stay. Arguments as above, unchecked.
 *
 * @return ZU_PROCESS_OK; the kernel's status when the target may not be read
 *         (on Linux 5); ZU_PROCESS_NO_DATA when its memory gave nothing, or
 *         its loader was at work on the list for all of several milliseconds
 *
 * Looks the executable's path up as GetProcessFullPath does. Linux: memory that
 * another program than the kernel would have to provide first (a file of a
 * remote file system, say) counts as not there, so that no process holds up its
 * reader; unless it takes the memory away, or puts such memory in its place,
 * just after that was looked at (within a fraction of a millisecond; within one
 * reading of the list for memory of files that was not loaded).
 */
ZU_EXPORT uint32_t GetProcessModules_Old(int32_t pid, char* buffer,
                                         uint32_t* size);

/**
 * Second method: runs /usr/bin/vmmap and takes the executable mappings from its
 * text; a path that is part of one already listed is left out. When the list
 * was cut, its entries end with newlines instead of NULs. From version 10.16 on
 * a process signed by the vendor is skipped, with a line in the log. Arguments
 * as above, unchecked. Blocks until the tool has ended.
 *
 * @return ZU_PROCESS_OK; ZU_PROCESS_NO_DATA when the tool prints nothing or
 *         cannot be started (as on systems without it); ZU_PROCESS_EXCEPTION
 *         when memory is short
 */
ZU_EXPORT uint32_t GetProcessModulesImpl(int32_t pid, char* buffer,
                                         uint32_t* size);

/* -------------------------------------------------- performance counters -- */

/**
 * Figures about the calling process, each function's in an array of the
 * caller's, of which it says how many slots there are. A NULL array or one with
 * too few slots gives 0 and is not written. The baselines of what is counted
 * from call to call are one for the process and have no lock: poll from one
 * thread.
 *
 * Sets the baseline of ZuGetCPUsages, to be called once before that. Without it
 * the first call measures from the clock's start.
 */
ZU_EXPORT void ZuInitializePeroformanceCounters(void);
ZU_EXPORT void InitializeCounters(void);

#define ZU_CPU_SLOTS 5u
/**
 * Use of processors since the last call.
 *
 * @param[out] slots  0: number of processors; 1: seconds since
 *                    ZuInitializePeroformanceCounters; 2: percent in all,
 *                    3: in user mode, 4: in the kernel. Of one processor, so
 *                    four busy ones are 400; from whole seconds of processor
 *                    time, so poll at intervals of many seconds.
 * @param      count  number of slots, at least ZU_CPU_SLOTS
 * @return 1; 0 for bad arguments
 */
ZU_EXPORT uint8_t ZuGetCPUsages(uint64_t* slots, uint32_t count);
ZU_EXPORT uint8_t GetCPUsages(uint64_t* slots, uint32_t count);

#define ZU_MEMORY_SLOTS 10u
/**
 * Memory, in KiB.
 *
 * @param[out] slots  0: virtual size; 1: resident, 2: its peak; 3: internal
 *                    (Linux: anonymous resident), 4: its peak; 5: compressed
 *                    (Linux: swapped), 6: its peak; 7: purgeable; 8: kernel
 *                    private; 9: kernel shared. 0 where the system has no such
 *                    thing: on Linux the peaks of 3 and 5, and 7 to 9.
 * @param      count  number of slots, at least ZU_MEMORY_SLOTS
 * @return 1; 0 for bad arguments or when the system does not tell (slots 0 to 7
 *         may be written then)
 */
ZU_EXPORT uint8_t ZuGetMemoryStatistics(uint64_t* slots, uint32_t count);
ZU_EXPORT uint8_t GetMemoryStatistics(uint64_t* slots, uint32_t count);

#define ZU_EVENT_SLOTS 7u
/**
 * Kernel events since the last call; the first call counts from the process's
 * start.
 *
 * @param[out] slots  0: page faults; 1: copy-on-write faults; 2: Mach messages
 *                    sent, 3: received; 4: page-ins (Linux: major faults). 1 to
 *                    3 are 0 on Linux. 5 and 6 are not written.
 * @param      count  number of slots, at least ZU_EVENT_SLOTS
 * @return 1; 0 for bad arguments or when the system does not tell
 */
ZU_EXPORT uint8_t ZuGetMachEventStatistics(uint64_t* slots, uint32_t count);
ZU_EXPORT uint8_t GetMachEventStatistics(uint64_t* slots, uint32_t count);

#define ZU_DESCRIPTOR_SLOTS 2u
/**
 * Open descriptors.
 *
 * @param[out] slots  0: those that are not sockets; 1: sockets, which is 0
 *                    whenever the call succeeds
 * @param      count  number of slots, at least ZU_DESCRIPTOR_SLOTS
 * @return 1; 0 for bad arguments, when the system does not tell, and whenever
 *         the process holds a socket, which hosts know
 */
ZU_EXPORT uint8_t ZuGetOpenedFileAndSockCnnections(uint64_t* slots,
                                                   uint32_t count);
ZU_EXPORT uint8_t GetOpenedFileAndSockCnnections(uint64_t* slots,
                                                 uint32_t count);

#define ZU_MISC_SLOTS 2u
/**
 * Threads, and the system's memory pressure as the sysctl tool tells it.
 * Blocks until the tool has ended.
 *
 * @param[out] slots  0: threads of this process; 1: memory-pressure level, 0
 *                    when the tool does not tell
 * @param      count  number of slots, at least ZU_MISC_SLOTS
 * @return 1; 0 for bad arguments or when the system does not tell
 */
ZU_EXPORT uint8_t ZuGetMiscStatistics(uint64_t* slots, uint32_t count);
ZU_EXPORT uint8_t GetMiscStatistics(uint64_t* slots, uint32_t count);

/** How long nobody has used keyboard or pointer, in units of 2^30 ns (about
 *  1.07 s); UINT64_MAX when the system does not tell. On Linux from the login
 *  manager's idle hint, else from the terminals of those logged in; blocks for
 *  two seconds at most, while the login manager is asked. */
ZU_EXPORT uint64_t SystemIdleTime(void);

/* ----------------------------------------------- bundles, Mach-O versions --
 */

/**
 * Describes the bundle that a file lies in, or that the path names, as a JSON
 * object: "ProductName" (the bundle's identifier, on purpose), "Copyright" and
 * "Version", each only when the bundle tells. A bundle that tells nothing gives
 * "{}". The bundle's path is the file's, cut behind the first ".app" in it,
 * wherever that stands; without one behind the first ".bundle", ".framework",
 * ".plugin" or ".kext".
 *
 * @param[in]     path    of a file or directory
 * @param[out]    buffer  gets the JSON text, without NUL, when it takes all of
 *                        it; else nothing
 * @param[in,out] size    In: capacity of `buffer` in bytes. Out: length of the
 *                        text; unchanged when the result is 0.
 * @return 1; 0 when an argument is NULL, nothing exists at the path, it lies in
 *         no bundle, or a value cannot be told in JSON
 */
ZU_EXPORT uint32_t ZuGetExecutableInfo(const char* path, char* buffer,
                                       uint32_t* size);
ZU_EXPORT uint32_t GetExecutableInfo(const char* path, char* buffer,
                                     uint32_t* size);

/** Result of the two functions below when they fail. */
#define ZU_MACHO_FAILED 0xFFFFFFFFu

/**
 * The version that a Mach-O library declares for itself, from the first slice
 * of the file that declares one. Any file may be asked about.
 *
 * @param[out] version  major version in the upper 16 bits, then minor and patch
 *                      in 8 bits each, as the file has it: slices of the other
 *                      byte order give it reversed. Untouched on failure.
 * @return 1; 0 when the file cannot be read, is not Mach-O or is no library
 */
ZU_EXPORT uint32_t ZuGetDylibVersion(const char* path, uint32_t* version);

/**
 * As ZuGetDylibVersion, with the compatibility version behind the version.
 *
 * @param[out] info  array of two 32-bit integers
 * @param      size  its size in bytes, which has to be 8
 * @return 0, or ZU_MACHO_FAILED
 */
ZU_EXPORT uint32_t machoGetDylibInfo(const char* path, void* info,
                                     uint64_t size);

/**
 * The version text in the section "__version" of the segment "__DATA" of a
 * 32-bit slice. The bytes are copied as they are, without a NUL of ours.
 *
 * @param[out] buffer  gets the text when it is larger than that
 * @param      size    capacity of `buffer` in bytes; less than 0 counts as 0
 * @return 0; ZU_MACHO_FAILED when the file cannot be read or has no such text.
 *         Otherwise `buffer` is too small, and this is the size of the segment
 *         in the file: one byte more is enough where the section lies in its
 *         segment, which nothing vouches for: do not ask in a loop. When a
 * further 32-bit segment follows in the file a `buffer` that is too small gives
 *         0 and gets nothing.
 */
ZU_EXPORT uint32_t ZuGetZubrantDylibVersion(const char* path, char* buffer,
                                            int32_t size);
ZU_EXPORT uint32_t machoGetVersionString(const char* path, char* buffer,
                                         int32_t size);

/* -------------------------------------------------------- security posture --
 */

/**
 * Probes of the system's security settings. Each runs one tool of the system,
 * blocks until it has ended and looks for one text in what it prints. The first
 * four give 1 also when the tool prints nothing (it may complain elsewhere),
 * and 0 when it cannot be started or prints what is not UTF-8.
 */

/** 0 when the packet filter's tool says that it is off, else 1. Asks through
 *  sudo, which must not want a password. */
ZU_EXPORT uint8_t ZuIsFireWallOn(void);
ZU_EXPORT uint8_t IsFireWallOn(void);

/** 0 when what the tool prints about automatic checks for updates has a 1 in
 *  it, else 1: this one is the other way round, and hosts know it. */
ZU_EXPORT uint8_t ZuIsAutoCheckUpdateEnabled(void);
ZU_EXPORT uint8_t IsAutoCheckUpdateEnabled(void);

/** 0 when the tool says that the disk's encryption is off, else 1. */
ZU_EXPORT uint8_t ZuIsFileVaultEnabled(void);
ZU_EXPORT uint8_t IsFileVaultEnabled(void);

/** 0 when the tool says that programs are not assessed, else 1. */
ZU_EXPORT uint8_t ZuIsGateKeeperEnabled(void);
ZU_EXPORT uint8_t IsGateKeeperEnabled(void);

/**
 * Whether the user at the console has managed settings, such as restrictions of
 * web sites. Aborts the process where the system's store of such facts cannot
 * be reached at all.
 *
 * @return 1 when the directory's tool prints anything, 0 when it prints nothing
 *         or cannot be started; -1 when there is no user at the console (or the
 *         login window is), or the user is listed in the group "admin"
 */
ZU_EXPORT int32_t ZuWebSitesRestricationLevel(void);
ZU_EXPORT int32_t WebSitesRestricationLevel(void);

/* --------------------------------------------------------------- identity --
 */

/** The system's version (from gOSVersion; versions that are reported as 10.16
 *  are corrected from the system's own file) and its revision (see
 *  GetOSRevision). Writes nothing when a pointer is NULL. */
ZU_EXPORT void GetOSVersion(uint32_t* major, uint32_t* minor, uint32_t* patch,
                            uint32_t* revision);

/** The kernel's revision number as the sysctl tool tells it; 0 when it does
 *  not. Blocks until the tool has ended. */
ZU_EXPORT int32_t ZuGetOSRevision(void);
ZU_EXPORT int32_t GetOSRevision(void);

/**
 * The processor's architecture ("x86_64", "arm64", on Linux "aarch64").
 *
 * @param[out] buffer    zeroed, then gets the name; one that is as long as the
 *                       capacity or longer is cut and has no NUL
 * @param      capacity  in bytes; below 4 nothing is written
 */
ZU_EXPORT void GetSystemArchitecture(char* buffer, int32_t capacity);

/**
 * A property of the machine, by the platform's name for it. On Linux
 * "IOPlatformSerialNumber", "IOPlatformUUID", "model" and "manufacturer", from
 * the firmware's tables (some of which only root can read).
 *
 * @param[in]  name      of the property
 * @param[out] buffer    gets the text and a NUL; empty when the machine does
 *                       not tell or the text does not fit
 * @param      capacity  in bytes; 0 or less writes nothing
 */
ZU_EXPORT void GetPlatformProperty(const char* name, char* buffer,
                                   int32_t capacity);

/**
 * The computer's name. Asks no name server on Linux.
 *
 * @param      network   not 0: the name in the network; 0: the one for people
 * @param[out] buffer    gets the name and a NUL; an empty text when it does not
 *                       fit
 * @param      capacity  in bytes; 0 or less writes nothing
 * @return 1; 0 when the name does not fit or there is none
 */
ZU_EXPORT uint32_t ZuGetHostName(int32_t network, char* buffer,
                                 int32_t capacity);
ZU_EXPORT uint32_t GetHostName(int32_t network, char* buffer, int32_t capacity);

/**
 * The version of the agent's product on this machine.
 *
 * @param[out] buffer    gets the version and a NUL when its length in bytes is
 *                       below the capacity; else nothing
 * @param      capacity  in bytes
 * @return 1; 0 when that fails or the product is not installed
 */
ZU_EXPORT uint32_t ZuGetProductVersion(char* buffer, int32_t capacity);
ZU_EXPORT uint32_t GetProductVersion(char* buffer, int32_t capacity);

/** The edition of the user interface that is installed: 1, 2 or 3; 0 when there
 *  is none. Blocks until a tool has ended. */
ZU_EXPORT uint32_t ZuGetInstallationType(void);
ZU_EXPORT uint32_t getInstallationType(void);

/* ---------------------------------------------- kernel settings and volumes --
 */

/** Bits of ZuGetRootlessConfig: restrictions of the system that are off. */
#define ZU_ROOTLESS_KEXT_SIGNING 1u
#define ZU_ROOTLESS_FILESYSTEM 2u
#define ZU_ROOTLESS_TASK_FOR_PID 4u /**< Only together with all the others. */
#define ZU_ROOTLESS_DEBUGGING 8u
#define ZU_ROOTLESS_APPLE_INTERNAL 16u
#define ZU_ROOTLESS_DTRACE 32u
#define ZU_ROOTLESS_NVRAM 64u

/**
 * Which of the system's integrity restrictions a custom configuration has
 * switched off, from what the csrutil tool prints. Protection that is off as a
 * whole gives 0: only lines about single restrictions count.
 *
 * @param[out] flags  ZU_ROOTLESS_... bits; untouched on failure
 * @return 0; 5 when the tool prints nothing (or what is not UTF-8) or cannot be
 *         started, 14 when memory is short. ZuGetRootlessConfig: -1 on systems
 *         before 10.11 and when `flags` is NULL, which GetRootlessConfig does
 *         not check.
 */
ZU_EXPORT int32_t ZuGetRootlessConfig(uint32_t* flags);
ZU_EXPORT int32_t GetRootlessConfig(uint32_t* flags);

/**
 * The kernel's setting "vm.shared_region_unnest_logging", which Linux does not
 * have. One that ZuSetSharedRegionUnnestLogging has changed gets the value that
 * it had when the library was loaded back when the library is unloaded; with
 * the function without the prefix it stays changed.
 *
 * @return 0; -1 with errno when the kernel refuses or has no such setting. The
 *         getter: 22 when `value` is NULL.
 */
ZU_EXPORT int32_t ZuSetSharedRegionUnnestLogging(uint32_t value);
ZU_EXPORT int32_t SetSharedRegionUnnestLogging(uint32_t value);
ZU_EXPORT int32_t GetSharedRegionUnnestLogging(uint32_t* value);

/** Whether names that differ in case only are different at a path: 1 yes, 0 no,
 *  -1 when that cannot be told (errno says why) or `path` is NULL. */
ZU_EXPORT int64_t ZuIsVolumeCaseSensitive(const char* path);
ZU_EXPORT int64_t IsVolumeCaseSensitive(const char* path);

/**
 * Whether a path lies on a volume of this machine: 0 when it does not, also
 * when it lies in a mounted image whose file does not, and for "/dev"; else 1,
 * also when that cannot be told or `path` is NULL.
 */
ZU_EXPORT uint8_t ZuIsParentPathLocal(const char* path);
ZU_EXPORT uint8_t isParentPathLocal(const char* path);

/* ------------------------------------------------- services and extensions --
 */

/**
 * Start and stop the agent's components with the system's tools, which wants
 * root's rights. Each blocks until the tool has ended and gives 1 when that
 * printed nothing, also when it could not be started: what these tools complain
 * about on their standard error is not seen. 0 otherwise, and for a NULL name.
 * Stopping a service whose property list is gone gives 0, and runs nothing.
 */
ZU_EXPORT uint32_t ZuStartZuService(void);
ZU_EXPORT uint32_t ZuStopZuService(void);
ZU_EXPORT uint32_t ZuStartZuExtension(void);
ZU_EXPORT uint32_t ZuStopZuExtension(void);
ZU_EXPORT uint32_t ZuStartOrvexService(void);
ZU_EXPORT uint32_t ZuStopOrvexService(void);
ZU_EXPORT uint32_t ZuStartZuKext(void);
ZU_EXPORT uint32_t ZuStopZuKext(void);
ZU_EXPORT uint32_t ZuStartOrvexKext(void);
ZU_EXPORT uint32_t ZuStopOrvexKext(void);

/** A launch daemon, by its property list's name in /Library/LaunchDaemons/. */
ZU_EXPORT uint32_t StartService(const char* plist_name);
ZU_EXPORT uint32_t StopService(const char* plist_name);
/** A kernel extension: started by its bundle's name in /Library/Extensions/,
 *  stopped by its bundle's identifier. */
ZU_EXPORT uint32_t StartKext(const char* kext_file_name);
ZU_EXPORT uint32_t StopKext(const char* bundle_id);

/**
 * Starts the updater and leaves it to itself: nobody waits for it, and it stays
 * no zombie while the library is loaded. It has a process group of its own, the
 * host's standard streams and no other descriptor, no blocked signal, and an
 * environment of two variables: "DYLD_LIBRARY_PATH", its own directory, and
 * "MONO_REGISTRY_PATH" as the host has it.
 *
 * @param launch_path        absolute path of the program
 * @param working_directory  where it runs
 * @param first_argument     of the two that it gets
 * @param second_argument    the other
 * @return 1 when it was started; 0 when a text is NULL or empty, the program is
 *         not executable, the directory not there, or the host itself has no
 *         "MONO_REGISTRY_PATH" (an empty one is passed on)
 */
ZU_EXPORT uint32_t ZuStartZuUpdater(const char* launch_path,
                                    const char* working_directory,
                                    const char* first_argument,
                                    const char* second_argument);
ZU_EXPORT uint32_t StartZuUpdater(const char* launch_path,
                                  const char* working_directory,
                                  const char* first_argument,
                                  const char* second_argument);

/* --------------------------------------------------------------- UI agent --
 */

/**
 * Starts the per-user UI agent in the graphical sessions of users, after it has
 * been unloaded everywhere. Blocks until the tools have ended. Only the first
 * user's command line is a clean one: what is left of a user's last command
 * stands before the next user's words, and hosts that start several users call
 * once for each.
 *
 * @param users  user identifiers; may be NULL when `count` is 0
 * @param count  their number
 * @return 1 when it was started for at least one, or `count` is 0; else 0
 */
ZU_EXPORT uint32_t ZuStartZuUI(const uint32_t* users, uint32_t count);
ZU_EXPORT uint32_t StartZuUI(const uint32_t* users, uint32_t count);

/**
 * Ends the UI processes of all users and tells whose they were. What arguments
 * one ran with is kept in "uiArgs" in its user's directory
 * "/Users/NAME/Library/Application Support/Zubrant"; these, and directories on
 * the way that were missing, have mode 0777. Blocks until the tools have ended.
 *
 * @param[out]    users  gets the user identifier of each process
 * @param[in,out] count  In: capacity of `users`, which has to be at least one
 *                       more than there are processes. Out: entries written, or
 *                       with 0 the capacity that it takes; unchanged when it is
 *                       0 or there is nothing to stop.
 * @return 1, also when there is nothing to stop; 0 when an argument is NULL or
 *         `*count` 0 or too small
 */
ZU_EXPORT uint32_t ZuStopZuUI(uint32_t* users, uint32_t* count);
ZU_EXPORT uint32_t StopZuUI(uint32_t* users, uint32_t* count);

/* --------------------------------------------------- accounts and ownership --
 */

/** Identifier of the calling thread, system-wide, cut to 32 bits. */
ZU_EXPORT uint32_t ZuGetCurrentThreadId(void);
ZU_EXPORT uint32_t GetCurrentThreadId(void);

/** Identifier of a user or a group by name, which must not be NULL; 0 when it
 * is unknown, as for the superuser. May ask the network, where the system's
 *  databases lie there. */
ZU_EXPORT uint32_t ZuGetUserUid(const char* name);
ZU_EXPORT uint32_t GetUserUid(const char* name);
ZU_EXPORT uint32_t ZuGetGroupGid(const char* name);
ZU_EXPORT uint32_t GetGroupGid(const char* name);

/**
 * The groups that a user belongs to, the primary one among them.
 *
 * @param         uid     user identifier
 * @param[out]    groups  array of group identifiers
 * @param[in,out] count   Not NULL. In: capacity in entries; 0 or less takes no
 *                        array. Out: how many there are
 *                        (macOS: at most the capacity); 0 for an unknown user.
 * @return 0; -1 when there are more than `groups` takes
 */
ZU_EXPORT int32_t ZuGetGroupsForUser(uint32_t uid, uint32_t* groups,
                                     int32_t* count);

/**
 * Change the owner or the permissions of a file with the system's tools, and
 * block until these have ended. They give 1 when the tool printed nothing, also
 * when it could not be started; else 0.
 */

/** Makes the user at the current terminal, as "who -m" tells, the owner of a
 *  file. 0 also when that tells nobody, or `path` is NULL or empty. */
ZU_EXPORT uint8_t ZuChangeFileOwnerToCurrentUser(const char* path);
ZU_EXPORT uint8_t ChangeFileOwnerToCurrentUser(const char* path);

/** Changes owner and group of a file, or of a directory and all that it holds,
 *  through sudo. 0 also when a text is NULL or empty, or the path not there. */
ZU_EXPORT uint8_t ZuChangeFileOwnerGroup(const char* path, const char* user,
                                         const char* group);
ZU_EXPORT uint8_t ChangeFileOwnerGroup(const char* path, const char* user,
                                       const char* group);

/**
 * Changes the permissions of a file.
 *
 * @param path       of the file; 0 when it is NULL, empty or not there
 * @param mode       as the chmod tool takes it; 0 when it is NULL
 * @param recursive  not 0: and of all that the directory holds
 */
ZU_EXPORT uint8_t ZuChangeFilePermissions(const char* path, const char* mode,
                                          int32_t recursive);
ZU_EXPORT uint8_t ChangeFilePermissions(const char* path, const char* mode,
                                        int32_t recursive);

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
