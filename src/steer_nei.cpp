#include "steer_nei.h"

#include "iof.h"
#include "steer_conf.h"
#include "steer_ev.h"
#include "steer_exe.h"
#include "steer_if.h"
#include "steer_msg.h"
#include "steer_rate.h"
#include "steer_ven.h"

namespace {

constexpr int SNEI_HEARTBEAT_PERIOD = 20;
constexpr int SNEI_AGE_PERIOD = 15;
constexpr int SNEI_FIRST_HEARTBEAT = 5;
constexpr long SNEI_MAX_AGE = 45;
constexpr int SNEI_MAX = 15;  // more than this many are refused: 16 are kept
constexpr int SNEI_NON_MPP_RATE = 999;

SLIST(sap_node_t, list) s_neighbors;
int s_neighbor_cnt;
uint8_t s_mppmac[MAC_LEN];
char s_backhaul_if[16];
sap_radio_t *s_backhaul_radio;
int s_max_mac_offset = 16;
snei_cb s_neighbor_init_cb;
snei_cb s_neighbor_fini_cb;
sev_timer_t *s_heartbeat_timer;
sev_timer_t *s_age_timer;

void snei_del(sap_node_t *node)
{
    LOG_INFO("%s:%d, neighbor " MAC_FMT " is offline", MAC_ARG(node->node_id));
    if (s_neighbor_fini_cb)
        s_neighbor_fini_cb(node);
    decltype(s_neighbors)::del(node);
    free(node);
    s_neighbor_cnt--;
}

void snei_backhaul_setup()
{
    sconf_get_str_def("bandherd.backhaul", s_backhaul_if, sizeof(s_backhaul_if), "");
    // The default portal is this node itself, by the address of its bridge.
    uint8_t br0[MAC_LEN] = {};
    sif_get_mac("br0", br0);
    char def[18];
    snprintf(def, sizeof(def), "%s", mac_text(br0).s);
    char text[18];
    sconf_get_str_def("bandherd.mppmac", text, sizeof(text), def);
    if (mac_scan(text, s_mppmac) != 0) {
        LOG_FATAL("%s:%d, invalid mpp mac '%s'", text);
        abort();
    }
    if (!mac_equal(g_self.node_id, s_mppmac)) {
        g_self.is_mpp = false;
        g_self.link_rate2mpp = SNEI_NON_MPP_RATE;
    }
    LOG_DEBUG("%s:%d, mpp_mac:" MAC_FMT ", is_mpp:%d", MAC_ARG(s_mppmac), g_self.is_mpp);

    uint8_t channel = sven_get_channel(s_backhaul_if);
    if (channel == 0) {
        LOG_INFO("%s:%d, unknow channel of %s, maybe it's a wired backhaul", s_backhaul_if);
        return;
    }
    for (int i = 1; i <= SAP_RADIO_MAX; i++) {
        if (g_self.radios[i].channel != 0 && g_self.radios[i].channel == channel) {
            s_backhaul_radio = &g_self.radios[i];
            return;
        }
    }
    LOG_WARN("%s:%d, can't find radio of %s", s_backhaul_if);
}

// The portal's IP address from the ARP table; false when it is not there.
bool snei_mpp_ip(char *ip, size_t size)
{
    FILE *f = fopen("/proc/net/arp", "r");
    if (!f) {
        LOG_ERROR("%s:%d, can't open arp");
        return false;
    }
    char mac[18];
    snprintf(mac, sizeof(mac), "%s", mac_text(s_mppmac).s);
    char line[128];
    bool found = false;
    while (fgets(line, sizeof(line), f)) {
        if (!strstr(line, mac))
            continue;
        if (char *blank = strchr(line, ' '))
            *blank = '\0';
        snprintf(ip, size, "%.15s", line);
        found = true;
        break;
    }
    fclose(f);
    return found;
}

void snei_update_rate()
{
    char ip[16];
    if (snei_mpp_ip(ip, sizeof(ip)))
        sexe_no_out("ping %s -c1 -s1400 -w1 >/dev/null", ip);
    else
        LOG_DEBUG("%s:%d, can't find mpp ip");

    uint8_t uplink[MAC_LEN] = {};
    int rate = 0, hop = 0;
    int ret = sven_get_uplink_rate(s_backhaul_if, s_mppmac, snei_same_node, uplink, &rate, &hop);
    if (ret != 0 || rate == 0 || hop == 0) {
        LOG_DEBUG("%s:%d, fail to get mesh information, ret %d, uplink_rate %d, hop %d, uplink " MAC_FMT, ret, rate,
                  hop, MAC_ARG(uplink));
        return;
    }
    sap_node_t *up = nullptr;
    for (sap_node_t *n = snei_get_first(); n; n = snei_get_next(n)) {
        if (snei_same_node(n->node_id, uplink)) {
            up = n;
            break;
        }
    }
    if (!up) {
        LOG_INFO("%s:%d, can't find neighbor who has mac " MAC_FMT, MAC_ARG(uplink));
        return;
    }
    // The rate to the portal divides estimates later: a neighbour without a
    // rate of its own leaves this node's rate as it was.
    int shared = srate_share_media_rate(rate, up->link_rate2mpp);
    if (shared <= 0) {
        LOG_INFO("%s:%d, no rate through " MAC_FMT ", keep link_rate2mpp %d", MAC_ARG(up->node_id),
                 g_self.link_rate2mpp);
        return;
    }
    g_self.hop = hop;
    g_self.link_rate2mpp = shared;
    LOG_DUMP("%s:%d, link rate: %d, upstream rate: %d, backhaul load: %d. update link_rate2mpp to %d, hop to %d", rate,
             up->link_rate2mpp, s_backhaul_radio->load, g_self.link_rate2mpp, g_self.hop);
}

void snei_heartbeat_send(void *)
{
    if (!g_self.is_mpp && s_backhaul_radio)
        snei_update_rate();

    smsg_dict_t *root = smsg_new_root();
    if (!root) {
        LOG_ERROR("%s:%d, new message failed");
        return;
    }
    smsg_put_int(root, "is_mpp", g_self.is_mpp ? 1 : 0);
    smsg_put_int(root, "link_rate2mpp", g_self.link_rate2mpp);
    smsg_put_int(root, "hop", g_self.hop);
    smsg_list_t *ess_list = smsg_add_list(root, "ess");
    smsg_list_t *radio_list = smsg_add_list(root, "radio");
    smsg_list_t *bss_list = smsg_add_list(root, "bss");
    if (!ess_list || !radio_list || !bss_list) {
        smsg_del_root(root);
        return;
    }
    for (int e = 0; e < SAP_ESS_MAX; e++) {
        if (g_self.ess[e].essid[0] == '\0')
            continue;
        smsg_dict_t *item = smsg_list_append(ess_list);
        if (!item)
            continue;
        smsg_put_string(item, "essid", g_self.ess[e].essid);
        smsg_put_int(item, "index", e);
    }
    for (int i = 1; i <= SAP_RADIO_MAX; i++) {
        const sap_radio_t *radio = &g_self.radios[i];
        if (radio->channel == 0)
            continue;
        smsg_dict_t *item = smsg_list_append(radio_list);
        if (!item)
            continue;
        smsg_put_int(item, "work_band", (int)radio->work_band);
        smsg_put_int(item, "channel", radio->channel);
        smsg_put_int(item, "load", radio->load);
        smsg_put_int(item, "sta_num", radio->sta_num);
    }
    for (int i = 1; i <= SAP_BSS_INDEX_MAX; i++) {
        const sap_bss_t *bss = g_self.managed_bss[i];
        if (!bss)
            continue;
        smsg_dict_t *item = smsg_list_append(bss_list);
        if (!item)
            continue;
        smsg_put_mac(item, "bssid", bss->bssid);
        smsg_put_int(item, "sta_num", bss->sta_num);
        smsg_put_int(item, "sta_max", bss->sta_max);
        smsg_put_int(item, "radio", bss->radio ? bss->radio->radio_index : 0);
        smsg_put_int(item, "ess", bss->ess ? bss->ess->ess_index : 0);
        smsg_put_string(item, "ifname", bss->ifname);
    }
    if (smsg_send(MAC_BCAST, "SNEI_HEARTBEAT", root) != 0)
        LOG_ERROR("%s:%d, send status failed");
    smsg_del_root(root);
}

sap_node_t *snei_new(const uint8_t *id)
{
    if (s_neighbor_cnt > SNEI_MAX) {
        LOG_ERROR("%s:%d, too many neighbors, support %d at most", SNEI_MAX);
        return nullptr;
    }
    auto *node = static_cast<sap_node_t *>(calloc(1, sizeof(sap_node_t)));
    if (!node) {
        LOG_ERROR("%s:%d, malloc failed");
        return nullptr;
    }
    LOG_INFO("%s:%d, neighbor " MAC_FMT " is online", MAC_ARG(id));
    mac_copy(node->node_id, id);
    s_neighbors.add_tail(node);  // the table keeps arrival order
    s_neighbor_cnt++;
    if (s_neighbor_init_cb)
        s_neighbor_init_cb(node);
    return node;
}

// What reading one list of a heartbeat came to.
enum snei_result {
    SNEI_OK,
    SNEI_MISSING,  // no ESS list: nothing more is read, the record stays
    SNEI_BAD,      // the record goes
};

snei_result snei_resolve_ess(sap_node_t *node, smsg_dict_t *root)
{
    smsg_list_iter_t iter;
    if (!smsg_list_iter(root, "ess", &iter))
        return SNEI_MISSING;
    for (smsg_dict_t *item; (item = smsg_list_next(&iter)) != nullptr;) {
        int err = 0;
        int index = smsg_get_int(item, "index", &err);
        if (err != 0) {
            LOG_ERROR("%s:%d, get field 'index' failed");
            return SNEI_BAD;
        }
        if ((unsigned)index >= SAP_ESS_MAX) {
            LOG_ERROR("%s:%d, invalid ess_index %d", index);
            return SNEI_BAD;
        }
        const char *essid = smsg_get_string(item, "essid");
        if (!essid) {
            LOG_ERROR("%s:%d, get essid failed");
            return SNEI_BAD;
        }
        const char *mine = g_self.ess[index].essid;
        if (mine[0] != '\0' && strcmp(mine, essid) != 0) {
            LOG_ERROR("%s:%d, ssid doesn't match, my '%s', [" MAC_FMT "] '%s'", mine, MAC_ARG(node->node_id), essid);
            return SNEI_BAD;
        }
        node->ess[index].ess_index = (uint8_t)index;
        snprintf(node->ess[index].essid, sizeof(node->ess[index].essid), "%.32s", essid);
    }
    return SNEI_OK;
}

snei_result snei_resolve_radio(sap_node_t *node, smsg_dict_t *root)
{
    smsg_list_iter_t iter;
    if (!smsg_list_iter(root, "radio", &iter))
        return SNEI_BAD;
    int n = 0;
    for (smsg_dict_t *item; (item = smsg_list_next(&iter)) != nullptr;) {
        n++;
        if (n > SAP_RADIO_MAX) {
            LOG_ERROR("%s:%d, invalid radio_index %d", n);
            return SNEI_BAD;
        }
        int channel = smsg_get_int(item, "channel", nullptr);
        if (channel < 1) {
            LOG_ERROR("%s:%d, invalid channel %d", channel);
            return SNEI_BAD;
        }
        sap_radio_t *radio = &node->radios[n];
        radio->channel = (uint8_t)channel;
        radio->radio_index = (uint8_t)n;
        radio->load = (uint8_t)smsg_get_int(item, "load", nullptr);
        radio->sta_num = (uint8_t)smsg_get_int(item, "sta_num", nullptr);
        radio->work_band = (uint32_t)smsg_get_int(item, "work_band", nullptr);
    }
    return SNEI_OK;
}

snei_result snei_resolve_bss(sap_node_t *node, smsg_dict_t *root)
{
    smsg_list_iter_t iter;
    if (!smsg_list_iter(root, "bss", &iter))
        return SNEI_BAD;
    int n = 0;
    for (smsg_dict_t *item; (item = smsg_list_next(&iter)) != nullptr;) {
        n++;
        const char *ifname = smsg_get_string(item, "ifname");
        if (!ifname) {
            LOG_ERROR("%s:%d, get ifname failed");
            return SNEI_BAD;
        }
        if (n > SAP_BSS_INDEX_MAX) {
            LOG_ERROR("%s:%d, invalid bss_index %d", n);
            return SNEI_BAD;
        }
        int radio_index = smsg_get_int(item, "radio", nullptr);
        if (radio_index < 1 || radio_index > SAP_RADIO_MAX) {
            LOG_ERROR("%s:%d, invalid radio_index %d", radio_index);
            return SNEI_BAD;
        }
        int ess_index = smsg_get_int(item, "ess", nullptr);
        if ((unsigned)ess_index >= SAP_ESS_MAX) {
            LOG_ERROR("%s:%d, invalid ess_index");
            return SNEI_BAD;
        }
        sap_ess_t *ess = &node->ess[ess_index];
        if (ess->essid[0] == '\0') {
            LOG_ERROR("%s:%d, invalid status of ess%d", ess_index);
            return SNEI_BAD;
        }
        sap_radio_t *radio = &node->radios[radio_index];
        if (radio->channel == 0) {
            LOG_ERROR("%s:%d, invalid status of radio%d", radio_index);
            return SNEI_BAD;
        }
        sap_bss_t *slot = nullptr;
        for (sap_bss_t &b : ess->bss)
            if (b.bss_index == n)
                slot = &b;
        if (!slot) {
            for (sap_bss_t &b : ess->bss) {
                if (b.bss_index == 0) {
                    slot = &b;
                    LOG_DEBUG("%s:%d, " MAC_FMT " add bss%d on ess%d radio%d", MAC_ARG(node->node_id), n, ess_index,
                              radio_index);
                    break;
                }
            }
        }
        if (!slot) {
            LOG_ERROR("%s:%d, ess%d list of " MAC_FMT " is full, can't add bss%d", ess_index, MAC_ARG(node->node_id),
                      n);
            return SNEI_BAD;
        }
        node->managed_bss[n] = slot;
        slot->ess = ess;
        slot->radio = radio;
        slot->bss_index = (uint8_t)n;
        slot->sta_num = (uint8_t)smsg_get_int(item, "sta_num", nullptr);
        slot->sta_max = (uint8_t)smsg_get_int(item, "sta_max", nullptr);
        smsg_get_mac(item, "bssid", slot->bssid);
        snprintf(slot->ifname, sizeof(slot->ifname), "%.15s", ifname);
    }
    return SNEI_OK;
}

void snei_heartbeat_recv(const uint8_t *, const uint8_t *sa, const char *, smsg_dict_t *root)
{
    sap_node_t *node = snei_find(sa);
    if (!node) {
        node = snei_new(sa);
        if (!node) {
            LOG_ERROR("%s:%d, new neigbor failed");
            return;
        }
    }
    node->time_stamp = (long)g_time;
    int err;
    node->link_rate2mpp = smsg_get_int(root, "link_rate2mpp", &err);
    node->is_mpp = smsg_get_int(root, "is_mpp", &err) != 0;
    node->hop = smsg_get_int(root, "hop", &err);

    snei_result (*const steps[])(sap_node_t *, smsg_dict_t *) = {snei_resolve_ess, snei_resolve_radio,
                                                                 snei_resolve_bss};
    for (auto step : steps) {
        snei_result r = step(node, root);
        if (r == SNEI_BAD)
            snei_del(node);
        if (r != SNEI_OK)
            return;
    }
}

void snei_exit_recv(const uint8_t *, const uint8_t *sa, const char *, smsg_dict_t *)
{
    sap_node_t *node = snei_find(sa);
    if (!node) {
        LOG_INFO("%s:%d, can't find neigbor " MAC_FMT, MAC_ARG(sa));
        return;
    }
    snei_del(node);
}

void snei_age_check(void *)
{
    for (sap_node_t *node : s_neighbors) {
        if (node->time_stamp + SNEI_MAX_AGE < (long)g_time) {
            LOG_DEBUG("%s:%d, node " MAC_FMT " is aged", MAC_ARG(node->node_id));
            snei_del(node);
        }
    }
}

}  // namespace

void snei_init()
{
    SLOG_REGISTER("nei");
    s_max_mac_offset = sconf_get_int_def("bandherd.max_mac", 16);
    if (iof_mac_addr_get(g_self.node_id) != 0) {
        LOG_FATAL("%s:%d, get mac address failed");
        abort();
    }
    snei_backhaul_setup();
    smsg_register("SNEI_HEARTBEAT", snei_heartbeat_recv);
    smsg_register("SNEI_EXIT", snei_exit_recv);
    s_heartbeat_timer = sev_new_timer(SNEI_HEARTBEAT_PERIOD, snei_heartbeat_send, nullptr);
    s_age_timer = sev_new_timer(SNEI_AGE_PERIOD, snei_age_check, nullptr);
    sev_timeout(SNEI_FIRST_HEARTBEAT, snei_heartbeat_send, nullptr);
}

void snei_exit()
{
    if (s_heartbeat_timer) {
        sev_del_timer(s_heartbeat_timer);
        s_heartbeat_timer = nullptr;
    }
    if (s_age_timer) {
        sev_del_timer(s_age_timer);
        s_age_timer = nullptr;
    }
    s_backhaul_radio = nullptr;
    s_backhaul_if[0] = '\0';
    // The neighbours go with the module, untold: whoever asked to hear of
    // their end has ended before it.
    for (sap_node_t *node : s_neighbors) {
        decltype(s_neighbors)::del(node);
        free(node);
    }
    s_neighbor_cnt = 0;
    smsg_dict_t *root = smsg_new_root();
    if (!root) {
        LOG_ERROR("%s:%d, new message failed");
        return;
    }
    smsg_send(MAC_BCAST, "SNEI_EXIT", root);
    smsg_del_root(root);
}

void snei_set_init_cb(snei_cb cb)
{
    SASSERT(cb);
    if (s_neighbor_init_cb)
        LOG_WARN("%s:%d, s_neighbor_init_cb is not NULL");
    s_neighbor_init_cb = cb;
}

void snei_set_fini_cb(snei_cb cb)
{
    SASSERT(cb);
    if (s_neighbor_fini_cb)
        LOG_WARN("%s:%d, s_neighbor_fini_cb is not NULL");
    s_neighbor_fini_cb = cb;
}

sap_node_t *snei_find(const uint8_t *id)
{
    if (!id) {
        LOG_ERROR("%s:%d, NULL pointer");
        return nullptr;
    }
    for (sap_node_t *node : s_neighbors)
        if (mac_equal(node->node_id, id))
            return node;
    return nullptr;
}

sap_node_t *snei_get_first()
{
    return s_neighbors.first();
}

sap_node_t *snei_get_next(sap_node_t *last)
{
    return last ? s_neighbors.next(last) : nullptr;
}

int snei_get_cnt()
{
    return s_neighbor_cnt;
}

int snei_find_bss(const uint8_t *bssid, sap_node_t **pnode, sap_bss_t **pbss)
{
    for (sap_node_t *node = snei_get_first(); node; node = snei_get_next(node)) {
        sap_bss_t *bss = sap_find_bss_on_node(node, bssid);
        if (bss) {
            *pnode = node;
            *pbss = bss;
            return 0;
        }
    }
    return -1;
}

sap_radio_t *snei_get_backhaul_radio()
{
    return s_backhaul_radio;
}

bool snei_same_node(const uint8_t *base_mac, const uint8_t *wlan_mac)
{
    SASSERT(base_mac);
    SASSERT(wlan_mac);
    auto be32 = [](const uint8_t *m) {
        return ((uint32_t)m[2] << 24) | ((uint32_t)m[3] << 16) | ((uint32_t)m[4] << 8) | (uint32_t)m[5];
    };
    uint64_t base = be32(base_mac);
    uint64_t wlan = be32(wlan_mac);
    return base <= wlan && base + (uint64_t)s_max_mac_offset > wlan;
}
