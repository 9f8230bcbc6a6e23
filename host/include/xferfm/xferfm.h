/* The C interface of the host kit: copy files and directories between a
 * sending and a receiving endpoint, over a link the kit provides (in-process,
 * TCP, two descriptors such as pipes, the process's standard input/output)
 * or over one the host provides (any byte channel it already has).
 * Plain C99; usable from any language that can call C (ctypes, JNI, FFI).
 *
 * USAGE
 *   xferfm_link *a, *b;
 *   xferfm_link_pair(&a, &b);                       (or connect / accept / custom)
 *   xferfm_receiver_create(a, "/dest", 0, 0, &callbacks, &receiver);
 *   xferfm_sender_create(b, 0, &callbacks, &sender);
 *   xferfm_link_destroy(a); xferfm_link_destroy(b); (the endpoints keep the links)
 *   xferfm_sender_offer(sender, paths, count);
 *   xferfm_receiver_start(receiver);
 *   xferfm_receiver_wait(receiver, XFERFM_WAIT_FOREVER);
 *   xferfm_receiver_summary(receiver, &summary);
 *   xferfm_receiver_destroy(receiver); xferfm_sender_destroy(sender);
 * Checking the landed files against digests of their sources is not part
 * of this interface (the endpoints do not offer it; the command-line tool
 * adds it on top of them).
 * One endpoint serves one session (one offered list). Destination entries
 * land like `cp -r SOURCE... DEST_DIR`; an existing top-level name is never
 * overwritten (the entry gets a "name(1)" name instead).
 *
 * ERRORS
 * Every function that can fail returns an int: XFERFM_OK (0) or one of the
 * xferfm_status codes. xferfm_strerror names a code; xferfm_last_error gives
 * the details of the last failure of a call made on the calling thread.
 * Nothing is thrown across this interface: every failure inside the kit is
 * caught here and returned as a code (XFERFM_ERR_INTERNAL at worst).
 * A copy that fails is not an error of the call that waits for it: the
 * summary's outcome and text say how it ended.
 *
 * THREADING AND BLOCKING
 * 1. Every function may be called from any thread. Calls on different
 *    handles never interfere; calls on one handle may come from several
 *    threads at once, except xferfm_*_destroy, which must be the last call
 *    on its handle and must not race with any other call on it.
 * 2. What blocks: xferfm_*_wait (up to its timeout), xferfm_link_connect
 *    (up to its timeout), xferfm_listener_accept (up to its timeout),
 *    xferfm_*_destroy (it cancels a running session and joins the
 *    endpoint's threads), and xferfm_link_deliver (while the receiving
 *    endpoint still holds too much undelivered data: that is the link's
 *    backpressure). Nothing else waits for the peer.
 * 3. The endpoint's callbacks (xferfm_callbacks) come on the endpoint's own
 *    threads, never on the thread that created it unless noted: on the
 *    link's delivery thread, the endpoint's session thread, or the engine's
 *    writer thread. Calls on one endpoint are never concurrent. They must be
 *    quick (the copy waits for them).
 * 4. Re-entrancy: from inside a callback a host may call xferfm_*_cancel and
 *    xferfm_*_summary on any endpoint, and anything on other handles that
 *    does not block. It must not call xferfm_*_wait or xferfm_*_destroy on
 *    the endpoint that called it.
 * 5. A host-supplied link's send callback is called on the endpoint's
 *    threads (one call at a time, in frame order); it may block to slow the
 *    copy down. It must not call xferfm_*_destroy; it may call
 *    xferfm_link_deliver on another link (a loopback), never on its own.
 *
 * OWNERSHIP AND LIFETIME
 * - Every handle is created by a xferfm_*_create (or pair/connect/accept/
 *   custom) function and released by its xferfm_*_destroy, exactly once.
 *   Destroying NULL does nothing.
 * - A link is taken over by the endpoint created on it: the endpoint owns
 *   the connection from then on, and a link can serve one endpoint only.
 *   The link handle itself stays the caller's to destroy (at any time); a
 *   host-supplied link keeps accepting xferfm_link_deliver until its handle
 *   is destroyed (after the endpoint is gone the bytes are dropped with
 *   XFERFM_ERR_CLOSED). Destroying a link no endpoint took closes it.
 * - Strings and buffers passed in are copied or used during the call only.
 *   Strings passed to callbacks are valid during the callback only. The
 *   `user` pointers are never dereferenced; they must stay valid for as
 *   long as callbacks can come (until the handle is destroyed).
 * - The callbacks structure is copied at creation; NULL members (or a NULL
 *   structure) are simply not called.
 */
#ifndef XFERFM_XFERFM_H
#define XFERFM_XFERFM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- status codes, text, version ------------------------------------- */

typedef enum xferfm_status {
    XFERFM_OK = 0,
    XFERFM_ERR_INVALID_ARGUMENT = 1, /* a NULL handle or pointer, an empty list */
    XFERFM_ERR_BAD_STATE = 2,        /* called twice, or a link already taken */
    XFERFM_ERR_PATH = 3,             /* a source or the destination cannot be used */
    XFERFM_ERR_TIMEOUT = 4,          /* the wait ended before the session did */
    XFERFM_ERR_NETWORK = 5,          /* an address, connect, listen or accept failed */
    XFERFM_ERR_PROTOCOL = 6,         /* delivered bytes are not the kit's frames */
    XFERFM_ERR_CLOSED = 7,           /* the link is closed */
    XFERFM_ERR_NO_MEMORY = 8,
    XFERFM_ERR_INTERNAL = 9          /* an unexpected failure inside the kit */
} xferfm_status;

/* A fixed English name of a status code ("unknown status" for others).
 * Static storage: never freed, valid for the life of the process. */
const char* xferfm_strerror(int status);

/* Details of the last call on this thread that failed ("" when the last
 * call succeeded). Valid until the next call of this interface on the
 * same thread; copy it to keep it. */
const char* xferfm_last_error(void);

/* The kit's version, "MAJOR.MINOR.PATCH". Static storage. */
const char* xferfm_version(void);

/* Engine log lines go to `log(user, level, line)` (level 0 verbose .. 5
 * fatal) from then on; NULL restores the default. Called on whatever thread
 * logs, possibly concurrently: the function must be thread-safe. `line` is
 * valid during the call only. Process-wide. */
typedef void (*xferfm_log_fn)(void* user, int level, const char* line);
int xferfm_set_log_callback(xferfm_log_fn log, void* user);

/* ---- links ------------------------------------------------------------ */

typedef struct xferfm_link xferfm_link;
typedef struct xferfm_listener xferfm_listener;

/* Two connected in-process links: give one to a sender, the other to a
 * receiver. Both are created or neither. */
int xferfm_link_pair(xferfm_link** first, xferfm_link** second);

/* Connects to "HOST:PORT" ("127.0.0.1:47047", "[::1]:9000") over TCP,
 * waiting at most `timeout_ms`. */
int xferfm_link_connect(const char* host_port, uint32_t timeout_ms, xferfm_link** out);

/* Listens on "HOST:PORT" (port 0: any free port; see xferfm_listener_port). */
int xferfm_listener_create(const char* host_port, xferfm_listener** out);
int xferfm_listener_port(const xferfm_listener* listener, uint16_t* port);
/* Waits up to `timeout_ms` for one connection: XFERFM_ERR_TIMEOUT when none
 * came. One thread at a time may accept on a listener. */
int xferfm_listener_accept(xferfm_listener* listener, uint32_t timeout_ms, xferfm_link** out);
void xferfm_listener_destroy(xferfm_listener* listener);

/* A link over two descriptors the host already has: frames are read from
 * `read_fd` and written to `write_fd` (two pipe ends, a socketpair's two
 * duplicates; a connected socket may be given as both, it is then closed
 * once), with the same keepalives, silence limit and backpressure as over
 * TCP. The link takes both descriptors in every case: the kit closes them
 * when the link ends, or before returning when the call fails. Ending the
 * link closes the write end (a pipe's reader then sees the end of the
 * stream; a socket is shut for writing). The write end is in non-blocking
 * mode while the link uses it, a flag its duplicates share: give an end no
 * one else writes to. A peer that stops reading fails the link with a reason; it
 * never raises SIGPIPE in the process (the kit's writer thread blocks it
 * for itself). */
int xferfm_link_fds(int read_fd, int write_fd, xferfm_link** out);

/* A link over the process's own standard input and output, for a program
 * its peer started through a remote shell: both are duplicated for the
 * link, then descriptor 1 is pointed at standard error and descriptor 0 at
 * /dev/null, so nothing the process prints afterwards can corrupt the
 * frames (printf lands on stderr). Call it once, early, before anything is
 * printed to stdout and before other threads use standard input or output.
 * XFERFM_ERR_CLOSED when the descriptors cannot be taken, or either is a
 * terminal (the process is then as it was). */
int xferfm_link_stdio(xferfm_link** out);

/* A link over a byte channel the host already has. The kit hands every
 * outgoing byte to `send` (frames of docs/protocol.md, the hello first);
 * the host carries them to the peer and gives the peer's bytes to
 * xferfm_link_deliver in the order they came. `send` returns 0 when the
 * bytes are on their way, anything else when the channel is broken (the
 * link then closes). `close` (may be NULL) is called once when the kit
 * closes the link: the host should then end its channel. No keepalive
 * frames are sent: a channel that needs them provides its own. The
 * callbacks (and `user`) must stay valid until the endpoint that took the
 * link is destroyed, or the link handle when no endpoint took it. */
typedef struct xferfm_link_callbacks {
    void* user;
    int (*send)(void* user, const uint8_t* bytes, size_t size);
    void (*close)(void* user);
} xferfm_link_callbacks;
int xferfm_link_custom(const xferfm_link_callbacks* callbacks, xferfm_link** out);

/* Bytes the peer sent, in order, any split. Blocks while the endpoint holds
 * too much data it has not taken yet. XFERFM_ERR_PROTOCOL when the bytes
 * are not frames of the protocol (the link then closes, telling the
 * peer), XFERFM_ERR_CLOSED once the link is closed. Only for links made by
 * xferfm_link_custom (XFERFM_ERR_INVALID_ARGUMENT otherwise). */
int xferfm_link_deliver(xferfm_link* link, const uint8_t* bytes, size_t size);
/* The peer's channel ended; `reason` (may be NULL) says why. The endpoint
 * hears it after every message delivered before. */
int xferfm_link_deliver_end(xferfm_link* link, const char* reason);

void xferfm_link_destroy(xferfm_link* link);

/* ---- endpoints -------------------------------------------------------- */

typedef enum xferfm_outcome {
    XFERFM_RUNNING = 0,   /* not finished yet */
    XFERFM_COMPLETED = 1, /* every entry of the list arrived */
    XFERFM_PARTIAL = 2,   /* finished, but the receiver refused some entries */
    XFERFM_CANCELLED = 3, /* cancelled on this end or the peer's */
    XFERFM_FAILED = 4     /* `error` names the first failure */
} xferfm_outcome;

typedef struct xferfm_summary {
    int outcome; /* an xferfm_outcome */
    uint64_t entries_total;
    uint64_t files_done;
    uint64_t directories_done;
    uint64_t entries_skipped;
    uint64_t bytes_total;
    uint64_t bytes_done;
    char error[512]; /* the first failure (cut to fit, NUL-terminated); "" when none */
} xferfm_summary;

/* Names are relative paths as the sender offers them ("dir/file.txt");
 * on the sending side `name` is the local source path. */
typedef struct xferfm_callbacks {
    void* user;
    /* An entry is about to be transferred. */
    void (*on_file_started)(void* user, const char* name, uint64_t size);
    /* Receiver: bytes of `name` written and of the whole copy. Sender: the
     * bytes sent so far (`total_done`); the other values are 0 there. */
    void (*on_progress)(void* user, const char* name, uint64_t file_done, uint64_t file_size, uint64_t total_done,
                        uint64_t total_size);
    /* Receiver only: a file is complete, or a directory exists, under
     * `final_path`. */
    void (*on_entry_done)(void* user, const char* name, const char* final_path, int is_directory);
    /* An entry is not copied because the receiving side refused its name;
     * the rest of the list goes on. Sender: from the receiver's message.
     * Receiver: with XFERFM_RECEIVER_SCREEN_NAMES, before any file starts. */
    void (*on_entry_skipped)(void* user, const char* name, const char* reason);
    /* The copy failed; once. `path` is "" when no entry is concerned. */
    void (*on_failure)(void* user, const char* path, const char* message);
    /* Last callback of the session, on every exit path. */
    void (*on_finished)(void* user, const xferfm_summary* summary);
} xferfm_callbacks;

/* Waits without a time limit. */
#define XFERFM_WAIT_FOREVER UINT32_MAX

typedef struct xferfm_sender xferfm_sender;

/* A sender on `link` (taken over). `bandwidth_kbps`: 0 for no limit,
 * otherwise the rate in kilobits per second. `callbacks` may be NULL. */
int xferfm_sender_create(xferfm_link* link, uint32_t bandwidth_kbps, const xferfm_callbacks* callbacks,
                         xferfm_sender** out);
/* Offers local files and directories (copied with their contents); once.
 * XFERFM_ERR_PATH (xferfm_last_error names the path) when one cannot be
 * offered: nothing is offered then. */
int xferfm_sender_offer(xferfm_sender* sender, const char* const* paths, size_t count);
/* Ends the session early; the peer is told. Idempotent; never blocks. */
int xferfm_sender_cancel(xferfm_sender* sender);
/* XFERFM_OK once the session has ended (completed, failed or cancelled),
 * XFERFM_ERR_TIMEOUT if it has not within `timeout_ms`. */
int xferfm_sender_wait(xferfm_sender* sender, uint32_t timeout_ms);
int xferfm_sender_summary(const xferfm_sender* sender, xferfm_summary* out);
/* Cancels a running session, closes the link, joins every thread. */
void xferfm_sender_destroy(xferfm_sender* sender);

typedef struct xferfm_receiver xferfm_receiver;

/* Flags of xferfm_receiver_create. */
/* Check every name the sender sends (relative, no "..", valid UTF-8, no
 * symbolic link among the destination's parents) and refuse the entries
 * that fail, one by one. Use it on every link to another process. */
#define XFERFM_RECEIVER_SCREEN_NAMES 0x1u

/* A receiver on `link` (taken over) landing entries in `destination_dir`
 * (must exist). `stall_timeout_ms`: a sender silent that long during a
 * transfer fails the session; 0 for the default (45 s). */
int xferfm_receiver_create(xferfm_link* link, const char* destination_dir, uint32_t flags, uint32_t stall_timeout_ms,
                           const xferfm_callbacks* callbacks, xferfm_receiver** out);
/* Asks the sender for its list; once. XFERFM_ERR_PATH when the destination
 * cannot be used. */
int xferfm_receiver_start(xferfm_receiver* receiver);
int xferfm_receiver_cancel(xferfm_receiver* receiver);
int xferfm_receiver_wait(xferfm_receiver* receiver, uint32_t timeout_ms);
int xferfm_receiver_summary(const xferfm_receiver* receiver, xferfm_summary* out);
/* Cancels a running session, closes the link, removes the private cache
 * directory, joins every thread. */
void xferfm_receiver_destroy(xferfm_receiver* receiver);

#ifdef __cplusplus
}
#endif

#endif /* XFERFM_XFERFM_H */
