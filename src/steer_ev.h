// The event loop: periodic timers, one-shot time-outs, descriptor watches and
// the daemon's clock g_time, all in whole seconds.
#ifndef STEER_EV_H
#define STEER_EV_H

#include "cm.h"

enum sev_event {
    SEV_READ = 2,
    SEV_WRITE = 4,
};

typedef void (*sev_timer_cb)(void *data);
typedef void (*sev_poll_cb)(int fd, int events, void *data);

struct sev_timer {
    struct cm_timer cm_timer;  // first: the library's pointer is also ours
    sev_timer_cb cb;
    void *data;
};
typedef struct sev_timer sev_timer_t;

struct sev_poll {
    struct cm_poll cm_poll;  // first, likewise
    sev_poll_cb cb;
    void *data;
};
typedef struct sev_poll sev_poll_t;

void sev_init();
void sev_run();
void sev_exit();

// Calls cb(data) every `expires` seconds, first `expires` seconds from now,
// until sev_del_timer. Deleting a timer inside its own callback is allowed.
sev_timer_t *sev_new_timer(int expires, sev_timer_cb cb, void *data);
void sev_del_timer(sev_timer_t *timer);

// Calls cb(data) once after `expires` seconds (0: next loop pass); it cannot
// be cancelled, so `data` must outlive the delay.
void sev_timeout(int expires, sev_timer_cb cb, void *data);

// Watches `fd` for SEV_READ and/or SEV_WRITE. The callback receives the
// library's readiness bits (1 readable, 2 writable). The descriptor stays the
// caller's.
sev_poll_t *sev_new_poll(int fd, int events, sev_poll_cb cb, void *data);
void sev_del_poll(sev_poll_t *poll);

// Refreshes g_time from the monotonic clock.
void sev_update_time(void *data);

#endif
