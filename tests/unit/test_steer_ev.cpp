#include <gtest/gtest.h>

#include <ctime>
#include <vector>

#include "fake_cm.h"
#include "steer.h"
#include "steer_ev.h"

namespace {

class SevTest : public ::testing::Test {
protected:
    void SetUp() override { fake_cm_reset(); }
    void TearDown() override
    {
        sev_exit();
        fake_cm_reset();
    }
};

struct fires {
    std::vector<double> at;
    sev_timer_t *timer = nullptr;
    size_t stop_after = 0;  // delete the timer inside its callback on this call
};

void record_fire(void *data)
{
    auto *f = static_cast<fires *>(data);
    f->at.push_back(fake_cm_now());
    if (f->stop_after && f->at.size() == f->stop_after)
        sev_del_timer(f->timer);
}

TEST_F(SevTest, PeriodicTimerFiresEveryPeriodUntilDeleted)
{
    fires f;
    f.timer = sev_new_timer(5, record_fire, &f);
    fake_cm_advance(4);
    EXPECT_TRUE(f.at.empty());
    fake_cm_advance(11);
    EXPECT_EQ(f.at, (std::vector<double>{5, 10, 15}));
    sev_del_timer(f.timer);
    fake_cm_advance(20);
    EXPECT_EQ(f.at.size(), 3u);
    EXPECT_EQ(fake_cm_timers(), 0);
}

TEST_F(SevTest, TimerDeletedInsideItsOwnCallbackStops)
{
    fires f;
    f.stop_after = 2;
    f.timer = sev_new_timer(3, record_fire, &f);
    fake_cm_advance(30);
    EXPECT_EQ(f.at, (std::vector<double>{3, 6}));
    EXPECT_EQ(fake_cm_timers(), 0);
}

TEST_F(SevTest, TimeoutZeroRunsOnTheNextPassOnce)
{
    fires f;
    sev_timeout(0, record_fire, &f);
    EXPECT_TRUE(f.at.empty());  // not inside the call
    fake_cm_pass();
    EXPECT_EQ(f.at, (std::vector<double>{0}));
    fake_cm_pass();
    fake_cm_advance(5);
    EXPECT_EQ(f.at.size(), 1u);
}

TEST_F(SevTest, TimeoutRunsOnceAfterItsDelay)
{
    fires f;
    sev_timeout(5, record_fire, &f);
    fake_cm_advance(4);
    EXPECT_TRUE(f.at.empty());
    fake_cm_advance(10);
    EXPECT_EQ(f.at, (std::vector<double>{5}));
    EXPECT_EQ(fake_cm_timeouts(), 0);
}

TEST_F(SevTest, InitStartsTheOneSecondClockAndExitStopsIt)
{
    sev_exit();  // safe before init
    sev_init();
    EXPECT_EQ(fake_cm_timers(), 1);
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    EXPECT_LE((unsigned long)ts.tv_sec - g_time, 1ul);

    g_time = 0;
    fake_cm_advance(1);  // the updater runs every second
    EXPECT_GE(g_time, (unsigned long)ts.tv_sec);

    sev_exit();
    EXPECT_EQ(fake_cm_timers(), 0);
    sev_exit();  // twice is harmless
}

struct poll_seen {
    int fd = -1, events = -1, calls = 0;
};

void record_poll(int fd, int events, void *data)
{
    auto *p = static_cast<poll_seen *>(data);
    p->fd = fd;
    p->events = events;
    p->calls++;
}

TEST_F(SevTest, PollTranslatesItsEventsToTheLibraryBitsOneWay)
{
    poll_seen seen;
    sev_poll_t *r = sev_new_poll(7, SEV_READ, record_poll, &seen);
    sev_poll_t *rw = sev_new_poll(8, SEV_READ | SEV_WRITE, record_poll, &seen);
    sev_poll_t *w = sev_new_poll(9, SEV_WRITE, record_poll, &seen);
    EXPECT_EQ(fake_cm_poll_events(7), CM_POLL_READ);
    EXPECT_EQ(fake_cm_poll_events(8), CM_POLL_READ | CM_POLL_WRITE);
    EXPECT_EQ(fake_cm_poll_events(9), CM_POLL_WRITE);

    // The callback gets the library's bits as they come.
    ASSERT_TRUE(fake_cm_fire_poll(8, CM_POLL_READ));
    EXPECT_EQ(seen.fd, 8);
    EXPECT_EQ(seen.events, 1);

    sev_del_poll(r);
    sev_del_poll(rw);
    sev_del_poll(w);
    EXPECT_EQ(fake_cm_polls(), 0);
    EXPECT_FALSE(fake_cm_fire_poll(8, CM_POLL_READ));
    EXPECT_EQ(seen.calls, 1);
}

}  // namespace
