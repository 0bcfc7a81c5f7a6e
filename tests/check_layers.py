#!/usr/bin/env python3
"""Checks that every include between the library's folders points down.

The folders of zel/ are layers, lowest first; a file may include headers of
its own layer and of the layers below it, never of one above. Unit tests sit
beside the code and obey the same rule. Exits 1 and names each offending
include otherwise.
"""
import pathlib
import re
import sys

# Lowest first. internal/ is OS glue usable from every layer; it may use
# core/types.h only.
LAYERS = ["internal", "core", "path", "stream", "log", "thread", "util", "ipc", "fs",
          "fs/proxy", "device", "system", "init"]
INCLUDE = re.compile(r'^\s*#\s*include\s+"zel/([^"]+)/[^/"]+"', re.M)


def layer_of(folder):
    return LAYERS.index(folder) if folder in LAYERS else None


def main(root):
    root = pathlib.Path(root)
    problems = []
    for path in sorted(root.rglob("*")):
        if path.suffix not in (".h", ".cpp", ".in"):
            continue
        folder = path.parent.relative_to(root).as_posix()
        own = layer_of(folder)
        if own is None:
            problems.append(f"{path}: folder '{folder}' is not a known layer")
            continue
        for target in INCLUDE.findall(path.read_text(errors="replace")):
            other = layer_of(target)
            if other is None:
                problems.append(f"{path}: includes from unknown layer '{target}'")
            elif other > own and not (folder == "internal" or target == "internal"):
                problems.append(f"{path}: {folder} includes {target}, a higher layer")
            elif folder == "internal" and target not in ("internal", "core"):
                problems.append(f"{path}: internal includes {target}")
    for p in problems:
        print(p)
    if problems:
        print(f"{len(problems)} include(s) point up; layers, lowest first: {' < '.join(LAYERS)}")
        return 1
    print(f"layers ok: {' < '.join(LAYERS)}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parents[1] / "zel"))
