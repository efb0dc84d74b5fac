// The event library: one thread, one loop, callbacks one at a time.
// Timers repeat with their period until stopped; a timeout owns its record
// and calls once; a poll watches a descriptor for readiness.
#ifndef CM_H
#define CM_H

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

// Readiness bits handed to and by poll callbacks.
#define CM_POLL_READ 1
#define CM_POLL_WRITE 2

struct cm_timer;
struct cm_poll;

typedef void (*cm_timer_cb)(struct cm_timer *timer);
typedef void (*cm_poll_cb)(struct cm_poll *poll, int fd, int events);
typedef void (*cm_timeout_cb)(void *data);

// A timer record lives inside its user's record; `impl` belongs to the library.
struct cm_timer {
    void *impl;
    cm_timer_cb cb;
};

struct cm_poll {
    void *impl;
    cm_poll_cb cb;
    int fd;
};

void cm_init(void);
// Dispatches until cm_stop; the daemon never stops it.
void cm_run(void);
// Makes cm_run return after the current callback.
void cm_stop(void);

// Starts `timer`, first after `seconds`, then every `seconds`, until stopped.
// Returns 0, or -1 when the library cannot start it.
int cm_timer_start(struct cm_timer *timer, double seconds, cm_timer_cb cb);
// Stops `timer`; stopping a stopped timer is harmless. The record may be freed
// at once afterwards, also from inside its own callback.
void cm_timer_stop(struct cm_timer *timer);

// Calls cb(data) once after `seconds`; 0 means the next loop pass.
int cm_timeout(double seconds, cm_timeout_cb cb, void *data);

// Watches `fd` for the CM_POLL_* bits in `events` until cm_poll_stop.
int cm_poll_start(struct cm_poll *poll, int fd, int events, cm_poll_cb cb);
void cm_poll_stop(struct cm_poll *poll);

// ---------------------------------------------------------------------------
// Stream I/O on Unix-domain sockets.

// Length-carrying strings in which reads are delivered.
typedef char *sds;
size_t sdslen(const sds s);
void sdsfree(sds s);

// Status bits of a cm_io record.
#define CM_IO_CLOSED 2
#define CM_IO_CONNECTED 4
#define CM_IO_CLOSING 8

struct cm_io;
typedef void (*cm_io_accept_cb)(struct cm_io *server, struct cm_io *client, int err);
// `data` belongs to the callback (sdsfree); err is non-zero at end of stream or on error.
typedef void (*cm_io_read_cb)(struct cm_io *client, ssize_t nread, sds data, int err);

// A record is created zeroed with fd -1 and status CM_IO_CLOSED.
struct cm_io {
    int fd;
    int status;
    void *impl;
    cm_io_accept_cb accept_cb;
    struct cm_io *accept_client;
    cm_io_read_cb read_cb;
    size_t read_len;
};

static inline int cm_io_is_closed(const struct cm_io *io)
{
    return (io->status & CM_IO_CLOSED) != 0;
}

// Listens on "unix://<path>"; 0 on success.
int cm_io_listen(struct cm_io *server, const char *address);
// Accepts the next connection into `client`, then calls cb(server, client, err) once.
// Time-outs are not supported: pass a negative one. 0 when armed.
int cm_io_accept(struct cm_io *server, struct cm_io *client, cm_io_accept_cb cb, double timeout);
// Reads once: `len` 0 delivers whatever one read returns, otherwise at most
// `len` bytes; then calls cb once. A negative time-out only. 0 when armed.
int cm_io_read(struct cm_io *client, size_t len, cm_io_read_cb cb, double timeout);
// Closes the connection; the status becomes CM_IO_CLOSED and the record may be
// freed at once. 0 on success.
int cm_io_close(struct cm_io *io);
// Bounds what the peers of a listening socket can hold: at most `max_open`
// accepted connections open at once (for a new one, the one idle longest is
// closed) and none that delivers nothing for `idle_seconds`. A connection is
// closed for its user as if its peer had gone: the armed read reports the
// end. The defaults are 64 connections and 60 seconds. 0 on success.
int cm_io_limit(struct cm_io *server, int max_open, double idle_seconds);

// Reports `msg` on standard error and aborts.
void cm_abort(const char *msg) __attribute__((noreturn));

#ifdef __cplusplus
}
#endif

#endif
