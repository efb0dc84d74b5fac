#include "steer_util.h"

#include <cstring>

#include "fake_cm.h"
#include "fake_platform.h"
#include "fake_uwb.h"
#include "maps.h"
#include "msg_util.h"
#include "steer.h"
#include "steer_ctl.h"
#include "steer_msg.h"
#include "steer_nei.h"
#include "steer_rate.h"
#include "test_util.h"

const uint8_t STA[6] = {0x02, 0xaa, 0, 0, 0, 0x01};
const uint8_t PEER_B[6] = {0x02, 0x00, 0x00, 0x00, 0x0b, 0x00};
const uint8_t PEER_C[6] = {0x02, 0x00, 0x00, 0x00, 0x0c, 0x00};
const uint8_t SELF_ID[6] = {0x02, 0x00, 0x00, 0x00, 0x0a, 0x00};
const uint8_t BSS_24[6] = {0x02, 0, 0, 0, 0, 0x01};
const uint8_t BSS_5[6] = {0x02, 0, 0, 0, 0, 0x02};
const uint8_t BSS_B[6] = {0x02, 0, 0, 0, 0x0b, 0x01};
const uint8_t BSS_C[6] = {0x02, 0, 0, 0, 0x0c, 0x01};

steer_node::steer_node(const std::string &conf, const test_node &def)
    : conf_(conf.empty() ? nullptr : new conf_file(conf))
{
    fake_cm_reset();
    fake_platform_reset();
    memcpy(g_fake_self_mac, SELF_ID, 6);
    fake_uwb_reset();
    build_node(g_self, def);
    for (sap_bss_t *bss : g_self.managed_bss) {
        if (bss)
            bss->sta_max = 32;
    }
    mac_copy(g_self.node_id, SELF_ID);
    g_time = 1000;
    smsg_init();
    snei_init();
    ssta_init();
    srate_init();
    sctl_init();
    slog_set_level(nullptr, SLOG_DUMP);  // the steering modules' decisions are logged at dump level
}

steer_node::~steer_node()
{
    mesh_receive(PEER_B, "SNEI_EXIT", "{}");
    mesh_receive(PEER_C, "SNEI_EXIT", "{}");
    slog_set_level(nullptr, SLOG_INFO);
    steer_node_teardown();
}

void steer_node_teardown()
{
    sctl_exit();
    ssta_exit();
    srate_exit();
    snei_exit();
    smsg_exit();
    fake_cm_reset();
}

void sta_event(uint8_t code, const uint8_t *mac, uint8_t bss, int8_t rssi, uint32_t caps, uint8_t load)
{
    maps_msg_sta_t m = {};
    memcpy(m.mac, mac, 6);
    m.bss_index = bss;
    m.bands = MAPS_2G | MAPS_5L;
    m.caps = caps;
    m.rssi = rssi;
    m.nss = 2;
    m.load = load;
    m.sta_num = 1;
    nl_deliver(code, &m, sizeof(m));
}

ssta_status_t *join(const uint8_t *mac, uint8_t bss, int8_t rssi, uint32_t caps)
{
    sta_event(MAPS_EV_STA_JOIN, mac, bss, rssi, caps);
    return ssta_find(mac);
}

void heartbeat(const uint8_t *peer)
{
    char json[512];
    snprintf(json, sizeof(json),
             R"({"is_mpp":0,"link_rate2mpp":500,"hop":1,"ess":[{"essid":"herd","index":0}],
                 "radio":[{"work_band":4,"channel":36,"load":0,"sta_num":0}],
                 "bss":[{"bssid":"02:00:00:00:%02x:01","sta_num":0,"sta_max":32,"radio":1,"ess":0,"ifname":"wl1"}]})",
             peer[4]);
    mesh_receive(peer, "SNEI_HEARTBEAT", json);
}

void tick(int seconds)
{
    for (int i = 0; i < seconds; i++) {
        g_time++;
        fake_cm_advance(1);
    }
}

std::vector<std::string> take_set_sta()
{
    std::vector<std::string> out;
    for (const fake_maps_cmd &c : g_fake_uwb.maps) {
        if (c.cmd != MAPS_CMD_SET_STA)
            continue;
        maps_msg_sta_conf_t rec;
        memcpy(&rec, c.payload.data(), sizeof(rec));
        out.push_back(std::to_string(rec.mode) + " " + std::to_string(rec.block_bss));
    }
    g_fake_uwb.maps.clear();
    return out;
}

void bss_trans_rsp(const uint8_t *mac, uint8_t bss, uint8_t status)
{
    maps_msg_bss_trans_rsp_t r = {};
    memcpy(r.mac, mac, 6);
    r.bss_index = bss;
    r.status = status;
    nl_deliver(MAPS_EV_BSS_TRANS, &r, sizeof(r));
}

void reject(const uint8_t *mac, uint8_t bss, uint8_t count, int8_t rssi)
{
    maps_msg_reject_t r = {};
    memcpy(r.mac, mac, 6);
    r.bss_index = bss;
    r.count = count;
    r.rssi = rssi;
    nl_deliver(MAPS_EV_REJECT, &r, sizeof(r));
}

void radio_status(uint8_t radio, uint8_t load, uint8_t sta_num)
{
    g_self.radios[radio].load = load;
    g_self.radios[radio].sta_num = sta_num;
    sctl_radio_status_event(&g_self.radios[radio]);
}

std::string print(void (*printer)(FILE *, ssta_status_t *), ssta_status_t *sta)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&text, &size);
    printer(f, sta);
    fclose(f);
    std::string out(text, size);
    free(text);
    return out;
}
