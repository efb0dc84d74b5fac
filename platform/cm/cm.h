// The event library: one thread, one loop, callbacks one at a time.
// Timers repeat with their period until stopped; a timeout owns its record
// and calls once; a poll watches a descriptor for readiness.
#ifndef CM_H
#define CM_H

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

// Reports `msg` on standard error and aborts.
void cm_abort(const char *msg) __attribute__((noreturn));

#ifdef __cplusplus
}
#endif

#endif
