"""What crosses the lab's sockets: the MAPS driver protocol (event and command codes, the
fixed records in native byte order), MAC addresses, and Unix socket paths.

The driver double, the radio world, the relay and the scenarios all build and read
records with these helpers; nothing else in the lab packs a record by hand.
"""

import socket
import struct
from pathlib import Path

MAGIC = b"steerin"
API_VERSION = "MAPS_API_V2"
DAEMON_PORT = 3333
NLMSG_HEADER = struct.Struct("=IHHII")     # len, type, flags, seq, pid
HEADER_SIZE = NLMSG_HEADER.size + 8         # netlink header, magic and code
SUN_PATH_MAX = 107

EVENTS = {
    0: "MAPS_EV_PING", 1: "MAPS_EV_PONG", 2: "MAPS_EV_STA_JOIN", 3: "MAPS_EV_STA_LEAVE",
    4: "MAPS_EV_STA_BAND", 5: "MAPS_EV_STA_STATUS", 6: "MAPS_EV_BEACON_REP",
    7: "MAPS_EV_BSS_TRANS", 8: "MAPS_EV_REJECT", 9: "MAPS_EV_RADIO_STATUS",
    10: "MAPS_EV_VAP_UPDATE",
}
COMMANDS = {
    0: "MAPS_CMD_PING", 1: "MAPS_CMD_SET_BSS", 2: "MAPS_CMD_SET_STA", 3: "MAPS_CMD_SET_CONFIG",
    4: "MAPS_CMD_ADD_RADIO", 5: "MAPS_CMD_SET_RADIO", 6: "MAPS_CMD_DUMP_CONFIG",
    7: "MAPS_CMD_DUMP_RADIO", 8: "MAPS_CMD_DUMP_STA", 9: "MAPS_CMD_CLEAN", 10: "MAPS_CMD_DBG",
    11: "MAPS_CMD_BSS_TRANS", 12: "MAPS_CMD_BEACON_REQ",
}
EV = {name[len("MAPS_EV_"):]: code for code, name in EVENTS.items()}       # "STA_JOIN" -> 2
CMD = {name[len("MAPS_CMD_"):]: code for code, name in COMMANDS.items()}   # "SET_STA" -> 2

BANDS = {"IG": 1, "2G": 2, "5L": 4, "5H": 8, "6G": 16}
CAPS = {"HT": 1, "VHT": 2, "RRM": 4, "BTM": 8, "HE": 16}
BLOCK_MODES = {0: "MAPS_BLOCK_DEFAULT", 1: "MAPS_BLOCK_BSS", 2: "MAPS_BLOCK_DISBALE"}
BAND_MODES = {0: "MAPS_BAND_ACCEPT", 1: "MAPS_BAND_BLOCK", 2: "MAPS_BAND_BLOCK_RSSI"}
LOG_LEVELS = {0: "MAPS_LOG_ERROR", 1: "MAPS_LOG_INFO", 2: "MAPS_LOG_DEBUG", 3: "MAPS_LOG_DUMP",
              4: "MAPS_LOG_MAX"}


def _code(name, table, prefix, what):
    if isinstance(name, int):
        return name
    text = str(name).strip()
    if text.isdigit():
        return int(text)
    key = text.upper().replace("-", "_").removeprefix(prefix)
    if key not in table:
        raise ValueError(f"unknown {what} {name!r} ({what}s: {', '.join(table)})")
    return table[key]


def event_code(name):
    """An event code from a number or a name ("2", "STA_JOIN", "sta-join", "MAPS_EV_STA_JOIN")."""
    return _code(name, EV, "MAPS_EV_", "event")


def command_code(name):
    """A command code from a number or a name ("2", "SET_STA", "MAPS_CMD_SET_STA")."""
    return _code(name, CMD, "MAPS_CMD_", "command")


def mac_text(b):
    return ":".join(f"{x:02x}" for x in b)


def mac_bytes(text):
    parts = text.split(":")
    if len(parts) != 6 or not all(len(p) == 2 for p in parts):
        raise ValueError(f"not a MAC address: {text!r}")
    return bytes(int(p, 16) for p in parts)


def mac(text):
    """A MAC address written the one way the lab writes it (lower case), or ValueError."""
    return mac_text(mac_bytes(str(text).lower()))


def cstr(b):
    return b.split(b"\0", 1)[0].decode(errors="replace")


class Record:
    """A fixed wire record: a struct layout (native byte order), field names and
    a decoder per field for the journal."""

    def __init__(self, fmt, names, decode=None):
        self.struct = struct.Struct("=" + fmt)
        self.names = names
        self.decode_field = decode or {}

    @property
    def size(self):
        return self.struct.size

    def pack(self, **values):
        return self.struct.pack(*(values[n] for n in self.names))

    def decode(self, payload):
        """The fields of a payload, or None when it is shorter than the record."""
        if len(payload) < self.size:
            return None
        values = self.struct.unpack_from(payload)
        out = {}
        for name, v in zip(self.names, values):
            conv = self.decode_field.get(name)
            out[name] = conv(v) if conv else v
        return out


def _named(table):
    return lambda v: table.get(v, v)


# Events. The station record of the join, leave, band and status events (24 bytes).
STA_RECORD = Record("6sBxIIbBBBB3x",
                    ["mac", "bss_index", "bands", "caps", "rssi", "nss", "load", "sta_num", "active"],
                    {"mac": mac_text})
RADIO_RECORD = Record("BBBBI", ["radio_index", "channel", "load", "sta_num", "work_band"])
BSS_TRANS_RECORD = Record("6sBB", ["mac", "bss_index", "status"], {"mac": mac_text})
REJECT_RECORD = Record("6sBBb", ["mac", "bss_index", "count", "rssi"], {"mac": mac_text})
BEACON_ENTRY = Record("BBbb6s", ["op_class", "channel", "rcpi", "rsni", "bssid"], {"bssid": mac_text})
BEACON_REPORTS = 32
BEACON_REP_HEAD = Record("6sBB", ["sta", "bss_index", "count"], {"sta": mac_text})
BEACON_REP_SIZE = BEACON_REP_HEAD.size + BEACON_REPORTS * BEACON_ENTRY.size

EVENT_RECORDS = {2: STA_RECORD, 3: STA_RECORD, 4: STA_RECORD, 5: STA_RECORD, 7: BSS_TRANS_RECORD,
                 8: REJECT_RECORD, 9: RADIO_RECORD}

COMMAND_RECORDS = {
    1: Record("B3xI", ["index", "ess_radios"]),
    2: Record("6s2xII", ["mac", "mode", "block_bss"], {"mac": mac_text, "mode": _named(BLOCK_MODES)}),
    3: Record("BBBxIBBBxIBB2xIBB2x",
              ["enable", "enable_reject_probe", "enable_reject_auth", "probe_age", "reject_age",
               "reject_max_cnt", "active_slot", "active_flow", "enable_delay_reject_probe",
               "enable_delay_reject_auth", "delay_reject_age", "delay_reject_stanum", "mode"]),
    4: Record("B", ["index"]),
    5: Record("B3xIbbbb", ["index", "mode", "reject_rssi_upper", "reject_rssi_lower",
                           "monitor_rssi_high", "monitor_rssi_low"], {"mode": _named(BAND_MODES)}),
    10: Record("I", ["level"], {"level": _named(LOG_LEVELS)}),
    11: Record("6s6sB", ["sta", "bss", "channel"], {"sta": mac_text, "bss": mac_text}),
    12: Record("33s6sB", ["ssid", "sta", "channel"], {"ssid": cstr, "sta": mac_text}),
}
assert COMMAND_RECORDS[3].size == 28 and STA_RECORD.size == 24 and RADIO_RECORD.size == 8
assert BSS_TRANS_RECORD.size == 8 and REJECT_RECORD.size == 9 and BEACON_REP_SIZE == 328


def decode_event(code, payload):
    """The fields of an event's payload for the journal, or None."""
    if code == EV["BEACON_REP"] and len(payload) == BEACON_REP_SIZE:
        head = BEACON_REP_HEAD.decode(payload)
        step = BEACON_ENTRY.size
        head["reports"] = [BEACON_ENTRY.decode(payload[8 + i * step:]) for i in range(min(head["count"], 32))]
        return head
    if code == EV["PONG"]:
        return {"version": cstr(payload)}
    layout = EVENT_RECORDS.get(code)
    return layout.decode(payload) if layout is not None and len(payload) == layout.size else None


def _mac6(m):
    return mac_bytes(m) if isinstance(m, str) else m


def sta_payload(mac, bss_index, bands=BANDS["2G"] | BANDS["5L"] | BANDS["5H"],
                caps=CAPS["HT"] | CAPS["VHT"] | CAPS["RRM"] | CAPS["BTM"], rssi=-50, nss=2,
                load=0, sta_num=1, active=1):
    """A `maps_msg_sta_t` record."""
    return STA_RECORD.pack(mac=_mac6(mac), bss_index=bss_index, bands=bands, caps=caps, rssi=rssi, nss=nss,
                           load=load, sta_num=sta_num, active=1 if active else 0)


def radio_payload(radio_index, channel, load=0, sta_num=0, work_band=BANDS["2G"]):
    """A `maps_msg_radio_t` record."""
    return RADIO_RECORD.pack(radio_index=radio_index, channel=channel, load=load, sta_num=sta_num,
                             work_band=work_band)


def beacon_report_payload(sta, bss_index, reports):
    """A `maps_msg_beacon_rep_t`: `reports` are dicts of BEACON_ENTRY's fields (at most 32)."""
    body = b"".join(BEACON_ENTRY.pack(**{**r, "bssid": _mac6(r["bssid"])}) for r in reports[:BEACON_REPORTS])
    head = BEACON_REP_HEAD.pack(sta=_mac6(sta), bss_index=bss_index, count=min(len(reports), BEACON_REPORTS))
    return (head + body).ljust(BEACON_REP_SIZE, b"\0")


# Operating classes of the global table (802.11 Annex E) for the channels the lab's radios use.
_OP_CLASSES = ((range(1, 14), 81), (range(14, 15), 82), (range(36, 49), 115), (range(52, 65), 118),
               (range(100, 145), 121), (range(149, 166), 125), (range(166, 197), 126))


def op_class(band, channel):
    if band == "6G":
        return 131
    return next((c for chans, c in _OP_CLASSES if channel in chans), 0)


def netlink_message(code, payload=b"", pid=0, length=None):
    """A netlink message of the driver channel; `nlmsg_len` is 24 + the payload's exact size."""
    length = HEADER_SIZE + len(payload) if length is None else length
    return NLMSG_HEADER.pack(length, 0, 0, 0, pid) + MAGIC + bytes([code]) + payload


def maps_buffer(code, payload=b""):
    """A MAPS command buffer as `steer_maps` carries it."""
    return MAGIC + bytes([code]) + payload


def check_socket_path(path):
    if len(str(path).encode()) > SUN_PATH_MAX:
        raise ValueError(f"socket path {path} is longer than {SUN_PATH_MAX} bytes; "
                         f"use a shorter lab directory")


def bind_unix(path, kind):
    """A non-blocking Unix socket bound at `path` (a stale file is replaced)."""
    path = Path(path)
    check_socket_path(path)
    try:
        path.unlink()
    except FileNotFoundError:
        pass
    s = socket.socket(socket.AF_UNIX, kind)
    s.bind(str(path))
    s.setblocking(False)
    return s
