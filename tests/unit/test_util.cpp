#include "test_util.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "steer_log.h"

temp_dir::temp_dir()
{
    char tmpl[] = "/tmp/bandherd-test-XXXXXX";
    if (!mkdtemp(tmpl))
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

temp_dir::~temp_dir()
{
    std::string cmd = "rm -rf '" + path_ + "'";
    if (system(cmd.c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", path_.c_str());
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

log_capture::log_capture(bool print_time) : path_(dir_.file("log"))
{
    slog_set_print_time(print_time);
    slog_set_size(0);
    if (slog_set_path(path_.c_str()) != 0)
        throw std::runtime_error("cannot log to " + path_);
}

log_capture::~log_capture()
{
    slog_set_path("stdout");
    slog_set_print_time(true);
}

conf_file::conf_file(const std::string &lines)
{
    write_file(dir_.file("bandherd.conf"), lines);
    setenv("BANDHERD_CONF", dir_.file("bandherd.conf").c_str(), 1);
}

conf_file::~conf_file()
{
    unsetenv("BANDHERD_CONF");
}

namespace {

bool write_proc(const char *path, const std::string &text)
{
    int fd = open(path, O_WRONLY);
    if (fd < 0)
        return false;
    bool ok = write(fd, text.data(), text.size()) == (ssize_t)text.size();
    close(fd);
    return ok;
}

bool enter_namespaces(int flags)
{
    uid_t uid = geteuid();
    gid_t gid = getegid();
    int ns = CLONE_NEWNS;
    if (flags & SANDBOX_NET)
        ns |= CLONE_NEWNET;
    if (uid != 0)
        ns |= CLONE_NEWUSER;
    if (unshare(ns) != 0)
        return false;
    if (uid != 0) {
        write_proc("/proc/self/setgroups", "deny");
        if (!write_proc("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
            !write_proc("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))
            return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    if ((flags & SANDBOX_NET) && mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0)
        return false;
    if (flags & SANDBOX_VAR) {
        if (mount("tmpfs", "/var", "tmpfs", 0, nullptr) != 0)
            return false;
        mkdir("/var/run", 0755);
        mkdir("/var/run/maps", 0755);
    }
    return true;
}

}  // namespace

int run_in_sandbox(int flags, const std::function<void()> &fn)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        return SANDBOX_UNAVAILABLE;
    if (pid == 0) {
        if (!enter_namespaces(flags))
            _exit(SANDBOX_UNAVAILABLE);
        fn();
        fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) < 0)
        return SANDBOX_UNAVAILABLE;
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return WEXITSTATUS(status);
}
