#!/usr/bin/python3
"""pass_persist.py BASE FILE: the container table as an snmpd "pass_persist" script serves it, the way that people write
such scripts: everything is read into memory once, and a GETNEXT is a binary search.

FILE has a line for each value, sorted by OID: OID, type and value, separated by tabs.
"""

import bisect
import sys


def parse(oid):
    return tuple(int(part) for part in oid.strip(".").split("."))


def answer(found):
    return "\n".join(found)


def main():
    with open(sys.argv[2], encoding="utf-8") as file:
        rows = [line.rstrip("\n").split("\t") for line in file]
    keys = [parse(row[0]) for row in rows]
    while command := sys.stdin.readline().strip():
        if command == "PING":
            print("PONG", flush=True)
            continue
        name = parse(sys.stdin.readline())
        at = bisect.bisect_right(keys, name) if command == "getnext" else bisect.bisect_left(keys, name)
        isFound = at < len(keys) and (command == "getnext" or keys[at] == name)
        print(answer(rows[at]) if isFound else "NONE", flush=True)


if __name__ == "__main__":
    main()
