"""Prints the share of executed lines of each file below a folder, from lcov's form on stdin.

usage: coverage_table.py FOLDER PERCENT; exits 1 when all together are below PERCENT.
"""
import os
import sys

folder, least = sys.argv[1], float(sys.argv[2])
lines = {}  # file: line: executed
name = None
for record in sys.stdin:
    kind, _, rest = record.strip().partition(":")
    if kind == "SF":
        rest = os.path.normpath(rest)
        name = rest if rest.startswith(folder) and "/sdk/" not in rest else None
    elif kind == "DA" and name:
        number, count = rest.split(",")[:2]
        file = lines.setdefault(name[len(folder):], {})
        file[number] = file.get(number, False) or int(count) > 0
for file, counts in sorted(lines.items()):
    missing = [number for number, executed in counts.items() if not executed]
    print(f"{100 * (1 - len(missing) / len(counts)):6.1f} %  {file}"
          + (f"  not: {', '.join(missing[:12])}" if missing else ""))
executed = sum(sum(counts.values()) for counts in lines.values())
total = sum(len(counts) for counts in lines.values())
share = 100 * executed / max(total, 1)
print(f"{share:6.1f} %  of {total} lines")
sys.exit(share < least)
