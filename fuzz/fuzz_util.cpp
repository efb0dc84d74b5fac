#include "fuzz_util.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <cstring>
#include <regex>
#include <string_view>

#include "conf_store.h"
#include "fake_cm.h"
#include "fake_platform.h"
#include "fake_uwb.h"
#include "maps.h"
#include "steer.h"
#include "steer_ap.h"
#include "steer_cmd.h"
#include "steer_drv.h"
#include "steer_ven.h"
#include "test_util.h"

std::map<std::string, std::string, std::less<>> g_fuzz_conf = {{"bandherd.ess", ""}};

namespace {

int s_devnull = -1;
FILE *s_digest;  // FUZZ_DIGEST's file, or none

uint64_t fnv1a(const void *data, size_t size, uint64_t h = 0xcbf29ce484222325ull)
{
    const auto *p = static_cast<const uint8_t *>(data);
    for (size_t i = 0; i < size; i++)
        h = (h ^ p[i]) * 0x100000001b3ull;
    return h;
}

// The log's text without the wall-clock stamps that "log -t" puts in front
// of each line ("1700000000 11/14 22:13:20 ", also after the "steer" of a
// steering record), nor what is left of one where a size limit cut the log
// (no level's name starts with a digit or blank).
std::string without_stamps(const std::string &text)
{
    static const std::regex stamp("[0-9]+ [0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} ");
    static const std::regex cut("[0-9 /:]+");
    std::string out;
    size_t from = 0;
    while (from < text.size()) {
        size_t end = text.find('\n', from);
        end = end == std::string::npos ? text.size() : end + 1;
        std::smatch m;
        std::string line = std::regex_replace(text.substr(from, end - from), stamp, "");
        if (std::regex_search(line, m, cut, std::regex_constants::match_continuous))
            line.erase(0, m.length());
        out += line;
        from = end;
    }
    return out;
}

void note_restart(int) {}

}  // namespace

extern "C" int GetValue(const char *mib, char *value)
{
    auto it = g_fuzz_conf.find(std::string_view(mib));
    if (it == g_fuzz_conf.end() || it->second.size() > CONF_VALUE_MAX)
        return 0;
    memcpy(value, it->second.c_str(), it->second.size() + 1);
    return 1;
}

std::string fuzz_input::bytes(size_t n)
{
    size_t left = (size_t)(end_ - p_);
    if (n > left)
        n = left;
    std::string out(reinterpret_cast<const char *>(p_), n);
    p_ += n;
    return out;
}

std::string fuzz_input::line(size_t max)
{
    std::string out;
    while (!empty() && out.size() < max) {
        char c = (char)*p_++;
        if (c == '\n')
            break;
        out += c;
    }
    return out;
}

void fuzz_setup()
{
    if (!enter_namespaces(SANDBOX_NET | SANDBOX_VAR)) {
        fprintf(stderr, "fuzz: no private namespaces here\n");
        abort();
    }
    s_devnull = open("/dev/null", O_RDWR);
    if (const char *digest = getenv("FUZZ_DIGEST"))
        s_digest = fopen(digest, "a");
    slog_set_path(fuzz_log_path());
    signal(SIGRTMIN + 1, note_restart);
    fake_cm_io_enable();
    // What a module's start leaves behind its end (the callbacks the
    // controller registers with the station and neighbour tables, the
    // loggers) is there before every run, the first one included.
    fuzz_node warm_up;
}

fuzz_node::fuzz_node()
{
    // The driver channel and the node model's events, on a node without
    // ESSes, as the daemon starts them before the other modules.
    slog_set_print_time(false);  // the operator's "log -t" may have turned it on
    if (s_digest)
        truncate(fuzz_log_path(), 0);  // the last run's end logged there
    fake_uwb_reset();
    fake_platform_reset();
    g_fake_uwb.vaps["wl0"].os_ifname = "lo";
    g_fake_uwb.steer_maps = [](const std::string &, uint8_t *buf, size_t size) {
        if (buf[MAPS_MAGIC_LEN] == MAPS_CMD_PING && size >= sizeof(maps_msg_head_t) + 4)
            memcpy(buf + sizeof(maps_msg_head_t), "pong", 4);
        return 0;
    };
    g_fake_nl.fd = dup(s_devnull);  // the driver channel closes it at its end
    g_self = sap_node_t{};
    g_time = 1000;  // as steer_node sets it later, for what the driver channel and node model note
    sdrv_init();
    nl_deliver(MAPS_EV_PONG, MAPS_API_VERSION, sizeof(MAPS_API_VERSION));
    sap_init();

    node_.emplace();
    sven_init();  // the last module the daemon starts: other nodes' SAP_INFO
    slog_set_level(nullptr, SLOG_DUMP);
    const char *names[] = {"wl0", "wl1", "wl2"};
    const int channels[] = {6, 36, 37};
    for (int i = 0; i < 3; i++) {
        fake_uwb_vap &vap = g_fake_uwb.vaps[names[i]];
        vap.os_ifname = std::string("wlan") + std::to_string(i);
        vap.channel = channels[i];
        vap.ssid = i < 2 ? "herd" : "guest";
    }
    g_fake_uwb.link_rate = 300;
}

fuzz_node::~fuzz_node()
{
    sven_exit();
    node_.reset();
    sdrv_exit();
    unlink("/var/run/steer.log");
    // What the fakes recorded goes now: a run that ends with as many frees
    // as allocations spares the fuzzer a leak check.
    fake_uwb_reset();
    fake_platform_reset();
}

const char *fuzz_log_path()
{
    return s_digest ? "/var/run/fuzz-digest.log" : "/dev/null";
}

void fuzz_digest(const uint8_t *data, size_t size, const char *log)
{
    if (!s_digest)
        return;
    std::string did = without_stamps(read_file(log));
    truncate(log, 0);
    for (const std::string &call : g_fake_uwb.calls)
        did += "\n" + call;
    for (const fake_maps_cmd &cmd : g_fake_uwb.maps)
        did += "\n" + std::to_string(cmd.cmd) + " " + std::string(cmd.payload.begin(), cmd.payload.end());
    for (const std::vector<uint8_t> &sent : g_fake_nl.sent)
        did += "\n" + std::string(sent.begin(), sent.end());
    did += "\n" + std::to_string(g_time) + " " + std::to_string(fake_cm_timers()) + " " +
           std::to_string(fake_cm_timeouts());
    fprintf(s_digest, "%016llx %016llx\n", (unsigned long long)fnv1a(data, size),
            (unsigned long long)fnv1a(did.data(), did.size()));
    fflush(s_digest);
}

const uint8_t *fuzz_sta(uint8_t n)
{
    static uint8_t macs[4][6];
    n &= 3;
    memcpy(macs[n], STA, 6);
    macs[n][5] = (uint8_t)(STA[5] + n);
    return macs[n];
}

const uint8_t *fuzz_bss(uint8_t n)
{
    static const uint8_t BSS_3[6] = {0x02, 0, 0, 0, 0, 0x03};
    const uint8_t *all[] = {BSS_24, BSS_5, BSS_3, BSS_B, BSS_C};
    return all[n % 5];
}

int fuzz_command(const std::string &line)
{
    static FILE *out = fopen("/dev/null", "w");
    char buf[128] = {};
    snprintf(buf, sizeof(buf), "%.126s", line.c_str());
    return scmd_execute(out, buf);
}

void fuzz_act(fuzz_input &in)
{
    const uint8_t *sta = fuzz_sta(in.u8()), *bss = fuzz_bss(in.u8());
    const char *how[] = {"", "-t ", "-j "};
    char line[80];
    snprintf(line, sizeof(line), "act %s%s %s", how[in.u8() % 3], mac_text(sta).s, mac_text(bss).s);
    fuzz_command(line);
}

void fuzz_station(fuzz_input &in)
{
    const uint8_t codes[] = {MAPS_EV_STA_JOIN, MAPS_EV_STA_LEAVE, MAPS_EV_STA_STATUS, MAPS_EV_STA_BAND};
    const uint8_t *sta = fuzz_sta(in.u8());
    uint8_t code = codes[in.u8() & 3], bss = in.u8() & 3;
    int8_t rssi = (int8_t)in.u8();
    uint8_t caps = in.u8() & 0x1f;
    sta_event(code, sta, bss, rssi, caps, in.u8() % 101);
}

const std::vector<std::string> &fuzz_conf_keys()
{
    static const std::vector<std::string> keys = [] {
        std::vector<std::string> out;
        std::ifstream f(FUZZ_CONF_EXAMPLE);
        std::string line;
        while (std::getline(f, line)) {
            size_t start = line.starts_with("#") ? 1 : 0;
            size_t eq = line.find('=');
            if (eq == std::string::npos || eq == start)
                continue;
            std::string key = line.substr(start, eq - start);
            if (key.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_.") == std::string::npos)
                out.push_back(key);
        }
        if (out.empty()) {
            fprintf(stderr, "fuzz: no keys in %s\n", FUZZ_CONF_EXAMPLE);
            abort();
        }
        return out;
    }();
    return keys;
}

int fuzz_conf_key(const std::string &key)
{
    const std::vector<std::string> &keys = fuzz_conf_keys();
    for (size_t i = 0; i < keys.size(); i++)
        if (keys[i] == key)
            return (int)i;
    fprintf(stderr, "fuzz: no key %s in %s\n", key.c_str(), FUZZ_CONF_EXAMPLE);
    abort();
}

// Every target starts from the same sandboxed process.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_setup();
    return 0;
}
