// Backoff steering: moves a station by blocking it on every BSS of its ESS but
// the target, here and on every other node, and kicking it off; and follows
// stations the driver refuses before they associate (pre-association).
#ifndef STEER_BOFF_H
#define STEER_BOFF_H

#include <cstdint>
#include <cstdio>

#include "steer_ap.h"
#include "steer_ev.h"
#include "steer_limit.h"
#include "steer_sta.h"

enum sboff_state_e {
    SBOFF_STATE_IDLE = 0,
    SBOFF_STATE_SYNC = 1,      // asking the other nodes to block the station
    SBOFF_STATE_REASSOC = 2,   // station kicked, waiting for it to re-associate
    SBOFF_STATE_SLAVE = 3,     // another node steers the station
    SBOFF_STATE_PREASSOC = 4,  // the station is being refused somewhere
};

typedef struct sboff_status {
    sboff_state_e state;
    uint8_t target_bssid[MAC_LEN];
    uint8_t target_node[MAC_LEN];
    sev_timer_t *timer;
    slimit_info_t *limit_info;
    unsigned long steer_begin;
    int sync_reply_cnt;
    bool no_block;  // exempt from blocking until its all-targets prohibition ends
    bool low_rssi;
    ssta_steer_result_cb result_cb;
} sboff_status_t;

void sboff_init();
void sboff_exit();
bool sboff_allowed(ssta_status_t *sta, const uint8_t *bssid);
// 0 when the steer started; -1 when refused (the callback is then not called).
int sboff_steer(ssta_status_t *sta, const uint8_t *target_bssid, const uint8_t *target_node,
                ssta_steer_result_cb result_cb);
void sboff_sta_init(ssta_status_t *sta);
void sboff_sta_fini(ssta_status_t *sta);
bool sboff_sta_useable(ssta_status_t *sta, bool mem_stress);
void sboff_sta_join_event(ssta_status_t *sta, sap_bss_t *bss);
void sboff_sta_leave_event(ssta_status_t *sta, sap_bss_t *bss);
void sboff_print_sta(FILE *f, ssta_status_t *sta, bool detail);
void sboff_dump_config(FILE *f);

#endif
