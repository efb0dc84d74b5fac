// The device's base MAC address.
#ifndef IOF_H
#define IOF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Fills the 6-byte `mac` with the address of br0; 0 on success. */
int iof_mac_addr_get(uint8_t *mac);

#ifdef __cplusplus
}
#endif

#endif
