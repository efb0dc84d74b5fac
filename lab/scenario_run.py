"""Playing a scenario against a running lab.

`Runner(lab, scenario).run()` plays it in real time against a `Lab` (times are
seconds from the start). Its stations are stations of the lab's radio world:
the runner defines them when it starts, and its steps act through the world
(join, roam, leave, RSSI ...), which makes their drivers report them as a
driver does and moves them when a daemon kicks them or asks them to go. The
runner writes what happened to <lab>/timeline.jsonl, one JSON object a line:
every step, what the world did to the stations, every driver event, and what
the daemons did that the lab sees (mesh messages, driver commands and Wi-Fi
calls, the log lines that tell of neighbours and stations, daemons ending),
then a summary, with the world's lock-out check over the run (see
`World.check`). `MeshView` follows the timeline and keeps each node's
neighbour table (as its log reports it) and the station counts of its BSSes
(as its heartbeats carry them).
"""

import json
import os
import threading
import time
from pathlib import Path

from lab import daemonlog, summary
from lab.sandbox import exit_text
from lab.scenario_check import MESH_WAIT, POLL, QUERIES, TIMELINE, ScenarioError, check_against, cli_words
from lab.topology import BROADCAST, conf_value


class StepError(RuntimeError):
    """A step that could not be carried out; the runner records it (and `fields`) and goes on."""

    def __init__(self, text, **fields):
        super().__init__(text)
        self.fields = fields


class MeshView:
    """Each node's neighbour table (from its log) and the station counts of its BSSes
    (from its heartbeats), followed through timeline records."""

    def __init__(self, topology):
        self.topology = topology
        self.names = {n.id: n.name for n in topology.nodes}
        self.neighbours = {n.name: None for n in topology.nodes}     # None: no daemon run known
        self.counts = {n.name: None for n in topology.nodes}         # {VAP name: stations} or None
        self.neighbour_history = {n.name: [] for n in topology.nodes}
        self.count_history = {n.name: [] for n in topology.nodes}

    def name(self, node_id):
        return self.names.get(node_id, node_id)

    def apply(self, rec):
        """Takes one timeline record; returns the changes it made, in short words ("A+B": A
        learnt B, "A-B": A lost B, "A hb 1/0": A's heartbeat carries other counts)."""
        changes = []
        at = rec.get("at", 0.0)
        kind = rec.get("kind")
        if kind == "start":
            for node, table in rec.get("neighbours", {}).items():
                self._set_table(node, None if table is None else set(table), at)
            for node, counts in rec.get("bss_counts", {}).items():
                if counts is not None:
                    self._set_counts(node, counts, at)
        elif kind == "log" and rec.get("change"):
            what, other = rec["change"]
            node = rec["node"]
            table = set() if self.neighbours[node] is None or what == "ready" else set(self.neighbours[node])
            if what == "online":
                table.add(other)
                changes.append(f"{node}+{other}")
            elif what == "offline":
                table.discard(other)
                changes.append(f"{node}-{other}")
            if self._set_table(node, table, at) and what == "ready":
                changes.append(f"{node} up")
        elif kind == "daemon" and rec.get("state") != "running":
            if self._set_table(rec["node"], None, at):
                changes.append(f"{rec['node']} down")
        elif kind == "mesh" and rec.get("type") == "SNEI_HEARTBEAT" and rec.get("source") == "daemon":
            body = rec.get("body") or {}
            counts = {b.get("ifname", str(i + 1)): b.get("sta_num") for i, b in enumerate(body.get("bss", []))
                      if isinstance(b, dict)}
            if rec["from"] in self.counts and self._set_counts(rec["from"], counts, at):
                changes.append(f"{rec['from']} hb {'/'.join(str(v) for v in counts.values())}")
        return changes

    def _set_table(self, node, table, at):
        if node not in self.neighbours or self.neighbours[node] == table:
            return False
        self.neighbours[node] = table
        self.neighbour_history[node].append([round(at, 3), None if table is None else sorted(table)])
        return True

    def _set_counts(self, node, counts, at):
        if self.counts.get(node) == counts:
            return False
        self.counts[node] = dict(counts)
        self.count_history[node].append([round(at, 3), dict(counts)])
        return True

    def converged(self, stations=None):
        """True when every node with a running daemon lists every other such node, and (given the
        scenario's station counts {node: {VAP: n}}) every heartbeat carries those counts."""
        up = {n for n, t in self.neighbours.items() if t is not None}
        if any(self.neighbours[n] != up - {n} for n in up):
            return False
        if stations is not None:
            return all(self.counts.get(n) == stations.get(n) for n in up)
        return True

    def cells(self):
        """Per node: its neighbours ("B C", "-" for none, "down") and its counts ("1/0", "?")."""
        out = {}
        for n in self.topology.nodes:
            t = self.neighbours[n.name]
            nb = "down" if t is None else (" ".join(sorted(t)) or "-")
            c = self.counts[n.name]
            out[n.name] = (nb, "?" if c is None else "/".join(str(v) for v in c.values()))
        return out


class Runner:
    """Plays a scenario against a lab in real time (see the module's description)."""

    def __init__(self, lab, scenario, on_record=None, timeline=None):
        problems = check_against(scenario, lab.topology)
        if problems:
            raise ScenarioError(problems, scenario.source)
        self.lab = lab
        self.world = lab.world
        self.sc = scenario
        self.topology = lab.topology
        self.path = Path(timeline) if timeline else Path(lab.dir) / TIMELINE
        self.on_record = on_record
        self.records = []
        self.summary = None
        self.view = MeshView(self.topology)
        self.names = {plan.mac: name for name, plan in scenario.stations.items()}
        self.world_history = {n.name: [] for n in self.topology.nodes}
        self.lines = {n.name: [] for n in self.topology.nodes}      # the daemons' log lines during the run
        self._counts = None
        self._stop = threading.Event()
        self._thread = None
        self._file = None
        self._base = None
        self._started = None        # monotonic time the run began
        self._world_start = None    # the world's journal position then
        self._held = None           # records kept back while waiting for the mesh
        self._step_records = None   # records a step makes, written after the step's own
        self.failed = []

    # -- running ---------------------------------------------------------------------

    def start(self):
        """Runs the scenario on a thread of its own; `wait` for it, `stop` to end it early."""
        self._open()          # the timeline starts afresh before anyone reads it
        self._thread = threading.Thread(target=self._run_quietly, name="lab-scenario", daemon=True)
        self._thread.start()
        return self

    def _run_quietly(self):
        try:
            self.run()
        except Exception:           # already in the timeline as an "error" record
            pass

    def stop(self):
        self._stop.set()

    def running(self):
        return self._thread is not None and self._thread.is_alive()

    def wait(self, timeout=None):
        if self._thread is not None:
            self._thread.join(timeout)
        return self.summary

    def run(self):
        """Plays the scenario and returns the summary (also the timeline's last record)."""
        if self._file is None:
            self._open()
        error = None
        try:
            self._begin()
            self._play()
        except Exception as e:
            error = e
            self._emit([{"kind": "error", "mono": time.monotonic(), "text": f"{type(e).__name__}: {e}"}])
        finally:
            try:
                self._observe()
            except Exception:
                pass
            self._release()
            self.summary = self._summary()
            self._emit([self.summary])
            self._file.close()
        if error is not None:
            raise error
        return self.summary

    def _open(self):
        self.path.parent.mkdir(parents=True, exist_ok=True)
        self._file = open(self.path, "w", buffering=1)

    def now(self):
        return time.monotonic() - self._base

    def _begin(self):
        lab = self.lab
        restarted = self._settle_settings()
        self._base = self._started = time.monotonic()
        mesh, self._mesh_pos = lab.mesh_journal.since(0)
        self._driver_pos = {n.name: lab.driver(n.name).journal.since(0)[1] for n in self.topology.nodes}
        self._world_pos = self._world_start = self.world.journal.since(0)[1]
        self._tails = {n.name: daemonlog.Tail(lab.node_dir(n.name) / "bandherd.log")
                       for n in self.topology.nodes}
        self._steer_tails = {n.name: daemonlog.Tail(lab.node_dir(n.name) / "run" / "steer.log")
                             for n in self.topology.nodes}
        self._daemons = {n.name: self._daemon_state(n.name) for n in self.topology.nodes}
        neighbours, counts = {}, {}
        for n in self.topology.nodes:
            table = daemonlog.neighbour_table(lab.log(n.name)) if self._daemons[n.name] == "running" else None
            neighbours[n.name] = None if table is None else sorted(self.view.name(i) for i in table)
            beats = [m for m in mesh if m.get("type") == "SNEI_HEARTBEAT" and m.get("sender") == n.name
                     and m.get("source") == "daemon" and isinstance(m.get("body"), dict)]
            counts[n.name] = ({b.get("ifname"): b.get("sta_num") for b in beats[-1]["body"].get("bss", [])}
                              if beats else None)
        if self.sc.wait_for_mesh:
            self._held = []
        self._emit([{"kind": "start", "mono": self._base, "scenario": self.sc.name, "source": self.sc.source,
                     "description": self.sc.description, "topology": self.topology.source,
                     "duration": self.sc.duration, "wait_for_mesh": self.sc.wait_for_mesh,
                     "daemons": dict(self._daemons), "neighbours": neighbours, "bss_counts": counts}])
        if restarted is not None:
            self._emit([{"kind": "note", "mono": self._base, "text": restarted}])
        if self.sc.radio_interval is not None:
            for n in self.topology.nodes:
                lab.driver(n.name).set_radio_interval(self.sc.radio_interval)
        for plan in self.sc.stations.values():
            self.world.add(plan.mac, **plan.settings)
        if self.sc.wait_for_mesh:
            self._wait_for_mesh()
        for plan in self.sc.stations.values():
            if plan.path:       # on the steps' clock
                self.world.walk(plan.mac, plan.path, self.sc.path_step, start=self._base)
        self._note_world()

    def _settle_settings(self):
        """Gives every node the scenario's settings; the running daemons are restarted to read them
        (and waited for until ready). Returns what was done, in words, or None when nothing was."""
        wanted = {k: conf_value(v) for k, v in self.sc.settings.items()}
        if all({k: conf_value(n.config.get(k)) for k in wanted} == wanted for n in self.topology.nodes):
            return None
        running = [n.name for n in self.topology.nodes if self._daemon_state(n.name) == "running"]
        ready = {name: daemonlog.ready_count(self.lab.log(name)) for name in running}
        for n in self.topology.nodes:
            self.lab.write_conf(n.name, self.sc.settings)
        for name in running:
            self.lab.stop_daemon(name)
            self.lab.start_node(name)
        for name in running:
            try:
                self.lab.wait_for(lambda name=name: daemonlog.ready_count(self.lab.log(name)) > ready[name], 20.0)
            except TimeoutError:
                raise StepError(f"the daemon of {name} is not ready 20 s after a restart for the settings") from None
        settings = ", ".join(f"{k}={v}" for k, v in wanted.items())
        return f"settings {settings}" + (f"; restarted the daemons of {', '.join(running)}" if running else "")

    def _wait_for_mesh(self):
        """Holds the scenario's clock until every running daemon knows every other one."""
        deadline = time.monotonic() + MESH_WAIT
        while not self._stop.is_set():
            self._observe()
            if self._mesh_formed() or time.monotonic() > deadline:
                break
            time.sleep(POLL)
        formed = self._mesh_formed()
        self._base = time.monotonic()
        self._release()
        self._emit([{"kind": "note", "mono": self._base,
                     "text": "the mesh has formed; the steps' clock starts" if formed
                     else f"the mesh did not form in {MESH_WAIT:g} s; going on"}])

    def _mesh_formed(self):
        """True when the log of every running daemon lists every other running daemon's node."""
        up = {n.name: n.id for n in self.topology.nodes if self._daemon_state(n.name) == "running"}
        for name in up:
            table = daemonlog.neighbour_table(self.lab.log(name))
            if table is None or table != {i for n, i in up.items() if n != name}:
                return False
        return True

    def _release(self):
        held, self._held = self._held, None
        if held:
            self._emit(held)

    def _play(self):
        steps = list(enumerate(self.sc.steps, 1))
        while not self._stop.is_set():
            now = self.now()
            while steps and steps[0][1]["at"] <= now:
                n, step = steps.pop(0)
                self._step(n, step)
            self._observe()
            if not steps and now >= self.sc.duration:
                break
            time.sleep(POLL)

    # -- the timeline -----------------------------------------------------------------

    def _emit(self, recs):
        """Adds records to the timeline, oldest first; while the clock waits for the mesh they are held."""
        if self._step_records is not None:
            self._step_records.extend(recs)
            return
        if self._held is not None:
            self._held.extend(recs)
            return
        for rec in sorted(recs, key=lambda r: r.get("mono", 0.0)):
            mono = rec.pop("mono", None)
            if "at" not in rec:
                rec["at"] = round((mono if mono is not None else time.monotonic()) - self._base, 3)
            rec.setdefault("t", round(time.time(), 3))
            changes = self.view.apply(rec)
            if changes:
                rec["changes"] = changes
            self.records.append(rec)
            self._file.write(json.dumps(rec) + "\n")
            if self.on_record is not None:
                self.on_record(rec)

    def _observe(self):
        """Collects what happened since the last look: the world, mesh messages, driver commands and
        events, log lines, daemons."""
        batch = []
        mesh, self._mesh_pos = self.lab.mesh_journal.since(self._mesh_pos)
        batch += [self._mesh_record(m) for m in mesh]
        world, self._world_pos = self.world.journal.since(self._world_pos)
        batch += [self._world_record(r) for r in world]
        for n in self.topology.nodes:
            recs, self._driver_pos[n.name] = self.lab.driver(n.name).journal.since(self._driver_pos[n.name])
            batch += [rec for rec in (self._driver_record(n.name, r) for r in recs) if rec is not None]
            now = time.monotonic()
            for raw in self._steer_tails[n.name].lines():
                line = daemonlog.parse_steer(raw)
                if line is not None:
                    self.lines[n.name].append(line)
                    batch.append({"kind": "log", "node": n.name, "mono": now, "level": "steer", "func": line.func,
                                  "text": line.text})
            for raw in self._tails[n.name].lines():
                line = daemonlog.parse(raw)
                if line is not None:
                    self.lines[n.name].append(line)
                if line is None or not (line.level in ("fatal", "error", "warning", "info")
                                        or daemonlog.AGED.match(line.text)):
                    continue
                rec = {"kind": "log", "node": n.name, "mono": now, "level": line.level, "func": line.func,
                       "text": line.text}
                change = daemonlog.neighbour_change(line)
                if change:
                    rec["change"] = [change[0], self.view.name(change[1]) if change[1] else None]
                batch.append(rec)
            state = self._daemon_state(n.name)
            if state != self._daemons[n.name]:
                self._daemons[n.name] = state
                d = self.lab.daemon(n.name)
                batch.append({"kind": "daemon", "node": n.name, "mono": now, "state": state,
                              "pid": d.pid if d else None})
        self._emit(batch)
        if world:
            self._note_world()

    def _mesh_record(self, m):
        rec = {"kind": "mesh", "mono": m.get("mono"), "from": m.get("sender"), "source": m.get("source"),
               "type": m.get("type"), "body": m.get("body")}
        if "da" in m:
            rec["to"] = "all" if m["da"] == BROADCAST else self.view.name(m["da"])
        for key in ("delivered", "undelivered", "dropped", "delayed", "text"):
            if m.get(key):
                rec[key] = m[key]
        return rec

    def _world_record(self, r):
        rec = {k: v for k, v in r.items() if k != "t"}
        if r.get("mac") in self.names:
            rec["station"] = self.names[r["mac"]]
        return rec

    def _driver_record(self, node, r):
        kind = r.get("kind")
        rec = {"kind": "driver", "node": node, "mono": r.get("mono")}
        if kind == "maps":
            rec.update(cmd=r.get("cmd", "").removeprefix("MAPS_CMD_"), result=r.get("result"))
            for key in ("if", "fields", "error"):
                if key in r:
                    rec[key] = r[key]
        elif kind == "call":
            rec.update(call=r.get("call"), result=r.get("result"))
            for key in ("if", "args", "answer", "error"):
                if key in r:
                    rec[key] = r[key]
            if r.get("call") in QUERIES:
                rec["query"] = True
        elif kind == "netlink":
            rec.update(netlink=r.get("event"))
        elif kind == "event" and r.get("event") != "MAPS_EV_PONG":
            return self._event_record(node, r)
        else:
            return None
        return rec

    def _event_record(self, node, r):
        """A driver event the lab sent: the station's, the refusal's, the answer's fields."""
        f = r.get("fields") or {}
        rec = {"kind": "event", "node": node, "mono": r.get("mono"), "event": r["event"].removeprefix("MAPS_EV_")}
        m = f.get("mac") or f.get("sta")
        if m is not None:
            rec.update(mac=m, station=self.names.get(m, m))
        if "bss_index" in f:
            vap = self.lab.driver(node).vap_at(f["bss_index"])
            rec.update(bss=f["bss_index"], vap=vap.mib if vap else None)
        keys = ("radio_index", "channel", "load", "sta_num") if "radio_index" in f else ("rssi", "sta_num", "count",
                                                                                          "status")
        rec.update({k: f[k] for k in keys if k in f})
        for key in ("why", "error"):
            if key in r:
                rec[key] = r[key]
        return rec

    def _daemon_state(self, node):
        d = self.lab.daemon(node)
        return "not started" if d is None else exit_text(d.returncode)

    def _note_world(self):
        counts = self.world.counts()
        if counts == self._counts:
            return
        at = 0.0 if self._base is None else max(0.0, round(self.now(), 3))
        for node, c in counts.items():
            if self._counts is None or self._counts[node] != c:
                self.world_history[node].append([at, c])
        self._counts = counts

    # -- the steps ------------------------------------------------------------------------

    def _step(self, n, step):
        rec = {"kind": "step", "mono": time.monotonic(), "n": n,
               **{k: v for k, v in step.items() if k != "at"}, "scheduled": step["at"]}
        self._step_records = []
        try:
            rec.update(getattr(self, "_do_" + step["do"])(step) or {})
        except (RuntimeError, KeyError, ValueError, OSError, TimeoutError) as e:
            rec.update(getattr(e, "fields", {}))
            rec["error"] = str(e.args[0]) if isinstance(e, KeyError) and e.args else str(e)
            self.failed.append({"n": n, "do": step["do"], "at": step["at"], "error": rec["error"]})
        finally:
            made, self._step_records = self._step_records, None
        self._emit([rec] + made)

    def _mac(self, step):
        return self.sc.stations[step["station"]].mac

    def _vap(self, node, bss):
        """The VAP's configuration-store name of a step's "bss": a VAP's name or a driver index."""
        if isinstance(bss, int):
            vap = self.lab.driver(node).vap_at(bss)
            if vap is None:
                raise StepError(f"the daemon of {node} has not set up a BSS {bss} with its driver")
            return vap.mib
        return bss

    def _hear(self, step, node, vap):
        """A step's "rssi" and "rate": the station hears that BSS (or every one) so."""
        if "rssi" in step:
            self.world.set_rssi(self._mac(step), step["rssi"], node, vap, step.get("rate"), why="step")
        elif "rate" in step:
            self.world.update(self._mac(step), rate=step["rate"], why="step")

    def _do_join(self, step):
        node = step.get("node")
        vap = self._vap(node, step["bss"]) if node else None
        self._hear(step, node, vap)
        where = self.world.associate(self._mac(step), node, vap, why="step")
        return {"joined": where and list(where)}

    def _do_roam(self, step):
        mac = self._mac(step)
        old = self.world.where(mac)
        vap = self._vap(step["node"], step["bss"])
        self._hear(step, step["node"], vap)
        where = self.world.roam(mac, step["node"], vap, leave_first=step.get("leave_first", False),
                                inactive_after=step.get("old_leaves_after"), why="step")
        return {"joined": where and list(where), "from": old[0] if old else None}

    def _do_leave(self, step):
        self.world.leave(self._mac(step), why="step")

    def _do_rssi(self, step):
        node = step.get("node")
        vap = self._vap(node, step["bss"]) if node else None
        self.world.set_rssi(self._mac(step), step["rssi"], node, vap, step.get("rate"), why="step")

    def _do_status(self, step):
        settings = {k: step[k] for k in ("active", "load") if k in step}
        if not settings or self.world.where(self._mac(step)) is None:
            raise StepError(f"{step['station']} is not associated; its driver has nothing to report")
        self.world.update(self._mac(step), why="step", **settings)

    def _do_band(self, step):
        if self.world.where(self._mac(step)) is None:
            raise StepError(f"{step['station']} is not associated; its driver has nothing to report")
        self.world.update(self._mac(step), bands=step["bands"], why="step")

    def _do_radio(self, step):
        index = self.lab.driver(step["node"]).set_radio(step["radio"], step.get("channel"), step.get("load"),
                                                        step.get("sta_num"))
        return {"radio_index": index}

    def _do_kill(self, step):
        d = self.lab.daemon(step["node"])
        if d is None or d.returncode is not None:
            raise StepError(f"no daemon runs in {step['node']}")
        os.kill(d.pid, step["signal"])
        return {"pid": d.pid}

    def _do_start(self, step):
        return {"pid": self.lab.start_node(step["node"]).pid}

    def _do_relay(self, step):
        self.lab.relay.apply(step["action"], step.get("types"), step.get("seconds"), step.get("groups"),
                             step.get("fraction"))
        return {"faults": self.lab.relay.faults()}

    def _do_send(self, step):
        self.lab.send(step.get("from"), step["to"], step["type"], step.get("body", {}))

    def _do_cli(self, step):
        words, _ = cli_words(step["args"], self.sc.stations, self.topology)
        rc, out = self.lab.cli(step["node"], *words)
        if rc != 0:
            raise StepError(out.strip().splitlines()[0] if out.strip() else f"exit status {rc}", words=words, rc=rc,
                            output=out)
        return {"words": words, "rc": rc, "output": out}

    # -- the end ------------------------------------------------------------------------

    def _summary(self):
        messages, actions = {}, {}
        for r in self.records:
            if r["kind"] == "mesh" and r.get("type"):
                messages[r["type"]] = messages.get(r["type"], 0) + 1
            elif r["kind"] == "driver" and not r.get("query"):
                name = r.get("call") or r.get("cmd") or r.get("netlink")
                actions[name] = actions.get(name, 0) + 1
        at = round(self.now(), 3) if self._base else 0.0
        report = self.lab.check(since=self._started)
        for problem in report["problems"]:
            self.failed.append({"n": "-", "do": "check", "at": at, "error": problem})
        stations = {n.name: {v.mib: [] for v in n.vaps} for n in self.topology.nodes}
        for st in self.world.show():
            if st["mac"] in self.names and st["where"]:
                stations[st["where"][0]][st["where"][1]].append(self.names[st["mac"]])
        world = self.world.journal.since(self._world_start)[0] if self._world_start is not None else []
        steering = summary.of_records(world, self.topology, self.lines, since=self._started, origin=self._base,
                                      names=self.names)
        return {"kind": "summary", "scenario": self.sc.name, "at": at,
                "stopped": self._stop.is_set(), "steps": sum(1 for r in self.records if r["kind"] == "step"),
                "failed": self.failed, "stations": stations, "world_counts": self.world_history,
                "heartbeat_counts": self.view.count_history, "neighbours": self.view.neighbour_history,
                "messages": messages, "driver_actions": actions, "check": report, "steering": steering,
                "daemons": {n.name: self._daemon_state(n.name) for n in self.topology.nodes}}
