#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "steer.h"
#include "steer_limit.h"
#include "test_util.h"

namespace {

const uint8_t X[6] = {2, 0, 0, 0, 0, 0x0a};
const uint8_t Y[6] = {2, 0, 0, 0, 0, 0x0b};

struct limits {
    slimit_conf_t *conf;
    slimit_info_t *info;
    limits(uint32_t interval, uint32_t burst) : conf(slimit_new_conf(interval, burst)), info(slimit_new_info()) {}
    ~limits()
    {
        slimit_del_info(info);
        slimit_del_conf(conf);
    }
    // Seconds until the prohibition just imposed ends.
    unsigned long prohibit(const uint8_t *bssid, bool is_long)
    {
        slimit_prohibit(conf, info, bssid, is_long);
        slimit_ph_bss_t *ph = bssid ? info->targets.first() : &info->ph_bss;
        return (is_long ? ph->ph_long.expire : ph->ph_short.expire) - g_time;
    }
    std::string dump()
    {
        char *text = nullptr;
        size_t size = 0;
        FILE *f = open_memstream(&text, &size);
        slimit_dump_conf(f, conf);
        slimit_dump_info(f, info);
        fclose(f);
        std::string out(text, size);
        free(text);
        return out;
    }
};

TEST(Slimit, ProhibitionsGrowPerTrackUpToTheirCap)
{
    conf_file conf("bandherd.ph_long_max=1000000\n");
    g_time = 1000;
    limits l(0, 0);
    const struct {
        const uint8_t *bssid;
        bool is_long;
        unsigned long seconds;
    } steps[] = {
        {X, false, 90}, {X, false, 2700}, {X, false, 81000}, {X, false, 86400}, {X, false, 86400},
        {X, true, 21600}, {X, true, 172800}, {X, true, 1000000},  // the long track has its own level
        {Y, false, 90},                                           // and so has every target
        {nullptr, false, 90}, {nullptr, true, 21600},
    };
    for (const auto &s : steps)
        EXPECT_EQ(l.prohibit(s.bssid, s.is_long), s.seconds) << (s.bssid ? int(s.bssid[5]) : 0) << " " << s.is_long;
    for (int i = 0; i < 40; i++)  // a power beyond any range is the cap
        l.prohibit(Y, true);
    EXPECT_EQ(l.prohibit(Y, true), 1000000u);
}

TEST(Slimit, AllowedFollowsWindowAndProhibitionsInOrder)
{
    g_time = 1000;
    limits l(60, 2);
    slimit_pass(l.conf, l.info);
    g_time = 1010;
    slimit_pass(l.conf, l.info);
    EXPECT_FALSE(slimit_allowed(l.conf, l.info, nullptr, true));
    EXPECT_TRUE(slimit_allowed(l.conf, l.info, nullptr, false));
    g_time = 1059;
    EXPECT_FALSE(slimit_allowed(l.conf, l.info, X, true));
    g_time = 1060;  // the window is fixed from its first attempt
    EXPECT_TRUE(slimit_allowed(l.conf, l.info, X, true));
    slimit_pass(l.conf, l.info);
    EXPECT_EQ(l.info->slot_times, 1u);
    EXPECT_EQ(l.info->slot_begin, 1060u);

    limits off(0, 2);  // no interval: no frequency limit
    for (int i = 0; i < 5; i++)
        slimit_pass(off.conf, off.info);
    EXPECT_TRUE(slimit_allowed(off.conf, off.info, nullptr, true));

    g_time = 1000;
    limits p(0, 0);
    EXPECT_FALSE(slimit_any_prohibited(p.info));
    p.prohibit(X, false);
    g_time = 1089;
    EXPECT_FALSE(slimit_allowed(p.conf, p.info, X, false));
    EXPECT_TRUE(slimit_allowed(p.conf, p.info, Y, false));
    EXPECT_TRUE(slimit_allowed(p.conf, p.info, nullptr, false));
    g_time = 1090;  // ends at the second of its expiry
    EXPECT_TRUE(slimit_allowed(p.conf, p.info, X, false));
    EXPECT_TRUE(slimit_any_prohibited(p.info));  // levels, not times

    p.prohibit(nullptr, false);
    p.prohibit(Y, false);
    EXPECT_FALSE(slimit_allowed(p.conf, p.info, nullptr, false));
    slimit_unprohibit(p.info, X);  // clears all targets and X, keeps Y
    EXPECT_TRUE(slimit_allowed(p.conf, p.info, nullptr, false));
    EXPECT_TRUE(slimit_allowed(p.conf, p.info, X, false));
    EXPECT_FALSE(slimit_allowed(p.conf, p.info, Y, false));
    EXPECT_TRUE(slimit_any_prohibited(p.info));
    slimit_unprohibit(p.info, Y);
    EXPECT_FALSE(slimit_any_prohibited(p.info));
}

TEST(Slimit, DumpShowsWindowAndLiveProhibitions)
{
    g_time = 1000;
    limits l(50, 4);
    slimit_pass(l.conf, l.info);
    l.prohibit(nullptr, true);
    l.prohibit(X, false);
    l.prohibit(Y, false);
    g_time = 1010;
    EXPECT_EQ(l.dump(),
              "    frequence: allow 4 times in 50 seconds\n"
              "    short_prohibit: 90*30^x, up to 86400 seconds\n"
              "    long_prohibit: 21600*8^x, up to 2592000 seconds\n"
              "    has triggered 1 times in 10 seconds\n"
              "    ALL_BSS          , prohibit_level(short/long): 0/1, left_prohibit_time(short/long): 0/21590 senconds\n"
              "    02:00:00:00:00:0b, prohibit_level(short/long): 1/0, left_prohibit_time(short/long): 80/0 senconds\n"
              "    02:00:00:00:00:0a, prohibit_level(short/long): 1/0, left_prohibit_time(short/long): 80/0 senconds\n");
    limits off(0, 0);
    off.prohibit(X, false);
    g_time = 2000;
    EXPECT_EQ(off.dump(),
              "    short_prohibit: 90*30^x, up to 86400 seconds\n"
              "    long_prohibit: 21600*8^x, up to 2592000 seconds\n"
              "    02:00:00:00:00:0a, prohibit_level(short/long): 1/0\n");
}

}  // namespace
