// Command lines through the operator's command channel: each written into
// the input FIFO and read by the channel's own handler, its answer drained
// from the output FIFO, on a node with stations, neighbours and steering
// under way.
//
// The input is a sequence of operations, each a byte then its arguments:
//   0 command:  one line (up to '\n'), written as one write
//   1 write:    size (1 byte), the bytes as they are (a long one is refused)
//   2 log path: "log -p" with one of a few harmless paths
//   3 tick:     seconds (1 to 64) of virtual time, timers firing
//   4 station:  a driver event: station, join / leave / status, BSS, RSSI
//   5 heartbeat from neighbour B or C
//   6 event:    a driver event of any code with a payload of any size
// "log -p" with a path of the input's own is not handed over: it would write
// the log wherever the input says.
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "fake_cm.h"
#include "fake_platform.h"
#include "fuzz_util.h"
#include "steer_cmd.h"
#include "steer_drv.h"

namespace {

// What the command parser splits arguments at.
bool is_blank(char c)
{
    return c == ' ' || (c >= 9 && c <= 13);
}

// In a "log" line every option letter p becomes P (an unknown option).
std::string harmless(std::string line)
{
    size_t end = line.find('\0');
    if (end == std::string::npos)
        end = line.size();
    size_t start = 0;
    while (start < end && is_blank(line[start]))
        start++;
    if (line.compare(start, 3, "log") != 0 || (start + 3 < end && !is_blank(line[start + 3])))
        return line;
    for (size_t i = start + 3; i < end; i++) {
        if (line[i] != '-' || !is_blank(line[i - 1]))
            continue;
        for (size_t k = i + 1; k < end && !is_blank(line[k]); k++)
            if (line[k] == 'p')
                line[k] = 'P';
    }
    return line;
}

struct channel {
    int daemon_fd, in, out;
    channel()
    {
        scmd_init();
        daemon_fd = fake_cm_last_poll_fd();
        in = open(SCMD_INPUT, O_WRONLY | O_NONBLOCK);
        out = open(SCMD_OUTPUT, O_RDONLY | O_NONBLOCK);
    }
    ~channel()
    {
        close(in);
        close(out);
        scmd_exit();
    }
    void send(const std::string &bytes)
    {
        if (write(in, bytes.data(), bytes.size()) < 0)
            return;
        fake_cm_fire_poll(daemon_fd, CM_POLL_READ);
        char buf[4096];
        while (read(out, buf, sizeof(buf)) > 0) {
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in(data, size);
    fuzz_node node;
    channel cmd;
    for (int ops = 0; !in.empty() && ops < 64; ops++) {
        switch (in.u8() % 7) {
        case 0: {
            std::string line = in.line(200);
            if (!line.empty())
                cmd.send(harmless(line));
            break;
        }
        case 1: {
            std::string bytes = in.bytes(in.u8());
            if (!bytes.empty())
                cmd.send(harmless(bytes));
            break;
        }
        case 2: {
            const char *paths[] = {"/dev/null", "/var/run/fuzz.log", "/var/run", "/nonexistent/log"};
            cmd.send(std::string("log -p") + paths[in.u8() % 4] + (in.u8() & 1 ? " -s100" : ""));
            break;
        }
        case 3:
            tick(in.u8() % 64 + 1);
            break;
        case 4:
            fuzz_station(in);
            break;
        case 5:
            heartbeat(in.u8() & 1 ? PEER_C : PEER_B);
            break;
        case 6: {
            uint8_t code = in.u8() % 11;
            std::string payload = in.bytes(in.u16() % (SDRV_BUFF_SIZE - 23));
            nl_deliver(code, payload.data(), payload.size());
            break;
        }
        }
    }
    fuzz_digest(data, size);
    // Where the log goes and how long it may grow outlive the run otherwise.
    slog_set_path(fuzz_log_path());
    slog_set_size(0);
    unlink("/var/run/fuzz.log");
    return 0;
}
