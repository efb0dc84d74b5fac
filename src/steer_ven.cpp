#include "steer_ven.h"

#include <unistd.h>

#include "steer.h"
#include "steer_ap.h"
#include "steer_conf.h"
#include "uwb.h"

namespace {

uint8_t s_uplink_mac[MAC_LEN];
int s_hopcount;

struct sven_band_row {
    uint8_t band;
    uint8_t low;
    uint8_t high;
};

// Tried in this order: a list wholly inside 1 to 14 is 2.4 GHz even on a 6 GHz radio.
constexpr sven_band_row s_band_table[] = {
    {MAPS_2G, 1, 14},
    {MAPS_5L, 36, 64},
    {MAPS_5H, 100, 196},
    {MAPS_5L | MAPS_5H, 36, 196},
    {MAPS_6G, 1, 233},
};

constexpr int SVEN_BTM_LOAD = 80;
constexpr useconds_t SVEN_PRE_BTM_WAIT = 200 * 1000;
constexpr unsigned SVEN_POST_BTM_WAIT = 2;

// The 802.11k band code of a radio band, or 0.
uint8_t sven_nbr_band(uint32_t band)
{
    if (band == MAPS_2G)
        return 2;
    if (band & (MAPS_5L | MAPS_5H))
        return 5;
    if (band == MAPS_6G)
        return 6;
    return 0;
}

struct sven_own_bss {
    sap_ess_t *ess;
    sap_bss_t *bss;
};

constexpr int SVEN_OWN_BSS_MAX = SAP_ESS_MAX * SAP_ESS_BSS_MAX;

// Every BSS in use of every ESS of this node with an SSID; returns the count.
int sven_own_bsses(sven_own_bss *out)
{
    int n = 0;
    for (sap_ess_t &ess : g_self.ess) {
        if (ess.essid[0] == '\0')
            continue;
        for (sap_bss_t &bss : ess.bss)
            if (bss.bss_index != 0)
                out[n++] = {&ess, &bss};
    }
    return n;
}

}  // namespace

void sven_init()
{
    smsg_register("SAP_INFO", sven_info_recv);
}

void sven_exit()
{
    // A start after this one has heard no SAP_INFO yet.
    memset(s_uplink_mac, 0, sizeof(s_uplink_mac));
    s_hopcount = 0;
}

int sven_ioctl(void *data, size_t size, const char *ifname)
{
    SASSERT(data || ifname);
    return uwb_steer_maps(ifname, data, size, data);
}

uint8_t sven_get_channel(const char *ifname)
{
    SASSERT(ifname);
    uwb_chan_info_t info = {};
    if (uwb_get_chan_info(ifname, &info) != 0) {
        LOG_ERROR("%s:%d, %s get channel failed!", ifname);
        return 0;
    }
    return info.channel;
}

int sven_get_bandtype_by_chanlist(const char *ifname, uint8_t channel, uint8_t *bandtype)
{
    SASSERT(ifname);
    SASSERT(bandtype);
    uwb_chan_list_t list = {};
    if (uwb_get_channel_list(ifname, &list) != 0)
        return -1;

    for (const sven_band_row &row : s_band_table) {
        bool inside = true;
        for (int i = 0; i < list.count; i++)
            if (list.channels[i] < row.low || list.channels[i] > row.high)
                inside = false;
        if (inside) {
            *bandtype = row.band;
            break;
        }
    }
    if (*bandtype == (MAPS_5L | MAPS_5H)) {
        if (channel >= 36 && channel <= 64)
            *bandtype = MAPS_5L;
        else if (channel >= 100 && channel <= 196)
            *bandtype = MAPS_5H;
        else
            *bandtype = 0;
    }
    return 0;
}

int8_t sven_get_sta_max(const char *ifname)
{
    SASSERT(ifname);
    return (int8_t)uwb_get_sta_maxnum(ifname);
}

int sven_get_ssid(const char *ifname, char *ssid, size_t size)
{
    SASSERT(ifname);
    SASSERT(ssid);
    return uwb_get_ssid(ifname, ssid, size);
}

int sven_kick_sta(const char *ifname, const uint8_t *mac)
{
    SASSERT(ifname);
    SASSERT(mac);
    return uwb_kick_sta(ifname, mac, MAC_LEN);
}

int sven_get_link_rate(const char *ifname, const uint8_t *mac)
{
    SASSERT(ifname);
    SASSERT(mac);
    uwb_sta_info_t info = {};
    int count = 0;
    int rate = 0;
    if (uwb_get_sta_info(ifname, mac, &info, 1, &count) == 0 && count > 0)
        rate = info.rate;
    LOG_INFO("%s:%d, ===link rate:%d===", rate);
    return rate;
}

int sven_get_uplink_rate(const char *backhaul_if, const uint8_t *mpp, sven_same_node_cb is_same_node, uint8_t *uplink,
                         int *rate, int *hop)
{
    SASSERT(hop);
    SASSERT(mpp);
    SASSERT(backhaul_if);
    SASSERT(rate);
    SASSERT(uplink);
    SASSERT(is_same_node);

    if (uwb_get_bssid(backhaul_if, uplink, MAC_LEN) == 0 && !mac_is_zero(uplink)) {
        *rate = sven_get_link_rate(backhaul_if, uplink);
        LOG_INFO("%s:%d, UPLINK rate %d", *rate);
    }
    *hop = *rate ? s_hopcount : 0;
    return 0;
}

void sven_prepare_vap(const char *ifname)
{
    SASSERT(ifname);
    uwb_ap_cap_t caps = {};
    if (uwb_get_ap_cap(ifname, &caps) != 0) {
        LOG_FATAL("%s:%d, %s : get ap cap for %s failed", ifname, ifname);
        abort();
    }
    LOG_INFO("%s:%d, ifname(%s) 11k cap : %d", ifname, caps.rrm_11k);
    LOG_INFO("%s:%d, ifname(%s) 11v cap : %d", ifname, caps.btm_11v);
    if (caps.btm_11v != 1) {
        LOG_FATAL("%s:%d, %s : 11v is not enable, please enable it", ifname);
        abort();
    }
    if (sconf_get_int_def("bandherd.en_ap", 1) == 0)
        return;
    if (caps.rrm_11k != 1) {
        LOG_FATAL("%s:%d, %s : 11k is not enable, please enable it", ifname);
        abort();
    }
}

void sven_add_nbr_info(const char *ifname)
{
    SASSERT(ifname);
    sven_own_bss own[SVEN_OWN_BSS_MAX];
    int n = sven_own_bsses(own);
    for (int i = 0; i < n; i++) {
        const sap_ess_t *ess = own[i].ess;
        const sap_bss_t *bss = own[i].bss;
        const sap_radio_t *radio = bss->radio;
        SASSERT(radio);
        uwb_rrm_nbr_t entry = {};
        if (uwb_get_os_ifname(bss->ifname, entry.ifname, sizeof(entry.ifname)) != 0) {
            LOG_FATAL("%s:%d, %s get os ifname fail", bss->ifname);
            continue;
        }
        mac_copy(entry.bssid, bss->bssid);
        entry.channel = radio->channel;
        entry.band = sven_nbr_band(radio->work_band);
        if (entry.band == 0) {
            LOG_FATAL("%s:%d, ifname(%s) : wrong bandtype!\n", bss->ifname);
            continue;
        }
        uint8_t ssid_len = 0;
        while (ssid_len < SAP_SSID_SIZE - 1 && ess->essid[ssid_len] != '\0')
            ssid_len++;
        entry.ssid_len = ssid_len;
        memcpy(entry.ssid, ess->essid, entry.ssid_len);
        int ret = uwb_add_rrm_neighbor(ifname, &entry);
        if (ret != 0)
            LOG_FATAL("%s:%d, ifname(%s) : add nbr_info(%s) failed. ret = %d\n", ifname, bss->ifname, ret);
    }
}

void sven_del_nbr_info(const char *ifname, uint32_t bandtype)
{
    SASSERT(ifname);
    sven_own_bss own[SVEN_OWN_BSS_MAX];
    int n = sven_own_bsses(own);
    for (int i = 0; i < n; i++) {
        const sap_bss_t *bss = own[i].bss;
        if (bandtype != MAPS_6G && bss->radio && bss->radio->work_band == MAPS_6G)
            continue;
        LOG_DUMP("%s:%d, ifname(%s) : del nbr_info[" MAC_FMT "] from rrm_nbr_list.\n", ifname, MAC_ARG(bss->bssid));
        int ret = uwb_del_rrm_neighbor(ifname, bss->bssid, MAC_LEN);
        if (ret != 0)
            LOG_ERROR("%s:%d, ifname(%s) : del nbr_info[" MAC_FMT "] failed. ret = %d.\n", ifname,
                      MAC_ARG(bss->bssid), ret);
    }
}

int sven_bss_trans_req(const char *ifname, const maps_msg_bss_trans_req_t *req)
{
    SASSERT(ifname);
    SASSERT(req);
    return uwb_bss_trans_req(ifname, req);
}

int sven_beacon_req(const char *ifname, const uint8_t *sta, uint8_t channel, const char *ssid)
{
    SASSERT(ifname);
    SASSERT(sta);
    SASSERT(ssid);
    beacon_req_params_t params = {};
    params.channel = channel;
    mac_copy(params.sta_mac, sta);
    snprintf(params.ssid, sizeof(params.ssid), "%s", ssid);
    return uwb_beacon_req(ifname, &params);
}

int sven_pre_btm(const char *ifname)
{
    SASSERT(ifname);
    uwb_set_bssload(ifname, SVEN_BTM_LOAD);
    usleep(SVEN_PRE_BTM_WAIT);
    return 0;
}

int sven_post_btm(const char *ifname)
{
    SASSERT(ifname);
    usleep(SVEN_POST_BTM_WAIT * 1000000u);
    uwb_set_bssload(ifname, 0);
    return 0;
}

bool sven_is_vap(const char *ifname, char *mib_ifname)
{
    SASSERT(ifname);
    SASSERT(mib_ifname);
    char name[UWB_IFNAME_SIZE] = {};
    if (uwb_get_mib_ifname(ifname, name, sizeof(name)) != 0)
        return false;
    snprintf(mib_ifname, UWB_IFNAME_SIZE, "%.15s", name);

    char mode[UWB_MODE_SIZE] = {};
    if (uwb_get_bssmode(mib_ifname, mode, sizeof(mode)) != 0) {
        LOG_WARN("%s:%d, uwb get ifname(%s) mode error.\n", mib_ifname);
        return false;
    }
    if (strcmp(mode, "AP") != 0) {
        LOG_WARN("%s:%d, ifname(%s) is not ap mode.\n", mib_ifname);
        return false;
    }
    return true;
}

void sven_info_recv(const uint8_t *da, const uint8_t *sa, const char *type, smsg_dict_t *root)
{
    SASSERT(da);
    SASSERT(sa);
    SASSERT(type);
    SASSERT(root);
    smsg_get_mac(root, "mac", s_uplink_mac);
    s_hopcount = smsg_get_int(root, "hopcont", nullptr);
    LOG_INFO("%s:%d, UPLINK MAC " MAC_FMT, MAC_ARG(s_uplink_mac));
    LOG_INFO("%s:%d, hopcount %d ", s_hopcount);
}
