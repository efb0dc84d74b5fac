// Rate estimation: a station's RSSI on another band, its rate at an RSSI, and
// its end-to-end rate to the mesh portal, from configurable piecewise
// polynomial equations.
#ifndef STEER_RATE_H
#define STEER_RATE_H

#include <cstdint>

#include "steer_ap.h"
#include "steer_sta.h"

constexpr int SRATE_FACTOR_MAX = 6;
constexpr int SRATE_BOUNDARY_MAX = 32;

typedef struct srate_polynome {
    int factor_count;
    double factors[SRATE_FACTOR_MAX];
} srate_polynome_t;

typedef struct srate_equation {
    int segment_count;
    double boundaries[SRATE_BOUNDARY_MAX];
    srate_polynome_t *polynomes;
} srate_equation_t;

void srate_init();
void srate_exit();

// Parses "boundaries;poly;poly..."; null (logged) when the text is not an equation.
srate_equation_t *srate_new_equation(char *text);
void srate_del_equation(srate_equation_t *eq);
int srate_calculate(const srate_equation_t *eq, int var);

// 1 means no estimate.
int8_t srate_get_another_rssi(int8_t org_rssi, uint32_t src_bandtype, uint32_t dst_bandtype);
int srate_get_rate_rssi(ssta_status_t *sta, sap_radio_t *radio, int8_t rssi);
int srate_get_sta_max_rate(ssta_status_t *sta, sap_radio_t *radio);
int srate_share_media_rate(int rate1, int rate2);
int srate_evaluate_sta2mpp(ssta_status_t *sta, sap_node_t *target_node, sap_radio_t *target_radio, int link_rate);

#endif
