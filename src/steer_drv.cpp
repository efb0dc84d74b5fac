#include "steer_drv.h"

#include <linux/netlink.h>
#include <unistd.h>

#include <cerrno>

#include "nl_channel.h"
#include "steer.h"
#include "steer_ev.h"
#include "steer_if.h"
#include "steer_ven.h"

namespace {

constexpr int SDRV_PING_TIMEOUT = 5;
constexpr size_t SDRV_MSG_OFFSET = MAPS_NL_HDR_LEN + sizeof(maps_msg_head_t);  // 24
constexpr size_t SDRV_IFNAME_SIZE = 16;

struct sdrv_reg {
    slist_link list;
    uint8_t event;
    sdrv_event_cb cb;
};

int s_sock = -1;
SLIST(sdrv_reg, list) s_ev_regs;
sev_timer_t *s_ping_timer;
sev_poll_t *s_poll;
char s_default_if[SDRV_IFNAME_SIZE];
bool s_init_finished;
unsigned s_foreign;  // datagrams from anyone but the driver

static_assert(sizeof(nlmsghdr) == MAPS_NL_HDR_LEN, "netlink header is 16 bytes");

bool sdrv_find_vap(const char *ifname, void *)
{
    char name[SDRV_IFNAME_SIZE] = {};
    if (!sven_is_vap(ifname, name))
        return false;
    snprintf(s_default_if, sizeof(s_default_if), "%s", name);
    return true;
}

// A record for a code that is already taken: it is allocated all the same and
// kept for the whole run, as registrations always were.
__attribute__((noinline)) sdrv_reg *sdrv_new_refused_reg()
{
    auto *reg = static_cast<sdrv_reg *>(calloc(1, sizeof(sdrv_reg)));
    __asm__ volatile("" : : "r"(reg) : "memory");  // keeps this frame in the allocation's stack
    return reg;
}

bool sdrv_registered(uint8_t event)
{
    for (sdrv_reg *pos : s_ev_regs)
        if (pos->event == event)
            return true;
    return false;
}

void sdrv_ioct_test()
{
    char buffer[5] = {};
    int ret = sdrv_ioctl(MAPS_CMD_PING, buffer, 4, nullptr);
    if (ret == 0 && memcmp(buffer, "pong", 4) != 0)
        LOG_ERROR("%s:%d, wrong content '%s'", buffer);
    if (ret != 0 || memcmp(buffer, "pong", 4) != 0) {
        LOG_FATAL("%s:%d, ioctl test failed.");
        abort();
    }
}

void sdrv_init_nl()
{
    s_sock = nlc_socket(KM_NETLINK_WLAN);
    if (s_sock < 0) {
        LOG_FATAL("%s:%d, create netlink socket failed.");
        abort();
    }
    if (nlc_bind(s_sock, MAPS_NL_PORT_ID, MAPS_NL_GROUPS) != 0) {
        LOG_FATAL("%s:%d, netlink bind failed, another instance may be running.");
        abort();
    }
}

void sdrv_pong_timeout(void *)
{
    LOG_FATAL("%s:%d, waitting for response from driver timeout.");
    abort();
}

// A pong that no ping waits for, or one without a version, is dropped.
void sdrv_pong_handler(uint8_t, void *version, uint32_t size)
{
    SASSERT(version);
    if (SREFUSE(size) || SREFUSE(s_ping_timer))
        return;

    sev_del_timer(s_ping_timer);
    s_ping_timer = nullptr;
    auto *text = static_cast<char *>(version);
    text[size - 1] = '\0';
    if (strcmp(text, MAPS_API_VERSION) == 0) {
        LOG_DEBUG("%s:%d, receive reponse via netlink. version '%s'", text);
        return;
    }
    LOG_FATAL("%s:%d, API version doesn't match. bandherd use version '%s', but driver provides '%s'", MAPS_API_VERSION,
              text);
    abort();
}

}  // namespace

void sdrv_init()
{
    sif_iterate(sdrv_find_vap, nullptr);
    if (s_default_if[0] == '\0') {
        LOG_FATAL("%s:%d, can't find any VAP");
        abort();
    }
    LOG_INFO("%s:%d, use default interface name %s", s_default_if);
    sdrv_ioct_test();
    sdrv_init_nl();
    s_poll = sev_new_poll(s_sock, SEV_READ, sdrv_read, nullptr);
    sdrv_register_event(MAPS_EV_PONG, sdrv_pong_handler);
    if (sdrv_send(MAPS_EV_PING, nullptr, 0) != 0) {
        LOG_FATAL("%s:%d, netlink send failed.");
        abort();
    }
    s_ping_timer = sev_new_timer(SDRV_PING_TIMEOUT, sdrv_pong_timeout, nullptr);
    sdrv_ioctl(MAPS_CMD_CLEAN, nullptr, 0, nullptr);
    s_init_finished = true;
}

void sdrv_exit()
{
    if (s_init_finished) {
        s_init_finished = false;
        sdrv_ioctl(MAPS_CMD_CLEAN, nullptr, 0, nullptr);
    }
    if (s_ping_timer) {
        sev_del_timer(s_ping_timer);
        s_ping_timer = nullptr;
    }
    for (sdrv_reg *reg : s_ev_regs) {
        decltype(s_ev_regs)::del(reg);
        free(reg);
    }
    if (s_poll) {
        sev_del_poll(s_poll);
        s_poll = nullptr;
    }
    if (s_sock >= 0) {
        close(s_sock);
        s_sock = -1;
    }
    s_default_if[0] = '\0';
    s_foreign = 0;  // a channel started again counts afresh
}

void sdrv_register_event(maps_ev_e event, sdrv_event_cb cb)
{
    SASSERT(cb);
    bool taken = sdrv_registered(event);
    auto *reg = taken ? sdrv_new_refused_reg() : static_cast<sdrv_reg *>(calloc(1, sizeof(sdrv_reg)));
    SASSERT(reg);
    if (taken) {
        LOG_ERROR("%s:%d, event %d is already regitered", event);
        return;  // the record stays allocated
    }
    reg->event = event;
    reg->cb = cb;
    s_ev_regs.add_head(reg);
}

int sdrv_send(maps_ev_e event, const void *data, size_t size)
{
    SASSERT(NLMSG_SPACE(sizeof(maps_msg_head_t) + size) <= SDRV_BUFF_SIZE);

    uint8_t buf[SDRV_BUFF_SIZE] = {};
    nlmsghdr nlh = {};
    nlh.nlmsg_len = NLMSG_SPACE(sizeof(maps_msg_head_t) + size);
    nlh.nlmsg_pid = MAPS_NL_PORT_ID;
    memcpy(buf, &nlh, sizeof(nlh));
    memcpy(buf + MAPS_NL_HDR_LEN, MAPS_MAGIC, MAPS_MAGIC_LEN);
    buf[MAPS_NL_HDR_LEN + MAPS_MAGIC_LEN] = event;
    if (data && size)
        memcpy(buf + SDRV_MSG_OFFSET, data, size);

    ssize_t ret = nlc_send_kernel(s_sock, buf, nlh.nlmsg_len, KM_NETLINK_WLAN);
    if (ret <= 0) {
        LOG_ERROR("%s:%d, send failed, ret=%d, errno=%d", (int)ret, errno);
        return -1;
    }
    return 0;
}

// Another local process can reach the daemon's port id; only the driver's
// datagrams are read, the rest are counted and dropped (logged at 1, 2, 4, ...).
static void sdrv_drop_foreign()
{
    ++s_foreign;
    if ((s_foreign & (s_foreign - 1)) == 0)
        LOG_WARN("%s:%d, dropped a datagram that the driver did not send (%u so far)", s_foreign);
}

// The receive buffer is all zeroes whenever no datagram is in it: after each
// datagram only the bytes it filled are cleared again, so every read still
// lands in a zeroed buffer without clearing the whole kilobyte per event.
static uint8_t s_rbuf[SDRV_BUFF_SIZE];

// Clears what a datagram filled when the read handler returns, by whichever path.
struct sdrv_rbuf_filled {
    ssize_t len;
    ~sdrv_rbuf_filled()
    {
        if (len > 0)
            memset(s_rbuf, 0, len < (ssize_t)sizeof(s_rbuf) ? (size_t)len : sizeof(s_rbuf));
    }
};

void sdrv_read(int fd, int, void *)
{
    int from_driver = 0;
    ssize_t ret = nlc_recv(fd, s_rbuf, sizeof(s_rbuf), &from_driver);
    sdrv_rbuf_filled filled{ret};
    if (ret >= 0 && !from_driver) {
        sdrv_drop_foreign();
        return;
    }
    if (ret < (ssize_t)MAPS_NL_HDR_LEN) {
        LOG_ERROR("%s:%d, read error! ret=%d, errno=%d:%s", (int)ret, errno, strerror(errno));
        return;
    }
    nlmsghdr nlh;
    memcpy(&nlh, s_rbuf, sizeof(nlh));
    if (nlh.nlmsg_len > (uint32_t)ret) {
        LOG_ERROR("%s:%d, wrong message length %d, read %d", (int)nlh.nlmsg_len, (int)ret);
        return;
    }
    if (nlh.nlmsg_len < SDRV_MSG_OFFSET) {
        LOG_ERROR("%s:%d, message is too short %d", (int)nlh.nlmsg_len);
        return;
    }
    if (memcmp(s_rbuf + MAPS_NL_HDR_LEN, MAPS_MAGIC, MAPS_MAGIC_LEN) != 0) {
        LOG_ERROR("%s:%d, wrong magic.");
        return;
    }
    uint8_t event = s_rbuf[MAPS_NL_HDR_LEN + MAPS_MAGIC_LEN];
    for (sdrv_reg *pos : s_ev_regs) {
        if (pos->event == event) {
            SASSERT(pos->cb);
            pos->cb(event, s_rbuf + SDRV_MSG_OFFSET, nlh.nlmsg_len - (uint32_t)SDRV_MSG_OFFSET);
            return;
        }
    }
    LOG_WARN("%s:%d, event %u is not registered", event);
}

int sdrv_ioctl(maps_cmd_e cmd, void *data, size_t size, const char *ifname)
{
    SASSERT(sizeof(maps_msg_head_t) + size <= SDRV_BUFF_SIZE);
    SASSERT((!!data) == (!!size));

    uint8_t buf[SDRV_BUFF_SIZE] = {};
    memcpy(buf, MAPS_MAGIC, MAPS_MAGIC_LEN);
    buf[MAPS_MAGIC_LEN] = cmd;
    if (data)
        memcpy(buf + sizeof(maps_msg_head_t), data, size);
    if (sven_ioctl(buf, size + sizeof(maps_msg_head_t), ifname ? ifname : s_default_if) != 0) {
        LOG_ERROR("%s:%d, ioctl failed");
        return -1;
    }
    if (memcmp(buf, MAPS_MAGIC, MAPS_MAGIC_LEN) != 0) {
        LOG_ERROR("%s:%d, invalid magic");
        return -1;
    }
    if (data)
        memcpy(data, buf + sizeof(maps_msg_head_t), size);
    return 0;
}
