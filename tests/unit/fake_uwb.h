// A Wi-Fi base library for unit tests: answers come from a table the test fills.
#ifndef FAKE_UWB_H
#define FAKE_UWB_H

#include <map>
#include <string>

#include "uwb.h"

struct fake_uwb_state {
    std::map<std::string, std::string> os_ifname;  // Wi-Fi name -> kernel name
    int calls = 0;                                  // every call counts
};

extern fake_uwb_state g_fake_uwb;
void fake_uwb_reset();

#endif
