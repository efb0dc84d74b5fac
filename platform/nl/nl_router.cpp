// The router's event channel: a raw netlink socket of the driver's protocol.
// The daemon binds its fixed port id (which keeps a second daemon out) and
// multicast groups, sends to the kernel (port id 0) and hears the driver from
// the kernel's port id 0; a datagram from any other port id came from a
// process, not from the driver.
//
// A test build may move the channel onto NETLINK_USERSOCK, which any kernel
// accepts, with a peer socket playing the driver: NLC_TEST_PROTOCOL replaces
// the protocol and NLC_TEST_DRIVER_PORT the driver's port id.
#include "nl_channel.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstring>

namespace {

#ifdef NLC_TEST_PROTOCOL
constexpr int nlc_protocol(int) { return NLC_TEST_PROTOCOL; }
#else
constexpr int nlc_protocol(int protocol) { return protocol; }
#endif

#ifdef NLC_TEST_DRIVER_PORT
constexpr uint32_t NLC_DRIVER_PORT = NLC_TEST_DRIVER_PORT;
#else
constexpr uint32_t NLC_DRIVER_PORT = 0;  // the kernel
#endif

sockaddr_nl nlc_addr(uint32_t port_id, uint32_t groups)
{
    sockaddr_nl addr;
    memset(&addr, 0, sizeof(addr));
    addr.nl_family = AF_NETLINK;
    addr.nl_pid = port_id;
    addr.nl_groups = groups;
    return addr;
}

}  // namespace

extern "C" {

int nlc_socket(int protocol)
{
    return socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, nlc_protocol(protocol));
}

int nlc_bind(int fd, uint32_t port_id, uint32_t groups)
{
    sockaddr_nl addr = nlc_addr(port_id, groups);
    return bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr));
}

ssize_t nlc_send_kernel(int fd, const void *buf, size_t len, uint32_t groups)
{
    sockaddr_nl addr = nlc_addr(0, groups);
    return sendto(fd, buf, len, 0, reinterpret_cast<const sockaddr *>(&addr), sizeof(addr));
}

ssize_t nlc_recv(int fd, void *buf, size_t size, int *from_driver)
{
    sockaddr_nl from;
    memset(&from, 0, sizeof(from));
    socklen_t from_len = sizeof(from);
    ssize_t ret = recvfrom(fd, buf, size, 0, reinterpret_cast<sockaddr *>(&from), &from_len);
    *from_driver = ret >= 0 && from_len >= sizeof(from) && from.nl_family == AF_NETLINK &&
                   from.nl_pid == NLC_DRIVER_PORT;
    return ret;
}

}  // extern "C"
