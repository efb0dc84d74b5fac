#include "steer_ev.h"

#include <ctime>

#include "steer.h"

unsigned long g_time;

namespace {

sev_timer_t *s_time_updater;

void sev_timer_handler(struct cm_timer *cm_timer)
{
    auto *timer = reinterpret_cast<sev_timer_t *>(cm_timer);
    timer->cb(timer->data);
}

void sev_poll_handler(struct cm_poll *cm_poll, int fd, int events)
{
    auto *poll = reinterpret_cast<sev_poll_t *>(cm_poll);
    poll->cb(fd, events, poll->data);
}

}  // namespace

void sev_update_time(void *)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    g_time = (unsigned long)ts.tv_sec;
}

void sev_init()
{
    cm_init();
    sev_update_time(nullptr);
    s_time_updater = sev_new_timer(1, sev_update_time, nullptr);
    SASSERT(s_time_updater);
}

void sev_run()
{
    cm_run();
}

void sev_exit()
{
    if (s_time_updater) {
        sev_del_timer(s_time_updater);
        s_time_updater = nullptr;
    }
}

sev_timer_t *sev_new_timer(int expires, sev_timer_cb cb, void *data)
{
    auto *timer = static_cast<sev_timer_t *>(malloc(sizeof(sev_timer_t)));
    if (!timer)
        cm_abort("bandherd: oom at sev_new_timer");
    SASSERT(expires > 0);
    SASSERT(cb);
    SASSERT(timer);

    timer->cb = cb;
    timer->data = data;
    memset(&timer->cm_timer, 0, sizeof(timer->cm_timer));
    cm_timer_start(&timer->cm_timer, (double)expires, sev_timer_handler);
    return timer;
}

void sev_del_timer(sev_timer_t *timer)
{
    SASSERT(timer);
    cm_timer_stop(&timer->cm_timer);
    free(timer);
}

void sev_timeout(int expires, sev_timer_cb cb, void *data)
{
    SASSERT(expires >= 0);
    SASSERT(cb);
    cm_timeout((double)expires, cb, data);
}

sev_poll_t *sev_new_poll(int fd, int events, sev_poll_cb cb, void *data)
{
    auto *poll = static_cast<sev_poll_t *>(malloc(sizeof(sev_poll_t)));
    if (!poll)
        cm_abort("bandherd: oom at sev_new_poll");
    SASSERT(fd >= 0);
    SASSERT(events > 0);
    SASSERT(cb);
    SASSERT(poll);

    memset(poll, 0, sizeof(*poll));
    poll->cb = cb;
    poll->data = data;
    int bits = 0;
    if (events & SEV_READ)
        bits |= CM_POLL_READ;
    if (events & SEV_WRITE)
        bits |= CM_POLL_WRITE;
    cm_poll_start(&poll->cm_poll, fd, bits, sev_poll_handler);
    return poll;
}

void sev_del_poll(sev_poll_t *poll)
{
    SASSERT(poll);
    cm_poll_stop(&poll->cm_poll);
    free(poll);
}
