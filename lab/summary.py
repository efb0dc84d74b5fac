"""What the daemons' steering did, read from a lab's records: every steer, and the figures of a run.

A steer is one attempt of one node to move one station to one BSS, as the
radio world saw it:

    BTM      a BSS transition request reached the station ("btm_request");
    Backoff  a node kicked the station while the drivers blocked it ("kicked" while
             a "block" is in force); it began with the first block since the
             station's last association or the station's previous steer.

A BTM steer that fails and falls back to Backoff is two steers. A steer
succeeds when the station's first association after it began, before its next
steer, is on the target BSS; its time to steer runs from the request (or the
first block) to that association. The target of a Backoff steer is the one the
node's log names ("try to steer STA to BSSID with Backoff"), else the one BSS of
the station's ESS nobody blocks.

Why it was started comes from the node's steering log (/var/run/steer.log,
"[steer trigger] from REASON, sta STA steer to bss BSSID": CMD, HIGH_RSSI,
LOW_RSSI, OVERLOAD ...), else from its daemon log: the controller's lines about
the station before the steer (high or low RSSI, an overloaded radio) or the
command channel's result after it (CMD); a Backoff steer that follows a failed
BTM steer of the same node keeps that one's reason.

`steers` lists them, `tally` gives the figures (attempts and successes by
mechanism and reason, the median time to steer, the longest lock-out, the
stations per band and per node at the end), `of_lab` does both for a `Lab`.
"""

import re
import statistics
from pathlib import Path

from lab import daemonlog
from lab.world import block_limit, check_timeline

_MAC = r"[0-9a-f]{2}(?::[0-9a-f]{2}){5}"
TRIGGER = re.compile(rf"\[steer trigger\] from (\w+), sta ({_MAC}) steer to bss ({_MAC})")
BACKOFF = re.compile(rf"try to steer ({_MAC}) to ({_MAC}) with Backoff")
CMD_RESULT = re.compile(rf"^steer ({_MAC}) to ({_MAC}) (?:success|failed)$")     # the command channel's
# The controller's lines about a station before it steers it: why it does.
BEFORE = ((re.compile(rf"^high rssi of ({_MAC})"), "HIGH_RSSI"),
          (re.compile(rf"^low rssi of ({_MAC})"), "LOW_RSSI"),
          (re.compile(rf"^consider (?:ap|downgrade) steering for ({_MAC})"), "LOW_RSSI"),
          (re.compile(rf"^({_MAC}) is suitable, load"), "OVERLOAD"))
MECHANISMS = ("BTM", "Backoff")


def steers(world, topology, lines=None, since=None, origin=None):
    """The steers in `world` (the radio world's records, oldest first, each with "t" and "mono"),
    with `lines` ({node: [daemonlog.Line]}, the daemon's and its steering log's lines) telling
    targets and reasons. Only steers that began at or after `since` (monotonic) are listed.

    Each is a dict: mac, node (the one that steered), mechanism, reason, target (BSSID),
    target_node and target_vap (or None), start (monotonic), at (seconds from `origin`, default
    the first record), outcome ("success" or "failure"), time (seconds to steer, on success),
    ended_on ([node, VAP] of the first association after it began, or None), fallback (True for
    a Backoff steer after a failed BTM one)."""
    lines = lines or {}
    recs = sorted((r for r in world if r.get("kind", "world") == "world"), key=lambda r: r["mono"])
    origin = recs[0]["mono"] if origin is None and recs else (origin or 0.0)
    bss = {v.bssid: (n.name, v.mib) for n in topology.nodes for v in n.vaps}
    ess_of = {}
    for n in topology.nodes:
        for v in n.vaps:
            ess_of.setdefault(v.ssid, set()).add((n.name, v.mib))
    found = []
    ssid, blocked, first_block = {}, {}, {}
    for r in recs:
        m, what = r["mac"], r["what"]
        if what == "add":
            ssid[m] = r.get("ssid")
            blocked[m], first_block[m] = {}, None
        elif what in ("block", "unblock"):
            blocked.setdefault(m, {})[r["node"]] = set(r.get("vaps", []))
            if what == "block" and first_block.get(m) is None:
                first_block[m] = r
        elif what == "join":
            first_block[m] = None
            if any(blocked.get(m, {}).values()):
                first_block[m] = r      # blocks still in force: a later steer begins no earlier than now
        elif what == "btm_request":
            found.append(_steer(m, r["node"], "BTM", r.get("target"), r))
            first_block[m] = None
        elif what == "kicked" and any(blocked.get(m, {}).values()):
            start = first_block.get(m) or r
            free = ess_of.get(ssid.get(m), set()) - {(n, v) for n, vaps in blocked[m].items() for v in vaps}
            target = next((b for b, where in bss.items() if [where] == list(free)), None)
            found.append(_steer(m, r["node"], "Backoff", target, start, kick=r))
            first_block[m] = None
    by_mac = {}
    for s in found:
        by_mac.setdefault(s["mac"], []).append(s)
    joins = {}
    for r in recs:
        if r["what"] == "join":
            joins.setdefault(r["mac"], []).append(r)
    for mac, mine in by_mac.items():
        for i, s in enumerate(mine):
            after = mine[i + 1] if i + 1 < len(mine) else None
            later = after["start"] if after else float("inf")
            before = mine[i - 1] if i else None
            if s["mechanism"] == "Backoff":
                named = _backoff_target(lines.get(s["node"], []), mac, s)
                s["target"] = named or s["target"]
            s["target_node"], s["target_vap"] = bss.get(s["target"], (None, None))
            join = next((j for j in joins.get(mac, []) if s["start"] < j["mono"] < later), None)
            s["ended_on"] = [join["node"], join["vap"]] if join else None
            s["outcome"] = "success" if join and (join["node"], join["vap"]) == bss.get(s["target"]) else "failure"
            s["time"] = round(join["mono"] - s["start"], 3) if s["outcome"] == "success" else None
            if (s["mechanism"] == "Backoff" and before is not None and before["mechanism"] == "BTM"
                    and before["node"] == s["node"] and before["outcome"] == "failure"
                    and before["target"] in (s["target"], None)):
                s["fallback"] = True
                s["reason"] = before["reason"]
            else:
                s["reason"] = _reason(lines.get(s["node"], []), mac, s, before, after)
    out = [s for s in found if since is None or s["start"] >= since]
    for s in out:
        s["at"] = round(s["start"] - origin, 3)
        for key in ("t", "kick_t"):
            s.pop(key, None)
    return out


def _steer(mac, node, mechanism, target, start, kick=None):
    return {"mac": mac, "node": node, "mechanism": mechanism, "reason": None, "target": target,
            "start": start["mono"], "t": start["t"], "kick_t": kick["t"] if kick else start["t"], "fallback": False}


def _backoff_target(lines, mac, s):
    """The target a node's log names for a Backoff steer of `mac` that began at s["t"]."""
    for line in lines:
        m = BACKOFF.search(line.text)
        if m and m.group(1) == mac and line.epoch is not None and s["t"] - 1 <= line.epoch <= s["kick_t"] + 1:
            return m.group(2)
    return None


def _reason(lines, mac, s, before, after):
    """Why a node steered: its trigger record, else its controller's lines about the station since
    the station's steer `before` this one; else the command channel's result after it began and
    before the steer `after` it."""
    low = before["t"] if before else float("-inf")
    high = after["t"] if after else float("inf")
    trigger = hint = None
    for line in lines:
        if line.epoch is None or line.epoch + 1 <= low or line.epoch > s["t"]:
            continue
        m = TRIGGER.search(line.text)
        if m and m.group(2) == mac and s["target"] in (None, m.group(3)):
            trigger = m.group(1)
        for rx, reason in BEFORE:
            m = rx.search(line.text)
            if m and m.group(1) == mac:
                hint = reason
    if trigger or hint:
        return trigger or hint
    for line in lines:
        m = CMD_RESULT.search(line.text) if line.func.startswith("scmd_") else None
        if m and m.group(1) == mac and line.epoch is not None and s["t"] - 1 <= line.epoch < high:
            return "CMD"
    return "unknown"


def tally(found, world, topology, since=None, names=None, now=None):
    """The figures of a list of steers and the radio world's records: attempted and succeeded
    ({mechanism: {reason: n}}), the median time to steer, the longest lock-out (the world's
    lock-out check from `since` to `now`, monotonic; see `check_timeline`), the stations per
    band and per node at the end."""
    names = names or {}
    attempted = {m: {} for m in MECHANISMS}
    succeeded = {m: {} for m in MECHANISMS}
    for s in found:
        attempted[s["mechanism"]][s["reason"]] = attempted[s["mechanism"]].get(s["reason"], 0) + 1
        if s["outcome"] == "success":
            succeeded[s["mechanism"]][s["reason"]] = succeeded[s["mechanism"]].get(s["reason"], 0) + 1
    times = [s["time"] for s in found if s["time"] is not None]
    check = check_timeline(world, topology, block_limit(topology), since, now)
    longest = max(((m, max(spans)) for m, spans in check["lockouts"].items() if spans),
                  key=lambda x: x[1], default=None)
    where = {}
    for r in sorted(world, key=lambda r: r["mono"]):
        if r.get("what") == "join":
            where[r["mac"]] = (r["node"], r["vap"])
        elif r.get("what") in ("leave", "add"):
            where.pop(r["mac"], None)
    bands = {(n.name, v.mib): v.radio.band for n in topology.nodes for v in n.vaps}
    per_band, per_node = {}, {n.name: 0 for n in topology.nodes}
    for node, vap in where.values():
        per_band[bands[(node, vap)]] = per_band.get(bands[(node, vap)], 0) + 1
        per_node[node] += 1
    return {"steers": len(found), "succeeded_in_all": sum(1 for s in found if s["outcome"] == "success"),
            "attempted": attempted, "succeeded": succeeded,
            "median_time": round(statistics.median(times), 3) if times else None,
            "longest_lockout": [names.get(longest[0], longest[0]), longest[1]] if longest else None,
            "per_band": dict(sorted(per_band.items())), "per_node": per_node}


def of_records(world, topology, lines, since=None, origin=None, names=None, now=None):
    """`steers` and `tally` together: {"steers": [...], "figures": {...}}; each steer has its
    station's name (`names`, {mac: name}) as "station"."""
    names = names or {}
    found = steers(world, topology, lines, since, origin)
    for s in found:
        s["station"] = names.get(s["mac"], s["mac"])
    return {"steers": found, "figures": tally(found, world, topology, since, names, now)}


def log_lines(lab_dir, node):
    """A node's daemon log and steering log lines, parsed."""
    out = []
    for name, parse in (("bandherd.log", daemonlog.parse), ("run/steer.log", daemonlog.parse_steer)):
        path = Path(lab_dir) / "nodes" / node / name
        text = path.read_text(errors="replace") if path.exists() else ""
        out += [line for line in map(parse, text.splitlines()) if line is not None]
    return out


def of_lab(lab, since=None, names=None):
    """The steering summary of a running `Lab` (see `of_records`), from `since` (monotonic) on."""
    world = lab.world.timeline()
    lines = {n.name: log_lines(lab.dir, n.name) for n in lab.topology.nodes}
    return of_records(world, lab.topology, lines, since, since, names)


def merge(summaries):
    """One summary's figures from several labs' (as `of_records` gives them)."""
    out = {"steers": 0, "succeeded_in_all": 0, "attempted": {m: {} for m in MECHANISMS},
           "succeeded": {m: {} for m in MECHANISMS}, "median_time": None, "longest_lockout": None}
    times = []
    for s in summaries:
        f = s["figures"]
        out["steers"] += f["steers"]
        out["succeeded_in_all"] += f["succeeded_in_all"]
        for key in ("attempted", "succeeded"):
            for mech, reasons in f[key].items():
                for reason, n in reasons.items():
                    out[key][mech][reason] = out[key][mech].get(reason, 0) + n
        times += [x["time"] for x in s["steers"] if x["time"] is not None]
        if f["longest_lockout"] and (out["longest_lockout"] is None
                                     or f["longest_lockout"][1] > out["longest_lockout"][1]):
            out["longest_lockout"] = f["longest_lockout"]
    out["median_time"] = round(statistics.median(times), 3) if times else None
    return out
