#include "steer_ns.h"

#include <cstring>
#include <new>

#include "maps.h"
#include "steer_act.h"
#include "steer_conf.h"
#include "steer_drv.h"
#include "steer_nei.h"
#include "steer_rate.h"
#include "steer_ven.h"

namespace {

sns_config_t s_conf;

sns_status_t *sns_of(ssta_status_t *sta)
{
    return static_cast<sns_status_t *>(sta->ns);
}

bool sns_is_5g(uint32_t band)
{
    return (band & (MAPS_5L | MAPS_5H)) != 0;
}

void sns_free_candidates(sns_status_t *ns)
{
    for (sns_candidate_chan_t *chan : ns->channel_list) {
        for (sns_candidate_bss_t *cand : chan->bss_list) {
            sns_bss_list::del(cand);
            delete cand;
        }
        sns_chan_list::del(chan);
        delete chan;
    }
    ns->serving_cand = nullptr;
}

void sns_stop_timer(sns_status_t *ns)
{
    if (ns->measure_timer) {
        sev_del_timer(ns->measure_timer);
        ns->measure_timer = nullptr;
    }
}

sns_candidate_bss_t *sns_add_candidate(sns_status_t *ns, sap_node_t *node, sap_bss_t *bss, uint8_t channel)
{
    sns_candidate_chan_t *chan = nullptr;
    for (sns_candidate_chan_t *c : ns->channel_list) {
        if (c->channel == channel) {
            chan = c;
            break;
        }
    }
    if (!chan) {
        chan = new (std::nothrow) sns_candidate_chan_t();
        if (!chan) {
            LOG_ERROR("%s:%d, malloc channel failed");
            return nullptr;
        }
        chan->channel = channel;
        ns->channel_list.add_tail(chan);
    }
    auto *cand = new (std::nothrow) sns_candidate_bss_t();
    if (!cand) {
        LOG_ERROR("%s:%d, malloc bss failed");
        return nullptr;
    }
    cand->bss = bss;
    cand->node = node;
    chan->bss_list.add_tail(cand);
    LOG_DUMP("%s:%d, node [" MAC_FMT "] : add bss%u [" MAC_FMT "] to candidate list(channel %u)",
             MAC_ARG(node->node_id), bss->bss_index, MAC_ARG(bss->bssid), channel);
    return cand;
}

// The neighbour's BSS in the station's ESS that promises the best rate to
// the portal, or null.
sap_bss_t *sns_elect(ssta_status_t *sta, sap_node_t *node, unsigned int ess_index)
{
    sap_ess_t *ess = &node->ess[ess_index];
    if (ess->essid[0] == '\0') {
        LOG_DEBUG("%s:%d, there is no ess%u in neighbor " MAC_FMT, ess_index, MAC_ARG(node->node_id));
        return nullptr;
    }
    sap_bss_t *best = nullptr;
    int best_rate = 0;
    for (sap_bss_t &bss : ess->bss) {
        if (bss.bss_index == 0)
            continue;
        sap_radio_t *radio = bss.radio;
        if (!radio || radio->channel == 0) {
            LOG_ERROR("%s:%d, invalid radio of " MAC_FMT ", bss%u", MAC_ARG(node->node_id), bss.bss_index);
            continue;
        }
        if (!(radio->work_band & sta->bands))
            continue;
        if (bss.sta_num >= bss.sta_max) {
            LOG_DEBUG("%s:%d, more sta(%d) associate on bss%d than limit(%d)", bss.sta_num, bss.bss_index,
                      bss.sta_max);
            continue;
        }
        if ((sns_is_5g(radio->work_band) && bss.sta_num >= s_conf.ssta_5) ||
            (radio->work_band == MAPS_2G && bss.sta_num >= s_conf.ssta_2)) {
            LOG_DEBUG("%s:%d, skip bss%u on " MAC_FMT " since too many stations", bss.bss_index,
                      MAC_ARG(node->node_id));
            continue;
        }
        if (!sact_allow_steer(sta, &bss)) {
            LOG_DEBUG("%s:%d, not allowed to steer " MAC_FMT " to " MAC_FMT, MAC_ARG(sta->mac), MAC_ARG(bss.bssid));
            continue;
        }
        int rate = srate_evaluate_sta2mpp(sta, node, radio, srate_get_sta_max_rate(sta, radio));
        LOG_DEBUG("%s:%d, bss%u [" MAC_FMT "] on node [" MAC_FMT "], eqv_rate is %d in channel %u", bss.bss_index,
                  MAC_ARG(bss.bssid), MAC_ARG(node->node_id), rate, radio->channel);
        if (rate > best_rate) {
            best_rate = rate;
            best = &bss;
        }
    }
    return best;
}

void sns_timeout(void *data);

int sns_measure_channel(ssta_status_t *sta, sns_status_t *ns, sns_candidate_chan_t *chan)
{
    if (ns->measure_timer) {
        LOG_ERROR("%s:%d, measure timer is alive");
        return -1;
    }
    chan->measured = true;
    LOG_DEBUG("%s:%d, measuring channel %u for " MAC_FMT, chan->channel, MAC_ARG(sta->mac));
    sap_bss_t *bss = ssta_get_serving_bss(sta);
    sap_ess_t *ess = ssta_get_serving_ess(sta);
    if (!bss || !ess || sven_beacon_req(bss->ifname, sta->mac, chan->channel, ess->essid) != 0) {
        LOG_ERROR("%s:%d, Beacon request failed!");
        return -1;
    }
    ns->measure_timer = sev_new_timer(s_conf.br_timeout, sns_timeout, sta);
    return 0;
}

void sns_evaluate(ssta_status_t *sta, sns_candidate_bss_t *cand, int8_t value)
{
    sap_radio_t *radio = cand->bss->radio;
    int8_t rssi = static_cast<int8_t>(value - s_conf.rssi_delta);
    if (rssi < -99)
        rssi = -99;
    cand->rssi = value;
    int link_rate = srate_get_rate_rssi(sta, radio, rssi);
    cand->rate = srate_evaluate_sta2mpp(sta, cand->node, radio, link_rate);
    cand->evaluated = true;
    LOG_DEBUG("%s:%d, BSS " MAC_FMT ", link rate: %dM, rate to mpp: %dM", MAC_ARG(cand->bss->bssid), link_rate,
              cand->rate);
}

sns_candidate_bss_t *sns_best_candidate(ssta_status_t *sta, sns_status_t *ns)
{
    sns_candidate_bss_t *best = nullptr;
    int best_rate = 0;
    for (sns_candidate_chan_t *chan : ns->channel_list) {
        for (sns_candidate_bss_t *cand : chan->bss_list) {
            if (cand == ns->serving_cand || !cand->evaluated)
                continue;
            if (sns_is_5g(cand->bss->radio->work_band) && cand->rssi < s_conf.ap_safe_rssi_5) {
                LOG_DEBUG("%s:%d, skip " MAC_FMT " for low rssi(%ddBm)", MAC_ARG(cand->bss->bssid), cand->rssi);
                continue;
            }
            if (cand->rate > best_rate) {
                best_rate = cand->rate;
                best = cand;
            }
        }
    }
    if (!best)
        return nullptr;
    int serving_rate;
    if (ns->serving_cand->evaluated) {
        serving_rate = ns->serving_cand->rate;
    } else {
        sap_radio_t *radio = ssta_get_serving_radio(sta);
        int link_rate = srate_get_rate_rssi(sta, radio, sta->rssi);
        serving_rate = srate_evaluate_sta2mpp(sta, &g_self, radio, link_rate);
        LOG_DEBUG("%s:%d, miss rcpi of serving BSS, use rssi %d. link_rate %d, rate_to_mpp %d", sta->rssi, link_rate,
                  serving_rate);
    }
    if (best->rate < serving_rate * (100 + s_conf.ap_tg_ratio) / 100) {
        LOG_DEBUG("%s:%d, serving bss rate: %dM; best neighbor rate: %dM. It's not good enough.", serving_rate,
                  best->rate);
        if (s_conf.best_cand_reconfirm)
            memset(ns->prev_best_node_id, 0, MAC_LEN);
        return nullptr;
    }
    return best;
}

// Ends the measurement and tells the caller what it found.
void sns_finish(ssta_status_t *sta, sns_status_t *ns, sns_candidate_bss_t *winner)
{
    sns_result_cb cb = ns->result_cb;
    sap_bss_t *bss = winner ? winner->bss : nullptr;
    sap_node_t *node = winner ? winner->node : nullptr;
    ns->measuring = false;
    ns->result_cb = nullptr;
    sns_stop_timer(ns);
    sns_free_candidates(ns);
    if (!cb) {
        LOG_INFO("%s:%d, no result callback");
        return;
    }
    if (bss && s_conf.best_cand_reconfirm) {
        if (!mac_equal(node->node_id, ns->prev_best_node_id)) {
            mac_copy(ns->prev_best_node_id, node->node_id);
            LOG_DEBUG("%s:%d, " MAC_FMT " for " MAC_FMT " need one more time better than current node.\n",
                      MAC_ARG(node->node_id), MAC_ARG(sta->mac));
            bss = nullptr;
        } else {
            memset(ns->prev_best_node_id, 0, MAC_LEN);
        }
    }
    if (bss) {
        LOG_DEBUG("%s:%d, best bss for sta[" MAC_FMT "] is bss%u[" MAC_FMT "] on node[" MAC_FMT "]", MAC_ARG(sta->mac),
                  bss->bss_index, MAC_ARG(bss->bssid), MAC_ARG(node->node_id));
        cb(sta, bss, node, true);
    } else {
        LOG_DEBUG("%s:%d, can't find better bss for sta" MAC_FMT, MAC_ARG(sta->mac));
        cb(sta, nullptr, nullptr, false);
    }
}

void sns_measure_next(ssta_status_t *sta, sns_status_t *ns)
{
    sns_stop_timer(ns);
    if (!ns->serving_cand) {
        LOG_ERROR("%s:%d, null serving candidate");
        sns_finish(sta, ns, nullptr);
        return;
    }
    sns_candidate_chan_t *next = nullptr;
    for (sns_candidate_chan_t *chan : ns->channel_list) {
        if (!chan->measured) {
            next = chan;
            break;
        }
    }
    sns_candidate_bss_t *winner = nullptr;
    if ((ns->serving_cand->evaluated || s_conf.rcpi_estimate) && (!next || !s_conf.full_measure))
        winner = sns_best_candidate(sta, ns);
    if (next && !winner) {
        if (sns_measure_channel(sta, ns, next) == 0)
            return;
    }
    sns_finish(sta, ns, winner);
}

void sns_timeout(void *data)
{
    auto *sta = static_cast<ssta_status_t *>(data);
    sns_status_t *ns = sns_of(sta);
    sns_stop_timer(ns);
    LOG_DEBUG("%s:%d, beacon measurement for " MAC_FMT " timeout", MAC_ARG(sta->mac));
    if (ns->measuring)
        sns_measure_next(sta, ns);
}

// The reported value as dBm; false when it is to be ignored.
bool sns_resolve(ssta_status_t *sta, sns_status_t *ns, int8_t value, int8_t *dbm)
{
    if (!s_conf.rcpi_trans) {
        if (value < -99 || value > -1) {
            LOG_DEBUG("%s:%d, invalid rcpi %d from " MAC_FMT, value, MAC_ARG(sta->mac));
            return false;
        }
        *dbm = value;
        return true;
    }
    if (value == 0) {
        LOG_DEBUG("%s:%d, invalid rcpi %d from " MAC_FMT, value, MAC_ARG(sta->mac));
        return false;
    }
    if (!ns->abnormal_rcpi && value >= -100 && value <= 0) {
        *dbm = value;
        return true;
    }
    *dbm = sns_trans_rcpi(value);
    if (ns->abnormal_rcpi) {
        LOG_DEBUG("%s:%d, transform rcpi to %ddBm", *dbm);
        return true;
    }
    ns->abnormal_rcpi = true;
    LOG_DEBUG("%s:%d, abnormal rcpi, transform it to %ddBm", *dbm);
    for (sns_candidate_chan_t *chan : ns->channel_list) {
        for (sns_candidate_bss_t *cand : chan->bss_list) {
            if (!cand->evaluated)
                continue;
            int8_t converted = sns_trans_rcpi(cand->rssi);
            LOG_DEBUG("%s:%d, transform rcpi from %d to %d", cand->rssi, converted);
            sns_evaluate(sta, cand, converted);
        }
    }
    return true;
}

sns_candidate_bss_t *sns_find_candidate(sns_status_t *ns, const uint8_t *bssid)
{
    for (sns_candidate_chan_t *chan : ns->channel_list) {
        for (sns_candidate_bss_t *cand : chan->bss_list) {
            if (!cand->bss) {
                LOG_ERROR("%s:%d, NULL bss");
                continue;
            }
            if (mac_equal(cand->bss->bssid, bssid))
                return cand;
        }
    }
    return nullptr;
}

void sns_beacon_rep_handler(uint8_t, void *data, uint32_t size)
{
    if (size != sizeof(maps_msg_beacon_rep_t)) {
        LOG_ERROR("%s:%d, invalid msg size %u", size);
        return;
    }
    maps_msg_beacon_rep_t rep;
    memcpy(&rep, data, sizeof(rep));
    if (rep.count > MAPS_BEACON_REP_MAX) {
        LOG_ERROR("%s:%d, invalid report count %u", rep.count);
        return;
    }
    LOG_DEBUG("%s:%d, receive Beacon Report from " MAC_FMT " , bss_index %u, count %u", MAC_ARG(rep.sta),
              rep.bss_index, rep.count);
    ssta_status_t *sta = ssta_find(rep.sta);
    if (!sta) {
        LOG_WARN("%s:%d, can't find sta " MAC_FMT, MAC_ARG(rep.sta));
        return;
    }
    sns_status_t *ns = sns_of(sta);
    if (SREFUSE(ns))
        return;
    for (int i = 0; i < rep.count; i++) {
        const maps_beacon_rep_t &r = rep.reports[i];
        LOG_DEBUG("%s:%d, [%d] bssid " MAC_FMT ", channel %u, op_class: %u, rcpi: %d, rsni: %d", i, MAC_ARG(r.bssid),
                  r.channel, r.op_class, r.rcpi, r.rsni);
        if (!ns->measuring)
            continue;
        int8_t dbm;
        if (!sns_resolve(sta, ns, r.rcpi, &dbm))
            continue;
        sns_candidate_bss_t *cand = sns_find_candidate(ns, r.bssid);
        if (!cand) {
            LOG_DEBUG("%s:%d, no candidate whose bssid is " MAC_FMT, MAC_ARG(r.bssid));
            continue;
        }
        sns_evaluate(sta, cand, dbm);
    }
    if (ns->measuring)
        sns_measure_next(sta, ns);
    else
        LOG_DEBUG("%s:%d, measurement for " MAC_FMT " is not going on", MAC_ARG(sta->mac));
}

}  // namespace

int8_t sns_trans_rcpi(int8_t rcpi)
{
    // raw * 100 / 256 - 100 dBm, less a half, cut toward zero; in 256ths of
    // a dB the arithmetic is exact in integers.
    int raw = static_cast<uint8_t>(rcpi);
    int whole = (raw * 100 - 100 * 256 - 128) / 256;
    return static_cast<int8_t>(whole & 0xff);
}

void sns_init()
{
    SLOG_REGISTER("ns");
    s_conf.best_cand_reconfirm = sconf_get_int_def("bandherd.best_cand_reconfirm", 0) != 0;
    s_conf.full_measure = sconf_get_int_def("bandherd.full_measure", 1) != 0;
    s_conf.rcpi_trans = sconf_get_int_def("bandherd.rcpi_trans", 1) != 0;
    s_conf.rcpi_estimate = sconf_get_int_def("bandherd.rcpi_estimate", 1) != 0;
    s_conf.br_interval = sconf_get_int_def("bandherd.br_interval", 30);
    s_conf.br_burst = sconf_get_int_def("bandherd.br_burst", 3);
    s_conf.br_timeout = sconf_get_int_def("bandherd.br_timeout", 8);
    s_conf.ssta_2 = sconf_get_int_def("bandherd.ssta_2", 30);
    s_conf.ssta_5 = sconf_get_int_def("bandherd.ssta_5", 60);
    s_conf.ap_safe_rssi_5 = sconf_get_int_def("bandherd.ap_safe_rssi_5", sconf_get_int_def("bandherd.lrssi_5", -69) + 3);
    s_conf.ap_tg_ratio = sconf_get_int_def("bandherd.ap_tg_ratio", 30);
    s_conf.rssi_delta = sconf_get_int_def("bandherd.rssi_delta", 7);
    sdrv_register_event(MAPS_EV_BEACON_REP, sns_beacon_rep_handler);
}

void sns_exit() {}

void sns_sta_init(ssta_status_t *sta)
{
    SASSERT(sta);
    SASSERT(!sta->ns);
    auto *ns = new (std::nothrow) sns_status_t();
    if (!ns) {
        LOG_FATAL("%s:%d, malloc failed");
        abort();
    }
    sta->ns = ns;
}

void sns_sta_fini(ssta_status_t *sta)
{
    SASSERT(sta);
    sns_sta_leave_event(sta);
    delete sns_of(sta);
    sta->ns = nullptr;
}

bool sns_sta_useable(ssta_status_t *sta)
{
    return sns_of(sta)->measuring;
}

void sns_sta_join_event(ssta_status_t *sta)
{
    sns_status_t *ns = sns_of(sta);
    if (s_conf.best_cand_reconfirm)
        memset(ns->prev_best_node_id, 0, MAC_LEN);
    LOG_DEBUG("%s:%d, sta " MAC_FMT " join.", MAC_ARG(sta->mac));
}

void sns_sta_leave_event(ssta_status_t *sta)
{
    sns_status_t *ns = sns_of(sta);
    if (s_conf.best_cand_reconfirm)
        memset(ns->prev_best_node_id, 0, MAC_LEN);
    sns_stop_timer(ns);
    if (!ns->measuring)
        return;
    ns->measuring = false;
    LOG_DEBUG("%s:%d, abort neighbor measuremnet because " MAC_FMT " left", MAC_ARG(sta->mac));
    sns_free_candidates(ns);
    sns_result_cb cb = ns->result_cb;
    ns->result_cb = nullptr;
    if (cb)
        cb(sta, nullptr, nullptr, false);
}

namespace {

bool sns_prune_node(ssta_status_t *sta, void *data)
{
    auto *neighbor = static_cast<sap_node_t *>(data);
    sns_status_t *ns = sns_of(sta);
    if (!ns || !ns->measuring)
        return false;
    for (sns_candidate_chan_t *chan : ns->channel_list) {
        for (sns_candidate_bss_t *cand : chan->bss_list) {
            if (cand->node != neighbor)
                continue;
            LOG_DEBUG("%s:%d, remove node " MAC_FMT ", in candidate list of " MAC_FMT, MAC_ARG(neighbor->node_id),
                      MAC_ARG(sta->mac));
            sns_bss_list::del(cand);
            delete cand;
        }
        if (chan->bss_list.empty()) {
            sns_chan_list::del(chan);
            delete chan;
        }
    }
    return false;
}

}  // namespace

void sns_neigbor_leave_event(sap_node_t *neighbor)
{
    SASSERT(neighbor);
    ssta_iterate(sns_prune_node, neighbor);
}

bool sns_measure_allowed(ssta_status_t *sta)
{
    if (!(sta->caps & MAPS_CAP_RRM))
        return false;
    sns_status_t *ns = sns_of(sta);
    if (ns->measure_time + s_conf.br_interval <= g_time || ns->measure_count < s_conf.br_burst)
        return true;
    LOG_DUMP("%s:%d, " MAC_FMT " is not suitable for measurement because of protection", MAC_ARG(sta->mac));
    return false;
}

int sns_start_measure(ssta_status_t *sta, sns_result_cb result_cb)
{
    SASSERT(sta);
    sns_status_t *ns = sns_of(sta);
    if (!(sta->caps & MAPS_CAP_RRM)) {
        LOG_WARN("%s:%d, " MAC_FMT " doesn't support RM", MAC_ARG(sta->mac));
        return -1;
    }
    if (ns->measuring) {
        LOG_WARN("%s:%d, neighbor measurement is progressing");
        return -1;
    }
    if (ns->measure_timer) {
        LOG_WARN("%s:%d, measure timer is running");
        return -1;
    }
    if (snei_get_cnt() == 0) {
        LOG_WARN("%s:%d, no available neighbor");
        return -1;
    }
    if (!sns_measure_allowed(sta)) {
        LOG_WARN("%s:%d, measurement for " MAC_FMT " is forbidden", MAC_ARG(sta->mac));
        return -1;
    }
    if (ns->measure_time + s_conf.br_interval <= g_time) {
        ns->measure_time = g_time;
        ns->measure_count = 0;
    }

    sap_bss_t *bss = ssta_get_serving_bss(sta);
    sap_ess_t *ess = ssta_get_serving_ess(sta);
    sap_radio_t *radio = ssta_get_serving_radio(sta);
    SASSERT(bss);
    SASSERT(ess);
    SASSERT(radio);
    if (ess->ess_index > 1) {
        LOG_ERROR("%s:%d, invalid ess index %u", ess->ess_index);
        return -1;
    }
    sns_free_candidates(ns);
    ns->serving_cand = sns_add_candidate(ns, &g_self, bss, radio->channel);
    if (!ns->serving_cand) {
        LOG_ERROR("%s:%d, serving_cand is NULL!");
        sns_free_candidates(ns);
        return -1;
    }
    bool found = false;
    for (sap_node_t *node = snei_get_first(); node; node = snei_get_next(node)) {
        sap_bss_t *best = sns_elect(sta, node, ess->ess_index);
        if (best && sns_add_candidate(ns, node, best, best->radio->channel))
            found = true;
    }
    if (!found) {
        LOG_DEBUG("%s:%d, no proper neighbor for steering");
        sns_free_candidates(ns);
        LOG_DEBUG("%s:%d, no suitable targets for " MAC_FMT, MAC_ARG(sta->mac));
        return -1;
    }
    sns_candidate_chan_t *first = ns->channel_list.first();
    ns->measure_count++;
    if (sns_measure_channel(sta, ns, first) != 0) {
        LOG_ERROR("%s:%d, measure channel %d failed", first->channel);
        sns_free_candidates(ns);
        return -1;
    }
    ns->result_cb = result_cb;
    ns->measuring = true;
    return 0;
}

void sns_print_sta(FILE *f, ssta_status_t *sta, bool detail)
{
    SASSERT(f);
    SASSERT(sta);
    sns_status_t *ns = sns_of(sta);
    SASSERT(ns);
    SPRINTF(f, "sns/measuring: %d\n", ns->measuring);
    SPRINTF(f, "sns/abnormal_rcpi: %d\n", ns->abnormal_rcpi);
    SPRINTF(f, "sns/measure_allowed: %d\n", sns_measure_allowed(sta));
    if (detail) {
        SPRINTF(f, "sns/measure_time: %ld\n", static_cast<long>(ns->measure_time));
        SPRINTF(f, "sns/measure_count: %d\n", ns->measure_count);
    }
}

void sns_dump_config(FILE *f)
{
    SASSERT(f);
    SPRINTF(f, "ssta_2: %d\n", s_conf.ssta_2);
    SPRINTF(f, "ssta_5: %d\n", s_conf.ssta_5);
    SPRINTF(f, "best_cand_reconfirm: %d\n", s_conf.best_cand_reconfirm);
    SPRINTF(f, "full_measure: %d\n", s_conf.full_measure);
    SPRINTF(f, "rcpi_trans: %d\n", s_conf.rcpi_trans);
    SPRINTF(f, "rcpi_estimate: %d\n", s_conf.rcpi_estimate);
    SPRINTF(f, "br_timeout: %d\n", s_conf.br_timeout);
    SPRINTF(f, "br_burst: %d\n", s_conf.br_burst);
    SPRINTF(f, "br_interval: %d\n", s_conf.br_interval);
    SPRINTF(f, "ap_safe_rssi_5: %d\n", s_conf.ap_safe_rssi_5);
    SPRINTF(f, "ap_tg_ratio: %d\n", s_conf.ap_tg_ratio);
    SPRINTF(f, "rssi_delta: %d\n", s_conf.rssi_delta);
}
