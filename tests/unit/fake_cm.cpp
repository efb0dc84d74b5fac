#include "fake_cm.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>

namespace {

struct fake_timer {
    cm_timer *timer;
    double period;
    double due;
};

struct fake_timeout {
    double due;
    cm_timeout_cb cb;
    void *data;
};

struct fake_poll {
    cm_poll *poll;
    int events;
};

double s_now;
std::list<fake_timer *> s_timers;
std::list<fake_timeout> s_timeouts;
std::list<fake_poll *> s_polls;

// Runs the earliest entry due at or before `until`; false when nothing is due.
bool fake_cm_run_one(double until)
{
    fake_timer *next_timer = nullptr;
    for (fake_timer *t : s_timers)
        if (t->due <= until && (!next_timer || t->due < next_timer->due))
            next_timer = t;
    auto next_timeout = s_timeouts.end();
    for (auto it = s_timeouts.begin(); it != s_timeouts.end(); ++it)
        if (it->due <= until && (next_timeout == s_timeouts.end() || it->due < next_timeout->due))
            next_timeout = it;

    if (next_timeout != s_timeouts.end() && (!next_timer || next_timeout->due <= next_timer->due)) {
        fake_timeout to = *next_timeout;
        s_timeouts.erase(next_timeout);
        to.cb(to.data);
        return true;
    }
    if (next_timer) {
        next_timer->due += next_timer->period;
        cm_timer *timer = next_timer->timer;
        timer->cb(timer);  // may stop, and so free, next_timer
        return true;
    }
    return false;
}

}  // namespace

void fake_cm_reset()
{
    for (fake_timer *t : s_timers) {
        t->timer->impl = nullptr;
        delete t;
    }
    for (fake_poll *p : s_polls) {
        p->poll->impl = nullptr;
        delete p;
    }
    s_timers.clear();
    s_timeouts.clear();
    s_polls.clear();
    s_now = 0;
}

void fake_cm_pass()
{
    // Time-outs added by this pass's callbacks wait for the next pass.
    std::list<fake_timeout> due;
    for (auto it = s_timeouts.begin(); it != s_timeouts.end();) {
        auto cur = it++;
        if (cur->due <= s_now)
            due.splice(due.end(), s_timeouts, cur);
    }
    for (const fake_timeout &to : due)
        to.cb(to.data);
}

void fake_cm_advance(int seconds)
{
    for (int i = 0; i < seconds; i++) {
        s_now += 1;
        while (fake_cm_run_one(s_now)) {
        }
    }
}

double fake_cm_now() { return s_now; }
int fake_cm_timers() { return (int)s_timers.size(); }
int fake_cm_timeouts() { return (int)s_timeouts.size(); }
int fake_cm_polls() { return (int)s_polls.size(); }

bool fake_cm_fire_poll(int fd, int bits)
{
    for (fake_poll *p : s_polls) {
        if (p->poll->fd == fd) {
            p->poll->cb(p->poll, fd, bits);
            return true;
        }
    }
    return false;
}

int fake_cm_poll_events(int fd)
{
    for (fake_poll *p : s_polls)
        if (p->poll->fd == fd)
            return p->events;
    return -1;
}

extern "C" {

void cm_init(void) {}
void cm_run(void) {}
void cm_stop(void) {}

int cm_timer_start(struct cm_timer *timer, double seconds, cm_timer_cb cb)
{
    cm_timer_stop(timer);
    auto *t = new fake_timer{timer, seconds, s_now + seconds};
    timer->impl = t;
    timer->cb = cb;
    s_timers.push_back(t);
    return 0;
}

void cm_timer_stop(struct cm_timer *timer)
{
    auto *t = static_cast<fake_timer *>(timer->impl);
    if (!t)
        return;
    s_timers.remove(t);
    delete t;
    timer->impl = nullptr;
}

int cm_timeout(double seconds, cm_timeout_cb cb, void *data)
{
    s_timeouts.push_back({s_now + seconds, cb, data});
    return 0;
}

int cm_poll_start(struct cm_poll *poll, int fd, int events, cm_poll_cb cb)
{
    cm_poll_stop(poll);
    auto *p = new fake_poll{poll, events};
    poll->impl = p;
    poll->cb = cb;
    poll->fd = fd;
    s_polls.push_back(p);
    return 0;
}

void cm_poll_stop(struct cm_poll *poll)
{
    auto *p = static_cast<fake_poll *>(poll->impl);
    if (!p)
        return;
    s_polls.remove(p);
    delete p;
    poll->impl = nullptr;
}

// No stream I/O in the fake loop: the transport runs without receiving.
size_t sdslen(const sds s)
{
    return s ? strlen(s) : 0;
}

void sdsfree(sds s)
{
    free(s);
}

int cm_io_listen(struct cm_io *, const char *) { return -1; }
int cm_io_accept(struct cm_io *, struct cm_io *, cm_io_accept_cb, double) { return -1; }
int cm_io_read(struct cm_io *, size_t, cm_io_read_cb, double) { return -1; }
int cm_io_close(struct cm_io *io)
{
    io->status = CM_IO_CLOSED;
    return 0;
}

void cm_abort(const char *msg)
{
    fprintf(stderr, "%s\n", msg);
    abort();
}

}  // extern "C"
