#include <gtest/gtest.h>

#include "fake_platform.h"
#include "fake_uwb.h"
#include "maps.h"
#include "msg_util.h"
#include "steer.h"
#include "steer_btm.h"
#include "steer_nei.h"
#include "steer_util.h"
#include "test_util.h"

namespace {

std::vector<std::string> s_results;

void on_result(bool success, ssta_status_t *, const uint8_t *bssid, const uint8_t *node)
{
    char text[64];
    snprintf(text, sizeof(text), "%s %s %s", success ? "success" : "fail", mac_text(bssid).s,
             mac_text(node).s);
    s_results.push_back(text);
}

sbtm_status_t *btm_of(ssta_status_t *sta)
{
    return static_cast<sbtm_status_t *>(sta->btm);
}

std::string ready(int ok = 1)
{
    return R"({"sta":"02:aa:00:00:00:01","ok":)" + std::to_string(ok) + "}";
}

// Steers STA from BSS 1 towards B's BSS with both neighbours known.
ssta_status_t *steer_to_b()
{
    heartbeat(PEER_B);
    heartbeat(PEER_C);
    ssta_status_t *sta = join(STA, 1, -60);
    sap_node_t *node = nullptr;
    sap_bss_t *bss = nullptr;
    EXPECT_EQ(snei_find_bss(BSS_B, &node, &bss), 0);
    s_results.clear();
    g_fake_uwb.calls.clear();
    take_set_sta();
    EXPECT_EQ(sbtm_steer(sta, bss, node->node_id, on_result), 0);
    EXPECT_EQ(btm_of(sta)->state, SBTM_STATE_SYNC);
    EXPECT_EQ(take_set_sta(), std::vector<std::string>{"2 0"});  // free to join anywhere here
    return sta;
}

const std::string REQUEST = "bss_trans_req wl0 02:aa:00:00:00:01 02:00:00:00:0b:01 36";
const std::string FAIL_B = "fail 02:00:00:00:0b:01 02:00:00:00:0b:00";
const std::string SUCCESS_B = "success 02:00:00:00:0b:01 02:00:00:00:0b:00";

TEST(Sbtm, HandshakeRequestAndEveryWayAnAttemptEnds)
{
    const struct {
        const char *name;
        int replies;       // SBTM_READY answers before the sync time-out
        int request_at;    // seconds after the start
        // what happens next, and when
        void (*after)(ssta_status_t *);
        int wait;
        std::string result;
        unsigned long short_s, long_s;  // prohibition of B's BSS afterwards
    } cases[] = {
        {"arrives on B", 2, 0,
         [](ssta_status_t *) { mesh_receive(PEER_B, "SBTM_FINISH", R"({"sta":"02:aa:00:00:00:01","success":1})"); },
         0, SUCCESS_B, 0, 0},
        {"one neighbour silent", 1, 3,
         [](ssta_status_t *) { mesh_receive(PEER_B, "SBTM_FINISH", R"({"sta":"02:aa:00:00:00:01","success":1})"); },
         0, SUCCESS_B, 0, 0},
        {"rejects", 2, 0, [](ssta_status_t *) { bss_trans_rsp(STA, 1, 6); }, 0, FAIL_B, 90, 0},
        {"accepts, never leaves", 2, 0, [](ssta_status_t *) { bss_trans_rsp(STA, 1, 0); }, 14, FAIL_B, 90, 0},
        {"leaves, arrives nowhere", 2, 0, [](ssta_status_t *) { sta_event(MAPS_EV_STA_LEAVE, STA, 1, -60); }, 17,
         FAIL_B, 0, 21600},
        {"joins another BSS here", 2, 0, [](ssta_status_t *) { join(STA, 2, -60); }, 0,
         FAIL_B, 90, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        steer_node node;
        ssta_status_t *sta = steer_to_b();
        unsigned long begin = g_time;
        if (c.replies >= 1)
            mesh_receive(PEER_B, "SBTM_READY", ready());
        EXPECT_TRUE(fake_uwb_calls("bss_trans_req").empty());
        if (c.replies >= 2)
            mesh_receive(PEER_C, "SBTM_READY", ready());
        while (fake_uwb_calls("bss_trans_req").empty() && g_time < begin + 10)
            tick(1);
        EXPECT_EQ(fake_uwb_calls("bss_trans_req"), std::vector<std::string>{REQUEST});
        EXPECT_EQ(g_time - begin, unsigned(c.request_at));
        EXPECT_EQ(btm_of(sta)->state, SBTM_STATE_REASSOC);
        c.after(sta);
        unsigned long t0 = g_time;
        while (s_results.empty() && g_time < t0 + 30)
            tick(1);
        EXPECT_EQ(g_time - t0, unsigned(c.wait));
        EXPECT_EQ(s_results, std::vector<std::string>{c.result});
        EXPECT_EQ(btm_of(sta)->state, SBTM_STATE_IDLE);
        EXPECT_EQ(take_set_sta().back(), "0 0");  // unblocked again
        slimit_ph_bss_t *ph = btm_of(sta)->limit_info->targets.first();
        EXPECT_EQ(ph ? ph->ph_short.expire - (ph->ph_short.expire ? g_time : 0) : 0, c.short_s);
        EXPECT_EQ(ph ? ph->ph_long.expire - (ph->ph_long.expire ? g_time : 0) : 0, c.long_s);
        EXPECT_EQ(sbtm_allowed(sta, BSS_B), c.short_s == 0 && c.long_s == 0);
        tick(2);
        EXPECT_EQ(btm_of(sta)->timer, nullptr);  // outlives the steer by one tick at most
    }
}

void handshake_messages()
{
    steer_node node;
    weft_listener weft;
    ssta_status_t *sta = steer_to_b();
    mesh_receive(PEER_B, "SBTM_READY", ready(0));  // B is not prepared: the steer ends at once
    EXPECT_EQ(s_results, std::vector<std::string>{FAIL_B});
    EXPECT_EQ(btm_of(sta)->state, SBTM_STATE_IDLE);
    const std::string start = R"(SBTM_START {"sta":"02:aa:00:00:00:01","target_bss":"02:00:00:00:0b:01",)"
                              R"("target_node":"02:00:00:00:0b:00"})";
    std::vector<std::string> sent = weft.take_messages();
    ASSERT_GE(sent.size(), 2u);
    EXPECT_EQ(sent[sent.size() - 2], start);
    EXPECT_EQ(sent.back(), R"(SBTM_FINISH {"sta":"02:aa:00:00:00:01","success":0})");

    // The other side: C asks us to get ready for a steer to B.
    const uint8_t other[6] = {0x02, 0xaa, 0, 0, 0, 0x02};
    mesh_receive(PEER_C, "SBTM_START", R"({"sta":"02:aa:00:00:00:02","target_bss":"02:00:00:00:00:02",)"
                                       R"("target_node":"02:00:00:00:0c:00"})");
    ssta_status_t *slave = ssta_find(other);
    ASSERT_NE(slave, nullptr);
    EXPECT_EQ(btm_of(slave)->state, SBTM_STATE_SLAVE);
    EXPECT_EQ(weft.take_messages(), std::vector<std::string>{R"(SBTM_READY {"sta":"02:aa:00:00:00:02","ok":1})"});
    join(other, 2, -55);  // it arrives here, on the target
    EXPECT_EQ(btm_of(slave)->state, SBTM_STATE_IDLE);
    std::vector<std::string> after = weft.take_messages();
    EXPECT_EQ(after.back(), R"(SBTM_FINISH {"sta":"02:aa:00:00:00:02","success":1})");
    EXPECT_EQ(take_set_sta().back(), "0 0");
    EXPECT_TRUE(s_results.size() == 1);  // a slave reports to nobody here
}

TEST(Sbtm, NeighboursAreToldAndTellBack)
{
    EXPECT_SANDBOXED(SANDBOX_VAR, handshake_messages);
}

TEST(Sbtm, RefusalsAndBadInput)
{
    steer_node node;
    heartbeat(PEER_B);
    ssta_status_t *sta = join(STA, 1, -60);
    sap_bss_t *target = sap_get_bss(2);
    for (int i = 0; i < 4; i++) {  // four per 50 s, however each ended
        EXPECT_EQ(sbtm_steer(sta, target, g_self.node_id, nullptr), 0) << i;
        mesh_receive(PEER_B, "SBTM_READY", ready(0));
    }
    log_capture log;
    EXPECT_EQ(sbtm_steer(sta, target, g_self.node_id, nullptr), -1);
    EXPECT_NE(log.plain().find("is not suitable for BTM steering because of protection"), std::string::npos);

    ssta_status_t *legacy = join((const uint8_t *)"\x02\xaa\0\0\0\x03", 1, -60, MAPS_CAP_HT);
    EXPECT_FALSE(sbtm_allowed(legacy, target->bssid));
    EXPECT_NE(log.plain().find("because it doesn't support BTM"), std::string::npos);

    // Garbage from the driver and the mesh is logged and dropped.
    uint8_t short_rsp[7] = {};
    nl_deliver(MAPS_EV_BSS_TRANS, short_rsp, sizeof(short_rsp));
    mesh_receive(PEER_B, "SBTM_READY", R"({"sta":"02:aa:00:00:00:09","ok":1})");
    mesh_receive(PEER_B, "SBTM_START", R"({"sta":"02:aa:00:00:00:09"})");
    mesh_receive(PEER_B, "SBTM_FINISH", R"({"success":1})");
    std::string text = log.plain();
    EXPECT_NE(text.find("invalid msg size 7"), std::string::npos);
    EXPECT_NE(text.find("can't find station 02:aa:00:00:00:09"), std::string::npos);
    EXPECT_NE(text.find("can't find station 00:00:00:00:00:00"), std::string::npos);
    EXPECT_EQ(ssta_find((const uint8_t *)"\x02\xaa\0\0\0\x09"), nullptr);
}

TEST(Sbtm, TimeoutMustLeaveRoomForTheSync)
{
    for (const char *timeout : {"6", "7"}) {
        conf_file conf(std::string("bandherd.btm_timeout=") + timeout + "\n");
        if (timeout[0] == '6') {
            EXPECT_FATAL(steer_node node, "'btm_timeout' is not long enough");
        } else {
            steer_node node;
        }
    }
}

}  // namespace
