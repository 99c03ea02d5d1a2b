#!/usr/bin/env python3
"""usage: costs.py ENGINE ASSEMBLER

Starts the engine in the working directory and prints the processor time that it takes for a request: the least of
several rounds, in which the rows take turns. bench/http/serve --costs calls it.

Fails if a request costs more than 1.3 times as much while 1,000 connections are open as with 16, or if a script of
100 KB costs over 20 microseconds more than one of 1 KB.
"""

import os
import subprocess
import sys

from compare import Connection, Engine, request

ROUNDS = 7
REQUESTS = 2000
MOST_FOR_CONNECTIONS = 1.3
MOST_FOR_SIZE = 20


def make_script(assembler, name, size):
    """A page with functions that it does not call, as large as that."""
    lines = ['pushc "page"', "out", "exit"]
    count = 0
    while True:
        for _ in range(1 if size < 10000 else 50):
            lines += [f".function part{count}(first, second)", f'pushc "text of part {count} "', "out",
                      "pushl first", "pushl second", "add", "pushi 2", "mul", "out", "retn", ".end"]
            count += 1
        with open("script.zpa", "w", encoding="ascii") as file:
            file.write("\n".join(lines) + "\n")
        path = f"site/{name}.zpc"
        subprocess.check_call([assembler, "script.zpa", "-o", path])
        if os.path.getsize(path) >= size:
            return


def time_of(engine, connections, wanted):
    """Microseconds of the engine for a request. None as the connections means a new one for each."""
    before = engine.time()
    for number in range(REQUESTS):
        connection = connections[number % len(connections)] if connections else Connection()
        connection.get(wanted)
        if not connections:
            connection.close()
    return (engine.time() - before) * 1000 / REQUESTS


def kept_connections(count, wanted):
    """Connections that are in use: the engine soon closes a new one on which nothing comes."""
    connections = []
    for _ in range(count):
        connections.append(Connection())
        connections[-1].get(wanted)
    return connections


def main():
    program, assembler = sys.argv[1:]
    make_script(assembler, "small", 1000)
    make_script(assembler, "large", 100000)
    hello = request("/hello.zpc")
    engine = Engine(program, 16)
    best = {}

    def measure(label, connections, wanted, of=engine):
        took = time_of(of, connections, wanted)
        best[label] = min(took, best.get(label, took))

    few = kept_connections(8, hello)
    for _ in range(ROUNDS):
        measure("hello, new connections", None, request("/hello.zpc", keep=False))
        measure("hello, kept connections", few, hello)
        measure("script of 1 KB", few, request("/small.zpc"))
        measure("script of 100 KB", few, request("/large.zpc"))
    engine.close()
    # Each connection has a thread of its own.
    engine = Engine(program, 1000)
    many = kept_connections(1000, hello)
    for _ in range(ROUNDS):
        measure("1,000 connections, 16 in use", many[:16], hello, engine)
        measure("1,000 connections in use", many, hello, engine)
    engine.close()
    for label, took in best.items():
        print(f"{label:<32}{took:>7.1f} microseconds of the engine for a request")
    growth = best["1,000 connections in use"] / best["1,000 connections, 16 in use"]
    size = best["script of 100 KB"] - best["script of 1 KB"]
    print(f"1,000 connections cost {growth:.2f} times as much as 16, 100 KB {size:.1f} microseconds more than 1 KB")
    sys.exit(1 if growth > MOST_FOR_CONNECTIONS or size > MOST_FOR_SIZE else 0)


main()
