// Helpers shared by the unit tests: temporary files, log capture, and a
// child process in private namespaces for tests that need a network or /var.
#ifndef TEST_UTIL_H
#define TEST_UTIL_H

#include <gtest/gtest.h>

#include <functional>
#include <string>

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
    const std::string &path() const { return path_; }

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

// Exit code of a sandbox child that could not get its namespaces.
constexpr int SANDBOX_UNAVAILABLE = 77;

enum sandbox_flags {
    SANDBOX_NET = 1,      // a network namespace of its own
    SANDBOX_VAR = 2,      // a fresh tmpfs on /var, with run/ and run/maps/ in it
};

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
