// The lab's event channel: a Unix datagram socket bound at
// /var/run/maps/nl-<port id>, sending to /var/run/maps/nl-0, where the lab's
// driver double plays the kernel. The datagrams carry the netlink bytes.
#include "nl_channel.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

constexpr const char *NLC_DIR = "/var/run/maps";

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

ssize_t nlc_recv(int fd, void *buf, size_t size)
{
    return recv(fd, buf, size, 0);
}

}  // extern "C"
