// Writes the seed corpora of the fuzz targets from valid inputs: fuzz_seeds
// DIR makes DIR/drv, DIR/mesh, DIR/cmd and DIR/conf, a few files each, in
// the operation formats the targets' files describe.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "maps.h"
#include "fake_platform.h"
#include "fuzz_util.h"
#include "msg_util.h"
#include "steer_util.h"

namespace {

using bytes = std::string;

bytes u16(size_t n)
{
    return bytes{(char)(n & 0xff), (char)(n >> 8)};
}

template <typename T>
bytes raw(const T &rec)
{
    return bytes(reinterpret_cast<const char *>(&rec), sizeof(rec));
}

// Driver-event operation 0: code, size, payload.
bytes event(uint8_t code, const bytes &payload)
{
    return bytes{0, (char)code} + u16(payload.size()) + payload;
}

bytes sta(uint8_t code, uint8_t n, uint8_t bss, int8_t rssi, uint32_t caps = 0x0f)
{
    maps_msg_sta_t m = {};
    memcpy(m.mac, STA, 6);
    m.mac[5] = (uint8_t)(STA[5] + n);
    m.bss_index = bss;
    m.bands = MAPS_2G | MAPS_5L;
    m.caps = caps;
    m.rssi = rssi;
    m.nss = 2;
    m.sta_num = 1;
    return event(code, raw(m));
}

bytes tick(uint8_t seconds)
{
    return bytes{2, (char)(seconds - 1)};
}

std::string json_heartbeat(int peer)
{
    char json[512];
    snprintf(json, sizeof(json),
             R"({"is_mpp":0,"link_rate2mpp":500,"hop":1,"ess":[{"essid":"herd","index":0}],)"
             R"("radio":[{"work_band":4,"channel":36,"load":0,"sta_num":0}],)"
             R"("bss":[{"bssid":"02:00:00:00:%02x:01","sta_num":0,"sta_max":32,"radio":1,"ess":0,"ifname":"wl1"}]})",
             peer);
    return json;
}

void write_seed(const std::string &dir, const std::string &name, const bytes &data)
{
    std::string path = dir + "/" + name;
    FILE *f = fopen(path.c_str(), "wb");
    if (!f) {
        perror(path.c_str());
        exit(1);
    }
    fwrite(data.data(), 1, data.size(), f);
    fclose(f);
}

void drv_seeds(const std::string &dir)
{
    maps_msg_radio_t radio = {2, 36, 80, 12, MAPS_5L};
    maps_msg_bss_trans_rsp_t rsp = {};
    memcpy(rsp.mac, STA, 6);
    rsp.bss_index = 2;
    maps_msg_reject_t rej = {};
    memcpy(rej.mac, STA, 6);
    rej.bss_index = 2;
    rej.count = 1;
    rej.rssi = -50;
    maps_msg_beacon_rep_t rep = {};
    memcpy(rep.sta, STA, 6);
    rep.bss_index = 1;
    rep.count = 2;
    rep.reports[0] = {115, 36, -40, 20, {0x02, 0, 0, 0, 0, 0x02}};
    rep.reports[1] = {115, 36, (int8_t)150, 20, {0x02, 0, 0, 0, 0x0b, 0x01}};
    bytes hb = bytes{3, 0} + bytes{3, 1};

    write_seed(dir, "join-status-leave", sta(MAPS_EV_STA_JOIN, 0, 1, -60) + tick(5) + sta(MAPS_EV_STA_STATUS, 0, 1, -40) +
                                             sta(MAPS_EV_STA_STATUS, 0, 1, -40) + tick(30) + sta(MAPS_EV_STA_LEAVE, 0, 1, -40));
    write_seed(dir, "radio-overload", sta(MAPS_EV_STA_JOIN, 0, 2, -50) + sta(MAPS_EV_STA_JOIN, 1, 2, -55) +
                                          event(MAPS_EV_RADIO_STATUS, raw(radio)) + tick(13) +
                                          event(MAPS_EV_RADIO_STATUS, raw(radio)));
    write_seed(dir, "btm-accept", hb + sta(MAPS_EV_STA_JOIN, 0, 1, -60) + bytes{4, 0, 1, 1} +
                                      event(MAPS_EV_BSS_TRANS, raw(rsp)) + tick(2) + sta(MAPS_EV_STA_JOIN, 0, 2, -50));
    rsp.status = 1;
    write_seed(dir, "btm-reject", hb + sta(MAPS_EV_STA_JOIN, 0, 1, -60) + bytes{4, 0, 3, 1} +
                                      event(MAPS_EV_BSS_TRANS, raw(rsp)) + tick(20));
    write_seed(dir, "backoff-reject", hb + sta(MAPS_EV_STA_JOIN, 0, 1, -60, 0x03) + bytes{4, 0, 1, 2} +
                                          event(MAPS_EV_REJECT, raw(rej)) + tick(30));
    write_seed(dir, "beacon-report", hb + sta(MAPS_EV_STA_JOIN, 0, 1, -75) + sta(MAPS_EV_STA_STATUS, 0, 1, -75) +
                                         sta(MAPS_EV_STA_STATUS, 0, 1, -75) + tick(1) +
                                         event(MAPS_EV_BEACON_REP, raw(rep)) + tick(10));
    write_seed(dir, "measurement", hb + sta(MAPS_EV_STA_JOIN, 0, 1, -75) + bytes{5, 0} +
                                       event(MAPS_EV_BEACON_REP, raw(rep)) + tick(3) + event(MAPS_EV_BEACON_REP, raw(rep)) +
                                       tick(10));
    write_seed(dir, "pong-vap-update", event(MAPS_EV_PONG, bytes(MAPS_API_VERSION, sizeof(MAPS_API_VERSION))) +
                                           event(MAPS_EV_VAP_UPDATE, "") + event(MAPS_EV_STA_BAND, bytes(24, '\0')));
    // A datagram as it comes off the socket.
    std::vector<uint8_t> dgram = nl_event(MAPS_EV_STA_LEAVE, "\x02\xaa\0\0\0\x01\x01", 7);
    write_seed(dir, "datagram", bytes{1, 0} + u16(dgram.size()) + bytes(dgram.begin(), dgram.end()) + bytes{1, 1} +
                                    u16(dgram.size()) + bytes(dgram.begin(), dgram.end()));
}

// Mesh operation 1: sender, addressee, type index, text.
bytes message(uint8_t sender, uint8_t to, uint8_t type, const std::string &json)
{
    return bytes{1, (char)sender, (char)to, (char)type} + json + "\n";
}

void mesh_seeds(const std::string &dir)
{
    const std::string sta = "02:aa:00:00:00:01", self = "02:00:00:00:0a:00";
    bytes join = bytes{5, 0, 0, 1, (char)-60, 0x0f, 0};
    write_seed(dir, "heartbeats", message(0, 0, 0, json_heartbeat(0x0b)) + message(1, 0, 0, json_heartbeat(0x0c)) +
                                      tick(50) + message(0, 0, 1, "{}"));
    write_seed(dir, "associate", message(0, 0, 0, json_heartbeat(0x0b)) + join +
                                     message(0, 0, 2, R"({"sta":")" + sta + R"(","bss":1,"associated":1})"));
    write_seed(dir, "btm-peer", message(0, 0, 0, json_heartbeat(0x0b)) + join +
                                    message(0, 0, 4, R"({"sta":")" + sta + R"(","target_bss":"02:00:00:00:00:02","target_node":")" + self + R"("})") +
                                    tick(2) + message(0, 1, 6, R"({"sta":")" + sta + R"(","success":1})"));
    write_seed(dir, "btm-own", message(0, 0, 0, json_heartbeat(0x0b)) + join + bytes{6, 0, 3, 1} +
                                   message(0, 1, 5, R"({"sta":")" + sta + R"(","ok":1})") + tick(20));
    write_seed(dir, "backoff", message(0, 0, 0, json_heartbeat(0x0b)) + join + bytes{6, 0, 3, 2} +
                                   message(0, 1, 8, R"({"sta":")" + sta + R"(","ok":1})") +
                                   message(0, 0, 10, R"({"sta":")" + sta + R"(","ess":0,"low_rssi":0})") +
                                   message(0, 0, 7, R"({"sta":")" + sta + R"(","target_bss":"02:00:00:00:0b:01","target_node":"02:00:00:00:0b:00","ess":0,"low_rssi":0})") +
                                   message(0, 0, 9, R"({"sta":")" + sta + R"(","success":1})") + tick(30));
    write_seed(dir, "sap-info", message(0, 1, 3, R"({"mac":"02:00:00:00:0b:00","hopcont":2})"));
    // A message split over two reads, then two in one read.
    std::vector<uint8_t> m = mesh_message(PEER_B, MAC_BCAST, "SNEI_EXIT", "{}");
    bytes whole(m.begin(), m.end());
    write_seed(dir, "chunks", bytes{0} + u16(20) + whole.substr(0, 20) + bytes{0} + u16(whole.size() - 20) +
                                  whole.substr(20) + bytes{0} + u16(2 * whole.size()) + whole + whole + bytes{4} +
                                  bytes{3});
}

void cmd_seeds(const std::string &dir)
{
    bytes setup = bytes{5, 0} + bytes{5, 1} + bytes{4, 0, 0, 1, (char)-60, 0x0f, 0} +
                  bytes{4, 1, 0, 2, (char)-50, 0x1f, 0};
    auto lines = [](std::initializer_list<const char *> list) {
        bytes out;
        for (const char *l : list)
            out += bytes{0} + l + "\n";
        return out;
    };
    write_seed(dir, "show", setup + lines({"help", "ap", "sta", "sta -l", "sta -l 02:aa:00:00:00:01", "conf", "ol",
                                           "dsta", "dradio", "dconf", "ddbg 2"}));
    write_seed(dir, "log", lines({"log", "log -l available_levels", "log -msta -l5", "log -ldump", "log -t", "log -T",
                                  "log -s1000"}) + bytes{2, 1, 1});
    write_seed(dir, "steer", setup + lines({"allow 02:aa:00:00:00:01 02:00:00:00:0b:01",
                                            "act -t 02:aa:00:00:00:01 02:00:00:00:00:02",
                                            "act -j 02:aa:00:00:00:02 02:00:00:00:0b:01"}) + tick(30) +
                                 lines({"bt 02:aa:00:00:00:01 02:00:00:00:00:02 36",
                                        "br 02:aa:00:00:00:01 herd 36", "ns 02:aa:00:00:00:01"}));
    write_seed(dir, "protect", setup + lines({"pt add 02:aa:00:00:00:01", "pt del 02:aa:00:00:00:01", "pt",
                                              "pt add zz", "nosuch"}) + bytes{1, 127} + bytes(127, 'a'));
}

// Configuration lines (0, key index, value), then the equations' operations.
void conf_seeds(const std::string &dir)
{
    auto key = [](const char *name, const std::string &value) {
        return bytes{0, (char)fuzz_conf_key(name)} + value + "\n";
    };
    bytes ops = bytes{5, 0, 0, 1, (char)-60, 0x0f, 0} + bytes{5, 1, 0, 2, (char)-80, 0x1f, 0} +
                bytes{0, (char)-60, 0, 1} + bytes{1, 0, 1, (char)-60} + bytes{1, 1, 2, (char)-70} + bytes{2, (char)200} +
                bytes{3, 1, 2, 3, 4, 5, 6, 7, 8} + bytes{4, 1, 2, 100, 0, 0, 0, 50, 0, 0, 0, 2, 30} +
                bytes{7, (char)-50, (char)-1} + "-70,-6;-10,1;6.8937,1.4988,0.004;0\n" + tick(20);
    write_seed(dir, "defaults", bytes{1} + ops);
    write_seed(dir, "numbers", key("bandherd.lrssi_2", "-0x40") + key("bandherd.hrssi_2", "012") +
                                   key("bandherd.lrssi_5", "-70 ") + key("bandherd.mppmac", "02:00:00:00:0b:00") + bytes{1} + ops);
    write_seed(dir, "equations", key("bandherd.rssi_2to5", "-70,-6;-10,1;6.8937,1.4988,0.004;0") +
                                     key("bandherd.rate_ag", "1e308;0;1,2,3,4,5,1e300") +
                                     key("bandherd.rate_2xax_5g", "-90;1;2") + bytes{1} + ops);
    write_seed(dir, "protected", key("bandherd.pt_sta", "02:aa:00:00:00:01,02:aa:00:00:00:02,zz") + bytes{1} + ops);
    write_seed(dir, "refused", key("bandherd.rate_factor", "0"));
    // Refused with a FATAL line longer than a short look at the log's end.
    write_seed(dir, "refused-long", key("bandherd.ess", std::string(500, 'm')));
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: fuzz_seeds DIR\n");
        return 2;
    }
    std::string root = argv[1];
    mkdir(root.c_str(), 0755);
    struct {
        const char *name;
        void (*make)(const std::string &);
    } targets[] = {{"drv", drv_seeds}, {"mesh", mesh_seeds}, {"cmd", cmd_seeds}, {"conf", conf_seeds}};
    for (auto &t : targets) {
        std::string dir = root + "/" + t.name;
        mkdir(dir.c_str(), 0755);
        t.make(dir);
    }
    return 0;
}
