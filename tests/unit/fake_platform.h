// Fakes of the platform's event channel and device MAC for unit tests.
#ifndef FAKE_PLATFORM_H
#define FAKE_PLATFORM_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "iof.h"
#include "nl_channel.h"

struct fake_nl_state {
    int fd = 42;             // what nlc_socket returns (-1: fails)
    int bind_result = 0;     // -1: the port id is taken
    int send_result = 1;     // > 0: sent
    std::vector<std::vector<uint8_t>> sent;
    std::deque<std::vector<uint8_t>> incoming;  // what nlc_recv hands out
    bool from_driver = true;                    // who nlc_recv says sent it
};

extern fake_nl_state g_fake_nl;
extern uint8_t g_fake_self_mac[6];
extern int g_fake_iof_result;
void fake_platform_reset();

// A driver event as the driver frames it: nlmsg_len = 24 + payload size.
std::vector<uint8_t> nl_event(uint8_t code, const void *payload, size_t size, const char *magic = "steerin");
// Hands one such event to the driver channel as its socket's poll would.
void nl_deliver(uint8_t code, const void *payload, size_t size);

#endif
