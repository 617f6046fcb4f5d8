#!/usr/bin/env python3
"""Writes the seed corpus of the device fuzzer (tests/fuzz/corpus/).

Each seed is a byte string in the fuzzer's input encoding (see
lus_device_fuzz.cpp): a setup byte, then per command a command byte, a
shape byte and the choices the payload builders read, in the order they
read them.  Rerun after changing the encoding:  tests/fuzz/gen_corpus.py
"""
import os
import struct
import sys

EXISTING = {"ps-new": 0, "ps-old": 1, "ps-cs": 2}
MISSING, LONGEST, UNTERMINATED = 3, 4, 5


def u32(v):
    return struct.pack("<I", v & 0xFFFFFFFF)


def setup(no_from_build=False, verbose=False, fault=None):
    b = (1 if no_from_build else 0) | (2 if verbose else 0) | (4 if fault else 0)
    out = bytes([b])
    if fault:
        op_index, nth, status_bit = fault
        out += bytes([op_index, nth - 1, status_bit])
    return out


def length(kind="exact", n=0):
    # BendLength: 0-5 exact, 6 one short, 7 one long, 8 n short, 9 n long
    return {"exact": bytes([0]), "short1": bytes([6]), "long1": bytes([7]),
            "short": bytes([8, n]), "long": bytes([9, 0, n])}[kind]


def portset_cmd(cmd, names, count=None, legacy=False, op=0, fdp_mode=0, bend=("exact", 0),
                pad=None, outage=None):
    sel = {0: 0, 1: 1, 2: 3, 3: 4, 128: 5, 129: 6}
    n = len(names) if count is None else count
    out = bytes([cmd, 0])
    if n in sel:
        out += bytes([sel[n]])
    else:
        out += bytes([7]) + u32(n)
    if n > 128:
        out += bytes([len(names)])
    out += bytes([1 if legacy else 0])
    out += bytes([0]) if outage is None else bytes([200]) + u32(outage)
    for name in names:
        out += bytes([name])
        out += bytes([3]) + u32(op) if op > 2 else bytes([op])
        out += bytes([fdp_mode])
    out += length(*bend)
    if pad is not None:
        out += bytes([pad])
    return out


def ps_upgrade(name, modules, count=None, bend=("exact", 0), pad=None):
    n = len(modules) if count is None else count
    sel = {0: 0, 1: 1, 3: 3}
    out = bytes([9, 0])
    out += bytes([sel[n]]) if n in sel else bytes([4]) + u32(n)
    if n > 8:
        out += bytes([len(modules)])
    out += bytes([name])
    for from_build, which in modules:
        out += bytes([1 if from_build else 0, which])
    out += length(*bend)
    if pad is not None:
        out += bytes([pad])
    return out


def host(action, port_index=0, extra=b""):
    # 240 + action: 0 unblock event of a port, 1 port up, 2 past the clear timer, 3 unblock of no port
    return bytes([240 + action, port_index]) + extra


def bare(cmd):
    return bytes([cmd, 0, 0])


def upgrade_port(port_index, mode):
    return bytes([10, 0, 7, port_index, mode & 0xFF]) + length()


def raw(cmd, data, bend=("exact", 0)):
    return bytes([cmd, 5]) + struct.pack("<H", len(data)) + data + length(*bend)


def bad_data(cmd, kind, ln, extra=b""):
    # kind: 0 address 0, 1 past the last payload, 2 just below user memory, 3 any
    return bytes([cmd, 6, kind]) + extra + bytes([0, ln])


def bad_header(cmd):
    return bytes([cmd, 7, 0, 0x00, 0x10])


NEW, OLD, CS = 0, 1, 2
SEEDS = {
    "reg-from": setup() + portset_cmd(0, [NEW]),
    "reg-to-legacy": setup() + portset_cmd(1, [NEW, OLD], legacy=True),
    "reg-runtime-phase": setup() + portset_cmd(2, [NEW]) + portset_cmd(3, [NEW]),
    "reg-runtime-phase-no-from-build": setup(no_from_build=True) + portset_cmd(2, [NEW]) + portset_cmd(3, [NEW]),
    "reg-128-portsets": setup() + portset_cmd(0, [NEW] * 128),
    "reg-129-portsets": setup() + portset_cmd(0, [NEW, OLD], count=129),
    "reg-0-portsets": setup() + portset_cmd(0, []),
    "save-restore": setup() + portset_cmd(4, [NEW]) + portset_cmd(5, [NEW]),
    "block-all": setup(verbose=True) + portset_cmd(6, [NEW, OLD, CS], outage=30),
    "block-one-long": setup() + portset_cmd(6, [NEW], bend=("long1", 0), pad=1),
    "block-one-short": setup() + portset_cmd(6, [NEW], bend=("short1", 0)),
    "block-head-only": setup() + portset_cmd(6, [NEW], bend=("short", 136)),
    "block-missing": setup() + portset_cmd(6, [MISSING, NEW]),
    "block-unterminated": setup() + portset_cmd(6, [UNTERMINATED, LONGEST]),
    "notices": setup() + bare(7) + bare(8) + bare(11) + bare(12),
    "ps-upgrade": setup() + ps_upgrade(NEW, [(True, 0), (False, 1)]),
    "ps-upgrade-short": setup() + ps_upgrade(NEW, [(True, 0)], bend=("short1", 0)),
    "ps-upgrade-huge-count": setup() + ps_upgrade(OLD, [(True, 2)], count=0x40000000),
    "ps-upgrade-unterminated": setup() + ps_upgrade(UNTERMINATED, []),
    "upgrade-port": setup() + upgrade_port(0, 1) + upgrade_port(4, 0),
    "fdp-ops": setup(verbose=True) + portset_cmd(13, [NEW], op=0) + portset_cmd(13, [NEW], op=1, fdp_mode=2)
               + portset_cmd(13, [NEW], op=2) + portset_cmd(13, [OLD], op=1),
    "fdp-short": setup() + portset_cmd(13, [NEW], op=1, bend=("short1", 0)),
    "cswitch-events": setup() + portset_cmd(14, [CS, NEW]),
    "cswitch-events-short": setup() + portset_cmd(14, [CS, NEW], bend=("short1", 0)),
    "cswitch-events-trailing": setup() + portset_cmd(14, [CS], bend=("long", 9), pad=1),
    "cswitch-events-missing": setup() + portset_cmd(14, [MISSING]),
    "unknown-commands": setup() + bytes([15]) + u32(15) + bytes([0, 0, 0, 0, 0])
                        + bytes([15]) + u32(0xFFFFFFFF) + bytes([0, 0, 0, 0, 0]),
    "raw-bytes": setup() + raw(6, b"\x01\x00\x00\x00\x00\x05\x00\x00\x00ps-new") + raw(9, b"\xff" * 140),
    "bad-data-address": setup() + bad_data(4, 0, 9) + bad_data(13, 2, 100, extra=bytes([8])),
    "bad-header-address": setup() + bad_header(0) + bad_header(9),
    "fault-copy": setup(fault=(0, 2, 1)) + portset_cmd(6, [NEW]),
    "fault-alloc": setup(fault=(1, 1, 0)) + ps_upgrade(NEW, []),
    "fault-world": setup(fault=(12, 1, 1)) + ps_upgrade(NEW, [(True, 0)]),
    "fault-post": setup(fault=(9, 1, 1)) + portset_cmd(14, [CS]),
    "fault-block": setup(fault=(8, 2, 1)) + portset_cmd(6, [NEW]),
    "classic-flow": setup() + portset_cmd(1, [NEW]) + portset_cmd(6, [NEW], outage=5)
                    + portset_cmd(4, [NEW]) + portset_cmd(1, [NEW]) + bare(12),
    # Counts and lengths at their edges for the two commands whose payload
    # is taken as the header says (6: exactly; 14: at least).
    "block-zero-count": setup() + portset_cmd(6, []),
    "block-eight-bytes": setup() + portset_cmd(6, [], bend=("short1", 0)),
    "block-over-count": setup() + portset_cmd(6, [NEW, OLD], count=129),
    "block-count-256": setup() + portset_cmd(6, [NEW], count=256),
    "block-count-65536": setup() + portset_cmd(6, [NEW], count=65536),
    "block-count-max": setup() + portset_cmd(6, [NEW, OLD, CS], count=0xFFFFFFFF),
    "block-128-one-short": setup() + portset_cmd(6, [NEW] * 128, bend=("short1", 0)),
    "cswitch-zero-count": setup() + portset_cmd(14, []),
    "cswitch-eight-bytes": setup() + portset_cmd(14, [], bend=("short1", 0)),
    "cswitch-over-count": setup() + portset_cmd(14, [CS], count=129),
    "cswitch-count-65536": setup() + portset_cmd(14, [CS, NEW], count=65536),
    "cswitch-count-max": setup() + portset_cmd(14, [CS], count=0xFFFFFFFF),
    "cswitch-128-head-only": setup() + portset_cmd(14, [CS] * 128, bend=("short", 136)),
    # Sequences: a per-portset upgrade as the tool runs it, and a classic one
    # interrupted and run again.
    "portset-flow": setup() + portset_cmd(2, [NEW, CS]) + bare(7) + portset_cmd(3, [NEW, CS]) + bare(8)
                    + ps_upgrade(NEW, [(True, 0), (False, 1)]) + ps_upgrade(CS, [(True, 0), (False, 1)])
                    + bare(11) + bare(12),
    "classic-twice": setup() + portset_cmd(1, [NEW, OLD]) + portset_cmd(6, [NEW, OLD], outage=5)
                     + portset_cmd(4, [NEW]) + portset_cmd(1, [NEW, OLD]) + portset_cmd(6, [NEW, OLD])
                     + portset_cmd(4, [NEW, OLD]) + portset_cmd(5, [NEW, OLD]) + bare(12),
    # The restore paths: the unblock events of the new switch, a port coming
    # up, the clear timer.
    "classic-restore": setup() + portset_cmd(1, [NEW, OLD]) + portset_cmd(6, [NEW, OLD], outage=5)
                       + portset_cmd(4, [NEW, OLD]) + portset_cmd(1, [NEW, OLD])
                       + host(0, 0) + host(0, 1) + host(0, 2) + host(0, 5) + host(1, 6) + host(3, 0, u32(999)),
    "classic-timer": setup() + portset_cmd(1, [NEW]) + portset_cmd(6, [NEW], outage=5)
                     + portset_cmd(4, [NEW]) + host(2) + host(0, 0),
    "classic-restore-legacy": setup() + portset_cmd(1, [NEW], legacy=True) + portset_cmd(6, [NEW])
                              + portset_cmd(4, [NEW], legacy=True) + portset_cmd(1, [NEW], legacy=True)
                              + host(1, 0) + host(0, 0) + host(0, 1) + bare(12),
    "block-then-cswitch": setup() + portset_cmd(6, [CS, NEW]) + portset_cmd(14, [CS]) + portset_cmd(13, [NEW], op=1)
                          + portset_cmd(5, [CS, NEW]) + bare(12),
}


def main():
    out_dir = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")
    os.makedirs(out_dir, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(out_dir, name), "wb") as f:
            f.write(data)
    print(f"wrote {len(SEEDS)} seeds to {out_dir}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
