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
const uint8_t STA_C[6] = {0x02, 0xaa, 0, 0, 0, 0x03};

std::vector<std::string> s_trace;
bool s_keep = true;          // what check_useable(sta, false) answers
std::set<uint8_t> s_needed;  // last MAC bytes of what check_useable(sta, true) keeps

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
bool on_check(ssta_status_t *sta, bool mem_stress) { return mem_stress ? s_needed.count(sta->mac[5]) > 0 : s_keep; }

sap_radio_t s_radio2 = {MAPS_2G, 6, 0, 0, 1, {}, nullptr};
sap_radio_t s_radio5 = {MAPS_5L, 36, 0, 0, 2, {}, nullptr};

// This node: ESS "herd" with BSS 1 (wl0, 2.4 GHz) and BSS 2 (wl1, 5 GHz).
void build_node()
{
    g_self = sap_node_t{};
    g_self.radios[1] = s_radio2;
    g_self.radios[2] = s_radio5;
    snprintf(g_self.ess[0].essid, sizeof(g_self.ess[0].essid), "herd");
    const char *names[] = {"wl0", "wl1"};
    for (int i = 0; i < 2; i++) {
        sap_bss_t &b = g_self.ess[0].bss[i];
        b.bss_index = (uint8_t)(i + 1);
        b.bssid[0] = 0x02;
        b.bssid[5] = (uint8_t)(i + 1);
        snprintf(b.ifname, sizeof(b.ifname), "%s", names[i]);
        b.radio = &g_self.radios[i + 1];
        b.ess = &g_self.ess[0];
        g_self.managed_bss[i + 1] = &b;
    }
}

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
        build_node();
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
        s_needed.clear();
    }
    void TearDown() override
    {
        // Everything goes through the collection.
        ssta_iterate(clear_association, nullptr);
        s_keep = false;
        fake_cm_advance(90);
        EXPECT_EQ(ssta_get_count(), 0);
        ssta_exit();
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

TEST_F(SstaTest, SecondBssOfThisNodeKicksTheStationFromTheFirst)
{
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_A, 1, -60));
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_A, 2, -50));
    EXPECT_EQ(fake_uwb_calls("kick_sta"), (std::vector<std::string>{"kick_sta wl0 02:aa:00:00:00:01"}));
    EXPECT_EQ(s_trace, (std::vector<std::string>{"init 01", "assoc 01 1", "disassoc 01 1", "assoc 01 2"}));
    EXPECT_EQ(ssta_find(STA_A)->bss_index, 2);

    // The late leave of the first BSS changes nothing but its count.
    log_capture log;
    deliver(MAPS_EV_STA_LEAVE, sta_event(STA_A, 1, -50, 0));
    EXPECT_TRUE(ssta_find(STA_A)->associated);
    EXPECT_EQ(sap_get_bss(1)->sta_num, 0);
    EXPECT_NE(log.text().find("disassociate bss1(wl0)"), std::string::npos);
}

TEST_F(SstaTest, WithoutRoamKickTheOldBssIsOnlyLeft)
{
    conf_file conf("bandherd.roam_kick=0\n");
    ssta_exit();
    ssta_init();
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_A, 1, -60));
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_A, 2, -50));
    EXPECT_TRUE(fake_uwb_calls("kick_sta").empty());
    EXPECT_EQ(s_trace, (std::vector<std::string>{"init 01", "assoc 01 1", "disassoc 01 1", "assoc 01 2"}));
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

uint32_t bucket_of(const uint8_t *mac)
{
    uint32_t h = 0;
    for (int i = 0; i < 6; i++)
        h = h * 13131 + mac[i];
    return h & 63;
}

bool collect(ssta_status_t *sta, void *data)
{
    static_cast<std::vector<const uint8_t *> *>(data)->push_back(sta->mac);
    return false;
}

TEST_F(SstaTest, IterationFollowsHashBucketsNewestFirst)
{
    std::vector<std::array<uint8_t, 6>> macs;
    for (int i = 0; i < 40; i++)
        macs.push_back({0x02, 0xcc, 0, 0, (uint8_t)(i * 7), (uint8_t)(i * 13)});
    for (auto &m : macs)
        ssta_new(m.data());
    std::vector<const uint8_t *> seen;
    ssta_iterate(collect, &seen);
    ASSERT_EQ(seen.size(), macs.size());
    for (size_t i = 1; i < seen.size(); i++) {
        uint32_t a = bucket_of(seen[i - 1]), b = bucket_of(seen[i]);
        EXPECT_LE(a, b);
        if (a == b) {
            // Within a bucket, the later record comes first.
            auto pos = [&](const uint8_t *m) {
                for (size_t k = 0; k < macs.size(); k++)
                    if (memcmp(macs[k].data(), m, 6) == 0)
                        return k;
                return macs.size();
            };
            EXPECT_GT(pos(seen[i - 1]), pos(seen[i]));
        }
    }
}

TEST_F(SstaTest, AssociationsOnOtherNodesKeepTheirCountsAndKickTwins)
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

    // A station associated here that shows up on the neighbour is kicked here.
    deliver(MAPS_EV_STA_JOIN, sta_event(STA_A, 2, -60));
    g_time = 500;
    associate_msg(STA_A, 1, 1);
    EXPECT_EQ(fake_uwb_calls("kick_sta"), (std::vector<std::string>{"kick_sta wl1 02:aa:00:00:00:01"}));
    EXPECT_EQ(ssta_find(STA_A)->last_assoc, 500u);
    EXPECT_TRUE(ssta_find(STA_A)->associated);  // until the driver's leave event
}

}  // namespace
