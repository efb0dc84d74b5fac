// Association blocking: which of this node's BSSes the driver lets a station
// associate with, combined from the wishes of the steering modules.
#ifndef STEER_BLOCK_H
#define STEER_BLOCK_H

#include <cstdint>
#include <cstdio>

#include "steer_ap.h"
#include "steer_sta.h"

// Blocks the station on every BSS of `ess` but the one with `target_bssid`.
int sblock_bss(ssta_status_t *sta, const uint8_t *target_bssid, sap_ess_t *ess);
// Sends the mode the station's three flags call for.
int sblock_update(ssta_status_t *sta);
int sblock_update_btm(ssta_status_t *sta, bool no_block);
int sblock_update_boff(ssta_status_t *sta, bool no_block);
int sblock_update_ctl(ssta_status_t *sta, bool no_block);
void sblock_print(FILE *f, ssta_status_t *sta, bool detail);

#endif
