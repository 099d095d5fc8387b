"""Reads from a program how it is hardened, and fails for anything that is missing.

  hardening_test.py [--without-fortify] PROGRAM
"""
import pathlib
import re
import subprocess
import sys

LANDING_PADS = {"X86-64": b"\xf3\x0f\x1e\xfa", "AArch64": b"\x5f\x24\x03\xd5"}


def readelf(program, *options):
    return subprocess.run(["readelf", "--wide", *options, program], check=True,
                          capture_output=True, text=True).stdout


def findings(program):
    header = readelf(program, "--file-header")
    segments = readelf(program, "--segments")
    dynamic = readelf(program, "--dynamic")
    symbols = readelf(program, "--dyn-syms")
    stack = re.search(r"GNU_STACK.* (\S+)\s+0x\w+$", segments, re.MULTILINE)
    loads = re.findall(r"^\s*LOAD\s.*?0x\w+ ((?:R| )(?:W| )(?:E| ))\s", segments, re.MULTILINE)
    # A shared object with an interpreter and the flag is an executable anywhere in memory.
    yield "position independent", ("DYN" in header and "INTERP" in segments
                                   and re.search(r"FLAGS_1.*\bPIE\b", dynamic))
    yield "relocations read-only", "GNU_RELRO" in segments
    yield "all symbols bound at the start", re.search(r"\bBIND_NOW\b|Flags:.*\bNOW\b", dynamic)
    yield "no executable stack", stack and "E" not in stack[1]
    yield "nothing both writable and executable", loads and not any(
        "W" in flags and "E" in flags for flags in loads)
    yield "stack protector", "__stack_chk_fail" in symbols
    yield "fortified calls", re.search(r"\b__\w+_chk\b(?<!__stack_chk)", symbols)
    # The linker drops the note about it where the C library's own start-up code has none, so that
    # the landing pads themselves are looked for: one at every function that a pointer may lead to.
    pads = next((pad for name, pad in LANDING_PADS.items() if name in header), None)
    if pads:
        yield "control-flow protection", pathlib.Path(program).read_bytes().count(pads) > 100


def main():
    program = sys.argv[-1]
    skipped = {"fortified calls"} if "--without-fortify" in sys.argv else set()
    missing = 0
    for name, found in findings(program):
        if name not in skipped:
            print(f"{'yes' if found else 'NO '}  {name}")
            missing += not found
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
