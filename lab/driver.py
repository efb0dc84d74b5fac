"""The driver double of one node: the MAPS driver and the Wi-Fi base library, served from outside the node.

Two sockets under <lab>/nodes/<name>/run/maps/ (the node sees them under /var/run/maps/):

    nl-0    datagram: the netlink channel. The daemon (port id 3333, socket nl-3333)
            sends its ping here; the double answers with the pong carrying the
            API version, and sends every event to nl-3333.
    uwb     stream: one Wi-Fi library call per connection, one request line and
            one answer line (see lab/README.md for the calls).

The double applies what the daemon sets (BSS indices, radios, the steering
configuration, per-station blocks) and decides, as a driver does, whether a
station may associate (`refusal`). Kicks, BSS transition requests and beacon
requests go to the radio world, whose stations answer them. It reports each
radio the daemon added (MAPS_EV_RADIO_STATUS) every `radio_interval` seconds and
whenever its channel, load or station count changes: a radio's load is its base
(the topology's, or `set_radio`'s) plus what the world's stations on it carry.

Everything the daemon sends (netlink messages, MAPS commands through
`steer_maps`, other Wi-Fi calls) and every event the double sends is recorded
in memory and appended to <lab>/nodes/<name>/driver.jsonl.
"""

import copy
import logging
import socket
import time
from pathlib import Path

from lab.wire import (API_VERSION, BANDS, CAPS, CMD, COMMAND_RECORDS, COMMANDS, DAEMON_PORT, EV, EVENTS,
                      HEADER_SIZE, MAGIC, NLMSG_HEADER, REJECT_RECORD, bind_unix, check_socket_path,
                      command_code, decode_event, event_code, mac_bytes, mac_text, netlink_message,
                      radio_payload, sta_payload)

# The protocol's names are the driver's too: `from lab.driver import EV` reads as what it is.
__all__ = ["DriverDouble", "check_call", "BANDS", "CAPS", "EV", "CMD", "command_code", "event_code"]

log = logging.getLogger("lab.driver")

# What a driver does before the daemon's MAPS_CMD_SET_CONFIG says otherwise: it stops refusing
# a station after REJECT_MAX_CNT refusals within REJECT_AGE seconds.
REJECT_MAX_CNT = 2
REJECT_AGE = 20
RADIO_INTERVAL = 5.0        # seconds between a driver's reports of each radio


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
        self.world = None         # the radio world, when the lab has one: its stations answer the daemon
        self._refusals = {}       # station mac -> monotonic times of its recent refusals
        self.radio_interval = RADIO_INTERVAL
        self._radio_sent = {}     # radio name -> (index, channel, load, sta_num) last reported
        self._radio_timer = 0     # bumped when the periodic reports start over
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
        self._schedule_radios()

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

    def inject(self, code, payload=b"", **note):
        """Sends an event to the daemon (nl-3333); returns the bytes sent. `note` goes into the
        event's record (the world says why: "status", "kicked" ...).

        Raises OSError when the daemon's socket is missing or full."""
        msg = netlink_message(code, payload)
        rec = {"dir": "out", "code": code, "event": EVENTS.get(code, str(code)), "nlmsg_len": len(msg),
               "hex": payload.hex(), **note}
        fields = decode_event(code, payload)
        if fields is not None:
            rec["fields"] = fields
        self._send("event", msg, rec)
        return msg

    def send_raw(self, data):
        """Sends `data` to the daemon as it is, from the driver's own socket: whatever a broken
        driver might send (no netlink message, a lying length, a wrong magic...). Recorded as
        kind "raw" with its size and hex. Raises OSError as `inject` does."""
        data = bytes(data)
        self._send("raw", data, {"dir": "out", "size": len(data), "hex": data.hex()})

    def _send(self, kind, data, rec):
        # Recorded before it is sent, so that whoever sees it arrive also finds its record.
        record = self.journal.add({"node": self.node.name, "kind": kind, **rec}, final=False)
        try:
            self.nl.sendto(data, str(self.maps_dir / f"nl-{DAEMON_PORT}"))
        except OSError as e:
            self.journal.finish(record, error=e.strerror or str(e))
            raise
        self.journal.finish(record)

    def sta_event(self, event, mac, bss_index, why=None, **fields):
        """Sends a station event: "join", "leave", "band", "status" (or "STA_JOIN" ..., or a code)."""
        if isinstance(event, str) and event.upper() in ("JOIN", "LEAVE", "BAND", "STATUS"):
            event = "STA_" + event
        note = {"why": why} if why else {}
        return self.inject(event_code(event), sta_payload(mac, bss_index, **fields), **note)

    def radio_status(self, radio_index, channel, why=None, **fields):
        return self.inject(EV["RADIO_STATUS"], radio_payload(radio_index, channel, **fields),
                           **({"why": why} if why else {}))

    # -- radios ------------------------------------------------------------------

    def radio_index(self, radio):
        """The index the daemon gave a radio (MAPS_CMD_ADD_RADIO on one of its VAPs), or None."""
        ifnames = {v.ifname for v in self.node.vaps if v.radio is radio}
        return next((int(i) for i, names in self._state["radios"].items() if ifnames & set(names)), None)

    def radio_figures(self, radio):
        """(load %, stations) the driver reports for a radio (loop thread)."""
        if self.world is not None:
            return self.world.radio_figures(self.node.name, radio)
        return radio.load, radio.sta_num

    def report_radios(self, every=False, only=None, why=None):
        """Sends a radio status event for each radio the daemon added (or `only` that one) whose
        channel, load or station count changed since its last report; with `every`, for each
        one. Loop thread."""
        for radio in [only] if only is not None else self.node.radios:
            index = self.radio_index(radio)
            if index is None:
                continue
            load, sta_num = self.radio_figures(radio)
            figures = (index, radio.channel, load, sta_num)
            if not every and self._radio_sent.get(radio.name) == figures:
                continue
            self._radio_sent[radio.name] = figures
            try:
                self.radio_status(index, radio.channel, load=load, sta_num=sta_num, work_band=BANDS[radio.band],
                                  why=why or ("status" if every else "load"))
            except OSError:
                pass    # no daemon listens: recorded as not delivered

    def set_radio(self, name, channel=None, load=None, sta_num=None):
        """Sets a radio's channel (what `chan_info` answers too), base load and base station
        count, and reports it at once; returns the index the daemon gave it (any thread).
        ValueError when the daemon has not added the radio."""
        radio = self.node.radio(name)
        if radio is None:
            raise ValueError(f"node {self.node.name} has no radio {name!r} "
                             f"(radios: {', '.join(r.name for r in self.node.radios)})")

        if channel is not None and channel not in radio.channels:
            raise ValueError(f"channel {channel} is not one of radio {radio.name}'s {radio.channels}")

        def go():
            index = self.radio_index(radio)
            if index is None:
                raise ValueError(f"the daemon of {self.node.name} has not added radio {radio.name} "
                                 f"(no MAPS_CMD_ADD_RADIO)")
            radio.channel = radio.channel if channel is None else channel
            radio.load = radio.load if load is None else load
            radio.sta_num = radio.sta_num if sta_num is None else sta_num
            self.report_radios(every=True, only=radio, why="step")
            return index
        return self.loop.call(go)

    def set_radio_interval(self, seconds):
        """Reports every radio every `seconds` from now on (0: only on changes); any thread."""
        if isinstance(seconds, bool) or not isinstance(seconds, (int, float)) or seconds < 0:
            raise ValueError(f"a radio report interval is a number of seconds from 0, not {seconds!r}")

        def go():
            self.radio_interval = seconds
            self._schedule_radios()
        self.loop.call(go)

    def _schedule_radios(self):
        self._radio_timer += 1
        timer = self._radio_timer

        def tick():
            if timer != self._radio_timer or self.nl is None:
                return
            self.report_radios(every=True)
            self.loop.call_later(self.radio_interval, tick)
        if self.radio_interval:
            self.loop.call_later(self.radio_interval, tick)

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

    def _tell_world(self, what, *args):
        """Hands a request to the world's stations after the answer, as a driver acts after the call."""
        if self.world is not None:
            self.loop.call_soon(getattr(self.world, what), self.node.name, *args)

    def _kick_sta(self, rec, ifname, mac):
        self._tell_world("kicked", self._vap(ifname), mac_text(mac_bytes(mac)))
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
        self._tell_world("beacon_request", mac_text(mac_bytes(sta)), int(channel), _hex_text(ssid))
        return []

    def _bss_trans_req(self, rec, ifname, sta, target, channel):
        self._vap(ifname)
        self._tell_world("btm_request", mac_text(mac_bytes(sta)), mac_text(mac_bytes(target)), int(channel))
        return []

    # -- association control (loop thread) --------------------------------------

    def bss_index(self, vap):
        """The driver's index of a VAP: the one the daemon gave it (MAPS_CMD_SET_BSS); before the
        daemon has given any, its position among the node's VAPs from 1. None for a VAP the
        daemon left out."""
        told = self._state["bss"]
        if not told:
            return self.node.vaps.index(vap) + 1
        return next((int(i) for i, bss in told.items() if bss.get("if") == vap.ifname), None)

    def vap_at(self, index):
        """The VAP of a driver BSS index (see `bss_index`), or None."""
        return next((v for v in self.node.vaps if self.bss_index(v) == index), None)

    def block_of(self, mac):
        """(mode, block_bss) the daemon set for a station, or None."""
        entry = self._state["sta"].get(mac)
        return entry and (entry["mode"], entry["block_bss"])

    def blocked_vaps(self, mac):
        """The VAPs (configuration-store names) on which the station's MAPS_BLOCK_BSS refuses it."""
        mode, bits = self.block_of(mac) or ("MAPS_BLOCK_DEFAULT", 0)
        if mode != "MAPS_BLOCK_BSS":
            return []
        return [v.mib for v in self.node.vaps if self.bss_index(v) is not None and bits >> self.bss_index(v) & 1]

    def _refuses(self, vap, mac, rssi):
        mode, bits = self.block_of(mac) or ("MAPS_BLOCK_DEFAULT", 0)
        if mode == "MAPS_BLOCK_DISBALE":
            return False
        if mode == "MAPS_BLOCK_BSS":
            return vap.mib in self.blocked_vaps(mac)
        conf = next((self._state["radio_conf"].get(i) for i, ifs in self._state["radios"].items()
                     if vap.ifname in ifs), None)
        if conf is None or conf["mode"] == "MAPS_BAND_ACCEPT":
            return False
        if conf["mode"] == "MAPS_BAND_BLOCK":
            return True
        lower, upper = conf["reject_rssi_lower"], conf["reject_rssi_upper"]
        return conf["mode"] == "MAPS_BAND_BLOCK_RSSI" and lower <= rssi and (upper == 0 or rssi <= upper)

    def refusal(self, vap, mac, rssi):
        """Whether the driver refuses an association of `mac` to `vap` at `rssi`, as
        (refused, count): count is this node's refusals of the station within `reject_age`
        seconds, this one included.

        The station's block decides (MAPS_BLOCK_BSS: the BSSes of its bit set;
        MAPS_BLOCK_DISBALE: none); in MAPS_BLOCK_DEFAULT its radio's mode does
        (MAPS_BAND_BLOCK: every new station; MAPS_BAND_BLOCK_RSSI: an RSSI from
        reject_rssi_lower to reject_rssi_upper, an upper end of 0 meaning none). Like a real
        driver the node lets a station in once it has refused it `reject_max_cnt` times within
        `reject_age` seconds (REJECT_MAX_CNT and REJECT_AGE until MAPS_CMD_SET_CONFIG says
        otherwise). Each refusal is a MAPS_EV_REJECT to the daemon."""
        if not self._refuses(vap, mac, rssi):
            return False, 0
        config = self._state["config"] or {}
        most = config.get("reject_max_cnt", REJECT_MAX_CNT)
        age = config.get("reject_age", REJECT_AGE)
        now = time.monotonic()
        recent = [t for t in self._refusals.get(mac, []) if now - t < age]
        if len(recent) >= most:
            self._refusals[mac] = recent
            return False, len(recent)
        recent.append(now)
        self._refusals[mac] = recent
        payload = REJECT_RECORD.pack(mac=mac_bytes(mac), bss_index=self.bss_index(vap), count=len(recent),
                                     rssi=max(-128, min(127, rssi)))
        try:
            self.inject(EV["REJECT"], payload)
        except OSError:
            pass  # the refusal stands whether or not a daemon hears of it
        return True, len(recent)

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
            blocked = list(s["sta"])
            s.update(self._clean_state())
            self._refusals.clear()
            self._radio_sent.clear()
            for mac in blocked:
                self._tell_world("block_changed", mac, "clean", [])
        elif code == CMD["SET_BSS"]:
            s["bss"][f["index"]] = {"ess_radios": f["ess_radios"], "if": iface.ifname}
        elif code == CMD["SET_STA"]:
            s["sta"][f["mac"]] = {"mode": f["mode"], "block_bss": f["block_bss"]}
            self._tell_world("block_changed", f["mac"], f["mode"], self.blocked_vaps(f["mac"]))
        elif code == CMD["SET_CONFIG"]:
            s["config"] = f
        elif code == CMD["ADD_RADIO"]:
            s["radios"].setdefault(f["index"], []).append(iface.ifname)
        elif code == CMD["SET_RADIO"]:
            s["radio_conf"][f["index"]] = f
        elif code == CMD["DBG"]:
            s["debug"] = f["level"]
        elif code == CMD["BSS_TRANS"]:
            self._tell_world("btm_request", f["sta"], f["bss"], f["channel"])
        elif code == CMD["BEACON_REQ"]:
            self._tell_world("beacon_request", f["sta"], f["channel"], f["ssid"])


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
