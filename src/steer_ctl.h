// The steering controller: owns the station callbacks of the steering layers
// and each station's steering state.
#ifndef STEER_CTL_H
#define STEER_CTL_H

#include <cstdint>
#include <cstdio>

#include "steer.h"
#include "steer_sta.h"

enum sctl_sta_state {
    SCTL_STA_STATE_IDLE = 0,
    SCTL_STA_STATE_MEASURING = 1,
    SCTL_STA_STATE_STEERING = 2,
};

typedef struct sctl_sta {
    sctl_sta_state state;
    bool protected_;  // never steered
    slist_link offload_list;
} sctl_sta_t;

void sctl_init();
void sctl_exit();
// The result of a steer this module started.
void sctl_act_result_handler(ssta_status_t *sta, const uint8_t *bssid, bool success);
void sctl_print_sta(FILE *f, ssta_status_t *sta);

#endif
