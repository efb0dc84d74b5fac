// Mesh frames of every message type through the transport's read path (a
// connection from the mesh daemon, chunks as its reads deliver them), the
// envelope and the handlers, into the neighbour table and the steering
// state machines.
//
// The input is a sequence of operations, each a byte then its arguments:
//   0 chunk:    size (2 bytes), the bytes of one read on the current connection
//   1 message:  sender (B, C, this node or any), addressee (all, this node,
//               another), type, then JSON text up to '\n', in one read
//   2 tick:     seconds (1 to 64) of virtual time, timers firing
//   3 the mesh daemon connects anew; 4 the current connection ends
//   5 station:  a driver event: station, join / leave / status, BSS, RSSI
//   6 steer:    station, target BSS, mechanism (the operator's "act")
#include <string>

#include "fake_cm.h"
#include "fuzz_util.h"
#include "msg_util.h"

namespace {

const char *const TYPES[] = {
    "SNEI_HEARTBEAT", "SNEI_EXIT",   "SSTA_ASSOCIATE", "SAP_INFO",     "SBTM_START",     "SBTM_READY",
    "SBTM_FINISH",    "SBOFF_START", "SBOFF_READY",    "SBOFF_FINISH", "SBOFF_PREASSOC",
};
constexpr size_t TYPE_COUNT = sizeof(TYPES) / sizeof(TYPES[0]);

void deliver(const void *data, size_t size)
{
    if (fake_cm_io_connections() == 0)
        fake_cm_io_connect();
    fake_cm_io_deliver(data, size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in(data, size);
    fuzz_node node;
    for (int ops = 0; !in.empty() && ops < 64; ops++) {
        switch (in.u8() % 7) {
        case 0: {
            std::string chunk = in.bytes(in.u16() % 4096);
            deliver(chunk.data(), chunk.size());
            break;
        }
        case 1: {
            static const uint8_t OTHER[6] = {0x02, 0, 0, 0, 0x0d, 0};
            const uint8_t *senders[] = {PEER_B, PEER_C, SELF_ID, OTHER};
            const uint8_t *to[] = {MAC_BCAST, SELF_ID, PEER_B, OTHER};
            const uint8_t *sa = senders[in.u8() & 3], *da = to[in.u8() & 3];
            uint8_t type = in.u8() % (TYPE_COUNT + 1);
            std::string text = in.line(3000);
            std::vector<uint8_t> msg = mesh_message(sa, da, type < TYPE_COUNT ? TYPES[type] : "SNEI", text);
            deliver(msg.data(), msg.size());
            break;
        }
        case 2:
            tick(in.u8() % 64 + 1);
            break;
        case 3:
            fake_cm_io_connect();
            break;
        case 4:
            fake_cm_io_hangup();
            break;
        case 5:
            fuzz_station(in);
            break;
        case 6:
            fuzz_act(in);
            break;
        }
    }
    fuzz_digest(data, size);
    return 0;
}
