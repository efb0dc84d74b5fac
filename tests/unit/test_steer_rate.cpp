#include <gtest/gtest.h>

#include <climits>

#include "fake_cm.h"
#include "fake_platform.h"
#include "fake_uwb.h"
#include "maps.h"
#include "steer.h"
#include "steer_nei.h"
#include "steer_rate.h"
#include "test_util.h"

namespace {

TEST(SrateEquation, TextsParseIntoSegmentsOrAreRefusedWithTheirReason)
{
    std::string b32, p33;  // 32 boundaries 0..31 and 33 constants 0..32: the most there may be
    for (int i = 0; i < 32; i++)
        b32 += std::to_string(i) + (i < 31 ? "," : "");
    for (int i = 0; i <= 32; i++)
        p33 += ";" + std::to_string(i);
    const struct {
        std::string text;
        std::vector<std::pair<int, int>> values;  // x and y; none: the text is refused
        std::string log;
    } cases[] = {
        {"1;2;3", {{0, 2}, {1, 3}}, ""},  // below the boundary, from it upwards
        // Three segments, a polynomial in the middle; an empty number reads as 0.
        {"-10,10;5;,1,1;-7", {{-11, 5}, {-10, 90}, {9, 90}, {10, -7}}, ""},
        {"0;-2.5;2.5", {{-1, -3}, {1, 3}}, ""},  // half away from zero
        {b32 + p33, {{-1, 0}, {5, 6}, {31, 32}}, ""},
        // Wild configured equations still give a defined number: int's ends,
        // and 0 for what is no number (-inf + inf).
        {"0;1e308,1e308;2147483647.4", {{-50, INT_MIN}, {1, INT_MAX}}, ""},
        {"0;1e308,0,1e308;5", {{-50, INT_MAX}}, ""},
        {"0;1e308,1e308,1e308;5", {{-50, 0}}, ""},
        {"1;2", {}, "error srate_new_equation, polynome count mismatch, expect 2, provide 1\n"},
        {"123", {}, "error srate_new_equation, invalid format '123'\n"},
        {b32 + ",32;1", {},
         "error srate_get_float_array, too many numbers, support 32 at most\n"
         "error srate_new_equation, parse boundaries failed\n"},
        {"1;2;3;4", {}, "error srate_new_equation, too many polynomes\n"},
        {"1;2x;3", {},
         "error srate_get_float_array, not a number '2x'\nerror srate_new_equation, parse polynome failed, count -1\n"},
        {"1;1,2,3,4,5,6,7;3", {},
         "error srate_get_float_array, too many numbers, support 6 at most\n"
         "error srate_new_equation, parse polynome failed, count -1\n"},
    };
    for (const auto &c : cases) {
        log_capture log;
        std::string text = c.text;
        srate_equation_t *eq = srate_new_equation(text.data());
        EXPECT_EQ(eq != nullptr, !c.values.empty()) << c.text;
        for (auto [x, y] : c.values)
            EXPECT_EQ(eq ? srate_calculate(eq, x) : -999, y) << c.text << " at " << x;
        EXPECT_EQ(log.plain(), c.log) << c.text;
        srate_del_equation(eq);
    }
}

class SrateDefaults : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake_uwb_reset();
        setenv("BANDHERD_CONF", "/nonexistent", 1);
        srate_init();
    }
    void TearDown() override
    {
        srate_exit();
        unsetenv("BANDHERD_CONF");
    }
};

TEST_F(SrateDefaults, RssiOnAnotherBand)
{
    const struct {
        int8_t rssi;
        uint32_t from, to;
        int8_t want;  // 1: no estimate
    } cases[] = {
        {-75, MAPS_2G, MAPS_5L, -85}, {-60, MAPS_2G, MAPS_5H, -69}, {-80, MAPS_5L, MAPS_2G, -69},
        {-70, MAPS_5H, MAPS_2G, -60}, {-60, MAPS_5L, MAPS_6G, -64}, {-85, MAPS_5H, MAPS_6G, 1},
        {-60, MAPS_6G, MAPS_5L, -56}, {-80, MAPS_6G, MAPS_5H, -81}, {-60, MAPS_6G, MAPS_2G, -37},
        {-80, MAPS_6G, MAPS_2G, 16},  {-50, MAPS_2G, MAPS_6G, -70}, {-70, MAPS_2G, MAPS_6G, -85},
        {-60, MAPS_5L, MAPS_5H, -60}, {-60, MAPS_5H, MAPS_5H, -60}, {-60, MAPS_2G, MAPS_2G, 1},
        {-60, MAPS_6G, MAPS_6G, 1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(srate_get_another_rssi(c.rssi, c.from, c.to), c.want)
            << (int)c.rssi << " from " << c.from << " to " << c.to;
}

TEST_F(SrateDefaults, RateByCapabilitiesStreamsAndBand)
{
    const uint32_t HE = MAPS_CAP_HE | MAPS_CAP_VHT | MAPS_CAP_HT, VHT = MAPS_CAP_VHT | MAPS_CAP_HT;
    const struct {
        uint32_t caps;
        uint8_t streams;
        uint32_t band;
        int8_t rssi;
        int rate;  // the equation's value at the RSSI, 85 %
        int max;
    } cases[] = {
        {HE, 1, MAPS_5H, -50, 920, 601},       {HE, 2, MAPS_5L, -50, 920, 1202},
        {HE, 2, MAPS_2G, -40, 243, 286},       {HE, 1, MAPS_6G, -40, 2041, 1201},
        {HE, 1, MAPS_IG, -40, 0, 0},           {VHT, 1, MAPS_5H, -40, 368, 390},
        {VHT, 2, MAPS_5H, -40, 736, 780},      {VHT, 2, MAPS_5H, -60, 533, 780},
        {VHT, 2, MAPS_2G, -40, 122, 130},      {VHT, 2, MAPS_2G, -70, 96, 130},
        {MAPS_CAP_HT, 1, MAPS_2G, -40, 61, 65}, {MAPS_CAP_HT, 1, MAPS_6G, -40, 61, 65},
        {0, 2, MAPS_2G, -40, 45, 54},          {0, 1, MAPS_5L, -75, 10, 54},
    };
    for (const auto &c : cases) {
        ssta_status_t sta = {};
        sta.caps = c.caps;
        sta.streams = c.streams;
        sap_radio_t radio = {};
        radio.work_band = c.band;
        std::string row = std::to_string(c.caps) + " " + std::to_string(c.streams) + " " + std::to_string(c.band);
        EXPECT_EQ(srate_get_rate_rssi(&sta, &radio, c.rssi), c.rate) << row;
        EXPECT_EQ(srate_get_sta_max_rate(&sta, &radio), c.max) << row;
    }
    log_capture log;
    ssta_status_t sta = {};
    EXPECT_EQ(srate_get_rate_rssi(nullptr, &g_self.radios[1], -40), 0);
    EXPECT_EQ(srate_get_sta_max_rate(&sta, nullptr), 0);
    EXPECT_EQ(log.plain(),
              "error srate_get_rate_rssi, invalid argument\nerror srate_get_sta_max_rate, invalid argument\n");
}

TEST_F(SrateDefaults, SharedMediumRate)
{
    EXPECT_EQ(srate_share_media_rate(100, 100), 50);
    EXPECT_EQ(srate_share_media_rate(300, 600), 200);
    EXPECT_EQ(srate_share_media_rate(1, 2), 1);  // 0.67 rounds up
    EXPECT_EQ(srate_share_media_rate(INT_MAX, INT_MAX), 1073741824);
    log_capture log;
    EXPECT_EQ(srate_share_media_rate(0, 100), 0);
    EXPECT_EQ(srate_share_media_rate(100, -1), 0);
    EXPECT_EQ(log.plain(), "error srate_share_media_rate, invalid argument, arg1 0, arg2: 100\n"
                           "error srate_share_media_rate, invalid argument, arg1 100, arg2: -1\n");
}

// The station (load 20) on wl1, channel 36, of THREE_RADIOS; the target a
// neighbour's radio. Rows without a backhaul load run first, on a wired
// backhaul; the others over the 6 GHz radio (channel 37) as backhaul, with
// 10 % lost per hop.
struct e2e_case {
    const char *what;
    int bh_load;    // -1: wired
    int self_rate;  // this node's link_rate2mpp
    int drv_rate;   // the driver's link rate of the station
    uint8_t channel, load;
    int link_rate, rate2mpp;
    bool mpp;
    int hop;
    int want;
};

void end_to_end_rates()
{
    const e2e_case cases[] = {
        // front-haul (own + 100 - load) % of the link rate, back-haul the target's rate to the portal
        {"front-haul smaller", -1, 0, 0, 44, 20, 300, 400, true, 0, 240},
        {"own load freed on the serving channel", -1, 0, 0, 36, 20, 300, 400, true, 0, 300},
        {"back-haul smaller", -1, 0, 0, 36, 20, 300, 100, true, 0, 100},
        {"two hops off the portal", -1, 0, 0, 44, 20, 300, 400, false, 2, 194},  // 240, 216, 194
        // Whatever a heartbeat carries: exact in 64 bits, and any hop count ends at once.
        {"a neighbour claiming 30 Tbit/s", -1, 0, 0, 44, 0, INT_MAX, 30000000, true, 0, 30000000},
        {"both at int's end", -1, 0, 0, 44, 0, INT_MAX, INT_MAX, true, 0, INT_MAX},
        {"as many hops as an int holds", -1, 0, 0, 44, 20, 300, 400, false, INT_MAX, 0},
        {"unloaded backhaul: the link rate is not read", 0, 1000, 0, 44, 20, 300, 400, true, 0, 240},
        // 50 - 500 x 20 / 1000 = 40 % backhaul load left: 500 x 60 %
        {"station's own traffic off the backhaul", 50, 1000, 500, 44, 0, 400, 500, true, 0, 300},
        {"backhaul load not below 0", 50, 1000, 4000, 44, 0, 600, 500, true, 0, 500},
        {"backhaul load not above 99", 100, 1000, 5, 44, 0, 600, 500, true, 0, 5},
        {"no own rate to the portal: nothing taken off", 50, 0, 0, 44, 0, 400, 500, true, 0, 250},
        {"invalid link rate", 50, 1000, 0, 44, 0, 400, 500, true, 0, 0},
        {"backhaul channel shares the medium", 50, 1000, 500, 37, 20, 300, 500, true, 0, 133},  // 300 x 240 / 540
        {"portal: no hop loss", 50, 1000, 500, 44, 0, 400, 500, true, 2, 300},
        {"no hop: no loss", 50, 1000, 500, 44, 0, 400, 500, false, 0, 300},
        {"three hops: 10 % each", 50, 1000, 500, 44, 0, 400, 500, false, 3, 218},  // 300, 270, 243, 218
    };
    conf_file conf("bandherd.rate_rd_ratio=10\nbandherd.backhaul=bh0\n");
    build_node(g_self);
    srate_init();
    ssta_status_t sta = {};
    sta.bss_index = 2;
    sta.load = 20;
    sap_node_t target;
    build_node(target, {{{MAPS_5L, 36}, {MAPS_6G, 37}, {MAPS_5L, 44}}, {}, {}});
    bool wired = true;
    for (const e2e_case &c : cases) {
        if (wired && c.bh_load >= 0) {
            g_fake_uwb.vaps["bh0"].channel = 37;
            snei_init();
            ASSERT_EQ(snei_get_backhaul_radio(), &g_self.radios[3]);
            wired = false;
        }
        ASSERT_EQ(wired, c.bh_load < 0) << "wired rows come first";
        g_self.radios[3].load = (uint8_t)std::max(c.bh_load, 0);
        g_self.link_rate2mpp = c.self_rate;
        g_fake_uwb.link_rate = c.drv_rate;
        sap_radio_t *radio = &target.radios[c.channel == 36 ? 1 : c.channel == 37 ? 2 : 3];
        radio->load = c.load;
        target.link_rate2mpp = c.rate2mpp;
        target.is_mpp = c.mpp;
        target.hop = c.hop;
        EXPECT_EQ(srate_evaluate_sta2mpp(&sta, &target, radio, c.link_rate), c.want) << c.what;
    }
    log_capture log;
    sta.bss_index = 4;
    EXPECT_EQ(srate_evaluate_sta2mpp(&sta, &target, &target.radios[1], 300), 0);
    EXPECT_EQ(log.plain(),
              "error sap_get_bss, NULL BSS4\nerror srate_evaluate_sta2mpp, NULL bss of 00:00:00:00:00:00\n");

    // A reduction of 100 % or more per hop leaves nothing.
    srate_exit();
    conf_file ratio("bandherd.rate_rd_ratio=300\n");
    srate_init();
    target.hop = 1;
    EXPECT_EQ(srate_evaluate_sta2mpp(&sta, &target, &target.radios[3], 300), 0);
    snei_exit();
    srate_exit();
}

TEST(SrateEvaluate, EndToEndRateToThePortal)
{
    fake_cm_reset();
    fake_uwb_reset();
    fake_platform_reset();
    end_to_end_rates();
    fake_cm_reset();
}

TEST(SrateInit, BadFactorOrEquationStopsStartUp)
{
    const struct {
        const char *conf;
        const char *fatal;
    } cases[] = {
        {"bandherd.rate_factor=0\n", "fatal srate_init:[0-9]+, invalid rate factor '0'"},
        {"bandherd.rate_factor=101\n", "fatal srate_init:[0-9]+, invalid rate factor '101'"},
        {"bandherd.rate_ag=1;2\n", "fatal srate_init:[0-9]+, parse bandherd.rate_ag failed"},
        {"bandherd.rssi.6to2=x;1;2\n", "fatal srate_init:[0-9]+, parse bandherd.rssi.6to2 failed"},
    };
    for (const auto &c : cases) {
        conf_file file(c.conf);
        EXPECT_FATAL(srate_init(), c.fatal) << c.conf;
    }
    conf_file file("bandherd.rate_factor=100\nbandherd.rate_ag=1;7;9\n");
    srate_init();
    ssta_status_t sta = {};
    sap_radio_t r2 = {};
    r2.work_band = MAPS_2G;
    EXPECT_EQ(srate_get_rate_rssi(&sta, &r2, -40), 7);  // factor 100: the equation as it is
    EXPECT_EQ(srate_get_rate_rssi(&sta, &r2, 5), 9);
    srate_exit();
}

}  // namespace
