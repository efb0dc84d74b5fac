// Steering actions: the one door through which a station is moved. Chooses
// BTM or Backoff steering, falls back from a failed BTM steer to Backoff, and
// remembers each successful steer as a session, so that a station that roams
// back ("seesaw") is left alone for a while.
#ifndef STEER_ACT_H
#define STEER_ACT_H

#include <cstdint>
#include <cstdio>

#include "maps.h"
#include "steer_ap.h"
#include "steer_ev.h"
#include "steer_limit.h"
#include "steer_sta.h"

// The outcome of sact_steer, for the caller.
typedef void (*sact_result_cb)(ssta_status_t *sta, const uint8_t *target_bssid, bool success);

typedef struct sact_session {
    uint8_t server_bssid[MAC_LEN];
    uint8_t target_bssid[MAC_LEN];
    unsigned long steer_time;  // 0: the seesaw window is closed
    int seesaw_cnt;
    slist_link list;
} sact_session_t;

typedef SLIST(sact_session_t, list) sact_session_list;

typedef struct sact_status {
    uint32_t target_band;  // maps_band_e of the target radio
    int8_t rssi;           // when the steer began
    sev_timer_t *timer;
    slimit_info_t *limit_info;
    uint8_t server_bssid[MAC_LEN];
    sact_session_list sessions;
    sact_result_cb result_cb;
} sact_status_t;

void sact_init();
void sact_exit();
bool sact_allow_steer(ssta_status_t *sta, sap_bss_t *target_bss);
int sact_steer(ssta_status_t *sta, sap_bss_t *target_bss, sap_node_t *target_node, sact_result_cb result_cb);
void sact_sta_init(ssta_status_t *sta);
void sact_sta_fini(ssta_status_t *sta);
bool sact_sta_useable(ssta_status_t *sta, bool mem_stress);
void sact_sta_join_event(ssta_status_t *sta, sap_bss_t *bss);
void sact_sta_leave_event(ssta_status_t *sta, sap_bss_t *bss);
void sact_print_sta(FILE *f, ssta_status_t *sta, bool detail);
void sact_dump_config(FILE *f);

#endif
