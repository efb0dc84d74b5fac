// Start-up and shutdown: prepare the process, start every module in a fixed
// order, run the loop; every end goes through exit_handler.
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include "steer.h"
#include "steer_conf.h"
#include "steer_ap.h"
#include "steer_drv.h"
#include "steer_ev.h"
#include "steer_msg.h"
#include "steer_nei.h"
#include "steer_rate.h"
#include "steer_sta.h"
#include "steer_ven.h"
#include "steer_version.h"

namespace {

constexpr const char *PID_FILE = "/var/run/bandherd.pid";
constexpr const char *STEER_LOG_FILE = "/var/run/steer.log";
constexpr int RESTART_DELAY = 15;

void init_coredump()
{
    struct rlimit rl = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_CORE, &rl);
}

void sadd_pidfile(const char *file)
{
    FILE *f = fopen(file, "w");
    if (!f)
        return;
    char buf[100] = {};
    int n = snprintf(buf, sizeof(buf), "%d", (int)getpid());
    fwrite(buf, 1, (size_t)n, f);
    fclose(f);
}

void sdel_pidfile(const char *file)
{
    remove(file);
}

void check_arg(int argc, char **argv)
{
    int opt;
    while ((opt = getopt(argc, argv, "V")) != -1) {
        if (opt == 'V') {
            printf("Version: %s\n", g_steer_version);
            printf("Build: %s\n", g_steer_build);
            exit(0);
        }
    }
}

void init_log()
{
    char path[4096] = {};

    slog_set_level(nullptr, sconf_get_int_def("bandherd.log_level", SLOG_INFO));
    slog_set_size((size_t)sconf_get_int_def("bandherd.log_size", 524288));
    slog_set_print_time(sconf_get_int_def("bandherd.log_time", 1) != 0);
    slog_set_path(sconf_get_str_def("bandherd.log_path", path, sizeof(path), "stdout"));
}

// The modules, started in this order and stopped in the reverse one.
struct steer_module {
    void (*init)();
    void (*exit)();
};

const steer_module s_modules[] = {
    {sev_init, sev_exit},
    {smsg_init, smsg_exit},
    {sdrv_init, sdrv_exit},
    {srate_init, srate_exit},
    {sap_init, sap_exit},
    {snei_init, snei_exit},
    {ssta_init, ssta_exit},
    {sven_init, sven_exit},
};

void steer_init()
{
    for (const steer_module &m : s_modules)
        m.init();
}

void steer_exit()
{
    for (size_t i = sizeof(s_modules) / sizeof(s_modules[0]); i-- > 0;)
        s_modules[i].exit();
}

void exit_handler(int sig)
{
    int status = 0;

    if (sig == SIGABRT)
        LOG_INFO("%s:%d, clean before exit");
    else
        LOG_WARN("%s:%d, receive signal %d", sig);

    steer_exit();

    if (sig == SIGABRT || sig == SIGRTMIN + 1) {
        fprintf(stderr, "\033[0;31mbandherd will exit after %d seconds!!!\033[0m\n", RESTART_DELAY);
        sdel_pidfile(PID_FILE);
        sleep(RESTART_DELAY);
        status = 1;
    } else {
        sdel_pidfile(PID_FILE);
    }
    fprintf(stderr, "\033[0;31mbandherd: exited.\033[0m\n");
    remove(STEER_LOG_FILE);
    exit(status);
}

}  // namespace

int main(int argc, char **argv)
{
    init_coredump();
    sadd_pidfile(PID_FILE);
    check_arg(argc, argv);

    signal(SIGABRT, exit_handler);
    signal(SIGINT, exit_handler);
    signal(SIGTERM, exit_handler);
    signal(SIGRTMIN + 1, exit_handler);

    init_log();

    if (sconf_get_int_def("bandherd.enable", 0) == 0) {
        LOG_FATAL("%s:%d, mib 'bandherd.enable' is not 1.");
        abort();
    }

    steer_init();
    LOG_INFO("%s:%d, bandherd is ready.\n%s\n", g_steer_version);
    sev_run();
    return 0;
}
