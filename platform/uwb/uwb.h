// The Wi-Fi base library: interface names, radio and station facts, station
// kick, BSS load, 802.11k neighbour reports and beacon requests, 802.11v BSS
// transition requests, and the pass-through of MAPS commands to the driver.
// Every call returns 0 for success unless said otherwise.
#ifndef UWB_H
#define UWB_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define UWB_IFNAME_SIZE 16
#define UWB_SSID_SIZE 33      /* 32 characters and the NUL */
#define UWB_MODE_SIZE 16
#define UWB_CHAN_LIST_MAX 64

/* 802.11k and 802.11v support of a VAP: 1 = enabled. */
typedef struct uwb_ap_cap {
    int rrm_11k;
    int btm_11v;
} uwb_ap_cap_t;

typedef struct uwb_chan_info {
    uint8_t channel;      /* current primary channel */
    uint8_t bandwidth;    /* MHz / 10: 2, 4, 8, 16 */
} uwb_chan_info_t;

typedef struct uwb_chan_list {
    int count;
    uint8_t channels[UWB_CHAN_LIST_MAX];
} uwb_chan_list_t;

typedef struct uwb_sta_info {
    uint8_t mac[6];
    int8_t rssi;          /* dBm */
    int rate;             /* link rate, Mbit/s */
} uwb_sta_info_t;

/* One entry of a VAP's 802.11k neighbour report. */
typedef struct uwb_rrm_nbr {
    char ifname[UWB_IFNAME_SIZE];
    uint8_t bssid[6];
    uint8_t channel;
    uint8_t band;         /* 2, 5 or 6 (GHz) */
    uint8_t ssid_len;
    char ssid[UWB_SSID_SIZE];
} uwb_rrm_nbr_t;

/* A beacon request to a station on one channel; an empty SSID asks for every SSID. */
typedef struct beacon_req_params {
    unsigned int channel;
    uint8_t sta_mac[6];
    char ssid[UWB_SSID_SIZE];
} beacon_req_params_t;

/* The driver's 13-byte BSS transition request record. */
struct maps_msg_bss_trans_req;

int uwb_get_os_ifname(const char *ifname, char *osif, int size);
int uwb_get_mib_ifname(const char *ifname, char *mib_ifname, int size);
int uwb_get_bssmode(const char *mib_ifname, char *mode, int size);
int uwb_get_ap_cap(const char *ifname, uwb_ap_cap_t *caps);
int uwb_get_chan_info(const char *ifname, uwb_chan_info_t *info);
int uwb_get_channel_list(const char *ifname, uwb_chan_list_t *list);
int uwb_get_ssid(const char *ifname, char *ssid, size_t size);
/* The VAP's station limit, or a negative value on failure. */
int uwb_get_sta_maxnum(const char *ifname);
/* Fills up to `max` records for the stations in `macs` (6 bytes each); *count gets how many. */
int uwb_get_sta_info(const char *ifname, const uint8_t *macs, uwb_sta_info_t *info, int max, int *count);
/* The BSSID a station interface is associated to; all zero when none. */
int uwb_get_bssid(const char *ifname, uint8_t *bssid, int size);
int uwb_kick_sta(const char *ifname, const uint8_t *mac, int len);
int uwb_set_bssload(const char *ifname, int load);
int uwb_add_rrm_neighbor(const char *ifname, const uwb_rrm_nbr_t *entry);
int uwb_del_rrm_neighbor(const char *ifname, const uint8_t *bssid, int len);
int uwb_beacon_req(const char *ifname, const beacon_req_params_t *params);
int uwb_bss_trans_req(const char *ifname, const struct maps_msg_bss_trans_req *req);
/* Hands a MAPS command of `size` bytes to the driver; the answer comes back in `rsp`. */
int uwb_steer_maps(const char *ifname, void *req, size_t size, void *rsp);

#ifdef __cplusplus
}
#endif

#endif
