"""A lab topology: the nodes of the mesh, their radios, VAPs, backhaul and configuration.

A topology is a JSON file:

    {"nodes": [
      {"name": "A", "id": "02:00:00:00:0a:00", "portal": true,
       "radios": [{"name": "r2", "band": "2G", "channels": [1, 6, 11], "channel": 6},
                  {"name": "r5", "band": "5L", "channels": [36, 40, 44, 48], "channel": 36}],
       "vaps": [{"ifname": "wl0", "mib": "wlan0", "radio": "r2", "ssid": "herd",
                 "bssid": "02:00:00:00:0a:01"}, ...],
       "backhaul": {"ifname": "wl1-sta", "mib": "wlan1-sta", "channel": 36,
                    "uplink": "A", "rate": 866, "hops": 1},
       "config": {"bandherd.enable": 1, "bandherd.ess": "wlan0,wlan1"}}]}

`load` reads and checks such a file (or `parse` an already decoded object) and
returns a `Topology`; every mistake found is reported in one `TopologyError`.
"""

import difflib
import ipaddress
import json
import re
from dataclasses import dataclass, field
from pathlib import Path

BANDS = ("2G", "5L", "5H", "6G")
# Channels a radio of each band may use; a 5 GHz radio may list channels of
# both halves, but its current channel lies in its own half.
BAND_CHANNELS = {"2G": range(1, 15), "5L": range(36, 197), "5H": range(36, 197), "6G": range(1, 234)}
BAND_CURRENT = {"2G": range(1, 15), "5L": range(36, 65), "5H": range(100, 197), "6G": range(1, 234)}
BAND_WIDTH = {"2G": 20, "5L": 80, "5H": 80, "6G": 160}
# How a daemon reads a radio's band from its channel list: the first row whose range holds every
# channel of the list; a list on both 5 GHz halves ("5") is told apart by the current channel.
# So a 6 GHz radio's list needs a channel that no 2.4 or 5 GHz range holds (15 to 35, above 196).
BAND_ROWS = (("2G", range(1, 15)), ("5L", range(36, 65)), ("5H", range(100, 197)), ("5", range(36, 197)),
             ("6G", range(1, 234)))


def band_of_channels(channels, channel):
    """The band a daemon reads from a radio's channel list and current channel, or None."""
    for band, rows in BAND_ROWS:
        if all(c in rows for c in channels):
            if band == "5":
                return "5L" if channel in BAND_CURRENT["5L"] else "5H" if channel in BAND_CURRENT["5H"] else None
            return band
    return None

WIDTHS = (20, 40, 80, 160, 320)
NETWORK = ipaddress.ip_network("169.254.100.0/24")
BROADCAST = "ff:ff:ff:ff:ff:ff"
LAB_ADDRESS = "02:1a:b0:1a:b0:00"   # the source address of mesh messages the lab itself sends
WIRED_BACKHAUL = "eth0"    # the node end of a wired backhaul link
RESERVED_IFNAMES = ("lo", "br0")
PEER_IFNAME = "vap-peer{}"     # the other end of a VAP's veth, inside the node

# Every configuration key the daemon reads (the README's configuration table). A key
# given anywhere else (a topology's "config", `up --set`, `Lab.write_conf`) is a
# mistake; a key the daemon learns to read is added here, in its group.
CONFIG_KEYS = (
    # running and logging
    "bandherd.enable", "bandherd.log_level", "bandherd.log_size", "bandherd.log_time", "bandherd.log_path",
    # the node and its mesh
    "bandherd.ess", "bandherd.en_ap", "bandherd.max_sta", "bandherd.roam_kick", "bandherd.backhaul",
    "bandherd.mppmac", "bandherd.max_mac",
    # rate estimation
    "bandherd.rate_factor", "bandherd.rate_rd_ratio",
    # RSSI on another band
    "bandherd.rssi_2to5", "bandherd.rssi_5to2", "bandherd.rssi.5to6", "bandherd.rssi.6to5",
    "bandherd.rssi.2to6", "bandherd.rssi.6to2",
    # rate at an RSSI, by PHY and streams
    "bandherd.rate_ag", "bandherd.rate_1xn", "bandherd.rate_2xn", "bandherd.rate_1xac", "bandherd.rate_2xac",
    "bandherd.rate_2xax_2g", "bandherd.rate_2xax_5g", "bandherd.rate_2xax_6g",
    # steering limits and prohibitions
    "bandherd.ph_short_base", "bandherd.ph_short_factor", "bandherd.ph_short_max",
    "bandherd.ph_long_base", "bandherd.ph_long_factor", "bandherd.ph_long_max",
    # BTM steering
    "bandherd.en_btm", "bandherd.btm_no_2g", "bandherd.btm_timeout", "bandherd.msg_sync_timeout",
    "bandherd.ph_low_rssi", "bandherd.btm_prohibit", "bandherd.btm_interval", "bandherd.btm_burst",
    # Backoff steering
    "bandherd.en_boff", "bandherd.en_boff_active", "bandherd.reject_cnt", "bandherd.boff_block_less",
    "bandherd.boff_timeout", "bandherd.boff_interval", "bandherd.boff_burst",
    # steering actions
    "bandherd.btm_dual_band", "bandherd.en_btm_fb", "bandherd.seesaw_interval", "bandherd.seesaw_tolerance",
    "bandherd.fb_rssi_dither",
    # the steering controller: the driver's association control, RSSI triggers, load, protected stations
    "bandherd.reject_probe", "bandherd.en_pre_up", "bandherd.en_pre_down", "bandherd.en_pre_ol",
    "bandherd.en_post_up", "bandherd.en_post_down", "bandherd.en_post_ol", "bandherd.lrssi_2", "bandherd.hrssi_2",
    "bandherd.lrssi_5", "bandherd.mode", "bandherd.lrssi_down_5", "bandherd.probe_age", "bandherd.reject_age",
    "bandherd.active_slot", "bandherd.active_flow", "bandherd.hload_2", "bandherd.hload_5", "bandherd.hsta_2",
    "bandherd.hsta_5", "bandherd.ssta_2", "bandherd.ssta_5", "bandherd.sload_2", "bandherd.sload_5",
    "bandherd.load_trigger", "bandherd.ol_interval", "bandherd.band_safe_rssi_5", "bandherd.delay_reject_probe",
    "bandherd.delay_reject_auth", "bandherd.delay_reject_age", "bandherd.delay_reject_stanum", "bandherd.pt_sta",
    "weft.node_steering",
    # neighbour selection by beacon reports
    "bandherd.best_cand_reconfirm", "bandherd.full_measure", "bandherd.rcpi_trans", "bandherd.rcpi_estimate",
    "bandherd.br_interval", "bandherd.br_burst", "bandherd.br_timeout", "bandherd.ap_safe_rssi_5",
    "bandherd.ap_tg_ratio", "bandherd.rssi_delta",
)

_MAC = re.compile(r"[0-9a-f]{2}(:[0-9a-f]{2}){5}")
_NODE_NAME = re.compile(r"[A-Za-z0-9_-]{1,12}")
_IFNAME = re.compile(r"[A-Za-z0-9_.-]{1,15}")
_TOKEN = re.compile(r"\S{1,31}")


class ProblemsError(ValueError):
    """A document the lab cannot use; the message lists every problem."""

    what = "document"

    def __init__(self, problems, source=None):
        self.problems = list(problems)
        head = f"bad {self.what} {source}" if source else f"bad {self.what}"
        super().__init__(head + ":\n" + "\n".join("  " + p for p in self.problems))


class TopologyError(ProblemsError):
    """A topology that the lab cannot build."""

    what = "topology"


@dataclass
class Radio:
    name: str
    band: str
    channels: list
    channel: int
    bandwidth: int
    load: int = 0
    sta_num: int = 0


@dataclass
class Vap:
    ifname: str          # kernel interface name
    mib: str             # configuration-store name
    radio: Radio
    ssid: str
    bssid: str
    sta_max: int = 64
    rrm: int = 1         # 802.11k
    btm: int = 1         # 802.11v


@dataclass
class Backhaul:
    """The wireless backhaul station interface of a node."""
    ifname: str
    mib: str
    channel: int
    uplink: str          # name of the node it is associated to
    uplink_bssid: str    # the BSSID it is associated to
    rate: int            # link rate, Mbit/s
    rssi: int
    hops: int            # hop count to the portal
    bandwidth: int
    mac: str = None      # address of the station interface (random when None)


@dataclass
class Node:
    name: str
    id: str              # MAC of br0, the node id on the mesh
    portal: bool
    address: str         # IPv4 address of br0
    index: int           # position in the topology, from 0
    radios: list = field(default_factory=list)
    vaps: list = field(default_factory=list)
    backhaul: Backhaul = None
    config: dict = field(default_factory=dict)

    @property
    def uplink_ifname(self):
        """Kernel name of the node's end of its link onto the backbone."""
        return self.backhaul.ifname if self.backhaul else WIRED_BACKHAUL

    def radio(self, name):
        return next((r for r in self.radios if r.name == name), None)

    def vap(self, name):
        """The VAP whose kernel or configuration-store name is `name`, or None."""
        return next((v for v in self.vaps if name in (v.ifname, v.mib)), None)

    def bss_problem(self, index, told=None):
        """Why `index` is no driver BSS index of this node, or None. A daemon numbers its VAPs
        from 1; `told` ({index: kernel name}) is what it gave its driver (MAPS_CMD_SET_BSS), once it has."""
        if told:
            if index in told:
                return None
            have = ", ".join(f"{i} ({self.vap(n).mib if self.vap(n) else n})" for i, n in sorted(told.items()))
            return f"node {self.name} has no BSS {index} (its daemon set up {have})"
        if isinstance(index, int) and not isinstance(index, bool) and 1 <= index <= len(self.vaps):
            return None
        return f"node {self.name} has no BSS {index!r} (its {len(self.vaps)} VAPs are BSS 1 to {len(self.vaps)})"

    def conf_lines(self):
        """The node's bandherd.conf text."""
        return "".join(f"{k}={conf_value(v)}\n" for k, v in self.config.items())


@dataclass
class Topology:
    nodes: list
    source: str = None
    raw: dict = None

    def config_problems(self, settings):
        """What is wrong with configuration keys meant for this topology's nodes (a list)."""
        return config_problems(settings)

    def node(self, name):
        """The node named `name` or whose id is `name`; KeyError if none."""
        for n in self.nodes:
            if name in (n.name, n.id):
                return n
        raise KeyError(f"no node {name!r} in the topology (nodes: {', '.join(self.names())})")

    def names(self):
        return [n.name for n in self.nodes]

    @property
    def portal(self):
        return next(n for n in self.nodes if n.portal)

    def to_json(self):
        return json.dumps(self.raw, indent=2) + "\n"


def config_problems(settings):
    """What keeps `settings` ({key: value}) from being written to a node's bandherd.conf: keys
    the daemon does not read (not in CONFIG_KEYS), keys or values that are no key=value line.
    A list of one-line problems."""
    problems = []
    known = CONFIG_KEYS
    for k, v in settings.items():
        if not isinstance(k, str) or not k or "=" in k or "\n" in k or k != k.strip() or k.startswith("#"):
            problems.append(f"config key {k!r} cannot be written as a key=value line")
            continue
        if k not in known:
            close = difflib.get_close_matches(k, known, 1)
            problems.append(f"unknown config key {k!r}"
                            + (f" (did you mean {close[0]!r}?)" if close else
                               " (the configuration table of README.md lists the keys)"))
        if not isinstance(v, (str, int, float, bool)) or "\n" in str(v):
            problems.append(f"config value of {k!r} must be one line of text or a number")
    return problems


def conf_value(v):
    """A configuration value as its key=value line writes it."""
    if isinstance(v, bool):
        return "1" if v else "0"
    return str(v)


def load(path):
    """Reads and checks a topology file."""
    path = Path(path)
    try:
        raw = json.loads(path.read_text())
    except OSError as e:
        raise TopologyError([f"cannot read it: {e.strerror}"], path) from None
    except json.JSONDecodeError as e:
        raise TopologyError([f"not JSON: {e}"], path) from None
    return parse(raw, str(path))


def parse(raw, source=None):
    """Checks a decoded topology object and builds the `Topology`."""
    p = _Parser()
    topo = p.topology(raw)
    if p.problems:
        raise TopologyError(p.problems, source)
    topo.source = source
    topo.raw = raw
    return topo


class Checker:
    """Collects every problem of a document at once, each with where it is."""

    def __init__(self):
        self.problems = []

    def err(self, where, text):
        self.problems.append(f"{where}: {text}" if where else text)

    def fields(self, obj, where, required, optional):
        """Checks that `obj` is an object with the required keys and no unknown ones."""
        if not isinstance(obj, dict):
            self.err(where, "must be an object")
            return False
        ok = True
        for k in required:
            if k not in obj:
                self.err(where, f"'{k}' is missing")
                ok = False
        for k in obj:
            if k not in required and k not in optional:
                self.err(where, f"unknown key '{k}' (known: {', '.join(list(required) + list(optional))})")
        return ok

    def is_integer(self, obj, key, where, lo, hi, default=None):
        v = obj.get(key, default)
        if isinstance(v, bool) or not isinstance(v, int) or not lo <= v <= hi:
            self.err(where, f"'{key}' must be an integer from {lo} to {hi}, not {v!r}")
            return False
        return True

    def integer(self, obj, key, where, lo, hi, default=None):
        if not self.is_integer(obj, key, where, lo, hi, default):
            return default if default is not None else lo
        return obj.get(key, default)


class _Parser(Checker):
    def mac(self, obj, key, where):
        v = obj.get(key)
        if not isinstance(v, str) or not _MAC.fullmatch(v.lower()):
            self.err(where, f"'{key}' must be a MAC address xx:xx:xx:xx:xx:xx, not {v!r}")
            return None
        v = v.lower()
        if int(v[:2], 16) & 1 or v == "00:00:00:00:00:00":
            self.err(where, f"'{key}' {v} is not a unicast address")
        return v

    def topology(self, raw):
        if not self.fields(raw, "", ["nodes"], []):
            return None
        nodes_raw = raw["nodes"]
        if not isinstance(nodes_raw, list) or not nodes_raw:
            self.err("", "'nodes' must be a non-empty list")
            return None
        if len(nodes_raw) > 254:
            self.err("", f"{len(nodes_raw)} nodes; the lab has addresses for 254")
        nodes = [self.node(i, n) for i, n in enumerate(nodes_raw)]
        nodes = [n for n in nodes if n is not None]
        self.across_nodes(nodes, nodes_raw)
        return Topology(nodes)

    def node(self, index, raw):
        where = f"node #{index + 1}"
        if isinstance(raw, dict) and isinstance(raw.get("name"), str):
            where = f"node '{raw['name']}'"
        if not self.fields(raw, where, ["name", "id"],
                           ["portal", "address", "radios", "vaps", "backhaul", "config"]):
            return None
        name = raw["name"]
        if not isinstance(name, str) or not _NODE_NAME.fullmatch(name):
            self.err(where, "'name' must be 1 to 12 letters, digits, '_' or '-'")
        portal = raw.get("portal", False)
        if not isinstance(portal, bool):
            self.err(where, "'portal' must be true or false")
        node = Node(name=name, id=self.mac(raw, "id", where), portal=portal is True,
                    address=self.address(raw, index, where), index=index)
        radios_raw = raw.get("radios", [])
        if not isinstance(radios_raw, list):
            self.err(where, "'radios' must be a list")
            radios_raw = []
        for i, r in enumerate(radios_raw):
            radio = self.radio(r, self.label(where, "radio", "name", r, i))
            if radio is None:
                continue
            if node.radio(radio.name):
                self.err(where, f"two radios are named '{radio.name}'")
            node.radios.append(radio)
        vaps_raw = raw.get("vaps", [])
        if not isinstance(vaps_raw, list):
            self.err(where, "'vaps' must be a list")
            vaps_raw = []
        for i, v in enumerate(vaps_raw):
            vap = self.vap(v, node, self.label(where, "vap", "ifname", v, i))
            if vap is not None:
                node.vaps.append(vap)
        if "backhaul" in raw:
            node.backhaul = self.backhaul_fields(raw["backhaul"], f"{where} backhaul")
        node.config = self.config(raw.get("config", {}), where)
        self.interface_names(node, where)
        return node

    def address(self, raw, index, where):
        if "address" not in raw:
            return str(NETWORK.network_address + index + 1)
        try:
            a = ipaddress.ip_address(raw["address"])
        except (ValueError, TypeError):
            a = None
        if a is None or a not in NETWORK or a in (NETWORK.network_address, NETWORK.broadcast_address):
            self.err(where, f"'address' must be a host address of {NETWORK}, not {raw['address']!r}")
            return str(NETWORK.network_address + index + 1)
        return str(a)

    @staticmethod
    def label(where, what, key, raw, index):
        """How a list item is named in messages: by its name when it has one."""
        if isinstance(raw, dict) and isinstance(raw.get(key), str):
            return f"{where} {what} '{raw[key]}'"
        return f"{where} {what} #{index + 1}"

    def radio(self, raw, where):
        if not self.fields(raw, where, ["name", "band", "channels", "channel"],
                           ["bandwidth", "load", "sta_num"]):
            return None
        name, band, chans = raw["name"], raw["band"], raw["channels"]
        if not isinstance(name, str) or not _TOKEN.fullmatch(name):
            self.err(where, "'name' must be a word without blanks")
        if band not in BANDS:
            self.err(where, f"'band' must be one of {', '.join(BANDS)}, not {band!r}")
            return None
        if (not isinstance(chans, list) or not chans
                or not all(isinstance(c, int) and not isinstance(c, bool) for c in chans)):
            self.err(where, "'channels' must be a non-empty list of channel numbers")
            return None
        outside = [c for c in chans if c not in BAND_CHANNELS[band]]
        if outside:
            self.err(where, f"channels {outside} are not {band} channels")
        if len(set(chans)) != len(chans):
            self.err(where, "'channels' lists a channel twice")
        channel = raw["channel"]
        if channel not in chans:
            self.err(where, f"'channel' {channel!r} is not in its 'channels'")
        elif channel not in BAND_CURRENT[band]:
            self.err(where, f"'channel' {channel} is not a {band} channel")
        elif not outside and band_of_channels(chans, channel) != band:
            self.err(where, f"a daemon reads the band of channels {chans} as "
                            f"{band_of_channels(chans, channel) or 'none'}, not {band} (the first of 2G 1-14, "
                            f"5L 36-64, 5H 100-196, 5 GHz 36-196, 6G 1-233 that holds them all)")
        bandwidth = raw.get("bandwidth", BAND_WIDTH[band])
        if bandwidth not in WIDTHS:
            self.err(where, f"'bandwidth' must be one of {WIDTHS} (MHz), not {bandwidth!r}")
        return Radio(name=name, band=band, channels=list(chans), channel=channel, bandwidth=bandwidth,
                     load=self.integer(raw, "load", where, 0, 100, 0),
                     sta_num=self.integer(raw, "sta_num", where, 0, 255, 0))

    def vap(self, raw, node, where):
        if not self.fields(raw, where, ["ifname", "mib", "radio", "ssid", "bssid"],
                           ["sta_max", "11k", "11v"]):
            return None
        ifname, mib, ssid = raw["ifname"], raw["mib"], raw["ssid"]
        self.ifname(ifname, where)
        if not isinstance(mib, str) or not _TOKEN.fullmatch(mib):
            self.err(where, "'mib' (configuration-store name) must be 1 to 15 characters without blanks")
        elif len(mib) > 15:
            self.err(where, f"'mib' {mib!r} is longer than 15 characters")
        if not isinstance(ssid, str) or len(ssid.encode()) > 32:
            self.err(where, "'ssid' must be a text of at most 32 bytes")
            ssid = ""
        radio = node.radio(raw["radio"]) if isinstance(raw["radio"], str) else None
        if radio is None:
            have = ", ".join(r.name for r in node.radios) or "none"
            self.err(where, f"'radio' {raw['radio']!r} is no radio of this node (radios: {have})")
            return None
        return Vap(ifname=ifname, mib=mib, radio=radio, ssid=ssid, bssid=self.mac(raw, "bssid", where),
                   sta_max=self.integer(raw, "sta_max", where, 0, 255, 64),
                   rrm=self.integer(raw, "11k", where, 0, 1, 1),
                   btm=self.integer(raw, "11v", where, 0, 1, 1))

    def ifname(self, name, where, key="ifname"):
        if not isinstance(name, str) or not _IFNAME.fullmatch(name):
            if isinstance(name, str) and len(name) > 15:
                self.err(where, f"'{key}' {name!r} is longer than 15 characters (a kernel interface name)")
            else:
                self.err(where, f"'{key}' must be a kernel interface name (letters, digits, '_', '-', '.')")
            return False
        if name in RESERVED_IFNAMES or re.fullmatch(PEER_IFNAME.format(r"\d+"), name):
            self.err(where, f"'{key}' {name!r} is taken by the lab")
            return False
        return True

    def backhaul_fields(self, raw, where):
        if not self.fields(raw, where, ["ifname", "mib", "channel", "uplink"],
                           ["uplink_bssid", "rate", "rssi", "hops", "bandwidth", "mac"]):
            return None
        self.ifname(raw["ifname"], where)
        mib = raw["mib"]
        if not isinstance(mib, str) or not _TOKEN.fullmatch(mib) or len(mib) > 15:
            self.err(where, "'mib' must be 1 to 15 characters without blanks")
        if not isinstance(raw["uplink"], str):
            self.err(where, "'uplink' must be the name of another node")
        bh = Backhaul(ifname=raw["ifname"], mib=mib,
                      channel=self.integer(raw, "channel", where, 1, 233),
                      uplink=raw["uplink"], uplink_bssid=None,
                      rate=self.integer(raw, "rate", where, 0, 100000, 300),
                      rssi=self.integer(raw, "rssi", where, -127, 0, -55),
                      hops=self.integer(raw, "hops", where, 1, 255, 1),
                      bandwidth=raw.get("bandwidth", 80))
        if bh.bandwidth not in WIDTHS:
            self.err(where, f"'bandwidth' must be one of {WIDTHS} (MHz), not {bh.bandwidth!r}")
        if "uplink_bssid" in raw:
            bh.uplink_bssid = self.mac(raw, "uplink_bssid", where)
        if "mac" in raw:
            bh.mac = self.mac(raw, "mac", where)
        return bh

    def config(self, raw, where):
        if not isinstance(raw, dict):
            self.err(where, "'config' must be an object of configuration keys")
            return {}
        for problem in config_problems(raw):
            self.err(where, problem)
        return dict(raw)

    def interface_names(self, node, where):
        """Kernel and configuration-store names must each name one interface of the node."""
        names = []      # (name, owner number, owner label)
        for i, v in enumerate(node.vaps):
            names += [(v.ifname, i, f"vap '{v.ifname}'"), (v.mib, i, f"vap '{v.ifname}'")]
        if node.backhaul:
            names += [(node.backhaul.ifname, -1, "the backhaul"), (node.backhaul.mib, -1, "the backhaul")]
        else:
            names.append((WIRED_BACKHAUL, -1, "the wired backhaul"))
        seen = {}
        for name, owner, label in names:
            if name in seen and seen[name][0] != owner:
                self.err(where, f"the name '{name}' is used by both {seen[name][1]} and {label}")
            seen.setdefault(name, (owner, label))

    def across_nodes(self, nodes, nodes_raw):
        by_name = {}
        for n in nodes:
            if n.name in by_name:
                self.err("", f"two nodes are named '{n.name}'")
            by_name[n.name] = n
        macs, addresses = {LAB_ADDRESS: "the lab's own mesh address"}, {}
        for n in nodes:
            owners = [(n.id, f"node '{n.name}'")]
            owners += [(v.bssid, f"vap '{v.ifname}' of node '{n.name}'") for v in n.vaps]
            if n.backhaul and n.backhaul.mac:
                owners.append((n.backhaul.mac, f"the backhaul of node '{n.name}'"))
            for mac, owner in owners:
                if mac is None:
                    continue
                if mac in macs:
                    self.err("", f"{owner} and {macs[mac]} have the same MAC {mac}")
                macs.setdefault(mac, owner)
            if n.address in addresses:
                self.err("", f"nodes '{addresses[n.address]}' and '{n.name}' have the same address {n.address}")
            addresses.setdefault(n.address, n.name)
        portals = [n.name for n in nodes if n.portal]
        if len(portals) != 1:
            self.err("", f"exactly one node must be the portal (\"portal\": true), not {len(portals)}"
                     + (f" ({', '.join(portals)})" if portals else ""))
        for n in nodes:
            bh = n.backhaul
            if bh is None:
                continue
            where = f"node '{n.name}' backhaul"
            up = by_name.get(bh.uplink)
            if up is None or up is n:
                self.err(where, f"'uplink' {bh.uplink!r} must name another node")
                continue
            if bh.uplink_bssid is None:
                same = [v for v in up.vaps if v.radio.channel == bh.channel]
                pick = same or up.vaps
                bh.uplink_bssid = pick[0].bssid if pick else up.id
        # Keys the lab derives from the topology unless the node sets them.
        if len(portals) == 1 and not self.problems:
            portal = by_name[portals[0]]
            for n in nodes:
                n.config.setdefault("bandherd.mppmac", portal.id)
                if n.backhaul:
                    n.config.setdefault("bandherd.backhaul", n.backhaul.mib)
