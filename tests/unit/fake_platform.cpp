#include "fake_platform.h"

#include <linux/netlink.h>

#include <cerrno>
#include <cstring>

#include "steer_drv.h"

fake_nl_state g_fake_nl;
uint8_t g_fake_self_mac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
int g_fake_iof_result = 0;

void fake_platform_reset()
{
    g_fake_nl = fake_nl_state{};
    g_fake_iof_result = 0;
    const uint8_t mac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    memcpy(g_fake_self_mac, mac, 6);
}

std::vector<uint8_t> nl_event(uint8_t code, const void *payload, size_t size, const char *magic)
{
    std::vector<uint8_t> msg(24 + size, 0);
    nlmsghdr nlh = {};
    nlh.nlmsg_len = (uint32_t)(24 + size);
    memcpy(msg.data(), &nlh, sizeof(nlh));
    memcpy(msg.data() + 16, magic, 7);
    msg[23] = code;
    if (size)
        memcpy(msg.data() + 24, payload, size);
    return msg;
}

void nl_deliver(uint8_t code, const void *payload, size_t size)
{
    g_fake_nl.incoming.push_back(nl_event(code, payload, size));
    sdrv_read(g_fake_nl.fd, 1, nullptr);
}

extern "C" {

int nlc_socket(int)
{
    return g_fake_nl.fd;
}

int nlc_bind(int, uint32_t, uint32_t)
{
    if (g_fake_nl.bind_result != 0)
        errno = EADDRINUSE;
    return g_fake_nl.bind_result;
}

ssize_t nlc_send_kernel(int, const void *buf, size_t len, uint32_t)
{
    const auto *p = static_cast<const uint8_t *>(buf);
    g_fake_nl.sent.emplace_back(p, p + len);
    return g_fake_nl.send_result > 0 ? (ssize_t)len : -1;
}

ssize_t nlc_recv(int, void *buf, size_t size, int *from_driver)
{
    *from_driver = g_fake_nl.from_driver;
    if (g_fake_nl.incoming.empty()) {
        errno = EAGAIN;
        return -1;
    }
    std::vector<uint8_t> msg = g_fake_nl.incoming.front();
    g_fake_nl.incoming.pop_front();
    size_t n = msg.size() < size ? msg.size() : size;
    if (n)
        memcpy(buf, msg.data(), n);
    return (ssize_t)n;
}

int iof_mac_addr_get(uint8_t *mac)
{
    if (g_fake_iof_result != 0)
        return g_fake_iof_result;
    memcpy(mac, g_fake_self_mac, 6);
    return 0;
}

}  // extern "C"
