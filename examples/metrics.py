#!/usr/bin/python3
"""Writes how full the registry is for the textfile collector of node_exporter: metrics.py FILE.prom"""

import json
import os
import subprocess
import sys


def label(text):
    return text.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n")


def main(path):
    process = subprocess.run(["ledgerctl", "usage", "--json"], stdout=subprocess.PIPE, check=False)
    if process.returncode != 0:
        # The old file stays, and the collector reports its age.
        sys.exit(process.returncode)
    usage = json.loads(process.stdout)
    lines = [f"ledgerd_registry_bytes {usage['used']}", f"ledgerd_registry_capacity_bytes {usage['capacity']}"]
    lines += [f'ledgerd_registry_section_bytes{{section="{label(name)}"}} {size}'
              for name, size in usage["sections"].items()]
    # The collector reads no file with another ending. The new file replaces the old one in one step.
    new = path + ".new"
    with open(new, "w", encoding="utf-8") as file:
        file.write("\n".join(lines) + "\n")
    os.replace(new, path)


main(*sys.argv[1:])
