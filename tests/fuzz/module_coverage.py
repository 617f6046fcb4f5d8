#!/usr/bin/env python3
"""Sums the edge coverage of the module's own sources from libFuzzer's
-print_coverage=1 output (read from a file or standard input):

  build/fuzz/tests/fuzz/lus_device_fuzz -runs=0 -print_coverage=1 CORPUS 2>&1 | tests/fuzz/module_coverage.py

Prints the module's covered and total edges (blocks, as libFuzzer counts
them), per source file and in all, and the functions it never entered.
"""
import re
import sys
from collections import defaultdict

LINE = re.compile(r"^(UN)?COVERED_FUNC: hits: (\d+) edges: (\d+)/(\d+) (\S+) (\S+):\d+")


def main():
    src = open(sys.argv[1]) if len(sys.argv) > 1 and sys.argv[1] != "-" else sys.stdin
    per_file = defaultdict(lambda: [0, 0])
    never = []
    seen = set()
    for line in src:
        m = LINE.match(line)
        if not m or "/datapath/hvs/modules/lus/" not in m.group(6):
            continue
        key = (m.group(5), m.group(6))
        if key in seen:   # a function listed twice (two objects of one build) counts once
            continue
        seen.add(key)
        covered, total = int(m.group(3)), int(m.group(4))
        name = m.group(6).split("/datapath/hvs/modules/lus/")[1]
        per_file[name][0] += covered
        per_file[name][1] += total
        if covered == 0:
            never.append(f"{m.group(5)} ({name})")
    if not per_file:
        print("no coverage of the module in the input", file=sys.stderr)
        return 1
    all_c = sum(c for c, _ in per_file.values())
    all_t = sum(t for _, t in per_file.values())
    for name, (c, t) in sorted(per_file.items()):
        print(f"{name:<24} {c:>6}/{t:<6} {100.0 * c / t:5.1f}%")
    print(f"{'module':<24} {all_c:>6}/{all_t:<6} {100.0 * all_c / all_t:5.1f}%")
    print(f"functions never entered: {len(never)}")
    for f in sorted(never):
        print(f"  {f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
