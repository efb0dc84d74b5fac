#include <gtest/gtest.h>

#include "fake_cm.h"
#include "fake_platform.h"
#include "fake_uwb.h"
#include "maps.h"
#include "msg_util.h"
#include "steer.h"
#include "steer_msg.h"
#include "steer_nei.h"
#include "steer_ven.h"
#include "test_util.h"

namespace {

std::vector<std::string> s_events;

void on_online(sap_node_t *node) { s_events.push_back("online " + std::to_string(node->node_id[5])); }
void on_offline(sap_node_t *node) { s_events.push_back("offline " + std::to_string(node->node_id[5])); }

std::string heartbeat(const std::string &essid = "herd", int radios = 2, int hop = 1, int bss_radio = 2)
{
    std::string radio_list;
    for (int i = 0; i < radios; i++)
        radio_list += std::string(i ? "," : "") + R"({"work_band":2,"channel":)" + std::to_string(1 + 5 * i) +
                      R"(,"load":7,"sta_num":1})";
    return R"({"is_mpp":0,"link_rate2mpp":433,"hop":)" + std::to_string(hop) + R"(,"ess":[{"essid":")" + essid +
           R"(","index":0}],"radio":[)" + radio_list +
           R"(],"bss":[{"bssid":"02:00:00:00:0b:01","sta_num":3,"sta_max":32,"radio":1,"ess":0,"ifname":"wl0"},)"
           R"({"bssid":"02:00:00:00:0b:02","sta_num":0,"sta_max":64,"radio":)" +
           std::to_string(bss_radio) + R"(,"ess":0,"ifname":"wl1"}]})";
}

const uint8_t *node_mac(int i)
{
    static uint8_t mac[6];
    const uint8_t base[6] = {0x02, 0x00, 0x00, 0x00, 0x10, (uint8_t)i};
    memcpy(mac, base, 6);
    return mac;
}

class SneiTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake_cm_reset();
        fake_platform_reset();
        fake_uwb_reset();
        build_node(g_self);
        g_time = 1000;
        smsg_init();
        snei_init();
        snei_set_init_cb(on_online);
        snei_set_fini_cb(on_offline);
        s_events.clear();
    }
    void TearDown() override
    {
        // Every neighbour says goodbye.
        for (int i = 0; i < 40; i++)
            mesh_receive(node_mac(i), "SNEI_EXIT", "{}");
        EXPECT_EQ(snei_get_cnt(), 0);
        snei_exit();
        fake_cm_reset();
    }
};

TEST_F(SneiTest, SixteenNeighboursAreKeptInArrivalOrderAndTheSeventeenthRefused)
{
    for (int i = 1; i <= 16; i++)
        mesh_receive(node_mac(i), "SNEI_HEARTBEAT", heartbeat());
    EXPECT_EQ(snei_get_cnt(), 16);
    log_capture log;
    mesh_receive(node_mac(17), "SNEI_HEARTBEAT", heartbeat());
    EXPECT_EQ(snei_get_cnt(), 16);
    EXPECT_EQ(snei_find(node_mac(17)), nullptr);
    EXPECT_EQ(log.plain(), "error snei_new, too many neighbors, support 15 at most\n"
                           "error snei_heartbeat_recv, new neigbor failed\n");
    int i = 1;
    for (sap_node_t *n = snei_get_first(); n; n = snei_get_next(n))
        EXPECT_EQ(n->node_id[5], i++);
}

TEST_F(SneiTest, MalformedHeartbeatsRemoveTheSenderAndAHeartbeatWithoutEssesKeepsIt)
{
    const struct {
        std::string text;
        const char *log;
    } cases[] = {
        {heartbeat("flock"), "ssid doesn't match, my 'herd', [02:00:00:00:10:01] 'flock'"},
        {heartbeat("herd", 4), "invalid radio_index 4"},
        {heartbeat("herd", 2, 1, 3), "invalid status of radio3"},
        {heartbeat("herd", 2, 1, 0), "invalid radio_index 0"},
    };
    for (const auto &c : cases) {
        mesh_receive(node_mac(1), "SNEI_HEARTBEAT", heartbeat());
        s_events.clear();
        log_capture log;
        mesh_receive(node_mac(1), "SNEI_HEARTBEAT", c.text);
        EXPECT_EQ(snei_get_cnt(), 0) << c.log;
        EXPECT_NE(log.text().find(c.log), std::string::npos) << log.text();
        EXPECT_EQ(s_events, (std::vector<std::string>{"offline 1"}));
    }

    mesh_receive(node_mac(2), "SNEI_HEARTBEAT",
            R"({"is_mpp":1,"link_rate2mpp":5,"hop":0,"radio":[{"work_band":2,"channel":1,"load":0,"sta_num":0}]})");
    sap_node_t *node = snei_find(node_mac(2));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->link_rate2mpp, 5);
    EXPECT_TRUE(node->is_mpp);
    EXPECT_EQ(node->radios[1].channel, 0);  // nothing after the missing list is read
}

TEST_F(SneiTest, EndForgetsEveryNeighbour)
{
    mesh_receive(node_mac(1), "SNEI_HEARTBEAT", heartbeat());
    snei_exit();
    snei_init();
    EXPECT_EQ(snei_get_cnt(), 0);
    EXPECT_EQ(snei_find(node_mac(1)), nullptr);
    EXPECT_EQ(s_events, (std::vector<std::string>{"online 1"}));  // no one is told: the controller ended first
}

TEST(SneiSameNode, AddressBlockOfOneNode)
{
    const uint8_t base[6] = {0x02, 0x00, 0x00, 0x00, 0x0a, 0x00};
    // Only bytes 2 to 5 count: 16 addresses from the base.
    for (auto [wlan, same] : {std::pair<const char *, bool>{"02:00:00:00:0a:00", true}, {"7e:11:00:00:0a:0f", true},
                              {"02:00:00:00:0a:10", false}, {"02:00:00:00:09:ff", false},
                              {"02:00:01:00:0a:00", false}}) {
        uint8_t mac[6];
        mac_scan(wlan, mac);
        EXPECT_EQ(snei_same_node(base, mac), same) << wlan;
    }
}

TEST(SneiInit, PortalAddressMustScan)
{
    fake_platform_reset();
    conf_file conf("bandherd.mppmac=02:00:zz\n");
    EXPECT_FATAL(snei_init(), "fatal snei_backhaul_setup:[0-9]+, invalid mpp mac '02:00:zz'\n");
}

}  // namespace

namespace {

// Only a heartbeat without its ESS list keeps the sender; without the radio
// or the BSS list it is malformed. A bad BSSID leaves the one known.
TEST_F(SneiTest, MissingListsAndBadAddressesInAHeartbeat)
{
    const std::string good = heartbeat();
    auto without = [&](const std::string &key) {
        std::string text = good;
        size_t at = text.find(",\"" + key + "\":[");
        size_t end = text.find(']', at);
        return text.erase(at, end + 1 - at);
    };
    struct {
        std::string key;
        bool kept;
    } cases[] = {{"ess", true}, {"radio", false}, {"bss", false}};
    for (const auto &c : cases) {
        mesh_receive(node_mac(1), "SNEI_HEARTBEAT", good);
        mesh_receive(node_mac(1), "SNEI_HEARTBEAT", without(c.key));
        EXPECT_EQ(snei_find(node_mac(1)) != nullptr, c.kept) << c.key;
    }

    std::string bad = good;
    bad.replace(bad.find("02:00:00:00:0b:01"), 17, "aa:bb:zz:00:00:00");
    mesh_receive(node_mac(1), "SNEI_HEARTBEAT", good);
    log_capture log;
    mesh_receive(node_mac(1), "SNEI_HEARTBEAT", bad);
    sap_node_t *node = snei_find(node_mac(1));
    ASSERT_NE(node, nullptr);
    const uint8_t old_bssid[6] = {0x02, 0, 0, 0, 0x0b, 0x01};
    EXPECT_TRUE(mac_equal(node->managed_bss[1]->bssid, old_bssid));
    EXPECT_NE(log.text().find("scan mac failed, 'aa:bb:zz:00:00:00'"), std::string::npos) << log.text();
}

// A node whose uplink neighbour reports no rate of its own keeps the rate it
// had: estimates divide by it.
TEST_F(SneiTest, OwnRateToThePortalNeverBecomesZero)
{
    snei_exit();
    fake_cm_reset();
    g_fake_uwb.vaps["bh0"].channel = 36;
    g_fake_uwb.bssid = "02:00:00:00:10:01";  // the uplink: neighbour 1
    g_fake_uwb.link_rate = 300;
    conf_file conf("bandherd.backhaul=bh0\nbandherd.mppmac=02:00:00:00:10:07\n");
    snei_init();
    ASSERT_NE(snei_get_backhaul_radio(), nullptr);
    sven_init();
    mesh_receive(node_mac(1), "SAP_INFO", R"({"mac":"02:00:00:00:10:01","hopcont":2})");

    std::string uplink = heartbeat();
    uplink.replace(uplink.find("\"link_rate2mpp\":433"), 19, "\"link_rate2mpp\":0");
    mesh_receive(node_mac(1), "SNEI_HEARTBEAT", uplink);
    fake_cm_advance(20);
    EXPECT_EQ(g_self.link_rate2mpp, 999);
    EXPECT_EQ(g_self.hop, 0);

    mesh_receive(node_mac(1), "SNEI_HEARTBEAT", heartbeat());
    fake_cm_advance(20);
    EXPECT_EQ(g_self.link_rate2mpp, 177);  // 300 and 433 sharing one medium
    EXPECT_EQ(g_self.hop, 2);
    sven_exit();
}

// Without a configured portal the node is its own portal when the portal's
// address, by default its bridge's, is its own; the device address may differ.
void portal_by_bridge_address()
{
    ASSERT_EQ(system("ip link add br0 type bridge && ip link set br0 address 02:11:22:33:44:55"), 0);
    for (bool same : {false, true}) {
        fake_platform_reset();
        fake_cm_reset();
        fake_uwb_reset();
        g_self = sap_node_t{};
        g_self.is_mpp = true;
        if (same) {
            const uint8_t br0[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
            memcpy(g_fake_self_mac, br0, 6);
        }
        setenv("BANDHERD_CONF", "/nonexistent", 1);
        snei_init();
        EXPECT_EQ(g_self.is_mpp, same);
        snei_exit();
    }
}

TEST(SneiInit, DefaultPortalIsTheBridgeAddress)
{
    EXPECT_SANDBOXED(SANDBOX_NET, portal_by_bridge_address);
}

}  // namespace
