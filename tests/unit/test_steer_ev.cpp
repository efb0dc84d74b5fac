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

TEST_F(SevTest, TimersRepeatUntilDeletedAndTimeoutsRunOnce)
{
    fires every5, twice, next_pass, after5;
    every5.timer = sev_new_timer(5, record_fire, &every5);
    twice.stop_after = 2;
    twice.timer = sev_new_timer(3, record_fire, &twice);
    sev_timeout(0, record_fire, &next_pass);
    sev_timeout(5, record_fire, &after5);
    EXPECT_TRUE(next_pass.at.empty());  // not inside the call
    fake_cm_pass();
    EXPECT_EQ(next_pass.at, (std::vector<double>{0}));
    fake_cm_advance(4);
    EXPECT_TRUE(every5.at.empty());
    EXPECT_TRUE(after5.at.empty());
    fake_cm_advance(11);
    EXPECT_EQ(every5.at, (std::vector<double>{5, 10, 15}));
    EXPECT_EQ(twice.at, (std::vector<double>{3, 6}));  // deleted inside its own callback
    EXPECT_EQ(after5.at, (std::vector<double>{5}));
    EXPECT_EQ(next_pass.at.size(), 1u);
    sev_del_timer(every5.timer);
    fake_cm_advance(20);
    EXPECT_EQ(every5.at.size(), 3u);
    EXPECT_EQ(fake_cm_timers() + fake_cm_timeouts(), 0);
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

}  // namespace
