// Neighbour nodes: the other nodes of the mesh as their heartbeats describe
// them, aged out when they fall silent; and this node's own heartbeat.
#ifndef STEER_NEI_H
#define STEER_NEI_H

#include <cstdint>

#include "steer_ap.h"

typedef void (*snei_cb)(sap_node_t *node);

void snei_init();
void snei_exit();

void snei_set_init_cb(snei_cb cb);
void snei_set_fini_cb(snei_cb cb);
sap_node_t *snei_find(const uint8_t *id);
sap_node_t *snei_get_first();
sap_node_t *snei_get_next(sap_node_t *last);
int snei_get_cnt();
// The first neighbour (in table order) managing `bssid`; 0, or -1 when none does.
int snei_find_bss(const uint8_t *bssid, sap_node_t **pnode, sap_bss_t **pbss);
sap_radio_t *snei_get_backhaul_radio();
// Whether `wlan_mac` lies in the block of addresses that starts at `base_mac`.
bool snei_same_node(const uint8_t *base_mac, const uint8_t *wlan_mac);

#endif
