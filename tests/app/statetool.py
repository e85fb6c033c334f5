#!/usr/bin/env python3
"""Reads the app's saved state with Python's own property-list reader.

value STATE IDENTIFIER     prints the parameter's value (e.g. kChorusDepth)
preset STATE               prints the current preset's name (empty when none)
"""
import plistlib
import sys


def parameters(state):
    full = state["fullState"]
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
    if command == "preset":
        print(state.get("currentPreset", ""))
        return 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())
