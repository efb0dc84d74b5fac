// The driver's event channel, over whichever implementation the binary links:
// the lab's Unix datagram sockets, or netlink (built on NETLINK_USERSOCK with
// a peer socket at NLC_TEST_DRIVER_PORT playing the driver).
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "nl_channel.h"
#include "test_util.h"

namespace {

constexpr int PROTOCOL = 89;
constexpr uint32_t PORT = 3333;
constexpr uint32_t GROUPS = 1;

// The driver's end and a stranger's, and how each reaches the daemon's port.
#ifdef NLC_TEST_DRIVER_PORT
int endpoint(uint32_t port_id, uint32_t groups)
{
    int fd = socket(AF_NETLINK, SOCK_RAW, NLC_TEST_PROTOCOL);
    sockaddr_nl addr = {};
    addr.nl_family = AF_NETLINK;
    addr.nl_pid = port_id;
    addr.nl_groups = groups;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0) << strerror(errno);
    return fd;
}
// The daemon's sends go to the kernel and to the groups; the driver hears them as a member.
int driver_endpoint() { return endpoint(NLC_TEST_DRIVER_PORT, GROUPS); }
int stranger_endpoint() { return endpoint(0, 0); }
void send_to_daemon(int fd, const char *text)
{
    sockaddr_nl to = {};
    to.nl_family = AF_NETLINK;
    to.nl_pid = PORT;
    EXPECT_EQ(sendto(fd, text, strlen(text), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)), (ssize_t)strlen(text));
}
// No kernel side answers the test protocol, so the unicast half of a send to
// the kernel is refused after the group half went out.
bool sent(ssize_t ret, size_t len) { return ret == (ssize_t)len || errno == ECONNREFUSED; }
#else
int unix_endpoint(const char *path)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (path) {
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, path);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
    }
    return fd;
}
// The lab's driver binds nl-0 from outside the node, by another path to it.
int driver_endpoint()
{
    EXPECT_EQ(symlink("/var/run/maps", "/var/run/outside"), 0);
    return unix_endpoint("/var/run/outside/nl-0");
}
int stranger_endpoint() { return unix_endpoint("/var/run/maps/nl-77"); }
void send_to_daemon(int fd, const char *text)
{
    sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    strcpy(to.sun_path, "/var/run/maps/nl-3333");
    EXPECT_EQ(sendto(fd, text, strlen(text), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)), (ssize_t)strlen(text));
}
bool sent(ssize_t ret, size_t len) { return ret == (ssize_t)len; }
#endif

std::string receive(int fd, int *from_driver)
{
    char buf[64] = {};
    ssize_t n = nlc_recv(fd, buf, sizeof(buf), from_driver);
    return n < 0 ? "error" : std::string(buf, (size_t)n);
}

void channel_holds_its_port_and_knows_the_driver()
{
    int driver = driver_endpoint();

    int first = nlc_socket(PROTOCOL);
    EXPECT_GE(first, 0) << strerror(errno);
    EXPECT_EQ(nlc_bind(first, PORT, GROUPS), 0) << strerror(errno);
    // The port id is taken while its owner lives.
    int second = nlc_socket(PROTOCOL);
    EXPECT_EQ(nlc_bind(second, PORT, GROUPS), -1);
    EXPECT_EQ(errno, EADDRINUSE);

    EXPECT_TRUE(sent(nlc_send_kernel(first, "ping", 4, PROTOCOL), 4)) << strerror(errno);
    char buf[16] = {};
    EXPECT_EQ(recv(driver, buf, sizeof(buf), MSG_DONTWAIT), 4);
    EXPECT_STREQ(buf, "ping");

    // What the driver says is the driver's; what a stranger says is read but not believed.
    int from_driver = -1;
    send_to_daemon(driver, "pong");
    EXPECT_EQ(receive(first, &from_driver), "pong");
    EXPECT_EQ(from_driver, 1);
    int stranger = stranger_endpoint();
    send_to_daemon(stranger, "forged");
    EXPECT_EQ(receive(first, &from_driver), "forged");
    EXPECT_EQ(from_driver, 0);

    // Its owner dies without cleaning up: the port id is free again.
    close(first);
    EXPECT_EQ(nlc_bind(second, PORT, GROUPS), 0);
    close(second);
    close(stranger);
    close(driver);
}

TEST(NlChannel, PortIdIsHeldByOneLiveProcessAndOnlyTheDriverIsBelieved)
{
    EXPECT_SANDBOXED(SANDBOX_NET | SANDBOX_VAR, channel_holds_its_port_and_knows_the_driver);
}

}  // namespace
