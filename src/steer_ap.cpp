#include "steer_ap.h"

#include <csignal>

#include "maps.h"
#include "steer_conf.h"
#include "steer_drv.h"
#include "steer_if.h"
#include "steer_ven.h"
#include "uwb.h"

sap_node_t g_self;

namespace {

constexpr int SAP_UNBOUNDED_RATE = 999999;
constexpr int SAP_ESS_CONF_SIZE = 527;

sap_radio_status_cb s_radio_status_cb;
bool s_en_ap;

// Tells the driver that VAP `name` is on radio `slot`.
bool sap_add_radio(const char *name, int slot)
{
    maps_msg_radio_add_t add = {(uint8_t)slot};
    if (sdrv_ioctl(MAPS_CMD_ADD_RADIO, &add, sizeof(add), name) == 0)
        return true;
    LOG_ERROR("%s:%d, add '%s' to radio%d failed", name, slot);
    return false;
}

bool sap_handle_radio_interface(const char *ifname, void *)
{
    if (!sif_is_up(ifname))
        return false;
    char name[SAP_IFNAME_SIZE] = {};
    if (!sven_is_vap(ifname, name)) {
        LOG_DEBUG("%s:%d, ifname %s not vap\n", ifname);
        return false;
    }
    uint8_t channel = sven_get_channel(name);
    if (channel == 0)
        return false;
    uint8_t band = 0;
    sven_get_bandtype_by_chanlist(name, channel, &band);
    if (band == 0) {
        LOG_FATAL("%s:%d, (%s) : sven_get_bandtype_by_chanlist fail.\n", name);
        return false;
    }

    for (int i = 1; i <= SAP_RADIO_MAX; i++) {
        sap_radio_t *radio = &g_self.radios[i];
        if (radio->channel != channel || radio->work_band != band)
            continue;
        if (!sap_add_radio(name, i)) {
            LOG_FATAL("%s:%d, add radio failed.");
            abort();
        }
        for (auto &vap : radio->bss) {
            if (vap[0] == '\0') {
                snprintf(vap, sizeof(vap), "%s", name);
                LOG_DEBUG("%s:%d, add %s to radio%d", name, i);
                return false;
            }
        }
        LOG_FATAL("%s:%d, no enough space to addif(%s), support %d vaps per radio at most.", name, SAP_RADIO_VAP_MAX);
        abort();
    }

    for (int i = 1; i <= SAP_RADIO_MAX; i++) {
        sap_radio_t *radio = &g_self.radios[i];
        if (radio->channel != 0)
            continue;
        if (!sap_add_radio(name, i)) {
            LOG_FATAL("%s:%d, add radio vap failed.");
            abort();
        }
        radio->work_band = band;
        radio->channel = channel;
        radio->radio_index = (uint8_t)i;
        snprintf(radio->bss[0], sizeof(radio->bss[0]), "%s", name);
        LOG_DEBUG("%s:%d, add radio%d with %s, channel %u, bandtype 0x%x", i, name, channel, band);
        return false;
    }
    LOG_FATAL("%s:%d, no enough space to addif(%s), support %d radios at most.", name, SAP_RADIO_MAX);
    abort();
}

sap_radio_t *sap_radio_of(const char *name)
{
    uint8_t channel = sven_get_channel(name);
    if (channel == 0) {
        LOG_ERROR("%s:%d, invalid channel of '%s'.", name);
        return nullptr;
    }
    for (int i = 1; i <= SAP_RADIO_MAX; i++)
        if (g_self.radios[i].channel == channel)
            return &g_self.radios[i];
    LOG_ERROR("%s:%d, search radio for '%s' failed, channel %d", name, channel);
    return nullptr;
}

int sap_free_bss_index()
{
    for (int i = 1; i <= SAP_BSS_INDEX_MAX; i++)
        if (!g_self.managed_bss[i])
            return i;
    return 0;
}

// One VAP of an ESS, taking the next BSS slot of `ess`.
void sap_resolve_bss(sap_ess_t *ess, int slot, const char *name, const char *ess_text)
{
    sap_bss_t *bss = &ess->bss[slot];
    if (sif_get_mac(name, bss->bssid) != 0) {
        LOG_FATAL("%s:%d, get mac address of '%s' failed.", name);
        abort();
    }
    sap_radio_t *radio = sap_radio_of(name);
    if (!radio) {
        LOG_FATAL("%s:%d, invalid radio.");
        abort();
    }
    int index = sap_free_bss_index();
    if (index == 0) {
        LOG_ERROR("%s:%d, managed_bss is full, support %s bss at most", "31");
        LOG_FATAL("%s:%d, invalid bss_index.");
        abort();
    }
    char ssid[SAP_SSID_SIZE] = {};
    if (sven_get_ssid(name, ssid, sizeof(ssid)) != 0) {
        LOG_FATAL("%s:%d, get ssid failed.");
        abort();
    }
    if (ess->essid[0] == '\0') {
        snprintf(ess->essid, sizeof(ess->essid), "%s", ssid);
    } else if (strcmp(ess->essid, ssid) != 0) {
        LOG_FATAL("%s:%d, ifname(%s) ssid = %s, ess->essid = %s,  different SSIDs in ess '%s'.", name, ssid, ess->essid,
                  ess_text);
        abort();
    }
    snprintf(bss->ifname, sizeof(bss->ifname), "%s", name);
    bss->sta_max = (uint8_t)sven_get_sta_max(name);
    bss->radio = radio;
    bss->ess = ess;
    bss->bss_index = (uint8_t)index;
    g_self.managed_bss[index] = bss;
    sven_prepare_vap(name);
    LOG_DEBUG("%s:%d, manage %s id %u under radio%u essid '%s'", name, bss->bss_index, radio->radio_index, ess->essid);
}

// One ESS item of "bandherd.ess": VAP names separated by commas.
void sap_resolve_ess(int ess_index, char *text)
{
    sap_ess_t *ess = &g_self.ess[ess_index];
    char ess_text[SAP_ESS_CONF_SIZE];
    snprintf(ess_text, sizeof(ess_text), "%s", text);
    LOG_DEBUG("%s:%d, resolve ess '%s'", ess_text);
    ess->ess_index = (uint8_t)ess_index;

    // Empty items are skipped, but once the ESS is full any further item,
    // even an empty one after a trailing comma, is one too many.
    int count = 0;
    char *p = text;
    while (true) {
        char *comma = strchr(p, ',');
        if (comma)
            *comma = '\0';
        if (count == SAP_ESS_BSS_MAX) {
            LOG_FATAL("%s:%d, too many bss, support %d bss per ess.", SAP_ESS_BSS_MAX);
            abort();
        }
        if (*p)
            sap_resolve_bss(ess, count++, p, ess_text);
        if (!comma)
            break;
        p = comma + 1;
    }
}

void sap_init_ess()
{
    char conf[SAP_ESS_CONF_SIZE] = {};
    sconf_get_str("bandherd.ess", conf, sizeof(conf));

    int count = 0;
    char *p = conf;
    while (true) {
        char *semi = strchr(p, ';');
        if (semi)
            *semi = '\0';
        if (*p) {
            if (count == SAP_ESS_MAX) {
                LOG_FATAL("%s:%d, too manny ess, support %d ess at most.", SAP_ESS_MAX);
                abort();
            }
            sap_resolve_ess(count++, p);
        }
        if (!semi)
            break;
        p = semi + 1;
    }
}

// Whether a managed BSS's interface is there and up; FATAL-level lines when not.
bool sap_bss_is_up(const sap_bss_t &bss)
{
    char osif[SAP_IFNAME_SIZE] = {};
    if (uwb_get_os_ifname(bss.ifname, osif, sizeof(osif)) != 0) {
        LOG_FATAL("%s:%d, %s get os ifname fail", bss.ifname);
        return false;
    }
    if (!sif_is_up(osif)) {
        LOG_FATAL("%s:%d, BSS%d(%s) is not up", bss.bss_index, bss.ifname);
        return false;
    }
    return true;
}

void sap_setup_bss()
{
    for (sap_ess_t &ess : g_self.ess) {
        if (ess.essid[0] == '\0')
            continue;
        uint32_t radios = 0;
        for (sap_bss_t &bss : ess.bss) {
            if (bss.bss_index == 0)
                continue;
            sap_radio_t *radio = bss.radio;
            SASSERT(radio);
            radios |= 1u << radio->radio_index;
        }
        LOG_DUMP("%s:%d, ESS '%s' use radios 0x%x", ess.essid, radios);

        for (sap_bss_t &bss : ess.bss) {
            if (bss.bss_index == 0)
                continue;
            if (!sap_bss_is_up(bss))
                abort();
            LOG_DEBUG("%s:%d, ifname(%s) : add nbr info into rrm_nbr_list.\n", bss.ifname);
            if (s_en_ap)
                sven_add_nbr_info(bss.ifname);
            maps_msg_bss_conf_t conf = {};
            conf.index = bss.bss_index;
            conf.ess_radios = radios;
            if (sdrv_ioctl(MAPS_CMD_SET_BSS, &conf, sizeof(conf), bss.ifname) != 0) {
                LOG_ERROR("%s:%d, config BSS%d(%s) failed", bss.bss_index, bss.ifname);
                LOG_FATAL("%s:%d, config BSS%d failed", bss.bss_index);
                abort();
            }
        }
    }
}

// One band, or both halves of 5 GHz.
bool sap_is_band(uint32_t band)
{
    return band == MAPS_2G || band == MAPS_6G || (band != 0 && (band & ~(uint32_t)(MAPS_5L | MAPS_5H)) == 0);
}

void sap_radio_handler(uint8_t, void *data, uint32_t size)
{
    if (size != sizeof(maps_msg_radio_t)) {
        LOG_ERROR("%s:%d, invalid message length %u, should be %u", size, (unsigned)sizeof(maps_msg_radio_t));
        return;
    }
    maps_msg_radio_t msg;
    memcpy(&msg, data, sizeof(msg));
    if (msg.radio_index < 1 || msg.radio_index > SAP_RADIO_MAX) {
        LOG_ERROR("%s:%d, invalid radio index %d", msg.radio_index);
        return;
    }
    LOG_DUMP("%s:%d, radio%u, channel: %u, load: %u%%, work_band: 0x%x", msg.radio_index, msg.channel, msg.load,
             msg.work_band);
    sap_radio_t *radio = &g_self.radios[msg.radio_index];
    // The steering decisions rely on every radio in use having a channel and
    // a band: a status that would break that is dropped.
    if (radio->channel == 0) {
        LOG_ERROR("%s:%d, radio%u is not in use, status dropped", msg.radio_index);
        return;
    }
    if (msg.channel == 0 || !sap_is_band(msg.work_band)) {
        LOG_ERROR("%s:%d, radio%u reports channel %u band 0x%x, status dropped", msg.radio_index, msg.channel,
                  msg.work_band);
        return;
    }
    if (radio->channel != msg.channel)
        LOG_DEBUG("%s:%d, channel of radio%d change from %d to %d", msg.radio_index, radio->channel, msg.channel);
    radio->work_band = msg.work_band;
    radio->load = msg.load;
    radio->channel = msg.channel;
    radio->sta_num = msg.sta_num;
    if (s_radio_status_cb)
        s_radio_status_cb(radio);
}

void sap_vap_update_handler(uint8_t, void *, uint32_t)
{
    LOG_WARN("%s:%d, wireless configs may be changed. bandherd will exit. monitor should restart it.");
    raise(SIGRTMIN + 1);
}

const char *sap_band_name(uint32_t band)
{
    switch (band) {
    case MAPS_2G:
        return "2G";
    case MAPS_5L:
        return "5L";
    case MAPS_5H:
        return "5H";
    case MAPS_6G:
        return "6G";
    default:
        return "??";
    }
}

}  // namespace

void sap_init()
{
    SLOG_REGISTER("ap");
    g_self.hop = 0;
    g_self.is_mpp = true;
    g_self.link_rate2mpp = SAP_UNBOUNDED_RATE;
    s_en_ap = sconf_get_int_def("bandherd.en_ap", 1) != 0;

    if (sif_iterate(sap_handle_radio_interface, nullptr) != 0) {
        LOG_FATAL("%s:%d, init radio failed");
        abort();
    }
    sap_init_ess();
    sap_setup_bss();
    sdrv_register_event(MAPS_EV_RADIO_STATUS, sap_radio_handler);
    sdrv_register_event(MAPS_EV_VAP_UPDATE, sap_vap_update_handler);
}

void sap_exit()
{
    for (sap_ess_t &ess : g_self.ess) {
        if (ess.essid[0] == '\0')
            continue;
        for (sap_bss_t &bss : ess.bss) {
            if (bss.bss_index == 0)
                continue;
            if (!sap_bss_is_up(bss))
                continue;
            if (s_en_ap) {
                sven_del_nbr_info(bss.ifname, bss.radio ? bss.radio->work_band : 0);
                LOG_DUMP("%s:%d, ifname(%s) : del nbr info from rrm_nbr_list.\n", bss.ifname);
            }
        }
    }
}

sap_bss_t *sap_get_bss(unsigned int index)
{
    if (index < 1 || index > SAP_BSS_INDEX_MAX) {
        LOG_ERROR("%s:%d, invalid bss index %u", index);
        return nullptr;
    }
    sap_bss_t *bss = g_self.managed_bss[index];
    if (!bss) {
        LOG_ERROR("%s:%d, NULL BSS%u", index);
        return nullptr;
    }
    if (bss->bss_index == 0) {
        LOG_ERROR("%s:%d, invalid bss%u", index);
        return nullptr;
    }
    return bss;
}

sap_bss_t *sap_find_bss_on_node(sap_node_t *node, const uint8_t *bssid)
{
    SASSERT(node);
    SASSERT(bssid);
    for (int i = 1; i <= SAP_BSS_INDEX_MAX; i++) {
        sap_bss_t *bss = node->managed_bss[i];
        if (bss && mac_equal(bss->bssid, bssid))
            return bss;
    }
    return nullptr;
}

void sap_set_radio_status_cb(sap_radio_status_cb cb)
{
    SASSERT(cb);
    if (s_radio_status_cb)
        LOG_WARN("%s:%d, s_radio_status_cb is not NULL");
    s_radio_status_cb = cb;
}

void sap_print_node(FILE *f, sap_node_t *node)
{
    SASSERT(f);
    SASSERT(node);
    SPRINTF(f, "\n****** NODE " MAC_FMT " ******\n", MAC_ARG(node->node_id));
    SPRINTF(f, "is_mpp: %d\n", node->is_mpp);
    SPRINTF(f, "hop_to_mpp: %d\n", node->hop);
    SPRINTF(f, "link_rate_to_mpp: %d\n", node->link_rate2mpp);
    for (int e = 0; e < SAP_ESS_MAX; e++) {
        sap_ess_t *ess = &node->ess[e];
        if (ess->essid[0] == '\0')
            continue;
        SPRINTF(f, "\n[ESS%d] '%s'\n", e, ess->essid);
        for (sap_bss_t &bss : ess->bss) {
            if (bss.bss_index == 0)
                continue;
            SPRINTF(f, "[BSS%d] %-16s " MAC_FMT " RADIO%u sta_num:%-3u sta_max:%-3u\n", bss.bss_index, bss.ifname,
                    MAC_ARG(bss.bssid), bss.radio ? bss.radio->radio_index : 0, bss.sta_num, bss.sta_max);
        }
    }
    for (int i = 1; i <= SAP_RADIO_MAX; i++) {
        sap_radio_t *radio = &node->radios[i];
        if (radio->channel == 0)
            continue;
        SPRINTF(f, "[RADIO%d] band:%s(0x%02x) channel:%-3u load:%02u%% sta_num:%-3u\n", i,
                sap_band_name(radio->work_band), radio->work_band, radio->channel, radio->load, radio->sta_num);
    }
}
