// The station-event path and the table's memory: a status event from the
// driver's bytes to the updated record, and what 256 stations and 16
// neighbours cost on the heap. Run: build/bench/bench_station
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstring>
#include <string>
#include <vector>

#include "fake_cm.h"
#include "fake_platform.h"
#include "fake_uwb.h"
#include "msg_util.h"
#include "steer.h"
#include "steer_drv.h"
#include "steer_msg.h"
#include "steer_nei.h"
#include "steer_sta.h"

namespace {

sap_radio_t s_radio = {MAPS_2G, 6, 0, 0, 1, {}, nullptr};

void setup_node()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    fake_cm_reset();
    fake_platform_reset();
    slog_set_level(nullptr, SLOG_WARNING);
    g_self.radios[1] = s_radio;
    snprintf(g_self.ess[0].essid, sizeof(g_self.ess[0].essid), "herd");
    sap_bss_t &b = g_self.ess[0].bss[0];
    b.bss_index = 1;
    snprintf(b.ifname, sizeof(b.ifname), "wlan0");
    b.radio = &g_self.radios[1];
    b.ess = &g_self.ess[0];
    g_self.managed_bss[1] = &b;
    smsg_init();
    snei_init();
    ssta_init();
}

std::vector<uint8_t> status_event(const uint8_t *mac, int8_t rssi)
{
    maps_msg_sta_t m = {};
    memcpy(m.mac, mac, 6);
    m.bss_index = 1;
    m.bands = MAPS_2G | MAPS_5L;
    m.caps = MAPS_CAP_HT;
    m.rssi = rssi;
    m.nss = 2;
    return nl_event(MAPS_EV_STA_STATUS, &m, sizeof(m));
}


size_t heap_in_use()
{
    struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;
}

std::string heartbeat()
{
    return R"({"is_mpp":0,"link_rate2mpp":433,"hop":1,"ess":[{"essid":"herd","index":0}],)"
           R"("radio":[{"work_band":2,"channel":1,"load":7,"sta_num":1},{"work_band":4,"channel":36,"load":7,"sta_num":1}],)"
           R"("bss":[{"bssid":"02:00:00:00:0b:01","sta_num":3,"sta_max":32,"radio":1,"ess":0,"ifname":"wl0"},)"
           R"({"bssid":"02:00:00:00:0b:02","sta_num":0,"sta_max":64,"radio":2,"ess":0,"ifname":"wl1"}]})";
}

// Not a timing: reports the heap that a full station table and neighbour
// table take, as counters (the target is well under 2 MiB). Runs first, on
// empty tables.
void BM_TableMemory(benchmark::State &state)
{
    setup_node();
    for (auto _ : state) {
        size_t before = heap_in_use();
        uint8_t mac[6] = {0x02, 0xbb, 0, 0, 0, 0};
        for (int i = 0; i < 256 && ssta_get_count() < 256; i++) {
            mac[5] = (uint8_t)i;
            if (!ssta_find(mac))
                ssta_new(mac);
        }
        for (int n = 0; n < 16; n++) {
            uint8_t sa[6] = {0x02, 0x00, 0x00, 0x00, 0x20, (uint8_t)n};
            std::vector<uint8_t> msg = mesh_message(sa, MAC_BCAST, "SNEI_HEARTBEAT", heartbeat());
            smsg_recv_handler(msg.data(), msg.size());
        }
        size_t after = heap_in_use();
        state.counters["stations"] = ssta_get_count();
        state.counters["neighbours"] = snei_get_cnt();
        state.counters["heap_bytes"] = (double)(after - before);
        state.counters["station_record_bytes"] = sizeof(ssta_status_t);
        state.counters["node_record_bytes"] = sizeof(sap_node_t);
    }
}
BENCHMARK(BM_TableMemory)->Iterations(1);

void BM_StatusEvent(benchmark::State &state)
{
    setup_node();
    // A full table, so the lookup walks real chains.
    uint8_t mac[6] = {0x02, 0xbb, 0, 0, 0, 0};
    for (int i = 0; i < 256; i++) {
        mac[5] = (uint8_t)i;
        if (!ssta_find(mac) && ssta_new(mac) == nullptr)
            break;
    }
    mac[5] = 77;
    ssta_status_t *sta = ssta_find(mac);
    if (!sta) {
        state.SkipWithError("no station to update");
        return;
    }
    sta->bss_index = 1;
    std::vector<uint8_t> event = status_event(mac, -60);
    for (auto _ : state) {
        g_fake_nl.incoming.push_back(event);
        sdrv_read(g_fake_nl.fd, 1, nullptr);
    }
    benchmark::DoNotOptimize(ssta_find(mac)->rssi);
}
BENCHMARK(BM_StatusEvent);

}  // namespace

BENCHMARK_MAIN();
