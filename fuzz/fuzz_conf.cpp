// Configuration values for every key the modules read, then the RSSI and
// rate equations, the RCPI conversion and the controller's thresholds with
// arbitrary inputs.
//
// The input starts with configuration lines: a 0 byte, a key (by its index
// in fuzz_conf_keys()), the value up to '\n'. The first other byte ends them;
// then come operations, each a byte then its arguments:
//   0 RSSI on another band:  RSSI, source band, destination band
//   1 a station's rate:      station, radio, RSSI
//   2 RCPI to dBm:           the reported value
//   3 shared medium rate:    two rates (4 bytes each)
//   4 rate to the portal:    station, radio, link rate (4 bytes), the target
//                            node's rate to the portal (4 bytes), hops, load
//   5 station event from the driver (the controller's thresholds)
//   6 tick:                  seconds (1 to 64)
//   7 an equation:           a value (2 bytes), the equation's text up to '\n'
// A start-up the daemon refuses (a FATAL line, then abort) ends the run
// there, as it ends the daemon; any other abort is a finding.
#include <csetjmp>
#include <csignal>
#include <new>

#include <fcntl.h>
#include <unistd.h>

#include "conf_store.h"
#include "fuzz_util.h"
#include "maps.h"
#include "steer_ap.h"
#include "steer_drv.h"
#include "steer_ns.h"
#include "steer_rate.h"

namespace {

constexpr const char *LOG = "/var/run/fuzz-conf.log";

sigjmp_buf s_refused;
volatile sig_atomic_t s_starting;
struct sigaction s_fuzzer_abort;

// Whether the log's last line is a FATAL one.
bool fatal_logged()
{
    char tail[16384] = {};  // a FATAL line quotes values of up to 2307 characters
    int fd = open(LOG, O_RDONLY);
    if (fd < 0)
        return false;
    off_t size = lseek(fd, 0, SEEK_END);
    off_t from = size > (off_t)sizeof(tail) - 1 ? size - (off_t)sizeof(tail) + 1 : 0;
    ssize_t n = pread(fd, tail, sizeof(tail) - 1, from);
    close(fd);
    if (n <= 0)
        return false;
    tail[n] = '\0';
    while (n > 0 && tail[n - 1] == '\n')
        tail[--n] = '\0';
    char *line = strrchr(tail, '\n');
    return strncmp(line ? line + 1 : tail, "fatal ", 6) == 0;
}

void on_abort(int sig, siginfo_t *info, void *ctx)
{
    if (s_starting && fatal_logged()) {
        s_starting = 0;
        siglongjmp(s_refused, 1);
    }
    if (s_fuzzer_abort.sa_flags & SA_SIGINFO)
        s_fuzzer_abort.sa_sigaction(sig, info, ctx);
    else if (s_fuzzer_abort.sa_handler != SIG_DFL && s_fuzzer_abort.sa_handler != SIG_IGN)
        s_fuzzer_abort.sa_handler(sig);
    signal(SIGABRT, SIG_DFL);
    raise(SIGABRT);
}

// The fuzzer sets its own handlers after the initialisation: this one goes
// in front of its handler at the first run.
void catch_refusals()
{
    static bool done;
    if (done)
        return;
    done = true;
    struct sigaction sa = {};
    sa.sa_sigaction = on_abort;
    sa.sa_flags = SA_SIGINFO;
    sigaction(SIGABRT, &sa, &s_fuzzer_abort);
}

const uint32_t BANDS[] = {MAPS_2G, MAPS_5L, MAPS_5H, MAPS_5L | MAPS_5H, MAPS_6G, 0, MAPS_IG};

int32_t i32(fuzz_input &in)
{
    return (int32_t)(in.u16() | (uint32_t)in.u16() << 16);
}

void run_equations(fuzz_input &in)
{
    for (int ops = 0; !in.empty() && ops < 64; ops++) {
        switch (in.u8() % 8) {
        case 0: {
            int8_t rssi = (int8_t)in.u8();
            uint32_t src = BANDS[in.u8() % 7], dst = BANDS[in.u8() % 7];
            srate_get_another_rssi(rssi, src, dst);
            break;
        }
        case 1: {
            ssta_status_t *sta = ssta_find(fuzz_sta(in.u8()));
            sap_radio_t *radio = &g_self.radios[in.u8() % (SAP_RADIO_MAX + 1)];
            srate_get_rate_rssi(sta, radio, (int8_t)in.u8());
            srate_get_sta_max_rate(sta, radio);
            break;
        }
        case 2:
            sns_trans_rcpi((int8_t)in.u8());
            break;
        case 3: {
            int32_t a = i32(in), b = i32(in);
            srate_share_media_rate(a, b);
            break;
        }
        case 4: {
            ssta_status_t *sta = ssta_find(fuzz_sta(in.u8()));
            sap_radio_t radio = g_self.radios[1 + in.u8() % 3];
            int32_t link = i32(in);
            sap_node_t *target = new sap_node_t{};
            target->link_rate2mpp = i32(in);
            target->hop = (int8_t)in.u8();
            radio.load = in.u8();
            srate_evaluate_sta2mpp(sta, target, &radio, link);
            delete target;
            break;
        }
        case 5:
            fuzz_station(in);
            break;
        case 6:
            tick(in.u8() % 64 + 1);
            break;
        case 7: {
            int var = (int16_t)in.u16();
            std::string text = in.line(600);
            srate_equation_t *eq = srate_new_equation(text.data());
            if (eq)
                srate_calculate(eq, var);
            srate_del_equation(eq);
            break;
        }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    catch_refusals();
    static bool logging;
    if (!logging)
        logging = slog_set_path(LOG) == 0;
    truncate(LOG, 0);

    fuzz_input in(data, size);
    g_fuzz_conf = {{"bandherd.ess", ""}};
    while (!in.empty() && in.peek() == 0) {
        in.u8();
        const std::vector<std::string> &keys = fuzz_conf_keys();
        const std::string &key = keys[in.u8() % keys.size()];
        g_fuzz_conf[key] = in.line(CONF_VALUE_MAX + 8);
    }

    // In static storage: a refused start-up leaves the node half built, and
    // the modules' ends free what its start took.
    alignas(fuzz_node) static unsigned char storage[sizeof(fuzz_node)];
    if (sigsetjmp(s_refused, 1)) {
        fuzz_digest(data, size, LOG);
        steer_node_teardown();
        sdrv_exit();
        return 0;
    }
    s_starting = 1;
    auto *node = new (storage) fuzz_node();
    s_starting = 0;
    run_equations(in);
    fuzz_digest(data, size, LOG);
    node->~fuzz_node();
    return 0;
}
