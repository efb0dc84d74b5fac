#include "steer_ctl.h"

#include <cstring>
#include <new>

#include "maps.h"
#include "steer_act.h"
#include "steer_block.h"
#include "steer_conf.h"
#include "steer_drv.h"
#include "steer_nei.h"
#include "steer_ns.h"
#include "steer_rate.h"

namespace {

sctl_config_t s_conf;

constexpr int SCTL_PT_STA_SIZE = 512;

sctl_sta_t *sctl_of(ssta_status_t *sta)
{
    return static_cast<sctl_sta_t *>(sta->ctl);
}

sctl_radio_t *sctl_radio_of(sap_radio_t *radio)
{
    return static_cast<sctl_radio_t *>(radio->ctl);
}

bool sctl_is_2g(uint32_t band)
{
    return band == MAPS_2G;
}

bool sctl_is_5g(uint32_t band)
{
    return (band & (MAPS_5L | MAPS_5H)) != 0;
}

bool sctl_is_6g(uint32_t band)
{
    return band == MAPS_6G;
}

// ---------------------------------------------------------------------------
// Configuration and the driver's association control

void sctl_init_config()
{
    s_conf.reject_probe = sconf_get_int_def("bandherd.reject_probe", 1) != 0;
    s_conf.en_pre_up = sconf_get_int_def("bandherd.en_pre_up", 1) != 0;
    s_conf.en_pre_down = sconf_get_int_def("bandherd.en_pre_down", 0) != 0;
    s_conf.en_pre_ol = sconf_get_int_def("bandherd.en_pre_ol", 1) != 0;
    s_conf.en_post_up = sconf_get_int_def("bandherd.en_post_up", 1) != 0;
    s_conf.en_post_down = sconf_get_int_def("bandherd.en_post_down", 0) != 0;
    s_conf.en_post_ol = sconf_get_int_def("bandherd.en_post_ol", 1) != 0;
    s_conf.en_ap = sconf_get_int_def("bandherd.en_ap", 1) != 0;
    s_conf.lrssi_2 = sconf_get_int_def("bandherd.lrssi_2", -69);
    s_conf.hrssi_2 = sconf_get_int_def("bandherd.hrssi_2", -55);
    s_conf.lrssi_5 = sconf_get_int_def("bandherd.lrssi_5", -69);
    s_conf.mode = sconf_get_int_def("bandherd.mode", 0) != 0;
    s_conf.lrssi_down_5 = sconf_get_int_def("bandherd.lrssi_down_5", -76);
    s_conf.probe_age = sconf_get_int_def("bandherd.probe_age", 60);
    s_conf.reject_age = sconf_get_int_def("bandherd.reject_age", 20);
    s_conf.reject_cnt = sconf_get_int_def("bandherd.reject_cnt", 2);
    s_conf.active_slot = sconf_get_int_def("bandherd.active_slot", 15);
    s_conf.active_flow = sconf_get_int_def("bandherd.active_flow", 12000);
    s_conf.hload_2 = sconf_get_int_def("bandherd.hload_2", 65);
    s_conf.hload_5 = sconf_get_int_def("bandherd.hload_5", 65);
    s_conf.hsta_2 = sconf_get_int_def("bandherd.hsta_2", 10);
    s_conf.hsta_5 = sconf_get_int_def("bandherd.hsta_5", 30);
    s_conf.ssta_2 = sconf_get_int_def("bandherd.ssta_2", 30);
    s_conf.ssta_5 = sconf_get_int_def("bandherd.ssta_5", 60);
    s_conf.sload_2 = sconf_get_int_def("bandherd.sload_2", 60);
    s_conf.sload_5 = sconf_get_int_def("bandherd.sload_5", 60);
    s_conf.load_trigger = sconf_get_int_def("bandherd.load_trigger", SCTL_TG_UTILIZE);
    s_conf.ol_interval = sconf_get_int_def("bandherd.ol_interval", 12);
    s_conf.band_safe_rssi_5 =
        sconf_get_int_def("bandherd.band_safe_rssi_5", sconf_get_int_def("bandherd.lrssi_down_5", -76) + 3);
    s_conf.delay_reject_probe = sconf_get_int_def("bandherd.delay_reject_probe", 1) != 0;
    s_conf.delay_reject_auth = sconf_get_int_def("bandherd.delay_reject_auth", 0) != 0;
    s_conf.delay_reject_age = sconf_get_int_def("bandherd.delay_reject_age", 3);
    s_conf.delay_reject_stanum = static_cast<uint8_t>(sconf_get_int_def("bandherd.delay_reject_stanum", 6));
    s_conf.node_steer = sconf_get_int_def("weft.node_steering", 0) != 0;
    if (s_conf.lrssi_down_5 > s_conf.lrssi_5) {
        LOG_FATAL("%s:%d, bandherd.lrssi_down_5 should be less than or equal to bandherd.lrssi_5");
        abort();
    }
}

void sctl_init_radio()
{
    for (int i = 1; i <= SAP_RADIO_MAX; i++) {
        sap_radio_t *radio = &g_self.radios[i];
        if (radio->channel == 0)
            continue;
        radio->ctl = new (std::nothrow) sctl_radio_t();
        SASSERT(radio->ctl);
        if (sctl_update_drv_radio(radio) != 0) {
            LOG_FATAL("%s:%d, init radio%d failed!", i);
            abort();
        }
    }
}

void sctl_init_drv()
{
    maps_msg_conf_t conf = {};
    conf.enable = true;
    conf.enable_reject_probe = s_conf.reject_probe;
    conf.enable_reject_auth = true;
    conf.probe_age = static_cast<uint32_t>(s_conf.probe_age);
    conf.reject_age = static_cast<uint8_t>(s_conf.reject_age);
    conf.reject_max_cnt = static_cast<uint8_t>(s_conf.reject_cnt);
    conf.active_slot = static_cast<uint8_t>(s_conf.active_slot);
    conf.active_flow = static_cast<uint32_t>(s_conf.active_flow);
    conf.enable_delay_reject_probe = s_conf.delay_reject_probe;
    conf.enable_delay_reject_auth = s_conf.delay_reject_auth;
    conf.delay_reject_age = static_cast<uint32_t>(s_conf.delay_reject_age);
    conf.delay_reject_stanum = s_conf.delay_reject_stanum;
    conf.mode = s_conf.mode;
    if (sdrv_ioctl(MAPS_CMD_SET_CONFIG, &conf, sizeof(conf), nullptr) != 0) {
        LOG_FATAL("%s:%d, set config to driver failed.");
        abort();
    }
}

// ---------------------------------------------------------------------------
// Stations

void sctl_init_sta(ssta_status_t *sta)
{
    SASSERT(sta);
    SASSERT(!sta->ctl);
    auto *sta_ctl = static_cast<sctl_sta_t *>(calloc(1, sizeof(sctl_sta_t)));
    if (!sta_ctl) {
        LOG_FATAL("%s:%d, new sta_ctl failed");
        abort();
    }
    sta->ctl = sta_ctl;
    sact_sta_init(sta);
    sns_sta_init(sta);
}

void sctl_fini_sta(ssta_status_t *sta)
{
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    sblock_update_ctl(sta, false);
    sns_sta_fini(sta);
    sact_sta_fini(sta);
    sctl_offload_list::del(sta_ctl);
    free(sta_ctl);
    sta->ctl = nullptr;
}

bool sctl_sta_useable(ssta_status_t *sta, bool mem_stress)
{
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    if (sta_ctl->state != SCTL_STA_STATE_IDLE || sta_ctl->protected_)
        return true;
    if (sns_sta_useable(sta))
        return true;
    return sact_sta_useable(sta, mem_stress);
}

void sctl_sta_assoc(ssta_status_t *sta, sap_bss_t *bss)
{
    sact_sta_join_event(sta, bss);
    sns_sta_join_event(sta);
}

void sctl_sta_disassoc(ssta_status_t *sta, sap_bss_t *bss)
{
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    sns_sta_leave_event(sta);
    sact_sta_leave_event(sta, bss);
    if (sta_ctl->state != SCTL_STA_STATE_IDLE && sta_ctl->state != SCTL_STA_STATE_STEERING) {
        LOG_WARN("%s:%d, override state of " MAC_FMT " to idle", MAC_ARG(sta->mac));
        sta_ctl->state = SCTL_STA_STATE_IDLE;
    }
}

void sctl_wrong_state(ssta_status_t *sta, sctl_sta_t *sta_ctl)
{
    LOG_WARN("%s:%d, sta " MAC_FMT " wrong state %d", MAC_ARG(sta->mac), sta_ctl->state);
}

void sctl_not_suitable(ssta_status_t *sta)
{
    LOG_DEBUG("%s:%d, " MAC_FMT " is not suitable for steering", MAC_ARG(sta->mac));
}

void sctl_high_rssi_event(ssta_status_t *sta, sctl_sta_t *sta_ctl)
{
    if (sta_ctl->state != SCTL_STA_STATE_IDLE) {
        sctl_wrong_state(sta, sta_ctl);
        return;
    }
    LOG_DEBUG("%s:%d, high rssi of " MAC_FMT ", %ddBm", MAC_ARG(sta->mac), sta->rssi);
    sta->btm_reason = SBTM_FROM_HIGH_RSSI;
    if (!sact_allow_steer(sta, nullptr)) {
        sctl_not_suitable(sta);
        return;
    }
    sap_bss_t *target = sctl_select_other_radio(sta, MAPS_PREFER_5G);
    if (!target) {
        LOG_DEBUG("%s:%d, no suitable radio for upgrade steering, sta " MAC_FMT, MAC_ARG(sta->mac));
        return;
    }
    if (sact_steer(sta, target, &g_self, sctl_act_result_handler) == 0)
        sta_ctl->state = SCTL_STA_STATE_STEERING;
    else
        LOG_INFO("%s:%d, upgrade steer " MAC_FMT " to " MAC_FMT " failed", MAC_ARG(sta->mac), MAC_ARG(target->bssid));
}

void sctl_low_rssi_event(ssta_status_t *sta, sctl_sta_t *sta_ctl, sap_radio_t *radio)
{
    if (sta_ctl->state != SCTL_STA_STATE_IDLE) {
        sctl_wrong_state(sta, sta_ctl);
        return;
    }
    LOG_DEBUG("%s:%d, low rssi of " MAC_FMT ", %ddBm", MAC_ARG(sta->mac), sta->rssi);
    sta->btm_reason = SBTM_FROM_LOW_RSSI;
    if (s_conf.en_ap && snei_get_cnt() > 0 && sns_measure_allowed(sta)) {
        if (!sact_allow_steer(sta, nullptr)) {
            sctl_not_suitable(sta);
            return;
        }
        LOG_DEBUG("%s:%d, consider ap steering for " MAC_FMT, MAC_ARG(sta->mac));
        if (sns_start_measure(sta, sctl_ns_result_handler) == 0) {
            sta_ctl->state = SCTL_STA_STATE_MEASURING;
            return;
        }
        LOG_INFO("%s:%d, neighbor measurement for " MAC_FMT " failed", MAC_ARG(sta->mac));
    }
    if (!s_conf.node_steer)
        sctl_fallback_downgrade(sta, radio->work_band);
}

void sctl_sta_status_event(ssta_status_t *sta)
{
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    if (sta_ctl->state != SCTL_STA_STATE_IDLE || sta_ctl->protected_)
        return;
    sap_radio_t *radio = ssta_get_serving_radio(sta);
    if (SREFUSE(radio))
        return;
    LOG_DEBUG("%s:%d, sta[" MAC_FMT "], bandtype = 0x%02x", MAC_ARG(sta->mac), radio->work_band);
    if (sctl_is_5g(radio->work_band)) {
        if (sta->rssi < s_conf.lrssi_5 && sta->last_rssi < s_conf.lrssi_5)
            sctl_low_rssi_event(sta, sta_ctl, radio);
    } else if (sctl_is_2g(radio->work_band)) {
        if (sta->rssi < s_conf.lrssi_2 && sta->last_rssi < s_conf.lrssi_2)
            sctl_low_rssi_event(sta, sta_ctl, radio);
        else if (sta->rssi > s_conf.hrssi_2 && sta->last_rssi > s_conf.hrssi_2 && s_conf.en_post_up &&
                 !s_conf.node_steer)
            sctl_high_rssi_event(sta, sta_ctl);
    }
}

// ---------------------------------------------------------------------------
// Neighbour nodes

void sctl_neighbor_init(sap_node_t *) {}

void sctl_neighbor_fini(sap_node_t *node)
{
    sns_neigbor_leave_event(node);
}

// ---------------------------------------------------------------------------
// Offload

struct sctl_offload_find_arg {
    sap_radio_t *radio;
    ssta_status_t *select_sta;
    sap_bss_t *target_bss;
    int target_load;
};

void sctl_clean_offload_list(sctl_radio_t *radio_ctl)
{
    for (sctl_sta_t *sta_ctl : radio_ctl->offload_head)
        sctl_offload_list::del(sta_ctl);
    LOG_DUMP("%s:%d, clean offload list");
}

// The band an overloaded radio's station is first offered; false if none.
bool sctl_offload_select_band(ssta_status_t *sta, uint32_t radio_band, maps_band_prefer_e *band)
{
    if (sctl_is_2g(radio_band))
        *band = (sta->bands & MAPS_6G) ? MAPS_PREFER_6G : MAPS_PREFER_5G;
    else if (sctl_is_5g(radio_band))
        *band = (sta->bands & MAPS_6G) ? MAPS_PREFER_6G : MAPS_PREFER_DUAL_BAND;
    else if (sctl_is_6g(radio_band))
        *band = MAPS_PREFER_5G;
    else
        return false;
    return true;
}

bool sctl_find_offload_sta(ssta_status_t *sta, void *data)
{
    auto *arg = static_cast<sctl_offload_find_arg *>(data);
    SASSERT(arg);
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    sap_bss_t *bss = sta->associated ? ssta_get_serving_bss(sta) : nullptr;
    if (!bss || bss->radio != arg->radio)
        return false;
    if (sta_ctl->protected_ || sta_ctl->offload_list.linked())
        return false;
    if (arg->select_sta && sta->load < arg->select_sta->load)
        return false;
    if (sta_ctl->state != SCTL_STA_STATE_IDLE) {
        LOG_DEBUG("%s:%d, " MAC_FMT " is busy, skip it", MAC_ARG(sta->mac));
        return false;
    }
    if (!sact_allow_steer(sta, nullptr)) {
        LOG_DEBUG("%s:%d, " MAC_FMT " is not allowed to steer", MAC_ARG(sta->mac));
        return false;
    }
    maps_band_prefer_e band;
    if (!sctl_offload_select_band(sta, arg->radio->work_band, &band)) {
        LOG_DEBUG("%s:%d, no suitable radio for sta " MAC_FMT, MAC_ARG(sta->mac));
        return false;
    }
    sap_bss_t *target = nullptr;
    for (;;) {
        target = sctl_select_other_radio(sta, band);
        if (target)
            break;
        if (band == MAPS_PREFER_6G)
            band = MAPS_PREFER_5G;
        else if (band == MAPS_PREFER_5G)
            band = MAPS_PREFER_2G;
        else
            break;
    }
    if (!target) {
        LOG_DEBUG("%s:%d, no suitable radio for offload steering, sta " MAC_FMT, MAC_ARG(sta->mac));
        return false;
    }
    arg->select_sta = sta;
    arg->target_bss = target;
    LOG_DEBUG("%s:%d, " MAC_FMT " is suitable, load %d%%, target " MAC_FMT, MAC_ARG(sta->mac), sta->load,
              MAC_ARG(target->bssid));
    return false;
}

void sctl_offload_steer(sap_radio_t *radio, sctl_radio_t *radio_ctl)
{
    LOG_DEBUG("%s:%d, high load of radio%d, channel utilization %d%%, sta counts %d", radio->radio_index, radio->load,
              radio->sta_num);
    if (radio_ctl->last_steer_time + s_conf.ol_interval > g_time) {
        LOG_DUMP("%s:%d, last offload steering time: %d, now: %d", static_cast<int>(radio_ctl->last_steer_time),
                 static_cast<int>(g_time));
        return;
    }
    sctl_offload_find_arg arg = {radio, nullptr, nullptr, 0};
    ssta_iterate(sctl_find_offload_sta, &arg);
    if (!arg.select_sta || !arg.target_bss) {
        LOG_DEBUG("%s:%d, no sta on radio%d can be steered", radio->radio_index);
        sctl_clean_offload_list(radio_ctl);
        return;
    }
    ssta_status_t *sta = arg.select_sta;
    sctl_sta_t *sta_ctl = sctl_of(sta);
    radio_ctl->offload_head.add_head(sta_ctl);
    sta->btm_reason = SBTM_FROM_OVERLOAD;
    if (sact_steer(sta, arg.target_bss, &g_self, sctl_act_result_handler) == 0) {
        radio_ctl->last_steer_time = g_time;
        sta_ctl->state = SCTL_STA_STATE_STEERING;
    } else {
        LOG_ERROR("%s:%d, offload steer " MAC_FMT " to " MAC_FMT " failed", MAC_ARG(sta->mac),
                  MAC_ARG(arg.target_bss->bssid));
    }
}

// ---------------------------------------------------------------------------
// Protected stations

void sctl_init_protect_list()
{
    char buff[SCTL_PT_STA_SIZE];
    sconf_get_str_def("bandherd.pt_sta", buff, sizeof(buff), "");
    char *item = buff;
    while (*item != '\0' && *item != ',') {
        char *comma = strchr(item, ',');
        if (comma)
            *comma = '\0';
        uint8_t mac[MAC_LEN];
        if (sscanf(item, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4], &mac[5]) ==
            6)
            sctl_add_protected_sta(mac);
        else
            LOG_ERROR("%s:%d, invalid mac address '%s'", item);
        if (!comma)
            break;
        item = comma + 1;
    }
}

}  // namespace

void sctl_init()
{
    SLOG_REGISTER("ctl");
    sctl_init_config();
    sctl_init_radio();
    sctl_init_drv();
    snei_set_init_cb(sctl_neighbor_init);
    snei_set_fini_cb(sctl_neighbor_fini);
    sap_set_radio_status_cb(sctl_radio_status_event);
    ssta_set_init_cb(sctl_init_sta);
    ssta_set_fini_cb(sctl_fini_sta);
    ssta_set_assoc_cb(sctl_sta_assoc);
    ssta_set_disassoc_cb(sctl_sta_disassoc);
    ssta_set_status_cb(sctl_sta_status_event);
    ssta_set_check_useable_cb(sctl_sta_useable);
    sact_init();
    sns_init();
    sctl_init_protect_list();
}

void sctl_exit()
{
    sact_exit();
    sns_exit();
    for (int i = 1; i <= SAP_RADIO_MAX; i++) {
        sap_radio_t *radio = &g_self.radios[i];
        if (!radio->ctl)
            continue;
        sctl_radio_t *radio_ctl = sctl_radio_of(radio);
        for (sctl_sta_t *sta_ctl : radio_ctl->offload_head)
            sctl_offload_list::del(sta_ctl);
        delete radio_ctl;
        radio->ctl = nullptr;
    }
}

const sctl_config_t *sctl_get_config()
{
    return &s_conf;
}

int sctl_update_drv_radio(sap_radio_t *radio)
{
    SASSERT(radio);
    sctl_radio_t *radio_ctl = sctl_radio_of(radio);
    SASSERT(radio_ctl);
    maps_msg_radio_conf_t conf = {};
    conf.index = radio->radio_index;
    conf.mode = MAPS_BAND_ACCEPT;
    conf.monitor_rssi_high = 0;
    conf.monitor_rssi_low = -100;
    uint32_t band = radio->work_band;
    if (sctl_is_2g(band)) {
        if (s_conf.en_post_up)
            conf.monitor_rssi_high = static_cast<int8_t>(s_conf.hrssi_2);
        if (s_conf.en_ap)
            conf.monitor_rssi_low = static_cast<int8_t>(s_conf.lrssi_2);
    } else if (sctl_is_5g(band)) {
        if (s_conf.en_post_down || s_conf.en_ap)
            conf.monitor_rssi_low = static_cast<int8_t>(s_conf.lrssi_5);
    } else if (!sctl_is_6g(band)) {
        // A 6 GHz radio keeps the starting values: nothing triggers on 6 GHz.
        LOG_ERROR("%s:%d, illegal bandtype");
        return -1;
    }
    if (s_conf.en_pre_ol && radio_ctl->overload) {
        conf.mode = MAPS_BAND_BLOCK;
    } else if (sctl_is_2g(band) && s_conf.en_pre_up) {
        conf.mode = MAPS_BAND_BLOCK_RSSI;
        conf.reject_rssi_lower = static_cast<int8_t>(s_conf.hrssi_2);
    } else if (sctl_is_5g(band) && (s_conf.en_pre_up || s_conf.en_pre_down)) {
        conf.mode = MAPS_BAND_BLOCK_RSSI;
        if (s_conf.en_pre_down) {
            conf.reject_rssi_lower = -100;
            conf.reject_rssi_upper = static_cast<int8_t>(s_conf.lrssi_5);
        }
    }
    if (s_conf.node_steer)
        conf.mode = MAPS_BAND_ACCEPT;
    if (sdrv_ioctl(MAPS_CMD_SET_RADIO, &conf, sizeof(conf), nullptr) != 0) {
        LOG_FATAL("%s:%d, update radio(%u) config to driver failed!", radio->radio_index);
        return -1;
    }
    return 0;
}

void sctl_act_result_handler(ssta_status_t *sta, const uint8_t *bssid, bool success)
{
    SASSERT(bssid);
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    if (sta_ctl->state != SCTL_STA_STATE_STEERING) {
        sctl_wrong_state(sta, sta_ctl);
        return;
    }
    sta_ctl->state = SCTL_STA_STATE_IDLE;
    LOG_DEBUG("%s:%d, steer " MAC_FMT " to " MAC_FMT " %s", MAC_ARG(sta->mac), MAC_ARG(bssid),
              success ? "success" : "failed");
}

void sctl_ns_result_handler(ssta_status_t *sta, sap_bss_t *target_bss, sap_node_t *target_node, bool success)
{
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    if (sta_ctl->state != SCTL_STA_STATE_MEASURING) {
        sctl_wrong_state(sta, sta_ctl);
        return;
    }
    // A station that left, or now sits on another node, has no serving radio here.
    sap_radio_t *radio = sta->associated ? ssta_get_serving_radio(sta) : nullptr;
    if (!radio) {
        LOG_DEBUG("%s:%d, cancel steering because " MAC_FMT " left", MAC_ARG(sta->mac));
        sta_ctl->state = SCTL_STA_STATE_IDLE;
        return;
    }
    if (!success) {
        if (s_conf.node_steer)
            return;  // left alone until it disassociates
        LOG_DUMP("%s:%d, no greater neighbor for " MAC_FMT " try to downgrade", MAC_ARG(sta->mac));
        sta_ctl->state = SCTL_STA_STATE_IDLE;
        sctl_fallback_downgrade(sta, radio->work_band);
        return;
    }
    SASSERT(target_bss);
    SASSERT(target_node);
    if (!sact_allow_steer(sta, target_bss)) {
        LOG_DEBUG("%s:%d, " MAC_FMT " is not suitable for steering, target " MAC_FMT, MAC_ARG(sta->mac),
                  MAC_ARG(target_bss->bssid));
        sta_ctl->state = SCTL_STA_STATE_IDLE;
        return;
    }
    if (sact_steer(sta, target_bss, target_node, sctl_act_result_handler) == 0) {
        sta_ctl->state = SCTL_STA_STATE_STEERING;
    } else {
        LOG_INFO("%s:%d, AP steer " MAC_FMT " to " MAC_FMT " failed", MAC_ARG(sta->mac), MAC_ARG(target_bss->bssid));
        sta_ctl->state = SCTL_STA_STATE_IDLE;
    }
}

// ---------------------------------------------------------------------------
// Target radio selection and the downgrade fallback

bool sctl_is_radio_safe(ssta_status_t *sta, sap_radio_t *cur_radio, sap_radio_t *target_radio, int org_rate,
                        int target_rate)
{
    if ((sctl_is_5g(target_radio->work_band) && target_radio->sta_num >= s_conf.ssta_5) ||
        (sctl_is_2g(target_radio->work_band) && target_radio->sta_num >= s_conf.ssta_2)) {
        LOG_DUMP("%s:%d, radio%u is not safe for too many sta", target_radio->radio_index);
        return false;
    }
    SASSERT(target_rate);
    int new_load;
    if (target_radio->work_band == cur_radio->work_band) {
        new_load = target_radio->load + sta->load * org_rate / target_rate;
        sap_radio_t *backhaul = snei_get_backhaul_radio();
        // A node without a measured uplink rate adds nothing for its backhaul.
        if (backhaul && backhaul->channel == target_radio->channel && g_self.link_rate2mpp != 0)
            new_load += org_rate * sta->load / g_self.link_rate2mpp;
    } else {
        new_load = target_radio->load + sta->load;
    }
    LOG_DUMP("%s:%d, channel load of radio%u is %d%% now, it will increase to %d%% after " MAC_FMT " bandherd",
             target_radio->radio_index, target_radio->load, new_load, MAC_ARG(sta->mac));
    if (s_conf.en_post_ol && ((sctl_is_5g(target_radio->work_band) && new_load >= s_conf.sload_5) ||
                              (sctl_is_2g(target_radio->work_band) && new_load >= s_conf.sload_2))) {
        LOG_DUMP("%s:%d, radio%u is not safe for high load", target_radio->radio_index);
        return false;
    }
    return true;
}

sap_bss_t *sctl_select_other_radio(ssta_status_t *sta, maps_band_prefer_e prefer)
{
    SASSERT(sta);
    sap_bss_t *org_bss = ssta_get_serving_bss(sta);
    SASSERT(org_bss);
    sap_radio_t *org_radio = org_bss->radio;
    SASSERT(org_radio);
    sap_ess_t *org_ess = org_bss->ess;
    SASSERT(org_ess);
    int8_t org_rssi = sta->rssi;
    int org_rate = srate_get_rate_rssi(sta, org_radio, org_rssi);
    LOG_DEBUG("%s:%d, sta " MAC_FMT ", current(channel %d) rssi: %ddBm, link rate: %dM", MAC_ARG(sta->mac),
              org_radio->channel, org_rssi, org_rate);

    sap_bss_t *best = nullptr;
    int best_rate = 0;
    for (int i = 1; i <= SAP_BSS_INDEX_MAX; i++) {
        sap_bss_t *bss = g_self.managed_bss[i];
        if (!bss)
            continue;
        sap_radio_t *tmp_radio = bss->radio;
        SASSERT(tmp_radio);
        sctl_radio_t *tmp_radio_ctl = sctl_radio_of(tmp_radio);
        SASSERT(tmp_radio_ctl);
        if (tmp_radio == org_radio || bss->ess != org_ess)
            continue;
        uint32_t band = tmp_radio->work_band;
        bool keep = prefer == MAPS_PREFER_NONE || (prefer == MAPS_PREFER_2G && sctl_is_2g(band)) ||
                    (prefer == MAPS_PREFER_5G && sctl_is_5g(band)) || (prefer == MAPS_PREFER_6G && sctl_is_6g(band)) ||
                    (prefer == MAPS_PREFER_DUAL_BAND && !sctl_is_6g(band));
        if (!keep)
            continue;
        if (tmp_radio_ctl->overload) {
            LOG_DEBUG("%s:%d, skip BSS%d on RADIO%d, because it's overload", i, tmp_radio->radio_index);
            continue;
        }
        if (sctl_is_5g(band) && org_rssi < s_conf.band_safe_rssi_5) {
            LOG_DEBUG("%s:%d, bss%d is not safe for org_rssi (%ddBm), band_safe_rssi_5 : [%ddbm]", i, org_rssi,
                      s_conf.band_safe_rssi_5);
            continue;
        }
        if (bss->sta_num >= bss->sta_max) {
            LOG_DEBUG("%s:%d, more sta(%d) associate on bss%d than limit(%d)", bss->sta_num, i, bss->sta_max);
            continue;
        }
        if (!sact_allow_steer(sta, bss)) {
            LOG_DEBUG("%s:%d, not allowed to steer " MAC_FMT " to " MAC_FMT, MAC_ARG(sta->mac), MAC_ARG(bss->bssid));
            continue;
        }
        int8_t target_rssi = srate_get_another_rssi(org_rssi, org_radio->work_band, band);
        if (target_rssi >= 1) {
            LOG_DEBUG("%s:%d, evaluate_rssi of tmp_radio is error");
            continue;
        }
        int target_rate = srate_get_rate_rssi(sta, tmp_radio, target_rssi);
        int mpp_rate = srate_evaluate_sta2mpp(sta, &g_self, tmp_radio, target_rate);
        LOG_DEBUG("%s:%d, evaluate info :[rssi on channel %d: %ddBm, link rate: %dM, rate to mpp: %dM]",
                  tmp_radio->channel, target_rssi, target_rate, mpp_rate);
        if (SREFUSE(target_rate))  // no rate at the estimated RSSI
            continue;
        if (!sctl_is_radio_safe(sta, org_radio, tmp_radio, org_rate, target_rate)) {
            LOG_DEBUG("%s:%d, BSS%d(RADIO%d) is not safe", i, tmp_radio->radio_index);
            continue;
        }
        if (mpp_rate > best_rate) {
            best = bss;
            best_rate = mpp_rate;
        }
    }
    return best;
}

void sctl_fallback_downgrade(ssta_status_t *sta, uint32_t bandtype)
{
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    sap_radio_t *serving_radio = ssta_get_serving_radio(sta);
    SASSERT(serving_radio);
    if (!s_conf.en_post_down || sctl_is_2g(serving_radio->work_band))
        return;
    if (sctl_is_5g(serving_radio->work_band) && sta->rssi >= s_conf.lrssi_down_5)
        return;
    if (sta_ctl->state != SCTL_STA_STATE_IDLE) {
        sctl_wrong_state(sta, sta_ctl);
        return;
    }
    if (!sact_allow_steer(sta, nullptr)) {
        sctl_not_suitable(sta);
        return;
    }
    LOG_DEBUG("%s:%d, consider downgrade steering for " MAC_FMT, MAC_ARG(sta->mac));
    maps_band_prefer_e order[2];
    int bands = 0;
    if (bandtype == MAPS_6G) {
        order[bands++] = MAPS_PREFER_5G;
        order[bands++] = MAPS_PREFER_2G;
    } else if (sctl_is_5g(bandtype)) {
        order[bands++] = MAPS_PREFER_2G;
    } else {
        LOG_DEBUG("%s:%d, no suitable radio for sta " MAC_FMT, MAC_ARG(sta->mac));
        return;
    }
    for (int i = 0; i < bands; i++) {
        sap_bss_t *target = sctl_select_other_radio(sta, order[i]);
        if (!target)
            continue;
        if (sact_steer(sta, target, &g_self, sctl_act_result_handler) == 0)
            sta_ctl->state = SCTL_STA_STATE_STEERING;
        else
            LOG_INFO("%s:%d, downgrade steer " MAC_FMT " to " MAC_FMT " failed", MAC_ARG(sta->mac),
                     MAC_ARG(target->bssid));
        return;
    }
    LOG_DEBUG("%s:%d, no suitable radio for downgrade steering, sta " MAC_FMT, MAC_ARG(sta->mac));
}

// ---------------------------------------------------------------------------
// Radio overload

void sctl_radio_status_event(sap_radio_t *radio)
{
    SASSERT(radio);
    sctl_radio_t *radio_ctl = sctl_radio_of(radio);
    SASSERT(radio_ctl);
    bool load_high = false, count_high = false;
    if (sctl_is_5g(radio->work_band)) {
        load_high = radio->load > s_conf.hload_5;
        count_high = radio->sta_num > s_conf.hsta_5;
    } else if (sctl_is_2g(radio->work_band)) {
        load_high = radio->load > s_conf.hload_2;
        count_high = radio->sta_num > s_conf.hsta_2;
    }
    bool overload;
    switch (s_conf.load_trigger) {
    case SCTL_TG_STA_AND_UTILIZE:
        overload = count_high && load_high;
        break;
    case SCTL_TG_STA_OR_UTILIZE:
        overload = count_high || load_high;
        break;
    case SCTL_TG_STA:
        overload = count_high;
        break;
    case SCTL_TG_UTILIZE:
        overload = load_high;
        break;
    default:
        LOG_ERROR("%s:%d, invalid triger mode %d", s_conf.load_trigger);
        return;
    }
    if (overload != radio_ctl->overload) {
        LOG_DEBUG("%s:%d, RADIO%u overload changed from %d to %d", radio->radio_index, radio_ctl->overload, overload);
        radio_ctl->overload = overload;
        sctl_update_drv_radio(radio);
        if (!overload) {
            sctl_clean_offload_list(radio_ctl);
            return;
        }
    }
    if (!overload || s_conf.node_steer || !s_conf.en_post_ol)
        return;
    sctl_offload_steer(radio, radio_ctl);
}

// ---------------------------------------------------------------------------
// Protected stations and the dumps

int sctl_add_protected_sta(const uint8_t *sta_mac)
{
    SASSERT(sta_mac);
    ssta_status_t *sta = ssta_find(sta_mac);
    if (!sta)
        sta = ssta_new(sta_mac);
    if (!sta) {
        LOG_ERROR("%s:%d, new sta " MAC_FMT " failed", MAC_ARG(sta_mac));
        return -1;
    }
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    sta_ctl->protected_ = true;
    sblock_update_ctl(sta, true);
    LOG_INFO("%s:%d, disable steer " MAC_FMT, MAC_ARG(sta_mac));
    return 0;
}

int sctl_removel_protected_sta(const uint8_t *sta_mac)
{
    SASSERT(sta_mac);
    ssta_status_t *sta = ssta_find(sta_mac);
    if (!sta) {
        LOG_ERROR("%s:%d, can't find " MAC_FMT, MAC_ARG(sta_mac));
        return -1;
    }
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    sta_ctl->protected_ = false;
    sblock_update_ctl(sta, false);
    LOG_INFO("%s:%d, enable steer " MAC_FMT, MAC_ARG(sta_mac));
    return 0;
}

void sctl_dump_config(FILE *f)
{
    SASSERT(f);
    const struct {
        const char *label;
        int value;
    } lines[] = {
        {"mode: %d\n", s_conf.mode},
        {"node_bandherd: %d\n", s_conf.node_steer},
        {"reject_probe: %d\n", s_conf.reject_probe},
        {"en_pre_up: %d\n", s_conf.en_pre_up},
        {"en_pre_down: %d\n", s_conf.en_pre_down},
        {"en_pre_ol: %d\n", s_conf.en_pre_ol},
        {"en_post_up: %d\n", s_conf.en_post_up},
        {"en_post_down: %d\n", s_conf.en_post_down},
        {"en_post_ol: %d\n", s_conf.en_post_ol},
        {"en_ap: %d\n", s_conf.en_ap},
        {"lrssi_2: %d\n", s_conf.lrssi_2},
        {"hrssi_2: %d\n", s_conf.hrssi_2},
        {"hload_2: %d\n", s_conf.hload_2},
        {"sload_2: %d\n", s_conf.sload_2},
        {"hsta_2: %d\n", s_conf.hsta_2},
        {"ssta_2: %d\n", s_conf.ssta_2},
        {"lrssi_5: %d\n", s_conf.lrssi_5},
        {"lrssi_down_5: %d\n", s_conf.lrssi_down_5},
        {"hsta_5: %d\n", s_conf.hsta_5},
        {"ssta_5: %d\n", s_conf.ssta_5},
        {"hload_5: %d\n", s_conf.hload_5},
        {"sload_5: %d\n", s_conf.sload_5},
        {"band_safe_rssi_5: %d\n", s_conf.band_safe_rssi_5},
        {"probe_age: %d\n", s_conf.probe_age},
        {"reject_age: %d\n", s_conf.reject_age},
        {"reject_cnt: %d\n", s_conf.reject_cnt},
        {"active_slot: %d\n", s_conf.active_slot},
        {"active_flow: %d\n", s_conf.active_flow},
        {"load_trigger: %d\n", s_conf.load_trigger},
        {"ol_interval: %d\n", s_conf.ol_interval},
        {"delay_reject_probe: %d\n", s_conf.delay_reject_probe},
        {"delay_reject_auth : %d\n", s_conf.delay_reject_auth},
        {"delay_reject_age  : %d\n", s_conf.delay_reject_age},
        {"delay_reject_stanum: %d\n", s_conf.delay_reject_stanum},
    };
    for (const auto &line : lines)
        fprintf(f, line.label, line.value);
}

void sctl_print_sta(FILE *f, ssta_status_t *sta)
{
    SASSERT(f);
    SASSERT(sta);
    sctl_sta_t *sta_ctl = sctl_of(sta);
    SASSERT(sta_ctl);
    SPRINTF(f, "sctl/protected: %d\n", sta_ctl->protected_);
    switch (sta_ctl->state) {
    case SCTL_STA_STATE_IDLE:
        SPRINTF(f, "sctl/state: idle\n");
        break;
    case SCTL_STA_STATE_MEASURING:
        SPRINTF(f, "sctl/state: measuring\n");
        break;
    case SCTL_STA_STATE_STEERING:
        SPRINTF(f, "sctl/state: steering\n");
        break;
    default:
        SPRINTF(f, "sctl/state: unknown\n");
        break;
    }
}

void sctl_print_radio(FILE *f, sap_radio_t *radio)
{
    SASSERT(f);
    SASSERT(radio);
    sctl_radio_t *radio_ctl = sctl_radio_of(radio);
    SASSERT(radio_ctl);
    SPRINTF(f, "overload: %d\n", radio_ctl->overload);
    SPRINTF(f, "last_steer_time: %ld\n", static_cast<long>(radio_ctl->last_steer_time));
}
