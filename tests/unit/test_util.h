// Helpers shared by the unit tests: temporary files, log capture, fatal
// checks, a node builder, the mesh daemon's end of the transport, and a child
// process in private namespaces for tests that need a network or /var.
#ifndef TEST_UTIL_H
#define TEST_UTIL_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "steer_ap.h"

// A directory under /tmp, removed with everything in it.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);

// Sends the log to a file for the life of the object, without time prefix
// unless asked; gives the log back to standard output afterwards.
class log_capture {
public:
    explicit log_capture(bool print_time = false);
    ~log_capture();
    std::string text() const { return read_file(path_); }
    // The text without the line number of each "function:line, " prefix.
    std::string plain() const;

private:
    temp_dir dir_;
    std::string path_;
};

// A configuration file for the life of the object (BANDHERD_CONF points at it).
class conf_file {
public:
    explicit conf_file(const std::string &lines);
    ~conf_file();

private:
    temp_dir dir_;
};

// A death test whose pattern is looked for in the log, sent to standard error.
void log_to_stderr();
#define EXPECT_FATAL(statement, pattern) EXPECT_DEATH({ log_to_stderr(); statement; }, pattern)

// A node record: radios (band, channel) from slot 1, ESSes by SSID from index
// 0, and BSS k (from 1) named `ifname` on ESS `ess` and radio slot `radio`,
// with BSSID 02:00:00:00:00:k, in the next free slot of its ESS.
struct test_bss {
    const char *ifname;
    int ess, radio;
};
struct test_node {
    std::vector<std::pair<uint32_t, uint8_t>> radios;
    std::vector<const char *> esses;
    std::vector<test_bss> bsses;
};
// 2.4 GHz channel 6, 5 GHz channel 36, 6 GHz channel 37; ESS "herd" with wl0
// on the first radio and wl1 on the second, "guest" with wl2 on the third.
extern const test_node THREE_RADIOS;
// Clears `node` and builds it; not for a record in the neighbour table.
void build_node(sap_node_t &node, const test_node &def = THREE_RADIOS);

// The mesh daemon's socket /var/weft_socket (in a private /var), one
// connection per message the daemon sends.
class weft_listener {
public:
    weft_listener();
    ~weft_listener();
    // The bytes of each connection since the last call, in order.
    std::vector<std::vector<uint8_t>> take();
    // The same as "<type> <JSON without blanks>".
    std::vector<std::string> take_messages();

private:
    int fd_;
};

// A connected stream socket to the Unix socket at `path`, or -1.
int unix_connect(const char *path);

enum sandbox_flags {
    SANDBOX_NET = 1,  // a network namespace of its own
    SANDBOX_VAR = 2,  // a fresh tmpfs on /var, with run/ and run/maps/ in it
};
constexpr int SANDBOX_UNAVAILABLE = 77;

// Moves this process into them (private mounts always); false when they
// cannot be had.
bool enter_namespaces(int flags);

// Runs fn in a child with private mount namespace (and user namespace when
// not root) and the given extras. The child's test failures are reported
// there and make it exit 1; returns its exit status, SANDBOX_UNAVAILABLE, or
// 128 + signal when it was killed.
int run_in_sandbox(int flags, const std::function<void()> &fn);

// The usual use: skip where namespaces cannot be had, fail with the child.
#define EXPECT_SANDBOXED(flags, fn)                                       \
    do {                                                                  \
        int rc_ = run_in_sandbox((flags), (fn));                          \
        if (rc_ == SANDBOX_UNAVAILABLE)                                   \
            GTEST_SKIP() << "no private namespaces here";                 \
        EXPECT_EQ(rc_, 0) << "the part run in private namespaces failed"; \
    } while (0)

#endif
