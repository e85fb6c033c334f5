#!/usr/bin/env python3
"""Compares what LV2 hosts report about the plug-in with the parameter table and the
shipped factory preset files.

preset-names BUNDLE                      prints "name<TAB>slug" per factory preset
lv2info SOURCE_DIR BUNDLE INFO_TXT       checks lv2info's description of the plug-in
jalv SOURCE_DIR BUNDLE LOG SYM=VAL... -- PRESET_NAME...
                                         checks the controls jalv printed: the start values
                                         (table defaults, SYM=VAL overrides), then the values
                                         of each preset applied, in that order
"""
import os
import plistlib
import re
import sys

ROW = re.compile(r'\{\s*(\d+),\s*"(\w+)",\s*"([^"]*)",\s*(-?[\d.]+)f?,\s*(-?[\d.]+)f?,'
                 r'\s*(-?[\d.]+)f?,\s*U::(\w+)\s*\}')
LV2 = "http://lv2plug.in/ns/lv2core#"
ATOM = "http://lv2plug.in/ns/ext/atom#AtomPort"


def table(source_dir):
    with open(os.path.join(source_dir, "kernel", "ParameterTable.h")) as f:
        rows = [ROW.search(line) for line in f]
    params = [dict(address=int(m[1]), symbol=m[2], name=m[3], min=float(m[4]),
                   max=float(m[5]), default=float(m[6]), unit=m[7]) for m in rows if m]
    if [p["address"] for p in params] != list(range(29)):
        raise SystemExit("could not read the 29 rows of kernel/ParameterTable.h")
    return params


def factory_presets(bundle):
    """{name: {identifier: value}} from the bundle's factory preset files."""
    presets = {}
    folder = os.path.join(bundle, "factory")
    for fn in sorted(os.listdir(folder)):
        if not fn.endswith(".aupreset"):
            continue
        with open(os.path.join(folder, fn), "rb") as f:
            plist = plistlib.load(f)
        values = {}

        def walk(node):
            if isinstance(node, dict):
                if "identifier" in node and "value" in node:
                    values[node["identifier"]] = float(node["value"])
                for v in node.values():
                    walk(v)

        walk(plist)
        presets[plist["name"]] = values
    if not presets:
        raise SystemExit(f"no factory presets in {folder}")
    return presets


def parse_lv2info(text):
    """Returns (header {key: [values]}, preset labels, {index: {key: [values]}})."""
    header, ports = {}, {}
    cur, key = header, None
    for line in text.splitlines():
        m = re.match(r"^\tPort (\d+):$", line)
        if m:
            cur, key = ports.setdefault(int(m[1]), {}), None
            continue
        tabs = "\t\t" if cur is not header else "\t"
        m = re.match("^" + tabs + r"(\w[\w ]*):\s*(.*)$", line)
        if m:
            key = m[1]
            cur.setdefault(key, [])
            if m[2].strip():
                cur[key].append(m[2].strip())
        elif line.strip() and key is not None:
            cur[key].append(line.strip())
    return header, header.get("Presets", []), ports


def close(a, b):
    return abs(a - b) <= 1e-5 * max(1.0, abs(b))


def check_lv2info(source_dir, bundle, info_path):
    params = table(source_dir)
    with open(info_path) as f:
        header, presets, ports = parse_lv2info(f.read())
    errors = []

    def want(cond, msg):
        if not cond:
            errors.append(msg)

    def one(d, key):
        v = d.get(key, [])
        return v[0] if v else None

    want(one(header, "Name") == "TAV SR Chorus", f"name {one(header, 'Name')!r}")
    want(one(header, "Class") == "Chorus Plugin", f"class {one(header, 'Class')!r}")
    found = one(header, "Bundle") or ""
    want(found.startswith("file://") and
         os.path.realpath(found[len("file://"):]) == os.path.realpath(bundle),
         f"bundle {found!r}, expected the build tree's {bundle!r}")
    want("Required Features" not in header,
         f"requires features {header.get('Required Features')}; hosts without them fail")
    want(sorted(ports) == list(range(36)), f"port indices {sorted(ports)}, expected 0..35")

    for p in params:
        port = ports.get(p["address"], {})
        where = f"port {p['address']} ({p['symbol']})"
        types = port.get("Type", [])
        want(LV2 + "ControlPort" in types and LV2 + "InputPort" in types,
             f"{where}: type {types}")
        want(one(port, "Symbol") == p["symbol"], f"{where}: symbol {one(port, 'Symbol')!r}")
        want(one(port, "Name") == p["name"], f"{where}: name {one(port, 'Name')!r}")
        for key, field in (("Minimum", "min"), ("Maximum", "max"), ("Default", "default")):
            got = one(port, key)
            want(got is not None and close(float(got), p[field]),
                 f"{where}: {key.lower()} {got}, table {p[field]}")
        props = port.get("Properties", [])
        want((LV2 + "toggled" in props) == (p["unit"] == "Boolean"),
             f"{where}: properties {props} for a {p['unit']} parameter")
        want((LV2 + "integer" in props) == (p["unit"] == "Indexed"),
             f"{where}: properties {props} for a {p['unit']} parameter")
        if p["unit"] == "Indexed":
            points = port.get("Scale Points", [])
            want(any(re.fullmatch(r'-1(\.0+)? = "None"', s) for s in points),
                 f"{where}: scale points {points}, expected -1 = \"None\"")

    expected = {29: ("in_l", "AudioPort", "InputPort"), 30: ("in_r", "AudioPort", "InputPort"),
                31: ("out_l", "AudioPort", "OutputPort"),
                32: ("out_r", "AudioPort", "OutputPort")}
    for index, (symbol, kind, direction) in expected.items():
        port = ports.get(index, {})
        types = port.get("Type", [])
        want(one(port, "Symbol") == symbol and LV2 + kind in types and LV2 + direction in types,
             f"port {index}: symbol {one(port, 'Symbol')!r} type {types}, expected {symbol} "
             f"{kind} {direction}")
    for index, symbol, direction in ((33, "midi_in", "InputPort"), (34, "midi_out", "OutputPort"),
                                     (35, "notify", "OutputPort")):
        port = ports.get(index, {})
        types = port.get("Type", [])
        want(one(port, "Symbol") == symbol and ATOM in types and LV2 + direction in types,
             f"port {index}: symbol {one(port, 'Symbol')!r} type {types}, expected {symbol} "
             f"atom {direction}")
        want(LV2 + "connectionOptional" in port.get("Properties", []),
             f"port {index} ({symbol}) is not connectionOptional: hosts without atom "
             "support cannot run the plug-in")
    want(one(ports.get(34, {}), "Name") == "TAV SR Chorus MIDI Out",
         f"port 34 name {one(ports.get(34, {}), 'Name')!r}")

    factory = factory_presets(bundle)
    want(sorted(presets) == sorted(factory),
         f"LV2 presets {sorted(presets)}, factory files {sorted(factory)}")
    return errors


def check_jalv(source_dir, bundle, log_path, overrides, preset_names):
    params = table(source_dir)
    factory = factory_presets(bundle)
    with open(log_path, errors="replace") as f:
        lines = [re.sub(r"^(> )+", "", line.rstrip("\n")) for line in f]
    values = [re.fullmatch(r"(\w+) = (\S+)", line) for line in lines]
    values = [(m[1], float(m[2])) for m in values if m]
    # jalv echoes each -c value alone, then prints all controls at start and after each
    # preset; a block is the run of lines from the first control's line on.
    n, first = len(params), params[0]["symbol"]
    blocks = [values[i:i + n] for i, (s, _) in enumerate(values) if s == first]
    errors = []
    if len(blocks) != 1 + len(preset_names):
        return [f"jalv printed {len(blocks)} blocks of controls, expected one at start and "
                f"one after each of {len(preset_names)} presets"]
    start = {p["symbol"]: p["default"] for p in params}
    start.update(overrides)
    expected = [start]
    for name in preset_names:
        want = {p["symbol"]: min(p["max"], max(p["min"], factory[name].get(p["symbol"],
                                                                           p["default"])))
                for p in params}
        expected.append(want)
    labels = ["start"] + [f"preset {name!r}" for name in preset_names]
    for label, block, want in zip(labels, blocks, expected):
        symbols = [s for s, _ in block]
        if symbols != [p["symbol"] for p in params]:
            errors.append(f"{label}: controls {symbols} not in port order")
            continue
        for symbol, got in block:
            if not close(got, want[symbol]):
                errors.append(f"{label}: {symbol} = {got}, expected {want[symbol]}")
    return errors


def main():
    cmd = sys.argv[1]
    if cmd == "preset-names":
        # "name<TAB>slug" per factory preset, for the shell tests.
        for name in factory_presets(sys.argv[2]):
            print(f"{name}\t{name.lower().replace(' ', '-')}")
        return 0
    source_dir, bundle, path = sys.argv[2:5]
    if cmd == "lv2info":
        errors = check_lv2info(source_dir, bundle, path)
    elif cmd == "jalv":
        rest = sys.argv[5:]
        split = rest.index("--")
        overrides = dict((a.split("=")[0], float(a.split("=")[1])) for a in rest[:split])
        errors = check_jalv(source_dir, bundle, path, overrides, rest[split + 1:])
    else:
        raise SystemExit(f"unknown command {cmd}")
    for e in errors:
        print(f"FAIL: {e}", file=sys.stderr)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
