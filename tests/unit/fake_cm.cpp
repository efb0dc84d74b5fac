#include "fake_cm.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>

namespace {

// A periodic timer, or a one-shot time-out when there is no timer record.
struct fake_entry {
    cm_timer *timer;
    double period;
    double due;
    cm_timeout_cb cb;
    void *data;
};

struct fake_poll {
    cm_poll *poll;
    int events;
};

double s_now;
std::list<fake_entry *> s_entries;
std::list<fake_poll *> s_polls;

// Stream I/O: the listener, its armed accept, and the open connections, the
// newest last, each with its armed read (or none).
struct fake_conn {
    cm_io *io;
    cm_io_read_cb read_cb;
};

bool s_io_on;
cm_io *s_listener;
cm_io *s_accept_client;
cm_io_accept_cb s_accept_cb;
std::list<fake_conn> s_conns;

fake_conn *newest_conn()
{
    return s_conns.empty() ? nullptr : &s_conns.back();
}

// A length-carrying string: the length sits in front of the bytes, which
// end with a NUL as well.
sds sds_new(const void *data, size_t size)
{
    auto *block = static_cast<char *>(malloc(sizeof(size_t) + size + 1));
    if (!block)
        abort();
    memcpy(block, &size, sizeof(size_t));
    memcpy(block + sizeof(size_t), data, size);
    block[sizeof(size_t) + size] = '\0';
    return block + sizeof(size_t);
}

void run_timeout(fake_entry *e)
{
    fake_entry to = *e;
    s_entries.remove(e);
    delete e;
    to.cb(to.data);
}

// Runs the earliest entry due at or before `until` (a time-out before a timer
// due at the same time); false when nothing is due.
bool fake_cm_run_one(double until)
{
    fake_entry *next = nullptr;
    for (fake_entry *e : s_entries)
        if (e->due <= until && (!next || e->due < next->due || (e->due == next->due && !e->timer && next->timer)))
            next = e;
    if (!next)
        return false;
    if (!next->timer) {
        run_timeout(next);
    } else {
        next->due += next->period;
        next->timer->cb(next->timer);  // may stop, and so free, the entry
    }
    return true;
}

int count_entries(bool timers)
{
    int n = 0;
    for (fake_entry *e : s_entries)
        n += (e->timer != nullptr) == timers;
    return n;
}

}  // namespace

void fake_cm_reset()
{
    while (fake_cm_io_hangup()) {
    }
    s_conns.clear();
    for (fake_entry *e : s_entries) {
        if (e->timer)
            e->timer->impl = nullptr;
        delete e;
    }
    for (fake_poll *p : s_polls) {
        p->poll->impl = nullptr;
        delete p;
    }
    s_entries.clear();
    s_polls.clear();
    s_now = 0;
}

void fake_cm_advance(int seconds)
{
    for (int i = 0; i < seconds; i++) {
        s_now += 1;
        while (fake_cm_run_one(s_now)) {
        }
    }
}

int fake_cm_timers() { return count_entries(true); }
int fake_cm_timeouts() { return count_entries(false); }

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

int fake_cm_last_poll_fd()
{
    return s_polls.empty() ? -1 : s_polls.back()->poll->fd;
}

int fake_cm_poll_events(int fd)
{
    for (fake_poll *p : s_polls)
        if (p->poll->fd == fd)
            return p->events;
    return -1;
}

void fake_cm_io_enable()
{
    s_io_on = true;
}

bool fake_cm_io_connect()
{
    if (!s_accept_cb)
        return false;
    cm_io *client = s_accept_client;
    cm_io_accept_cb cb = s_accept_cb;
    s_accept_client = nullptr;
    s_accept_cb = nullptr;
    client->status = CM_IO_CONNECTED;
    s_conns.push_back({client, nullptr});
    cb(s_listener, client, 0);
    return true;
}

bool fake_cm_io_deliver(const void *data, size_t size)
{
    fake_conn *c = newest_conn();
    if (!c || !c->read_cb)
        return false;
    cm_io_read_cb cb = c->read_cb;
    c->read_cb = nullptr;
    cb(c->io, (ssize_t)size, sds_new(data, size), 0);
    return true;
}

bool fake_cm_io_hangup()
{
    fake_conn *c = newest_conn();
    if (!c)
        return false;
    cm_io *io = c->io;
    cm_io_read_cb cb = c->read_cb;
    if (!cb) {
        s_conns.pop_back();  // nobody reads it: only forgotten
        return true;
    }
    c->read_cb = nullptr;
    cb(io, -1, nullptr, 1);  // the reader closes it
    s_conns.remove_if([io](const fake_conn &k) { return k.io == io; });
    return true;
}

int fake_cm_io_connections()
{
    return (int)s_conns.size();
}

extern "C" {

void cm_init(void) {}
void cm_run(void) {}
void cm_stop(void) {}

int cm_timer_start(struct cm_timer *timer, double seconds, cm_timer_cb cb)
{
    cm_timer_stop(timer);
    timer->impl = new fake_entry{timer, seconds, s_now + seconds, nullptr, nullptr};
    timer->cb = cb;
    s_entries.push_back(static_cast<fake_entry *>(timer->impl));
    return 0;
}

void cm_timer_stop(struct cm_timer *timer)
{
    auto *e = static_cast<fake_entry *>(timer->impl);
    s_entries.remove(e);
    delete e;
    timer->impl = nullptr;
}

int cm_timeout(double seconds, cm_timeout_cb cb, void *data)
{
    s_entries.push_back(new fake_entry{nullptr, 0, s_now + seconds, cb, data});
    return 0;
}

int cm_poll_start(struct cm_poll *poll, int fd, int events, cm_poll_cb cb)
{
    cm_poll_stop(poll);
    poll->impl = new fake_poll{poll, events};
    poll->cb = cb;
    poll->fd = fd;
    s_polls.push_back(static_cast<fake_poll *>(poll->impl));
    return 0;
}

void cm_poll_stop(struct cm_poll *poll)
{
    auto *p = static_cast<fake_poll *>(poll->impl);
    s_polls.remove(p);
    delete p;
    poll->impl = nullptr;
}

size_t sdslen(const sds s)
{
    size_t size = 0;
    if (s)
        memcpy(&size, s - sizeof(size_t), sizeof(size_t));
    return size;
}

void sdsfree(sds s)
{
    if (s)
        free(s - sizeof(size_t));
}

// One listener at a time: a second listen fails, as a taken address would.
int cm_io_listen(struct cm_io *server, const char *)
{
    if (!s_io_on || s_listener)
        return -1;
    s_listener = server;
    server->status = CM_IO_CONNECTED;
    return 0;
}

int cm_io_accept(struct cm_io *server, struct cm_io *client, cm_io_accept_cb cb, double)
{
    if (!s_io_on || server != s_listener || s_accept_cb)
        return -1;
    s_accept_client = client;
    s_accept_cb = cb;
    return 0;
}

int cm_io_read(struct cm_io *client, size_t, cm_io_read_cb cb, double)
{
    for (fake_conn &c : s_conns) {
        if (c.io == client && !c.read_cb) {
            c.read_cb = cb;
            return 0;
        }
    }
    return -1;
}

int cm_io_close(struct cm_io *io)
{
    s_conns.remove_if([io](const fake_conn &c) { return c.io == io; });
    io->status = CM_IO_CLOSED;
    return 0;
}

void cm_abort(const char *msg)
{
    fprintf(stderr, "%s\n", msg);
    abort();
}

}  // extern "C"
