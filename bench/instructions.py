#!/usr/bin/env python3
"""Counts what a request costs in user space: instructions by callgrind, for one client.

    bench/instructions.py [PROGRAM]    build/tessard when not given; needs valgrind and root

The daemon runs in namespaces of its own. Each command is sent 500 and then 2500 times in a fresh
daemon; the difference, divided by 2000, leaves the start-up out. The statistics' tick is in it,
some 20 instructions a request. Instructions are repeatable on a noisy machine where seconds are
not. Exits with 1 when a command is over its budget.
"""
import os
import re
import socket
import subprocess
import sys
import tempfile
import time

SOCKET = "/tmp/tessard.sock"
FEW, MANY = 500, 2500
KEY, VALUE = b"key:00000000001", b"x" * 32
CASES = (  # name, budget, what stands in the store before, request
    ("GET", 1500, (b"set", KEY, VALUE), (b"get", KEY)),
    ("SET", 1700, (b"set", KEY, VALUE), (b"set", KEY, VALUE)),
    ("INCR", 1800, (b"set", KEY, b"5"), (b"incr", KEY)),
)


def frame(arguments):
    return b"*%d\r\n" % len(arguments) + b"".join(b"$%d\r\n%s\r\n" % (len(a), a) for a in arguments)


def connect():
    for _ in range(200):
        try:
            client = socket.socket(socket.AF_UNIX)
            client.connect(SOCKET)
            return client
        except OSError:
            time.sleep(0.1)
    sys.exit("the daemon does not listen")


def instructions(program, before, request, count):
    with tempfile.NamedTemporaryFile() as log:
        daemon = subprocess.Popen(
            ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
             program, "-f", "syslog"],
            stdout=subprocess.DEVNULL, stderr=log)
        client = connect()
        for arguments, times in ((before, 1), (request, count)):
            for _ in range(times):
                client.sendall(frame(arguments))
                client.recv(4096)
        daemon.terminate()
        daemon.wait()
        os.unlink(SOCKET)
        log.seek(0)
        return int(re.findall(rb"Collected : (\d+)", log.read())[-1])


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    program = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else f"{root}/build/tessard")
    if os.environ.get("TESSARD_BENCH_INSIDE") is None:
        os.environ["TESSARD_BENCH_INSIDE"] = "1"
        os.execvp("unshare", ["unshare", "-mn",
                              "sh", "-c", 'mount -t tmpfs none /tmp && exec "$@"', "sh",
                              sys.executable, os.path.abspath(__file__), program])
    over = False
    for name, budget, before, request in CASES:
        few = instructions(program, before, request, FEW)
        cost = (instructions(program, before, request, MANY) - few) // (MANY - FEW)
        over = over or cost > budget
        print(f"{name:5} {cost:6} instructions, budget {budget}")
    return 1 if over else 0


if __name__ == "__main__":
    sys.exit(main())
