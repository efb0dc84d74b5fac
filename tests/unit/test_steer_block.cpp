#include <gtest/gtest.h>

#include "fake_uwb.h"
#include "maps.h"
#include "steer.h"
#include "steer_block.h"
#include "steer_util.h"
#include "test_util.h"

namespace {

TEST(Sblock, FlagsCombineIntoOneModeSentEveryTime)
{
    fake_uwb_reset();
    ssta_status_t sta = {};
    mac_copy(sta.mac, STA);
    const struct {
        int (*update)(ssta_status_t *, bool);
        bool no_block;
        const char *sent;
    } steps[] = {
        {sblock_update_boff, true, "2 0"},   {sblock_update_btm, false, "2 0"}, {sblock_update_btm, true, "2 0"},
        {sblock_update_boff, false, "2 0"},  {sblock_update_btm, false, "0 0"}, {sblock_update_ctl, false, "0 0"},
        {sblock_update_ctl, true, "2 0"},
    };
    for (const auto &s : steps) {
        EXPECT_EQ(s.update(&sta, s.no_block), 0);
        EXPECT_EQ(take_set_sta(), std::vector<std::string>{s.sent});
    }
    char *text = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&text, &size);
    sblock_print(f, &sta, false);
    sblock_print(f, &sta, true);
    fclose(f);
    EXPECT_STREQ(text, "sblock/no_block: 1\nsblock/no_block_btm: 0\nsblock/no_block_boff: 0\nsblock/no_block_ctl: 1\n");
    free(text);

    g_fake_uwb.steer_maps = [](const std::string &, uint8_t *, size_t) { return -1; };
    log_capture log;
    EXPECT_EQ(sblock_update_btm(&sta, true), -1);
    EXPECT_TRUE(sta.no_block_btm);  // kept for the next update
    EXPECT_NE(log.plain().find("sblock_disable, ioctl MAPS_CMD_SET_STA failed"), std::string::npos) << log.plain();
}

TEST(Sblock, EveryBssOfTheEssButTheTargetIsBlocked)
{
    fake_uwb_reset();
    ssta_status_t sta = {};
    mac_copy(sta.mac, STA);
    sap_ess_t ess = {};
    const uint8_t target[6] = {2, 0, 0, 0, 0, 1};
    mac_copy(ess.bss[0].bssid, target);
    ess.bss[0].bss_index = 1;
    ess.bss[2].bss_index = 3;  // the middle slot is empty
    EXPECT_EQ(sblock_bss(&sta, target, &ess), 0);
    EXPECT_EQ(take_set_sta(), std::vector<std::string>{"1 8"});

    ess.bss[1].bss_index = 32;
    log_capture log;
    EXPECT_EQ(sblock_bss(&sta, target, &ess), 0);
    EXPECT_EQ(take_set_sta(), std::vector<std::string>{"1 8"});
    EXPECT_NE(log.plain().find("invalid bss index 32"), std::string::npos);
}

}  // namespace
