#include <gtest/gtest.h>
#include <linux/netlink.h>

#include <regex>

#include "fake_cm.h"
#include "fake_platform.h"
#include "fake_uwb.h"
#include "steer.h"
#include "steer_drv.h"
#include "test_util.h"

namespace {

// "<code> <payload bytes>" of each event handed over.
std::vector<std::string> s_seen;

void record_event(uint8_t event, void *data, uint32_t size)
{
    s_seen.push_back(std::to_string(event) + " " + std::string(static_cast<char *>(data), size));
}

void other_callback(uint8_t, void *, uint32_t) {}

// Codes no module uses: registrations last for the whole run, and other
// tests in this process register the real ones.
constexpr maps_ev_e EV_A = (maps_ev_e)200;
constexpr maps_ev_e EV_B = (maps_ev_e)201;

// A driver whose one VAP "wl0" is the kernel interface lo, answering the
// ioctl ping with `pong`.
void driver_with_vap(const char *pong = "pong")
{
    g_fake_uwb.vaps["wl0"].os_ifname = "lo";
    std::string answer = pong;
    g_fake_uwb.steer_maps = [answer](const std::string &, uint8_t *buf, size_t size) {
        if (buf[7] == MAPS_CMD_PING && size == 12)
            memcpy(buf + 8, answer.data(), 4);
        return 0;
    };
}

class SdrvTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake_cm_reset();
        fake_uwb_reset();
        fake_platform_reset();
        s_seen.clear();
    }
    void TearDown() override
    {
        sdrv_exit();
        fake_cm_reset();
    }
};

void deliver(const std::vector<uint8_t> &msg)
{
    g_fake_nl.incoming.push_back(msg);
    sdrv_read(g_fake_nl.fd, 1, nullptr);
}

TEST_F(SdrvTest, EventsAreCheckedThenDispatchedByCodeWithTheirNetlinkLength)
{
    sdrv_register_event(EV_A, record_event);
    sdrv_register_event(EV_B, record_event);
    log_capture log;
    sdrv_register_event(EV_B, other_callback);  // the first registration stays

    deliver(std::vector<uint8_t>(15, 0));  // shorter than a netlink header
    auto longer = nl_event(EV_A, "abcdef", 6);
    longer.resize(26);  // the header claims 30 bytes
    deliver(longer);
    auto short_len = nl_event(EV_A, nullptr, 0);
    const uint32_t len = 23;
    memcpy(short_len.data(), &len, sizeof(len));  // nlmsg_len, in host order
    deliver(short_len);
    deliver(nl_event(EV_A, nullptr, 0, "steerit"));
    deliver(nl_event(99, "x", 1));
    EXPECT_TRUE(s_seen.empty());
    std::string text = log.plain();
    EXPECT_EQ(text.rfind("error sdrv_register_event, event 201 is already regitered\n"
                         "error sdrv_read, read error! ret=15, errno=", 0),
              0u)
        << text;
    EXPECT_TRUE(text.ends_with("\nerror sdrv_read, wrong message length 30, read 26\n"
                               "error sdrv_read, message is too short 23\nerror sdrv_read, wrong magic.\n"
                               "warning sdrv_read, event 99 is not registered\n"))
        << text;

    deliver(nl_event(EV_A, nullptr, 0));  // exactly 24 bytes
    auto padded = nl_event(EV_B, "123", 3);
    padded.resize(32, 'x');  // padding after nlmsg_len is not payload
    deliver(padded);
    EXPECT_EQ(s_seen, (std::vector<std::string>{"200 ", "201 123"}));

    // A short event after a long one finds nothing of the long one past its end.
    static std::string tail;
    sdrv_register_event((maps_ev_e)202, [](uint8_t, void *data, uint32_t size) {
        tail.assign(static_cast<char *>(data) + size, 64);
    });
    deliver(nl_event((maps_ev_e)202, std::string(200, 'L').data(), 200));
    deliver(nl_event((maps_ev_e)202, "s", 1));
    EXPECT_EQ(tail, std::string(64, '\0'));

    // Whatever another process sends is counted and dropped, however well formed.
    log_capture foreign;
    g_fake_nl.from_driver = false;
    for (int i = 0; i < 5; i++)
        deliver(nl_event(EV_A, "forged", 6));
    g_fake_nl.from_driver = true;
    EXPECT_EQ(s_seen.size(), 2u);
    EXPECT_EQ(foreign.plain(), "warning sdrv_drop_foreign, dropped a datagram that the driver did not send (1 so far)\n"
                               "warning sdrv_drop_foreign, dropped a datagram that the driver did not send (2 so far)\n"
                               "warning sdrv_drop_foreign, dropped a datagram that the driver did not send (4 so far)\n");
}

TEST_F(SdrvTest, SendPadsAsNetlinkDoes)
{
    ASSERT_EQ(sdrv_send(MAPS_EV_PING, "hello", 5), 0);
    ASSERT_EQ(g_fake_nl.sent.size(), 1u);
    const std::vector<uint8_t> &m = g_fake_nl.sent[0];
    nlmsghdr nlh;
    memcpy(&nlh, m.data(), sizeof(nlh));
    EXPECT_EQ(nlh.nlmsg_len, 32u);  // 16 + 8 + 5, rounded up to 4
    EXPECT_EQ(nlh.nlmsg_pid, 3333u);
    EXPECT_EQ(nlh.nlmsg_type, 0);
    EXPECT_EQ(std::string(m.begin() + 16, m.end()), std::string("steerin\0hello\0\0\0", 16));

    g_fake_nl.send_result = -1;
    log_capture log;
    EXPECT_EQ(sdrv_send(MAPS_EV_PING, nullptr, 0), -1);
    EXPECT_NE(log.text().find("send failed, ret=-1"), std::string::npos);
}

TEST_F(SdrvTest, IoctlCarriesTheAnswerBackAndReportsFailures)
{
    g_fake_uwb.steer_maps = [](const std::string &, uint8_t *buf, size_t) {
        buf[8] = 0x5a;  // the driver answers in the same buffer
        return 0;
    };
    uint8_t data[1016] = {1, 2};
    EXPECT_EQ(sdrv_ioctl(MAPS_CMD_DBG, data, sizeof(data), "wl1"), 0);
    EXPECT_EQ(data[0], 0x5a);
    EXPECT_EQ(fake_uwb_calls("steer_maps"), (std::vector<std::string>{"steer_maps wl1 10 1024"}));

    log_capture log;
    g_fake_uwb.steer_maps = [](const std::string &, uint8_t *, size_t) { return -1; };
    EXPECT_EQ(sdrv_ioctl(MAPS_CMD_CLEAN, nullptr, 0, "wl0"), -1);
    g_fake_uwb.steer_maps = [](const std::string &, uint8_t *buf, size_t) {
        buf[0] = 'X';
        return 0;
    };
    EXPECT_EQ(sdrv_ioctl(MAPS_CMD_DBG, data, 4, "wl0"), -1);
    EXPECT_EQ(log.plain(), "error sdrv_ioctl, ioctl failed\nerror sdrv_ioctl, invalid magic\n");
}

// What init set up, exit takes down: the driver's state (only after a start),
// the pong wait, the registrations.
TEST_F(SdrvTest, ExitUndoesInit)
{
    sdrv_exit();
    EXPECT_TRUE(g_fake_uwb.calls.empty());
    driver_with_vap();
    sdrv_init();
    sdrv_register_event(EV_A, record_event);
    g_fake_uwb.calls.clear();
    sdrv_exit();  // before the pong came
    sdrv_exit();  // once is enough
    EXPECT_EQ(fake_uwb_calls("steer_maps"), (std::vector<std::string>{"steer_maps wl0 9 8"}));
    EXPECT_EQ(fake_cm_timers(), 0);
    EXPECT_EQ(fake_cm_poll_events(42), -1);
    log_capture log;
    sdrv_register_event(EV_A, record_event);
    sdrv_register_event(MAPS_EV_PONG, record_event);
    EXPECT_EQ(log.text(), "");

    // A channel started again counts the datagrams of other processes afresh.
    log_capture foreign;
    for (int run = 0; run < 2; run++) {
        sdrv_init();
        g_fake_nl.from_driver = false;
        deliver(nl_event(EV_A, "forged", 6));
        g_fake_nl.from_driver = true;
        sdrv_exit();
    }
    std::string text = foreign.plain();
    EXPECT_EQ(std::regex_replace(text, std::regex(".*\\((\\d+) so far\\)\n|.*\n"), "$1"), "11") << text;
}

TEST_F(SdrvTest, StartUpFailuresAreFatal)
{
    EXPECT_FATAL(sdrv_init(), "fatal sdrv_init:[0-9]+, can't find any VAP\n");  // no interface is a VAP
    driver_with_vap("ping");
    EXPECT_FATAL(sdrv_init(), "error sdrv_ioct_test:[0-9]+, wrong content 'ping'\n"
                              "fatal sdrv_ioct_test:[0-9]+, ioctl test failed.\n");
    driver_with_vap();
    g_fake_nl.bind_result = -1;
    EXPECT_FATAL(sdrv_init(), "fatal sdrv_init_nl:[0-9]+, netlink bind failed, another instance may be running.\n");
}

}  // namespace
