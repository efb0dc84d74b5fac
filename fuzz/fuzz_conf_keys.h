// Every configuration key the daemon's modules read at start-up, the rate
// and RSSI equations first. (The log's keys are read by main alone.)
#ifndef FUZZ_CONF_KEYS_H
#define FUZZ_CONF_KEYS_H

constexpr const char *FUZZ_CONF_KEYS[] = {
    "bandherd.rssi_2to5", "bandherd.rssi_5to2", "bandherd.rssi.5to6", "bandherd.rssi.6to5", "bandherd.rssi.2to6",
    "bandherd.rssi.6to2", "bandherd.rate_ag", "bandherd.rate_1xn", "bandherd.rate_2xn", "bandherd.rate_1xac",
    "bandherd.rate_2xac", "bandherd.rate_2xax_2g", "bandherd.rate_2xax_5g", "bandherd.rate_2xax_6g",
    "bandherd.rate_factor", "bandherd.rate_rd_ratio", "bandherd.lrssi_2", "bandherd.hrssi_2", "bandherd.lrssi_5",
    "bandherd.lrssi_down_5", "bandherd.band_safe_rssi_5", "bandherd.ap_safe_rssi_5", "bandherd.ap_tg_ratio",
    "bandherd.rssi_delta", "bandherd.pt_sta", "bandherd.mppmac", "bandherd.backhaul", "bandherd.ess",
    "bandherd.active_flow", "bandherd.active_slot", "bandherd.best_cand_reconfirm", "bandherd.boff_block_less",
    "bandherd.boff_burst", "bandherd.boff_interval", "bandherd.boff_timeout", "bandherd.br_burst",
    "bandherd.br_interval", "bandherd.br_timeout", "bandherd.btm_burst", "bandherd.btm_dual_band",
    "bandherd.btm_interval", "bandherd.btm_no_2g", "bandherd.btm_prohibit", "bandherd.btm_timeout",
    "bandherd.delay_reject_age", "bandherd.delay_reject_auth", "bandherd.delay_reject_probe",
    "bandherd.delay_reject_stanum", "bandherd.en_ap", "bandherd.en_boff", "bandherd.en_boff_active",
    "bandherd.en_btm", "bandherd.en_btm_fb", "bandherd.en_post_down", "bandherd.en_post_ol", "bandherd.en_post_up",
    "bandherd.en_pre_down", "bandherd.en_pre_ol", "bandherd.en_pre_up", "bandherd.fb_rssi_dither",
    "bandherd.full_measure", "bandherd.hload_2", "bandherd.hload_5", "bandherd.hsta_2", "bandherd.hsta_5",
    "bandherd.load_trigger", "bandherd.max_mac", "bandherd.max_sta", "bandherd.mode", "bandherd.msg_sync_timeout",
    "bandherd.ol_interval", "bandherd.ph_long_base", "bandherd.ph_long_factor", "bandherd.ph_long_max",
    "bandherd.ph_low_rssi", "bandherd.ph_short_base", "bandherd.ph_short_factor", "bandherd.ph_short_max",
    "bandherd.probe_age", "bandherd.rcpi_estimate", "bandherd.rcpi_trans", "bandherd.reject_age",
    "bandherd.reject_cnt", "bandherd.reject_probe", "bandherd.roam_kick", "bandherd.seesaw_interval",
    "bandherd.seesaw_tolerance", "bandherd.sload_2", "bandherd.sload_5", "bandherd.ssta_2", "bandherd.ssta_5",
    "weft.node_steering",
};
constexpr int FUZZ_CONF_KEY_COUNT = sizeof(FUZZ_CONF_KEYS) / sizeof(FUZZ_CONF_KEYS[0]);
constexpr int FUZZ_KEY_PT_STA = 24;
constexpr int FUZZ_KEY_LRSSI_2 = 16;

#endif
