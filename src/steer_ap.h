// The node model: this access point's radios, ESSes and BSSes (g_self). The
// same record describes neighbour nodes.
#ifndef STEER_AP_H
#define STEER_AP_H

#include <cstdint>

#include "steer.h"

constexpr int SAP_RADIO_MAX = 3;      // slots 1 to 3; slot 0 is never used
constexpr int SAP_RADIO_VAP_MAX = 8;  // VAP names per radio
constexpr int SAP_ESS_MAX = 2;
constexpr int SAP_ESS_BSS_MAX = 3;
constexpr int SAP_BSS_INDEX_MAX = 31;  // managed BSS indices 1 to 31
constexpr int SAP_IFNAME_SIZE = 16;
constexpr int SAP_SSID_SIZE = 33;

struct sap_ess;

typedef struct sap_radio {
    uint32_t work_band;  // maps_band_e; 0 while the slot is free
    uint8_t channel;     // 0: the slot is free
    uint8_t load;        // percent
    uint8_t sta_num;
    uint8_t radio_index;
    char bss[SAP_RADIO_VAP_MAX][SAP_IFNAME_SIZE];
    void *ctl;  // the steering controller's data for this radio
} sap_radio_t;

typedef struct sap_bss {
    uint8_t bssid[MAC_LEN];
    uint8_t sta_max;
    uint8_t sta_num;
    uint8_t bss_index;  // 1 to 31, 0 = not in use
    char ifname[SAP_IFNAME_SIZE];
    sap_radio_t *radio;
    struct sap_ess *ess;
} sap_bss_t;

typedef struct sap_ess {
    uint8_t ess_index;
    char essid[SAP_SSID_SIZE];  // empty: not in use
    sap_bss_t bss[SAP_ESS_BSS_MAX];
} sap_ess_t;

typedef struct sap_node {
    uint8_t node_id[MAC_LEN];
    int link_rate2mpp;
    int hop;
    sap_radio_t radios[SAP_RADIO_MAX + 1];
    sap_bss_t *managed_bss[SAP_BSS_INDEX_MAX + 1];
    sap_ess_t ess[SAP_ESS_MAX];
    long time_stamp;
    bool is_mpp;
    slist_link list;
} sap_node_t;

// This node.
extern sap_node_t g_self;

typedef void (*sap_radio_status_cb)(sap_radio_t *radio);

// Builds g_self from the interfaces, the driver and "bandherd.ess", and
// configures the driver; any inconsistency ends the daemon.
void sap_init();
void sap_exit();

// The managed BSS with that index (1 to 31), or null.
sap_bss_t *sap_get_bss(unsigned int index);
sap_bss_t *sap_find_bss_on_node(sap_node_t *node, const uint8_t *bssid);
// The one callback after each radio status update.
void sap_set_radio_status_cb(sap_radio_status_cb cb);
void sap_print_node(FILE *f, sap_node_t *node);

#endif
