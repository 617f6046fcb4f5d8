#!/usr/bin/env python3
"""Writes the named seeds of the server-protocol and scenario-language fuzzers.

serve_request_corpus/: lines of JSON requests, one input a connection.
scenario_corpus/: a first byte ('0': run as a file, '1': line by line as at
the shell) and then the scenario's text.  Rerun after changing either
harness; inputs a campaign adds (-merge=1) are hash-named beside these.
"""
import json
import os

HERE = os.path.dirname(os.path.abspath(__file__))


def req(op, **fields):
    d = {"op": op}
    d.update(fields)
    return json.dumps(d, separators=(",", ":"))


SERVE = {
    "views": [req(o) for o in ("hello", "modules", "portsets", "ports", "timers", "log", "ledger", "heaps", "now")],
    "device": [
        req("load", name="lus-2000", params=["fromBuild=1000"]),
        req("open"),
        req("ioctl", cmd=1, payload="", length=0),
        req("ioctl", cmd=6, payload="c80000000000000000", length=9),
        req("ioctl", cmd=4, payload="0100000070733000", length=8),
        req("close"),
        req("unload", name="lus"),
    ],
    "classic": [
        req("scenario", line="lusctl upgrade classic --from-build 1000 --to-build 2000 --portset ps0 --module-param seed=7"),
        req("scenario", line="expect ledger tarnq-dfw verified same-as=saved"),
        req("ledger"),
    ],
    "portset": [
        req("scenario", line="lusctl upgrade portset --from-build 1000 --to-build 2000 --portset ps0 --container-port @ps0#6 --module-param seed=7"),
        req("scenario", line="lusctl status"),
    ],
    "host-services": [
        req("load", name="lus-2000", params=["fromBuild=1000"]),
        req("load", name="tarnq-vswitch-2000", params=["seed=7"]),
        req("takeover", portset="ps0", build=2000, threads=2),
        req("enable", port=7),
        req("restore-event", port=1),
        req("unblock-port", port=2),
        req("scenario", line="advance 121"),
        req("timers"),
    ],
    "refused": [
        '{"op":1}', "null", "[]", "{}", "true", '{"op":"ioctl","cmd":4294967302,"payload":"","length":0}',
        req("takeover", portset="ps0", build=2000, threads=-1),
        req("load", name="../../x", params=[]),
        '{"op":"ioctl","cmd":1.5,"payload":"zz","length":-1}',
        "[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]",
        req("scenario", line="ports ps0 18446744073709551615"),
    ],
    "faults": [
        req("scenario", line="fault hyk_HeapAllocWithRA from=3 status=NO_MEMORY"),
        req("load", name="lus-2000", params=["fromBuild=1000"]),
        req("scenario", line="clear-faults"),
        req("shutdown"),
        req("hello"),
    ],
}

TOPOLOGY = """load client tarnq-vswitch build=1000
portset ps0 module=tarnq-vswitch-1000
ports ps0 8 vms=4 external-id=a
load client tarnq-dfw build=1000
load client tarnq-stats build=1000
"""

SCENARIO = {
    "classic": "0" + TOPOLOGY + """lusctl upgrade classic --from-build 1000 --to-build 2000 --portset ps0 --module-param seed=7
expect exit 0
expect blocked ps0 no
expect ledger tarnq-dfw verified same-as=saved
expect heap lus_heap_1 bytes=0
report
""",
    "classic-by-hand": "0" + TOPOLOGY + """load lus fromBuild=1000
load client tarnq-vswitch build=2000
lusctl register --type to
lusctl block --portset ps0 --max-outage 2
lusctl save --portset ps0
expect blocked ps0#3 yes
unload tarnq-dfw-1000
takeover ps0 build=2000 threads=2
unblock-event ps0#1
advance 121
expect log "Clearing LUS Client data"
""",
    "portset": "0" + """load client tarnq-vswitch build=1000
portset dvs-c class=cswitch module=tarnq-vswitch-1000
portset dvs-e module=tarnq-vswitch-1000 fdp=yes
ports dvs-c 4 vms=2 external-id=c
ports dvs-e 4 vms=2 external-id=e
ports dvs-e 1 type=container filter=cfilter
load client tarnq-stats build=1000
load client tarnq-fdp build=1000
lusctl upgrade portset --from-build 1000 --to-build 2000 --portset dvs-c --portset dvs-e --container-port @dvs-e#4 --module-param seed=7
expect exit 0
enable dvs-e#4
""",
    "faults": "1" + TOPOLOGY + """fault hyk_PortsetAcquireByName nth=2 status=NO_MEMORY
load lus fromBuild=1000
lusctl save --portset ps0
expect exit 1
fault hyk_HeapAllocWithRA probability=0.5 seed=3 count=4
set tarnq-dfw-1000 failSlot=3 failPort=@ps0#2
clear-faults
""",
    "ioctl": "1" + """portset ps0 version=106
ports ps0 2
load lus
ioctl 6 hex=c80000000000000000
expect status OK
ioctl 4294967295 length=0
ioctl 12 hex=00 length=4096
expect status BAD_PARAM
""",
    "refused": "1" + """portset ps0
ports ps0 18446744073709551615
ports ps0 4 vms=0
takeover ps0 build=2000 threads=100000
advance 18446744073709
advance 1e300
load client ../../x build=1
expect blocked ps0#99
echo "unterminated
""",
    "limits": "0" + """portset a
portset b
portset c
ports a 60
ports b 4
advance 3153599999.999999
advance 1
""",
}


def write(directory, name, text):
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, name), "w") as f:
        f.write(text)


for name, lines in SERVE.items():
    write(os.path.join(HERE, "serve_request_corpus"), "seed-" + name, "\n".join(lines) + "\n")
for name, text in SCENARIO.items():
    write(os.path.join(HERE, "scenario_corpus"), "seed-" + name, text)
