// The Wi-Fi base adapter: the one place that calls the platform's Wi-Fi base
// library, for radio and interface facts, station actions, 802.11k neighbour
// reports, the BSS load around a BSS transition request and the MAPS command
// transport; it also keeps the mesh uplink facts from "SAP_INFO".
#ifndef STEER_VEN_H
#define STEER_VEN_H

#include <cstddef>
#include <cstdint>

#include "maps.h"
#include "steer_msg.h"

typedef bool (*sven_same_node_cb)(const uint8_t *a, const uint8_t *b);

void sven_init();
void sven_exit();

int sven_ioctl(void *data, size_t size, const char *ifname);
uint8_t sven_get_channel(const char *ifname);
int sven_get_bandtype_by_chanlist(const char *ifname, uint8_t channel, uint8_t *bandtype);
int8_t sven_get_sta_max(const char *ifname);
int sven_get_ssid(const char *ifname, char *ssid, size_t size);
int sven_kick_sta(const char *ifname, const uint8_t *mac);
int sven_get_link_rate(const char *ifname, const uint8_t *mac);
int sven_get_uplink_rate(const char *backhaul_if, const uint8_t *mpp, sven_same_node_cb is_same_node, uint8_t *uplink,
                         int *rate, int *hop);
void sven_prepare_vap(const char *ifname);
void sven_add_nbr_info(const char *ifname);
void sven_del_nbr_info(const char *ifname, uint32_t bandtype);
// An 802.11v BSS transition request on the station's serving interface.
int sven_bss_trans_req(const char *ifname, const maps_msg_bss_trans_req_t *req);
// An 802.11k beacon request for `ssid` on `channel`.
int sven_beacon_req(const char *ifname, const uint8_t *sta, uint8_t channel, const char *ssid);
int sven_pre_btm(const char *ifname);
int sven_post_btm(const char *ifname);
bool sven_is_vap(const char *ifname, char *mib_ifname);
// The handler of "SAP_INFO".
void sven_info_recv(const uint8_t *da, const uint8_t *sa, const char *type, smsg_dict_t *root);

#endif
