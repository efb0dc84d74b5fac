#include "steer_if.h"

#include <dirent.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "steer.h"
#include "uwb.h"

int sif_iterate(sif_iterate_cb cb, void *data)
{
    SASSERT(cb);

    DIR *dir = opendir("/sys/class/net");
    if (!dir) {
        LOG_ERROR("%s:%d, open net dir failed, %s.", strerror(errno));
        return -1;
    }
    struct dirent *ent;
    while ((ent = readdir(dir)) != nullptr) {
        if (strcmp(ent->d_name, ".") == 0 || strcmp(ent->d_name, "..") == 0)
            continue;
        if (cb(ent->d_name, data))
            break;
    }
    closedir(dir);
    return 0;
}

int sif_get_mac(const char *ifname, uint8_t *mac)
{
    SASSERT(ifname);
    SASSERT(mac);

    char osif[16] = {};
    const char *name = ifname;
    if (strncmp(ifname, "br", 2) != 0) {
        if (uwb_get_os_ifname(ifname, osif, sizeof(osif)) != 0) {
            LOG_ERROR("%s:%d, %s get osif failed", ifname);
            return -1;
        }
        name = osif;
    }

    char path[40];
    snprintf(path, sizeof(path), "/sys/class/net/%s/address", name);
    FILE *f = fopen(path, "r");
    if (!f) {
        LOG_ERROR("%s:%d, open %s failed", path);
        return -1;
    }
    char text[18] = {};
    size_t n = fread(text, 1, 17, f);
    fclose(f);
    if (n < 17) {
        LOG_ERROR("%s:%d, read %s error", path);
        return -1;
    }
    if (mac_scan(text, mac) != 0) {
        LOG_ERROR("%s:%d, scanf failed, text is '%s'", text);
        return -1;
    }
    return 0;
}

bool sif_is_up(const char *ifname)
{
    SASSERT(ifname);

    struct ifreq ifr = {};
    for (size_t i = 0; i < IFNAMSIZ - 1 && ifname[i] != '\0'; i++)
        ifr.ifr_name[i] = ifname[i];
    int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        LOG_ERROR("%s:%d, open sock failed");
        return false;
    }
    if (ioctl(sock, SIOCGIFFLAGS, &ifr) < 0) {
        LOG_ERROR("%s:%d, ioctl failed, ifname %s", ifname);
        close(sock);
        return false;
    }
    close(sock);
    return (ifr.ifr_flags & IFF_UP) != 0;
}
