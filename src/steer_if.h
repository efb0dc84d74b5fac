// Network interfaces: listing, MAC address, up state.
#ifndef STEER_IF_H
#define STEER_IF_H

#include <cstdint>

typedef bool (*sif_iterate_cb)(const char *ifname, void *data);

// Calls cb for each entry of /sys/class/net until it returns true.
// 0 when the directory could be read, -1 otherwise.
int sif_iterate(sif_iterate_cb cb, void *data);
// A bridge ("br...") is read as it is; a Wi-Fi interface through its kernel name.
int sif_get_mac(const char *ifname, uint8_t *mac);
bool sif_is_up(const char *ifname);

#endif
