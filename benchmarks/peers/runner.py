"""Python: subprocess.run with both outputs on one pipe, decoded when VARN_BENCH_UTF8 is set."""

import os
import subprocess
import sys
import time

touched = bytearray(b"\1") * int(sys.argv[1])
encoding = "utf-8" if "VARN_BENCH_UTF8" in os.environ else None

for line in sys.stdin:
    processor, wall = time.process_time_ns(), time.monotonic_ns()
    for _ in range(int(line)):
        output = subprocess.run(
            sys.argv[3:],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            cwd=sys.argv[2],
            check=True,
        ).stdout
        # As a result of the same kind: `encoding=` above would also rewrite line ends.
        length = len(output)
        if encoding:
            text = output.decode(encoding)
    wall, processor = time.monotonic_ns() - wall, time.process_time_ns() - processor
    print(wall, processor, length, flush=True)
