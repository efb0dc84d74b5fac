#!/usr/bin/env python3
"""Writes src/steer_log_pairs.h: the byte pairs in which the daemon stores its
log formats and assertion texts (steer_log.h, "packed texts").

The texts are gathered from the daemon's sources (the format of every LOG_*
call after its "%s:%d, " prefix, the expression of every SASSERT and SREFUSE,
the format of every SPRINTF)
and the pairs (one per code byte) are chosen greedily: the most frequent pair of symbols in
all texts becomes the next code, and its occurrences are replaced. Any table
packs and unpacks every text correctly; this one packs the daemon's texts
smallest. Run it again when many texts have changed:

    tools/log_pairs.py            # rewrites src/steer_log_pairs.h
    tools/log_pairs.py --stats    # only prints what the texts pack to
"""
import collections
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
OUT = ROOT / 'src' / 'steer_log_pairs.h'
# The code bytes, in the order of the pairs (steer_log.h): 0x80 to 0xff, then
# the control bytes but tab, newline and escape.
CODE_BYTES = list(range(0x80, 0x100)) + [c for c in range(1, 0x20) if c not in (0x09, 0x0a, 0x1b)]
PREFIX = '%s:%d, '

# String macros that appear inside the texts.
MACROS = {'MAC_FMT': '%p'}

CALL = re.compile(r'\b(LOG_(?:FATAL|ERROR|WARN|INFO|DEBUG|DUMP|STEER)|SASSERT|SREFUSE|SPRINTF)\s*\(')
STRING = re.compile(r'"((?:[^"\\]|\\.)*)"')
ESCAPES = {'n': '\n', 't': '\t', '\\': '\\', '"': '"', "'": "'", '0': '\0'}


def unescape(body):
    out, i = [], 0
    while i < len(body):
        c = body[i]
        if c != '\\':
            out.append(c)
            i += 1
            continue
        n = body[i + 1]
        if n in 'xX':
            m = re.match(r'[0-9a-fA-F]+', body[i + 2:])
            out.append(chr(int(m.group(0), 16)))
            i += 2 + len(m.group(0))
        elif n.isdigit():
            m = re.match(r'[0-7]{1,3}', body[i + 1:])
            out.append(chr(int(m.group(0), 8)))
            i += 1 + len(m.group(0))
        else:
            out.append(ESCAPES.get(n, n))
            i += 2
    return ''.join(out)


def call_argument(src, start, skip=0):
    """The first argument (after `skip` others) of the call whose '(' ends at `start`."""
    depth, i = 0, start
    while i < len(src):
        c = src[i]
        if c == '"':
            m = STRING.match(src, i)
            i = m.end()
            continue
        if c in '([{':
            depth += 1
        elif c in ')]}':
            if depth == 0:
                return src[start:i]
            depth -= 1
        elif c == ',' and depth == 0:
            if skip == 0:
                return src[start:i]
            skip -= 1
            start = i + 1
        i += 1
    return src[start:]


def texts():
    found = []
    for path in sorted((ROOT / 'src').glob('*.cpp')):
        src = path.read_text()
        for m in CALL.finditer(src):
            arg = call_argument(src, m.end(), 1 if m.group(1) == 'SPRINTF' else 0).strip()
            if m.group(1) in ('SASSERT', 'SREFUSE'):
                # The expression as the preprocessor spells it: one space
                # between tokens where the source had white space.
                found.append(re.sub(r'\s+', ' ', arg))
                continue
            parts = []
            for tok in re.finditer(r'"(?:[^"\\]|\\.)*"|[A-Za-z_]\w*', arg):
                t = tok.group(0)
                if t.startswith('"'):
                    parts.append(unescape(t[1:-1]))
                elif t in MACROS:
                    parts.append(MACROS[t])
            text = ''.join(parts)
            if m.group(1) == 'SPRINTF':
                found.append(text)
            elif text.startswith(PREFIX):
                found.append(text[len(PREFIX):])
    return found


def choose_pairs(data):
    pairs = []
    while len(pairs) < len(CODE_BYTES):
        count = collections.Counter()
        for d in data:
            count.update(zip(d, d[1:]))
        if not count:
            break
        pair, n = count.most_common(1)[0]
        if n < 2:
            break
        code = 0x100 + len(pairs)  # a symbol of its own until written out
        pairs.append(pair)
        new = []
        for d in data:
            out, i = [], 0
            while i < len(d):
                if i + 1 < len(d) and (d[i], d[i + 1]) == pair:
                    out.append(code)
                    i += 2
                else:
                    out.append(d[i])
                    i += 1
            new.append(out)
        data = new
    return pairs, data


def main():
    all_texts = texts()
    data = [list(t.encode()) for t in all_texts]
    before = sum(len(d) + 1 for d in data)
    pairs, packed = choose_pairs(data)
    after = sum(len(d) + 1 for d in packed)
    print(f'{len(all_texts)} texts, {before} bytes, packed {after} bytes + {2 * len(pairs)} of pairs')
    if '--stats' in sys.argv:
        return
    def byte(sym):
        return sym if sym < 0x100 else CODE_BYTES[sym - 0x100]
    pairs = [(byte(a), byte(b)) for a, b in pairs]
    lines = []
    for i in range(0, len(pairs), 8):
        lines.append('    ' + ' '.join(f'{{{a:#04x}, {b:#04x}}},' for a, b in pairs[i:i + 8]))
    OUT.write_text(
        '// The byte pairs of packed texts (steer_log.h): the code byte of pair i\n'
        '// stands for slog_pairs[i], whose bytes may be codes themselves.\n'
        '// Written by tools/log_pairs.py from the daemon\'s log formats, assertions and command output.\n'
        '#ifndef STEER_LOG_PAIRS_H\n'
        '#define STEER_LOG_PAIRS_H\n\n'
        f'inline constexpr unsigned char slog_pairs[][2] = {{\n' + '\n'.join(lines) + '\n};\n\n'
        '#endif\n')


if __name__ == '__main__':
    main()
