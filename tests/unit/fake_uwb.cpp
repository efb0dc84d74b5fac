#include "fake_uwb.h"

#include <unistd.h>

#include <ctime>

#include <cstdio>
#include <cstring>

#include "maps.h"
#include "steer.h"

fake_uwb_state g_fake_uwb;

namespace {

// A VAP by its configuration-store name or its kernel name.
fake_uwb_vap *find_vap(const char *ifname)
{
    auto it = g_fake_uwb.vaps.find(ifname);
    if (it != g_fake_uwb.vaps.end())
        return &it->second;
    for (auto &[name, vap] : g_fake_uwb.vaps)
        if (vap.os_ifname == ifname)
            return &vap;
    return nullptr;
}

// Answers from the VAP's record; -1 when there is no such VAP.
template <typename F>
int with_vap(const char *ifname, F answer)
{
    fake_uwb_vap *vap = find_vap(ifname);
    if (!vap)
        return -1;
    answer(*vap);
    return 0;
}

int record(const std::string &call, int result = 0)
{
    g_fake_uwb.calls.push_back(call);
    return result;
}

}  // namespace

void fake_uwb_reset()
{
    g_fake_uwb = fake_uwb_state{};
}

std::vector<std::string> fake_uwb_calls(const std::string &prefix)
{
    std::vector<std::string> out;
    for (const std::string &c : g_fake_uwb.calls)
        if (c.rfind(prefix, 0) == 0)
            out.push_back(c);
    return out;
}

extern "C" {

int uwb_get_os_ifname(const char *ifname, char *osif, int size)
{
    g_fake_uwb.os_ifname_calls++;
    return with_vap(ifname, [&](fake_uwb_vap &v) { snprintf(osif, (size_t)size, "%s", v.os_ifname.c_str()); });
}

int uwb_get_mib_ifname(const char *ifname, char *mib_ifname, int size)
{
    for (auto &[name, vap] : g_fake_uwb.vaps) {
        if (vap.os_ifname == ifname) {
            snprintf(mib_ifname, (size_t)size, "%s", name.c_str());
            return 0;
        }
    }
    return -1;
}

int uwb_get_bssmode(const char *mib_ifname, char *mode, int size)
{
    fake_uwb_vap *vap = find_vap(mib_ifname);
    if (!vap || vap->mode.empty())
        return -1;
    snprintf(mode, (size_t)size, "%s", vap->mode.c_str());
    return 0;
}

int uwb_get_ap_cap(const char *ifname, uwb_ap_cap_t *caps)
{
    return with_vap(ifname, [&](fake_uwb_vap &v) { *caps = v.caps; });
}

int uwb_get_chan_info(const char *ifname, uwb_chan_info_t *info)
{
    return with_vap(ifname, [&](fake_uwb_vap &v) { info->channel = (uint8_t)v.channel; });
}

int uwb_get_channel_list(const char *ifname, uwb_chan_list_t *list)
{
    return with_vap(ifname, [&](fake_uwb_vap &v) {
        list->count = (int)v.channels.size();
        memcpy(list->channels, v.channels.data(), v.channels.size());
    });
}

int uwb_get_ssid(const char *ifname, char *ssid, size_t size)
{
    return with_vap(ifname, [&](fake_uwb_vap &v) { snprintf(ssid, size, "%s", v.ssid.c_str()); });
}

int uwb_get_sta_maxnum(const char *ifname)
{
    fake_uwb_vap *vap = find_vap(ifname);
    return vap ? vap->sta_max : -1;
}

int uwb_get_sta_info(const char *, const uint8_t *macs, uwb_sta_info_t *info, int, int *count)
{
    if (g_fake_uwb.link_rate < 0)
        return -1;
    memcpy(info->mac, macs, 6);
    info->rate = g_fake_uwb.link_rate;
    *count = 1;
    return 0;
}

int uwb_get_bssid(const char *, uint8_t *bssid, int)
{
    return !g_fake_uwb.bssid.empty() && mac_scan(g_fake_uwb.bssid.c_str(), bssid) == 0 ? 0 : -1;
}

int uwb_kick_sta(const char *ifname, const uint8_t *mac, int)
{
    return record(std::string("kick_sta ") + ifname + " " + mac_text(mac).s, g_fake_uwb.kick_result);
}

int uwb_set_bssload(const char *ifname, int load)
{
    return record(std::string("set_bssload ") + ifname + " " + std::to_string(load));
}

int uwb_add_rrm_neighbor(const char *ifname, const uwb_rrm_nbr_t *e)
{
    return record(std::string("add_rrm_neighbor ") + ifname + " " + e->ifname + " " + mac_text(e->bssid).s + " " +
                      std::to_string(e->channel) + " " + std::to_string(e->band) + " " +
                      std::string(e->ssid, e->ssid_len),
                  g_fake_uwb.rrm_result);
}

int uwb_del_rrm_neighbor(const char *ifname, const uint8_t *bssid, int)
{
    return record(std::string("del_rrm_neighbor ") + ifname + " " + mac_text(bssid).s, g_fake_uwb.rrm_result);
}

int uwb_beacon_req(const char *ifname, const beacon_req_params_t *p)
{
    return record(std::string("beacon_req ") + ifname + " " + mac_text(p->sta_mac).s + " " + std::to_string(p->channel) +
                  " " + p->ssid);
}

int uwb_bss_trans_req(const char *ifname, const struct maps_msg_bss_trans_req *req)
{
    return record(std::string("bss_trans_req ") + ifname + " " + mac_text(req->sta).s + " " + mac_text(req->bss).s + " " +
                      std::to_string(req->channel),
                  g_fake_uwb.btm_result);
}

int uwb_steer_maps(const char *ifname, void *req, size_t size, void *rsp)
{
    auto *buf = static_cast<uint8_t *>(req);
    record(std::string("steer_maps ") + ifname + " " + std::to_string(buf[MAPS_MAGIC_LEN]) + " " +
           std::to_string(size));
    g_fake_uwb.maps.push_back({ifname, buf[MAPS_MAGIC_LEN], std::vector<uint8_t>(buf + 8, buf + size)});
    if (rsp != req)
        memcpy(rsp, req, size);
    return g_fake_uwb.steer_maps ? g_fake_uwb.steer_maps(ifname, static_cast<uint8_t *>(rsp), size) : 0;
}

}  // extern "C"

// The pauses the daemon makes around a BSS transition request (the driver
// needs them on a router) pass at once here: tests run on virtual time. Other
// threads (a fuzzer's watchdog) are not the daemon's and sleep for real.
namespace {

int pause_for(time_t seconds, long nanoseconds)
{
    if (gettid() == getpid())
        return 0;
    timespec ts = {seconds, nanoseconds};
    return nanosleep(&ts, nullptr);
}

}  // namespace

extern "C" unsigned int sleep(unsigned int seconds)
{
    pause_for(seconds, 0);
    return 0;
}

extern "C" int usleep(useconds_t usec)
{
    return pause_for(usec / 1000000, (long)(usec % 1000000) * 1000);
}
