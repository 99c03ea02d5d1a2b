#!/usr/bin/env python3
"""usage: compare.py ENGINE NAME...

Starts the engine in the working directory and requests /text/NAME.zpc and /pages/NAME.zpc in turn, over kept
connections. Compares the processor time that the engine takes for each, the least of several rounds.
bench/http/serve --pages calls it.
"""

import os
import socket
import struct
import subprocess
import sys

MOST = 1.1
ROUNDS = 7
REQUESTS = 1500
BEGIN, END, PARAMETERS, INPUT, OUTPUT = 1, 3, 4, 5, 6


def record(kind, content=b""):
    return struct.pack(">BBHHBx", 1, kind, 1, len(content), 0) + content


def request(path, keep=True):
    text = b""
    for name, value in (("PATH_INFO", path), ("REQUEST_METHOD", "GET"), ("QUERY_STRING", "")):
        text += bytes([len(name), len(value)]) + name.encode() + value.encode()
    begin = struct.pack(">HBxxxxx", 1, keep)
    return (record(BEGIN, begin) + record(PARAMETERS, text) + record(PARAMETERS) + record(INPUT))


class Connection:
    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect("engine.sock")
        self.file = self.socket.makefile("rb", buffering=1 << 16)

    def get(self, wanted):
        self.socket.sendall(wanted)
        output = []
        while True:
            _, kind, _, length, padding = struct.unpack(">BBHHBx", self.file.read(8))
            content = self.file.read(length + padding)[:length]
            if kind == OUTPUT:
                output.append(content)
            elif kind == END:
                return b"".join(output)

    def close(self):
        self.file.close()
        self.socket.close()


class Engine:
    def __init__(self, program, threads=1):
        if os.path.exists("engine.sock"):
            os.remove("engine.sock")
        listener = socket.socket(socket.AF_UNIX)
        listener.bind("engine.sock")
        listener.listen(1024)
        environment = dict(os.environ, ZEPH_CONFIG=os.path.abspath("zeph.toml"))
        self.process = subprocess.Popen([program, "-t", str(threads)], stdin=listener, env=environment)
        listener.close()

    def time(self):
        """Processor time in milliseconds, of all threads that the engine has."""
        total = 0
        for thread in os.listdir(f"/proc/{self.process.pid}/task"):
            with open(f"/proc/{self.process.pid}/task/{thread}/schedstat", encoding="ascii") as file:
                total += int(file.read().split()[0])
        return total / 1e6

    def close(self):
        self.process.terminate()
        self.process.wait()


def main():
    program, *names = sys.argv[1:]
    engine = Engine(program)
    connection = Connection()
    failed = False
    try:
        print(f"{'page':<10}{'text':>9}{'page':>9}{'ratio':>8}   microseconds of the engine for a request")
        for name in names:
            best = {}
            bodies = {}
            for _ in range(ROUNDS):
                for kind in ("text/", "pages/"):
                    wanted = request(f"/{kind}{name}.zpc")
                    bodies[kind] = connection.get(wanted).split(b"\r\n\r\n", 1)[1]
                    before = engine.time()
                    for _ in range(REQUESTS):
                        connection.get(wanted)
                    took = (engine.time() - before) * 1000 / REQUESTS
                    best[kind] = min(took, best.get(kind, took))
            ratio = best["pages/"] / best["text/"]
            note = ""
            if bodies["text/"] != bodies["pages/"]:
                note = "  other output"
            elif ratio > MOST:
                note = "  slower"
            failed = failed or bool(note)
            print(f"{name:<10}{best['text/']:>9.1f}{best['pages/']:>9.1f}{ratio:>8.3f}{note}", flush=True)
    finally:
        engine.close()
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
