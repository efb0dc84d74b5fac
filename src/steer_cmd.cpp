#include "steer_cmd.h"

#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "maps.h"
#include "steer.h"
#include "steer_act.h"
#include "steer_ap.h"
#include "steer_block.h"
#include "steer_boff.h"
#include "steer_btm.h"
#include "steer_ctl.h"
#include "steer_drv.h"
#include "steer_ev.h"
#include "steer_nei.h"
#include "steer_ns.h"
#include "steer_ven.h"

namespace {

constexpr int SCMD_MAX_ARGS = 15;
constexpr int SCMD_BUFF_SIZE = 128;
constexpr int SCMD_DRV_DBG_MAX = 3;
// How long the answer may take to drain into a slow reader before the rest is dropped.
constexpr int SCMD_WRITE_WAIT_MS = 2000;

int s_input_fd = -1;
sev_poll_t *s_poll;

struct scmd_sta_arg {
    FILE *f;
    bool detail;
};

// The station named on the command line, known and associated to a BSS of
// this node; null with an error line otherwise.
ssta_status_t *scmd_find_sta(FILE *f, const char *text, uint8_t *mac)
{
    if (scmd_str_to_mac(f, text, mac) != 0)
        return nullptr;
    ssta_status_t *sta = ssta_find(mac);
    if (!sta) {
        SPRINTF(f, "error: can't find " MAC_FMT "\n", MAC_ARG(mac));
        return nullptr;
    }
    return sta;
}

bool scmd_managed(ssta_status_t *sta)
{
    return sta->associated && ssta_get_serving_bss(sta) != nullptr;
}

// The BSS on this node or a neighbour, with its node; false with an error line.
bool scmd_find_bss(FILE *f, const uint8_t *bssid, sap_bss_t **bss, sap_node_t **node)
{
    *bss = sap_find_bss_on_node(&g_self, bssid);
    if (*bss) {
        *node = &g_self;
        return true;
    }
    if (snei_find_bss(bssid, node, bss) == 0)
        return true;
    SPRINTF(f, "error: can't find bssid " MAC_FMT "\n", MAC_ARG(bssid));
    return false;
}

void scmd_act_result(ssta_status_t *sta, const uint8_t *bssid, bool success)
{
    LOG_INFO("%s:%d, steer " MAC_FMT " to " MAC_FMT " %s", MAC_ARG(sta->mac), MAC_ARG(bssid),
             success ? "success" : "failed");
}

void scmd_steer_result(bool success, ssta_status_t *sta, const uint8_t *bssid, const uint8_t *)
{
    scmd_act_result(sta, bssid, success);
}

int scmd_ddbg(FILE *f, int argc, char **argv)
{
    if (argc != 2) {
        SPRINTF(f, "error: need 1 argument!\n");
        return -1;
    }
    int level = (int)strtol(argv[1], nullptr, 10);
    int ret = sdrv_ioctl(MAPS_CMD_DBG, &level, 4, nullptr);
    if (ret != 0)
        SPRINTF(f, "error: set driver debug failed!\n");
    return ret;
}

int scmd_conf(FILE *f)
{
    SPRINTF(f, "===== configs of steer_ctl =====\n");
    sctl_dump_config(f);
    SPRINTF(f, "\n===== configs of steer_ns =====\n");
    sns_dump_config(f);
    SPRINTF(f, "\n===== configs of steer_act =====\n");
    sact_dump_config(f);
    SPRINTF(f, "\n===== configs of steer_btm =====\n");
    sbtm_dump_config(f);
    SPRINTF(f, "\n===== configs of steer_boff =====\n");
    sboff_dump_config(f);
    return 0;
}

int scmd_ol(FILE *f)
{
    for (int i = 1; i <= SAP_RADIO_MAX; i++) {
        sap_radio_t *radio = &g_self.radios[i];
        if (!radio->ctl)
            continue;
        SPRINTF(f, "\n[RADIO%d]\n", i);
        sctl_print_radio(f, radio);
    }
    return 0;
}

int scmd_ap(FILE *f)
{
    SPRINTF(f, "**************** This Device Infomation *****************\n");
    sap_print_node(f, &g_self);
    SPRINTF(f, "****************** Neighbor Infomation *******************\n");
    for (sap_node_t *n = snei_get_first(); n; n = snei_get_next(n))
        sap_print_node(f, n);
    return 0;
}

int scmd_sta(FILE *f, int argc, char **argv)
{
    scmd_sta_arg arg = {f, false};
    int opt;
    while ((opt = getopt(argc, argv, "l")) != -1) {
        if (opt != 'l') {
            SPRINTF(f, "error: invalid option '%s'\n", argv[optind - 1]);
            return -1;
        }
        arg.detail = true;
    }
    ssta_status_t *sta = nullptr;
    if (optind < argc) {
        uint8_t mac[MAC_LEN];
        if (mac_scan(argv[optind], mac) != 0) {
            SPRINTF(f, "error: invalid mac '%s'\n", argv[optind]);
            return -1;
        }
        sta = ssta_find(mac);
        if (!sta) {
            SPRINTF(f, "error: sta " MAC_FMT " doesn't exist\n", MAC_ARG(mac));
            return -1;
        }
    }
    SPRINTF(f, "current time: %ld\n", static_cast<long>(g_time));
    if (sta) {
        scmd_print_sta(sta, &arg);
    } else {
        ssta_iterate(scmd_print_sta, &arg);
    }
    SPRINTF(f, "recorded sta count: %d\n", ssta_get_count());
    return 0;
}

// A level by name or number; -1 when it is neither.
int scmd_level(const char *text)
{
    for (int i = SLOG_SILENCE; i <= SLOG_DUMP; i++) {
        if (strcmp(text, slog_get_level_name(i)) == 0)
            return i;
    }
    char *end = nullptr;
    long v = strtol(text, &end, 0);
    if (*text == '\0' || *end != '\0' || v < SLOG_SILENCE || v > SLOG_DUMP)
        return -1;
    return static_cast<int>(v);
}

int scmd_log(FILE *f, int argc, char **argv)
{
    const char *module = nullptr;
    const char *level_text = nullptr;
    int ret = 0;
    int opt;
    if (argc == 1) {
        slog_print_levels(f);
        return 0;
    }
    while ((opt = getopt(argc, argv, "m:l:tTs:p:")) != -1) {
        switch (opt) {
        case 'm':
            module = optarg;
            break;
        case 'l':
            level_text = optarg;
            break;
        case 't':
            if (slog_set_print_time(true) == 0) {
                LOG_INFO("%s:%d, Turn on timestamp");
            } else {
                SPRINTF(f, "error: Turn on timestamp failed\n");
                ret = -1;
            }
            break;
        case 'T':
            if (slog_set_print_time(false) == 0) {
                LOG_INFO("%s:%d, Turn off timestamp");
            } else {
                SPRINTF(f, "error: Turn off timestamp failed\n");
                ret = -1;
            }
            break;
        case 's': {
            char *end = nullptr;
            errno = 0;
            long size = strtol(optarg, &end, 0);
            if (*optarg == '\0' || *end != '\0' || errno != 0 || size < 0) {
                SPRINTF(f, "error: invalid number '%s'\n", optarg);
                ret = -1;
            } else if (slog_set_size(static_cast<size_t>(size)) == 0) {
                LOG_INFO("%s:%d, set max log size to %ldbyte", size);
            } else {
                SPRINTF(f, "error: set max log size to %ld failed\n", size);
                ret = -1;
            }
            break;
        }
        case 'p':
            if (slog_set_path(optarg) == 0) {
                LOG_INFO("%s:%d, set log path to '%s'", optarg);
            } else {
                SPRINTF(f, "error: set log path to '%s' failed\n", optarg);
                ret = -1;
            }
            break;
        default:
            SPRINTF(f, "error: invalid option '%s'\n", argv[optind - 1]);
            return -1;
        }
    }
    if (level_text) {
        if (strcmp(level_text, "available_levels") == 0) {
            SPRINTF(f, "available log levels:\n");
            for (int i = SLOG_SILENCE; i <= SLOG_DUMP; i++)
                SPRINTF(f, "%-16s %d\n", slog_get_level_name(i), i);
            return ret;
        }
        int level = scmd_level(level_text);
        if (level < 0) {
            SPRINTF(f, "error: illegal log level '%s'\n", level_text);
            return -1;
        }
        const char *name = module ? module : "all";
        if (slog_set_level(module, level) == 0) {
            LOG_INFO("%s:%d, set log level of '%s' to %s(%ld)", name, slog_get_level_name(level),
                     static_cast<long>(level));
        } else {
            SPRINTF(f, "error: set log level of '%s' to %s(%ld) failed\n", name, slog_get_level_name(level),
                    static_cast<long>(level));
            ret = -1;
        }
    }
    return ret;
}

int scmd_act(FILE *f, int argc, char **argv)
{
    char mode = 0;
    int opt;
    while ((opt = getopt(argc, argv, "tj")) != -1) {
        if (opt != 't' && opt != 'j') {
            scmd_help(f);
            return -1;
        }
        mode = static_cast<char>(opt);
    }
    if (optind >= argc) {
        SPRINTF(f, "error: sta must be specified\n");
        return -1;
    }
    if (optind + 1 >= argc) {
        SPRINTF(f, "error: bssid must be specified\n");
        return -1;
    }
    uint8_t mac[MAC_LEN], bssid[MAC_LEN];
    ssta_status_t *sta = scmd_find_sta(f, argv[optind], mac);
    if (!sta || scmd_str_to_mac(f, argv[optind + 1], bssid) != 0)
        return -1;
    if (!scmd_managed(sta)) {
        SPRINTF(f, "error: " MAC_FMT " is not associated\n", MAC_ARG(mac));
        return -1;
    }
    sap_bss_t *bss = nullptr;
    sap_node_t *node = nullptr;
    if (!scmd_find_bss(f, bssid, &bss, &node)) {
        return -1;
    }
    sta->btm_reason = SBTM_FROM_CMD;
    int ret;
    if (mode == 't')
        ret = sbtm_steer(sta, bss, node->node_id, scmd_steer_result);
    else if (mode == 'j')
        ret = sboff_steer(sta, bss->bssid, node->node_id, scmd_steer_result);
    else
        ret = sact_steer(sta, bss, node, scmd_act_result);
    if (ret != 0) {
        SPRINTF(f, "Failed\n");
        return -1;
    }
    return 0;
}

int scmd_allow(FILE *f, int argc, char **argv)
{
    uint8_t mac[MAC_LEN], bssid[MAC_LEN];
    if (argc < 2 || argc > 3 || mac_scan(argv[1], mac) != 0 || (argc == 3 && mac_scan(argv[2], bssid) != 0)) {
        SPRINTF(f, "error: invalid argument\n");
        return -1;
    }
    ssta_status_t *sta = ssta_find(mac);
    if (!sta) {
        SPRINTF(f, "error: can't find " MAC_FMT "\n", MAC_ARG(mac));
        return -1;
    }
    sap_bss_t *bss = nullptr;
    sap_node_t *node = nullptr;
    if (argc == 3 && !scmd_find_bss(f, bssid, &bss, &node)) {
        return -1;
    }
    const uint8_t *target = argc == 3 ? bssid : nullptr;
    SPRINTF(f, "sact_allowed: %s\n", sact_allow_steer(sta, bss) ? "Yes" : "No");
    SPRINTF(f, "sbtm_allowed: %s\n", sbtm_allowed(sta, target) ? "Yes" : "No");
    SPRINTF(f, "sboff_allowed: %s\n", sboff_allowed(sta, target) ? "Yes" : "No");
    return 0;
}

// A channel 1 to 255; -1 otherwise.
int scmd_channel(const char *text)
{
    char *end = nullptr;
    long v = strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || v < 1 || v > 255)
        return -1;
    return static_cast<int>(v);
}

int scmd_br(FILE *f, int argc, char **argv)
{
    if (argc != 4) {
        SPRINTF(f, "error: need 3 arguments\n");
        return -1;
    }
    uint8_t mac[MAC_LEN];
    if (scmd_str_to_mac(f, argv[1], mac) != 0)
        return -1;
    if (strlen(argv[2]) > 32) {
        SPRINTF(f, "error: ssid '%s' is too long\n", argv[2]);
        return -1;
    }
    int channel = scmd_channel(argv[3]);
    if (channel < 0) {
        SPRINTF(f, "error: invalid channel '%s\n", argv[3]);
        return -1;
    }
    ssta_status_t *sta = ssta_find(mac);
    if (!sta) {
        SPRINTF(f, "error: " MAC_FMT " doesn't exist\n", MAC_ARG(mac));
        return -1;
    }
    sap_bss_t *bss = sta->associated ? ssta_get_serving_bss(sta) : nullptr;
    if (!bss) {
        SPRINTF(f, "error: can't find interface name\n");
        return -1;
    }
    if (sven_beacon_req(bss->ifname, mac, static_cast<uint8_t>(channel), argv[2]) != 0) {
        LOG_ERROR("%s:%d, Beacon request failed!");
        return -1;
    }
    return 0;
}

int scmd_bt(FILE *f, int argc, char **argv)
{
    if (argc != 4) {
        SPRINTF(f, "error: require 3 arguents\n");
        return -1;
    }
    uint8_t mac[MAC_LEN], bssid[MAC_LEN];
    if (scmd_str_to_mac(f, argv[1], mac) != 0 || scmd_str_to_mac(f, argv[2], bssid) != 0)
        return -1;
    if (scmd_channel(argv[3]) < 0) {
        SPRINTF(f, "error: invalid channel '%s'\n", argv[3]);
        return -1;
    }
    ssta_status_t *sta = ssta_find(mac);
    if (!sta || !scmd_managed(sta)) {
        SPRINTF(f, "error: " MAC_FMT " has not associated to managed bss\n", MAC_ARG(mac));
        return -1;
    }
    sap_bss_t *bss = nullptr;
    sap_node_t *node = nullptr;
    if (!scmd_find_bss(f, bssid, &bss, &node)) {
        return -1;
    }
    sta->btm_reason = SBTM_FROM_CMD;
    if (sbtm_steer(sta, bss, node->node_id, scmd_steer_result) != 0) {
        SPRINTF(f, "Failed\n");
        return -1;
    }
    return 0;
}

int scmd_pt(FILE *f, int argc, char **argv)
{
    if (argc != 3) {
        SPRINTF(f, "error: need 2 arguments\n");
        return -1;
    }
    bool add = strcmp(argv[1], "add") == 0;
    if (!add && strcmp(argv[1], "del") != 0) {
        scmd_help(f);
        return -1;
    }
    uint8_t mac[MAC_LEN];
    if (scmd_str_to_mac(f, argv[2], mac) != 0)
        return -1;
    if ((add ? sctl_add_protected_sta(mac) : sctl_removel_protected_sta(mac)) != 0) {
        SPRINTF(f, "Failed\n");
        return -1;
    }
    return 0;
}

int scmd_ns(FILE *f, int argc, char **argv)
{
    if (argc != 2) {
        SPRINTF(f, "error: need 1 argument!\n");
        return -1;
    }
    uint8_t mac[MAC_LEN];
    if (scmd_str_to_mac(f, argv[1], mac) != 0)
        return -1;
    ssta_status_t *sta = ssta_find(mac);
    if (!sta) {
        SPRINTF(f, "error: can't find " MAC_FMT "\n", MAC_ARG(mac));
        return -1;
    }
    if (!scmd_managed(sta)) {
        SPRINTF(f, "error: " MAC_FMT " is not associated\n", MAC_ARG(mac));
        return -1;
    }
    if (sns_start_measure(sta, nullptr) != 0) {
        SPRINTF(f, "Failed\n");
        return -1;
    }
    return 0;
}

// Writes all of `text` to the non-blocking pipe, waiting for the reader
// at most SCMD_WRITE_WAIT_MS in all.
void scmd_drain(int fd, const char *text, size_t size)
{
    int waited = 0;
    while (size > 0) {
        ssize_t n = write(fd, text, size);
        if (n > 0) {
            text += n;
            size -= static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno == EAGAIN && waited < SCMD_WRITE_WAIT_MS) {
            pollfd p = {fd, POLLOUT, 0};
            poll(&p, 1, 100);
            waited += 100;
            continue;
        }
        LOG_ERROR("%s:%d, write output failed, %zu bytes dropped", size);
        return;
    }
}

void scmd_handler(int fd, int, void *)
{
    // The answer is gathered in memory and handed to the reader at the end.
    char *text = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&text, &size);
    if (!f) {
        LOG_ERROR("%s:%d, open memory stream failed");
        return;
    }
    int out = open(SCMD_OUTPUT, O_WRONLY | O_NONBLOCK);
    if (out < 0) {
        if (errno == ENXIO)
            LOG_DUMP("%s:%d, '%s' is not opened by Reader, print to stdout", SCMD_OUTPUT);
        else
            LOG_ERROR("%s:%d, open '%s' failed, %s(%d)", SCMD_OUTPUT, strerror(errno), errno);
    }
    struct sigaction old_pipe = {};
    if (out >= 0) {
        struct sigaction ign = {};
        ign.sa_handler = SIG_IGN;
        if (sigaction(SIGPIPE, &ign, &old_pipe) != 0) {
            LOG_ERROR("%s:%d, ignore SIGPIPE failed");
            close(out);
            fclose(f);
            free(text);
            return;
        }
    }

    char buf[SCMD_BUFF_SIZE] = {};
    ssize_t n = read(fd, buf, SCMD_BUFF_SIZE - 1);
    bool run = false;
    if (n < 0)
        SPRINTF(f, "error: cmd read failed for %s\n", strerror(errno));
    else if (n == SCMD_BUFF_SIZE - 1) {
        SPRINTF(f, "error: the command is too long (more then %d)\n", SCMD_BUFF_SIZE - 1);
        // The rest of that write is dropped too, not run as a command of its own.
        while (read(fd, buf, sizeof(buf)) > 0) {
        }
    }
    else if (n == 0)
        SPRINTF(f, "error: empty command\n");
    else
        run = true;
    if (run) {
        buf[n] = '\0';
        LOG_DUMP("%s:%d, cmd: '%s'", buf);
        int ret = scmd_execute(f, buf);
        FILE *rf = fopen(SCMD_RET, "w+");
        if (rf) {
            SPRINTF(rf, "%d", ret);
            fclose(rf);
        } else {
            LOG_ERROR("%s:%d, open %s failed", SCMD_RET);
        }
    }
    fclose(f);
    if (out >= 0) {
        scmd_drain(out, text, size);
        sigaction(SIGPIPE, &old_pipe, nullptr);
        close(out);
    } else {
        fwrite(text, 1, size, stdout);
        fflush(stdout);
    }
    free(text);
}

}  // namespace

int scmd_execute(FILE *f, char *line)
{
    SASSERT(f);
    SASSERT(line);
    char *argv[SCMD_MAX_ARGS + 1] = {};
    int argc = 1;
    argv[0] = line;
    size_t len = strlen(line);
    for (size_t i = 0; i < len; i++) {
        unsigned char c = static_cast<unsigned char>(line[i]);
        if (c == ' ' || (c >= 9 && c <= 13)) {
            line[i] = '\0';
        } else if (i > 0 && line[i - 1] == '\0') {
            if (argc == SCMD_MAX_ARGS) {
                SPRINTF(f, "error: too many arguments(more then %d)\n", SCMD_MAX_ARGS);
                break;
            }
            argv[argc++] = &line[i];
        }
    }
    optind = 0;
    opterr = 0;
    const char *cmd = argv[0];
    if (strcmp(cmd, "help") == 0 || strcmp(cmd, "h") == 0)
        return scmd_help(f);
    if (strcmp(cmd, "ddbg") == 0)
        return scmd_ddbg(f, argc, argv);
    if (strcmp(cmd, "dsta") == 0)
        return sdrv_ioctl(MAPS_CMD_DUMP_STA, nullptr, 0, nullptr);
    if (strcmp(cmd, "dradio") == 0)
        return sdrv_ioctl(MAPS_CMD_DUMP_RADIO, nullptr, 0, nullptr);
    if (strcmp(cmd, "dconf") == 0)
        return sdrv_ioctl(MAPS_CMD_DUMP_CONFIG, nullptr, 0, nullptr);
    if (strcmp(cmd, "conf") == 0)
        return scmd_conf(f);
    if (strcmp(cmd, "ap") == 0)
        return scmd_ap(f);
    if (strcmp(cmd, "sta") == 0)
        return scmd_sta(f, argc, argv);
    if (strcmp(cmd, "log") == 0)
        return scmd_log(f, argc, argv);
    if (strcmp(cmd, "act") == 0)
        return scmd_act(f, argc, argv);
    if (strcmp(cmd, "allow") == 0)
        return scmd_allow(f, argc, argv);
    if (strcmp(cmd, "br") == 0)
        return scmd_br(f, argc, argv);
    if (strcmp(cmd, "bt") == 0)
        return scmd_bt(f, argc, argv);
    if (strcmp(cmd, "ol") == 0)
        return scmd_ol(f);
    if (strcmp(cmd, "pt") == 0)
        return scmd_pt(f, argc, argv);
    if (strcmp(cmd, "ns") == 0)
        return scmd_ns(f, argc, argv);
    SPRINTF(f, "error: unsupported command '%s'\n", cmd);
    return -1;
}

void scmd_init()
{
    unlink(SCMD_OUTPUT);
    unlink(SCMD_INPUT);
    for (const char *path : {SCMD_OUTPUT, SCMD_INPUT}) {
        if (mkfifo(path, 0664) != 0) {
            LOG_FATAL("%s:%d, create '%s' failed", path);
            abort();
        }
    }
    s_input_fd = open(SCMD_INPUT, O_RDWR | O_NONBLOCK);
    if (s_input_fd < 0) {
        LOG_FATAL("%s:%d, open %s failed!", SCMD_INPUT);
        abort();
    }
    s_poll = sev_new_poll(s_input_fd, SEV_READ, scmd_handler, nullptr);
}

void scmd_exit()
{
    if (s_poll) {
        sev_del_poll(s_poll);
        s_poll = nullptr;
    }
    if (s_input_fd >= 0) {
        close(s_input_fd);
        s_input_fd = -1;
        unlink(SCMD_INPUT);
        unlink(SCMD_OUTPUT);
    }
}

int scmd_help(FILE *f)
{
    SASSERT(f);
    SPRINTF(f, "Avaliable commands:\n");
    SPRINTF(f, "\nddbg <0  ..%3d>             Set driver debug level, zero means no print\n", SCMD_DRV_DBG_MAX);
    SPRINTF(f, "\ndsta                        Dump driver station status\n");
    SPRINTF(f, "\ndradio                      Dump driver radio status\n");
    SPRINTF(f, "\ndconf                       Dump driver configs\n");
    SPRINTF(f, "\nconf                        Dump configurations\n");
    SPRINTF(f, "\nol                          Show status of Offload Steering\n");
    SPRINTF(f, "\nap                          Show status of AP\n");
    SPRINTF(f, "\nsta [-l] [STA]              Show status of STA\n"
               "        -l          Print detail informations\n"
               "        STA         Which station to print. If STA is not specified, all stations will be printed\n");
    SPRINTF(f, "\nlog [OPTIONS]               Show current log levels if no option is given, otherwise set the "
               "specified arguments\n"
               "        -t          Show time before each line\n"
               "        -T          Hide time before each line\n"
               "        -m<MODULE>  Specify the moudle to set log level\n"
               "        -l<LEVEL>   Specify the log level to set. If no moudle is specified by `-m`, all moudles' log "
               "level will be updated. Type `steer_cli.sh log -l available_levels` to see all the available levels.\n"
               "        -s<SIZE>    Set max size in byte of the log file. Older logs will be dropped when the log file "
               "reaches this size\n"
               "        -p<PATH>    Set the path where logs written. It can be 'stdout', file path, or terminal path\n");
    SPRINTF(f, "\npt <add|del> <STA>          Add station to protect list or remove station from it\n"
               "        STA         Station to add or to remove\n"
               "        add         Add to the list, and don't steer this station\n"
               "        del         Remove from the list, and this station can be bandherded\n");
    SPRINTF(f, "\nns <STA>                    Triger neighbor select process manually\n"
               "        STA         Which station to measure\n");
    SPRINTF(f, "\nact [-t|-j] <STA> <BSSID>   Triger steering process manually\n"
               "        STA         Which station to steer\n"
               "        BSSID       Target BSS to steer to\n"
               "        -t          Use BTM Steering only\n"
               "        -j          Use Backoff Steering only\n");
    SPRINTF(f, "\nallow <STA> [BSSID]         Check whether steering for stations is allowed\n"
               "        STA         Which station to check\n"
               "        BSSID       Check whether the target BSSID is forbidden\n");
    SPRINTF(f, "\nbr <STA> <SSID> <CHAN>      Send Radio Measurement Beacon Request to ask for a scan report\n"
               "        STA         Which station to send to\n"
               "        SSID        ESSID that the reported BSS should match\n"
               "        CHAN        Working channel that the reported BSS should match\n");
    SPRINTF(f, "\nbt <STA> <BSSID> <CHAN>     Send BSS Transition Request\n"
               "        STA         Which station to send to\n"
               "        BSSID       BSSID of the prefered BSS\n"
               "        CHAN        Channel that the prefered BSS working on\n");
    return 0;
}

int scmd_str_to_mac(FILE *f, const char *s, uint8_t *mac)
{
    if (mac_scan(s, mac) != 0) {
        SPRINTF(f, "error: invalid mac address '%s', should be 'xx:xx:xx:xx:xx:xx'\n", s);
        return -1;
    }
    return 0;
}

bool scmd_print_sta(ssta_status_t *sta, void *arg)
{
    auto *a = static_cast<scmd_sta_arg *>(arg);
    ssta_print(a->f, sta);
    sctl_print_sta(a->f, sta);
    sblock_print(a->f, sta, a->detail);
    sns_print_sta(a->f, sta, a->detail);
    sact_print_sta(a->f, sta, a->detail);
    sbtm_print_sta(a->f, sta, a->detail);
    sboff_print_sta(a->f, sta, a->detail);
    return false;
}
