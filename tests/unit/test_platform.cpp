// The platform's device MAC and the lab's driver event channel.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "iof.h"
#include "nl_channel.h"
#include "test_util.h"

namespace {

void base_mac_is_br0s()
{
    uint8_t mac[6];
    EXPECT_NE(iof_mac_addr_get(mac), 0);  // no br0 yet
    EXPECT_EQ(system("ip link add br0 type bridge && ip link set br0 address 02:11:22:33:44:56"), 0);
    EXPECT_EQ(iof_mac_addr_get(mac), 0);
    const uint8_t expected[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x56};
    EXPECT_EQ(memcmp(mac, expected, 6), 0);
}

TEST(Iof, BaseMacIsTheAddressOfBr0)
{
    EXPECT_SANDBOXED(SANDBOX_NET, base_mac_is_br0s);
}

int kernel_endpoint()
{
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/var/run/maps/nl-0");
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
    return fd;
}

void channel_behaves_like_a_netlink_port()
{
    int kernel = kernel_endpoint();

    int first = nlc_socket(89);
    EXPECT_GE(first, 0);
    EXPECT_EQ(nlc_bind(first, 3333, 1), 0);
    // The port id is taken while its owner lives.
    int second = nlc_socket(89);
    EXPECT_EQ(nlc_bind(second, 3333, 1), -1);
    EXPECT_EQ(errno, EADDRINUSE);

    EXPECT_EQ(nlc_send_kernel(first, "ping", 4, 89), 4);
    char buf[16] = {};
    sockaddr_un from = {};
    socklen_t fromlen = sizeof(from);
    EXPECT_EQ(recvfrom(kernel, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &fromlen), 4);
    EXPECT_STREQ(buf, "ping");
    EXPECT_STREQ(from.sun_path, "/var/run/maps/nl-3333");
    EXPECT_EQ(sendto(kernel, "pong", 4, 0, reinterpret_cast<sockaddr *>(&from), fromlen), 4);
    memset(buf, 0, sizeof(buf));
    EXPECT_EQ(nlc_recv(first, buf, sizeof(buf)), 4);
    EXPECT_STREQ(buf, "pong");

    // Its owner dies without cleaning up: the port id is free again.
    close(first);
    EXPECT_EQ(access("/var/run/maps/nl-3333", F_OK), 0);
    EXPECT_EQ(nlc_bind(second, 3333, 1), 0);
    close(second);
    close(kernel);
}

TEST(NlLab, PortIdIsHeldByOneLiveProcessAndReachesTheKernelEndpoint)
{
    EXPECT_SANDBOXED(SANDBOX_VAR, channel_behaves_like_a_netlink_port);
}

}  // namespace
