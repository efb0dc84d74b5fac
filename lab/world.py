"""The radio world: stations that answer like real ones.

A station has a MAC, bands, capabilities, an RSSI towards every BSS of every
node, and a behaviour towards BSS transition requests. The driver doubles
drive it: a kick or a request moves it, their association blocks and radio
records refuse it, and while it is associated its node's driver reports its
status at a steady period. Everything that happens to a station is a record
of kind "world" in the lab's journal ("join", "leave", "kicked",
"btm_request", "btm_response", "btm_ignored", "refused", "locked_out",
"rssi"), so a test asserts on what happened to the station.

Everything here runs on the lab loop's thread; the public methods hop onto it.
"""

from dataclasses import dataclass, field
import time

from lab.driver import BANDS, CAPS, EV, mac_bytes, mac_text

BEHAVIOURS = ("obey", "reject", "ignore", "sticky")
# Wi-Fi's "reject, no reason given": any non-zero status is a rejection.
BTM_REJECT_STATUS = 1

DEFAULT_BANDS = BANDS["2G"] | BANDS["5L"] | BANDS["5H"]
DEFAULT_CAPS = CAPS["HT"] | CAPS["VHT"] | CAPS["RRM"] | CAPS["BTM"]


@dataclass
class Timing:
    """Seconds the stations take."""
    btm_answer: float = 0.3     # from the request to the response
    reassoc: float = 1.0        # from leaving (kicked, or told to go) to the next attempt
    sticky_return: float = 5.0  # a sticky station goes back after this long on the target
    retry: float = 2.0          # a station every BSS refused tries again after this long
    status: float = 5.0         # status events of an associated station (0: none)


@dataclass
class Station:
    mac: str
    ssid: str
    bands: int = DEFAULT_BANDS
    caps: int = DEFAULT_CAPS
    nss: int = 2
    rssi: int = -60                        # towards any BSS without a value of its own
    rssi_to: dict = field(default_factory=dict)   # (node, VAP kernel name) -> dBm
    btm: str = "obey"
    active: bool = False
    load: int = 0
    on: tuple = None                       # (node, Vap) while associated
    lost_at: float = None                  # monotonic time it lost its association
    lockouts: list = field(default_factory=list)   # seconds out, one per return
    generation: int = 0                    # bumped by every move: stale timers see it

    def rssi_of(self, node, vap):
        return self.rssi_to.get((node, vap.ifname), self.rssi)


class World:
    def __init__(self, topology, loop, journal, drivers, timing=None):
        self.topology = topology
        self.loop = loop
        self.journal = journal
        self.drivers = drivers            # node name -> DriverDouble
        self.timing = timing or Timing()
        self.stations = {}                # mac -> Station
        for d in drivers.values():
            d.world = self

    # -- from tests and the command line (any thread) ---------------------------------

    def add(self, mac, ssid, **fields):
        """A station, not yet associated; `btm` is one of BEHAVIOURS."""
        mac = mac_text(mac_bytes(mac))
        if fields.get("btm", "obey") not in BEHAVIOURS:
            raise ValueError(f"btm must be one of {', '.join(BEHAVIOURS)}")
        st = Station(mac=mac, ssid=ssid, **fields)
        self.loop.call(lambda: self.stations.__setitem__(mac, st))
        return st

    def connect(self, mac, node=None, vap=None):
        """The station associates: to the given BSS, or to the strongest that lets it in."""
        def go():
            st = self.stations[mac]
            prefer = (node, self.topology.node(node).vap(vap)) if node else None
            self._connect(st, prefer=prefer, only=prefer is not None)
        self.loop.call(go)

    def disconnect(self, mac):
        """The station leaves and stays away."""
        self.loop.call(lambda: self._leave(self.stations[mac], "disconnect", reconnect=False))

    def set_rssi(self, mac, rssi, node=None, vap=None):
        def go():
            st = self.stations[mac]
            if node is None:
                st.rssi = rssi
            else:
                st.rssi_to[(node, self.topology.node(node).vap(vap).ifname)] = rssi
            self._record(st, "rssi", rssi=rssi, at=node and f"{node} {vap}")
        self.loop.call(go)

    def where(self, mac):
        """(node, VAP configuration name) or None."""
        return self.loop.call(lambda: self._where(self.stations[mac]))

    def lockouts(self, mac):
        return self.loop.call(lambda: list(self.stations[mac].lockouts))

    def timeline(self, mac):
        return self.journal.records(kind="world", mac=mac)

    def show(self):
        """Every station: where it is, its behaviour, its lock-outs, its blocks per node."""
        def collect():
            out = []
            for st in self.stations.values():
                blocks = {n: d.block_of(st.mac) for n, d in self.drivers.items() if d.block_of(st.mac)}
                out.append({"mac": st.mac, "ssid": st.ssid, "btm": st.btm, "where": self._where(st),
                            "lockouts": [round(x, 2) for x in st.lockouts], "blocks": blocks})
            return out
        return self.loop.call(collect)

    # -- from the driver doubles (loop thread) ----------------------------------------

    def kicked(self, node, vap, mac):
        st = self.stations.get(mac)
        if st is None or st.on is None or st.on[0] != node or st.on[1] is not vap:
            return
        self._record(st, "kicked", node=node, vap=vap.mib)
        self._leave(st, "kicked")

    def btm_request(self, node, vap, mac, target, channel):
        st = self.stations.get(mac)
        if st is None or st.on is None or st.on[0] != node:
            return
        self._record(st, "btm_request", node=node, target=target, channel=channel)
        if not st.caps & CAPS["BTM"] or st.btm == "ignore":
            self._record(st, "btm_ignored", node=node)
            return
        gen = st.generation
        status = BTM_REJECT_STATUS if st.btm == "reject" else 0

        def answer():
            if st.generation != gen:
                return
            index = self.drivers[node].bss_index(vap)
            try:
                self.drivers[node].inject(EV["BSS_TRANS"], mac_bytes(mac) + bytes([index, status]))
            except OSError:
                pass
            self._record(st, "btm_response", node=node, status=status)
            if status == 0:
                self.loop.call_later(self.timing.reassoc, move, gen)

        def move(g):
            if st.generation != g:
                return
            home = st.on
            dest = self._find_bss(target)
            self._leave(st, "btm", reconnect=False)
            self._connect(st, prefer=dest)
            if st.btm == "sticky" and home is not None:
                self.loop.call_later(self.timing.sticky_return, back, st.generation, home)

        def back(g, home):
            if st.generation != g or st.on is None:
                return
            self._leave(st, "sticky", reconnect=False)
            self._connect(st, prefer=home)

        self.loop.call_later(self.timing.btm_answer, answer)

    # -- moving ----------------------------------------------------------------------

    def _where(self, st):
        return (st.on[0], st.on[1].mib) if st.on else None

    def _record(self, st, what, **fields):
        self.journal.add({"kind": "world", "what": what, "mac": st.mac,
                          **{k: v for k, v in fields.items() if v is not None}})

    def _find_bss(self, bssid):
        for node in self.topology.nodes:
            for vap in node.vaps:
                if vap.bssid.lower() == bssid.lower():
                    return (node.name, vap)
        return None

    def _candidates(self, st):
        """Every BSS of the station's ESS on a band it has, strongest first."""
        found = []
        for node in self.topology.nodes:
            for vap in node.vaps:
                if vap.ssid == st.ssid and BANDS.get(vap.radio.band, 0) & st.bands:
                    found.append((node.name, vap))
        return sorted(found, key=lambda c: -st.rssi_of(*c))

    def _count(self, node, vap):
        return sum(1 for s in self.stations.values() if s.on and s.on[0] == node and s.on[1] is vap)

    def _event(self, st, event, node, vap):
        d = self.drivers[node]
        try:
            d.sta_event(event, st.mac, d.bss_index(vap), bands=st.bands, caps=st.caps, rssi=st.rssi_of(node, vap),
                        nss=st.nss, load=st.load, sta_num=self._count(node, vap), active=st.active)
        except OSError:
            pass  # no daemon listens there (killed): the radio goes on without it

    def _leave(self, st, why, reconnect=True):
        if st.on is None:
            return
        node, vap = st.on
        st.on = None
        st.generation += 1
        st.lost_at = time.monotonic()
        self._event(st, "leave", node, vap)
        self._record(st, "leave", node=node, vap=vap.mib, why=why)
        if reconnect:
            gen = st.generation
            self.loop.call_later(self.timing.reassoc, lambda: st.generation == gen and self._connect(st))

    def _connect(self, st, prefer=None, only=False):
        """Tries `prefer` first (alone when `only`), then every BSS of the ESS, strongest first."""
        if st.on is not None:
            return
        order = [prefer] if prefer else []
        if not only:
            order += [c for c in self._candidates(st) if c != prefer]
        for node, vap in order:
            d = self.drivers[node]
            if d.bss_index(vap) is None:
                continue
            rssi = st.rssi_of(node, vap)
            if d.refuses(vap, st.mac, rssi):
                self._record(st, "refused", node=node, vap=vap.mib, rssi=rssi)
                continue
            self._join(st, node, vap)
            return
        self._record(st, "locked_out", retry=self.timing.retry)
        gen = st.generation
        self.loop.call_later(self.timing.retry, lambda: st.generation == gen and self._connect(st, prefer, only))

    def _join(self, st, node, vap):
        st.on = (node, vap)
        st.generation += 1
        out = None
        if st.lost_at is not None:
            out = round(time.monotonic() - st.lost_at, 3)
            st.lockouts.append(out)
            st.lost_at = None
        self.drivers[node].set_station(vap.ifname, st.mac, st.rssi_of(node, vap), 300)
        self._event(st, "join", node, vap)
        self._record(st, "join", node=node, vap=vap.mib, rssi=st.rssi_of(node, vap), out_for=out)
        if self.timing.status:
            self._schedule_status(st, st.generation)

    def _schedule_status(self, st, gen):
        def report():
            if st.generation != gen or st.on is None:
                return
            node, vap = st.on
            self._event(st, "status", node, vap)
            self._schedule_status(st, gen)
        self.loop.call_later(self.timing.status, report)


def blocked_everywhere(records, topology, bss_indices):
    """The longest time each station was blocked on every BSS of an ESS on every node.

    `records`: journal records (the driver doubles' MAPS_CMD_SET_STA among
    them, in order); `bss_indices`: node -> {VAP kernel name: driver index}.
    Returns {mac: seconds}, counting a block still in place up to now."""
    essids = {}
    for node in topology.nodes:
        for vap in node.vaps:
            if vap.ifname in bss_indices.get(node.name, {}):
                essids.setdefault(vap.ssid, {}).setdefault(node.name, 0)
                essids[vap.ssid][node.name] |= 1 << bss_indices[node.name][vap.ifname]
    state = {}      # (mac, node) -> blocked bits
    since = {}      # mac -> monotonic time it became blocked everywhere
    longest = {}

    def everywhere(mac):
        return any(all(state.get((mac, n), 0) & bits == bits for n, bits in nodes.items())
                   for nodes in essids.values())

    for r in records:
        if r.get("kind") != "maps" or r.get("cmd") != "MAPS_CMD_SET_STA" or "fields" not in r:
            continue
        f = r["fields"]
        mac = f["mac"]
        state[(mac, r["node"])] = f["block_bss"] if f["mode"] == "MAPS_BLOCK_BSS" else 0
        now_blocked = everywhere(mac)
        if now_blocked and mac not in since:
            since[mac] = r["mono"]
        elif not now_blocked and mac in since:
            longest[mac] = max(longest.get(mac, 0), r["mono"] - since.pop(mac))
    now = time.monotonic()
    for mac, start in since.items():
        longest[mac] = max(longest.get(mac, 0), now - start)
    return longest
