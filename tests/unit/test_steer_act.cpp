#include <gtest/gtest.h>

#include "fake_uwb.h"
#include "maps.h"
#include "steer.h"
#include "steer_act.h"
#include "steer_btm.h"
#include "steer_util.h"
#include "test_util.h"

namespace {

std::vector<std::string> s_results;

void on_result(ssta_status_t *, const uint8_t *bssid, bool success)
{
    char text[40];
    snprintf(text, sizeof(text), "%s %s", success ? "success" : "fail", mac_text(bssid).s);
    s_results.push_back(text);
}

ssta_status_t *steerable(int8_t rssi = -60, uint32_t caps = 0x0f)
{
    ssta_status_t *sta = join(STA, 1, rssi, caps);
    sta->active = false;
    s_results.clear();
    g_fake_uwb.calls.clear();
    return sta;
}

TEST(Sact, RejectedBtmFallsBackToBackoffUnlessTheSignalMoved)
{
    for (int8_t now : {-63, -65}) {  // 3 dB and 5 dB from -60, with a dither of 4
        SCOPED_TRACE(now);
        steer_node node;
        ssta_status_t *sta = steerable();
        ASSERT_EQ(sact_steer(sta, sap_get_bss(2), &g_self, on_result), 0);
        sta_event(MAPS_EV_STA_STATUS, STA, 1, now);
        bss_trans_rsp(STA, 1, 1);
        if (now == -65) {
            EXPECT_EQ(s_results, std::vector<std::string>{"fail 02:00:00:00:00:02"});
            EXPECT_TRUE(fake_uwb_calls("kick_sta").empty());
            continue;
        }
        EXPECT_TRUE(s_results.empty());  // only the Backoff outcome is told
        EXPECT_EQ(fake_uwb_calls("kick_sta"), std::vector<std::string>{"kick_sta wl0 02:aa:00:00:00:01"});
        join(STA, 2, -55);
        EXPECT_EQ(s_results, std::vector<std::string>{"success 02:00:00:00:00:02"});
    }
}

TEST(Sact, RoamingBackWithinTheWindowForbidsTheTarget)
{
    steer_node node;
    ssta_status_t *sta = steerable();
    sap_bss_t *bss5 = sap_get_bss(2);
    ASSERT_EQ(sact_steer(sta, bss5, &g_self, on_result), 0);
    join(STA, 2, -55);
    ASSERT_EQ(s_results.size(), 1u);
    tick(10);
    join(STA, 1, -60);  // back where it was steered away from
    EXPECT_FALSE(sact_allow_steer(sta, bss5));
    tick(89);
    EXPECT_FALSE(sact_allow_steer(sta, bss5));
    tick(1);
    EXPECT_TRUE(sact_allow_steer(sta, bss5));

    // A steer that holds for the whole window closes its session and clears the target.
    auto *act = static_cast<sact_status_t *>(sta->act);
    tick(200);  // past the BTM and Backoff protections
    ASSERT_EQ(sact_steer(sta, bss5, &g_self, on_result), 0);
    join(STA, 2, -55);
    {
        log_capture log;
        join(STA, 2, -50);  // associating again where it was steered to is no roaming back
        EXPECT_EQ(log.text().find("roams back"), std::string::npos) << log.text();
    }
    EXPECT_EQ(act->sessions.size(), 1u);
    tick(300);
    EXPECT_TRUE(act->sessions.empty());
    EXPECT_EQ(act->timer, nullptr);
    EXPECT_FALSE(slimit_any_prohibited(act->limit_info));
}

TEST(Sact, BtmCapableStationsCountAsDualBand)
{
    steer_node node;
    ssta_status_t *sta = steerable();
    sta->bands = MAPS_6G;
    EXPECT_TRUE(sact_allow_steer(sta, nullptr));
    EXPECT_EQ(sta->bands, uint32_t(MAPS_6G | MAPS_2G | MAPS_5L | MAPS_5H));

    ssta_status_t *legacy = join((const uint8_t *)"\x02\xaa\0\0\0\x05", 1, -60, MAPS_CAP_HT);
    legacy->active = false;
    legacy->bands = MAPS_2G;
    log_capture log;
    EXPECT_FALSE(sact_allow_steer(legacy, sap_get_bss(2)));  // Backoff cannot take it to 5 GHz
    EXPECT_NE(log.plain().find("maybe it doesn't support the target band"), std::string::npos);
}

}  // namespace
