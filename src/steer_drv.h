// The driver channel: events from the Wi-Fi driver by event code, commands to
// it by ioctl through the Wi-Fi base adapter.
#ifndef STEER_DRV_H
#define STEER_DRV_H

#include <cstddef>
#include <cstdint>

#include "maps.h"

constexpr size_t SDRV_BUFF_SIZE = 1024;

// Called with the event code and its payload (after the MAPS header).
typedef void (*sdrv_event_cb)(uint8_t event, void *data, uint32_t size);

void sdrv_init();
void sdrv_exit();

// One callback per event code; a second registration is refused.
void sdrv_register_event(maps_ev_e event, sdrv_event_cb cb);
// Sends one netlink message to the driver; 0 or -1.
int sdrv_send(maps_ev_e event, const void *data, size_t size);
// One command; a null `ifname` means the default interface. The driver's
// answer (as many payload bytes) comes back in `data`. 0 or -1.
int sdrv_ioctl(maps_cmd_e cmd, void *data, size_t size, const char *ifname);
// The netlink socket's poll callback: handles one message.
void sdrv_read(int fd, int events, void *data);

#endif
