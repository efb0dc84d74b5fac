"""The driver double of one node: the MAPS driver and the Wi-Fi base library, served from outside the node.

Two sockets under <lab>/nodes/<name>/run/maps/ (the node sees them under /var/run/maps/):

    nl-0    datagram: the netlink channel. The daemon (port id 3333, socket nl-3333)
            sends its ping here; the double answers with the pong carrying the
            API version, and sends every event to nl-3333.
    uwb     stream: one Wi-Fi library call per connection, one request line and
            one answer line (see lab/README.md for the calls).

Everything the daemon sends (netlink messages, MAPS commands through
`steer_maps`, other Wi-Fi calls) and every event the double sends is recorded
in memory and appended to <lab>/nodes/<name>/driver.jsonl.
"""

import copy
import logging
import socket
import time
import struct
from pathlib import Path

log = logging.getLogger("lab.driver")

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



def event_code(name):
    """An event code from a number or a name ("2", "STA_JOIN", "sta-join", "MAPS_EV_STA_JOIN")."""
    if isinstance(name, int):
        return name
    text = str(name).strip()
    if text.isdigit():
        return int(text)
    key = text.upper().replace("-", "_").removeprefix("MAPS_EV_")
    if key not in EV:
        raise ValueError(f"unknown event {name!r} (events: {', '.join(EV)})")
    return EV[key]


def command_code(name):
    """A command code from a number or a name ("2", "SET_STA", "MAPS_CMD_SET_STA")."""
    if isinstance(name, int):
        return name
    text = str(name).strip()
    if text.isdigit():
        return int(text)
    key = text.upper().replace("-", "_").removeprefix("MAPS_CMD_")
    if key not in CMD:
        raise ValueError(f"unknown command {name!r} (commands: {', '.join(CMD)})")
    return CMD[key]


BANDS = {"IG": 1, "2G": 2, "5L": 4, "5H": 8, "6G": 16}
CAPS = {"HT": 1, "VHT": 2, "RRM": 4, "BTM": 8, "HE": 16}
BLOCK_MODES = {0: "MAPS_BLOCK_DEFAULT", 1: "MAPS_BLOCK_BSS", 2: "MAPS_BLOCK_DISBALE"}
BAND_MODES = {0: "MAPS_BAND_ACCEPT", 1: "MAPS_BAND_BLOCK", 2: "MAPS_BAND_BLOCK_RSSI"}
LOG_LEVELS = {0: "MAPS_LOG_ERROR", 1: "MAPS_LOG_INFO", 2: "MAPS_LOG_DEBUG", 3: "MAPS_LOG_DUMP",
              4: "MAPS_LOG_MAX"}


def mac_text(b):
    return ":".join(f"{x:02x}" for x in b)


def mac_bytes(text):
    parts = text.split(":")
    if len(parts) != 6 or not all(len(p) == 2 for p in parts):
        raise ValueError(f"not a MAC address: {text!r}")
    return bytes(int(p, 16) for p in parts)


def _cstr(b):
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


# The station record of the join, leave, band and status events (24 bytes).
STA_RECORD = Record("6sBxIIbBBBB3x",
                    ["mac", "bss_index", "bands", "caps", "rssi", "nss", "load", "sta_num", "active"],
                    {"mac": mac_text})
# The radio status record (8 bytes).
RADIO_RECORD = Record("BBBBI", ["radio_index", "channel", "load", "sta_num", "work_band"])

EVENT_RECORDS = {
    2: STA_RECORD, 3: STA_RECORD, 4: STA_RECORD, 5: STA_RECORD, 9: RADIO_RECORD,
}

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
    12: Record("33s6sB", ["ssid", "sta", "channel"], {"ssid": _cstr, "sta": mac_text}),
}
assert COMMAND_RECORDS[3].size == 28 and STA_RECORD.size == 24 and RADIO_RECORD.size == 8


def sta_payload(mac, bss_index, bands=BANDS["2G"] | BANDS["5L"] | BANDS["5H"],
                caps=CAPS["HT"] | CAPS["VHT"] | CAPS["RRM"] | CAPS["BTM"], rssi=-50, nss=2,
                load=0, sta_num=1, active=1):
    """A `maps_msg_sta_t` record."""
    return STA_RECORD.pack(mac=mac_bytes(mac) if isinstance(mac, str) else mac, bss_index=bss_index,
                           bands=bands, caps=caps, rssi=rssi, nss=nss, load=load, sta_num=sta_num,
                           active=1 if active else 0)


def radio_payload(radio_index, channel, load=0, sta_num=0, work_band=BANDS["2G"]):
    """A `maps_msg_radio_t` record."""
    return RADIO_RECORD.pack(radio_index=radio_index, channel=channel, load=load, sta_num=sta_num,
                             work_band=work_band)


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


class _CallError(Exception):
    """A refused Wi-Fi call; the text goes into the record."""

    def __init__(self, text, result=-1):
        super().__init__(text)
        self.result = result


class DriverDouble:
    """Serves one node's driver and Wi-Fi library from `node` (a topology Node).

    Misbehaviour, set from any thread:
      pong_version    the version text of the netlink pong; None sends no pong
      ping_answer     the 4 bytes answering MAPS_CMD_PING; None makes the call fail (-1)
      call_results    {call name: result} makes a Wi-Fi call answer that result and nothing else
      command_results {command code: result} makes steer_maps refuse that MAPS command
                      with that result (recorded, not applied)
    """

    def __init__(self, node, node_dir, loop, journal):
        self.node = node
        self.dir = Path(node_dir)
        self.maps_dir = self.dir / "run" / "maps"
        self.loop = loop
        self.journal = journal
        self.pong_version = API_VERSION
        self.ping_answer = b"pong"
        self.call_results = {}
        self.command_results = {}
        self.stations = {}        # (vap kernel name, station mac) -> (rssi, rate)
        self._state = self._clean_state()
        self._state["bss_load"] = {}
        self._state["rrm_neighbors"] = {v.ifname: {} for v in node.vaps}
        self.nl = None
        self.uwb = None
        self._conns = {}
        self.world = None         # the radio world, when the lab has one: kicks and requests move its stations
        self._rejects = {}        # station mac -> [refusals in a row, monotonic time of the last]
        check_socket_path(self.maps_dir / f"nl-{DAEMON_PORT}")

    # -- life ------------------------------------------------------------------

    def start(self):
        """Binds nl-0 and uwb; call on the loop's thread (or before the loop starts)."""
        self.maps_dir.mkdir(parents=True, exist_ok=True)
        self.nl = bind_unix(self.maps_dir / "nl-0", socket.SOCK_DGRAM)
        self.uwb = bind_unix(self.maps_dir / "uwb", socket.SOCK_STREAM)
        self.uwb.listen(16)
        self.loop.add_reader(self.nl, self._on_netlink)
        self.loop.add_reader(self.uwb, self._on_accept)

    def stop(self):
        for s in [self.nl, self.uwb] + list(self._conns):
            if s is not None:
                self.loop.remove_reader(s)
                s.close()
        self._conns.clear()
        for name in ("nl-0", "uwb"):
            try:
                (self.maps_dir / name).unlink()
            except FileNotFoundError:
                pass
        self.nl = self.uwb = None

    def _record(self, kind, **fields):
        return self.journal.add({"node": self.node.name, "kind": kind, **fields})

    def records(self, **match):
        """Copies of this node's records (kind="maps", cmd="MAPS_CMD_SET_STA", ...)."""
        return self.journal.records(node=self.node.name, **match)

    def commands(self, name=None):
        """The MAPS commands received, optionally only those named `name` ("SET_STA" or the full name)."""
        if name is None:
            return self.records(kind="maps")
        full = name if name.startswith("MAPS_CMD_") else "MAPS_CMD_" + name
        return self.records(kind="maps", cmd=full)

    def calls(self, name=None):
        """The Wi-Fi calls received, optionally only those of one name ("kick_sta")."""
        return self.records(kind="call", call=name) if name else self.records(kind="call")

    def state(self):
        """What the daemon has set in the driver: bss, sta, config, radios, debug level, BSS loads, neighbour lists."""
        return self.loop.call(lambda: copy.deepcopy(self._state))

    def set_station(self, vap, mac, rssi, rate):
        """What `sta_info` answers for a station on a VAP (kernel or configuration-store name)."""
        v = self.node.vap(vap)
        if v is None:
            raise KeyError(f"node {self.node.name} has no VAP {vap!r}")
        self.stations[(v.ifname, mac_text(mac_bytes(mac)))] = (rssi, rate)

    # -- netlink ---------------------------------------------------------------

    def _on_netlink(self, sock):
        try:
            data = sock.recv(65536)
        except (BlockingIOError, InterruptedError):
            return
        rec = {"dir": "in", "size": len(data), "hex": data.hex()}
        if len(data) < HEADER_SIZE:
            self._record("netlink", error="too short", **rec)
            return
        length, _, _, _, pid = NLMSG_HEADER.unpack_from(data)
        code = data[23]
        rec.update(nlmsg_len=length, nlmsg_pid=pid, code=code, event=EVENTS.get(code, str(code)))
        if data[16:23] != MAGIC:
            self._record("netlink", error="wrong magic", **rec)
            return
        self._record("netlink", **rec)
        if code == EV["PING"] and self.pong_version is not None:
            try:
                self.inject(EV["PONG"], self.pong_version.encode() + b"\0")
            except OSError as e:
                log.warning("%s: pong not sent: %s", self.node.name, e)

    def inject(self, code, payload=b""):
        """Sends an event to the daemon (nl-3333); returns the bytes sent.

        Raises OSError when the daemon's socket is missing or full."""
        msg = netlink_message(code, payload)
        rec = {"dir": "out", "code": code, "event": EVENTS.get(code, str(code)), "nlmsg_len": len(msg),
               "hex": payload.hex()}
        layout = EVENT_RECORDS.get(code)
        if layout is not None and len(payload) == layout.size:
            rec["fields"] = layout.decode(payload)
        elif code == EV["PONG"]:
            rec["fields"] = {"version": _cstr(payload)}
        # Recorded before it is sent, so that whoever sees it arrive also finds its record.
        record = self.journal.add({"node": self.node.name, "kind": "event", **rec}, final=False)
        try:
            self.nl.sendto(msg, str(self.maps_dir / f"nl-{DAEMON_PORT}"))
        except OSError as e:
            self.journal.finish(record, error=e.strerror or str(e))
            raise
        self.journal.finish(record)
        return msg

    def sta_event(self, event, mac, bss_index, **fields):
        """Sends a station event: "join", "leave", "band", "status" (or "STA_JOIN" ..., or a code)."""
        if isinstance(event, str) and event.upper() in ("JOIN", "LEAVE", "BAND", "STATUS"):
            event = "STA_" + event
        return self.inject(event_code(event), sta_payload(mac, bss_index, **fields))

    def radio_status(self, radio_index, channel, **fields):
        return self.inject(EV["RADIO_STATUS"], radio_payload(radio_index, channel, **fields))

    # -- Wi-Fi base library --------------------------------------------------

    def _on_accept(self, sock):
        try:
            conn, _ = sock.accept()
        except (BlockingIOError, InterruptedError):
            return
        conn.setblocking(False)
        self._conns[conn] = bytearray()
        self.loop.add_reader(conn, self._on_request)
        self.loop.call_later(5.0, self._expire, conn)

    def _expire(self, conn):
        if conn in self._conns:
            log.warning("%s: uwb request incomplete after 5 s: %r", self.node.name, bytes(self._conns[conn]))
            self._close(conn)

    def _close(self, conn):
        self._conns.pop(conn, None)
        self.loop.remove_reader(conn)
        conn.close()

    def _on_request(self, conn):
        try:
            chunk = conn.recv(4096)
        except (BlockingIOError, InterruptedError):
            return
        except OSError:
            chunk = b""
        buf = self._conns[conn]
        buf += chunk
        if b"\n" not in buf:
            if not chunk or len(buf) > 16384:
                self._close(conn)
            return
        line = bytes(buf).split(b"\n", 1)[0].decode(errors="replace")
        answer = self.answer(line)
        try:
            conn.setblocking(True)
            conn.settimeout(1.0)
            conn.sendall(answer.encode() + b"\n")
        except OSError as e:
            log.warning("%s: uwb answer not sent: %s", self.node.name, e)
        self._close(conn)

    def answer(self, line):
        """The answer line (without newline) to one request line; records the call."""
        tokens = line.split(" ")
        name, args = tokens[0], tokens[1:]
        rec = {"call": name, "request": line}
        entry = _CALLS.get(name)
        try:
            if entry is None:
                raise _CallError("unknown call")
            argnames, method = entry
            if len(args) != len(argnames) or any(a == "" for a in args):
                raise _CallError(f"wants {len(argnames)} arguments: {' '.join(argnames)}")
            rec["if"] = args[0]
            rec["args"] = dict(zip(argnames[1:], args[1:]))
            forced = self.call_results.get(name, 0)
            if forced != 0:
                raise _CallError("refused by the lab", forced)
            values = method(self, rec, *args)
            result = 0
        except _CallError as e:
            result, values = e.result, []
            rec["error"] = str(e)
        except ValueError as e:
            result, values = -1, []
            rec["error"] = f"bad argument: {e}"
        answer = " ".join([str(result)] + [str(v) for v in values])
        rec["result"] = result
        rec["answer"] = answer
        kind = rec.pop("kind", "call")
        if kind == "maps":
            del rec["request"]
        self._record(kind, **rec)
        return answer

    def _iface(self, name):
        vap = self.node.vap(name)
        if vap is not None:
            return vap
        bh = self.node.backhaul
        if bh is not None and name in (bh.ifname, bh.mib):
            return bh
        raise _CallError(f"no interface {name!r}")

    def _vap(self, name):
        iface = self._iface(name)
        if iface is self.node.backhaul:
            raise _CallError(f"{name} is a station interface")
        return iface

    def _radio_of(self, iface):
        if iface is self.node.backhaul:
            return next((r for r in self.node.radios if r.channel == iface.channel), None)
        return iface.radio

    # One method per call; each returns the answer's values or raises _CallError.

    def _os_ifname(self, rec, ifname):
        return [self._iface(ifname).ifname]

    def _mib_ifname(self, rec, ifname):
        return [self._vap(ifname).mib]

    def _bssmode(self, rec, ifname):
        return ["STA" if self._iface(ifname) is self.node.backhaul else "AP"]

    def _ap_cap(self, rec, ifname):
        vap = self._vap(ifname)
        return [vap.rrm, vap.btm]

    def _chan_info(self, rec, ifname):
        iface = self._iface(ifname)
        if iface is self.node.backhaul:
            return [iface.channel, iface.bandwidth]
        return [iface.radio.channel, iface.radio.bandwidth]

    def _channel_list(self, rec, ifname):
        iface = self._iface(ifname)
        radio = self._radio_of(iface)
        chans = radio.channels if radio else [iface.channel]
        return [",".join(str(c) for c in chans)]

    def _ssid(self, rec, ifname):
        return [self._vap(ifname).ssid.encode().hex() or "-"]

    def _sta_maxnum(self, rec, ifname):
        return [self._vap(ifname).sta_max]

    def _sta_info(self, rec, ifname, mac):
        iface = self._iface(ifname)
        mac = mac_text(mac_bytes(mac))
        if iface is self.node.backhaul:
            if mac != iface.uplink_bssid:
                raise _CallError(f"{mac} is not the uplink {iface.uplink_bssid}")
            return [iface.rssi, iface.rate]
        found = self.stations.get((iface.ifname, mac))
        if found is None:
            raise _CallError(f"no station {mac} on {iface.ifname}")
        return list(found)

    def _bssid(self, rec, ifname):
        iface = self._iface(ifname)
        if iface is self.node.backhaul:
            return [iface.uplink_bssid or "00:00:00:00:00:00"]
        return [iface.bssid]

    def _kick_sta(self, rec, ifname, mac):
        mac = mac_text(mac_bytes(mac))
        vap = self._vap(ifname)
        if self.world is not None:  # after the answer, as a driver deauthenticates after the call
            self.loop.call_soon(self.world.kicked, self.node.name, vap, mac)
        return []

    def _set_bssload(self, rec, ifname, load):
        self._state["bss_load"][self._vap(ifname).ifname] = int(load)
        return []

    def _add_rrm_neighbor(self, rec, ifname, nbr_if, bssid, channel, band, ssid):
        vap = self._vap(ifname)
        bssid = mac_text(mac_bytes(bssid))
        self._state["rrm_neighbors"][vap.ifname][bssid] = {
            "ifname": nbr_if, "channel": int(channel), "band": int(band), "ssid": _hex_text(ssid)}
        return []

    def _del_rrm_neighbor(self, rec, ifname, bssid):
        vap = self._vap(ifname)
        self._state["rrm_neighbors"][vap.ifname].pop(mac_text(mac_bytes(bssid)), None)
        return []

    def _beacon_req(self, rec, ifname, sta, channel, ssid):
        self._vap(ifname)
        mac_bytes(sta)
        int(channel)
        _hex_text(ssid)
        return []

    def _bss_trans_req(self, rec, ifname, sta, target, channel):
        vap = self._vap(ifname)
        sta, target, channel = mac_text(mac_bytes(sta)), mac_text(mac_bytes(target)), int(channel)
        if self.world is not None:
            self.loop.call_soon(self.world.btm_request, self.node.name, vap, sta, target, channel)
        return []

    # -- association control (loop thread) --------------------------------------

    def bss_index(self, vap):
        """The index the daemon gave this VAP (MAPS_CMD_SET_BSS), or None."""
        for index, bss in self._state["bss"].items():
            if bss.get("if") == vap.ifname:
                return int(index)
        return None

    def block_of(self, mac):
        """(mode, block_bss) the daemon set for a station, or None."""
        entry = self._state["sta"].get(mac)
        return entry and (entry["mode"], entry["block_bss"])

    def refuses(self, vap, mac, rssi):
        """Whether an association attempt of `mac` on `vap` at `rssi` is refused, as the driver
        decides it: the station's block mode, else its radio's refusal mode. Like a real driver it
        gives up after `reject_max_cnt` refusals of one station within `reject_age` seconds (2 and
        20 until the daemon's MAPS_CMD_SET_CONFIG says otherwise). A refusal sends MAPS_EV_REJECT."""
        index = self.bss_index(vap)
        mode, bits = self.block_of(mac) or ("MAPS_BLOCK_DEFAULT", 0)
        if mode == "MAPS_BLOCK_DISBALE":
            return False
        if mode == "MAPS_BLOCK_BSS":
            refused = bool(bits >> index & 1)
        else:
            conf = next((self._state["radio_conf"].get(i) for i, ifs in self._state["radios"].items()
                         if vap.ifname in ifs), None)
            band_mode = conf and conf["mode"]
            refused = band_mode == "MAPS_BAND_BLOCK" or (
                band_mode == "MAPS_BAND_BLOCK_RSSI" and conf["reject_rssi_lower"] <= rssi <= conf["reject_rssi_upper"])
        if not refused:
            return False
        config = self._state["config"] or {}
        most, age = config.get("reject_max_cnt", 2), config.get("reject_age", 20)
        now = time.monotonic()
        count, last = self._rejects.get(mac, (0, now))
        if now - last > age:
            count = 0
        if count >= most:
            return False
        count += 1
        self._rejects[mac] = (count, now)
        try:
            self.inject(EV["REJECT"], mac_bytes(mac) + bytes([index, count, rssi & 0xff]))
        except OSError:
            pass  # the refusal stands whether or not a daemon hears of it
        return True

    def _steer_maps(self, rec, ifname, buffer):
        iface = self._iface(ifname)
        buf = bytes.fromhex(buffer) if buffer != "-" else b""
        del rec["args"]
        rec.update(kind="maps", hex=buf.hex())
        if len(buf) < 8 or buf[:7] != MAGIC:
            raise _CallError("wrong magic" if len(buf) >= 8 else "too short for a MAPS header")
        code, payload = buf[7], buf[8:]
        rec.update(code=code, cmd=COMMANDS.get(code, str(code)), size=len(payload))
        record = COMMAND_RECORDS.get(code)
        if record is not None:
            fields = record.decode(payload)
            if fields is None:
                rec["warning"] = f"payload of {len(payload)} bytes, the record has {record.size}"
            else:
                rec["fields"] = fields
        forced = self.command_results.get(code, 0)
        if forced != 0:
            raise _CallError("refused by the lab", forced)
        answer = buf
        if code == CMD["PING"]:
            if self.ping_answer is None:
                raise _CallError("the ping is refused")
            answer = buf[:8] + (self.ping_answer + payload[len(self.ping_answer):])[:len(payload)]
        elif "fields" in rec:
            self._apply(code, rec["fields"], iface)
        elif code == CMD["CLEAN"]:
            self._apply(code, {}, iface)
        return [answer.hex()]

    @staticmethod
    def _clean_state():
        return {"bss": {}, "sta": {}, "config": None, "radios": {}, "radio_conf": {}, "debug": None}

    def _apply(self, code, f, iface):
        s = self._state
        if code == CMD["CLEAN"]:
            s.update(self._clean_state())
        elif code == CMD["SET_BSS"]:
            s["bss"][f["index"]] = {"ess_radios": f["ess_radios"], "if": iface.ifname}
        elif code == CMD["SET_STA"]:
            s["sta"][f["mac"]] = {"mode": f["mode"], "block_bss": f["block_bss"]}
        elif code == CMD["SET_CONFIG"]:
            s["config"] = f
        elif code == CMD["ADD_RADIO"]:
            s["radios"].setdefault(f["index"], []).append(iface.ifname)
        elif code == CMD["SET_RADIO"]:
            s["radio_conf"][f["index"]] = f
        elif code == CMD["DBG"]:
            s["debug"] = f["level"]


def _hex_text(h):
    return "" if h == "-" else bytes.fromhex(h).decode(errors="replace")


_CALLS = {
    "os_ifname": (["if"], DriverDouble._os_ifname),
    "mib_ifname": (["if"], DriverDouble._mib_ifname),
    "bssmode": (["if"], DriverDouble._bssmode),
    "ap_cap": (["if"], DriverDouble._ap_cap),
    "chan_info": (["if"], DriverDouble._chan_info),
    "channel_list": (["if"], DriverDouble._channel_list),
    "ssid": (["if"], DriverDouble._ssid),
    "sta_maxnum": (["if"], DriverDouble._sta_maxnum),
    "sta_info": (["if", "mac"], DriverDouble._sta_info),
    "bssid": (["if"], DriverDouble._bssid),
    "kick_sta": (["if", "mac"], DriverDouble._kick_sta),
    "set_bssload": (["if", "load"], DriverDouble._set_bssload),
    "add_rrm_neighbor": (["if", "nbr_if", "bssid", "channel", "band", "ssid"], DriverDouble._add_rrm_neighbor),
    "del_rrm_neighbor": (["if", "bssid"], DriverDouble._del_rrm_neighbor),
    "beacon_req": (["if", "sta", "channel", "ssid"], DriverDouble._beacon_req),
    "bss_trans_req": (["if", "sta", "target", "channel"], DriverDouble._bss_trans_req),
    "steer_maps": (["if", "buffer"], DriverDouble._steer_maps),
}


def check_call(name):
    """`name` if it is a Wi-Fi call the double serves; ValueError otherwise."""
    if name not in _CALLS:
        raise ValueError(f"unknown Wi-Fi call {name!r} (calls: {', '.join(_CALLS)})")
    return name
