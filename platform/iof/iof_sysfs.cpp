// The base MAC address is br0's, read from sysfs.
#include "iof.h"

#include <cstdio>

extern "C" int iof_mac_addr_get(uint8_t *mac)
{
    if (!mac)
        return -1;
    FILE *f = fopen("/sys/class/net/br0/address", "r");
    if (!f)
        return -1;
    char text[32];
    unsigned int b[6];
    int n = fgets(text, sizeof(text), f) ? sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) : 0;
    fclose(f);
    if (n != 6)
        return -1;
    for (int i = 0; i < 6; i++)
        mac[i] = (uint8_t)b[i];
    return 0;
}
