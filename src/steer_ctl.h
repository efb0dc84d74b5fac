// The steering controller: the steering configuration and the driver's
// association control, each station's and each radio's steering state, and
// the decisions: upgrade on high RSSI, neighbour measurement then downgrade
// on low RSSI, offload of an overloaded radio, protected stations.
#ifndef STEER_CTL_H
#define STEER_CTL_H

#include <cstdint>
#include <cstdio>

#include "steer.h"
#include "steer_ap.h"
#include "steer_sta.h"

enum sctl_sta_state {
    SCTL_STA_STATE_IDLE = 0,
    SCTL_STA_STATE_MEASURING = 1,
    SCTL_STA_STATE_STEERING = 2,
};

// How a radio's overload is judged from its report.
enum sctl_load_triger {
    SCTL_TG_STA_AND_UTILIZE = 0,
    SCTL_TG_STA_OR_UTILIZE = 1,
    SCTL_TG_STA = 2,
    SCTL_TG_UTILIZE = 3,
};

// The band a target radio is looked for in.
enum maps_band_prefer_e {
    MAPS_PREFER_NONE = 0,
    MAPS_PREFER_2G = 1,
    MAPS_PREFER_5G = 2,
    MAPS_PREFER_6G = 3,
    MAPS_PREFER_DUAL_BAND = 4,
};

typedef struct sctl_config {
    bool reject_probe;
    bool en_pre_up;
    bool en_pre_down;
    bool en_pre_ol;
    bool en_post_up;
    bool en_post_down;
    bool en_post_ol;
    bool en_ap;
    int lrssi_2;
    int hrssi_2;
    int lrssi_5;
    bool mode;
    int lrssi_down_5;
    int probe_age;
    int reject_age;
    int reject_cnt;
    int active_slot;
    int active_flow;
    int hload_2;
    int hload_5;
    int sload_2;
    int sload_5;
    int hsta_2;
    int hsta_5;
    int ssta_2;
    int ssta_5;
    int load_trigger;  // sctl_load_triger
    int ol_interval;
    int band_safe_rssi_5;
    bool delay_reject_probe;
    bool delay_reject_auth;
    int delay_reject_age;
    uint8_t delay_reject_stanum;
    bool node_steer;
} sctl_config_t;

typedef struct sctl_sta {
    sctl_sta_state state;
    bool protected_;  // never steered
    slist_link offload_list;
} sctl_sta_t;

typedef SLIST(sctl_sta_t, offload_list) sctl_offload_list;

typedef struct sctl_radio {
    bool overload;
    unsigned long last_steer_time;  // of the last offload steer
    sctl_offload_list offload_head;  // stations offloaded in this overload episode
} sctl_radio_t;

void sctl_init();
void sctl_exit();
// The configuration read at start-up.
const sctl_config_t *sctl_get_config();
void sctl_dump_config(FILE *f);
void sctl_print_sta(FILE *f, ssta_status_t *sta);
void sctl_print_radio(FILE *f, sap_radio_t *radio);

// Sends a radio's refusal mode and RSSI monitoring to the driver; 0 or -1.
int sctl_update_drv_radio(sap_radio_t *radio);
// The controller's results: of a steer it started, of a neighbour measurement.
void sctl_act_result_handler(ssta_status_t *sta, const uint8_t *bssid, bool success);
void sctl_ns_result_handler(ssta_status_t *sta, sap_bss_t *target_bss, sap_node_t *target_node, bool success);

// The BSS of this node, in the station's ESS, that gives it the best rate to
// the mesh portal among the safe ones of the preferred band; null if none.
sap_bss_t *sctl_select_other_radio(ssta_status_t *sta, maps_band_prefer_e prefer);
bool sctl_is_radio_safe(ssta_status_t *sta, sap_radio_t *cur_radio, sap_radio_t *target_radio, int org_rate,
                        int target_rate);
// After a low-RSSI event without a better neighbour: a lower band of this node.
void sctl_fallback_downgrade(ssta_status_t *sta, uint32_t bandtype);

// Judges a radio's overload after its status report and offloads it.
void sctl_radio_status_event(sap_radio_t *radio);
int sctl_add_protected_sta(const uint8_t *sta_mac);
int sctl_removel_protected_sta(const uint8_t *sta_mac);

#endif
