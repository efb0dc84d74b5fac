// BTM steering: moves an associated station to a target BSS, here or on
// another node, with an 802.11v BSS transition request, after telling the
// other nodes (START / READY / FINISH), and watches where it re-associates.
#ifndef STEER_BTM_H
#define STEER_BTM_H

#include <cstdint>
#include <cstdio>

#include "steer_ap.h"
#include "steer_ev.h"
#include "steer_limit.h"
#include "steer_sta.h"

enum sbtm_state_e {
    SBTM_STATE_IDLE = 0,
    SBTM_STATE_SYNC = 1,     // asking the other nodes to get ready
    SBTM_STATE_REASSOC = 2,  // request sent, waiting for the station to move
    SBTM_STATE_SLAVE = 3,    // another node steers the station
};

typedef struct sbtm_status {
    sbtm_state_e state;
    uint8_t target_bssid[MAC_LEN];
    uint8_t target_node[MAC_LEN];
    uint8_t org_node[MAC_LEN];
    uint8_t target_channel;
    sev_timer_t *timer;
    slimit_info_t *limit_info;
    unsigned long steer_begin;
    int sync_reply_cnt;
    ssta_steer_result_cb result_cb;
} sbtm_status_t;

void sbtm_init();
void sbtm_exit();
bool sbtm_allowed(ssta_status_t *sta, const uint8_t *bssid);
// 0 when the steer started; -1 when refused (the callback is then not called).
int sbtm_steer(ssta_status_t *sta, sap_bss_t *target_bss, const uint8_t *target_node, ssta_steer_result_cb result_cb);
void sbtm_sta_init(ssta_status_t *sta);
void sbtm_sta_fini(ssta_status_t *sta);
bool sbtm_sta_useable(ssta_status_t *sta, bool mem_stress);
void sbtm_sta_join_event(ssta_status_t *sta, sap_bss_t *bss);
void sbtm_sta_leave_event(ssta_status_t *sta, sap_bss_t *bss);
const char *sbtm_reason_str(int reason);
void sbtm_print_sta(FILE *f, ssta_status_t *sta, bool detail);
void sbtm_dump_config(FILE *f);

#endif
