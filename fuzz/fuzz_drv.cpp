// Driver events of every code, as datagrams through the driver channel's
// real dispatch, into a node with radios, BSSes, stations and neighbours.
//
// The input is a sequence of operations, each a byte then its arguments:
//   0 event:    code, payload size (2 bytes, at most the channel's buffer), payload
//   1 datagram: sender (odd: not the driver), size (2 bytes), the bytes as
//               they come off the socket
//   2 tick:     seconds (1 to 64) of virtual time, timers firing
//   3 heartbeat from neighbour B or C (its BSS ...:0b:01 or ...:0c:01)
//   4 steer:    station, target BSS, mechanism (the operator's "act")
//   5 measure:  station (the operator's "ns": a beacon request goes out)
#include <string>

#include "fake_platform.h"
#include "fuzz_util.h"
#include "steer_drv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in(data, size);
    fuzz_node node;
    for (int ops = 0; !in.empty() && ops < 64; ops++) {
        switch (in.u8() % 6) {
        case 0: {
            uint8_t code = in.u8();
            std::string payload = in.bytes(in.u16() % (SDRV_BUFF_SIZE - 23));
            nl_deliver(code, payload.data(), payload.size());
            break;
        }
        case 1: {
            bool foreign = in.u8() & 1;
            std::string raw = in.bytes(in.u16() % (SDRV_BUFF_SIZE + 64));
            g_fake_nl.incoming.emplace_back(raw.begin(), raw.end());
            g_fake_nl.from_driver = !foreign;
            sdrv_read(g_fake_nl.fd, 1, nullptr);
            g_fake_nl.from_driver = true;
            break;
        }
        case 2:
            tick(in.u8() % 64 + 1);
            break;
        case 3:
            heartbeat(in.u8() & 1 ? PEER_C : PEER_B);
            break;
        case 4:
            fuzz_act(in);
            break;
        case 5: {
            // A neighbour measurement, whose beacon reports the station then sends.
            const uint8_t *sta = fuzz_sta(in.u8());
            char line[40];
            snprintf(line, sizeof(line), "ns %s", mac_text(sta).s);
            fuzz_command(line);
            break;
        }
        }
    }
    fuzz_digest(data, size);
    return 0;
}
