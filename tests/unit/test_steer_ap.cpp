// The node model, built from real interfaces in a network namespace of the
// test's own, a fake Wi-Fi library and a recording driver.
#include <gtest/gtest.h>

#include <csignal>
#include <set>

#include "fake_cm.h"
#include "fake_platform.h"
#include "fake_uwb.h"
#include "steer.h"
#include "steer_ap.h"
#include "steer_drv.h"
#include "steer_exe.h"
#include "test_util.h"

namespace {

// A VAP: a kernel interface (a veth) and what the Wi-Fi library knows of it.
void add_vap(const std::string &kernel, const std::string &name, int index, int channel, const char *ssid,
             bool up = true)
{
    char mac[24];
    snprintf(mac, sizeof(mac), "02:00:00:00:01:%02x", index & 0xff);
    EXPECT_EQ(sexe_no_out("ip link add %s type veth peer name %s-p && ip link set %s address %s", kernel.c_str(),
                          kernel.c_str(), kernel.c_str(), mac),
              0);
    if (up) {
        EXPECT_EQ(sexe_no_out("ip link set %s up", kernel.c_str()), 0);
    }
    fake_uwb_vap vap;
    vap.os_ifname = kernel;
    vap.channel = channel;
    if (channel <= 14)
        vap.channels = {1, 6, 11};
    else
        vap.channels = {36, 40, 44, 48, 52, 56, 60, 64, 100, 104, 149, 153, 157, 161, 165};
    vap.ssid = ssid;
    g_fake_uwb.vaps[name] = vap;
}

void reset_all(const std::string &ess, const std::string &more_conf = "")
{
    fake_cm_reset();
    fake_uwb_reset();
    fake_platform_reset();
    g_self = sap_node_t{};
    // Interfaces of an earlier round go (deleting one end of a veth deletes both).
    EXPECT_EQ(system("for i in 0 1 2 3; do ip link del wlan$i 2>/dev/null; done; true"), 0);
    setenv("BANDHERD_CONF", "/var/bandherd.conf", 1);
    write_file("/var/bandherd.conf", (ess == "(none)" ? "" : "bandherd.ess=" + ess + "\n") + more_conf);
}

std::vector<fake_maps_cmd> commands(int cmd)
{
    std::vector<fake_maps_cmd> out;
    for (const fake_maps_cmd &c : g_fake_uwb.maps)
        if (c.cmd == cmd)
            out.push_back(c);
    return out;
}

void node_with_two_esses()
{
    reset_all("wl0,wl1;wl2");
    add_vap("wlan0", "wl0", 1, 6, "herd");
    add_vap("wlan1", "wl1", 2, 149, "herd");
    add_vap("wlan2", "wl2", 3, 6, "guest");  // same band and channel as wl0
    sap_init();

    // Two radios: wl2 only joins wl0's.
    sap_radio_t *r24 = nullptr, *r5 = nullptr;
    for (int i = 1; i <= 3; i++) {
        if (g_self.radios[i].channel == 6)
            r24 = &g_self.radios[i];
        if (g_self.radios[i].channel == 149)
            r5 = &g_self.radios[i];
    }
    ASSERT_TRUE(r24 && r5);
    EXPECT_EQ(r24->work_band, MAPS_2G);
    EXPECT_EQ(r5->work_band, MAPS_5H);
    EXPECT_EQ(g_self.radios[1].channel == 0 || g_self.radios[2].channel == 0 || g_self.radios[3].channel == 0, true);
    // In interface order, whatever the directory gives.
    std::set<std::string> shared = {r24->bss[0], r24->bss[1]};
    EXPECT_EQ(shared, (std::set<std::string>{"wl0", "wl2"}));
    EXPECT_STREQ(r24->bss[2], "");
    EXPECT_EQ(commands(MAPS_CMD_ADD_RADIO).size(), 3u);
    for (const fake_maps_cmd &c : commands(MAPS_CMD_ADD_RADIO)) {
        int expected = c.ifname == "wl1" ? r5->radio_index : r24->radio_index;
        EXPECT_EQ(c.payload, (std::vector<uint8_t>{(uint8_t)expected})) << c.ifname;
    }

    // "wl0,wl1;wl2": indices 1, 2, 3 in that order.
    EXPECT_STREQ(g_self.ess[0].essid, "herd");
    EXPECT_STREQ(g_self.ess[1].essid, "guest");
    const char *names[] = {"", "wl0", "wl1", "wl2"};
    for (int i = 1; i <= 3; i++) {
        sap_bss_t *bss = sap_get_bss(i);
        EXPECT_TRUE(bss && strcmp(bss->ifname, names[i]) == 0) << i;
    }
    EXPECT_EQ(sap_get_bss(1)->bssid[5], 1);
    EXPECT_EQ(sap_get_bss(2)->radio, r5);
    EXPECT_EQ(sap_get_bss(3)->ess, &g_self.ess[1]);
    EXPECT_EQ(sap_get_bss(2)->sta_max, 32);

    // Each BSS is configured with its ESS's radios.
    std::vector<fake_maps_cmd> set_bss = commands(MAPS_CMD_SET_BSS);
    EXPECT_EQ(set_bss.size(), 3u);
    uint32_t herd = (1u << r24->radio_index) | (1u << r5->radio_index);
    uint32_t guest = 1u << r24->radio_index;
    for (const fake_maps_cmd &c : set_bss) {
        maps_msg_bss_conf_t conf;
        memcpy(&conf, c.payload.data(), sizeof(conf));
        EXPECT_EQ(conf.ess_radios, c.ifname == "wl2" ? guest : herd) << c.ifname;
        EXPECT_STREQ(names[conf.index], c.ifname.c_str());
    }
    // Every own BSS is in every BSS's neighbour report.
    EXPECT_EQ(fake_uwb_calls("add_rrm_neighbor").size(), 9u);

    uint8_t bssid[6] = {0x02, 0, 0, 0, 0x01, 0x02};
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
    EXPECT_NE(printed.find("[ESS1] 'guest'\n[BSS3] wl2              02:00:00:00:01:03 RADIO"), std::string::npos)
        << printed;
    EXPECT_NE(printed.find("band:5H(0x08) channel:149 load:00% sta_num:0"), std::string::npos) << printed;

    // At exit the neighbour reports are emptied again.
    sap_exit();
    EXPECT_EQ(fake_uwb_calls("del_rrm_neighbor").size(), 9u);
}

TEST(SapInit, RadiosEssesAndBssesAreBuiltAndConfigured)
{
    EXPECT_SANDBOXED(SANDBOX_NET | SANDBOX_VAR, node_with_two_esses);
}

struct vap_def {
    const char *kernel, *name;
    int channel;
    const char *ssid;
    bool up;
};

const std::vector<vap_def> THREE = {{"wlan0", "wl0", 6, "herd", true},
                                    {"wlan1", "wl1", 149, "herd", true},
                                    {"wlan2", "wl2", 6, "herd", true}};

void bad_configurations()
{
    const struct {
        const char *ess;
        std::vector<vap_def> vaps;
        const char *fatal;
    } cases[] = {
        {"wl0,wl1,wl2,", THREE, "fatal sap_resolve_ess:[0-9]+, too many bss, support 3 bss per ess.\n"},
        {"wl0;wl1;wl2", THREE, "fatal sap_init_ess:[0-9]+, too manny ess, support 2 ess at most.\n"},
        {"wl0,wlx", THREE, "fatal sap_resolve_bss:[0-9]+, get mac address of 'wlx' failed.\n"},
        {"wl0,wl1",
         {{"wlan0", "wl0", 6, "herd", true}, {"wlan1", "wl1", 149, "flock", true}},
         "ifname\\(wl1\\) ssid = flock, ess->essid = herd,  different SSIDs in ess 'wl0,wl1'.\n"},
        {"wl0", {{"wlan0", "wl0", 6, "herd", false}}, "fatal sap_resolve_bss:[0-9]+, invalid radio.\n"},
        {"(none)", THREE, "fatal sconf_get_str:[0-9]+, get mib 'bandherd.ess' failed.\n"},
        // A fourth band and channel.
        {"wl0",
         {{"wlan0", "wl0", 1, "herd", true}, {"wlan1", "wl1", 6, "herd", true},
          {"wlan2", "wl2", 11, "herd", true}, {"wlan3", "wl3", 149, "herd", true}},
         "no enough space to addif\\(wl[0-3]\\), support 3 radios at most.\n"},
    };
    for (const auto &c : cases) {
        reset_all(c.ess);
        int i = 1;
        for (const vap_def &v : c.vaps)
            add_vap(v.kernel, v.name, i++, v.channel, v.ssid, v.up);
        EXPECT_FATAL(sap_init(), c.fatal) << c.ess;
    }
}

void accepted_configurations()
{
    // Empty items are skipped, a trailing semicolon after two ESSes is fine.
    reset_all(",wl0,,wl2;wl1;", "bandherd.en_ap=0\n");
    add_vap("wlan0", "wl0", 1, 6, "herd");
    add_vap("wlan1", "wl1", 2, 149, "flock");
    add_vap("wlan2", "wl2", 3, 6, "herd");
    sap_init();
    EXPECT_STREQ(sap_get_bss(2)->ifname, "wl2");
    EXPECT_STREQ(sap_get_bss(3)->ess->essid, "flock");
    // Without node steering no neighbour report is kept.
    sap_exit();
    EXPECT_TRUE(fake_uwb_calls("add_rrm_neighbor").empty());
    EXPECT_TRUE(fake_uwb_calls("del_rrm_neighbor").empty());
}

TEST(SapInit, EssSettingLimits)
{
    EXPECT_SANDBOXED(SANDBOX_NET | SANDBOX_VAR, accepted_configurations);
    EXPECT_SANDBOXED(SANDBOX_NET | SANDBOX_VAR, bad_configurations);
}

int s_status_calls;
void count_status(sap_radio_t *) { s_status_calls++; }

void deliver(uint8_t code, const void *payload, size_t size)
{
    g_fake_nl.incoming.push_back(nl_event(code, payload, size));
    sdrv_read(g_fake_nl.fd, 1, nullptr);
}

void radio_status_events()
{
    reset_all("wl0");
    add_vap("wlan0", "wl0", 1, 36, "herd");
    sap_init();
    sap_set_radio_status_cb(count_status);
    int slot = sap_get_bss(1)->radio->radio_index;

    log_capture log;
    maps_msg_radio_t msg = {(uint8_t)slot, 44, 57, 3, MAPS_5L};
    deliver(MAPS_EV_RADIO_STATUS, &msg, 7);
    msg.radio_index = 0;
    deliver(MAPS_EV_RADIO_STATUS, &msg, sizeof(msg));
    msg.radio_index = 4;
    deliver(MAPS_EV_RADIO_STATUS, &msg, sizeof(msg));
    EXPECT_EQ(s_status_calls, 0);
    EXPECT_EQ(g_self.radios[slot].channel, 36);

    msg.radio_index = (uint8_t)slot;
    deliver(MAPS_EV_RADIO_STATUS, &msg, sizeof(msg));
    EXPECT_EQ(s_status_calls, 1);
    EXPECT_EQ(g_self.radios[slot].channel, 44);
    EXPECT_EQ(g_self.radios[slot].load, 57);
    EXPECT_EQ(g_self.radios[slot].sta_num, 3);
    EXPECT_EQ(log.plain(), "error sap_radio_handler, invalid message length 7, should be 8\n"
                           "error sap_radio_handler, invalid radio index 0\n"
                           "error sap_radio_handler, invalid radio index 4\n");

    // A changed VAP set asks for a restart.
    EXPECT_EXIT(
        {
            log_to_stderr();
            deliver(MAPS_EV_VAP_UPDATE, nullptr, 0);
        },
        testing::KilledBySignal(SIGRTMIN + 1),
        "warning sap_vap_update_handler:[0-9]+, wireless configs may be changed. bandherd will exit. monitor should "
        "restart it.\n");
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
    EXPECT_EQ(sap_get_bss(0), nullptr);
    EXPECT_EQ(sap_get_bss(32), nullptr);
    EXPECT_EQ(sap_get_bss(4), nullptr);
    EXPECT_EQ(sap_get_bss(5), nullptr);  // a slot whose index is 0
    bss.bss_index = 5;
    EXPECT_EQ(sap_get_bss(5), &bss);
    EXPECT_EQ(log.plain(), "error sap_get_bss, invalid bss index 0\nerror sap_get_bss, invalid bss index 32\n"
                           "error sap_get_bss, NULL BSS4\nerror sap_get_bss, invalid bss5\n");
    g_self = sap_node_t{};
}

}  // namespace
