// The libuv event library with short real periods: timers repeat until
// stopped, time-outs run once, polls report readiness.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "cm.h"
#include "test_util.h"

namespace {

struct counter {
    cm_timer timer{};
    int fires = 0;
    int stop_at = 0;
    std::string *trace = nullptr;
};

void count_fire(cm_timer *t)
{
    auto *c = reinterpret_cast<counter *>(t);
    c->fires++;
    if (c->trace)
        *c->trace += "T";
    if (c->fires == c->stop_at) {
        cm_timer_stop(t);
        cm_timer_stop(t);  // stopping a stopped timer is harmless
    }
}

void stop_loop(void *) { cm_stop(); }

void note(void *data) { *static_cast<std::string *>(data) += "0"; }

TEST(CmUv, TimerRepeatsUntilStoppedInsideItsCallback)
{
    cm_init();
    counter c;
    c.stop_at = 3;
    ASSERT_EQ(cm_timer_start(&c.timer, 0.005, count_fire), 0);
    cm_timeout(0.1, stop_loop, nullptr);
    cm_run();
    EXPECT_EQ(c.fires, 3);
}

TEST(CmUv, TimeoutZeroRunsOnTheNextPassBeforeTimers)
{
    cm_init();
    std::string trace;
    counter c;
    c.stop_at = 1;
    c.trace = &trace;
    // Long enough for the loop's first pass to come well before it, however
    // busy the machine; the stop falls due with it and runs after it.
    cm_timer_start(&c.timer, 0.5, count_fire);
    cm_timeout(0, note, &trace);
    EXPECT_EQ(trace, "");
    cm_timeout(0.5, stop_loop, nullptr);
    cm_run();
    EXPECT_EQ(trace, "0T");
}

// A time-out of 0 made inside a timer callback waits for the loop's next
// poll: a descriptor that became readable meanwhile is served first.
struct soon_case {
    cm_timer timer{};
    cm_poll poll{};
    int fds[2] = {-1, -1};
    std::string trace;
};

void soon_readable(cm_poll *p, int, int)
{
    auto *c = reinterpret_cast<soon_case *>(reinterpret_cast<char *>(p) - offsetof(soon_case, poll));
    c->trace += "P";
    cm_poll_stop(p);
}

void soon_note(void *data)
{
    auto *c = static_cast<soon_case *>(data);
    c->trace += "0";
    cm_stop();
}

void soon_from_timer(cm_timer *t)
{
    auto *c = reinterpret_cast<soon_case *>(t);
    cm_timer_stop(t);
    cm_poll_start(&c->poll, c->fds[0], CM_POLL_READ, soon_readable);
    ASSERT_EQ(write(c->fds[1], "x", 1), 1);
    cm_timeout(0, soon_note, c);
}

TEST(CmUv, TimeoutZeroFromATimerRunsAfterReadableDescriptors)
{
    cm_init();
    soon_case c;
    ASSERT_EQ(pipe(c.fds), 0);
    cm_timer_start(&c.timer, 0.001, soon_from_timer);
    cm_run();
    EXPECT_EQ(c.trace, "P0");
    close(c.fds[0]);
    close(c.fds[1]);
}

// Timers and time-outs count from the call, not from the loop pass's start.
double now_s()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

struct since {
    cm_timer timer{};
    double start = 0;
    double timer_after = -1;
    double timeout_after = -1;
};

void since_timer(cm_timer *t)
{
    auto *s = reinterpret_cast<since *>(t);
    s->timer_after = now_s() - s->start;
    cm_timer_stop(t);
    if (s->timeout_after >= 0)
        cm_stop();
}

void since_timeout(void *data)
{
    auto *s = static_cast<since *>(data);
    s->timeout_after = now_s() - s->start;
    if (s->timer_after >= 0)
        cm_stop();
}

void start_late(void *data)
{
    auto *s = static_cast<since *>(data);
    usleep(400000);  // a slow callback: the loop's cached time is now 0.4 s old
    s->start = now_s();
    cm_timer_start(&s->timer, 0.3, since_timer);
    cm_timeout(0.3, since_timeout, s);
}

TEST(CmUv, TimersCountFromTheCallEvenLateInALoopPass)
{
    cm_init();
    since s;
    cm_timeout(0, start_late, &s);
    cm_run();
    EXPECT_GE(s.timer_after, 0.29);
    EXPECT_GE(s.timeout_after, 0.29);
}

TEST(CmUv, StoppedRecordCanBeFreedAtOnce)
{
    cm_init();
    auto *c = new counter;
    cm_timer_start(&c->timer, 0.001, count_fire);
    cm_timer_stop(&c->timer);
    delete c;  // the library must not touch it again
    cm_timer tm{};
    cm_timer_stop(&tm);  // never started
    cm_timeout(0.02, stop_loop, nullptr);
    cm_run();
    SUCCEED();
}

TEST(CmUv, AbortReportsAndAborts)
{
    EXPECT_DEATH(cm_abort("oom at here"), "oom at here");
}

// Runs the loop until `done` holds or `seconds` pass; whether it held.
bool run_until(const std::function<bool()> &done, double seconds = 5)
{
    struct waiter {
        cm_timer timer{};
        const std::function<bool()> *done;
        double deadline;
    } w{{}, &done, now_s() + seconds};
    cm_timer_start(&w.timer, 0.01, [](cm_timer *t) {
        auto *w = reinterpret_cast<waiter *>(t);
        if ((*w->done)() || now_s() > w->deadline) {
            cm_timer_stop(t);
            cm_stop();
        }
    });
    cm_run();
    return done();
}

// A listening socket's users as the mesh transport has them: every accepted
// connection is read until it ends, then closed and freed.
struct listener {
    cm_io server{-1, CM_IO_CLOSED, nullptr, nullptr, nullptr, nullptr, 0};
    int accepted = 0;
    int ended = 0;
    std::string got;
} *s_listener;

cm_io *new_client()
{
    return new cm_io{-1, CM_IO_CLOSED, nullptr, nullptr, nullptr, nullptr, 0};
}

void listener_read(cm_io *cli, ssize_t, sds data, int err)
{
    if (err) {
        s_listener->ended++;
        cm_io_close(cli);
        delete cli;
        return;
    }
    s_listener->got.append(data, sdslen(data));
    sdsfree(data);
    cm_io_read(cli, 0, listener_read, -1.0);
}

void listener_accept(cm_io *server, cm_io *cli, int err)
{
    if (err == 0) {
        s_listener->accepted++;
        cm_io_read(cli, 0, listener_read, -1.0);
        cli = new_client();
    }
    cm_io_accept(server, cli, listener_accept, -1.0);
}

// Whether the other end closed `fd`, without waiting.
bool peer_closed(int fd)
{
    char c;
    return recv(fd, &c, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
}

// No peer can hold more connections than the limit, nor keep one that stays quiet.
TEST(CmIo, ConnectionsAreBoundedAndIdleOnesClosed)
{
    cm_init();
    temp_dir dir;
    std::string path = dir.file("s");
    listener l;
    s_listener = &l;
    ASSERT_EQ(cm_io_listen(&l.server, ("unix://" + path).c_str()), 0);
    ASSERT_EQ(cm_io_limit(&l.server, 3, 60), 0);
    cm_io_accept(&l.server, new_client(), listener_accept, -1.0);

    std::vector<int> peers;
    for (int i = 0; i < 5; i++) {
        int fd = unix_connect(path.c_str());
        ASSERT_GE(fd, 0);
        peers.push_back(fd);
        ASSERT_TRUE(run_until([&] { return l.accepted == i + 1; }));
    }
    // The two that waited longest made room for the last two.
    EXPECT_EQ(l.ended, 2);
    EXPECT_TRUE(peer_closed(peers[0]));
    EXPECT_TRUE(peer_closed(peers[1]));
    ASSERT_EQ(write(peers[4], "last", 4), 4);
    EXPECT_TRUE(run_until([&] { return l.got == "last"; }));
    ASSERT_EQ(cm_io_limit(&l.server, 3, 0.3), 0);

    // Quiet ones go after the idle time, even while other peers keep coming
    // and going (each check lets one more come and go).
    EXPECT_TRUE(run_until([&] {
        close(unix_connect(path.c_str()));
        return peer_closed(peers[2]) && peer_closed(peers[3]) && peer_closed(peers[4]);
    }));
    EXPECT_TRUE(run_until([&] { return l.ended == l.accepted; }));
    for (int fd : peers)
        close(fd);
    cm_io *waiting = l.server.accept_client;
    cm_io_close(&l.server);
    delete waiting;
    EXPECT_TRUE(run_until([] { return true; }));  // lets libuv release the handles
    s_listener = nullptr;
}

}  // namespace
