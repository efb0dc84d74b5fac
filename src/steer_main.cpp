// Start-up and shutdown: prepare the process, start every module in a fixed
// order, run the loop; every end goes through exit_handler.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "steer.h"
#include "steer_conf.h"
#include "steer_ap.h"
#include "steer_cmd.h"
#include "steer_ctl.h"
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

// Signals from outside (SIGINT, SIGTERM, SIGRTMIN + 1) only leave their
// number in this pipe; the loop reads it and runs the exit, so the exit never
// runs inside code the signal interrupted (a log line holding the C library's
// time-zone lock, say). SIGABRT comes from the daemon itself and exits at once.
int s_signal_pipe[2] = {-1, -1};
sev_poll_t *s_signal_poll;

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
    unlink(file);
}

void check_arg(int argc, char **argv)
{
    int opt;
    while ((opt = getopt(argc, argv, "V")) != -1) {
        if (opt == 'V') {
            fprintf(stdout, "Version: %s\nBuild: %s\n", g_steer_version, g_steer_build);
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
    {sctl_init, sctl_exit},
    {scmd_init, scmd_exit},
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

void exit_handler(int sig);

void signal_pipe_open()
{
    if (pipe(s_signal_pipe) != 0)
        return;
    for (int fd : s_signal_pipe) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
}

void signal_arrived(int fd, int, void *)
{
    unsigned char sig;
    if (read(fd, &sig, 1) == 1)
        exit_handler(sig);
}

// Signals that came while the modules started are served by the loop's first pass.
void signal_watch()
{
    if (s_signal_pipe[0] >= 0)
        s_signal_poll = sev_new_poll(s_signal_pipe[0], SEV_READ, signal_arrived, nullptr);
}

bool signal_note(int sig)
{
    if (sig == SIGABRT || s_signal_pipe[1] < 0)
        return false;
    int saved = errno;
    unsigned char b = (unsigned char)sig;
    ssize_t n = write(s_signal_pipe[1], &b, 1);
    errno = saved;
    return n == 1;
}

// The exit sequence: every module stopped in reverse order, then the process ends.
void exit_handler(int sig)
{
    int status = 0;

    if (s_signal_poll) {
        sev_del_poll(s_signal_poll);
        s_signal_poll = nullptr;
    }

    if (sig == SIGABRT)
        LOG_INFO("%s:%d, clean before exit");
    else
        LOG_WARN("%s:%d, receive signal %d", sig);

    steer_exit();

    if (sig == SIGABRT || sig == SIGRTMIN + 1) {
        fprintf(stderr, "\033[0;31mbandherd will exit after %d seconds!!!\033[0m\n", RESTART_DELAY);
        sdel_pidfile(PID_FILE);
        for (unsigned left = RESTART_DELAY; left > 0;)
            left = sleep(left);  // a signal noted meanwhile does not shorten the pause
        status = 1;
    } else {
        sdel_pidfile(PID_FILE);
    }
    static const char exited[] = "\033[0;31mbandherd: exited.\033[0m\n";
    fwrite(exited, 1, sizeof(exited) - 1, stderr);
    unlink(STEER_LOG_FILE);
    exit(status);
}

// The handler of the four signals.
void exit_signal(int sig)
{
    if (!signal_note(sig))
        exit_handler(sig);
}

}  // namespace

int main(int argc, char **argv)
{
    init_coredump();
    sadd_pidfile(PID_FILE);
    check_arg(argc, argv);

    signal_pipe_open();
    for (int sig : {SIGABRT, SIGINT, SIGTERM, SIGRTMIN + 1}) {
        // As signal() installs a handler: it stays, and system calls restart.
        struct sigaction sa = {};
        sa.sa_handler = exit_signal;
        sa.sa_flags = SA_RESTART;
        sigaction(sig, &sa, nullptr);
    }

    init_log();

    if (sconf_get_int_def("bandherd.enable", 0) == 0) {
        LOG_FATAL("%s:%d, mib 'bandherd.enable' is not 1.");
        abort();
    }

    steer_init();
    signal_watch();
    LOG_INFO("%s:%d, bandherd is ready.\n%s\n", g_steer_version);
    sev_run();
    return 0;
}
