// The node model, built from real interfaces in a network namespace of the
// test's own, a fake Wi-Fi library and a recording driver.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "fake_cm.h"
#include "fake_platform.h"
#include "fake_uwb.h"
#include "maps.h"
#include "steer.h"
#include "steer_ap.h"
#include "steer_exe.h"
#include "test_util.h"

namespace {

// Starts afresh with "bandherd.ess" (none for "(none)") and one VAP per
// "name:channel:ssid" item ("!" after the SSID: down), the n-th a veth
// "wlan<n>" with the address 02:00:00:00:01:<n + 1>.
void setup(const std::string &ess, const std::string &vaps, const std::string &more_conf = "")
{
    fake_cm_reset();
    fake_uwb_reset();
    fake_platform_reset();
    g_self = sap_node_t{};
    // Interfaces of an earlier round go (deleting one end of a veth deletes both).
    EXPECT_EQ(system("for i in 0 1 2 3; do ip link del wlan$i 2>/dev/null; done; true"), 0);
    setenv("BANDHERD_CONF", "/var/bandherd.conf", 1);
    write_file("/var/bandherd.conf", (ess == "(none)" ? "" : "bandherd.ess=" + ess + "\n") + more_conf);
    std::istringstream items(vaps);
    std::string item;
    for (int n = 0; items >> item; n++) {
        char name[16], ssid[34];
        int channel = 0;
        ASSERT_EQ(sscanf(item.c_str(), "%15[^:]:%d:%33s", name, &channel, ssid), 3) << item;
        bool up = ssid[strlen(ssid) - 1] != '!';
        ssid[strcspn(ssid, "!")] = '\0';
        std::string kernel = "wlan" + std::to_string(n);
        EXPECT_EQ(sexe_no_out("ip link add %s type veth peer name %s-p && ip link set %s address 02:00:00:00:01:%02x%s",
                              kernel.c_str(), kernel.c_str(), kernel.c_str(), n + 1, up ? " up" : ""),
                  0);
        fake_uwb_vap &vap = g_fake_uwb.vaps[name];
        vap.os_ifname = kernel;
        vap.channel = channel;
        vap.ssid = ssid;
        if (channel <= 14)
            vap.channels = {1, 6, 11};
        else
            vap.channels = {36, 40, 44, 48, 52, 56, 60, 64, 100, 104, 149, 153, 157, 161, 165};
    }
}

// The driver's commands of one kind as "<ifname> <payload bytes>", radio
// slots (in any bit mask of them) shown as their channels.
std::vector<std::string> commands(int cmd)
{
    auto channels = [](uint32_t slots) {
        std::set<int> set;
        for (int i = 1; i <= SAP_RADIO_MAX; i++)
            if (slots & (1u << i))
                set.insert(g_self.radios[i].channel);
        std::string text;
        for (int c : set)
            text += " ch" + std::to_string(c);
        return text;
    };
    std::vector<std::string> out;
    for (const fake_maps_cmd &c : g_fake_uwb.maps) {
        if (c.cmd == MAPS_CMD_ADD_RADIO && c.cmd == cmd) {
            out.push_back(c.ifname + channels(1u << c.payload[0]));
        } else if (c.cmd == MAPS_CMD_SET_BSS && c.cmd == cmd) {
            maps_msg_bss_conf_t conf;
            memcpy(&conf, c.payload.data(), sizeof(conf));
            out.push_back(c.ifname + " bss" + std::to_string(conf.index) + channels(conf.ess_radios));
        }
    }
    return out;
}

void ess_settings()
{
    // Empty items are skipped, a trailing semicolon after two ESSes is fine; wl2 shares wl0's radio.
    setup(",wl0,,wl2;wl1;", "wl0:6:herd wl1:149:flock wl2:6:herd", "bandherd.en_ap=0\n");
    sap_init();
    EXPECT_STREQ(sap_get_bss(2)->ifname, "wl2");
    EXPECT_STREQ(sap_get_bss(3)->ess->essid, "flock");
    EXPECT_EQ(sap_get_bss(2)->radio, sap_get_bss(1)->radio);
    std::vector<std::string> added = commands(MAPS_CMD_ADD_RADIO);
    EXPECT_EQ(std::set<std::string>(added.begin(), added.end()),
              (std::set<std::string>{"wl0 ch6", "wl1 ch149", "wl2 ch6"}));
    // Each BSS is configured with the radios of its ESS.
    EXPECT_EQ(commands(MAPS_CMD_SET_BSS),
              (std::vector<std::string>{"wl0 bss1 ch6", "wl2 bss2 ch6", "wl1 bss3 ch149"}));
    uint8_t bssid[6] = {0x02, 0, 0, 0, 0x01, 0x03};
    EXPECT_EQ(sap_find_bss_on_node(&g_self, bssid), sap_get_bss(2));
    bssid[5] = 9;
    EXPECT_EQ(sap_find_bss_on_node(&g_self, bssid), nullptr);
    char *text = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&text, &len);
    sap_print_node(f, &g_self);
    fclose(f);
    std::string printed(text, len);
    free(text);
    EXPECT_NE(printed.find("[ESS1] 'flock'\n[BSS3] wl1              02:00:00:00:01:02 RADIO"), std::string::npos)
        << printed;
    EXPECT_NE(printed.find("band:5H(0x08) channel:149 load:00% sta_num:0"), std::string::npos) << printed;
    // Without node steering no neighbour report is kept.
    sap_exit();
    EXPECT_TRUE(fake_uwb_calls("add_rrm_neighbor").empty());
    EXPECT_TRUE(fake_uwb_calls("del_rrm_neighbor").empty());

    const char *three = "wl0:6:herd wl1:149:herd wl2:6:herd";
    const struct {
        const char *ess, *vaps, *fatal;
    } cases[] = {
        {"wl0,wl1,wl2,", three, "fatal sap_resolve_ess:[0-9]+, too many bss, support 3 bss per ess.\n"},
        {"wl0;wl1;wl2", three, "fatal sap_init_ess:[0-9]+, too manny ess, support 2 ess at most.\n"},
        {"wl0,wlx", three, "fatal sap_resolve_bss:[0-9]+, get mac address of 'wlx' failed.\n"},
        {"wl0,wl1", "wl0:6:herd wl1:149:flock",
         "ifname\\(wl1\\) ssid = flock, ess->essid = herd,  different SSIDs in ess 'wl0,wl1'.\n"},
        {"wl0", "wl0:6:herd!", "fatal sap_resolve_bss:[0-9]+, invalid radio.\n"},
        {"(none)", three, "fatal sconf_get_str:[0-9]+, get mib 'bandherd.ess' failed.\n"},
        {"wl0", "wl0:1:herd wl1:6:herd wl2:11:herd wl3:149:herd",  // a fourth band and channel
         "no enough space to addif\\(wl[0-3]\\), support 3 radios at most.\n"},
    };
    for (const auto &c : cases) {
        setup(c.ess, c.vaps);
        EXPECT_FATAL(sap_init(), c.fatal) << c.ess;
    }
}

TEST(SapInit, EssSettingLimits)
{
    EXPECT_SANDBOXED(SANDBOX_NET | SANDBOX_VAR, ess_settings);
}

int s_status_calls;
void count_status(sap_radio_t *) { s_status_calls++; }

void radio_status_events()
{
    setup("wl0", "wl0:36:herd");
    sap_init();
    sap_set_radio_status_cb(count_status);
    sap_radio_t *radio = sap_get_bss(1)->radio;

    log_capture log;
    maps_msg_radio_t msg = {radio->radio_index, 44, 57, 3, MAPS_5L};
    nl_deliver(MAPS_EV_RADIO_STATUS, &msg, 7);
    for (uint8_t index : {0, 4}) {
        msg.radio_index = index;
        nl_deliver(MAPS_EV_RADIO_STATUS, &msg, sizeof(msg));
    }
    EXPECT_EQ(s_status_calls, 0);
    EXPECT_EQ(radio->channel, 36);
    msg.radio_index = radio->radio_index;
    nl_deliver(MAPS_EV_RADIO_STATUS, &msg, sizeof(msg));
    EXPECT_EQ(s_status_calls, 1);
    EXPECT_EQ(std::make_tuple(radio->channel, radio->load, radio->sta_num), std::make_tuple(44, 57, 3));
    EXPECT_EQ(log.plain(), "error sap_radio_handler, invalid message length 7, should be 8\n"
                           "error sap_radio_handler, invalid radio index 0\n"
                           "error sap_radio_handler, invalid radio index 4\n");
}

TEST(SapRadio, StatusEventsAreCheckedThenApplied)
{
    EXPECT_SANDBOXED(SANDBOX_NET | SANDBOX_VAR, radio_status_events);
}

TEST(SapBss, LookupsRefuseBadIndices)
{
    g_self = sap_node_t{};
    sap_bss_t bss = {};
    g_self.managed_bss[5] = &bss;
    log_capture log;
    for (unsigned index : {0, 32, 4, 5})  // 5: a slot whose index is 0
        EXPECT_EQ(sap_get_bss(index), nullptr);
    bss.bss_index = 5;
    EXPECT_EQ(sap_get_bss(5), &bss);
    EXPECT_EQ(log.plain(), "error sap_get_bss, invalid bss index 0\nerror sap_get_bss, invalid bss index 32\n"
                           "error sap_get_bss, NULL BSS4\nerror sap_get_bss, invalid bss5\n");
    g_self = sap_node_t{};
}

}  // namespace
