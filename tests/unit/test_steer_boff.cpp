#include <gtest/gtest.h>

#include "fake_platform.h"
#include "fake_uwb.h"
#include "maps.h"
#include "msg_util.h"
#include "steer.h"
#include "steer_boff.h"
#include "steer_conf.h"
#include "steer_util.h"
#include "test_util.h"

namespace {

std::vector<std::string> s_results;

void on_result(bool success, ssta_status_t *, const uint8_t *, const uint8_t *)
{
    s_results.push_back(success ? "success" : "fail");
}

sboff_status_t *boff_of(ssta_status_t *sta)
{
    return static_cast<sboff_status_t *>(sta->boff);
}

// Remaining seconds of the short and long prohibitions towards `bssid` (null: every target).
std::pair<unsigned long, unsigned long> left(ssta_status_t *sta, const uint8_t *bssid)
{
    slimit_info_t *info = boff_of(sta)->limit_info;
    slimit_ph_bss_t *ph = &info->ph_bss;
    if (bssid) {
        ph = nullptr;
        for (slimit_ph_bss_t *p : info->targets)
            if (mac_equal(p->bssid, bssid))
                ph = p;
        if (!ph)
            return {0, 0};
    }
    auto rest = [](unsigned long e) { return e > g_time ? e - g_time : 0; };
    return {rest(ph->ph_short.expire), rest(ph->ph_long.expire)};
}

// What the steering sent, without the heartbeats.
std::vector<std::string> steer_messages(weft_listener &weft)
{
    std::vector<std::string> out;
    for (const std::string &m : weft.take_messages())
        if (m.rfind("SNEI_", 0) != 0)
            out.push_back(m);
    return out;
}

TEST(Sboff, BlockKickAndEveryWayTheStationComesBack)
{
    const struct {
        const char *name;
        int8_t rssi;
        int8_t rejoin;  // the BSS it joins after the kick, 0: none
        int wait;
        const char *result;
        std::vector<std::string> unblock;  // what the driver is told at the end
        std::pair<unsigned long, unsigned long> target, all;
    } cases[] = {
        {"arrives on the target", -60, 2, 0, "success", {"0 0"}, {0, 0}, {0, 0}},
        {"returns to its old BSS", -60, 1, 0, "fail", {"0 0"}, {90, 0}, {0, 0}},
        {"never comes back, heard well", -60, 0, 25, "fail", {"2 0"}, {0, 0}, {0, 21600}},
        {"never comes back, weak", -80, 0, 25, "fail", {"0 0"}, {90, 0}, {0, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        steer_node node;
        ssta_status_t *sta = join(STA, 1, c.rssi);
        sta->active = false;
        take_set_sta();
        s_results.clear();
        ASSERT_EQ(sboff_steer(sta, BSS_5, SELF_ID, on_result), 0);
        EXPECT_EQ(take_set_sta(), std::vector<std::string>{"1 2"});  // BSS 1 blocked, BSS 2 open
        EXPECT_EQ(fake_uwb_calls("kick_sta"), std::vector<std::string>{"kick_sta wl0 02:aa:00:00:00:01"});
        EXPECT_EQ(boff_of(sta)->state, SBOFF_STATE_REASSOC);
        sta_event(MAPS_EV_STA_LEAVE, STA, 1, c.rssi);
        unsigned long t0 = g_time;
        if (c.rejoin)
            join(STA, c.rejoin, c.rssi);
        while (s_results.empty() && g_time < t0 + 40)
            tick(1);
        EXPECT_EQ(g_time - t0, unsigned(c.wait));
        EXPECT_EQ(s_results, std::vector<std::string>{c.result});
        EXPECT_EQ(take_set_sta(), c.unblock);
        EXPECT_EQ(left(sta, BSS_5), c.target);
        EXPECT_EQ(left(sta, nullptr), c.all);
    }
}

TEST(Sboff, OneSteerPer120SecondsAndNeverAnActiveStation)
{
    steer_node node;
    ssta_status_t *sta = join(STA, 1, -60);
    sta->active = true;
    log_capture log;
    EXPECT_FALSE(sboff_allowed(sta, BSS_5));
    EXPECT_NE(log.plain().find("because it's active"), std::string::npos);
    sta->active = false;
    ASSERT_EQ(sboff_steer(sta, BSS_5, SELF_ID, nullptr), 0);
    join(STA, 2, -60);
    tick(119);
    EXPECT_EQ(sboff_steer(sta, BSS_24, SELF_ID, nullptr), -1);
    EXPECT_NE(log.plain().find("not suitable for Backoff steering because of protection"), std::string::npos);
    tick(1);
    EXPECT_TRUE(sboff_allowed(sta, BSS_24));
}

void across_the_mesh()
{
    steer_node node;
    weft_listener weft;
    heartbeat(PEER_B);
    heartbeat(PEER_C);
    ssta_status_t *sta = join(STA, 1, -60);
    sta->active = false;
    weft.take();
    s_results.clear();
    ASSERT_EQ(sboff_steer(sta, BSS_B, PEER_B, on_result), 0);
    EXPECT_EQ(take_set_sta(), std::vector<std::string>{"1 6"});  // both BSSes here blocked
    EXPECT_EQ(steer_messages(weft),
              std::vector<std::string>{R"(SBOFF_START {"sta":"02:aa:00:00:00:01","target_bss":"02:00:00:00:0b:01",)"
                                       R"("target_node":"02:00:00:00:0b:00","low_rssi":0,"ess":0})"});
    mesh_receive(PEER_B, "SBOFF_READY", R"({"sta":"02:aa:00:00:00:01","ok":1})");
    EXPECT_TRUE(fake_uwb_calls("kick_sta").empty());
    mesh_receive(PEER_C, "SBOFF_READY", R"({"sta":"02:aa:00:00:00:01","ok":1})");
    EXPECT_EQ(fake_uwb_calls("kick_sta").size(), 1u);
    sta_event(MAPS_EV_STA_LEAVE, STA, 1, -60);
    // Refused here on its way: watched, not steered again.
    reject(STA, 2, 1, -62);
    EXPECT_EQ(boff_of(sta)->state, SBOFF_STATE_REASSOC);
    mesh_receive(PEER_B, "SBOFF_FINISH", R"({"sta":"02:aa:00:00:00:01","success":1})");
    EXPECT_EQ(s_results, std::vector<std::string>{"success"});
    EXPECT_EQ(take_set_sta(), std::vector<std::string>{"0 0"});

    // Another node's steer: blocked here on every BSS of the ESS until B says it is over.
    const uint8_t other[6] = {0x02, 0xaa, 0, 0, 0, 0x02};
    const std::string start = R"({"sta":"02:aa:00:00:00:02","target_bss":"02:00:00:00:0b:01",)"
                              R"("target_node":"02:00:00:00:0b:00","low_rssi":1,"ess":0})";
    weft.take();
    mesh_receive(PEER_B, "SBOFF_START", start);
    ssta_status_t *slave = ssta_find(other);
    ASSERT_NE(slave, nullptr);
    EXPECT_EQ(boff_of(slave)->state, SBOFF_STATE_SLAVE);
    EXPECT_EQ(take_set_sta(), std::vector<std::string>{"1 6"});
    EXPECT_EQ(steer_messages(weft), std::vector<std::string>{R"(SBOFF_READY {"sta":"02:aa:00:00:00:02","ok":1})"});
    tick(25);  // B never finishes: the block ends with the time-out
    EXPECT_EQ(boff_of(slave)->state, SBOFF_STATE_IDLE);
    EXPECT_EQ(take_set_sta(), std::vector<std::string>{"0 0"});

    // A station refused here for the first time is announced, and followed until it associates.
    const uint8_t third[6] = {0x02, 0xaa, 0, 0, 0, 0x03};
    log_capture log;
    reject(third, 1, 2, -80);
    EXPECT_EQ(steer_messages(weft),
              std::vector<std::string>{R"(SBOFF_PREASSOC {"sta":"02:aa:00:00:00:03","low_rssi":1})"});
    EXPECT_NE(log.plain().find("reject 02:aa:00:00:00:03 too frequently"), std::string::npos);
    join(third, 2, -80);
    EXPECT_EQ(boff_of(ssta_find(third))->state, SBOFF_STATE_IDLE);
    EXPECT_EQ(steer_messages(weft), (std::vector<std::string>{
                                         R"(SSTA_ASSOCIATE {"sta":"02:aa:00:00:00:03","associated":1,"bss":2})",
                                         R"(SBOFF_FINISH {"sta":"02:aa:00:00:00:03","success":1})"}));
}

TEST(Sboff, AcrossTheMeshBlocksEndWithTheSteer)
{
    EXPECT_SANDBOXED(SANDBOX_VAR, across_the_mesh);
}

TEST(Sboff, BlockLessLeavesTheTargetNodesOwnEssOpenAndGarbageIsDropped)
{
    conf_file conf("bandherd.boff_block_less=1\n");
    steer_node node;
    const std::string start = R"({"sta":"02:aa:00:00:00:02","target_bss":"02:00:00:00:00:02",)"
                              R"("target_node":"02:00:00:00:0b:00","low_rssi":0,"ess":0})";
    mesh_receive(PEER_B, "SBOFF_START", start);  // the target is B's own: nothing blocked here
    EXPECT_TRUE(take_set_sta().empty());
    log_capture log;
    mesh_receive(PEER_C, "SBOFF_START", R"({"sta":"02:aa:00:00:00:04","target_bss":"02:00:00:00:00:02",)"
                                        R"("target_node":"02:00:00:00:0b:00","low_rssi":0,"ess":5})");
    uint8_t short_rej[8] = {};
    nl_deliver(MAPS_EV_REJECT, short_rej, sizeof(short_rej));
    mesh_receive(PEER_C, "SBOFF_READY", R"({"sta":"02:aa:00:00:00:09","ok":1})");
    std::string text = log.plain();
    EXPECT_NE(text.find("ESS5 doesn't exist"), std::string::npos);
    EXPECT_NE(text.find("invalid msg size 8"), std::string::npos);
    EXPECT_NE(text.find("can't find sta 02:aa:00:00:00:09"), std::string::npos);
}

TEST(Sboff, TimeoutMustLeaveRoomForTheSync)
{
    conf_file conf("bandherd.boff_timeout=6\n");
    EXPECT_FATAL(steer_node node, "'boff_timeout' is not long enough");
}

}  // namespace
