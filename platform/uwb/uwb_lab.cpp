// The lab's Wi-Fi base library. The lab's driver double will serve these
// calls over a Unix socket under /var/run/maps/; until it does, every call
// reports failure, so a daemon that needs one stops with that call's error.
#include "uwb.h"

extern "C" {

int uwb_get_os_ifname(const char *, char *, int) { return -1; }
int uwb_get_mib_ifname(const char *, char *, int) { return -1; }
int uwb_get_bssmode(const char *, char *, int) { return -1; }
int uwb_get_ap_cap(const char *, uwb_ap_cap_t *) { return -1; }
int uwb_get_chan_info(const char *, uwb_chan_info_t *) { return -1; }
int uwb_get_channel_list(const char *, uwb_chan_list_t *) { return -1; }
int uwb_get_ssid(const char *, char *, size_t) { return -1; }
int uwb_get_sta_maxnum(const char *) { return -1; }
int uwb_get_sta_info(const char *, const uint8_t *, uwb_sta_info_t *, int, int *) { return -1; }
int uwb_get_bssid(const char *, uint8_t *, int) { return -1; }
int uwb_kick_sta(const char *, const uint8_t *, int) { return -1; }
int uwb_set_bssload(const char *, int) { return -1; }
int uwb_add_rrm_neighbor(const char *, const uwb_rrm_nbr_t *) { return -1; }
int uwb_del_rrm_neighbor(const char *, const uint8_t *, int) { return -1; }
int uwb_beacon_req(const char *, const beacon_req_params_t *) { return -1; }
int uwb_bss_trans_req(const char *, const struct maps_msg_bss_trans_req *) { return -1; }
int uwb_steer_maps(const char *, void *, size_t, void *) { return -1; }

}
