#include "steer_act.h"

#include <new>

#include "steer_boff.h"
#include "steer_btm.h"
#include "steer_conf.h"

namespace {

struct sact_conf {
    bool btm_dual_band;
    bool en_btm_fallback;
    int seesaw_interval;
    int seesaw_tolerance;
    int fb_rssi_dither;
};

sact_conf s_conf;
slimit_conf_t *s_limit_conf;

constexpr int SACT_SESSION_PERIOD = 5;
constexpr uint32_t SACT_ALL_BANDS = MAPS_2G | MAPS_5L | MAPS_5H;

sact_status_t *sact_of(ssta_status_t *sta)
{
    return static_cast<sact_status_t *>(sta->act);
}

void sact_timer_handler(void *data);

void sact_close_session(ssta_status_t *sta, sact_status_t *act, sact_session_t *s)
{
    LOG_DEBUG("%s:%d, steer " MAC_FMT " from " MAC_FMT " to " MAC_FMT " success without seesaw", MAC_ARG(sta->mac),
              MAC_ARG(s->server_bssid), MAC_ARG(s->target_bssid));
    slimit_unprohibit(act->limit_info, s->target_bssid);
}

void sact_record_session(ssta_status_t *sta, sact_status_t *act, const uint8_t *server_bssid,
                         const uint8_t *target_bssid)
{
    sact_session_t *session = nullptr;
    for (sact_session_t *s : act->sessions) {
        if (mac_equal(s->server_bssid, server_bssid) && mac_equal(s->target_bssid, target_bssid)) {
            session = s;
            break;
        }
    }
    if (!session) {
        session = static_cast<sact_session_t *>(calloc(1, sizeof(sact_session_t)));
        if (!session) {
            LOG_ERROR("%s:%d, new session failed");
            return;
        }
        mac_copy(session->server_bssid, server_bssid);
        mac_copy(session->target_bssid, target_bssid);
        LOG_DUMP("%s:%d, new session, steer " MAC_FMT " from " MAC_FMT " to " MAC_FMT, MAC_ARG(sta->mac),
                 MAC_ARG(server_bssid), MAC_ARG(target_bssid));
        act->sessions.add_head(session);
    } else if (session->steer_time != 0 && session->steer_time + s_conf.seesaw_interval <= g_time) {
        sact_close_session(sta, act, session);
        session->seesaw_cnt = 0;
    }
    session->steer_time = g_time;
    if (!act->timer)
        act->timer = sev_new_timer(SACT_SESSION_PERIOD, sact_timer_handler, sta);
}

void sact_timer_handler(void *data)
{
    auto *sta = static_cast<ssta_status_t *>(data);
    sact_status_t *act = sact_of(sta);
    for (sact_session_t *s : act->sessions) {
        if (s->steer_time != 0 && s->steer_time + s_conf.seesaw_interval <= g_time) {
            sact_close_session(sta, act, s);
            sact_session_list::del(s);
            free(s);
        }
    }
    if (act->sessions.empty()) {
        SASSERT(act->timer);
        sev_del_timer(act->timer);
        act->timer = nullptr;
    }
}

void sact_boff_result_handler(bool success, ssta_status_t *sta, const uint8_t *bssid, const uint8_t *)
{
    sact_status_t *act = sact_of(sta);
    if (success)
        sact_record_session(sta, act, act->server_bssid, bssid);
    if (act->result_cb)
        act->result_cb(sta, bssid, success);
}

void sact_btm_result_handler(bool success, ssta_status_t *sta, const uint8_t *bssid, const uint8_t *node)
{
    sact_status_t *act = sact_of(sta);
    if (success) {
        sact_record_session(sta, act, act->server_bssid, bssid);
        if (act->result_cb)
            act->result_cb(sta, bssid, true);
        return;
    }
    sap_bss_t *serving = sta->associated ? ssta_get_serving_bss(sta) : nullptr;
    int dither = sta->rssi - act->rssi;
    if (dither < 0)
        dither = -dither;
    if (sta->associated && s_conf.en_btm_fallback && sboff_allowed(sta, bssid) && serving &&
        mac_equal(serving->bssid, act->server_bssid) && dither <= s_conf.fb_rssi_dither) {
        if (!(act->target_band & sta->bands)) {
            LOG_DEBUG("%s:%d, maybe " MAC_FMT " doesn't support band %d, give up", MAC_ARG(sta->mac),
                      act->target_band);
        } else {
            LOG_DEBUG("%s:%d, fall back to Backoff Steering, STA " MAC_FMT ", Target " MAC_FMT, MAC_ARG(sta->mac),
                      MAC_ARG(bssid));
            if (sboff_steer(sta, bssid, node, sact_boff_result_handler) == 0)
                return;
        }
    } else {
        LOG_DUMP("%s:%d, BTM Steering failed, STA: " MAC_FMT ", associated: %d, rssi: %d, rssi_when_steer: %d, "
                 "serving_bss: " MAC_FMT,
                 MAC_ARG(sta->mac), sta->associated, sta->rssi, act->rssi, MAC_ARG(act->server_bssid));
    }
    if (act->result_cb)
        act->result_cb(sta, bssid, false);
}

}  // namespace

void sact_init()
{
    SLOG_REGISTER("act");
    s_conf.btm_dual_band = sconf_get_int_def("bandherd.btm_dual_band", 1) != 0;
    s_conf.en_btm_fallback = sconf_get_int_def("bandherd.en_btm_fb", 1) != 0;
    s_conf.seesaw_interval = sconf_get_int_def("bandherd.seesaw_interval", 300);
    s_conf.seesaw_tolerance = sconf_get_int_def("bandherd.seesaw_tolerance", 0);
    s_conf.fb_rssi_dither = sconf_get_int_def("bandherd.fb_rssi_dither", 4);
    s_limit_conf = slimit_new_conf(0, 0);
    if (!s_limit_conf) {
        LOG_FATAL("%s:%d, new limit config failed");
        abort();
    }
    sbtm_init();
    sboff_init();
}

void sact_exit()
{
    sboff_exit();
    sbtm_exit();
    slimit_del_conf(s_limit_conf);
    s_limit_conf = nullptr;
}

bool sact_allow_steer(ssta_status_t *sta, sap_bss_t *target_bss)
{
    SASSERT(sta);
    sact_status_t *act = sact_of(sta);
    SASSERT(act);
    bool band_unsupported = false;
    if (target_bss) {
        SASSERT(target_bss->radio);
        band_unsupported = !(sta->bands & target_bss->radio->work_band);
    }
    const uint8_t *bssid = target_bss ? target_bss->bssid : nullptr;
    if (!slimit_allowed(s_limit_conf, act->limit_info, bssid, false)) {
        LOG_DUMP("%s:%d, " MAC_FMT " is not suitable for steering because of protection", MAC_ARG(sta->mac));
        return false;
    }
    bool btm_ok = sbtm_allowed(sta, bssid);
    if (btm_ok) {
        if (sta->bands & MAPS_6G) {
            sta->bands |= SACT_ALL_BANDS;
            LOG_INFO("%s:%d, " MAC_FMT " support 6G capability, so it support 5G and 2.4G", MAC_ARG(sta->mac));
            return true;
        }
        if (!band_unsupported || s_conf.btm_dual_band) {
            sta->bands |= SACT_ALL_BANDS;
            LOG_INFO("%s:%d, " MAC_FMT " support BTM capability, so it support 5G and 2.4G", MAC_ARG(sta->mac));
            return true;
        }
    }
    bool boff_ok = sboff_allowed(sta, bssid);
    if (boff_ok && !band_unsupported)
        return true;
    if (!target_bss) {
        LOG_DUMP("%s:%d, " MAC_FMT " is not suitable for steering, maybe it doesn't allow_btm and allow_boff",
                 MAC_ARG(sta->mac));
    } else if (btm_ok || boff_ok) {  // a mechanism would have taken it, but not to that band
        LOG_DUMP("%s:%d, " MAC_FMT " is not suitable for steering, maybe it doesn't support the target band, "
                 "target " MAC_FMT,
                 MAC_ARG(sta->mac), MAC_ARG(bssid));
    }
    return false;
}

int sact_steer(ssta_status_t *sta, sap_bss_t *target_bss, sap_node_t *target_node, sact_result_cb result_cb)
{
    SASSERT(sta);
    SASSERT(target_bss);
    SASSERT(target_node);
    sact_status_t *act = sact_of(sta);
    SASSERT(act);
    sap_bss_t *serving_bss = ssta_get_serving_bss(sta);
    SASSERT(serving_bss);
    SASSERT(target_bss->radio);

    mac_copy(act->server_bssid, serving_bss->bssid);
    act->result_cb = result_cb;
    act->target_band = target_bss->radio->work_band;
    act->rssi = sta->rssi;
    if (sbtm_allowed(sta, target_bss->bssid))
        return sbtm_steer(sta, target_bss, target_node->node_id, sact_btm_result_handler);
    if (sboff_allowed(sta, target_bss->bssid)) {
        if (act->target_band & sta->bands)
            return sboff_steer(sta, target_bss->bssid, target_node->node_id, sact_boff_result_handler);
        LOG_WARN("%s:%d, not allowed to steer, maybe " MAC_FMT " doesn't support band %x", MAC_ARG(sta->mac),
                 act->target_band);
        return -1;
    }
    LOG_WARN("%s:%d, steering for " MAC_FMT " is not allowed, target " MAC_FMT, MAC_ARG(sta->mac),
             MAC_ARG(target_bss->bssid));
    return -1;
}

void sact_sta_init(ssta_status_t *sta)
{
    SASSERT(sta);
    auto *act = new (std::nothrow) sact_status_t{};
    if (!act) {
        LOG_FATAL("%s:%d, malloc failed");
        abort();
    }
    act->limit_info = slimit_new_info();
    if (!act->limit_info) {
        LOG_FATAL("%s:%d, new limit failed");
        abort();
    }
    sta->act = act;
    sbtm_sta_init(sta);
    sboff_sta_init(sta);
}

void sact_sta_fini(ssta_status_t *sta)
{
    SASSERT(sta);
    sact_status_t *act = sact_of(sta);
    if (!act)
        return;
    sboff_sta_fini(sta);
    sbtm_sta_fini(sta);
    for (sact_session_t *s : act->sessions) {
        sact_session_list::del(s);
        free(s);
    }
    if (act->timer)
        sev_del_timer(act->timer);
    slimit_del_info(act->limit_info);
    delete act;
    sta->act = nullptr;
}

bool sact_sta_useable(ssta_status_t *sta, bool mem_stress)
{
    SASSERT(sta);
    sact_status_t *act = sact_of(sta);
    SASSERT(act);
    if (!mem_stress && (!act->sessions.empty() || slimit_any_prohibited(act->limit_info)))
        return true;
    return sbtm_sta_useable(sta, mem_stress) || sboff_sta_useable(sta, mem_stress);
}

void sact_sta_join_event(ssta_status_t *sta, sap_bss_t *bss)
{
    SASSERT(sta);
    SASSERT(bss);
    sact_status_t *act = sact_of(sta);
    SASSERT(act);
    for (sact_session_t *s : act->sessions) {
        if (s->steer_time == 0 || !mac_equal(s->server_bssid, bss->bssid) ||
            !(g_time < s->steer_time + s_conf.seesaw_interval))
            continue;
        LOG_INFO("%s:%d, " MAC_FMT " roams back to the previous serving bss " MAC_FMT
                 ", it has been steered to " MAC_FMT,
                 MAC_ARG(sta->mac), MAC_ARG(bss->bssid), MAC_ARG(s->target_bssid));
        s->steer_time = 0;
        s->seesaw_cnt++;
        if (s->seesaw_cnt > s_conf.seesaw_tolerance) {
            LOG_INFO("%s:%d, forbid to steer " MAC_FMT " to " MAC_FMT, MAC_ARG(sta->mac), MAC_ARG(s->target_bssid));
            slimit_prohibit(s_limit_conf, act->limit_info, s->target_bssid, false);
            sact_session_list::del(s);
            free(s);
        }
    }
    sbtm_sta_join_event(sta, bss);
    sboff_sta_join_event(sta, bss);
}

void sact_sta_leave_event(ssta_status_t *sta, sap_bss_t *bss)
{
    sbtm_sta_leave_event(sta, bss);
    sboff_sta_leave_event(sta, bss);
}

void sact_print_sta(FILE *f, ssta_status_t *sta, bool detail)
{
    SASSERT(f);
    SASSERT(sta);
    sact_status_t *act = sact_of(sta);
    SASSERT(act);
    if (detail) {
        SPRINTF(f, "sact/pending_sessions:\n");
        for (sact_session_t *s : act->sessions) {
            SPRINTF(f, "    " MAC_FMT " -> " MAC_FMT ", seesaw count %d", MAC_ARG(s->server_bssid),
                    MAC_ARG(s->target_bssid), s->seesaw_cnt);
            if (s->steer_time != 0)
                SPRINTF(f, ", last steered %ld seconds ago\n", static_cast<long>(g_time - s->steer_time));
            else
                fputc('\n', f);
        }
    }
    SPRINTF(f, "sact/prohibited_targets:\n");
    slimit_dump_info(f, act->limit_info);
}

void sact_dump_config(FILE *f)
{
    SASSERT(f);
    SPRINTF(f, "btm_dual_band: %d\n", s_conf.btm_dual_band);
    SPRINTF(f, "en_btm_fallback: %d\n", s_conf.en_btm_fallback);
    SPRINTF(f, "seesaw_tolerance: %d\n", s_conf.seesaw_tolerance);
    SPRINTF(f, "seesaw_interval: %d\n", s_conf.seesaw_interval);
    SPRINTF(f, "fb_rssi_dither: %d\n", s_conf.fb_rssi_dither);
    SPRINTF(f, "limit_configs:\n");
    if (s_limit_conf)
        slimit_dump_conf(f, s_limit_conf);
}
