"""Python: xml.etree.ElementTree.iterparse, each entry into an object. `metadata.py FILE`."""

import sys
import time
import types
import xml.etree.ElementTree as ElementTree


def load(path):
    entries = []
    for _, element in ElementTree.iterparse(path):
        if element.tag == "ScriptRepo":
            fields = {leaf.tag: leaf.text for leaf in element if len(leaf) == 0}
            paths = [path.text for path in element.iterfind("ScriptPathMapping/filepath")]
            entries.append(types.SimpleNamespace(paths=paths, **fields))
            element.clear()
    return entries


for line in sys.stdin:
    processor, wall = time.process_time_ns(), time.monotonic_ns()
    for _ in range(int(line)):
        count = len(load(sys.argv[1]))
    wall, processor = time.monotonic_ns() - wall, time.process_time_ns() - processor
    print(wall, processor, count, flush=True)
