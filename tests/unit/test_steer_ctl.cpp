#include <gtest/gtest.h>

#include <cstring>

#include "fake_uwb.h"
#include "maps.h"
#include "steer.h"
#include "steer_ctl.h"
#include "steer_util.h"
#include "test_util.h"

namespace {

const uint8_t STA2[6] = {0x02, 0xaa, 0, 0, 0, 0x02};

std::string state_of(ssta_status_t *sta)
{
    std::string text = print(sctl_print_sta, sta);
    return text.substr(text.find("sctl/state: ") + 12);
}

// The BSSID each BSS transition request went to.
std::vector<std::string> requested_targets()
{
    std::vector<std::string> out;
    for (const std::string &call : fake_uwb_calls("bss_trans_req")) {
        char ifname[16], sta[18], bss[18];
        if (sscanf(call.c_str(), "bss_trans_req %15s %17s %17s", ifname, sta, bss) == 3)
            out.push_back(bss);
    }
    return out;
}

std::vector<maps_msg_radio_conf_t> radio_records()
{
    std::vector<maps_msg_radio_conf_t> out;
    for (const fake_maps_cmd &c : g_fake_uwb.maps) {
        if (c.cmd != MAPS_CMD_SET_RADIO)
            continue;
        maps_msg_radio_conf_t rec;
        memcpy(&rec, c.payload.data(), sizeof(rec));
        out.push_back(rec);
    }
    return out;
}

std::string text(const maps_msg_radio_conf_t &r)
{
    char out[64];
    snprintf(out, sizeof(out), "radio%u mode %u reject %d..%d monitor %d/%d", r.index, r.mode, r.reject_rssi_lower,
             r.reject_rssi_upper, r.monitor_rssi_low, r.monitor_rssi_high);
    return out;
}

// 2.4 GHz, 5 GHz and 6 GHz radios, one BSS each, all in ESS "herd".
const test_node ONE_ESS = {{{MAPS_2G, 6}, {MAPS_5L, 36}, {MAPS_6G, 37}}, {"herd"}, {{"wl0", 0, 1}, {"wl1", 0, 2}, {"wl2", 0, 3}}};
// Two 5 GHz radios besides 2.4 GHz.
const test_node TWO_5G = {{{MAPS_2G, 6}, {MAPS_5L, 36}, {MAPS_5H, 149}}, {"herd"}, {{"wl0", 0, 1}, {"wl1", 0, 2}, {"wl2", 0, 3}}};

TEST(Sctl, DriverLearnsEachRadiosRefusalAndMonitoringFromTheConfiguration)
{
    struct {
        const char *conf;
        std::vector<std::string> radios;  // 2.4, 5 and 6 GHz
    } cases[] = {
        {"", {"radio1 mode 2 reject -55..0 monitor -69/-55", "radio2 mode 2 reject 0..0 monitor -69/0",
              "radio3 mode 0 reject 0..0 monitor -100/0"}},
        {"bandherd.en_pre_down=1\nbandherd.en_pre_up=0\nbandherd.en_ap=0\nbandherd.en_post_up=0\n",
         {"radio1 mode 0 reject 0..0 monitor -100/0", "radio2 mode 2 reject -100..-69 monitor -100/0",
          "radio3 mode 0 reject 0..0 monitor -100/0"}},
        {"bandherd.en_post_down=1\nbandherd.en_ap=0\nbandherd.lrssi_5=-70\n",
         {"radio1 mode 2 reject -55..0 monitor -100/-55", "radio2 mode 2 reject 0..0 monitor -70/0",
          "radio3 mode 0 reject 0..0 monitor -100/0"}},
        {"weft.node_steering=1\n", {"radio1 mode 0 reject -55..0 monitor -69/-55", "radio2 mode 0 reject 0..0 monitor -69/0",
                                    "radio3 mode 0 reject 0..0 monitor -100/0"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.conf);
        steer_node node(c.conf);
        std::vector<std::string> sent;
        for (const auto &r : radio_records())
            sent.push_back(text(r));
        EXPECT_EQ(sent, c.radios);
    }
    // The driver's own record, once.
    steer_node node("bandherd.reject_cnt=5\nbandherd.delay_reject_stanum=9\n");
    std::vector<maps_msg_conf_t> confs;
    for (const fake_maps_cmd &c : g_fake_uwb.maps) {
        if (c.cmd == MAPS_CMD_SET_CONFIG) {
            maps_msg_conf_t rec;
            memcpy(&rec, c.payload.data(), sizeof(rec));
            confs.push_back(rec);
        }
    }
    ASSERT_EQ(confs.size(), 1u);
    EXPECT_TRUE(confs[0].enable && confs[0].enable_reject_probe && confs[0].enable_reject_auth);
    EXPECT_EQ(confs[0].probe_age, 60u);
    EXPECT_EQ(confs[0].reject_max_cnt, 5);
    EXPECT_EQ(confs[0].active_flow, 12000u);
    EXPECT_EQ(confs[0].delay_reject_stanum, 9);
}

TEST(Sctl, ADownThresholdAboveTheLowThresholdStopsTheStart)
{
    EXPECT_FATAL(steer_node node("bandherd.lrssi_down_5=-60\n"),
                 "bandherd.lrssi_down_5 should be less than or equal to bandherd.lrssi_5");
}

TEST(Sctl, TwoReportsBeyondAThresholdTriggerASteer)
{
    struct {
        const char *conf;
        uint8_t bss;
        std::vector<int8_t> reports;
        const char *state;  // after the last report
        std::vector<std::string> targets;
    } cases[] = {
        {"", 1, {-52, -50}, "steering", {"02:00:00:00:00:02"}},              // upgrade to 5 GHz
        {"", 1, {-60, -50}, "idle", {}},                                      // one strong report
        {"weft.node_steering=1\n", 1, {-52, -50}, "idle", {}},                // no band moves in the node
        {"bandherd.en_post_up=0\n", 1, {-52, -50}, "idle", {}},
        {"bandherd.en_post_down=1\n", 2, {-80, -82}, "steering", {"02:00:00:00:00:01"}},  // downgrade
        {"bandherd.en_post_down=1\n", 2, {-60, -82}, "idle", {}},
        {"bandherd.en_post_down=1\n", 2, {-70, -72}, "idle", {}},  // low, but above the down threshold
        {"", 2, {-80, -82}, "idle", {}},                           // no downgrade unless enabled
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.conf) + " bss" + std::to_string(c.bss) + " " + std::to_string(c.reports.back()));
        steer_node node(c.conf);
        ssta_status_t *sta = join(STA, c.bss, -60, MAPS_CAP_HT | MAPS_CAP_VHT | MAPS_CAP_BTM);
        g_fake_uwb.calls.clear();
        for (int8_t rssi : c.reports)
            sta_event(MAPS_EV_STA_STATUS, STA, c.bss, rssi, MAPS_CAP_HT | MAPS_CAP_VHT | MAPS_CAP_BTM);
        EXPECT_EQ(state_of(sta), std::string(c.state) + "\n");
        EXPECT_EQ(requested_targets(), c.targets);
    }
}

TEST(Sctl, LowSignalAsksTheStationToMeasureTheNeighboursFirst)
{
    steer_node node("bandherd.en_post_down=1\n");
    heartbeat(PEER_B);
    ssta_status_t *sta = join(STA, 2, -60);  // with radio measurement
    g_fake_uwb.calls.clear();
    sta_event(MAPS_EV_STA_STATUS, STA, 2, -80);
    sta_event(MAPS_EV_STA_STATUS, STA, 2, -82);
    EXPECT_EQ(state_of(sta), "measuring\n");
    EXPECT_EQ(fake_uwb_calls("beacon_req"), std::vector<std::string>{"beacon_req wl1 02:aa:00:00:00:01 36 herd"});
    // Leaving ends the measurement, and the station is idle again.
    sta_event(MAPS_EV_STA_LEAVE, STA, 2, -82);
    EXPECT_EQ(state_of(sta), "idle\n");
    // A station without radio measurement goes straight to the downgrade.
    ssta_status_t *other = join(STA2, 2, -60, MAPS_CAP_HT | MAPS_CAP_BTM);
    sta_event(MAPS_EV_STA_STATUS, STA2, 2, -80, MAPS_CAP_HT | MAPS_CAP_BTM);
    sta_event(MAPS_EV_STA_STATUS, STA2, 2, -82, MAPS_CAP_HT | MAPS_CAP_BTM);
    EXPECT_EQ(state_of(other), "steering\n");
}

TEST(Sctl, TargetSelection)
{
    {  // equal estimates: the lower BSS index; too weak for 5 GHz: none
        steer_node node("", TWO_5G);
        ssta_status_t *sta = join(STA, 1, -50);
        sap_bss_t *bss = sctl_select_other_radio(sta, MAPS_PREFER_5G);
        ASSERT_TRUE(bss);
        EXPECT_EQ(bss->bss_index, 2);
        sta_event(MAPS_EV_STA_STATUS, STA, 1, -75);
        EXPECT_EQ(sctl_select_other_radio(sta, MAPS_PREFER_5G), nullptr);  // below band_safe_rssi_5 (-73)
    }
    {  // another ESS is never a target
        steer_node node;
        ssta_status_t *sta = join(STA, 1, -50);
        EXPECT_EQ(sctl_select_other_radio(sta, MAPS_PREFER_6G), nullptr);
        EXPECT_EQ(sctl_select_other_radio(sta, MAPS_PREFER_NONE), sap_get_bss(2));
    }
    for (const char *conf : {"", "bandherd.en_post_ol=0\n"}) {  // a radio at 95 %
        SCOPED_TRACE(conf);
        steer_node node(conf);
        ssta_status_t *sta = join(STA, 1, -50);
        g_self.radios[2].load = 95;
        EXPECT_EQ(sctl_select_other_radio(sta, MAPS_PREFER_5G), *conf ? sap_get_bss(2) : nullptr);
    }
}

TEST(Sctl, DowngradeTriesTheBandsInOrder)
{
    struct {
        const char *conf;
        uint8_t bss;
        int8_t rssi;
        std::vector<std::string> targets;
    } cases[] = {
        {"bandherd.en_post_down=1\n", 3, -70, {"02:00:00:00:00:02"}},  // 6 GHz: 5 GHz first
        {"bandherd.en_post_down=1\nbandherd.band_safe_rssi_5=-60\n", 3, -70, {"02:00:00:00:00:01"}},  // then 2.4
        {"bandherd.en_post_down=1\n", 2, -70, {}},  // above the down threshold
        {"bandherd.en_post_down=1\n", 2, -80, {"02:00:00:00:00:01"}},
        {"", 2, -80, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.conf) + " bss" + std::to_string(c.bss) + " " + std::to_string(c.rssi));
        steer_node node(c.conf, ONE_ESS);
        ssta_status_t *sta = join(STA, c.bss, c.rssi);
        g_fake_uwb.calls.clear();
        sctl_fallback_downgrade(sta, g_self.radios[c.bss].work_band);
        EXPECT_EQ(requested_targets(), c.targets);
    }
}

TEST(Sctl, AnOverloadedRadioRefusesNewStationsAndShedsOneStationPerInterval)
{
    steer_node node;
    join(STA, 2, -50, 0x0f);
    join(STA2, 2, -50, 0x0f);
    sta_event(MAPS_EV_STA_STATUS, STA, 2, -50, 0x0f, 20);
    sta_event(MAPS_EV_STA_STATUS, STA2, 2, -50, 0x0f, 30);
    g_fake_uwb.maps.clear();
    g_fake_uwb.calls.clear();

    radio_status(2, 65);  // at the threshold: not overloaded
    EXPECT_TRUE(radio_records().empty());
    radio_status(2, 66);
    ASSERT_EQ(radio_records().size(), 1u);
    EXPECT_EQ(radio_records()[0].mode, MAPS_BAND_BLOCK);
    EXPECT_EQ(state_of(ssta_find(STA2)), "steering\n");  // the busier one
    EXPECT_EQ(state_of(ssta_find(STA)), "idle\n");
    EXPECT_EQ(ssta_find(STA2)->btm_reason, SBTM_FROM_OVERLOAD);

    tick(11);
    radio_status(2, 70);
    EXPECT_EQ(state_of(ssta_find(STA)), "idle\n");  // too soon after the last one
    tick(1);
    radio_status(2, 70);
    EXPECT_EQ(state_of(ssta_find(STA)), "steering\n");

    g_fake_uwb.maps.clear();
    radio_status(2, 10);  // the overload ends: new stations are welcome again
    ASSERT_EQ(radio_records().size(), 1u);
    EXPECT_EQ(radio_records()[0].mode, MAPS_BAND_BLOCK_RSSI);
}

TEST(Sctl, ProtectedStationsAreNeverSteered)
{
    steer_node node("bandherd.pt_sta=02:aa:00:00:00:01,,02:aa:00:00:00:02\n");
    ssta_status_t *sta = join(STA, 1, -60);
    ssta_status_t *other = join(STA2, 1, -60);
    EXPECT_EQ(print(sctl_print_sta, sta), "sctl/protected: 1\nsctl/state: idle\n");
    EXPECT_EQ(print(sctl_print_sta, other), "sctl/protected: 0\nsctl/state: idle\n");  // after the empty item
    for (int8_t rssi : {-52, -50})
        sta_event(MAPS_EV_STA_STATUS, STA, 1, rssi);
    EXPECT_EQ(state_of(sta), "idle\n");
    EXPECT_TRUE(sta->no_block_ctl);

    EXPECT_EQ(sctl_removel_protected_sta(STA), 0);
    EXPECT_FALSE(sta->no_block_ctl);
    for (int8_t rssi : {-52, -50})
        sta_event(MAPS_EV_STA_STATUS, STA, 1, rssi);
    EXPECT_EQ(state_of(sta), "steering\n");

    const uint8_t unknown[6] = {0x02, 0xaa, 0, 0, 0, 0x09};
    EXPECT_EQ(sctl_removel_protected_sta(unknown), -1);
    EXPECT_EQ(sctl_add_protected_sta(unknown), 0);  // a record is made for it, and kept
    EXPECT_NE(ssta_find(unknown), nullptr);
}

}  // namespace

namespace {

// Ten thousand stations pass through the node, a few at a time, some of them
// steered on their way: the table keeps what steering still needs, lets go of
// the rest, and never refuses a newcomer.
TEST(Sctl, TenThousandPassingStationsNeverFillTheTable)
{
    steer_node node("bandherd.pt_sta=02:bb:00:00:00:01\n");
    slog_set_level(nullptr, SLOG_ERROR);
    int refused = 0, most = 0;
    for (int i = 0; i < 10000; i++) {
        const uint8_t mac[6] = {0x02, 0xcc, 0, (uint8_t)(i >> 16), (uint8_t)(i >> 8), (uint8_t)i};
        ssta_status_t *sta = join(mac, 1, -60);
        if (!sta) {
            refused++;
            continue;
        }
        if (i % 50 == 0) {  // strong on 2.4 GHz: an upgrade, left unanswered
            sta_event(MAPS_EV_STA_STATUS, mac, 1, -50);
            sta_event(MAPS_EV_STA_STATUS, mac, 1, -50);
        }
        sta_event(MAPS_EV_STA_LEAVE, mac, 1, -60);
        if (i % 5 == 4)
            tick(1);
        most = std::max(most, ssta_get_count());
    }
    EXPECT_EQ(refused, 0);
    EXPECT_LE(most, 256);
    // Two collections later only what steering still needs is left: the
    // protected station, and stations that ran from a steer (prohibited for hours).
    tick(180);
    ssta_iterate(
        [](ssta_status_t *sta, void *) {
            int i = sta->mac[3] << 16 | sta->mac[4] << 8 | sta->mac[5];
            EXPECT_TRUE(sta->mac[1] == 0xbb || i % 50 == 0) << i;
            return false;
        },
        nullptr);
    const uint8_t protected_mac[6] = {0x02, 0xbb, 0, 0, 0, 0x01};
    EXPECT_NE(ssta_find(protected_mac), nullptr);
}

}  // namespace
