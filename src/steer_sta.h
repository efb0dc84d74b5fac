// The station table: one record per station this node has seen, built from
// the driver's station events and the mesh's association announcements.
#ifndef STEER_STA_H
#define STEER_STA_H

#include <cstdint>
#include <cstdio>

#include "steer.h"
#include "steer_ap.h"

// Why a steer was started.
enum sbtm_reason_e {
    SBTM_FROM_CMD = 0,
    SBTM_FROM_LOW_RSSI = 1,
    SBTM_FROM_HIGH_RSSI = 2,
    SBTM_FROM_OVERLOAD = 3,
    SBTM_FROM_BALANCE = 4,
};

// A link of one hash chain: a singly linked list with back-links.
struct ssta_hnode {
    struct ssta_hnode *next;
    struct ssta_hnode **pprev;
};

typedef struct ssta_status {
    uint8_t mac[MAC_LEN];
    uint8_t bss_index;
    uint32_t bands;  // maps_band_e bits
    uint32_t caps;   // maps_cap_e bits
    int8_t rssi;
    int8_t last_rssi;
    uint8_t streams;
    uint8_t load;
    bool active;
    bool associated;
    unsigned long last_assoc;
    struct ssta_hnode node;
    bool no_block_btm;
    bool no_block_boff;
    bool no_block_ctl;
    sbtm_reason_e btm_reason;
    void *ctl;
    void *ns;
    void *act;
    void *btm;
    void *boff;
} ssta_status_t;

typedef void (*ssta_cb)(ssta_status_t *sta);
// The outcome of one started steer, BTM or Backoff: called exactly once per
// attempt that started.
typedef void (*ssta_steer_result_cb)(bool success, ssta_status_t *sta, const uint8_t *target_bssid,
                                     const uint8_t *target_node);
typedef bool (*ssta_check_useable_cb)(ssta_status_t *sta, bool mem_stress);
typedef void (*ssta_bss_cb)(ssta_status_t *sta, sap_bss_t *bss);
typedef bool (*ssta_iterate_cb)(ssta_status_t *sta, void *data);

void ssta_init();
void ssta_exit();

void ssta_set_init_cb(ssta_cb cb);
void ssta_set_fini_cb(ssta_cb cb);
void ssta_set_check_useable_cb(ssta_check_useable_cb cb);
void ssta_set_status_cb(ssta_cb cb);
void ssta_set_assoc_cb(ssta_bss_cb cb);
void ssta_set_disassoc_cb(ssta_bss_cb cb);

ssta_status_t *ssta_find(const uint8_t *mac);
// A new record for `mac`, or null when the table is full and nothing may be
// replaced (or memory runs out).
ssta_status_t *ssta_new(const uint8_t *mac);
int ssta_get_count();
// Visits every record until cb returns true; cb may free the record it is given.
void ssta_iterate(ssta_iterate_cb cb, void *data);

sap_bss_t *ssta_get_serving_bss(ssta_status_t *sta);
sap_ess_t *ssta_get_serving_ess(ssta_status_t *sta);
sap_radio_t *ssta_get_serving_radio(ssta_status_t *sta);
void ssta_print(FILE *f, ssta_status_t *sta);

#endif
