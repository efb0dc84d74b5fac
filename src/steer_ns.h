// Neighbour selection: is there a BSS on another node that would serve a
// station clearly better? One candidate BSS per neighbour node, the station
// asked for beacon reports channel by channel, each report turned into a rate
// to the mesh portal, the best candidate (or none) reported back.
#ifndef STEER_NS_H
#define STEER_NS_H

#include <cstdint>
#include <cstdio>

#include "steer.h"
#include "steer_ap.h"
#include "steer_ev.h"
#include "steer_sta.h"

typedef void (*sns_result_cb)(ssta_status_t *sta, sap_bss_t *target_bss, sap_node_t *target_node, bool found);

typedef struct sns_config {
    bool best_cand_reconfirm;
    bool full_measure;
    bool rcpi_trans;
    bool rcpi_estimate;
    int br_interval;
    int br_burst;
    int br_timeout;
    int ssta_2;
    int ssta_5;
    int ap_safe_rssi_5;
    int ap_tg_ratio;
    int rssi_delta;
} sns_config_t;

typedef struct sns_candidate_bss {
    sap_bss_t *bss;
    sap_node_t *node;
    bool evaluated;
    int8_t rssi;  // dBm
    int rate;     // Mbit/s to the portal
    slist_link list;
} sns_candidate_bss_t;

typedef SLIST(sns_candidate_bss_t, list) sns_bss_list;

typedef struct sns_candidate_chan {
    uint8_t channel;
    bool measured;
    sns_bss_list bss_list;
    slist_link list;
} sns_candidate_chan_t;

typedef SLIST(sns_candidate_chan_t, list) sns_chan_list;

typedef struct sns_status {
    bool measuring;
    bool abnormal_rcpi;  // the station reports RCPI, not dBm
    unsigned long measure_time;
    int measure_count;
    sev_timer_t *measure_timer;
    sns_candidate_bss_t *serving_cand;
    uint8_t prev_best_node_id[MAC_LEN];
    sns_chan_list channel_list;
    sns_result_cb result_cb;
} sns_status_t;

void sns_init();
void sns_exit();
void sns_sta_init(ssta_status_t *sta);
void sns_sta_fini(ssta_status_t *sta);
bool sns_sta_useable(ssta_status_t *sta);
void sns_sta_join_event(ssta_status_t *sta);
void sns_sta_leave_event(ssta_status_t *sta);
void sns_neigbor_leave_event(sap_node_t *neighbor);
bool sns_measure_allowed(ssta_status_t *sta);
// 0 when a measurement started; `result_cb` (may be null) is called once at its end.
int sns_start_measure(ssta_status_t *sta, sns_result_cb result_cb);
// A reported value as dBm: RCPI 0..255 spread over -100..0.
int8_t sns_trans_rcpi(int8_t rcpi);
void sns_print_sta(FILE *f, ssta_status_t *sta, bool detail);
void sns_dump_config(FILE *f);

#endif
