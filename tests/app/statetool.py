#!/usr/bin/env python3
"""Reads the app's saved state with Python's own property-list reader.

value STATE IDENTIFIER     prints the parameter's value (e.g. kChorusDepth); STATE may also be
                           a preset file
preset STATE               prints the current preset's name (empty when none)
same STATE OTHER           every parameter has the same value in both (states or preset files)
"""
import plistlib
import sys


def parameters(state):
    # A preset file holds the groups itself.
    full = state.get("fullState", state)
    for key, group in full.items():
        if key.startswith("group") and isinstance(group, dict):
            for pkey, param in group.items():
                if pkey.startswith("param") and isinstance(param, dict):
                    yield param


def main():
    command, path = sys.argv[1], sys.argv[2]
    with open(path, "rb") as f:
        state = plistlib.load(f)
    if command == "value":
        for param in parameters(state):
            if param.get("identifier") == sys.argv[3]:
                print(repr(float(param["value"])))
                return 0
        print(f"{path}: no parameter {sys.argv[3]}", file=sys.stderr)
        return 1
    if command == "same":
        with open(sys.argv[3], "rb") as f:
            other = plistlib.load(f)
        mine = {p["identifier"]: p["value"] for p in parameters(state)}
        theirs = {p["identifier"]: p["value"] for p in parameters(other)}
        different = sorted(k for k in mine.keys() | theirs.keys() if mine.get(k) != theirs.get(k))
        print(f"{len(mine)} parameters; different: {different}")
        return 1 if different or not mine else 0
    if command == "preset":
        print(state.get("currentPreset", ""))
        return 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())
