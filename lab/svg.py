"""A picture of the radio world's timeline (SVG, standard library only).

One row per station; a bar per association, coloured by the band of its BSS and
labelled by its node; marks for what the daemons asked of the station and what
their drivers did to it: BSS transition requests and the station's answers
(accepted, rejected, ignored), blocks, kicks, refusals, and lock-outs (a red
line while the station is out after losing its association, a black mark each
time every BSS refused it). A time axis below, a legend at the bottom.

`draw(records, topology)` takes the world's records (lab/world.py; each with
"at", seconds, as a scenario's timeline has them, or "mono") and returns the
SVG text; every element carries a class ("row", "bar band-5L", "mark kick" ...)
and each row its station in "data-station".
"""

from xml.sax.saxutils import escape, quoteattr

BAND_COLOURS = {"2G": "#e69f00", "5L": "#0072b2", "5H": "#56b4e9", "6G": "#009e73"}
LABEL_WIDTH = 170
PLOT_WIDTH = 900
ROW = 26
BAR = 14
TOP = 40
# Marks: class, what the legend says, and how it is drawn at (x, y) (y: the row's middle).
MARKS = {
    "btm-request": ("BSS transition request",
                    lambda x, y: f'<path d="M{x - 5:.1f},{y - 10} L{x + 5:.1f},{y - 10} L{x:.1f},{y - 3} Z" '
                                 'fill="#5e3c99"/>'),
    "btm-accept": ("request accepted", lambda x, y: f'<circle cx="{x:.1f}" cy="{y - 7}" r="3.5" fill="#1a9641"/>'),
    "btm-reject": ("request rejected",
                   lambda x, y: f'<path d="M{x - 4:.1f},{y - 11} L{x + 4:.1f},{y - 3} M{x + 4:.1f},{y - 11} '
                                f'L{x - 4:.1f},{y - 3}" stroke="#d7191c" stroke-width="2"/>'),
    "btm-ignored": ("request ignored", lambda x, y: f'<circle cx="{x:.1f}" cy="{y - 7}" r="3.5" fill="none" '
                                                    'stroke="#777" stroke-width="1.5"/>'),
    "block": ("blocked by a node", lambda x, y: f'<rect x="{x - 1.5:.1f}" y="{y + 4}" width="3" height="8" '
                                                'fill="#fdae61"/>'),
    "kick": ("kicked", lambda x, y: f'<path d="M{x - 5:.1f},{y - 5} L{x + 5:.1f},{y + 5} M{x + 5:.1f},{y - 5} '
                                    f'L{x - 5:.1f},{y + 5}" stroke="#b2182b" stroke-width="2.5"/>'),
    "refused": ("refused by a driver", lambda x, y: f'<path d="M{x:.1f},{y + 3} L{x + 4:.1f},{y + 8} L{x:.1f},{y + 13} '
                                                    f'L{x - 4:.1f},{y + 8} Z" fill="#d7191c"/>'),
    "locked-out": ("every BSS refused it", lambda x, y: f'<rect x="{x - 3:.1f}" y="{y + 4}" width="6" height="6" '
                                                        'fill="#000"/>'),
}


def _seconds(records, origin):
    """Each record's time in seconds: its "at", else its "mono" less `origin` (default the first's)."""
    if origin is None:
        origin = next((r["mono"] for r in records if "at" not in r and "mono" in r), 0.0)
    return [r["at"] if "at" in r else r.get("mono", origin) - origin for r in records]


def _step(span):
    """A tick spacing giving at most about 12 ticks over `span` seconds."""
    for step in (0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 30, 60, 120, 300, 600, 1200, 1800, 3600):
        if span / step <= 12:
            return step
    return 7200


def draw(records, topology, title="the radio world", origin=None, end=None):
    """The SVG text of a timeline of world records (other records are left out). `origin`: the
    monotonic time of 0 s for records without "at"; `end`: where the picture ends (seconds;
    default the last record)."""
    recs = [r for r in records if r.get("kind", "world") == "world" and "what" in r and "mac" in r]
    times = _seconds(recs, origin)
    bands = {(n.name, v.mib): v.radio.band for n in topology.nodes for v in n.vaps}
    first = min([0.0] + times)
    last = max([first + 1.0] + times + ([end] if end is not None else []))
    scale = PLOT_WIDTH / (last - first)

    def x(t):
        return LABEL_WIDTH + (t - first) * scale

    rows = {}
    for r in recs:
        rows.setdefault(r["mac"], r.get("station", r["mac"]))
    body = []
    for i, (mac, name) in enumerate(rows.items()):
        y = TOP + i * ROW + ROW // 2
        bars, marks, out = [], [], []
        on = lost = None
        for r, t in zip(recs, times):
            if r["mac"] != mac:
                continue
            what = r["what"]
            if what == "join":
                if lost is not None:
                    out.append((lost, t))
                    lost = None
                if on is not None:
                    bars.append((*on, t))
                on = (t, r.get("node"), r.get("vap"))
            elif what == "leave" and r.get("node"):
                if on is not None:
                    bars.append((*on, t))
                on = None
                if r.get("lost"):
                    lost = t
            elif what == "add":
                on = lost = None
            kind = {"btm_request": "btm-request", "btm_ignored": "btm-ignored", "block": "block", "kicked": "kick",
                    "refused": "refused", "locked_out": "locked-out"}.get(what)
            if what == "btm_response":
                kind = "btm-accept" if r.get("status") == 0 else "btm-reject"
            if kind:
                marks.append((kind, t, _tip(r, t)))
        if on is not None:
            bars.append((*on, last))
        if lost is not None:
            out.append((lost, last))
        body.append(f'<g class="row" data-station={quoteattr(name)}>')
        body.append(f'<text x="{LABEL_WIDTH - 8}" y="{y + 4}" text-anchor="end" font-size="12">{escape(name)}</text>')
        body.append(f'<line x1="{LABEL_WIDTH}" y1="{y}" x2="{LABEL_WIDTH + PLOT_WIDTH}" y2="{y}" stroke="#eee"/>')
        for start, node, vap, stop in bars:
            band = bands.get((node, vap), "?")
            width = max(1.0, x(stop) - x(start))
            tip = escape(f"{node} {vap} ({band}), {start:.2f} to {stop:.2f} s")
            label = (f'<text x="{x(start) + 4:.1f}" y="{y + 4}" font-size="10" fill="#fff">{escape(str(node))}</text>'
                     if width > 14 else "")
            body.append(f'<g class="bar band-{band}"><title>{tip}</title><rect x="{x(start):.1f}" y="{y - BAR // 2}" '
                        f'width="{width:.1f}" height="{BAR}" rx="3" fill="{BAND_COLOURS.get(band, "#999")}"/>{label}</g>')
        for start, stop in out:
            body.append(f'<line class="lockout" x1="{x(start):.1f}" y1="{y}" x2="{x(stop):.1f}" y2="{y}" '
                        f'stroke="#d7191c" stroke-width="2" stroke-dasharray="4,3"><title>out {stop - start:.2f} s'
                        '</title></line>')
        for kind, t, tip in marks:
            body.append(f'<g class="mark {kind}"><title>{escape(tip)}</title>{MARKS[kind][1](x(t), y)}</g>')
        body.append('</g>')
    height = TOP + len(rows) * ROW
    body += _axis(first, last, x, height)
    body += _legend(height + 40)
    total = height + 40 + 70
    width = LABEL_WIDTH + PLOT_WIDTH + 30
    return (f'<?xml version="1.0" encoding="UTF-8"?>\n'
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{total}" '
            f'viewBox="0 0 {width} {total}" font-family="sans-serif">\n'
            f'<title>{escape(title)}</title>\n<rect width="100%" height="100%" fill="#fff"/>\n'
            f'<text x="10" y="22" font-size="15" font-weight="bold">{escape(title)}</text>\n'
            + "\n".join(body) + "\n</svg>\n")


def _tip(r, t):
    """What a mark's tooltip says."""
    rest = ", ".join(f"{k} {r[k]}" for k in ("node", "vap", "target", "status", "because", "rssi", "count", "vaps")
                     if k in r)
    return f"{t:.2f} s {r['what']}" + (f": {rest}" if rest else "")


def _axis(first, last, x, y):
    out = [f'<g class="axis"><line x1="{x(first):.1f}" y1="{y + 4}" x2="{x(last):.1f}" y2="{y + 4}" stroke="#333"/>']
    step = _step(last - first)
    tick = (first // step) * step
    while tick <= last + 1e-9:
        if tick >= first - 1e-9:
            out.append(f'<line x1="{x(tick):.1f}" y1="{y + 4}" x2="{x(tick):.1f}" y2="{y + 9}" stroke="#333"/>'
                       f'<text x="{x(tick):.1f}" y="{y + 22}" font-size="11" text-anchor="middle">{tick:g} s</text>')
        tick += step
    out.append('</g>')
    return out


def _legend(y):
    out = ['<g class="legend">']
    px = 10
    for band, colour in BAND_COLOURS.items():
        out.append(f'<rect x="{px}" y="{y - 10}" width="22" height="12" rx="3" fill="{colour}"/>'
                   f'<text x="{px + 28}" y="{y}" font-size="11">{band}</text>')
        px += 70
    out.append(f'<line x1="{px}" y1="{y - 4}" x2="{px + 22}" y2="{y - 4}" stroke="#d7191c" stroke-width="2" '
               f'stroke-dasharray="4,3"/><text x="{px + 28}" y="{y}" font-size="11">locked out</text>')
    px, y = 10, y + 30
    for kind, (words, shape) in MARKS.items():
        out.append(f'{shape(px + 6, y - 4)}<text x="{px + 16}" y="{y}" font-size="11">{escape(words)}</text>')
        px += 20 + 7 * len(words)
    out.append('</g>')
    return out
