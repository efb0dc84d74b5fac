#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "fake_cm.h"
#include "fake_platform.h"
#include "fake_uwb.h"
#include "maps.h"
#include "msg_util.h"
#include "steer.h"
#include "steer_msg.h"
#include "steer_nei.h"
#include "steer_sta.h"
#include "test_util.h"

namespace {

const uint8_t PEER[6] = {0x02, 0x00, 0x00, 0x00, 0x0b, 0x00};
const uint8_t STA_A[6] = {0x02, 0xaa, 0, 0, 0, 0x01};
const uint8_t STA_B[6] = {0x02, 0xaa, 0, 0, 0, 0x02};
const uint8_t STA_C[6] = {0x02, 0xaa, 0, 0, 0, 0x03};

std::vector<std::string> s_trace;  // the callbacks, as "<what> <last MAC byte> [<BSS index>]"
bool s_keep = true;                 // what check_useable(sta, false) answers
std::set<uint8_t> s_needed;         // last MAC bytes of what check_useable(sta, true) keeps

void trace(const char *what, ssta_status_t *sta, sap_bss_t *bss = nullptr)
{
    char text[32];
    snprintf(text, sizeof(text), "%s %02x", what, sta->mac[5]);
    s_trace.push_back(text + (bss ? " " + std::to_string(bss->bss_index) : ""));
}

void deliver(uint8_t code, const uint8_t *mac, uint8_t bss, int8_t rssi, uint8_t sta_num = 1,
             size_t size = sizeof(maps_msg_sta_t))
{
    maps_msg_sta_t m = {};
    memcpy(m.mac, mac, 6);
    m.bss_index = bss;
    m.bands = MAPS_2G | MAPS_5L;
    m.caps = MAPS_CAP_HT | MAPS_CAP_BTM;
    m.rssi = rssi;
    m.nss = 2;
    m.load = 10;
    m.sta_num = sta_num;
    m.active = 1;
    nl_deliver(code, &m, size);
}

// A neighbour with one 2.4 GHz BSS, index 1.
void peer_heartbeat()
{
    mesh_receive(PEER, "SNEI_HEARTBEAT",
                 R"({"is_mpp":1,"link_rate2mpp":999999,"hop":0,"ess":[{"essid":"herd","index":0}],
                     "radio":[{"work_band":2,"channel":1,"load":0,"sta_num":0}],
                     "bss":[{"bssid":"02:00:00:00:0b:01","sta_num":0,"sta_max":32,"radio":1,"ess":0,
                             "ifname":"wl0"}]})");
}

void associate_msg(const uint8_t *mac, int associated, int bss)
{
    char json[128];
    snprintf(json, sizeof(json), R"({"sta":"%s","associated":%d,"bss":%d})", mac_text(mac).s, associated, bss);
    mesh_receive(PEER, "SSTA_ASSOCIATE", json);
}

class SstaTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake_cm_reset();
        fake_platform_reset();
        fake_uwb_reset();
        build_node(g_self);  // BSS 1 wl0 on 2.4 GHz, BSS 2 wl1 on 5 GHz
        smsg_init();
        snei_init();
        ssta_init();
        ssta_set_init_cb([](ssta_status_t *sta) { trace("init", sta); });
        ssta_set_fini_cb([](ssta_status_t *sta) { trace("fini", sta); });
        ssta_set_status_cb([](ssta_status_t *sta) { trace("status", sta); });
        ssta_set_assoc_cb([](ssta_status_t *sta, sap_bss_t *bss) { trace("assoc", sta, bss); });
        ssta_set_disassoc_cb([](ssta_status_t *sta, sap_bss_t *bss) { trace("disassoc", sta, bss); });
        ssta_set_check_useable_cb(
            [](ssta_status_t *sta, bool stress) { return stress ? s_needed.count(sta->mac[5]) > 0 : s_keep; });
        s_trace.clear();
        s_keep = true;
        s_needed.clear();
    }
    void TearDown() override
    {
        // Everything goes through the collection.
        ssta_iterate(
            [](ssta_status_t *sta, void *) {
                sta->associated = false;
                return false;
            },
            nullptr);
        s_keep = false;
        fake_cm_advance(90);
        EXPECT_EQ(ssta_get_count(), 0);
        ssta_exit();
        mesh_receive(PEER, "SNEI_EXIT", "{}");
        snei_exit();
        fake_cm_reset();
    }
};

TEST_F(SstaTest, JoinStatusLeaveAndCollectionDriveTheRecordAndItsCallbacks)
{
    g_time = 100;
    deliver(MAPS_EV_STA_JOIN, STA_A, 1, -60, 3);
    ssta_status_t *sta = ssta_find(STA_A);
    ASSERT_NE(sta, nullptr);
    EXPECT_TRUE(sta->associated);
    EXPECT_EQ(sta->bss_index, 1);
    EXPECT_EQ(sta->streams, 2);
    EXPECT_EQ(sta->last_assoc, 100u);
    EXPECT_EQ(sap_get_bss(1)->sta_num, 3);

    deliver(MAPS_EV_STA_STATUS, STA_A, 1, -70, 4);
    EXPECT_EQ(sta->rssi, -70);
    EXPECT_EQ(sta->last_rssi, -60);
    EXPECT_EQ(sap_get_bss(1)->sta_num, 4);

    g_time = 130;
    deliver(MAPS_EV_STA_LEAVE, STA_A, 1, -70, 2);
    EXPECT_FALSE(sta->associated);
    EXPECT_EQ(sta->last_assoc, 130u);
    EXPECT_EQ(sap_get_bss(1)->sta_num, 2);

    // Only unassociated records the controller lets go are freed, every 90 seconds.
    deliver(MAPS_EV_STA_JOIN, STA_B, 2, -60);
    s_keep = false;
    fake_cm_advance(89);
    EXPECT_EQ(ssta_find(STA_A), sta);
    fake_cm_advance(1);
    EXPECT_EQ(ssta_find(STA_A), nullptr);
    EXPECT_NE(ssta_find(STA_B), nullptr);
    EXPECT_EQ(s_trace, (std::vector<std::string>{"init 01", "assoc 01 1", "status 01", "disassoc 01 1", "init 02",
                                                 "assoc 02 2", "fini 01"}));
}

TEST_F(SstaTest, StationSeenOnAnotherBssIsKickedFromItsOldOneOnlyWithRoamKick)
{
    peer_heartbeat();
    for (bool roam_kick : {true, false}) {
        conf_file conf(roam_kick ? "bandherd.roam_kick=1\n" : "bandherd.roam_kick=0\n");
        ssta_exit();
        ssta_init();
        g_fake_uwb.calls.clear();
        s_trace.clear();
        const uint8_t *mac = roam_kick ? STA_A : STA_B;
        std::string id = roam_kick ? "01" : "02";
        deliver(MAPS_EV_STA_JOIN, mac, 1, -60);
        deliver(MAPS_EV_STA_JOIN, mac, 2, -50);  // another BSS here
        EXPECT_EQ(s_trace, (std::vector<std::string>{"init " + id, "assoc " + id + " 1", "disassoc " + id + " 1",
                                                     "assoc " + id + " 2"}));
        associate_msg(mac, 0, 1);  // a leave there kicks nothing
        g_time = 500;
        associate_msg(mac, 1, 1);  // then it shows up on the neighbour
        EXPECT_EQ(ssta_find(mac)->last_assoc, 500u);
        EXPECT_TRUE(ssta_find(mac)->associated);  // until the driver's leave event
        EXPECT_EQ(ssta_find(mac)->bss_index, 2);
        std::vector<std::string> kicks;
        if (roam_kick)
            kicks = {"kick_sta wl0 02:aa:00:00:00:01", "kick_sta wl1 02:aa:00:00:00:01"};
        EXPECT_EQ(fake_uwb_calls("kick_sta"), kicks) << "roam_kick " << roam_kick;
    }
}

void announcements()
{
    weft_listener weft;
    ASSERT_EQ(snei_get_cnt(), 0);
    deliver(MAPS_EV_STA_JOIN, STA_B, 1, -60);
    EXPECT_TRUE(weft.take().empty());  // nobody to tell yet
    peer_heartbeat();

    deliver(MAPS_EV_STA_JOIN, STA_A, 1, -60, 1);
    deliver(MAPS_EV_STA_JOIN, STA_A, 2, -50, 1);
    // The late leave of the first BSS changes its count and is told, but the station stays on the second.
    deliver(MAPS_EV_STA_LEAVE, STA_A, 1, -50, 0);
    EXPECT_TRUE(ssta_find(STA_A)->associated);
    EXPECT_EQ(ssta_find(STA_A)->bss_index, 2);
    EXPECT_EQ(sap_get_bss(1)->sta_num, 0);
    deliver(MAPS_EV_STA_LEAVE, STA_A, 2, -50, 0);
    EXPECT_FALSE(ssta_find(STA_A)->associated);
    std::string msg = R"(SSTA_ASSOCIATE {"sta":"02:aa:00:00:00:01",)";
    EXPECT_EQ(weft.take_messages(), (std::vector<std::string>{msg + R"("associated":1,"bss":1})",
                                                              msg + R"("associated":1,"bss":2})",
                                                              msg + R"("associated":0,"bss":1})",
                                                              msg + R"("associated":0,"bss":2})"}));
}

TEST_F(SstaTest, JoinsAndLeavesAreToldToTheNeighbours)
{
    EXPECT_SANDBOXED(SANDBOX_VAR, announcements);
}

TEST_F(SstaTest, BandAndStatusEventsAndTheirBss)
{
    log_capture log;
    // Status for an unknown station creates it, associated.
    deliver(MAPS_EV_STA_STATUS, STA_A, 1, -65);
    ssta_status_t *sta = ssta_find(STA_A);
    ASSERT_NE(sta, nullptr);
    EXPECT_TRUE(sta->associated);
    // Status reported on another BSS is ignored; a band change is taken whatever the BSS, without a callback.
    deliver(MAPS_EV_STA_STATUS, STA_A, 2, -40);
    EXPECT_EQ(sta->rssi, -65);
    maps_msg_sta_t band = {};
    memcpy(band.mac, STA_A, 6);
    band.bss_index = 2;
    band.bands = MAPS_2G | MAPS_6G;
    nl_deliver(MAPS_EV_STA_BAND, &band, sizeof(band));
    EXPECT_EQ(sta->bands, (uint32_t)(MAPS_2G | MAPS_6G));
    EXPECT_EQ(sta->rssi, -65);
    EXPECT_EQ(s_trace, (std::vector<std::string>{"init 01", "status 01"}));

    // Wrong sizes and unknown BSSes are refused.
    deliver(MAPS_EV_STA_JOIN, STA_B, 1, -60, 1, 23);
    deliver(MAPS_EV_STA_JOIN, STA_B, 7, -60);
    ASSERT_NE(ssta_find(STA_B), nullptr);  // created before the BSS was looked at
    EXPECT_FALSE(ssta_find(STA_B)->associated);
    EXPECT_EQ(log.plain(), "warning ssta_update_handler, can't find 02:aa:00:00:00:01, create it\n"
                           "error ssta_event, wrong message size 23\n"
                           "error sap_get_bss, NULL BSS7\n"
                           "error ssta_join_handler, invalid bss 7\n");
}

TEST_F(SstaTest, FullTableReplacesOnlyWhatTheControllerLetsGo)
{
    uint8_t mac[6] = {0x02, 0xbb, 0, 0, 0, 0};
    for (int i = 0; i < 256; i++) {
        mac[4] = (uint8_t)(i >> 8);
        mac[5] = (uint8_t)i;
        ssta_status_t *sta = ssta_new(mac);
        ASSERT_NE(sta, nullptr);
        sta->associated = true;
        sta->last_assoc = 1000 + i;
    }
    log_capture log;
    EXPECT_EQ(ssta_new(STA_A), nullptr);
    EXPECT_TRUE(std::regex_match(
        log.text(), std::regex("warning ssta_new:[0-9]+, too many stations are maintained, support 256 stations\n")))
        << log.text();

    // Under pressure the record that left first goes, among those no module
    // needs even then; of two that left at the same time, the first met.
    const uint8_t seventh[6] = {0x02, 0xbb, 0, 0, 0, 7};
    const uint8_t ninth[6] = {0x02, 0xbb, 0, 0, 0, 9};
    const uint8_t eleventh[6] = {0x02, 0xbb, 0, 0, 0, 11};
    for (const uint8_t *m : {seventh, ninth, eleventh}) {
        ssta_find(m)->associated = false;
        ssta_find(m)->last_assoc = 5;
    }
    ssta_find(eleventh)->last_assoc = 3;
    s_needed = {11};
    uint8_t first_met = 0;
    ssta_iterate(
        [](ssta_status_t *sta, void *out) {
            bool tied = sta->mac[5] == 7 || sta->mac[5] == 9;
            if (tied)
                *static_cast<uint8_t *>(out) = sta->mac[5];
            return tied;
        },
        &first_met);
    uint8_t second_met = first_met == 7 ? 9 : 7;
    s_trace.clear();
    for (const uint8_t *m : {STA_A, STA_B}) {
        ssta_status_t *sta = ssta_new(m);
        ASSERT_NE(sta, nullptr);
        sta->associated = true;
    }
    char first[16], second[16];
    snprintf(first, sizeof(first), "fini %02x", first_met);
    snprintf(second, sizeof(second), "fini %02x", second_met);
    EXPECT_EQ(s_trace, (std::vector<std::string>{first, "init 01", second, "init 02"}));
    EXPECT_EQ(ssta_get_count(), 256);

    // What is left unassociated is needed: the table refuses.
    EXPECT_EQ(ssta_new(STA_C), nullptr);
    EXPECT_NE(ssta_find(eleventh), nullptr);
}

}  // namespace
