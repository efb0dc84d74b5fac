#include "steer_boff.h"

#include "maps.h"
#include "steer_block.h"
#include "steer_conf.h"
#include "steer_drv.h"
#include "steer_msg.h"
#include "steer_nei.h"
#include "steer_ven.h"

namespace {

struct sboff_conf {
    bool en_boff;
    bool en_boff_active;
    int reject_cnt;
    bool boff_block_less;
    int msg_sync_timeout;
    int boff_timeout;
    int ph_low_rssi;
};

sboff_conf s_conf;
slimit_conf_t *s_limit_conf;

sboff_status_t *sboff_of(ssta_status_t *sta)
{
    return static_cast<sboff_status_t *>(sta->boff);
}

const char *sboff_state_str(int state)
{
    switch (state) {
    case SBOFF_STATE_IDLE:
        return "idle";
    case SBOFF_STATE_SYNC:
        return "sync";
    case SBOFF_STATE_REASSOC:
        return "re-assoc";
    case SBOFF_STATE_SLAVE:
        return "slave";
    case SBOFF_STATE_PREASSOC:
        return "pre-assoc";
    default:
        return "invalid";
    }
}

// A message about `sta` with one integer field; -2 when it cannot be built,
// -1 when it cannot be sent, 0 when sent.
int sboff_send(const uint8_t *da, const char *type, ssta_status_t *sta, const char *key, int value)
{
    smsg_dict_t *root = smsg_new_root();
    if (!root)
        return -2;
    smsg_put_mac(root, "sta", sta->mac);
    smsg_put_int(root, key, value);
    int ret = smsg_send(da, type, root);
    smsg_del_root(root);
    return ret == 0 ? 0 : -1;
}

void sboff_send_finish(ssta_status_t *sta, bool success)
{
    int ret = sboff_send(MAC_BCAST, "SBOFF_FINISH", sta, "success", success ? 1 : 0);
    if (ret == -2)
        LOG_ERROR("%s:%d, new message failed");
    else if (ret == -1)
        LOG_ERROR("%s:%d, send message failed");
}

void sboff_timer_handler(void *data);

void sboff_start_timer(ssta_status_t *sta, sboff_status_t *boff)
{
    if (!boff->timer)
        boff->timer = sev_new_timer(1, sboff_timer_handler, sta);
}

void sboff_process_result(ssta_status_t *sta, bool success)
{
    sboff_status_t *boff = sboff_of(sta);
    if (boff->result_cb)
        boff->result_cb(success, sta, boff->target_bssid, boff->target_node);
    else
        LOG_INFO("%s:%d, result call back is not set");
}

// Kicks the station off its serving BSS; 0 when it went.
int sboff_kick(ssta_status_t *sta)
{
    LOG_INFO("%s:%d, ready to block " MAC_FMT ", kick it", MAC_ARG(sta->mac));
    sap_bss_t *serving = ssta_get_serving_bss(sta);
    if (!serving || sven_kick_sta(serving->ifname, sta->mac) != 0) {
        LOG_ERROR("%s:%d, kick " MAC_FMT " failed", MAC_ARG(sta->mac));
        return -1;
    }
    return 0;
}

void sboff_sync_finish(ssta_status_t *sta, bool success)
{
    sboff_status_t *boff = sboff_of(sta);
    if (boff->state != SBOFF_STATE_SYNC) {
        LOG_WARN("%s:%d, unexpected state %d for " MAC_FMT, boff->state, MAC_ARG(sta->mac));
        return;
    }
    if (success && sboff_kick(sta) == 0) {
        boff->state = SBOFF_STATE_REASSOC;
        return;
    }
    LOG_INFO("%s:%d, prepare Backoff Steering for " MAC_FMT " failed", MAC_ARG(sta->mac));
    sblock_update(sta);
    boff->state = SBOFF_STATE_IDLE;
    sboff_send_finish(sta, false);
    if (boff->result_cb)
        boff->result_cb(false, sta, boff->target_bssid, boff->target_node);
}

void sboff_forbid_target(ssta_status_t *sta, sboff_status_t *boff)
{
    LOG_INFO("%s:%d, forbid Backoff Steering for a while, STA " MAC_FMT " Target " MAC_FMT, MAC_ARG(sta->mac),
             MAC_ARG(boff->target_bssid));
    slimit_prohibit(s_limit_conf, boff->limit_info, boff->target_bssid, false);
}

void sboff_timer_handler(void *data)
{
    auto *sta = static_cast<ssta_status_t *>(data);
    sboff_status_t *boff = sboff_of(sta);
    sboff_state_e state = boff->state;
    if (state == SBOFF_STATE_SYNC && boff->steer_begin + s_conf.msg_sync_timeout <= g_time) {
        LOG_INFO("%s:%d, sync for " MAC_FMT " timeout, maybe some neighbors are offline", MAC_ARG(sta->mac));
        sboff_sync_finish(sta, true);
    } else if (state == SBOFF_STATE_PREASSOC && sta->associated &&
               boff->steer_begin + s_conf.boff_timeout - s_conf.msg_sync_timeout <= g_time) {
        LOG_DEBUG("%s:%d, " MAC_FMT " has never left, stop to monitor Pre-association Steering.", MAC_ARG(sta->mac));
        boff->state = SBOFF_STATE_IDLE;
        if (snei_get_cnt() > 0)
            sboff_send_finish(sta, true);
    } else if ((state == SBOFF_STATE_REASSOC || state == SBOFF_STATE_SLAVE || state == SBOFF_STATE_PREASSOC) &&
               boff->steer_begin + s_conf.boff_timeout <= g_time) {
        LOG_INFO("%s:%d, " MAC_FMT " re-association timeout (state %d)", MAC_ARG(sta->mac), state);
        if (!boff->low_rssi) {
            boff->no_block = true;
            sblock_update_boff(sta, true);
            LOG_INFO("%s:%d, forbid Backoff and Pre-association Steering of " MAC_FMT, MAC_ARG(sta->mac));
            slimit_prohibit(s_limit_conf, boff->limit_info, nullptr, true);
        } else if (state != SBOFF_STATE_PREASSOC) {
            sblock_update(sta);
            LOG_INFO("%s:%d, forbid Backoff Steering of " MAC_FMT " for a while, target " MAC_FMT, MAC_ARG(sta->mac),
                     MAC_ARG(boff->target_bssid));
            slimit_prohibit(s_limit_conf, boff->limit_info, boff->target_bssid, false);
        } else {
            boff->no_block = true;
            sblock_update_boff(sta, true);
            LOG_INFO("%s:%d, forbid Backoff and Pre-association Steering of " MAC_FMT " for a while",
                     MAC_ARG(sta->mac));
            slimit_prohibit(s_limit_conf, boff->limit_info, nullptr, false);
        }
        boff->state = SBOFF_STATE_IDLE;
        if (state == SBOFF_STATE_REASSOC)
            sboff_process_result(sta, false);
    }
    if (boff->no_block && slimit_allowed(s_limit_conf, boff->limit_info, nullptr, false)) {
        LOG_INFO("%s:%d, prohibition for " MAC_FMT " finished", MAC_ARG(sta->mac));
        boff->no_block = false;
        sblock_update_boff(sta, false);
    }
    if (boff->state == SBOFF_STATE_IDLE && !boff->no_block && boff->timer) {
        sev_del_timer(boff->timer);
        boff->timer = nullptr;
    }
}

ssta_status_t *sboff_find_or_new(const uint8_t *mac, bool short_error)
{
    ssta_status_t *sta = ssta_find(mac);
    if (!sta)
        sta = ssta_new(mac);
    if (!sta) {
        if (short_error)
            LOG_ERROR("%s:%d, new sta failed");
        else
            LOG_ERROR("%s:%d, new " MAC_FMT " failed", MAC_ARG(mac));
    }
    return sta;
}

void sboff_start_handler(const uint8_t *, const uint8_t *sa, const char *, smsg_dict_t *root)
{
    uint8_t mac[MAC_LEN], target_bss[MAC_LEN], target_node[MAC_LEN];
    int err_low = 0, err_ess = 0;
    if (smsg_get_mac(root, "sta", mac) != 0 || smsg_get_mac(root, "target_bss", target_bss) != 0 ||
        smsg_get_mac(root, "target_node", target_node) != 0)
        return;
    int low_rssi = smsg_get_int(root, "low_rssi", &err_low);
    int ess = smsg_get_int(root, "ess", &err_ess);
    if (err_low != 0 || err_ess != 0)
        return;
    if (ess < 0 || ess >= SAP_ESS_MAX) {
        LOG_DEBUG("%s:%d, ESS%d doesn't exist", ess);
        return;
    }
    ssta_status_t *sta = sboff_find_or_new(mac, true);
    if (!sta)
        return;
    sboff_status_t *boff = sboff_of(sta);
    if (SREFUSE(boff))
        return;
    if (boff->state != SBOFF_STATE_IDLE) {
        LOG_WARN("%s:%d, unexpected state %d for " MAC_FMT, boff->state, MAC_ARG(mac));
        return;
    }
    sap_ess_t *local_ess = &g_self.ess[ess];
    if (local_ess->essid[0] == '\0') {
        LOG_DEBUG("%s:%d, ess%d doesn't exist, requested by " MAC_FMT, ess, MAC_ARG(sa));
        return;
    }
    LOG_INFO("%s:%d, prepare backoff steering for " MAC_FMT ", requested by " MAC_FMT ", target " MAC_FMT
             ", low_rssi %d",
             MAC_ARG(mac), MAC_ARG(sa), MAC_ARG(target_bss), low_rssi);
    if (!(s_conf.boff_block_less && mac_equal(target_node, sa))) {
        if (sblock_bss(sta, target_bss, local_ess) != 0)
            LOG_ERROR("%s:%d, block " MAC_FMT " failed", MAC_ARG(mac));
    }
    mac_copy(boff->target_bssid, target_bss);
    mac_copy(boff->target_node, target_node);
    boff->low_rssi = low_rssi != 0;
    boff->steer_begin = g_time;
    boff->state = SBOFF_STATE_SLAVE;
    sboff_start_timer(sta, boff);
    if (sboff_send(sa, "SBOFF_READY", sta, "ok", 1) != 0)
        LOG_ERROR("%s:%d, reply failed");
}

void sboff_ready_handler(const uint8_t *, const uint8_t *sa, const char *, smsg_dict_t *root)
{
    uint8_t mac[MAC_LEN];
    if (smsg_get_mac(root, "sta", mac) != 0)
        return;
    ssta_status_t *sta = ssta_find(mac);
    if (!sta) {
        LOG_ERROR("%s:%d, can't find sta " MAC_FMT, MAC_ARG(mac));
        return;
    }
    sboff_status_t *boff = sboff_of(sta);
    if (SREFUSE(boff))
        return;
    if (smsg_get_int(root, "ok", nullptr) == 0) {
        LOG_DEBUG("%s:%d, " MAC_FMT " is not prepared for " MAC_FMT, MAC_ARG(sa), MAC_ARG(mac));
        sboff_sync_finish(sta, false);
        return;
    }
    LOG_DEBUG("%s:%d, " MAC_FMT " is ready for " MAC_FMT, MAC_ARG(sa), MAC_ARG(mac));
    if (boff->state != SBOFF_STATE_SYNC) {
        LOG_WARN("%s:%d, unexpected state %d for " MAC_FMT, boff->state, MAC_ARG(mac));
        return;
    }
    boff->sync_reply_cnt++;
    LOG_DUMP("%s:%d, received %d ready responses for " MAC_FMT ", neighbor count: %d", boff->sync_reply_cnt,
             MAC_ARG(mac), snei_get_cnt());
    if (boff->sync_reply_cnt >= snei_get_cnt())
        sboff_sync_finish(sta, true);
}

void sboff_finish_handler(const uint8_t *, const uint8_t *sa, const char *, smsg_dict_t *root)
{
    uint8_t mac[MAC_LEN] = {};
    smsg_get_mac(root, "sta", mac);
    ssta_status_t *sta = ssta_find(mac);
    if (!sta) {
        LOG_ERROR("%s:%d, can't find station " MAC_FMT, MAC_ARG(mac));
        return;
    }
    sboff_status_t *boff = sboff_of(sta);
    if (SREFUSE(boff))
        return;
    if (boff->state == SBOFF_STATE_PREASSOC) {
        LOG_DEBUG("%s:%d, Pre-association Steering for " MAC_FMT " finished, notified by " MAC_FMT, MAC_ARG(mac),
                  MAC_ARG(sa));
        boff->state = SBOFF_STATE_IDLE;
        return;
    }
    bool success = smsg_get_int(root, "success", nullptr) != 0;
    LOG_INFO("%s:%d, Backoff Steer " MAC_FMT " to BSS " MAC_FMT " %s, notified by " MAC_FMT, MAC_ARG(mac),
             MAC_ARG(boff->target_bssid), success ? "success" : "failed", MAC_ARG(sa));
    sblock_update(sta);
    switch (boff->state) {
    case SBOFF_STATE_SLAVE:
        if (success)
            slimit_unprohibit(boff->limit_info, nullptr);
        boff->state = SBOFF_STATE_IDLE;
        break;
    case SBOFF_STATE_REASSOC:
        if (success)
            slimit_unprohibit(boff->limit_info, boff->target_bssid);
        else
            sboff_forbid_target(sta, boff);
        boff->state = SBOFF_STATE_IDLE;
        sboff_process_result(sta, success);
        break;
    default:
        LOG_WARN("%s:%d, unexpected state %d for " MAC_FMT, boff->state, MAC_ARG(mac));
        break;
    }
}

void sboff_preassoc_handler(const uint8_t *, const uint8_t *sa, const char *, smsg_dict_t *root)
{
    uint8_t mac[MAC_LEN];
    if (smsg_get_mac(root, "sta", mac) != 0)
        return;
    int low_rssi = smsg_get_int(root, "low_rssi", nullptr);
    ssta_status_t *sta = sboff_find_or_new(mac, false);
    if (!sta)
        return;
    sboff_status_t *boff = sboff_of(sta);
    if (SREFUSE(boff))
        return;
    switch (boff->state) {
    case SBOFF_STATE_IDLE:
        boff->steer_begin = g_time;
        boff->low_rssi = low_rssi != 0;
        boff->state = SBOFF_STATE_PREASSOC;
        LOG_DEBUG("%s:%d, Pre-association Steering for " MAC_FMT " already started, notified by " MAC_FMT
                  ", low_rssi %d",
                  MAC_ARG(mac), MAC_ARG(sa), low_rssi);
        sboff_start_timer(sta, boff);
        break;
    case SBOFF_STATE_PREASSOC:
        break;
    default:
        LOG_WARN("%s:%d, unexpected state %d for " MAC_FMT, boff->state, MAC_ARG(mac));
        break;
    }
}

void sboff_reject_handler(uint8_t, void *data, uint32_t size)
{
    if (size != sizeof(maps_msg_reject_t)) {
        LOG_ERROR("%s:%d, invalid msg size %u", size);
        return;
    }
    maps_msg_reject_t rej;
    memcpy(&rej, data, sizeof(rej));
    LOG_INFO("%s:%d, BSS%u reject " MAC_FMT " %d times, rssi %ddBm", rej.bss_index, MAC_ARG(rej.mac), rej.count,
             rej.rssi);
    ssta_status_t *sta = sboff_find_or_new(rej.mac, false);
    if (!sta)
        return;
    sboff_status_t *boff = sboff_of(sta);
    if (SREFUSE(boff))
        return;
    switch (boff->state) {
    case SBOFF_STATE_IDLE:
        boff->steer_begin = g_time;
        boff->low_rssi = rej.rssi <= s_conf.ph_low_rssi;
        boff->state = SBOFF_STATE_PREASSOC;
        LOG_DEBUG("%s:%d, Pre-association Steering for " MAC_FMT " already started", MAC_ARG(rej.mac));
        sboff_start_timer(sta, boff);
        if (snei_get_cnt() > 0) {
            int ret = sboff_send(MAC_BCAST, "SBOFF_PREASSOC", sta, "low_rssi", boff->low_rssi ? 1 : 0);
            if (ret == -2)
                LOG_ERROR("%s:%d, new message failed");
            else if (ret == -1)
                LOG_ERROR("%s:%d, send message failed");
        }
        break;
    case SBOFF_STATE_REASSOC:
    case SBOFF_STATE_SLAVE:
    case SBOFF_STATE_PREASSOC:
        break;
    default:
        LOG_WARN("%s:%d, unexpected state %d for " MAC_FMT, boff->state, MAC_ARG(rej.mac));
        break;
    }
    if (rej.count >= s_conf.reject_cnt)
        LOG_INFO("%s:%d, reject " MAC_FMT " too frequently, don't reject it again", MAC_ARG(rej.mac));
}

}  // namespace

void sboff_init()
{
    SLOG_REGISTER("boff");
    s_conf.en_boff = sconf_get_int_def("bandherd.en_boff", 1) != 0;
    s_conf.en_boff_active = sconf_get_int_def("bandherd.en_boff_active", 0) != 0;
    s_conf.reject_cnt = sconf_get_int_def("bandherd.reject_cnt", 2);
    s_conf.boff_block_less = sconf_get_int_def("bandherd.boff_block_less", 0) != 0;
    s_conf.msg_sync_timeout = sconf_get_int_def("bandherd.msg_sync_timeout", 3);
    s_conf.boff_timeout = sconf_get_int_def("bandherd.boff_timeout", 25);
    s_conf.ph_low_rssi = sconf_get_int_def("bandherd.ph_low_rssi", -76);
    s_limit_conf = slimit_new_conf(sconf_get_int_def("bandherd.boff_interval", 120),
                                   sconf_get_int_def("bandherd.boff_burst", 1));
    if (!s_limit_conf) {
        LOG_FATAL("%s:%d, new limit config failed");
        abort();
    }
    if (!(s_conf.boff_timeout > 2 * s_conf.msg_sync_timeout)) {
        LOG_FATAL("%s:%d, 'boff_timeout' is not long enough");
        abort();
    }
    sdrv_register_event(MAPS_EV_REJECT, sboff_reject_handler);
    smsg_register("SBOFF_START", sboff_start_handler);
    smsg_register("SBOFF_READY", sboff_ready_handler);
    smsg_register("SBOFF_FINISH", sboff_finish_handler);
    smsg_register("SBOFF_PREASSOC", sboff_preassoc_handler);
}

void sboff_exit()
{
    slimit_del_conf(s_limit_conf);
    s_limit_conf = nullptr;
}

bool sboff_allowed(ssta_status_t *sta, const uint8_t *bssid)
{
    SASSERT(sta);
    sboff_status_t *boff = sboff_of(sta);
    SASSERT(boff);
    if (!s_conf.en_boff)
        return false;
    if (boff->state != SBOFF_STATE_IDLE) {
        LOG_DUMP("%s:%d, " MAC_FMT " is not suitable for backoff steering because it's busy", MAC_ARG(sta->mac));
        return false;
    }
    if (sta->active && !s_conf.en_boff_active) {
        LOG_DUMP("%s:%d, " MAC_FMT " is not suitable for Backoff steering, because it's active", MAC_ARG(sta->mac));
        return false;
    }
    if (!slimit_allowed(s_limit_conf, boff->limit_info, bssid, true)) {
        LOG_DUMP("%s:%d, " MAC_FMT " is not suitable for Backoff steering because of protection", MAC_ARG(sta->mac));
        return false;
    }
    if (boff->no_block) {
        boff->no_block = false;
        sblock_update_boff(sta, false);
    }
    return true;
}

int sboff_steer(ssta_status_t *sta, const uint8_t *target_bssid, const uint8_t *target_node,
                ssta_steer_result_cb result_cb)
{
    SASSERT(sta);
    SASSERT(target_bssid);
    SASSERT(target_node);
    sboff_status_t *boff = sboff_of(sta);
    SASSERT(boff);
    sap_bss_t *serving_bss = ssta_get_serving_bss(sta);
    SASSERT(serving_bss);
    sap_ess_t *ess = ssta_get_serving_ess(sta);
    SASSERT(ess);

    if (boff->state != SBOFF_STATE_IDLE) {
        LOG_WARN("%s:%d, state of " MAC_FMT " is not IDLE", MAC_ARG(sta->mac));
        return -1;
    }
    if (!sboff_allowed(sta, target_bssid)) {
        LOG_ERROR("%s:%d, not allowed to steer " MAC_FMT " with Backoff, target " MAC_FMT, MAC_ARG(sta->mac),
                  MAC_ARG(target_bssid));
        return -1;
    }
    if (sblock_bss(sta, target_bssid, ess) != 0) {
        LOG_ERROR("%s:%d, block bss failed");
        return -1;
    }
    LOG_INFO("%s:%d, try to steer " MAC_FMT " to " MAC_FMT " with Backoff, rssi: %ddBm", MAC_ARG(sta->mac),
             MAC_ARG(target_bssid), sta->rssi);
    slimit_pass(s_limit_conf, boff->limit_info);
    mac_copy(boff->target_bssid, target_bssid);
    mac_copy(boff->target_node, target_node);
    boff->result_cb = result_cb;
    boff->steer_begin = g_time;
    boff->sync_reply_cnt = 0;
    boff->low_rssi = sta->rssi <= s_conf.ph_low_rssi;
    sboff_start_timer(sta, boff);

    if (snei_get_cnt() != 0) {
        smsg_dict_t *root = smsg_new_root();
        if (!root) {
            sblock_update(sta);
            LOG_ERROR("%s:%d, create message SBOFF_START failed");
            return -1;
        }
        smsg_put_mac(root, "sta", sta->mac);
        smsg_put_mac(root, "target_bss", target_bssid);
        smsg_put_mac(root, "target_node", target_node);
        smsg_put_int(root, "low_rssi", boff->low_rssi ? 1 : 0);
        smsg_put_int(root, "ess", ess->ess_index);
        int ret = smsg_send(MAC_BCAST, "SBOFF_START", root);
        smsg_del_root(root);
        if (ret != 0) {
            sblock_update(sta);
            LOG_ERROR("%s:%d, send message SBOFF_START failed");
            return -1;
        }
        boff->state = SBOFF_STATE_SYNC;
        return 0;
    }
    if (sboff_kick(sta) != 0) {
        sblock_update(sta);
        return -1;
    }
    boff->state = SBOFF_STATE_REASSOC;
    return 0;
}

void sboff_sta_init(ssta_status_t *sta)
{
    SASSERT(sta);
    SASSERT(!sta->boff);
    auto *boff = static_cast<sboff_status_t *>(calloc(1, sizeof(sboff_status_t)));
    if (!boff) {
        LOG_FATAL("%s:%d, malloc failed");
        abort();
    }
    boff->limit_info = slimit_new_info();
    if (!boff->limit_info) {
        LOG_FATAL("%s:%d, new limit info failed");
        abort();
    }
    sta->boff = boff;
}

void sboff_sta_fini(ssta_status_t *sta)
{
    SASSERT(sta);
    sboff_status_t *boff = sboff_of(sta);
    if (!boff)
        return;
    sblock_update_boff(sta, false);
    slimit_del_info(boff->limit_info);
    if (boff->timer)
        sev_del_timer(boff->timer);
    free(boff);
    sta->boff = nullptr;
}

bool sboff_sta_useable(ssta_status_t *sta, bool mem_stress)
{
    SASSERT(sta);
    sboff_status_t *boff = sboff_of(sta);
    SASSERT(boff);
    if (boff->state != SBOFF_STATE_IDLE)
        return true;
    if (mem_stress)
        return false;
    return slimit_any_prohibited(boff->limit_info);
}

void sboff_sta_join_event(ssta_status_t *sta, sap_bss_t *bss)
{
    SASSERT(sta);
    SASSERT(bss);
    sboff_status_t *boff = sboff_of(sta);
    SASSERT(boff);
    if (boff->state == SBOFF_STATE_REASSOC || boff->state == SBOFF_STATE_SLAVE) {
        bool success = mac_equal(bss->bssid, boff->target_bssid);
        if (success) {
            slimit_unprohibit(boff->limit_info, boff->target_bssid);
            LOG_INFO("%s:%d, Backoff Steering for " MAC_FMT " success, Target " MAC_FMT, MAC_ARG(sta->mac),
                     MAC_ARG(boff->target_bssid));
        } else {
            LOG_INFO("%s:%d, Backoff steering failed, " MAC_FMT " associated to " MAC_FMT ", expect " MAC_FMT,
                     MAC_ARG(sta->mac), MAC_ARG(bss->bssid), MAC_ARG(boff->target_bssid));
        }
        sblock_update(sta);
        if (snei_get_cnt() > 0)
            sboff_send_finish(sta, success);
        if (boff->state == SBOFF_STATE_REASSOC) {
            if (!success)
                sboff_forbid_target(sta, boff);
            boff->state = SBOFF_STATE_IDLE;
            sboff_process_result(sta, success);
        } else {
            boff->state = SBOFF_STATE_IDLE;
        }
    } else if (boff->state == SBOFF_STATE_PREASSOC) {
        LOG_DEBUG("%s:%d, Pre-association Steering for " MAC_FMT " finished", MAC_ARG(sta->mac));
        boff->state = SBOFF_STATE_IDLE;
        if (snei_get_cnt() > 0)
            sboff_send_finish(sta, true);
    }
}

void sboff_sta_leave_event(ssta_status_t *sta, sap_bss_t *)
{
    SASSERT(sta);
    sboff_status_t *boff = sboff_of(sta);
    SASSERT(boff);
    if (boff->state != SBOFF_STATE_SYNC)
        return;
    LOG_INFO("%s:%d, " MAC_FMT " leave, abort backoff steering", MAC_ARG(sta->mac));
    sboff_sync_finish(sta, false);
}

void sboff_print_sta(FILE *f, ssta_status_t *sta, bool detail)
{
    SASSERT(f);
    SASSERT(sta);
    sboff_status_t *boff = sboff_of(sta);
    SASSERT(boff);
    SPRINTF(f, "sboff/state: %s\n", sboff_state_str(boff->state));
    if (detail) {
        SPRINTF(f, "sboff/no_block: %d\n", boff->no_block);
        SPRINTF(f, "sboff/low_rssi: %d\n", boff->low_rssi);
        SPRINTF(f, "sboff/target_bss: " MAC_FMT "\n", MAC_ARG(boff->target_bssid));
        SPRINTF(f, "sboff/target_node: " MAC_FMT "\n", MAC_ARG(boff->target_node));
        SPRINTF(f, "sboff/steer_begin: %ld\n", static_cast<long>(boff->steer_begin));
        SPRINTF(f, "sboff/sync_reply_cnt: %d\n", boff->sync_reply_cnt);
    }
    SPRINTF(f, "sboff/prohibited_targets:\n");
    slimit_dump_info(f, boff->limit_info);
}

void sboff_dump_config(FILE *f)
{
    SASSERT(f);
    SPRINTF(f, "en_boff: %d\n", s_conf.en_boff);
    SPRINTF(f, "en_boff_active: %d\n", s_conf.en_boff_active);
    SPRINTF(f, "reject_cnt: %d\n", s_conf.reject_cnt);
    SPRINTF(f, "boff_block_less: %d\n", s_conf.boff_block_less);
    SPRINTF(f, "boff_timeout: %d\n", s_conf.boff_timeout);
    SPRINTF(f, "msg_sync_timeout: %d\n", s_conf.msg_sync_timeout);
    SPRINTF(f, "ph_low_rssi: %d\n", s_conf.ph_low_rssi);
    SPRINTF(f, "limit_configs:\n");
    if (s_limit_conf)
        slimit_dump_conf(f, s_limit_conf);
}
