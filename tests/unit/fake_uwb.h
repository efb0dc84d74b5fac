// A Wi-Fi base library for unit tests: answers come from tables the test
// fills, and every call that changes something is recorded.
#ifndef FAKE_UWB_H
#define FAKE_UWB_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "uwb.h"

struct fake_uwb_vap {
    std::string os_ifname;  // kernel name
    std::string mode = "AP";
    uwb_ap_cap_t caps = {1, 1};
    int channel = 0;
    std::vector<uint8_t> channels;
    std::string ssid;
    int sta_max = 32;
};

// A MAPS command as the driver received it.
struct fake_maps_cmd {
    std::string ifname;
    int cmd;
    std::vector<uint8_t> payload;
};

struct fake_uwb_state {
    std::map<std::string, fake_uwb_vap> vaps;  // by configuration-store name
    // Answers a MAPS command in place; the default echoes it.
    std::function<int(const std::string &ifname, uint8_t *buf, size_t size)> steer_maps;
    std::string bssid;  // uplink BSSID of any station interface, "" = call fails
    int link_rate = -1;  // -1 = sta_info fails
    int rrm_result = 0;
    int kick_result = 0;  // what kick_sta answers
    int btm_result = 0;   // what bss_trans_req answers
    std::vector<std::string> calls;  // "name ifname args..." of recorded calls
    std::vector<fake_maps_cmd> maps;  // every MAPS command, in order
    int os_ifname_calls = 0;
};

extern fake_uwb_state g_fake_uwb;
void fake_uwb_reset();
// Calls recorded so far whose text starts with `prefix`.
std::vector<std::string> fake_uwb_calls(const std::string &prefix);

#endif
