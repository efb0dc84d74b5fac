#include <gtest/gtest.h>

#include <regex>

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
        memset(&g_self, 0, sizeof(g_self));
    }
};

uint8_t band_of(std::vector<uint8_t> channels, uint8_t current)
{
    fake_uwb_vap vap;
    vap.channels = std::move(channels);
    g_fake_uwb.vaps["wl0"] = vap;
    uint8_t band = 0xff;
    EXPECT_EQ(sven_get_bandtype_by_chanlist("wl0", current, &band), 0);
    return band;
}

std::vector<uint8_t> range(int from, int to, int step)
{
    std::vector<uint8_t> out;
    for (int c = from; c <= to; c += step)
        out.push_back((uint8_t)c);
    return out;
}

TEST_F(SvenTest, BandFollowsTheChannelListInTableOrder)
{
    EXPECT_EQ(band_of({36, 40, 44, 48}, 36), MAPS_5L);
    EXPECT_EQ(band_of(range(100, 140, 4), 100), MAPS_5H);
    EXPECT_EQ(band_of(range(1, 13, 1), 6), MAPS_2G);
    // A radio allowed on both halves of 5 GHz is decided by its channel.
    std::vector<uint8_t> both = range(36, 64, 4);
    for (uint8_t c : range(100, 165, 4))
        both.push_back(c);
    EXPECT_EQ(band_of(both, 149), MAPS_5H);
    EXPECT_EQ(band_of(both, 140), MAPS_5H);
    EXPECT_EQ(band_of(both, 44), MAPS_5L);
    EXPECT_EQ(band_of(both, 0), 0);
    // A list wholly inside 1 to 14 is 2.4 GHz even on a 6 GHz radio.
    EXPECT_EQ(band_of(range(1, 13, 4), 1), MAPS_2G);
    EXPECT_EQ(band_of(range(1, 233, 4), 37), MAPS_6G);
    // No row fits: the caller's value stays.
    EXPECT_EQ(band_of({1, 240}, 1), 0xff);

    uint8_t band = 0;
    EXPECT_EQ(sven_get_bandtype_by_chanlist("unknown", 1, &band), -1);
}

TEST_F(SvenTest, VapNeedsAConfigNameAndApMode)
{
    fake_uwb_vap ap;
    ap.os_ifname = "wlan0";
    g_fake_uwb.vaps["wl0"] = ap;
    fake_uwb_vap sta;
    sta.os_ifname = "wlan1";
    sta.mode = "STA";
    g_fake_uwb.vaps["wl1"] = sta;
    fake_uwb_vap nomode;
    nomode.os_ifname = "wlan2";
    nomode.mode = "";
    g_fake_uwb.vaps["wl2"] = nomode;

    log_capture log;
    char name[16];
    EXPECT_TRUE(sven_is_vap("wlan0", name));
    EXPECT_STREQ(name, "wl0");
    EXPECT_FALSE(sven_is_vap("eth0", name));
    EXPECT_FALSE(sven_is_vap("wlan1", name));
    EXPECT_FALSE(sven_is_vap("wlan2", name));
    std::regex lines("warning sven_is_vap:[0-9]+, ifname\\(wl1\\) is not ap mode.\n"
                     "warning sven_is_vap:[0-9]+, uwb get ifname\\(wl2\\) mode error.\n");
    EXPECT_TRUE(std::regex_match(log.text(), lines)) << log.text();
}

TEST_F(SvenTest, VapWithout11vOr11kStopsStartUp)
{
    fake_uwb_vap vap;
    vap.caps = {1, 0};
    g_fake_uwb.vaps["wl0"] = vap;
    EXPECT_DEATH(sven_prepare_vap("wl0"), "");

    // 802.11k is only needed while node steering is on.
    g_fake_uwb.vaps["wl0"].caps = {0, 1};
    EXPECT_DEATH(sven_prepare_vap("wl0"), "");
    {
        conf_file conf("bandherd.en_ap=0\n");
        sven_prepare_vap("wl0");
    }
    EXPECT_DEATH(sven_prepare_vap("missing"), "");
    EXPECT_DEATH(sven_prepare_vap(nullptr), "'ifname' is not satisfied");
}

// Node: ESS "herd" with BSS 1 on a 2.4 GHz radio, BSS 2 on a 6 GHz radio;
// ESS "guest" with BSS 3 on 5 GHz.
void build_node()
{
    g_self.radios[1] = {MAPS_2G, 6, 0, 0, 1, {}, nullptr};
    g_self.radios[2] = {MAPS_6G, 37, 0, 0, 2, {}, nullptr};
    g_self.radios[3] = {MAPS_5H, 149, 0, 0, 3, {}, nullptr};
    auto set_bss = [](sap_ess_t &ess, int slot, const char *ifname, uint8_t index, sap_radio_t *radio) {
        sap_bss_t &b = ess.bss[slot];
        const uint8_t bssid[6] = {0x02, 0, 0, 0, 0, index};
        mac_copy(b.bssid, bssid);
        snprintf(b.ifname, sizeof(b.ifname), "%s", ifname);
        b.bss_index = index;
        b.radio = radio;
        b.ess = &ess;
        fake_uwb_vap vap;
        vap.os_ifname = std::string("k") + ifname;
        g_fake_uwb.vaps[ifname] = vap;
    };
    snprintf(g_self.ess[0].essid, sizeof(g_self.ess[0].essid), "herd");
    set_bss(g_self.ess[0], 0, "wl0", 1, &g_self.radios[1]);
    set_bss(g_self.ess[0], 1, "wl6", 2, &g_self.radios[2]);
    snprintf(g_self.ess[1].essid, sizeof(g_self.ess[1].essid), "guest");
    g_self.ess[1].ess_index = 1;
    set_bss(g_self.ess[1], 0, "wl5", 3, &g_self.radios[3]);
}

TEST_F(SvenTest, NeighbourReportListsEveryOwnBss)
{
    build_node();
    sven_add_nbr_info("wl0");
    EXPECT_EQ(fake_uwb_calls("add_rrm_neighbor"),
              (std::vector<std::string>{"add_rrm_neighbor wl0 kwl0 02:00:00:00:00:01 6 2 herd",
                                        "add_rrm_neighbor wl0 kwl6 02:00:00:00:00:02 37 6 herd",
                                        "add_rrm_neighbor wl0 kwl5 02:00:00:00:00:03 149 5 guest"}));
}

TEST_F(SvenTest, NeighbourReportSkipsWhatItCannotDescribeAndGoesOn)
{
    build_node();
    g_self.radios[2].work_band = MAPS_IG;  // no 802.11k band code for it
    g_fake_uwb.vaps.erase("wl5");           // no kernel name
    g_fake_uwb.rrm_result = -3;
    log_capture log;
    sven_add_nbr_info("wl0");
    EXPECT_EQ(fake_uwb_calls("add_rrm_neighbor").size(), 1u);
    std::regex lines("fatal sven_add_nbr_info:[0-9]+, ifname\\(wl0\\) : add nbr_info\\(wl0\\) failed. ret = -3\n"
                     "fatal sven_add_nbr_info:[0-9]+, ifname\\(wl6\\) : wrong bandtype!\n"
                     "fatal sven_add_nbr_info:[0-9]+, wl5 get os ifname fail\n");
    EXPECT_TRUE(std::regex_match(log.text(), lines)) << log.text();
}

TEST_F(SvenTest, NeighbourRemovalKeeps6GhzUnlessAsked)
{
    build_node();
    sven_del_nbr_info("wl0", MAPS_2G);
    EXPECT_EQ(fake_uwb_calls("del_rrm_neighbor"),
              (std::vector<std::string>{"del_rrm_neighbor wl0 02:00:00:00:00:01",
                                        "del_rrm_neighbor wl0 02:00:00:00:00:03"}));
    g_fake_uwb.calls.clear();
    sven_del_nbr_info("wl6", MAPS_6G);
    EXPECT_EQ(fake_uwb_calls("del_rrm_neighbor").size(), 3u);
}

// A "SAP_INFO" body as the mesh daemon sends it.
smsg_dict_t *sap_info(const char *mac, int hop)
{
    smsg_dict_t *root = smsg_new_root();
    smsg_put_string(root, "mac", mac);
    if (hop >= 0)
        smsg_put_int(root, "hopcont", hop);
    return root;
}

void receive_sap_info(smsg_dict_t *root)
{
    const uint8_t da[6] = {}, sa[6] = {};
    sven_info_recv(da, sa, "SAP_INFO", root);
    smsg_del_root(root);
}

TEST_F(SvenTest, UplinkRateAndHopComeFromTheBackhaulAndSapInfo)
{
    receive_sap_info(sap_info("02:aa:00:00:00:01", 2));
    g_fake_uwb.bssid = "02:aa:00:00:00:09";
    g_fake_uwb.link_rate = 866;

    uint8_t mpp[6] = {}, uplink[6] = {};
    int rate = 0, hop = 0;
    auto same = [](const uint8_t *, const uint8_t *) { return false; };
    EXPECT_EQ(sven_get_uplink_rate("bh0", mpp, same, uplink, &rate, &hop), 0);
    EXPECT_EQ(rate, 866);
    EXPECT_EQ(hop, 2);
    const uint8_t expected[6] = {0x02, 0xaa, 0, 0, 0, 9};
    EXPECT_TRUE(mac_equal(uplink, expected));

    // Without "hopcont" the hop count is 0 again.
    receive_sap_info(sap_info("02:aa:00:00:00:01", -1));
    EXPECT_EQ(sven_get_uplink_rate("bh0", mpp, same, uplink, &rate, &hop), 0);
    EXPECT_EQ(hop, 0);

    // No uplink BSSID: the rate stays as the caller had it, and so no hop without a rate.
    g_fake_uwb.bssid = "00:00:00:00:00:00";
    rate = 0;
    receive_sap_info(sap_info("02:aa:00:00:00:01", 3));
    EXPECT_EQ(sven_get_uplink_rate("bh0", mpp, same, uplink, &rate, &hop), 0);
    EXPECT_EQ(rate, 0);
    EXPECT_EQ(hop, 0);
}

TEST_F(SvenTest, BtmHooksAdvertiseLoadAroundTheRequest)
{
    sven_pre_btm("wl0");
    EXPECT_EQ(fake_uwb_calls("set_bssload"), (std::vector<std::string>{"set_bssload wl0 80"}));
    EXPECT_EQ(sven_get_link_rate("wl0", g_self.node_id), 0);  // no station information
    EXPECT_DEATH(sven_ioctl(nullptr, 4, nullptr), "'data \\|\\| ifname' is not satisfied");
}

}  // namespace
