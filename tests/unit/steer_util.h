// A node with the steering modules running, for the tests of the steering
// mechanisms: stations joining through driver events, neighbours through
// heartbeats, the clock moved second by second, and what the driver was told.
#ifndef STEER_UTIL_H
#define STEER_UTIL_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "steer_sta.h"
#include "test_util.h"

extern const uint8_t STA[6];           // 02:aa:00:00:00:01
extern const uint8_t PEER_B[6];        // a neighbour with BSS 02:00:00:00:0b:01
extern const uint8_t PEER_C[6];        // one with BSS 02:00:00:00:0c:01
extern const uint8_t SELF_ID[6];       // this node's id
extern const uint8_t BSS_24[6], BSS_5[6], BSS_B[6], BSS_C[6];

// Builds `def` (by default THREE_RADIOS: BSS 1 on 2.4 GHz, BSS 2 on 5 GHz,
// both ESS "herd"), starts the message, neighbour, station, rate and steering
// modules at g_time 1000 with the configuration lines `conf`; the destructor
// ends them.
class steer_node {
public:
    explicit steer_node(const std::string &conf = "", const test_node &def = THREE_RADIOS);
    ~steer_node();
    steer_node(const steer_node &) = delete;
    steer_node &operator=(const steer_node &) = delete;

private:
    std::unique_ptr<conf_file> conf_;
};

// Ends the modules steer_node starts, the last started first, and forgets
// the loop's timers; also for a start that a FATAL line ended half-way.
void steer_node_teardown();

// A station event from the driver.
void sta_event(uint8_t code, const uint8_t *mac, uint8_t bss, int8_t rssi, uint32_t caps = 0x0f, uint8_t load = 0);
ssta_status_t *join(const uint8_t *mac, uint8_t bss, int8_t rssi = -60, uint32_t caps = 0x0f);
void heartbeat(const uint8_t *peer);
// Moves g_time and the loop forward second by second.
void tick(int seconds);
// Every MAPS_CMD_SET_STA record sent so far as "<mode> <block_bss>", and forgets them.
std::vector<std::string> take_set_sta();
void bss_trans_rsp(const uint8_t *mac, uint8_t bss, uint8_t status);
void reject(const uint8_t *mac, uint8_t bss, uint8_t count, int8_t rssi);
// A radio's status report, as the node model hands it to the controller.
void radio_status(uint8_t radio, uint8_t load, uint8_t sta_num = 1);
// What a printer writes, as text.
std::string print(void (*printer)(FILE *, ssta_status_t *), ssta_status_t *sta);

#endif
