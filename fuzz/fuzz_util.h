// What the fuzz targets share: the input read as a sequence of operations,
// an in-memory configuration store, a private sandbox, and a node of the
// daemon that every run builds afresh over the unit tests' fakes.
#ifndef FUZZ_UTIL_H
#define FUZZ_UTIL_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "steer_util.h"

// Reads the fuzzer's bytes front to back; past the end everything is 0.
class fuzz_input {
public:
    fuzz_input(const uint8_t *data, size_t size) : p_(data), end_(data + size) {}
    bool empty() const { return p_ >= end_; }
    uint8_t u8() { return empty() ? 0 : *p_++; }
    uint8_t peek() const { return empty() ? 0 : *p_; }
    uint16_t u16() { return (uint16_t)(u8() | u8() << 8); }
    // Up to `n` bytes (fewer at the end).
    std::string bytes(size_t n);
    // The bytes up to the next '\n' (dropped), at most `max`.
    std::string line(size_t max);

private:
    const uint8_t *p_, *end_;
};

// The configuration store the daemon reads through GetValue.
extern std::map<std::string, std::string, std::less<>> g_fuzz_conf;

// Once per process: private namespaces with an empty network and a fresh
// /var (the daemon's fixed paths), the log into /dev/null, the restart
// request (a driver's VAP update) only noted; then one node started and
// ended, so that the first run starts from the state of every later one.
// Aborts when namespaces cannot be had, rather than touch the machine's
// own /var.
void fuzz_setup();

// One run's node: the driver channel after its start-up handshake, the node
// model's driver events, then steer_node's three radios, station table,
// neighbour table and steering modules, at g_time 1000 and with the
// configuration of g_fuzz_conf. The destructor ends them all, the driver
// channel's registrations included, so the next run starts afresh.
class fuzz_node {
public:
    fuzz_node();
    ~fuzz_node();
    fuzz_node(const fuzz_node &) = delete;
    fuzz_node &operator=(const fuzz_node &) = delete;

private:
    std::optional<steer_node> node_;
};

// Where the daemon logs: /dev/null, or the file the digests read.
const char *fuzz_log_path();

// With FUZZ_DIGEST=FILE in the environment, appends to FILE one line per
// run: a hash of the input and a hash of what the run did (the text it
// logged to `log`, every call it made to the Wi-Fi library and every
// datagram it sent the driver, the clock and the loop's pending timers),
// then empties `log`. A run that starts from the same state as any other
// run of its input writes the same line, whatever ran before it. Without
// FUZZ_DIGEST it does nothing.
void fuzz_digest(const uint8_t *data, size_t size, const char *log = fuzz_log_path());

// Every key of the shipped example configuration (which holds every key
// the daemon reads), in its order; a key's index is its place here.
const std::vector<std::string> &fuzz_conf_keys();
int fuzz_conf_key(const std::string &key);

// Stations the targets talk about: STA and three more after it.
const uint8_t *fuzz_sta(uint8_t n);
// A BSS of this node or a neighbour: 1, 2, 3 (own), B, C.
const uint8_t *fuzz_bss(uint8_t n);
// Hands `line` to the operator's command parser; its output is dropped.
int fuzz_command(const std::string &line);
// Reads station, target BSS and mechanism, and steers by the operator's "act".
void fuzz_act(fuzz_input &in);
// Reads station, event, BSS (0 to 3), RSSI, capabilities and load, and sends
// that station event from the driver.
void fuzz_station(fuzz_input &in);

#endif
