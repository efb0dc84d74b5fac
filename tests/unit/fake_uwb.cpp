#include "fake_uwb.h"

#include <cstdio>

fake_uwb_state g_fake_uwb;

void fake_uwb_reset()
{
    g_fake_uwb = fake_uwb_state{};
}

extern "C" {

int uwb_get_os_ifname(const char *ifname, char *osif, int size)
{
    g_fake_uwb.calls++;
    auto it = g_fake_uwb.os_ifname.find(ifname);
    if (it == g_fake_uwb.os_ifname.end())
        return -1;
    snprintf(osif, (size_t)size, "%s", it->second.c_str());
    return 0;
}

}
