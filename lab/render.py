"""Scenario timelines and summaries in words, for people."""

import json

def _body_words(rec):
    body = rec.get("body") or {}
    t = rec.get("type")
    if t == "SNEI_HEARTBEAT":
        counts = " ".join(f"{b.get('ifname')}:{b.get('sta_num')}" for b in body.get("bss", []) if isinstance(b, dict))
        return f"mpp {body.get('is_mpp')} hop {body.get('hop')} rate {body.get('link_rate2mpp')} sta {counts}"
    if t == "SSTA_ASSOCIATE":
        return f"{body.get('sta')} associated {body.get('associated')} bss {body.get('bss')}"
    return json.dumps(body, separators=(",", ":"))[:80] if body else ""


def step_words(rec):
    """A step record in words: "phone joins A wlan1, rssi -52"."""
    do, st, node = rec.get("do"), rec.get("station"), rec.get("node")
    where = f"{node} {rec.get('bss')}" if node else "the strongest BSS that lets it in"
    link = "".join(f", {k} {rec[k]}" for k in ("rssi", "rate") if k in rec)
    if do == "join":
        text = f"{st} joins {where}{link}"
    elif do == "roam":
        how = "after leaving" if rec.get("leave_first") else "still associated on"
        text = f"{st} roams to {where} {how} {rec.get('from', 'its node')}{link}"
    elif do == "leave":
        text = f"{st} leaves"
    elif do == "rssi":
        text = f"{st}'s signal changes{' on ' + where if node else ''}{link}"
    elif do == "status":
        text = f"{st} reports its status" + "".join(f", {k} {rec[k]}" for k in ("active", "load") if k in rec)
    elif do == "band":
        text = f"{st} reports bands 0x{rec.get('bands', 0):x}"
    elif do == "radio":
        text = f"{node}'s radio {rec.get('radio')}" + (f" (radio {rec['radio_index']})" if "radio_index" in rec else "") \
            + "".join(f", {k} {rec[k]}" for k in ("channel", "load", "sta_num") if k in rec)
    elif do == "kill":
        text = f"{node}'s daemon gets signal {rec.get('signal')}"
    elif do == "start":
        text = f"{node}'s daemon starts"
    elif do == "relay":
        extra = "".join(f" {rec[k]}" for k in ("seconds", "groups", "types") if k in rec)
        text = f"the relay: {rec.get('action')}{extra}"
    elif do == "send":
        text = f"the lab's mesh daemon sends {rec.get('type')} to {rec.get('to')}" \
            + (f" as {rec['from']}" if rec.get("from") else "")
    elif do == "cli":
        args = rec.get("words") or rec.get("args") or []
        said = (rec.get("output") or "").strip().splitlines()
        text = f"{node}'s operator runs steer_cli.sh {' '.join(args if isinstance(args, list) else [args])}"
        if said and not rec.get("error"):
            text += f": {said[0]}" + (f" (+{len(said) - 1} lines)" if len(said) > 1 else "")
    else:
        text = json.dumps(rec)
    note = f"  ({rec['note']})" if rec.get("note") else ""
    err = f"  FAILED: {rec['error']}" if rec.get("error") else ""
    return text + note + err


def describe(rec, verbose=False):
    """One line for a timeline record, or None for what is shown only when `verbose`
    (periodic status events, Wi-Fi queries, driver commands of a daemon starting, debug lines)."""
    at = rec.get("at", 0.0)
    kind = rec.get("kind")
    head = f"{at:7.2f}  "
    if kind == "start":
        wait = "; waiting until every node knows the others" if rec.get("wait_for_mesh") else ""
        return f"{head}scenario {rec['scenario']} ({rec.get('source')}), {rec.get('duration'):g} s{wait}"
    if kind == "step":
        return f"{head}step   {step_words(rec)}"
    if kind == "event":
        if rec.get("why") == "status" and not verbose and (not rec.get("error") or rec["event"] == "RADIO_STATUS"):
            return None     # periodic reports (a radio's, to a daemon that is down, too)
        err = f"  ({rec['error']})" if rec.get("error") else ""
        why = "" if rec.get("why") in ("step", None) else f"  [{rec.get('why')}]"
        who = f" {rec['station']}" if "station" in rec else ""
        bss = f" bss {rec['bss']} ({rec.get('vap')})" if "bss" in rec else ""
        rest = "".join(f" {k} {rec[k]}" for k in ("radio_index", "channel", "load", "rssi", "sta_num", "count",
                                                   "status") if k in rec)
        return f"{head}event  {rec['node']} {rec['event']}{who}{bss}{rest}{why}{err}"
    if kind == "world":
        if rec["what"] in ("join", "leave", "add", "set", "rssi") and not verbose:
            return None     # the driver's events and the steps tell these
        return f"{head}world  {world_words(rec)}"
    if kind == "mesh":
        where = f" -> {rec.get('to')}" if rec.get("to") else ""
        fate = ""
        if rec.get("dropped"):
            fate = f"  DROPPED ({rec['dropped']})"
        elif rec.get("undelivered"):
            fate = f"  not to {rec['undelivered']}"
        if rec.get("delayed"):
            fate += f"  delayed {rec['delayed']} s"
        return f"{head}mesh   {rec.get('from')}{where} {rec.get('type')} {_body_words(rec)}{fate}"
    if kind == "driver":
        if rec.get("query") and not verbose:
            return None
        if rec.get("cmd"):
            if rec["cmd"] in ("PING", "CLEAN", "ADD_RADIO", "SET_BSS") and not verbose:
                return None
            return f"{head}driver {rec['node']} {rec['cmd']} {rec.get('if', '')} {rec.get('fields', '')}"
        if rec.get("netlink"):
            return f"{head}driver {rec['node']} {rec['netlink']}" if verbose else None
        if rec.get("call") in ("add_rrm_neighbor", "del_rrm_neighbor") and not verbose:
            return None
        args = " ".join(str(v) for v in (rec.get("args") or {}).values())
        return f"{head}driver {rec['node']} {rec['call']} {rec.get('if', '')} {args} -> {rec.get('result')}"
    if kind == "log":
        if rec["level"] == "steer":
            return f"{head}steer  {rec['node']} {rec['text']}"
        if rec["level"] == "info" and not rec.get("change") and not verbose and \
                rec["func"] not in ("ssta_join_handler", "ssta_leave_handler", "ssta_msg_handler"):
            return None
        return f"{head}log    {rec['node']} {rec['level']} {rec['func']}: {rec['text']}"
    if kind == "daemon":
        return f"{head}daemon {rec['node']} {rec['state']}" + (f" (pid {rec['pid']})" if rec.get("pid") else "")
    if kind in ("note", "error"):
        return f"{head}{kind:<6} {rec['text']}"
    if kind == "summary":
        return None
    return f"{head}{kind} {json.dumps(rec)}"


def world_words(rec):
    """A record of the radio world in words: "phone refused by B wlan1 (rssi -50, 1st time)"."""
    who, what, node = rec.get("station", rec["mac"]), rec["what"], rec.get("node")
    bss = f"{node} {rec['vap']}" if rec.get("vap") else str(node)
    words = {
        "join": lambda: f"{who} joins {bss}" + (f" after {rec['out_for']} s out" if "out_for" in rec else ""),
        "leave": lambda: f"{who} leaves {bss} ({rec.get('why')})" if node else f"{who} stops trying to associate",
        "kicked": lambda: f"{who} is kicked off {bss}",
        "btm_request": lambda: f"{who} is asked by {node} to go to {rec.get('target')} (channel {rec.get('channel')})",
        "btm_response": lambda: f"{who} answers {node}: status {rec.get('status')}",
        "btm_ignored": lambda: f"{who} does not answer {node}'s request ({rec.get('because')})",
        "beacon_request": lambda: f"{who} is asked by {node} to measure channel {rec.get('channel')}",
        "beacon_report": lambda: f"{who} reports {len(rec.get('reports', []))} BSSes to {node}",
        "beacon_ignored": lambda: f"{who} does not measure for {node} ({rec.get('because')})",
        "refused": lambda: f"{who} refused by {bss} (rssi {rec.get('rssi')}, refusal {rec.get('count')})",
        "locked_out": lambda: f"{who} is refused everywhere; tries again in {rec.get('retry_after')} s",
        "block": lambda: f"{who} blocked by {node} on {'+'.join(rec.get('vaps', []))}",
        "unblock": lambda: f"{who} no longer blocked by {node} ({rec.get('mode')})",
        "walk": lambda: f"{who} walks a path of {rec.get('points')} points, to {rec.get('until'):g} s",
        "rssi": lambda: f"{who} hears " + (", ".join(f"{n} {v} {r}" for n, v, r in rec["heard"]) if "heard" in rec
                                           else f"{bss if node else 'every BSS'} at {rec.get('rssi')}"),
    }
    return words[what]() if what in words else f"{who} {what} " + json.dumps(
        {k: v for k, v in rec.items() if k not in ("kind", "what", "mac", "station", "at", "t", "mono")})


def check_lines(report):
    """The world's lock-out check in words."""
    blocked = report["blocked_everywhere"]
    worst = max(blocked.values(), default=0)
    out = [f"longest block of a station on every BSS of its ESS: {worst:g} s (limit {report['limit']} s)"]
    out += [f"  {mac}: {t:g} s" for mac, t in sorted(blocked.items()) if t]
    out.append("longest lock-out of each station: " + (", ".join(
        f"{mac} {max(spans):g} s" for mac, spans in sorted(report["lockouts"].items())) or "none"))
    out += [f"PROBLEM: {p}" for p in report["problems"]]
    return out


def _series(history, fmt):
    return ", ".join(f"{at:g} s {fmt(v)}" for at, v in history) or "nothing seen"


def summary_lines(s):
    """The summary in a few lines."""
    out = [f"scenario {s['scenario']}: {s['at']:.1f} s, {s['steps']} steps"
           + (f", {len(s['failed'])} failed" if s["failed"] else "") + (" (stopped early)" if s["stopped"] else "")]
    for f in s["failed"]:
        out.append(f"  step {f['n']} ({f['do']} at {f['at']:g} s) failed: {f['error']}")
    out.append("stations at the end: " + "; ".join(
        f"{node} " + " ".join(f"{vap} [{', '.join(names) or '-'}]" for vap, names in vaps.items())
        for node, vaps in s["stations"].items()))
    counts = lambda c: "/".join(str(v) for v in c.values())   # noqa: E731
    out.append("stations per BSS over time (the radio world's, as their drivers have them):")
    for node, h in s["world_counts"].items():
        out.append(f"  {node}: {_series(h, counts)}")
    out.append("stations per BSS as the heartbeats carried them:")
    for node, h in s["heartbeat_counts"].items():
        out.append(f"  {node}: {_series(h, counts)}")
    out.append("neighbour tables (from the daemons' logs):")
    for node, h in s["neighbours"].items():
        out.append(f"  {node}: {_series(h, lambda t: 'down' if t is None else (' '.join(t) or '-'))}")
    out.append("mesh messages: " + (", ".join(f"{k} {v}" for k, v in sorted(s["messages"].items())) or "none"))
    out.append("driver commands and calls: "
               + (", ".join(f"{k} {v}" for k, v in sorted(s["driver_actions"].items())) or "none"))
    out += [line for line in check_lines(s["check"]) if not line.startswith("PROBLEM")]
    out.append("daemons: " + ", ".join(f"{k} {v}" for k, v in s["daemons"].items()))
    if "steering" in s:
        out += steering_lines(s["steering"])
    return out


def _mechanisms(f):
    """ "BTM 3/4 (CMD 2/2, HIGH_RSSI 1/2), Backoff 1/1 (CMD 1/1)" of a summary's figures."""
    parts = []
    for mech, reasons in f["attempted"].items():
        if reasons:
            won = f["succeeded"][mech]
            parts.append(f"{mech} {sum(won.values())}/{sum(reasons.values())} ("
                         + ", ".join(f"{r} {won.get(r, 0)}/{n}" for r, n in sorted(reasons.items())) + ")")
    return ", ".join(parts) or "none"


def figures_line(f):
    """One line of steering figures: steers by mechanism and reason (succeeded/attempted), the median
    time to steer, the longest lock-out."""
    median = "-" if f["median_time"] is None else f"{f['median_time']:g} s"
    worst = f["longest_lockout"]
    return (f"{f['succeeded_in_all']}/{f['steers']} steers succeeded: {_mechanisms(f)}; median time to steer "
            f"{median}; longest lock-out " + (f"{worst[1]:g} s ({worst[0]})" if worst else "none"))


def steering_lines(st):
    """The steering summary in words: the figures, then one line per steer."""
    f = st["figures"]
    out = ["steering: " + figures_line(f)]
    for s in st["steers"]:
        target = f"{s['target_node']} {s['target_vap']}" if s["target_node"] else (s["target"] or "?")
        result = f"success in {s['time']:g} s" if s["outcome"] == "success" else \
            "failure" + (f" (ended on {' '.join(s['ended_on'])})" if s["ended_on"] else "")
        out.append(f"  {s['at']:7.2f}  {s['station']}  {s['node']} {s['reason']} {s['mechanism']}"
                   + (" (fallback)" if s["fallback"] else "") + f" -> {target}: {result}")
    out.append("stations at the end: by band " + (", ".join(f"{b} {n}" for b, n in f["per_band"].items()) or "none")
               + "; by node " + ", ".join(f"{b} {n}" for b, n in f["per_node"].items()))
    return out
