#!/usr/bin/env python3
"""Counts, by callgrind, what the statistics' tick costs in user space with many interfaces.

    bench/tick.py [PROGRAM]        build/tessard when not given

It needs valgrind, ip, python3 and root. The daemon runs in namespaces of its own, with 100
interfaces and without outside tools. It is stopped after 5 and, in a second run, after 15 ticks;
the difference, divided by 10, leaves out what only the first ticks do. Counted is what the timer's
callback does, in the daemon and in the C library, without the commands that it starts. Exits with 1
above the budget.
"""
import os
import re
import subprocess
import sys
import tempfile
import time

from instructions import SOCKET, connect, frame

INTERFACES, BUDGET = 100, 1300000
FEW, MANY = 5, 15


def ticks(client):
    """How many samples the history of one tick each has."""
    client.sendall(frame((b"get", b"cpu.10m")))
    reply = b""
    while len(reply) < 40:
        reply += client.recv(4096)
    start = reply.index(b"\r\n") + 2
    return int.from_bytes(reply[start + 12:start + 16], "big")


def instructions(program, count):
    with tempfile.NamedTemporaryFile() as log:
        daemon = subprocess.Popen(
            ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
             "--toggle-collect=stats_ontimer*", program, "-f", "syslog"],
            env={"PATH": "/usr/bin:/bin"}, stdout=subprocess.DEVNULL, stderr=log)
        client = connect()
        while ticks(client) < count:
            time.sleep(0.3)
        daemon.terminate()
        daemon.wait()
        os.unlink(SOCKET)
        log.seek(0)
        return int(re.findall(rb"Collected : (\d+)", log.read())[-1])


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    given = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "build", "tessard")
    program = os.path.abspath(given)
    if os.environ.get("TESSARD_BENCH_INSIDE") is None:
        os.environ["TESSARD_BENCH_INSIDE"] = "1"
        os.execvp("unshare", ["unshare", "-mn", "sh", "-c", 'mount -t tmpfs none /tmp && exec "$@"',
                              "sh", sys.executable, os.path.abspath(__file__), program])
    for i in range(0, INTERFACES, 2):
        subprocess.run(["ip", "link", "add", f"eth{i}", "type", "veth",
                        "peer", "name", f"eth{i + 1}"], check=True)
    cost = (instructions(program, MANY) - instructions(program, FEW)) // (MANY - FEW)
    print(f"tick with {INTERFACES} interfaces {cost} instructions, budget {BUDGET}")
    return 1 if cost > BUDGET else 0


if __name__ == "__main__":
    sys.exit(main())
