#include "steer_btm.h"

#include <new>

#include "maps.h"
#include "steer_block.h"
#include "steer_conf.h"
#include "steer_drv.h"
#include "steer_msg.h"
#include "steer_nei.h"
#include "steer_ven.h"

namespace {

struct sbtm_conf {
    bool en_btm;
    bool btm_no_2g;
    int btm_timeout;
    int msg_sync_timeout;
    int ph_low_rssi;
    bool btm_prohibit;
};

sbtm_conf s_conf;
slimit_conf_t *s_limit_conf;

sbtm_status_t *sbtm_of(ssta_status_t *sta)
{
    return static_cast<sbtm_status_t *>(sta->btm);
}

const char *sbtm_state_str(int state)
{
    switch (state) {
    case SBTM_STATE_IDLE:
        return "idle";
    case SBTM_STATE_SYNC:
        return "sync";
    case SBTM_STATE_REASSOC:
        return "re-assoc";
    case SBTM_STATE_SLAVE:
        return "slave";
    default:
        return "invalid";
    }
}

void sbtm_send(const uint8_t *da, const char *type, ssta_status_t *sta, const char *key, int value,
               const sbtm_status_t *btm = nullptr)
{
    smsg_dict_t *root = smsg_new_root();
    if (!root) {
        LOG_ERROR("%s:%d, new message failed");
        return;
    }
    smsg_put_mac(root, "sta", sta->mac);
    if (btm) {
        smsg_put_mac(root, "target_bss", btm->target_bssid);
        smsg_put_mac(root, "target_node", btm->target_node);
    } else {
        smsg_put_int(root, key, value);
    }
    if (smsg_send(da, type, root) != 0)
        LOG_ERROR("%s:%d, send message failed");
    smsg_del_root(root);
}

void sbtm_send_finish(ssta_status_t *sta, bool success)
{
    sbtm_send(MAC_BCAST, "SBTM_FINISH", sta, "success", success ? 1 : 0);
}

void sbtm_timer_handler(void *data);

void sbtm_start_timer(ssta_status_t *sta, sbtm_status_t *btm)
{
    if (!btm->timer)
        btm->timer = sev_new_timer(1, sbtm_timer_handler, sta);
}

int sbtm_send_request(ssta_status_t *sta, sbtm_status_t *btm, const char *ifname)
{
    maps_msg_bss_trans_req_t req = {};
    mac_copy(req.sta, sta->mac);
    mac_copy(req.bss, btm->target_bssid);
    req.channel = btm->target_channel;
    return sven_bss_trans_req(ifname, &req);
}

void sbtm_process_result(ssta_status_t *sta, bool success, bool assocated)
{
    sbtm_status_t *btm = sbtm_of(sta);
    bool prohibited = false;
    if (!assocated && s_conf.btm_prohibit) {
        if (sta->rssi > s_conf.ph_low_rssi) {
            LOG_INFO("%s:%d, " MAC_FMT " doesn't associate in time, forbid BTM Steering, target: " MAC_FMT
                     ", rssi: %d",
                     MAC_ARG(sta->mac), MAC_ARG(btm->target_bssid), sta->rssi);
            slimit_prohibit(s_limit_conf, btm->limit_info, btm->target_bssid, true);
        } else {
            LOG_INFO("%s:%d, " MAC_FMT " doesn't associate in time, forbid BTM Steering for a while, target: " MAC_FMT
                     ", rssi: %d",
                     MAC_ARG(sta->mac), MAC_ARG(btm->target_bssid), sta->rssi);
            slimit_prohibit(s_limit_conf, btm->limit_info, btm->target_bssid, false);
        }
        prohibited = true;
    } else if (assocated && !success && s_conf.btm_prohibit) {
        LOG_INFO("%s:%d, steer " MAC_FMT " to " MAC_FMT " with BTM failed, forbid for a while", MAC_ARG(sta->mac),
                 MAC_ARG(btm->target_bssid));
        slimit_prohibit(s_limit_conf, btm->limit_info, btm->target_bssid, false);
        prohibited = true;
    }
    if (!prohibited)
        slimit_unprohibit(btm->limit_info, btm->target_bssid);
    if (btm->result_cb)
        btm->result_cb(success, sta, btm->target_bssid, btm->target_node);
    else
        LOG_INFO("%s:%d, result callback is not set");
    LOG_STEER("%s:%d, [steer result] sta " MAC_FMT " steer to bss " MAC_FMT " %s\n", MAC_ARG(sta->mac),
              MAC_ARG(btm->target_bssid), success ? "SUCCESS" : "FAIL");
}

void sbtm_sync_finish(ssta_status_t *sta, bool success)
{
    sbtm_status_t *btm = sbtm_of(sta);
    if (btm->state != SBTM_STATE_SYNC) {
        LOG_WARN("%s:%d, unexpected state %d for " MAC_FMT, btm->state, MAC_ARG(sta->mac));
        return;
    }
    if (success) {
        btm->state = SBTM_STATE_REASSOC;
        sap_bss_t *serving = ssta_get_serving_bss(sta);
        if (serving && sbtm_send_request(sta, btm, serving->ifname) == 0)
            return;
        LOG_ERROR("%s:%d, BSS Transition Request failed");
    }
    btm->state = SBTM_STATE_IDLE;
    sbtm_send_finish(sta, false);
    sblock_update_btm(sta, false);
    if (btm->result_cb)
        btm->result_cb(false, sta, btm->target_bssid, btm->target_node);
}

void sbtm_timer_handler(void *data)
{
    auto *sta = static_cast<ssta_status_t *>(data);
    sbtm_status_t *btm = sbtm_of(sta);
    switch (btm->state) {
    case SBTM_STATE_SYNC:
        if (btm->steer_begin + s_conf.msg_sync_timeout <= g_time) {
            LOG_INFO("%s:%d, sync for " MAC_FMT " timeout, maybe some neighbors are offline", MAC_ARG(sta->mac));
            sbtm_sync_finish(sta, true);
        }
        return;
    case SBTM_STATE_REASSOC:
        if (sta->associated && btm->steer_begin + s_conf.btm_timeout - s_conf.msg_sync_timeout <= g_time) {
            LOG_DEBUG("%s:%d, " MAC_FMT " has never left, abort steering. Target " MAC_FMT, MAC_ARG(sta->mac),
                      MAC_ARG(btm->target_bssid));
            if (snei_get_cnt() > 0)
                sbtm_send_finish(sta, false);
            sblock_update_btm(sta, false);
            btm->state = SBTM_STATE_IDLE;
            sbtm_process_result(sta, false, true);
            return;
        }
        [[fallthrough]];
    case SBTM_STATE_SLAVE:
        if (btm->steer_begin + s_conf.btm_timeout <= g_time) {
            LOG_INFO("%s:%d, BSS Transition for " MAC_FMT " timeout, target " MAC_FMT, MAC_ARG(sta->mac),
                     MAC_ARG(btm->target_bssid));
            sblock_update_btm(sta, false);
            bool requester = btm->state == SBTM_STATE_REASSOC;
            btm->state = SBTM_STATE_IDLE;
            if (requester)
                sbtm_process_result(sta, false, false);
        }
        return;
    default:
        sev_del_timer(btm->timer);
        btm->timer = nullptr;
        return;
    }
}

void sbtm_start_handler(const uint8_t *, const uint8_t *sa, const char *, smsg_dict_t *root)
{
    uint8_t mac[MAC_LEN], target_bss[MAC_LEN], target_node[MAC_LEN];
    if (smsg_get_mac(root, "sta", mac) != 0 || smsg_get_mac(root, "target_bss", target_bss) != 0 ||
        smsg_get_mac(root, "target_node", target_node) != 0)
        return;
    ssta_status_t *sta = ssta_find(mac);
    if (!sta)
        sta = ssta_new(mac);
    if (!sta) {
        LOG_ERROR("%s:%d, new " MAC_FMT " failed", MAC_ARG(mac));
        return;
    }
    sbtm_status_t *btm = sbtm_of(sta);
    if (SREFUSE(btm))
        return;
    if (btm->state != SBTM_STATE_IDLE) {
        LOG_WARN("%s:%d, unexpected state %d for " MAC_FMT, btm->state, MAC_ARG(mac));
        return;
    }
    LOG_INFO("%s:%d, prepare BTM steering for " MAC_FMT ", requested by " MAC_FMT ", target " MAC_FMT, MAC_ARG(mac),
             MAC_ARG(sa), MAC_ARG(target_bss));
    sblock_update_btm(sta, true);
    mac_copy(btm->target_bssid, target_bss);
    mac_copy(btm->target_node, target_node);
    mac_copy(btm->org_node, sa);
    btm->steer_begin = g_time;
    btm->state = SBTM_STATE_SLAVE;
    sbtm_start_timer(sta, btm);
    sbtm_send(sa, "SBTM_READY", sta, "ok", 1);
}

void sbtm_ready_handler(const uint8_t *, const uint8_t *sa, const char *, smsg_dict_t *root)
{
    uint8_t mac[MAC_LEN];
    if (smsg_get_mac(root, "sta", mac) != 0)
        return;
    ssta_status_t *sta = ssta_find(mac);
    if (!sta) {
        LOG_ERROR("%s:%d, can't find station " MAC_FMT, MAC_ARG(mac));
        return;
    }
    sbtm_status_t *btm = sbtm_of(sta);
    if (SREFUSE(btm))
        return;
    if (smsg_get_int(root, "ok", nullptr) == 0) {
        LOG_DEBUG("%s:%d, " MAC_FMT " is not prepared for " MAC_FMT, MAC_ARG(sa), MAC_ARG(mac));
        sbtm_sync_finish(sta, false);
        return;
    }
    LOG_DEBUG("%s:%d, " MAC_FMT " is ready for " MAC_FMT, MAC_ARG(sa), MAC_ARG(mac));
    if (btm->state != SBTM_STATE_SYNC) {
        LOG_WARN("%s:%d, unexpected state %d for " MAC_FMT, btm->state, MAC_ARG(mac));
        return;
    }
    btm->sync_reply_cnt++;
    LOG_DUMP("%s:%d, received %d ready responses for " MAC_FMT ", neighbor count: %d", btm->sync_reply_cnt,
             MAC_ARG(mac), snei_get_cnt());
    if (btm->sync_reply_cnt >= snei_get_cnt())
        sbtm_sync_finish(sta, true);
}

void sbtm_finish_handler(const uint8_t *, const uint8_t *sa, const char *, smsg_dict_t *root)
{
    uint8_t mac[MAC_LEN] = {};
    smsg_get_mac(root, "sta", mac);
    ssta_status_t *sta = ssta_find(mac);
    if (!sta) {
        LOG_WARN("%s:%d, can't find station " MAC_FMT, MAC_ARG(mac));
        return;
    }
    sbtm_status_t *btm = sbtm_of(sta);
    if (SREFUSE(btm))
        return;
    bool success = smsg_get_int(root, "success", nullptr) != 0;
    LOG_INFO("%s:%d, BTM steer " MAC_FMT " to BSS " MAC_FMT " %s, notified by " MAC_FMT, MAC_ARG(mac),
             MAC_ARG(btm->target_bssid), success ? "success" : "failed", MAC_ARG(sa));
    switch (btm->state) {
    case SBTM_STATE_REASSOC:
        btm->state = SBTM_STATE_IDLE;
        sblock_update_btm(sta, false);
        sbtm_process_result(sta, success, true);
        break;
    case SBTM_STATE_SLAVE:
        btm->state = SBTM_STATE_IDLE;
        sblock_update_btm(sta, false);
        break;
    default:
        LOG_WARN("%s:%d, unexpected state %d for " MAC_FMT, btm->state, MAC_ARG(mac));
        break;
    }
}

void sbtm_response_handler(uint8_t, void *data, uint32_t size)
{
    if (size != sizeof(maps_msg_bss_trans_rsp_t)) {
        LOG_ERROR("%s:%d, invalid msg size %u", size);
        return;
    }
    maps_msg_bss_trans_rsp_t rsp;
    memcpy(&rsp, data, sizeof(rsp));
    LOG_DEBUG("%s:%d, receive BSS Transition response from " MAC_FMT " , bss_index %u, status %u", MAC_ARG(rsp.mac),
              rsp.bss_index, rsp.status);
    LOG_STEER("%s:%d, [steer btm] BTM Steering for " MAC_FMT " status = %u(%s) \n", MAC_ARG(rsp.mac), rsp.status,
              rsp.status ? "reject" : "accept");
    if (rsp.status)
        LOG_INFO("%s:%d, BTM Steering for " MAC_FMT " is rejected(status=%d)", MAC_ARG(rsp.mac), rsp.status);
    else
        LOG_DEBUG("%s:%d, BTM Steering for " MAC_FMT " is accepted", MAC_ARG(rsp.mac));
    ssta_status_t *sta = ssta_find(rsp.mac);
    if (!sta) {
        LOG_WARN("%s:%d, can't find station " MAC_FMT, MAC_ARG(rsp.mac));
        return;
    }
    sbtm_status_t *btm = sbtm_of(sta);
    if (SREFUSE(btm))
        return;
    if (btm->state != SBTM_STATE_REASSOC) {
        LOG_INFO("%s:%d, receive unexpected BTM Response from " MAC_FMT ", state %d", MAC_ARG(rsp.mac), btm->state);
        return;
    }
    if (rsp.status == 0)
        return;
    if (snei_get_cnt() > 0)
        sbtm_send_finish(sta, false);
    btm->state = SBTM_STATE_IDLE;
    sblock_update_btm(sta, false);
    sbtm_process_result(sta, false, true);
}

}  // namespace

void sbtm_init()
{
    SLOG_REGISTER("btm");
    s_conf.en_btm = sconf_get_int_def("bandherd.en_btm", 1) != 0;
    s_conf.btm_no_2g = sconf_get_int_def("bandherd.btm_no_2g", 0) != 0;
    s_conf.btm_timeout = sconf_get_int_def("bandherd.btm_timeout", 17);
    s_conf.msg_sync_timeout = sconf_get_int_def("bandherd.msg_sync_timeout", 3);
    s_conf.ph_low_rssi = sconf_get_int_def("bandherd.ph_low_rssi", -76);
    s_conf.btm_prohibit = sconf_get_int_def("bandherd.btm_prohibit", 1) != 0;
    s_limit_conf = slimit_new_conf(sconf_get_int_def("bandherd.btm_interval", 50),
                                   sconf_get_int_def("bandherd.btm_burst", 4));
    if (!s_limit_conf) {
        LOG_FATAL("%s:%d, new limit config failed");
        abort();
    }
    if (!(s_conf.btm_timeout > 2 * s_conf.msg_sync_timeout)) {
        LOG_FATAL("%s:%d, 'btm_timeout' is not long enough");
        abort();
    }
    sdrv_register_event(MAPS_EV_BSS_TRANS, sbtm_response_handler);
    smsg_register("SBTM_START", sbtm_start_handler);
    smsg_register("SBTM_READY", sbtm_ready_handler);
    smsg_register("SBTM_FINISH", sbtm_finish_handler);
}

void sbtm_exit()
{
    slimit_del_conf(s_limit_conf);
    s_limit_conf = nullptr;
}

bool sbtm_allowed(ssta_status_t *sta, const uint8_t *bssid)
{
    SASSERT(sta);
    sbtm_status_t *btm = sbtm_of(sta);
    SASSERT(btm);
    if (!s_conf.en_btm)
        return false;
    if (!(sta->caps & MAPS_CAP_BTM)) {
        LOG_DUMP("%s:%d, " MAC_FMT " is not suitable for BTM steering because it doesn't support BTM",
                 MAC_ARG(sta->mac));
        return false;
    }
    if (s_conf.btm_no_2g) {
        sap_radio_t *radio = ssta_get_serving_radio(sta);
        if (radio && radio->work_band == MAPS_2G) {
            LOG_DUMP("%s:%d, " MAC_FMT " is not suitable for BTM Steering because it's on 2g", MAC_ARG(sta->mac));
            return false;
        }
    }
    if (btm->state != SBTM_STATE_IDLE) {
        LOG_DUMP("%s:%d, " MAC_FMT " is not suitable for BTM steering because it's busy", MAC_ARG(sta->mac));
        return false;
    }
    if (!slimit_allowed(s_limit_conf, btm->limit_info, bssid, true)) {
        LOG_DUMP("%s:%d, " MAC_FMT " is not suitable for BTM steering because of protection", MAC_ARG(sta->mac));
        return false;
    }
    return true;
}

int sbtm_steer(ssta_status_t *sta, sap_bss_t *target_bss, const uint8_t *target_node, ssta_steer_result_cb result_cb)
{
    SASSERT(sta);
    SASSERT(target_bss);
    SASSERT(target_node);
    sap_bss_t *serving_bss = ssta_get_serving_bss(sta);
    SASSERT(serving_bss);
    sap_radio_t *target_radio = target_bss->radio;
    SASSERT(target_radio);
    sbtm_status_t *btm = sbtm_of(sta);
    SASSERT(btm);

    if (btm->state != SBTM_STATE_IDLE) {
        LOG_WARN("%s:%d, state is not IDLE");
        return -1;
    }
    if (!sbtm_allowed(sta, target_bss->bssid)) {
        LOG_ERROR("%s:%d, not allowed to steer " MAC_FMT " with BTM", MAC_ARG(sta->mac));
        return -1;
    }
    slimit_pass(s_limit_conf, btm->limit_info);
    mac_copy(btm->target_bssid, target_bss->bssid);
    mac_copy(btm->target_node, target_node);
    btm->target_channel = target_radio->channel;
    btm->sync_reply_cnt = 0;
    btm->steer_begin = g_time;
    btm->result_cb = result_cb;
    LOG_INFO("%s:%d, %s try to steer " MAC_FMT " to " MAC_FMT " with BTM, rssi=%d", serving_bss->ifname,
             MAC_ARG(sta->mac), MAC_ARG(target_bss->bssid), sta->rssi);
    LOG_STEER("%s:%d, [steer trigger] from %s, sta " MAC_FMT " steer to bss " MAC_FMT "\n",
              sbtm_reason_str(sta->btm_reason), MAC_ARG(sta->mac), MAC_ARG(target_bss->bssid));
    sbtm_start_timer(sta, btm);
    sblock_update_btm(sta, true);
    if (snei_get_cnt() > 0) {
        sbtm_send(MAC_BCAST, "SBTM_START", sta, nullptr, 0, btm);
        btm->state = SBTM_STATE_SYNC;
        return 0;
    }
    sven_pre_btm(serving_bss->ifname);
    if (sbtm_send_request(sta, btm, serving_bss->ifname) != 0) {
        LOG_ERROR("%s:%d, BSS Transition Request failed");
        return -1;
    }
    sven_post_btm(serving_bss->ifname);
    btm->state = SBTM_STATE_REASSOC;
    return 0;
}

void sbtm_sta_init(ssta_status_t *sta)
{
    SASSERT(sta);
    SASSERT(!sta->btm);
    auto *btm = static_cast<sbtm_status_t *>(calloc(1, sizeof(sbtm_status_t)));
    if (!btm) {
        LOG_FATAL("%s:%d, malloc failed");
        abort();
    }
    btm->limit_info = slimit_new_info();
    if (!btm->limit_info) {
        LOG_FATAL("%s:%d, new limit info failed");
        abort();
    }
    sta->btm = btm;
}

void sbtm_sta_fini(ssta_status_t *sta)
{
    SASSERT(sta);
    sbtm_status_t *btm = sbtm_of(sta);
    if (!btm)
        return;
    sblock_update_btm(sta, false);
    slimit_del_info(btm->limit_info);
    if (btm->timer)
        sev_del_timer(btm->timer);
    free(btm);
    sta->btm = nullptr;
}

bool sbtm_sta_useable(ssta_status_t *sta, bool mem_stress)
{
    SASSERT(sta);
    sbtm_status_t *btm = sbtm_of(sta);
    SASSERT(btm);
    if (btm->state != SBTM_STATE_IDLE)
        return true;
    if (mem_stress)
        return false;
    return slimit_any_prohibited(btm->limit_info);
}

void sbtm_sta_join_event(ssta_status_t *sta, sap_bss_t *bss)
{
    SASSERT(sta);
    SASSERT(bss);
    sbtm_status_t *btm = sbtm_of(sta);
    SASSERT(btm);
    if (btm->state != SBTM_STATE_REASSOC && btm->state != SBTM_STATE_SLAVE)
        return;
    bool success = mac_equal(bss->bssid, btm->target_bssid);
    if (success)
        LOG_INFO("%s:%d, %s: BTM Steering for " MAC_FMT " success, target " MAC_FMT, bss->ifname, MAC_ARG(sta->mac),
                 MAC_ARG(btm->target_bssid));
    else
        LOG_INFO("%s:%d, %s: BTM steering failed, " MAC_FMT " associated to " MAC_FMT ", expect " MAC_FMT, bss->ifname,
                 MAC_ARG(sta->mac), MAC_ARG(bss->bssid), MAC_ARG(btm->target_bssid));
    if (snei_get_cnt() > 0)
        sbtm_send_finish(sta, success);
    sblock_update_btm(sta, false);
    bool requester = btm->state == SBTM_STATE_REASSOC;
    btm->state = SBTM_STATE_IDLE;
    if (requester)
        sbtm_process_result(sta, success, true);
}

void sbtm_sta_leave_event(ssta_status_t *sta, sap_bss_t *)
{
    SASSERT(sta);
    sbtm_status_t *btm = sbtm_of(sta);
    SASSERT(btm);
    if (btm->state != SBTM_STATE_SYNC)
        return;
    LOG_INFO("%s:%d, station " MAC_FMT " leave, abort BTM steering", MAC_ARG(sta->mac));
    sbtm_sync_finish(sta, false);
}

const char *sbtm_reason_str(int reason)
{
    switch (reason) {
    case SBTM_FROM_CMD:
        return "CMD";
    case SBTM_FROM_LOW_RSSI:
        return "LOW_RSSI";
    case SBTM_FROM_HIGH_RSSI:
        return "HIGH_RSSI";
    case SBTM_FROM_OVERLOAD:
        return "OVERLOAD";
    case SBTM_FROM_BALANCE:
        return "BALANCE";
    default:
        return "UNKNOWN";
    }
}

void sbtm_print_sta(FILE *f, ssta_status_t *sta, bool detail)
{
    SASSERT(f);
    SASSERT(sta);
    sbtm_status_t *btm = sbtm_of(sta);
    SASSERT(btm);
    SPRINTF(f, "sbtm/state: %s\n", sbtm_state_str(btm->state));
    if (detail) {
        SPRINTF(f, "sbtm/target_bss: " MAC_FMT "\n", MAC_ARG(btm->target_bssid));
        SPRINTF(f, "sbtm/target_node: " MAC_FMT "\n", MAC_ARG(btm->target_node));
        SPRINTF(f, "sbtm/steer_begin: %ld\n", static_cast<long>(btm->steer_begin));
        SPRINTF(f, "sbtm/sync_reply_cnt: %d\n", btm->sync_reply_cnt);
    }
    SPRINTF(f, "sbtm/prohibited_targets:\n");
    slimit_dump_info(f, btm->limit_info);
}

void sbtm_dump_config(FILE *f)
{
    SASSERT(f);
    SPRINTF(f, "en_btm: %d\n", s_conf.en_btm);
    SPRINTF(f, "btm_no_2g: %d\n", s_conf.btm_no_2g);
    SPRINTF(f, "btm_timeout: %d\n", s_conf.btm_timeout);
    SPRINTF(f, "msg_sync_timeout: %d\n", s_conf.msg_sync_timeout);
    SPRINTF(f, "ph_low_rssi: %d\n", s_conf.ph_low_rssi);
    SPRINTF(f, "limit_configs:\n");
    if (s_limit_conf)
        slimit_dump_conf(f, s_limit_conf);
}
