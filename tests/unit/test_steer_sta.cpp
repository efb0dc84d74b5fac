#include <gtest/gtest.h>

#include <array>
#include <regex>
#include <set>

#include "fake_cm.h"
#include "fake_platform.h"
#include "fake_uwb.h"
#include "msg_util.h"
#include "steer.h"
#include "steer_drv.h"
#include "steer_msg.h"
#include "steer_nei.h"
#include "steer_sta.h"
#include "test_util.h"

namespace {

const uint8_t PEER[6] = {0x02, 0x00, 0x00, 0x00, 0x0b, 0x00};
const uint8_t STA_A[6] = {0x02, 0xaa, 0, 0, 0, 0x01};
const uint8_t STA_B[6] = {0x02, 0xaa, 0, 0, 0, 0x02};

std::vector<std::string> s_trace;
bool s_keep = true;        // what check_useable(sta, false) answers
bool s_replaceable = true;  // what check_useable(sta, true) answers

std::string short_mac(const ssta_status_t *sta)
{
    char buf[8];
    snprintf(buf, sizeof(buf), "%02x", sta->mac[5]);
    return buf;
}

void on_init(ssta_status_t *sta) { s_trace.push_back("init " + short_mac(sta)); }
void on_fini(ssta_status_t *sta) { s_trace.push_back("fini " + short_mac(sta)); }
void on_status(ssta_status_t *sta) { s_trace.push_back("status " + short_mac(sta)); }
void on_assoc(ssta_status_t *sta, sap_bss_t *bss)
{
    s_trace.push_back("assoc " + short_mac(sta) + " " + std::to_string(bss->bss_index));
}
void on_disassoc(ssta_status_t *sta, sap_bss_t *bss)
{
    s_trace.push_back("disassoc " + short_mac(sta) + " " + std::to_string(bss->bss_index));
}
bool on_check(ssta_status_t *, bool mem_stress) { return mem_stress ? s_replaceable : s_keep; }

maps_msg_sta_t sta_event(const uint8_t *mac, uint8_t bss, int8_t rssi, uint8_t sta_num = 1)
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
    return m;
}

void deliver(uint8_t code, const maps_msg_sta_t &m, size_t size = sizeof(maps_msg_sta_t))
{
    g_fake_nl.incoming.push_back(nl_event(code, &m, size));
    sdrv_read(g_fake_nl.fd, 1, nullptr);
}

void receive(const uint8_t *sa, const char *type, const std::string &json)
{
    std::vector<uint8_t> msg = mesh_message(sa, MAC_BCAST, type, json);
    smsg_recv_handler(msg.data(), msg.size());
}

// A neighbour with one 2.4 GHz BSS, index 1.
void peer_heartbeat()
{
    receive(PEER, "SNEI_HEARTBEAT",
            R"({"is_mpp":1,"link_rate2mpp":999999,"hop":0,"ess":[{"essid":"herd","index":0}],
                "radio":[{"work_band":2,"channel":1,"load":0,"sta_num":0}],
                "bss":[{"bssid":"02:00:00:00:0b:01","sta_num":0,"sta_max":32,"radio":1,"ess":0,"ifname":"wl0"}]})");
}

void associate_msg(const uint8_t *mac, int associated, int bss)
{
    char json[128];
    snprintf(json, sizeof(json), R"({"sta":"%02x:%02x:%02x:%02x:%02x:%02x","associated":%d,"bss":%d})", mac[0],
             mac[1], mac[2], mac[3], mac[4], mac[5], associated, bss);
    receive(PEER, "SSTA_ASSOCIATE", json);
}

bool clear_association(ssta_status_t *sta, void *)
{
    sta->associated = false;
    return false;
}

class SstaTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake_cm_reset();
        fake_platform_reset();
        fake_uwb_reset();
        build_node(g_self);
        slog_set_level(nullptr, SLOG_INFO);
        smsg_init();
        snei_init();
        ssta_init();
        ssta_set_init_cb(on_init);
        ssta_set_fini_cb(on_fini);
        ssta_set_status_cb(on_status);
        ssta_set_assoc_cb(on_assoc);
        ssta_set_disassoc_cb(on_disassoc);
        ssta_set_check_useable_cb(on_check);
        s_trace.clear();
        s_keep = true;
        s_replaceable = true;
    }
    void TearDown() override
    {
        // Everything goes through the collection.
        ssta_iterate(clear_association, nullptr);
        s_keep = false;
        fake_cm_advance(90);
        EXPECT_EQ(ssta_get_count(), 0);
        ssta_exit();
        receive(PEER, "SNEI_EXIT", "{}");
        snei_exit();
        fake_cm_reset();
        unsetenv("BANDHERD_CONF");
    }
};

TEST_F(SstaTest, JoinStatusAndLeaveDriveTheRecordAndItsCallbacks)
{
    g_time = 100;
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_A, 1, -60, 3));
    ssta_status_t *sta = ssta_find(STA_A);
    ASSERT_NE(sta, nullptr);
    EXPECT_TRUE(sta->associated);
    EXPECT_EQ(sta->bss_index, 1);
    EXPECT_EQ(sta->rssi, -60);
    EXPECT_EQ(sta->streams, 2);
    EXPECT_EQ(sta->last_assoc, 100u);
    EXPECT_EQ(sap_get_bss(1)->sta_num, 3);

    deliver(MAPS_EV_STA_STATUS, sta_event(STA_A, 1, -70, 4));
    EXPECT_EQ(sta->rssi, -70);
    EXPECT_EQ(sta->last_rssi, -60);
    EXPECT_EQ(sap_get_bss(1)->sta_num, 4);

    g_time = 130;
    deliver(MAPS_EV_STA_LEAVE, sta_event(STA_A, 1, -70, 2));
    EXPECT_FALSE(sta->associated);
    EXPECT_EQ(sta->last_assoc, 130u);
    EXPECT_EQ(sap_get_bss(1)->sta_num, 2);
    EXPECT_EQ(ssta_find(STA_A), sta);  // the record stays until collected
    EXPECT_EQ(s_trace, (std::vector<std::string>{"init 01", "assoc 01 1", "status 01", "disassoc 01 1"}));
}

std::string kick(const char *ifname, const uint8_t *mac)
{
    char text[64];
    snprintf(text, sizeof(text), "kick_sta %s " MAC_FMT, ifname, MAC_ARG(mac));
    return text;
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
        deliver(MAPS_EV_STA_JOIN, sta_event(mac, 1, -60));
        deliver(MAPS_EV_STA_JOIN, sta_event(mac, 2, -50));
        EXPECT_EQ(s_trace, (std::vector<std::string>{"init " + id, "assoc " + id + " 1", "disassoc " + id + " 1",
                                                     "assoc " + id + " 2"}));
        // Then it shows up on the neighbour.
        g_time = 500;
        associate_msg(mac, 1, 1);
        EXPECT_EQ(ssta_find(mac)->last_assoc, 500u);
        EXPECT_TRUE(ssta_find(mac)->associated);  // until the driver's leave event
        EXPECT_EQ(ssta_find(mac)->bss_index, 2);
        std::vector<std::string> kicks;
        if (roam_kick)
            kicks = {kick("wl0", mac), kick("wl1", mac)};
        EXPECT_EQ(fake_uwb_calls("kick_sta"), kicks) << "roam_kick " << roam_kick;
    }
}

void announcements()
{
    weft_listener weft;
    ASSERT_EQ(snei_get_cnt(), 0);
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_B, 1, -60));
    EXPECT_TRUE(weft.take().empty());  // nobody to tell yet
    peer_heartbeat();

    deliver(MAPS_EV_STA_JOIN, sta_event(STA_A, 1, -60, 1));
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_A, 2, -50, 1));
    // The late leave of the first BSS changes its count and is told, but the station stays on the second.
    deliver(MAPS_EV_STA_LEAVE, sta_event(STA_A, 1, -50, 0));
    EXPECT_EQ(weft.take_messages(),
              (std::vector<std::string>{R"(SSTA_ASSOCIATE {"sta":"02:aa:00:00:00:01","associated":1,"bss":1})",
                                        R"(SSTA_ASSOCIATE {"sta":"02:aa:00:00:00:01","associated":1,"bss":2})",
                                        R"(SSTA_ASSOCIATE {"sta":"02:aa:00:00:00:01","associated":0,"bss":1})"}));
    EXPECT_TRUE(ssta_find(STA_A)->associated);
    EXPECT_EQ(ssta_find(STA_A)->bss_index, 2);
    EXPECT_EQ(sap_get_bss(1)->sta_num, 0);

    deliver(MAPS_EV_STA_LEAVE, sta_event(STA_A, 2, -50, 0));
    EXPECT_EQ(weft.take_messages(),
              (std::vector<std::string>{R"(SSTA_ASSOCIATE {"sta":"02:aa:00:00:00:01","associated":0,"bss":2})"}));
    EXPECT_FALSE(ssta_find(STA_A)->associated);
}

TEST_F(SstaTest, JoinsAndLeavesAreToldToTheNeighbours)
{
    EXPECT_SANDBOXED(SANDBOX_VAR, announcements);
}

TEST_F(SstaTest, BandAndStatusEventsAndTheirBss)
{
    log_capture log;
    // Status for an unknown station creates it, associated.
    deliver(MAPS_EV_STA_STATUS, sta_event(STA_A, 1, -65));
    ssta_status_t *sta = ssta_find(STA_A);
    ASSERT_NE(sta, nullptr);
    EXPECT_TRUE(sta->associated);
    EXPECT_NE(log.text().find("warning ssta_update_handler"), std::string::npos);

    // Status reported on another BSS is ignored...
    deliver(MAPS_EV_STA_STATUS, sta_event(STA_A, 2, -40));
    EXPECT_EQ(sta->rssi, -65);
    // ...a band change is taken whatever the BSS, without a callback.
    maps_msg_sta_t band = sta_event(STA_A, 2, -40);
    band.bands = MAPS_2G | MAPS_5L | MAPS_6G;
    deliver(MAPS_EV_STA_BAND, band);
    EXPECT_EQ(sta->bands, (uint32_t)(MAPS_2G | MAPS_5L | MAPS_6G));
    EXPECT_EQ(sta->rssi, -65);
    EXPECT_EQ(s_trace, (std::vector<std::string>{"init 01", "status 01"}));

    // Wrong sizes and unknown BSSes are refused.
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_B, 1, -60), 23);
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_B, 7, -60));
    EXPECT_NE(log.text().find("wrong message size 23"), std::string::npos);
    EXPECT_NE(log.text().find("invalid bss 7"), std::string::npos);
    ASSERT_NE(ssta_find(STA_B), nullptr);  // created before the BSS was looked at
    EXPECT_FALSE(ssta_find(STA_B)->associated);
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

    // Two may go: the one that left first is released.
    const uint8_t seventh[6] = {0x02, 0xbb, 0, 0, 0, 7};
    const uint8_t ninth[6] = {0x02, 0xbb, 0, 0, 0, 9};
    ssta_find(seventh)->associated = false;
    ssta_find(ninth)->associated = false;
    ssta_find(ninth)->last_assoc = 5;
    s_trace.clear();
    ASSERT_NE(ssta_new(STA_A), nullptr);
    EXPECT_EQ(s_trace, (std::vector<std::string>{"fini 09", "init 01"}));
    EXPECT_EQ(ssta_get_count(), 256);

    s_replaceable = false;
    EXPECT_EQ(ssta_new(STA_B), nullptr);
}

TEST_F(SstaTest, CollectionFreesWhatIsNoLongerWanted)
{
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_A, 1, -60));
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_B, 1, -60));
    deliver(MAPS_EV_STA_LEAVE, sta_event(STA_B, 1, -60));
    s_keep = false;
    fake_cm_advance(89);
    EXPECT_EQ(ssta_get_count(), 2);
    fake_cm_advance(1);
    EXPECT_EQ(ssta_get_count(), 1);  // only the associated one stays
    EXPECT_NE(ssta_find(STA_A), nullptr);
    EXPECT_EQ(s_trace.back(), "fini 02");
}

struct walk {
    std::set<std::array<uint8_t, 6>> seen;
    size_t calls = 0, stop_at = 0;
};

bool collect(ssta_status_t *sta, void *data)
{
    auto *w = static_cast<walk *>(data);
    std::array<uint8_t, 6> mac;
    memcpy(mac.data(), sta->mac, 6);
    w->seen.insert(mac);
    return ++w->calls == w->stop_at;
}

TEST_F(SstaTest, IterationVisitsEveryRecordOnceUntilTheCallbackStops)
{
    std::set<std::array<uint8_t, 6>> macs;
    for (int i = 0; i < 50; i++) {
        std::array<uint8_t, 6> m = {0x02, 0xcc, 0, 0, (uint8_t)(i * 7), (uint8_t)(i * 13)};
        ssta_status_t *sta = ssta_new(m.data());
        ASSERT_NE(sta, nullptr);
        macs.insert(m);
        EXPECT_EQ(ssta_find(m.data()), sta);
    }
    walk all, part;
    ssta_iterate(collect, &all);
    EXPECT_EQ(all.calls, 50u);
    EXPECT_EQ(all.seen, macs);
    part.stop_at = 7;
    ssta_iterate(collect, &part);
    EXPECT_EQ(part.calls, 7u);
}

TEST_F(SstaTest, AssociationsOnOtherNodesKeepTheirCounts)
{
    peer_heartbeat();
    ASSERT_EQ(snei_get_cnt(), 1);
    sap_bss_t *nbss = snei_find(PEER)->managed_bss[1];
    ASSERT_NE(nbss, nullptr);

    log_capture log;
    associate_msg(STA_B, 1, 0);
    associate_msg(STA_B, 1, 32);
    associate_msg(STA_B, 0, 1);  // the count is 0 already
    EXPECT_EQ(nbss->sta_num, 0);
    associate_msg(STA_B, 1, 1);
    associate_msg(STA_A, 1, 1);
    EXPECT_EQ(nbss->sta_num, 2);
    associate_msg(STA_B, 0, 1);
    EXPECT_EQ(nbss->sta_num, 1);
    std::string text = log.text();
    EXPECT_NE(text.find("error ssta_msg_handler:"), std::string::npos);
    EXPECT_NE(text.find("invalid bss index 0"), std::string::npos);
    EXPECT_NE(text.find("invalid bss index 32"), std::string::npos);
    EXPECT_NE(text.find("wrong sta number of BSS1 in NODE 02:00:00:00:0b:00"), std::string::npos);
}

}  // namespace
