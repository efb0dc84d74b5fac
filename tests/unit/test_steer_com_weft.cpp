// The mesh transport over the real event library, in a private /var.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "cm.h"
#include "steer.h"
#include "steer_com_weft.h"
#include "test_util.h"

namespace {

std::vector<std::string> s_chunks;

void record_chunk(void *data, size_t size)
{
    s_chunks.emplace_back(static_cast<char *>(data), size);
}

// Runs the loop until `chunks` have been received (looked at every
// millisecond), for 10 seconds at most.
void run_until(size_t chunks)
{
    static cm_timer s_check;
    static int s_left;
    static size_t s_want;
    s_left = 10000;
    s_want = chunks;
    cm_timer_start(&s_check, 0.001, [](cm_timer *t) {
        if (s_chunks.size() >= s_want || --s_left == 0) {
            cm_timer_stop(t);
            cm_stop();
        }
    });
    cm_run();
    EXPECT_EQ(s_chunks.size(), chunks);
}

void write_text(int fd, const std::string &s)
{
    EXPECT_EQ(write(fd, s.data(), s.size()), (ssize_t)s.size());
}

void transport_delivers_what_each_read_returns()
{
    // A socket file left by an earlier run does not keep the daemon from listening.
    int old = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = {AF_UNIX, "/var/steer_socket"};
    EXPECT_EQ(bind(old, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
    close(old);
    cm_init();
    scom_init();
    scom_set_recv_cb(record_chunk);

    int a = unix_connect("/var/steer_socket");
    EXPECT_GE(a, 0);
    write_text(a, "first");
    write_text(a, "second");  // both are waiting when the read comes
    run_until(1);
    // No framing: a message written in two parts arrives as two buffers.
    write_text(a, "{\"half\":");
    run_until(2);
    write_text(a, "1}");
    run_until(3);
    // The peer goes away; its record is freed and accepting goes on, with
    // several connections open at once.
    close(a);
    int b = unix_connect("/var/steer_socket");
    int c = unix_connect("/var/steer_socket");
    write_text(c, "from c");
    run_until(4);
    write_text(b, "from b");
    run_until(5);
    close(b);
    close(c);
    EXPECT_EQ(s_chunks, (std::vector<std::string>{"firstsecond", "{\"half\":", "1}", "from c", "from b"}));
}

TEST(ScomTransport, ReceivesChunksAsTheyAreReadAndKeepsAccepting)
{
    EXPECT_SANDBOXED(SANDBOX_VAR, transport_delivers_what_each_read_returns);
}

void send_frames_each_message()
{
    {
        log_capture log;
        EXPECT_EQ(scom_send("abc", 3), -1);
        EXPECT_EQ(log.plain(), "error scom_conn_weft, connect socket failed\n");
    }
    weft_listener weft;
    const uint8_t payload[5] = {0, 0xff, 'a', 0, 7};
    EXPECT_EQ(scom_send(payload, sizeof(payload)), 0);
    EXPECT_EQ(scom_send(payload, 0), 0);
    EXPECT_EQ(weft.take(), (std::vector<std::vector<uint8_t>>{{3, 1, 0, 0, 0xff, 'a', 0, 7}, {3, 1, 0}}));
}

TEST(ScomTransport, SendPrefixesTheHeaderAndFailsWithoutTheMeshDaemon)
{
    EXPECT_SANDBOXED(SANDBOX_VAR, send_frames_each_message);
}

}  // namespace
