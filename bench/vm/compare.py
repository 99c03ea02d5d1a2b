#!/usr/bin/env python3
"""usage: compare.py ZPRUN FOLDER NAME...

Compares scripts of program text, FOLDER/NAME.zpc, with pages, FOLDER/pages/NAME.zpc: they run in turn,
and the best processor time of each counts, because other programs of the machine only ever add to it. bench/vm/run
--pages calls it.
"""

import os
import resource
import subprocess
import sys

MOST = 1.1


def run(command):
    """The output, and the processor time in seconds. The system counts only the sum of user and system
    time exactly."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    output = subprocess.run(command, check=True, capture_output=True).stdout
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return output, after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime


def main():
    zprun, folder, *names = sys.argv[1:]
    rounds = int(os.environ.get("ZEPH_ROUNDS", "7"))
    failed = False
    print(f"{'row':<14}{'text':>9}{'page':>9}{'ratio':>8}")
    for name in names:
        best = {}
        outputs = {}
        for _ in range(rounds):
            for kind in ("", "pages/"):
                command = [zprun, "--config", f"{folder}/zeph.toml", f"{folder}/{kind}{name}.zpc"]
                outputs[kind], seconds = run(command)
                best[kind] = min(seconds, best.get(kind, seconds))
        ratio = best["pages/"] / max(best[""], 0.001)
        note = ""
        if outputs[""].strip() != outputs["pages/"].strip():
            note = "  other output"
        elif ratio > MOST:
            note = "  slower"
        failed = failed or bool(note)
        print(f"{name:<14}{best['']:>9.3f}{best['pages/']:>9.3f}{ratio:>8.3f}{note}", flush=True)
    sys.exit(1 if failed else 0)


main()
