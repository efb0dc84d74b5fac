#include <gtest/gtest.h>

#include "fake_uwb.h"
#include "steer.h"
#include "steer_ap.h"
#include "steer_ven.h"
#include "test_util.h"

namespace {

class SvenTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake_uwb_reset();
        g_self = sap_node_t{};
    }
};

std::vector<uint8_t> range(int from, int to, int step)
{
    std::vector<uint8_t> out;
    for (int c = from; c <= to; c += step)
        out.push_back((uint8_t)c);
    return out;
}

TEST_F(SvenTest, BandFollowsTheChannelListInTableOrder)
{
    std::vector<uint8_t> both = range(36, 64, 4);  // a radio allowed on both halves of 5 GHz
    for (uint8_t c : range(100, 165, 4))
        both.push_back(c);
    const struct {
        std::vector<uint8_t> channels;
        uint8_t channel;
        uint8_t band;  // 0xff: no row fits and the caller's value stays
    } cases[] = {
        {{36, 40, 44, 48}, 36, MAPS_5L}, {range(100, 140, 4), 100, MAPS_5H}, {range(1, 13, 1), 6, MAPS_2G},
        // Both halves: decided by the channel.
        {both, 149, MAPS_5H}, {both, 100, MAPS_5H}, {both, 64, MAPS_5L}, {both, 36, MAPS_5L}, {both, 65, 0},
        // A list wholly inside 1 to 14 is 2.4 GHz even on a 6 GHz radio.
        {range(1, 13, 4), 1, MAPS_2G}, {range(1, 233, 4), 37, MAPS_6G}, {{1, 240}, 1, 0xff},
    };
    for (const auto &c : cases) {
        g_fake_uwb.vaps["wl0"].channels = c.channels;
        uint8_t band = 0xff;
        EXPECT_EQ(sven_get_bandtype_by_chanlist("wl0", c.channel, &band), 0);
        EXPECT_EQ(band, c.band) << "channel " << (int)c.channel << " of " << c.channels.size();
    }
    uint8_t band = 0;
    EXPECT_EQ(sven_get_bandtype_by_chanlist("unknown", 1, &band), -1);
}

TEST_F(SvenTest, VapNeedsAConfigNameAndApModeAnd11vAnd11k)
{
    for (auto [name, mode] : {std::pair<const char *, const char *>{"wl0", "AP"}, {"wl1", "STA"}, {"wl2", ""}}) {
        g_fake_uwb.vaps[name].os_ifname = std::string("wlan") + name[2];
        g_fake_uwb.vaps[name].mode = mode;
    }
    char name[16];
    EXPECT_TRUE(sven_is_vap("wlan0", name));
    EXPECT_STREQ(name, "wl0");
    for (const char *other : {"eth0", "wlan1", "wlan2"})
        EXPECT_FALSE(sven_is_vap(other, name)) << other;

    // 802.11k is only needed while node steering is on.
    const struct {
        uwb_ap_cap_t caps;
        const char *conf, *fatal;
    } cases[] = {
        {{1, 0}, "", "fatal sven_prepare_vap:[0-9]+, wl0 : 11v is not enable, please enable it"},
        {{1, 0}, "bandherd.en_ap=0\n", "wl0 : 11v is not enable"},
        {{0, 1}, "", "fatal sven_prepare_vap:[0-9]+, wl0 : 11k is not enable, please enable it"},
        {{0, 1}, "bandherd.en_ap=0\n", nullptr},
        {{1, 1}, "", nullptr},
    };
    for (const auto &c : cases) {
        conf_file conf(c.conf);
        g_fake_uwb.vaps["wl0"].caps = c.caps;
        if (c.fatal)
            EXPECT_FATAL(sven_prepare_vap("wl0"), c.fatal) << c.conf;
        else
            sven_prepare_vap("wl0");
    }
    EXPECT_FATAL(sven_prepare_vap("missing"), "fatal sven_prepare_vap:[0-9]+, missing : get ap cap for missing failed");
}

TEST_F(SvenTest, NeighbourReportListsEveryOwnBssAndRemovalKeeps6GhzUnlessAsked)
{
    build_node(g_self);
    for (const char *name : {"wl0", "wl1", "wl2"})
        g_fake_uwb.vaps[name].os_ifname = std::string("k") + name;
    sven_add_nbr_info("wl0");
    EXPECT_EQ(fake_uwb_calls("add_rrm_neighbor"),
              (std::vector<std::string>{"add_rrm_neighbor wl0 kwl0 02:00:00:00:00:01 6 2 herd",
                                        "add_rrm_neighbor wl0 kwl1 02:00:00:00:00:02 36 5 herd",
                                        "add_rrm_neighbor wl0 kwl2 02:00:00:00:00:03 37 6 guest"}));
    sven_del_nbr_info("wl0", MAPS_2G);
    sven_del_nbr_info("wl2", MAPS_6G);
    EXPECT_EQ(fake_uwb_calls("del_rrm_neighbor"),
              (std::vector<std::string>{"del_rrm_neighbor wl0 02:00:00:00:00:01",
                                        "del_rrm_neighbor wl0 02:00:00:00:00:02",
                                        "del_rrm_neighbor wl2 02:00:00:00:00:01",
                                        "del_rrm_neighbor wl2 02:00:00:00:00:02",
                                        "del_rrm_neighbor wl2 02:00:00:00:00:03"}));

    // What cannot be described is skipped, and the rest goes on.
    g_fake_uwb.calls.clear();
    g_self.radios[2].work_band = MAPS_IG;  // no 802.11k band code for it
    g_fake_uwb.vaps.erase("wl2");           // no kernel name
    g_fake_uwb.rrm_result = -3;
    log_capture log;
    sven_add_nbr_info("wl0");
    EXPECT_EQ(fake_uwb_calls("add_rrm_neighbor").size(), 1u);
    EXPECT_EQ(log.plain(), "fatal sven_add_nbr_info, ifname(wl0) : add nbr_info(wl0) failed. ret = -3\n"
                           "fatal sven_add_nbr_info, ifname(wl1) : wrong bandtype!\n"
                           "fatal sven_add_nbr_info, wl2 get os ifname fail\n");
}

TEST_F(SvenTest, UplinkRateAndHopComeFromTheBackhaulAndSapInfo)
{
    g_fake_uwb.link_rate = 866;
    const struct {
        const char *uplink;  // the backhaul's BSSID
        int hopcont;         // in "SAP_INFO"; -1: left out
        int rate, hop;
    } cases[] = {
        {"02:aa:00:00:00:09", 2, 866, 2},
        {"02:aa:00:00:00:09", -1, 866, 0},
        {"00:00:00:00:00:00", 3, 0, 0},  // no uplink: the rate stays as the caller had it, and no hop without one
    };
    for (const auto &c : cases) {
        smsg_dict_t *root = smsg_new_root();
        smsg_put_string(root, "mac", "02:aa:00:00:00:01");
        if (c.hopcont >= 0)
            smsg_put_int(root, "hopcont", c.hopcont);
        sven_info_recv(g_self.node_id, g_self.node_id, "SAP_INFO", root);
        smsg_del_root(root);
        g_fake_uwb.bssid = c.uplink;
        uint8_t uplink[6] = {}, expected[6];
        int rate = 0, hop = 0;
        auto same = [](const uint8_t *, const uint8_t *) { return false; };
        EXPECT_EQ(sven_get_uplink_rate("bh0", g_self.node_id, same, uplink, &rate, &hop), 0);
        EXPECT_EQ(std::make_pair(rate, hop), std::make_pair(c.rate, c.hop)) << c.uplink << " " << c.hopcont;
        mac_scan(c.uplink, expected);
        EXPECT_TRUE(mac_equal(uplink, expected));
    }

    // Ended, the module forgets what SAP_INFO told it: no hop count.
    sven_exit();
    g_fake_uwb.bssid = "02:aa:00:00:00:09";
    uint8_t uplink[6] = {};
    int rate = 0, hop = -1;
    sven_get_uplink_rate("bh0", g_self.node_id, [](const uint8_t *, const uint8_t *) { return false; }, uplink, &rate,
                         &hop);
    EXPECT_EQ(std::make_pair(rate, hop), std::make_pair(866, 0));
}

TEST_F(SvenTest, BssLoadIsRaisedForATransitionRequestAndClearedAfterIt)
{
    sven_pre_btm("wl0");
    sven_post_btm("wl0");
    EXPECT_EQ(fake_uwb_calls("set_bssload"), (std::vector<std::string>{"set_bssload wl0 80", "set_bssload wl0 0"}));
}

}  // namespace
