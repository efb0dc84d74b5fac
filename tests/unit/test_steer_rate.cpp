#include <gtest/gtest.h>

#include <climits>
#include <regex>

#include "fake_uwb.h"
#include "maps.h"
#include "steer.h"
#include "steer_rate.h"
#include "test_util.h"

namespace {

srate_equation_t *parse(std::string text)
{
    return srate_new_equation(text.data());
}

TEST(SrateEquation, PiecesAndBoundaries)
{
    srate_equation_t *eq = parse("1;2;3");
    ASSERT_NE(eq, nullptr);
    EXPECT_EQ(eq->segment_count, 2);
    EXPECT_EQ(srate_calculate(eq, 0), 2);  // below the boundary
    EXPECT_EQ(srate_calculate(eq, 1), 3);  // from it upwards
    srate_del_equation(eq);

    // Three segments, a polynomial in the middle; an empty number reads as 0.
    eq = parse("-10,10;5;,1,1;-7");
    ASSERT_NE(eq, nullptr);
    EXPECT_EQ(srate_calculate(eq, -11), 5);
    EXPECT_EQ(srate_calculate(eq, -10), 90);  // 0 - 10 + 100
    EXPECT_EQ(srate_calculate(eq, 9), 90);
    EXPECT_EQ(srate_calculate(eq, 10), -7);
    srate_del_equation(eq);

    // Half away from zero.
    eq = parse("0;-2.5;2.5");
    EXPECT_EQ(srate_calculate(eq, -1), -3);
    EXPECT_EQ(srate_calculate(eq, 1), 3);
    srate_del_equation(eq);
}

TEST(SrateEquation, MalformedTextsAreRefusedWithTheirReason)
{
    log_capture log;
    EXPECT_EQ(parse("1;2"), nullptr);
    EXPECT_EQ(parse("123"), nullptr);
    std::string many;
    for (int i = 0; i < 33; i++)
        many += std::to_string(i) + (i < 32 ? "," : "");
    EXPECT_EQ(parse(many + ";1"), nullptr);
    EXPECT_EQ(parse("1;2;3;4"), nullptr);
    EXPECT_EQ(parse("1;2x;3"), nullptr);
    EXPECT_EQ(parse("1;1,2,3,4,5,6,7;3"), nullptr);
    std::regex lines("error srate_new_equation:[0-9]+, polynome count mismatch, expect 2, provide 1\n"
                     "error srate_new_equation:[0-9]+, invalid format '123'\n"
                     "error srate_get_float_array:[0-9]+, too many numbers, support 32 at most\n"
                     "error srate_new_equation:[0-9]+, parse boundaries failed\n"
                     "error srate_new_equation:[0-9]+, too many polynomes\n"
                     "error srate_get_float_array:[0-9]+, not a number '2x'\n"
                     "error srate_new_equation:[0-9]+, parse polynome failed, count -1\n"
                     "error srate_get_float_array:[0-9]+, too many numbers, support 6 at most\n"
                     "error srate_new_equation:[0-9]+, parse polynome failed, count -1\n");
    EXPECT_TRUE(std::regex_match(log.text(), lines)) << log.text();

    // 32 boundaries and 33 constants are fine.
    std::string polys;
    for (int i = 0; i <= 32; i++)
        polys += ";" + std::to_string(i);
    srate_equation_t *eq = parse(many.substr(0, many.rfind(',')) + polys);
    ASSERT_NE(eq, nullptr);
    EXPECT_EQ(srate_calculate(eq, 31), 32);
    EXPECT_EQ(srate_calculate(eq, 5), 6);
    srate_del_equation(eq);
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
    EXPECT_EQ(srate_get_another_rssi(-75, MAPS_2G, MAPS_5L), -85);
    EXPECT_EQ(srate_get_another_rssi(-60, MAPS_2G, MAPS_5H), -69);  // 6.8937 + 1.4988x + 0.004x^2 = -68.63
    EXPECT_EQ(srate_get_another_rssi(-60, MAPS_5L, MAPS_5H), -60);
    EXPECT_EQ(srate_get_another_rssi(-60, MAPS_2G, MAPS_2G), 1);
    EXPECT_EQ(srate_get_another_rssi(-60, MAPS_6G, MAPS_6G), 1);
    EXPECT_EQ(srate_get_another_rssi(-85, MAPS_5L, MAPS_6G), 1);  // the flat end of 5to6
    EXPECT_EQ(srate_get_another_rssi(-80, MAPS_5L, MAPS_2G), -69);
}

TEST_F(SrateDefaults, RateByCapabilitiesStreamsAndBand)
{
    ssta_status_t sta = {};
    sap_radio_t r5 = {}, r2 = {}, r6 = {};
    r5.work_band = MAPS_5H;
    r2.work_band = MAPS_2G;
    r6.work_band = MAPS_6G;

    sta.caps = MAPS_CAP_HE | MAPS_CAP_VHT | MAPS_CAP_HT;
    sta.streams = 1;
    EXPECT_EQ(srate_get_rate_rssi(&sta, &r5, -50), 920);  // 1083 x 85 / 100
    EXPECT_EQ(srate_get_rate_rssi(&sta, &r2, -40), 286 * 85 / 100);
    EXPECT_EQ(srate_get_rate_rssi(&sta, &r6, -40), 2402 * 85 / 100);
    EXPECT_EQ(srate_get_sta_max_rate(&sta, &r6), 1201);

    sta.caps = MAPS_CAP_VHT | MAPS_CAP_HT;
    EXPECT_EQ(srate_get_rate_rssi(&sta, &r5, -40), 433 * 85 / 100);
    sta.streams = 2;
    EXPECT_EQ(srate_get_rate_rssi(&sta, &r5, -40), 866 * 85 / 100);
    EXPECT_EQ(srate_get_rate_rssi(&sta, &r5, -90), 32 * 85 / 100);
    EXPECT_EQ(srate_get_sta_max_rate(&sta, &r5), 780);
    // VHT on 2.4 GHz is HT.
    EXPECT_EQ(srate_get_rate_rssi(&sta, &r2, -40), 144 * 85 / 100);
    EXPECT_EQ(srate_get_sta_max_rate(&sta, &r2), 130);

    sta.caps = 0;
    EXPECT_EQ(srate_get_rate_rssi(&sta, &r2, -40), 54 * 85 / 100);
    EXPECT_EQ(srate_get_sta_max_rate(&sta, &r2), 54);

    log_capture log;
    EXPECT_EQ(srate_get_rate_rssi(nullptr, &r2, -40), 0);
    EXPECT_EQ(srate_get_sta_max_rate(&sta, nullptr), 0);
    EXPECT_EQ(log.text().size() > 0, true);
}

TEST_F(SrateDefaults, SharedMediumHalvesEqualRates)
{
    EXPECT_EQ(srate_share_media_rate(100, 100), 50);
    EXPECT_EQ(srate_share_media_rate(300, 600), 200);
    EXPECT_EQ(srate_share_media_rate(1, 2), 1);  // 0.67 rounds up
    log_capture log;
    EXPECT_EQ(srate_share_media_rate(0, 100), 0);
    EXPECT_TRUE(std::regex_match(log.text(),
                                 std::regex("error srate_share_media_rate:[0-9]+, invalid argument, arg1 0, arg2: 100\n")))
        << log.text();
}

TEST_F(SrateDefaults, EndToEndRateToThePortal)
{
    // Serving BSS 1 on channel 36; target radio on another channel, 20% loaded.
    g_self = sap_node_t{};
    sap_radio_t serving = {};
    serving.channel = 36;
    serving.work_band = MAPS_5L;
    sap_bss_t bss = {};
    bss.bss_index = 1;
    bss.radio = &serving;
    g_self.managed_bss[1] = &bss;
    ssta_status_t sta = {};
    sta.bss_index = 1;
    sta.load = 30;

    sap_node_t target = {};
    target.link_rate2mpp = 400;
    target.is_mpp = true;
    sap_radio_t radio = {};
    radio.channel = 149;
    radio.load = 20;
    // Front-haul 80% of 300, back-haul 400: the smaller.
    EXPECT_EQ(srate_evaluate_sta2mpp(&sta, &target, &radio, 300), 240);
    // On the serving channel the station's own load is freed.
    radio.channel = 36;
    EXPECT_EQ(srate_evaluate_sta2mpp(&sta, &target, &radio, 300), 330);
    target.link_rate2mpp = 100;
    EXPECT_EQ(srate_evaluate_sta2mpp(&sta, &target, &radio, 300), 100);

    log_capture log;
    sta.bss_index = 2;
    EXPECT_EQ(srate_evaluate_sta2mpp(&sta, &target, &radio, 300), 0);
    EXPECT_NE(log.text().find("NULL bss of 00:00:00:00:00:00"), std::string::npos);
    g_self = sap_node_t{};
}

TEST(SrateInit, BadFactorOrEquationStopsStartUp)
{
    for (const char *conf : {"bandherd.rate_factor=0\n", "bandherd.rate_factor=101\n", "bandherd.rate_ag=1;2\n"}) {
        conf_file file(conf);
        EXPECT_DEATH(srate_init(), "") << conf;
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

namespace {

// Whatever a heartbeat carries or an equation is configured to, every
// estimate is a defined number, at once.
TEST_F(SrateDefaults, ExtremeValuesGiveDefinedResults)
{
    struct {
        const char *text;
        int x;
        int expect;
    } wild[] = {
        {"0;1e308,1e308;5", -50, INT_MIN},        // far below int
        {"0;1e308,0,1e308;5", -50, INT_MAX},      // far above it
        {"0;1e308,1e308,1e308;5", -50, 0},        // -inf + inf: no number
        {"0;2147483647.4;5", -1, INT_MAX},
    };
    for (const auto &w : wild) {
        srate_equation_t *eq = parse(w.text);
        ASSERT_NE(eq, nullptr) << w.text;
        EXPECT_EQ(srate_calculate(eq, w.x), w.expect) << w.text;
        srate_del_equation(eq);
    }
    EXPECT_EQ(srate_share_media_rate(INT_MAX, INT_MAX), 1073741824);

    g_self = sap_node_t{};
    sap_radio_t serving = {};
    serving.channel = 36;
    serving.work_band = MAPS_5L;
    sap_bss_t bss = {};
    bss.bss_index = 1;
    bss.radio = &serving;
    g_self.managed_bss[1] = &bss;
    ssta_status_t sta = {};
    sta.bss_index = 1;
    sap_radio_t radio = {};
    radio.channel = 149;
    sap_node_t target = {};
    target.link_rate2mpp = 30000000;
    target.is_mpp = true;
    // The back-haul of a neighbour that claims 30 Tbit/s is just that.
    EXPECT_EQ(srate_evaluate_sta2mpp(&sta, &target, &radio, INT_MAX), 30000000);
    target.link_rate2mpp = INT_MAX;
    EXPECT_EQ(srate_evaluate_sta2mpp(&sta, &target, &radio, INT_MAX), INT_MAX);
    // Any hop count ends at once; a reduction of 100 % or more leaves nothing.
    target.is_mpp = false;
    target.hop = INT_MAX;
    for (const char *ratio : {"10", "300"}) {
        srate_exit();
        conf_file file(std::string("bandherd.rate_rd_ratio=") + ratio + "\n");
        srate_init();
        EXPECT_EQ(srate_evaluate_sta2mpp(&sta, &target, &radio, 500), 0) << ratio;
    }
    target.hop = 1;
    EXPECT_EQ(srate_evaluate_sta2mpp(&sta, &target, &radio, 500), 0);
    g_self = sap_node_t{};
}

}  // namespace
