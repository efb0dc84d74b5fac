"""The radio world: stations that answer like real ones.

A station has a MAC, an SSID (its ESS), bands, capabilities, streams, an RSSI
towards every BSS of every node, a link rate, activity and load, and two
behaviours: towards BSS transition requests (`btm`) and towards beacon requests
(`beacon`). The driver doubles hand it what the daemons ask of their drivers
(kicks, BSS transition and beacon requests) and decide whether it may associate
(`DriverDouble.refusal`); the world moves it and makes its node's driver send the
events a driver sends. While associated, its node's driver reports its status
every `status_interval` seconds.

Everything that happens to a station is a record of kind "world" in the lab's
journal (<lab>/world.jsonl), so a test asserts on what happened to the station:
"add", "set", "join", "leave", "kicked", "btm_request", "btm_response", "btm_ignored",
"beacon_request", "beacon_report", "beacon_ignored", "refused", "locked_out",
"block", "unblock", "rssi", "walk". `check_timeline` reads such records back: how long
each station was blocked on every BSS of an ESS, and how long it was locked out.

A station may walk a path: its RSSI towards each BSS at given times, followed
in straight lines between them and applied every `step` seconds, so that it
moves away from one node and towards another (`walk`). The load its stations
carry is part of a radio's load (`radio_figures`): each node's driver reports
its radios when that changes, as well as every `radio_interval` seconds.

Everything here runs on the lab loop's thread; the public methods hop onto it.
"""

import time
from dataclasses import dataclass, field

from lab.wire import BANDS, BEACON_REP_SIZE, BSS_TRANS_RECORD, CAPS, EV, beacon_report_payload, mac, op_class

BTM_BEHAVIOURS = ("obey", "reject", "ignore", "sticky")
BEACON_BEHAVIOURS = ("answer", "rcpi", "ignore")
BTM_REJECT_STATUS = 1       # 802.11's "reject, no reason given": any non-zero status is a rejection
OUT_OF_RANGE = -95          # a BSS heard this weakly (dBm) or weaker is out of a station's reach
PATH_STEP = 1.0             # seconds between the RSSIs a walking station hears
DEFAULT_BANDS = BANDS["2G"] | BANDS["5L"] | BANDS["5H"]
DEFAULT_CAPS = CAPS["HT"] | CAPS["VHT"] | CAPS["RRM"] | CAPS["BTM"]


@dataclass
class Station:
    mac: str
    ssid: str
    bands: int = DEFAULT_BANDS
    caps: int = DEFAULT_CAPS
    nss: int = 2
    rssi: int = -60             # towards every BSS without a value of its own
    rssi_at: dict = field(default_factory=dict)     # (node, VAP kernel name) -> dBm
    rate: int = 300             # the link rate `sta_info` answers, Mbit/s
    load: int = 0
    active: bool = False
    btm: str = "obey"           # one of BTM_BEHAVIOURS
    beacon: str = "answer"      # one of BEACON_BEHAVIOURS
    answer_delay: float = 0.2   # from a request to its answer (BSS transition response, beacon report)
    move_delay: float = 1.0     # from leaving (kicked, or told to go) to the next association attempt
    return_after: float = 5.0   # a sticky station goes back after this long on the target
    retry_after: float = 2.0    # a station every BSS refused tries again after this long
    status_interval: float = 5.0    # status events while associated (0: none)
    # What the world keeps:
    on: tuple = None            # (node, Vap) while associated
    stale: dict = field(default_factory=dict)       # node -> Vap whose driver still has it (left unnoticed)
    wants: bool = False         # it wants to be associated: it joined and did not leave on its own
    lost_at: float = None       # monotonic time it lost its association while wanting it
    generation: int = 0         # bumped by every move: what was scheduled before is void
    reports: int = 0            # bumped when the status reports start over
    walks: int = 0              # bumped by every new path: the old one stops
    plans: list = field(default_factory=list)       # (what, due, still valid?) it has scheduled

    def rssi_of(self, node, vap):
        return self.rssi_at.get((node, vap.ifname), self.rssi)


# What a caller may set on a station (the rest is the world's).
DELAYS = ("answer_delay", "move_delay", "return_after", "retry_after", "status_interval")
SETTABLE = ("ssid", "bands", "caps", "nss", "rssi", "rssi_at", "rate", "load", "active", "btm", "beacon") + DELAYS


class World:
    def __init__(self, topology, loop, journal, drivers):
        self.topology = topology
        self.loop = loop
        self.journal = journal
        self.drivers = drivers            # node name -> DriverDouble
        self.stations = {}                # mac -> Station
        for d in drivers.values():
            d.world = self

    # -- from tests, scenarios and the command line (any thread) --------------------------

    def add(self, mac_address, **settings):
        """Defines a station, not yet associated (replacing one with that MAC: it leaves first).
        `settings` are Station fields: ssid (default: the topology's first), bands, caps, nss,
        rssi, rssi_at, rate, load, active, btm, beacon and the delays."""
        m = mac(mac_address)
        if settings.get("ssid") is None:
            settings["ssid"] = self.topology.nodes[0].vaps[0].ssid
        st = Station(mac=m, **self._checked(settings))

        def go():
            old = self.stations.get(m)
            if old is not None:
                self._forget(old)
            self.stations[m] = st
            self._record(st, "add", **{k: getattr(st, k) for k in ("ssid", "btm", "beacon", "caps", "bands", "rssi")})
            return self._show(st)
        return self.loop.call(go)

    def update(self, mac_address, why="command", **settings):
        """Changes a station's settings in place. While it is associated its driver reports a
        change of bands at once (band event), and of RSSI, rate, load or activity (status event)."""
        settings = self._checked(settings)

        def go():
            st = self._station(mac_address)
            for k, v in settings.items():
                setattr(st, k, v)
            self._record(st, "set", **{k: v for k, v in settings.items() if k != "rssi_at"})
            if st.on is not None and "bands" in settings:
                self._event(st, "band", *st.on, why)
            if st.on is not None and settings.keys() & {"rssi", "rssi_at", "rate", "load", "active"}:
                self._refresh(st, why)
            return self._show(st)
        return self.loop.call(go)

    def associate(self, mac_address, node=None, vap=None, why="command"):
        """The station associates: to that BSS, or (without one) to the strongest of its ESS that
        lets it in, trying again every `retry_after` seconds while every one refuses it."""
        def go():
            st = self._station(mac_address)
            if st.on is not None:
                raise ValueError(f"{st.mac} is associated on {st.on[0]} {st.on[1].mib}")
            target = self._bss(node, vap) if node is not None else None
            st.wants = True
            st.generation += 1
            self._attempt(st, why, target, only=target is not None)
            return self._where(st)
        return self.loop.call(go)

    def roam(self, mac_address, node, vap, leave_first=True, inactive_after=None, why="command"):
        """The station goes to that BSS. With `leave_first` it leaves its BSS first (leave event
        there); without, its old node's driver keeps it until that node kicks it, or for
        `inactive_after` seconds (None: until the kick)."""
        def go():
            st = self._station(mac_address)
            if st.on is None:
                raise ValueError(f"{st.mac} is not associated")
            target = self._bss(node, vap)
            if target == st.on:
                raise ValueError(f"{st.mac} is already on {node} {target[1].mib}")
            old_node, old_vap = st.on
            if leave_first:
                self._leave(st, why, lost=False)
            else:
                st.on = None
                st.stale[old_node] = old_vap
                if inactive_after is not None:
                    self._plan(st, "inactive", inactive_after, self._inactive, st, old_node, old_vap, lasting=True)
            st.wants = True
            st.generation += 1
            self._attempt(st, why, target, only=True)
            return self._where(st)
        return self.loop.call(go)

    def leave(self, mac_address, why="command"):
        """The station leaves on its own (leave event) and stays away."""
        def go():
            st = self._station(mac_address)
            if st.on is None and not st.wants:
                raise ValueError(f"{st.mac} is not associated")
            if st.on is not None:
                self._leave(st, why, lost=False)
            else:
                self._record(st, "leave", why=why, lost=False)      # it stops trying
            st.wants = False
            st.lost_at = None
            st.generation += 1
        self.loop.call(go)

    def set_rssi(self, mac_address, rssi, node=None, vap=None, rate=None, why="command"):
        """The station hears a BSS (or, without one, every BSS without a value of its own) at
        `rssi`, with `rate` its link rate from now on; a change of its own BSS's RSSI is
        reported at once (status event)."""
        rssi = self._checked({"rssi": rssi})["rssi"]

        def go():
            st = self._station(mac_address)
            before = st.rssi_of(*st.on) if st.on else None
            if node is None:
                st.rssi = rssi
            else:
                n, v = self._bss(node, vap, managed=False)
                st.rssi_at[(n, v.ifname)] = rssi
            if rate is not None:
                st.rate = rate
            self._record(st, "rssi", rssi=rssi, node=node, vap=vap, rate=rate)
            if st.on is not None and st.rssi_of(*st.on) != before:
                self._refresh(st, why)
        self.loop.call(go)

    def walk(self, mac_address, path, step=PATH_STEP, start=None, why="path"):
        """The station walks `path`: a list of {"at": seconds from `start` (a monotonic time,
        default now), "rssi_at": as for `add`}. Between two points that name a BSS it hears that
        BSS on a straight line from one RSSI to the other, before the first such point as it
        did, after the last at the last RSSI; every `step` seconds it hears what the path says,
        and a change on its own BSS is reported at once (status event). What it hears is the
        path's at the time the step was due, however late the loop gets to it: a walk reports
        the same values on a busy machine. A new path, or a new station of its MAC, ends the walk."""
        if isinstance(step, bool) or not isinstance(step, (int, float)) or step <= 0:
            raise ValueError(f"a path's step is a number of seconds above 0, not {step!r}")
        points = self._path(path)
        now = time.monotonic()
        begin = now if start is None else start
        first = max(0.0, now - begin)

        def go():
            st = self._station(mac_address)
            st.walks += 1
            walk = st.walks
            self._record(st, "walk", points=len(points), until=points[-1][0])

            def tick(due):
                self._hear(st, path_at(points, due), why)
                if due < points[-1][0]:
                    at = max(due, time.monotonic() - begin)
                    nxt = min((int(at / step) + 1) * step, points[-1][0])
                    # Due at its time on the path, even when that has passed: it runs before
                    # what the scenario did after it.
                    self._plan(st, "walk", nxt - (time.monotonic() - begin), lambda: tick(nxt),
                               lasting=True, also=lambda: st.walks == walk)
            self._plan(st, "walk", begin + first - time.monotonic(), lambda: tick(first), lasting=True,
                       also=lambda: st.walks == walk)
        self.loop.call(go)

    def where(self, mac_address):
        """(node, VAP configuration-store name) or None."""
        return self.loop.call(lambda: self._where(self._station(mac_address)))

    def pending(self, mac_address):
        """What the station has scheduled and not done yet ("answer", "move", "return", "retry",
        "inactive", "walk"); [] once it has nothing left to do but report its status."""
        return self.loop.call(lambda: [what for what, _ in self._plans(self._station(mac_address))])

    def timeline(self, mac_address=None):
        """The world's records, of one station or of all, oldest first."""
        return self.journal.records(kind="world", **({"mac": mac(mac_address)} if mac_address else {}))

    def lockouts(self, mac_address):
        """How long the station was locked out, each time it lost its association, in seconds
        (the last one counted up to now while it is still out)."""
        return self.check()["lockouts"].get(mac(mac_address), [])

    def check(self, since=None):
        """`check_timeline` over this world's records (see there)."""
        return check_timeline(self.timeline(), self.topology, block_limit(self.topology), since)

    def show(self, mac_address=None):
        """Every station (or one): where it is, its behaviours, its blocks per node, what it plans."""
        def go():
            chosen = [self._station(mac_address)] if mac_address else list(self.stations.values())
            return [self._show(st) for st in chosen]
        return self.loop.call(go)

    def radio_figures(self, node, radio):
        """(load %, stations) of a node's radio (a topology Radio): its base load plus the load of
        each station associated on it (at most 100), its base count plus every station its
        driver has on one of its BSSes. Loop thread."""
        on = [s for s in self.stations.values() if s.on and s.on[0] == node and s.on[1].radio is radio]
        held = sum(1 for s in self.stations.values() for n, v in s.stale.items() if n == node and v.radio is radio)
        return min(100, radio.load + sum(s.load for s in on)), min(255, radio.sta_num + len(on) + held)

    def counts(self):
        """{node: {VAP configuration-store name: stations its driver has}}."""
        return self.loop.call(lambda: {n.name: {v.mib: self._count(n.name, v) for v in n.vaps}
                                       for n in self.topology.nodes})

    # -- from the driver doubles (loop thread) ----------------------------------------------

    def kicked(self, node, vap, mac_address):
        st = self.stations.get(mac_address)
        if st is None:
            return
        if st.on == (node, vap):
            self._record(st, "kicked", node=node, vap=vap.mib)
            self._leave(st, "kicked", lost=True)
            self._plan(st, "move", st.move_delay, self._attempt, st, "reassoc")
        elif st.stale.get(node) is vap:
            self._record(st, "kicked", node=node, vap=vap.mib)
            del st.stale[node]
            self._event(st, "leave", node, vap, "kicked")

    def btm_request(self, node, mac_address, target, channel):
        st = self.stations.get(mac_address)
        if st is None:
            return
        self._record(st, "btm_request", node=node, target=target, channel=channel)
        if st.on is None or st.on[0] != node:
            self._record(st, "btm_ignored", node=node, because="not associated there")
            return
        if not st.caps & CAPS["BTM"] or st.btm == "ignore":
            self._record(st, "btm_ignored", node=node, because="no BTM" if st.btm != "ignore" else "ignores it")
            return
        self._plan(st, "answer", st.answer_delay, self._btm_answer, st, target)

    def beacon_request(self, node, mac_address, channel, ssid):
        st = self.stations.get(mac_address)
        if st is None:
            return
        self._record(st, "beacon_request", node=node, channel=channel, ssid=ssid)
        if st.on is None or st.on[0] != node:
            self._record(st, "beacon_ignored", node=node, because="not associated there")
        elif not st.caps & CAPS["RRM"] or st.beacon == "ignore":
            self._record(st, "beacon_ignored", node=node, because="no RRM" if st.beacon != "ignore" else "ignores it")
        else:
            self._plan(st, "answer", st.answer_delay, self._beacon_report, st, channel, ssid)

    def block_changed(self, node, mac_address, mode, vaps):
        """A node's driver blocks the station on `vaps` (names) now, or on none."""
        rec = {"kind": "world", "what": "block" if vaps else "unblock", "mac": mac_address, "node": node,
               "mode": mode}
        if vaps:
            rec["vaps"] = list(vaps)
        self.journal.add(rec)

    # -- answering ------------------------------------------------------------------------

    def _btm_answer(self, st, target):
        node, vap = st.on
        status = BTM_REJECT_STATUS if st.btm == "reject" else 0
        payload = BSS_TRANS_RECORD.pack(mac=bytes.fromhex(st.mac.replace(":", "")),
                                        bss_index=self.drivers[node].bss_index(vap), status=status)
        self._send(node, EV["BSS_TRANS"], payload)
        self._record(st, "btm_response", node=node, status=status)
        if status == 0:
            self._plan(st, "move", st.move_delay, self._btm_move, st, target)

    def _btm_move(self, st, target):
        home = st.on
        self._leave(st, "btm", lost=True)
        self._attempt(st, "btm", self._find_bss(target))
        if st.btm == "sticky" and st.on is not None:
            self._plan(st, "return", st.return_after, self._return, st, home)

    def _return(self, st, home):
        self._leave(st, "sticky", lost=True)
        self._attempt(st, "sticky", home)

    def _beacon_report(self, st, channel, ssid):
        node, vap = st.on
        reports = []
        for n in self.topology.nodes:
            for v in n.vaps:
                rssi = st.rssi_of(n.name, v)
                if ((not ssid or v.ssid == ssid) and (channel in (0, 255) or v.radio.channel == channel)
                        and BANDS[v.radio.band] & st.bands and rssi > OUT_OF_RANGE):
                    rcpi = rssi if st.beacon == "answer" else max(0, min(220, 2 * (rssi + 110)))
                    reports.append({"op_class": op_class(v.radio.band, v.radio.channel),
                                    "channel": v.radio.channel, "rcpi": rcpi if rcpi < 128 else rcpi - 256,
                                    "rsni": 0, "bssid": v.bssid, "rssi": rssi})
        reports.sort(key=lambda r: -r["rssi"])
        payload = beacon_report_payload(st.mac, self.drivers[node].bss_index(vap), reports)
        assert len(payload) == BEACON_REP_SIZE
        self._send(node, EV["BEACON_REP"], payload)
        self._record(st, "beacon_report", node=node, channel=channel,
                     reports=[[r["bssid"], r["channel"], r["rssi"]] for r in reports[:32]])

    # -- moving -----------------------------------------------------------------------------

    def _attempt(self, st, why, prefer=None, only=False):
        """Tries `prefer` first (alone when `only`), then every BSS of the ESS it reaches,
        strongest first; joins the first whose driver lets it in, else tries again later."""
        if st.on is not None:
            return
        order = [prefer] if prefer else []
        if not only:
            order += [c for c in self._candidates(st) if c != prefer]
        for node, vap in order:
            driver = self.drivers[node]
            if driver.bss_index(vap) is None:
                continue
            rssi = st.rssi_of(node, vap)
            refused, count = driver.refusal(vap, st.mac, rssi)
            if refused:
                self._record(st, "refused", node=node, vap=vap.mib, rssi=rssi, count=count)
                continue
            self._join(st, node, vap, why, given_up_after=count or None)
            return
        self._record(st, "locked_out", retry_after=st.retry_after)
        self._plan(st, "retry", st.retry_after, self._attempt, st, "retry", prefer, only)

    def _candidates(self, st):
        """Every BSS of the station's ESS on a band it has and within its reach, strongest first."""
        found = [(n.name, v) for n in self.topology.nodes for v in n.vaps
                 if v.ssid == st.ssid and BANDS[v.radio.band] & st.bands and st.rssi_of(n.name, v) > OUT_OF_RANGE]
        return sorted(found, key=lambda c: -st.rssi_of(*c))

    def _join(self, st, node, vap, why, given_up_after=None):
        st.on = (node, vap)
        if st.stale.get(node) is vap:
            del st.stale[node]      # back where its driver still had it
        st.generation += 1
        out = None
        if st.lost_at is not None:
            out = round(time.monotonic() - st.lost_at, 3)
            st.lost_at = None
        self.drivers[node].set_station(vap.ifname, st.mac, st.rssi_of(node, vap), st.rate)
        self._event(st, "join", node, vap, why)
        self._record(st, "join", node=node, vap=vap.mib, rssi=st.rssi_of(node, vap), why=why, out_for=out,
                     given_up_after=given_up_after)
        if st.status_interval:
            self._plan(st, "status", st.status_interval, self._status, st)

    def _leave(self, st, why, lost):
        node, vap = st.on
        st.on = None
        st.generation += 1
        if lost:
            st.lost_at = time.monotonic()
        self._event(st, "leave", node, vap, why)
        self._record(st, "leave", node=node, vap=vap.mib, why=why, lost=lost)

    def _inactive(self, st, node, vap):
        if st.stale.get(node) is vap:
            del st.stale[node]
            self._event(st, "leave", node, vap, "inactive")
            self._record(st, "leave", node=node, vap=vap.mib, why="inactive", lost=False)

    def _forget(self, st):
        """A station replaced by a new one of its MAC: it leaves wherever a driver has it."""
        if st.on is not None:
            self._leave(st, "replaced", lost=False)
        for node, vap in list(st.stale.items()):
            self._event(st, "leave", node, vap, "replaced")
        st.stale.clear()
        st.generation += 1

    def _status(self, st):
        self._event(st, "status", *st.on, "status")
        self._plan(st, "status", st.status_interval, self._status, st)

    def _refresh(self, st, why):
        """A status event at once; the next periodic one a full interval later."""
        node, vap = st.on
        st.reports += 1
        self.drivers[node].set_station(vap.ifname, st.mac, st.rssi_of(node, vap), st.rate)
        self._event(st, "status", node, vap, why)
        if st.status_interval:
            self._plan(st, "status", st.status_interval, self._status, st)

    def _hear(self, st, heard, why):
        """The station hears these BSSes ({(node, VAP kernel name): dBm}) so from now on; a
        change on its own BSS is reported at once."""
        before = st.rssi_of(*st.on) if st.on else None
        changed = {bss: rssi for bss, rssi in heard.items() if st.rssi_at.get(bss, st.rssi) != rssi}
        if not changed:
            return
        st.rssi_at.update(changed)
        names = {(n.name, v.ifname): v.mib for n in self.topology.nodes for v in n.vaps}
        self._record(st, "rssi", heard=[[node, names[(node, ifname)], rssi]
                                        for (node, ifname), rssi in sorted(changed.items())], why=why)
        if st.on is not None and st.rssi_of(*st.on) != before:
            self._refresh(st, why)

    def _plan(self, st, what, delay, fn, *args, lasting=False, also=None):
        """Runs fn(*args) in `delay` seconds unless, meanwhile, the station was replaced or (unless
        `lasting`) has moved, or `also()` (when given) says no; a status report also unless the
        reports started over."""
        gen, reports = st.generation, st.reports

        def valid():
            return (self.stations.get(st.mac) is st and (lasting or st.generation == gen)
                    and (what != "status" or st.reports == reports) and (also is None or also()))

        entry = (what, time.monotonic() + delay, valid)
        st.plans.append(entry)

        def run():
            st.plans.remove(entry)
            if valid():
                fn(*args)
        self.loop.call_later(delay, run)

    def _plans(self, st):
        """(what, due) of what the station still means to do, its status reports aside."""
        return [(what, due) for what, due, valid in st.plans if what != "status" and valid()]

    # -- helpers --------------------------------------------------------------------------------

    def _station(self, mac_address):
        m = mac(mac_address)
        if m not in self.stations:
            raise KeyError(f"the world has no station {m}")
        return self.stations[m]

    def _bss(self, node, vap, managed=True):
        """(node name, Vap) of a BSS named by node and VAP name; ValueError when there is none
        (or, when `managed`, when the node's daemon left it out)."""
        n = self.topology.node(node)
        v = n.vap(vap) if vap is not None else None
        if v is None:
            raise ValueError(f"node {n.name} has no VAP {vap!r} (VAPs: {', '.join(x.mib for x in n.vaps)})")
        if managed and self.drivers[n.name].bss_index(v) is None:
            raise ValueError(f"the daemon of {n.name} has not set up {v.mib} with its driver")
        return (n.name, v)

    def _find_bss(self, bssid):
        return next(((n.name, v) for n in self.topology.nodes for v in n.vaps if v.bssid == bssid), None)

    def _checked(self, settings):
        unknown = set(settings) - set(SETTABLE)
        if unknown:
            raise ValueError(f"a station has no setting {', '.join(sorted(unknown))} (settings: {', '.join(SETTABLE)})")
        out = dict(settings)
        if out.get("btm", "obey") not in BTM_BEHAVIOURS:
            raise ValueError(f"btm must be one of {', '.join(BTM_BEHAVIOURS)}, not {out['btm']!r}")
        if out.get("beacon", "answer") not in BEACON_BEHAVIOURS:
            raise ValueError(f"beacon must be one of {', '.join(BEACON_BEHAVIOURS)}, not {out['beacon']!r}")
        for key in DELAYS:
            if key in out and (isinstance(out[key], bool) or not isinstance(out[key], (int, float)) or out[key] < 0):
                raise ValueError(f"{key} is a number of seconds from 0, not {out[key]!r}")
        for key, lo, hi in (("rssi", -127, 0), ("bands", 0, 31), ("caps", 0, 31), ("nss", 1, 8),
                            ("rate", 1, 100000), ("load", 0, 255)):
            if key in out and (isinstance(out[key], bool) or not isinstance(out[key], int)
                               or not lo <= out[key] <= hi):
                raise ValueError(f"{key} is a whole number from {lo} to {hi}, not {out[key]!r}")
        if not isinstance(out.get("ssid", ""), str) or not isinstance(out.get("active", False), bool):
            raise ValueError("ssid is a text and active is true or false")
        if "rssi_at" in out:
            out["rssi_at"] = self._rssi_at(out["rssi_at"])
        return out

    def _rssi_at(self, value):
        """{(node, VAP kernel name): dBm} from that, or from {"A": {"wlan1": -50}, "B": -70}
        (a number for a node: all its VAPs)."""
        out = {}
        for key, v in value.items():
            if isinstance(key, tuple):
                items = [(key, v)]
            elif isinstance(v, dict):
                items = [((key, name), r) for name, r in v.items()]
            else:
                items = [((key, x.ifname), v) for x in self.topology.node(key).vaps]
            for (node, vap), rssi in items:
                n, x = self._bss(node, vap, managed=False)
                out[(n, x.ifname)] = self._checked({"rssi": rssi})["rssi"]
        return out

    def _path(self, path):
        """[(at, {(node, VAP kernel name): dBm})] of a path, checked: its points' times rise."""
        if not isinstance(path, list) or not path:
            raise ValueError("a path is a non-empty list of points {\"at\": seconds, \"rssi_at\": {...}}")
        points = []
        for i, point in enumerate(path, 1):
            if not isinstance(point, dict) or set(point) != {"at", "rssi_at"} or not isinstance(point["rssi_at"], dict):
                raise ValueError(f"point {i} of the path must have 'at' and 'rssi_at' (an object), and nothing else")
            at = point["at"]
            if isinstance(at, bool) or not isinstance(at, (int, float)) or at < 0:
                raise ValueError(f"point {i} of the path: 'at' is a number of seconds from 0, not {at!r}")
            if points and at <= points[-1][0]:
                raise ValueError(f"point {i} of the path comes at {at:g} s, not after the point before it")
            points.append((float(at), self._rssi_at(point["rssi_at"])))
        return points

    def _where(self, st):
        return (st.on[0], st.on[1].mib) if st.on else None

    def _count(self, node, vap):
        return sum(1 for s in self.stations.values() if s.on == (node, vap) or s.stale.get(node) is vap)

    def _show(self, st):
        blocks = {}
        for name, d in self.drivers.items():
            entry = d.block_of(st.mac)
            if entry and entry[0] != "MAPS_BLOCK_DEFAULT":
                blocks[name] = d.blocked_vaps(st.mac) if entry[0] == "MAPS_BLOCK_BSS" else "none"
        now = time.monotonic()
        return {"mac": st.mac, "ssid": st.ssid, "btm": st.btm, "beacon": st.beacon, "caps": st.caps,
                "bands": st.bands, "where": self._where(st), "stale": sorted(st.stale),
                "out_for": round(now - st.lost_at, 1) if st.lost_at is not None and st.on is None else None,
                "blocks": blocks,
                "plans": [[what, round(due - now, 1)] for what, due in self._plans(st)]}

    def _event(self, st, event, node, vap, why):
        d = self.drivers[node]
        try:
            d.sta_event(event, st.mac, d.bss_index(vap), why=why, bands=st.bands, caps=st.caps,
                        rssi=st.rssi_of(node, vap), nss=st.nss, load=st.load, sta_num=self._count(node, vap),
                        active=st.active)
        except OSError:
            return  # no daemon listens there (not started, killed): the radio goes on without it
        d.report_radios()       # its load or station count may have changed

    def _send(self, node, code, payload):
        try:
            self.drivers[node].inject(code, payload)
        except OSError:
            pass

    def _record(self, st, what, **fields):
        self.journal.add({"kind": "world", "what": what, "mac": st.mac,
                          **{k: v for k, v in fields.items() if v is not None}})


def path_at(points, at):
    """What a station walking `points` ([(at, {bss: dBm})], times rising) hears at `at` seconds:
    {bss: dBm} for each BSS a point at or before `at` names, on a straight line between the
    points that name it (rounded to whole dBm), held at the last one's after it."""
    out = {}
    for bss in {b for _, heard in points for b in heard}:
        known = [(t, heard[bss]) for t, heard in points if bss in heard]
        if at < known[0][0]:
            continue
        after = next((i for i, (t, _) in enumerate(known) if t > at), None)
        if after is None:
            out[bss] = known[-1][1]
        else:
            (t0, v0), (t1, v1) = known[after - 1], known[after]
            out[bss] = round(v0 + (v1 - v0) * (at - t0) / (t1 - t0))
    return out


def block_limit(topology):
    """How long the lab lets a station be blocked on every BSS of its ESS: the Backoff time-out
    of the lab's configuration ("bandherd.boff_timeout", default 25) plus 2 seconds."""
    def boff_timeout(node):
        try:
            return int(str(node.config.get("bandherd.boff_timeout", 25)), 0)
        except ValueError:
            return 25       # what the daemon reads from a value that is no number
    return 2 + max(boff_timeout(n) for n in topology.nodes)


def check_timeline(records, topology, limit, since=None, now=None):
    """What a timeline of world records says about lock-outs, counted from `since` (monotonic;
    None: from the start) up to `now` (default: the present):

      blocked_everywhere  {mac: the longest time the drivers' blocks kept it off every BSS of an ESS}
      lockouts            {mac: [seconds out, each time it lost its association]}
      problems            one line for each station blocked everywhere longer than `limit` seconds

    A station is blocked on a BSS from a "block" record naming it until the next "block" or
    "unblock" record of that station on that node."""
    now = time.monotonic() if now is None else now
    start = float("-inf") if since is None else since
    ess = {}
    for node in topology.nodes:
        for vap in node.vaps:
            ess.setdefault(vap.ssid, set()).add((node.name, vap.mib))
    blocked, everywhere_since, out_since = {}, {}, {}
    longest, lockouts = {}, {}

    def span(begin, end):
        return max(0.0, end - max(begin, start))

    for r in records:
        if r.get("kind") != "world":
            continue
        m, what, t = r["mac"], r["what"], r["mono"]
        if what in ("block", "unblock"):
            bsses = {x for x in blocked.get(m, set()) if x[0] != r["node"]}
            bsses |= {(r["node"], v) for v in r.get("vaps", [])}
            blocked[m] = bsses
            now_everywhere = any(all_of <= bsses for all_of in ess.values())
            if now_everywhere:
                everywhere_since.setdefault(m, t)
            elif m in everywhere_since:
                longest[m] = max(longest.get(m, 0.0), span(everywhere_since.pop(m), t))
        elif what == "leave" and r.get("lost"):
            out_since.setdefault(m, t)
        elif what in ("join", "leave", "add") and m in out_since:
            begin = out_since.pop(m)
            if t >= start:
                lockouts.setdefault(m, []).append(round(r.get("out_for", t - begin), 3))
    for m, begin in everywhere_since.items():
        longest[m] = max(longest.get(m, 0.0), span(begin, now))
    for m, begin in out_since.items():
        lockouts.setdefault(m, []).append(round(now - begin, 3))
    # The problems tell the figures as given (rounded once: a time told to a tenth of a second
    # agrees with the one given to a hundredth).
    blocked = {m: round(t, 2) for m, t in longest.items()}
    problems = [f"{m} was blocked on every BSS of its ESS for {blocked[m]:.1f} s (limit {limit} s)"
                for m, t in sorted(longest.items()) if t > limit]
    return {"limit": limit, "blocked_everywhere": blocked, "lockouts": lockouts, "problems": problems}
