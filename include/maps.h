// The MAPS protocol between bandherd and the Wi-Fi driver's steering
// extension: netlink events from the driver, ioctl commands to it. All
// records are in the machine's native byte order (driver and daemon share
// the machine); every record's size and offsets are fixed by the driver.
#ifndef MAPS_H
#define MAPS_H

#include <cstddef>
#include <cstdint>

// Netlink protocols of the vendor's driver; only the WLAN one is used.
constexpr int KM_NETLINK_PHYCHECK = 79;
constexpr int KM_NETLINK_WLAN = 89;
constexpr int KM_NETLINK_AUTODISCOVER = 95;

constexpr uint32_t MAPS_NL_PORT_ID = 3333;  // the daemon's port id
constexpr uint32_t MAPS_NL_GROUPS = 1;      // its multicast group mask
constexpr size_t MAPS_NL_HDR_LEN = 16;      // struct nlmsghdr

constexpr char MAPS_MAGIC[] = "steerin";
constexpr size_t MAPS_MAGIC_LEN = 7;  // without the NUL
constexpr char MAPS_API_VERSION[] = "MAPS_API_V2";

enum maps_band_e : uint32_t {
    MAPS_IG = 1,
    MAPS_2G = 2,
    MAPS_5L = 4,
    MAPS_5H = 8,
    MAPS_6G = 16,
};

enum maps_cap_e : uint32_t {
    MAPS_CAP_HT = 1,
    MAPS_CAP_VHT = 2,
    MAPS_CAP_RRM = 4,  // 802.11k
    MAPS_CAP_BTM = 8,  // 802.11v BSS transition
    MAPS_CAP_HE = 16,
};

// Event codes: the type byte of netlink messages.
enum maps_ev_e : uint8_t {
    MAPS_EV_PING = 0,
    MAPS_EV_PONG = 1,
    MAPS_EV_STA_JOIN = 2,
    MAPS_EV_STA_LEAVE = 3,
    MAPS_EV_STA_BAND = 4,
    MAPS_EV_STA_STATUS = 5,
    MAPS_EV_BEACON_REP = 6,
    MAPS_EV_BSS_TRANS = 7,
    MAPS_EV_REJECT = 8,
    MAPS_EV_RADIO_STATUS = 9,
    MAPS_EV_VAP_UPDATE = 10,
};

// Command codes: the type byte of ioctl buffers.
enum maps_cmd_e : uint8_t {
    MAPS_CMD_PING = 0,
    MAPS_CMD_SET_BSS = 1,
    MAPS_CMD_SET_STA = 2,
    MAPS_CMD_SET_CONFIG = 3,
    MAPS_CMD_ADD_RADIO = 4,
    MAPS_CMD_SET_RADIO = 5,
    MAPS_CMD_DUMP_CONFIG = 6,
    MAPS_CMD_DUMP_RADIO = 7,
    MAPS_CMD_DUMP_STA = 8,
    MAPS_CMD_CLEAN = 9,
    MAPS_CMD_DBG = 10,
    MAPS_CMD_BSS_TRANS = 11,
    MAPS_CMD_BEACON_REQ = 12,
};

enum maps_block_mode_e : uint32_t {
    MAPS_BLOCK_DEFAULT = 0,
    MAPS_BLOCK_BSS = 1,
    MAPS_BLOCK_DISBALE = 2,
};

enum maps_band_mode_e : uint32_t {
    MAPS_BAND_ACCEPT = 0,
    MAPS_BAND_BLOCK = 1,
    MAPS_BAND_BLOCK_RSSI = 2,
};

enum maps_log_level : uint32_t {
    MAPS_LOG_ERROR = 0,
    MAPS_LOG_INFO = 1,
    MAPS_LOG_DEBUG = 2,
    MAPS_LOG_DUMP = 3,
    MAPS_LOG_MAX = 4,
};

// Begins every event and every command.
typedef struct maps_msg_head {
    char magic[MAPS_MAGIC_LEN];
    uint8_t type;
    uint8_t msg[];
} maps_msg_head_t;

// ---------------------------------------------------------------------------
// Event payloads

// MAPS_EV_STA_JOIN / LEAVE / BAND / STATUS
typedef struct maps_msg_sta {
    uint8_t mac[6];
    uint8_t bss_index;
    uint8_t pad0;
    uint32_t bands;  // maps_band_e bits
    uint32_t caps;   // maps_cap_e bits
    int8_t rssi;
    uint8_t nss;
    uint8_t load;
    uint8_t sta_num;
    uint8_t active;
    uint8_t pad1[3];
} maps_msg_sta_t;

// MAPS_EV_RADIO_STATUS
typedef struct maps_msg_radio {
    uint8_t radio_index;
    uint8_t channel;
    uint8_t load;
    uint8_t sta_num;
    uint32_t work_band;
} maps_msg_radio_t;

// MAPS_EV_BSS_TRANS
typedef struct maps_msg_bss_trans_rsp {
    uint8_t mac[6];
    uint8_t bss_index;
    uint8_t status;  // 0 accept, anything else reject
} maps_msg_bss_trans_rsp_t;

// MAPS_EV_REJECT
typedef struct maps_msg_reject {
    uint8_t mac[6];
    uint8_t bss_index;
    uint8_t count;
    int8_t rssi;
} maps_msg_reject_t;

// One BSS of a beacon report.
typedef struct maps_beacon_rep {
    uint8_t op_class;
    uint8_t channel;
    int8_t rcpi;
    int8_t rsni;
    uint8_t bssid[6];
} maps_beacon_rep_t;

constexpr int MAPS_BEACON_REP_MAX = 32;

// MAPS_EV_BEACON_REP
typedef struct maps_msg_beacon_rep {
    uint8_t sta[6];
    uint8_t bss_index;
    uint8_t count;
    maps_beacon_rep_t reports[MAPS_BEACON_REP_MAX];
} maps_msg_beacon_rep_t;

// ---------------------------------------------------------------------------
// Command payloads

// MAPS_CMD_SET_BSS
typedef struct maps_msg_bss_conf {
    uint8_t index;
    uint8_t pad[3];
    uint32_t ess_radios;
} maps_msg_bss_conf_t;

// MAPS_CMD_SET_STA
typedef struct maps_msg_sta_conf {
    uint8_t mac[6];
    uint8_t pad[2];
    uint32_t mode;  // maps_block_mode_e
    uint32_t block_bss;
} maps_msg_sta_conf_t;

// MAPS_CMD_SET_CONFIG
typedef struct maps_msg_conf {
    bool enable;
    bool enable_reject_probe;
    bool enable_reject_auth;
    uint8_t pad0;
    uint32_t probe_age;
    uint8_t reject_age;
    uint8_t reject_max_cnt;
    uint8_t active_slot;
    uint8_t pad1;
    uint32_t active_flow;
    bool enable_delay_reject_probe;
    bool enable_delay_reject_auth;
    uint8_t pad2[2];
    uint32_t delay_reject_age;
    uint8_t delay_reject_stanum;
    bool mode;
    uint8_t pad3[2];
} maps_msg_conf_t;

// MAPS_CMD_ADD_RADIO
typedef struct maps_msg_radio_add {
    uint8_t index;
} maps_msg_radio_add_t;

// MAPS_CMD_SET_RADIO
typedef struct maps_msg_radio_conf {
    uint8_t index;
    uint8_t pad[3];
    uint32_t mode;  // maps_band_mode_e
    int8_t reject_rssi_upper;
    int8_t reject_rssi_lower;
    int8_t monitor_rssi_high;
    int8_t monitor_rssi_low;
} maps_msg_radio_conf_t;

// MAPS_CMD_BSS_TRANS, also handed to uwb_bss_trans_req
typedef struct maps_msg_bss_trans_req {
    uint8_t sta[6];
    uint8_t bss[6];
    uint8_t channel;
} maps_msg_bss_trans_req_t;

// MAPS_CMD_BEACON_REQ
typedef struct maps_msg_beacon_req {
    char ssid[33];
    uint8_t sta[6];
    uint8_t channel;
} maps_msg_beacon_req_t;

// ---------------------------------------------------------------------------
// The driver's layout, checked.

#define MAPS_CHECK(type, size) static_assert(sizeof(type) == (size), #type " is " #size " bytes")
#define MAPS_AT(type, field, off) static_assert(offsetof(type, field) == (off), #type "." #field " at " #off)

MAPS_CHECK(maps_msg_head_t, 8);
MAPS_AT(maps_msg_head_t, type, 7);
MAPS_AT(maps_msg_head_t, msg, 8);

MAPS_CHECK(maps_msg_sta_t, 24);
MAPS_AT(maps_msg_sta_t, bss_index, 6);
MAPS_AT(maps_msg_sta_t, bands, 8);
MAPS_AT(maps_msg_sta_t, caps, 12);
MAPS_AT(maps_msg_sta_t, rssi, 16);
MAPS_AT(maps_msg_sta_t, nss, 17);
MAPS_AT(maps_msg_sta_t, load, 18);
MAPS_AT(maps_msg_sta_t, sta_num, 19);
MAPS_AT(maps_msg_sta_t, active, 20);

MAPS_CHECK(maps_msg_radio_t, 8);
MAPS_AT(maps_msg_radio_t, channel, 1);
MAPS_AT(maps_msg_radio_t, load, 2);
MAPS_AT(maps_msg_radio_t, sta_num, 3);
MAPS_AT(maps_msg_radio_t, work_band, 4);

MAPS_CHECK(maps_msg_bss_trans_rsp_t, 8);
MAPS_AT(maps_msg_bss_trans_rsp_t, bss_index, 6);
MAPS_AT(maps_msg_bss_trans_rsp_t, status, 7);

MAPS_CHECK(maps_msg_reject_t, 9);
MAPS_AT(maps_msg_reject_t, bss_index, 6);
MAPS_AT(maps_msg_reject_t, count, 7);
MAPS_AT(maps_msg_reject_t, rssi, 8);

MAPS_CHECK(maps_beacon_rep_t, 10);
MAPS_AT(maps_beacon_rep_t, channel, 1);
MAPS_AT(maps_beacon_rep_t, rcpi, 2);
MAPS_AT(maps_beacon_rep_t, rsni, 3);
MAPS_AT(maps_beacon_rep_t, bssid, 4);

MAPS_CHECK(maps_msg_beacon_rep_t, 328);
MAPS_AT(maps_msg_beacon_rep_t, bss_index, 6);
MAPS_AT(maps_msg_beacon_rep_t, count, 7);
MAPS_AT(maps_msg_beacon_rep_t, reports, 8);

MAPS_CHECK(maps_msg_bss_conf_t, 8);
MAPS_AT(maps_msg_bss_conf_t, ess_radios, 4);

MAPS_CHECK(maps_msg_sta_conf_t, 16);
MAPS_AT(maps_msg_sta_conf_t, mode, 8);
MAPS_AT(maps_msg_sta_conf_t, block_bss, 12);

MAPS_CHECK(maps_msg_conf_t, 28);
MAPS_AT(maps_msg_conf_t, enable_reject_probe, 1);
MAPS_AT(maps_msg_conf_t, enable_reject_auth, 2);
MAPS_AT(maps_msg_conf_t, probe_age, 4);
MAPS_AT(maps_msg_conf_t, reject_age, 8);
MAPS_AT(maps_msg_conf_t, reject_max_cnt, 9);
MAPS_AT(maps_msg_conf_t, active_slot, 10);
MAPS_AT(maps_msg_conf_t, active_flow, 12);
MAPS_AT(maps_msg_conf_t, enable_delay_reject_probe, 16);
MAPS_AT(maps_msg_conf_t, enable_delay_reject_auth, 17);
MAPS_AT(maps_msg_conf_t, delay_reject_age, 20);
MAPS_AT(maps_msg_conf_t, delay_reject_stanum, 24);
MAPS_AT(maps_msg_conf_t, mode, 25);

MAPS_CHECK(maps_msg_radio_add_t, 1);

MAPS_CHECK(maps_msg_radio_conf_t, 12);
MAPS_AT(maps_msg_radio_conf_t, mode, 4);
MAPS_AT(maps_msg_radio_conf_t, reject_rssi_upper, 8);
MAPS_AT(maps_msg_radio_conf_t, reject_rssi_lower, 9);
MAPS_AT(maps_msg_radio_conf_t, monitor_rssi_high, 10);
MAPS_AT(maps_msg_radio_conf_t, monitor_rssi_low, 11);

MAPS_CHECK(maps_msg_bss_trans_req_t, 13);
MAPS_AT(maps_msg_bss_trans_req_t, bss, 6);
MAPS_AT(maps_msg_bss_trans_req_t, channel, 12);

MAPS_CHECK(maps_msg_beacon_req_t, 40);
MAPS_AT(maps_msg_beacon_req_t, sta, 33);
MAPS_AT(maps_msg_beacon_req_t, channel, 39);

#undef MAPS_CHECK
#undef MAPS_AT

#endif
