#include <gtest/gtest.h>

#include <cstring>

#include "fake_platform.h"
#include "fake_uwb.h"
#include "maps.h"
#include "msg_util.h"
#include "steer.h"
#include "steer_ns.h"
#include "steer_util.h"

namespace {

std::vector<std::string> s_results;

void on_result(ssta_status_t *, sap_bss_t *bss, sap_node_t *, bool found)
{
    char text[40];
    if (found)
        snprintf(text, sizeof(text), "%s", mac_text(bss->bssid).s);
    s_results.push_back(found ? text : "none");
}

struct record {
    const uint8_t *bssid;
    int8_t rcpi;
};

void report(const std::vector<record> &records, size_t size = sizeof(maps_msg_beacon_rep_t), uint8_t count = 0xff)
{
    maps_msg_beacon_rep_t rep = {};
    memcpy(rep.sta, STA, 6);
    rep.bss_index = 2;
    rep.count = count != 0xff ? count : (uint8_t)records.size();
    for (size_t i = 0; i < records.size(); i++) {
        rep.reports[i].channel = 36;
        rep.reports[i].rcpi = records[i].rcpi;
        memcpy(rep.reports[i].bssid, records[i].bssid, 6);
    }
    std::vector<uint8_t> payload(size, 0);
    memcpy(payload.data(), &rep, std::min(size, sizeof(rep)));
    nl_deliver(MAPS_EV_BEACON_REP, payload.data(), size);
}

std::string shown(ssta_status_t *sta)
{
    return print([](FILE *f, ssta_status_t *s) { sns_print_sta(f, s, true); }, sta);
}

// A measuring station on this node's 5 GHz BSS with neighbour B on the same channel.
ssta_status_t *measuring()
{
    heartbeat(PEER_B);
    ssta_status_t *sta = join(STA, 2, -70);
    s_results.clear();
    g_fake_uwb.calls.clear();
    EXPECT_EQ(sns_start_measure(sta, on_result), 0);
    return sta;
}

TEST(Sns, ReportedRcpiBecomesDbm)
{
    const std::pair<int, int> cases[] = {{0, -100}, {255, 0}, {128, -50}, {0x90, -44}, {64, -75}};
    for (auto [raw, dbm] : cases)
        EXPECT_EQ(sns_trans_rcpi((int8_t)raw), dbm) << raw;
}

TEST(Sns, BrokenReportsAreDroppedAndAnEmptyOneEndsTheMeasurement)
{
    steer_node node;
    ssta_status_t *sta = measuring();
    EXPECT_EQ(fake_uwb_calls("beacon_req"), std::vector<std::string>{"beacon_req wl1 02:aa:00:00:00:01 36 herd"});
    EXPECT_EQ(sns_start_measure(sta, on_result), -1);  // one at a time
    report({{BSS_B, -40}}, sizeof(maps_msg_beacon_rep_t) - 1);
    report({{BSS_B, -40}}, sizeof(maps_msg_beacon_rep_t) + 1);
    report({{BSS_B, -40}}, sizeof(maps_msg_beacon_rep_t), 33);
    EXPECT_NE(shown(sta).find("sns/measuring: 1"), std::string::npos);
    EXPECT_TRUE(s_results.empty());
    report({}, sizeof(maps_msg_beacon_rep_t), 0);
    EXPECT_EQ(s_results, std::vector<std::string>{"none"});
    EXPECT_NE(shown(sta).find("sns/measuring: 0"), std::string::npos);
}

TEST(Sns, ANeighbourMustBeClearlyBetter)
{
    struct {
        std::vector<record> records;
        const char *result;
        bool abnormal;
    } cases[] = {
        {{{BSS_5, -70}, {BSS_B, -45}}, "02:00:00:00:0b:01", false},
        {{{BSS_5, -60}, {BSS_B, -60}}, "none", false},  // equal is not better
        {{{BSS_5, -75}, {BSS_B, -67}}, "none", false},  // too weak for 5 GHz
        {{{BSS_B, -45}}, "02:00:00:00:0b:01", false},   // the serving BSS estimated from the station's RSSI
        {{{BSS_B, -112}}, "02:00:00:00:0b:01", true},   // true RCPI: 144 is -44 dBm
        // Once the station is seen to report RCPI, the earlier value is taken as RCPI too.
        {{{BSS_5, -70}, {BSS_B, -112}}, "none", true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.result);
        steer_node node;
        ssta_status_t *sta = measuring();
        report(c.records);
        EXPECT_EQ(s_results, std::vector<std::string>{c.result});
        EXPECT_NE(shown(sta).find(c.abnormal ? "abnormal_rcpi: 1" : "abnormal_rcpi: 0"), std::string::npos);
    }
}

TEST(Sns, WithoutAReportTheMeasurementTimesOut)
{
    steer_node node;
    measuring();
    tick(7);
    EXPECT_TRUE(s_results.empty());
    tick(1);
    EXPECT_EQ(s_results, std::vector<std::string>{"none"});
}

TEST(Sns, ALeavingNeighbourIsNoLongerACandidate)
{
    steer_node node;
    measuring();
    mesh_receive(PEER_B, "SNEI_EXIT", "{}");
    report({{BSS_5, -70}, {BSS_B, -45}});
    EXPECT_EQ(s_results, std::vector<std::string>{"none"});
}

TEST(Sns, ThreeMeasurementsPerPeriodAndTheSameWinnerTwice)
{
    steer_node node("bandherd.best_cand_reconfirm=1\n");
    ssta_status_t *sta = measuring();
    report({{BSS_5, -70}, {BSS_B, -45}});
    ASSERT_EQ(sns_start_measure(sta, on_result), 0);
    report({{BSS_5, -70}, {BSS_B, -45}});
    EXPECT_EQ(s_results, (std::vector<std::string>{"none", "02:00:00:00:0b:01"}));
    // A rejoin forgets the first win.
    ASSERT_EQ(sns_start_measure(sta, on_result), 0);
    report({{BSS_5, -70}, {BSS_B, -45}});
    sta_event(MAPS_EV_STA_JOIN, STA, 2, -70);
    EXPECT_FALSE(sns_measure_allowed(sta));  // the fourth within the period
    tick(30);
    ASSERT_EQ(sns_start_measure(sta, on_result), 0);
    report({{BSS_5, -70}, {BSS_B, -45}});
    EXPECT_EQ(s_results.back(), "none");
}

}  // namespace
