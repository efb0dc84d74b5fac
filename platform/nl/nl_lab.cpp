// The lab's event channel: a Unix datagram socket bound at
// /var/run/maps/nl-<port id>, sending to /var/run/maps/nl-0, where the lab's
// driver double plays the kernel. The datagrams carry the netlink bytes; only
// those sent from nl-0 are the driver's.
#include "nl_channel.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr const char *NLC_DIR = "/var/run/maps";
constexpr std::string_view NLC_DRIVER_PATH = "/var/run/maps/nl-0";  // port id 0

sockaddr_un nlc_addr(uint32_t port_id)
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s/nl-%u", NLC_DIR, port_id);
    return addr;
}

// A socket file nobody answers on was left by a process that died: the
// kernel would have freed that port id, so the file goes.
void nlc_remove_stale(const sockaddr_un &addr)
{
    int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0)
        return;
    if (connect(probe, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0 && errno == ECONNREFUSED)
        unlink(addr.sun_path);
    close(probe);
}

// The driver double may have bound nl-0 by another path to the same file (it
// lives outside the node's mounts): a sender is the driver when its socket
// file is nl-0's. The path proven last is remembered, so a flood of events
// costs no lookups.
std::string s_driver_alias;

bool nlc_is_driver(std::string_view sender)
{
    if (sender.empty())
        return false;
    if (sender == NLC_DRIVER_PATH || sender == s_driver_alias)
        return true;
    struct stat mine, theirs;
    std::string path(sender);
    if (stat(std::string(NLC_DRIVER_PATH).c_str(), &mine) != 0 || stat(path.c_str(), &theirs) != 0 ||
        mine.st_dev != theirs.st_dev || mine.st_ino != theirs.st_ino)
        return false;
    s_driver_alias = path;
    return true;
}

}  // namespace

extern "C" {

int nlc_socket(int)
{
    return socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

int nlc_bind(int fd, uint32_t port_id, uint32_t)
{
    sockaddr_un addr = nlc_addr(port_id);
    nlc_remove_stale(addr);
    return bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr));
}

ssize_t nlc_send_kernel(int fd, const void *buf, size_t len, uint32_t)
{
    sockaddr_un addr = nlc_addr(0);
    return sendto(fd, buf, len, 0, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr));
}

ssize_t nlc_recv(int fd, void *buf, size_t size, int *from_driver)
{
    sockaddr_un from = {};
    socklen_t from_len = sizeof(from);
    ssize_t ret = recvfrom(fd, buf, size, 0, reinterpret_cast<sockaddr *>(&from), &from_len);
    // An unbound or abstract sender has no path; the length may count the NUL.
    size_t room = from_len > offsetof(sockaddr_un, sun_path) ? from_len - offsetof(sockaddr_un, sun_path) : 0;
    std::string_view sender(from.sun_path, strnlen(from.sun_path, room));
    *from_driver = ret >= 0 && nlc_is_driver(sender);
    return ret;
}

}  // extern "C"
