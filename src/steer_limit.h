// Steering limits: how often one mechanism may act on one station, and which
// targets it must leave alone for a while after failures (prohibitions that
// grow exponentially, on a short and a long track).
#ifndef STEER_LIMIT_H
#define STEER_LIMIT_H

#include <cstdint>
#include <cstdio>

#include "steer.h"

typedef struct slimit_ph_conf {
    uint32_t base;
    uint32_t factor;  // seconds
    uint32_t max;     // seconds
} slimit_ph_conf_t;

typedef struct slimit_conf {
    uint32_t interval;  // seconds; 0 switches the frequency limit off
    uint32_t burst;     // attempts per interval; 0 switches it off
    slimit_ph_conf_t ph_short;
    slimit_ph_conf_t ph_long;
} slimit_conf_t;

typedef struct slimit_ph_info {
    unsigned long expire;  // g_time at which the prohibition ends; 0 = never set
    uint32_t level;
} slimit_ph_info_t;

typedef struct slimit_ph_bss {
    uint8_t bssid[MAC_LEN];  // zero in the all-targets record
    slimit_ph_info_t ph_short;
    slimit_ph_info_t ph_long;
    slist_link list;
} slimit_ph_bss_t;

typedef SLIST(slimit_ph_bss_t, list) slimit_ph_list;

typedef struct slimit_info {
    unsigned long slot_begin;  // 0 = no attempt yet
    uint32_t slot_times;
    slimit_ph_bss_t ph_bss;  // towards every target
    slimit_ph_list targets;  // per-target records, newest first
} slimit_info_t;

slimit_conf_t *slimit_new_conf(uint32_t interval, uint32_t burst);
void slimit_del_conf(slimit_conf_t *conf);
slimit_info_t *slimit_new_info();
void slimit_del_info(slimit_info_t *info);
// One more prohibition towards `bssid`, or towards every target when null.
void slimit_prohibit(slimit_conf_t *conf, slimit_info_t *info, const uint8_t *bssid, bool is_long);
// Clears the all-targets record and forgets the record of `bssid` (may be null).
void slimit_unprohibit(slimit_info_t *info, const uint8_t *bssid);
// Counts one attempt in the frequency window.
void slimit_pass(slimit_conf_t *conf, slimit_info_t *info);
bool slimit_allowed(slimit_conf_t *conf, slimit_info_t *info, const uint8_t *bssid, bool check_frequence);
// Whether any prohibition was imposed since the record was last cleared.
bool slimit_any_prohibited(slimit_info_t *info);
void slimit_dump_conf(FILE *f, slimit_conf_t *conf);
void slimit_dump_info(FILE *f, slimit_info_t *info);

#endif
