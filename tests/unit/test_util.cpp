#include "test_util.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "maps.h"
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

std::string log_capture::plain() const
{
    std::istringstream in(text());
    std::string line, out;
    while (std::getline(in, line))
        out += std::regex_replace(line, std::regex("^(\\w+ \\w+):[0-9]+, "), "$1, ") + "\n";
    return out;
}

void log_to_stderr()
{
    slog_set_print_time(false);
    slog_set_path("/dev/stderr");
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

const test_node THREE_RADIOS = {
    {{MAPS_2G, 6}, {MAPS_5L, 36}, {MAPS_6G, 37}},
    {"herd", "guest"},
    {{"wl0", 0, 1}, {"wl1", 0, 2}, {"wl2", 1, 3}},
};

void build_node(sap_node_t &node, const test_node &def)
{
    node = sap_node_t{};
    for (size_t i = 0; i < def.radios.size(); i++) {
        sap_radio_t &radio = node.radios[i + 1];
        radio.work_band = def.radios[i].first;
        radio.channel = def.radios[i].second;
        radio.radio_index = (uint8_t)(i + 1);
    }
    for (size_t e = 0; e < def.esses.size(); e++) {
        node.ess[e].ess_index = (uint8_t)e;
        snprintf(node.ess[e].essid, sizeof(node.ess[e].essid), "%s", def.esses[e]);
    }
    for (size_t k = 0; k < def.bsses.size(); k++) {
        const test_bss &b = def.bsses[k];
        sap_ess_t &ess = node.ess[b.ess];
        sap_bss_t *bss = &ess.bss[0];
        while (bss->bss_index != 0)
            bss++;
        const uint8_t bssid[MAC_LEN] = {0x02, 0, 0, 0, 0, (uint8_t)(k + 1)};
        mac_copy(bss->bssid, bssid);
        bss->bss_index = (uint8_t)(k + 1);
        snprintf(bss->ifname, sizeof(bss->ifname), "%s", b.ifname);
        bss->radio = &node.radios[b.radio];
        bss->ess = &ess;
        node.managed_bss[k + 1] = bss;
    }
}

int unix_connect(const char *path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path);
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

weft_listener::weft_listener() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0))
{
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "/var/weft_socket");
    unlink(addr.sun_path);
    if (bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 || listen(fd_, 64) != 0)
        ADD_FAILURE() << "cannot listen on /var/weft_socket";
}

weft_listener::~weft_listener()
{
    close(fd_);
    unlink("/var/weft_socket");
}

std::vector<std::vector<uint8_t>> weft_listener::take()
{
    // The sender has written and closed before its call returned: every
    // connection is waiting whole.
    std::vector<std::vector<uint8_t>> out;
    int c;
    while ((c = accept(fd_, nullptr, nullptr)) >= 0) {
        std::vector<uint8_t> bytes;
        uint8_t buf[4096];
        ssize_t n;
        while ((n = read(c, buf, sizeof(buf))) > 0)
            bytes.insert(bytes.end(), buf, buf + n);
        close(c);
        out.push_back(bytes);
    }
    return out;
}

std::vector<std::string> weft_listener::take_messages()
{
    // The transport header (3 bytes) and the envelope (44), then the JSON text.
    std::vector<std::string> out;
    for (const std::vector<uint8_t> &m : take()) {
        const char *bytes = reinterpret_cast<const char *>(m.data());
        std::string text(bytes + std::min<size_t>(m.size(), 47), bytes + m.size());
        std::erase_if(text, [](char c) { return isspace(c) || c == '\0'; });
        out.push_back(m.size() < 47 ? "(short)" : std::string(bytes + 15, strnlen(bytes + 15, 32)) + " " + text);
    }
    return out;
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

}  // namespace

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
