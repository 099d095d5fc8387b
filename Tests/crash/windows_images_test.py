"""Makes the disks of script/windows-images and asks other programs about them: each has to be what
the list says it is, and the guide has to name it."""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

SKIPPED = 77
PARTITION = 1 << 20
RECORDS = 64 << 10  # where the journal begins in $LogFile

maker, tavelin, guide = sys.argv[1:]
if os.geteuid() != 0 or not os.access("/dev/fuse", os.R_OK | os.W_OK):
    sys.exit(SKIPPED)


def output(*command):
    return subprocess.run(command, check=True, capture_output=True).stdout


def kind_of(log):
    """Of the bytes of $LogFile."""
    if not log.strip(b"\xff"):
        return "blank"
    if not log.strip(b"\0"):
        return "zeros"
    if log[:RECORDS].strip(b"\xff") or log[RECORDS:RECORDS + 8] != b"TavelinJ":
        return "something else"
    if int.from_bytes(log[RECORDS + 16:RECORDS + 20], "little") > 0:
        return "records"
    return "header" if not log[RECORDS + 512:].strip(b"\xff") else "something else"


def status(*command):
    return subprocess.run(command, capture_output=True).returncode


def look_at(disk, volume):
    content = bytearray(disk.read_bytes()[PARTITION:-512])
    volume.write_bytes(content)
    log = output("ntfscat", "--force", "--quiet", "--inode", "2", volume)
    information = output("ntfsinfo", "--force", "--mft", volume).decode()
    found = {
        "log": kind_of(log),
        "dirty": re.search(r"Volume Flags: *0x([0-9a-f]+)", information)[1] != "0000",
        "probe": status("ntfs-3g.probe", "--readwrite", volume),
        "check": status(tavelin, "check", disk),
    }
    begin = content.index(log)
    if found["log"] != "zeros":  # which may be found elsewhere
        content[begin:begin + len(log)] = b"\xff" * len(log)
    volume.write_bytes(content)
    complaints = subprocess.run([tavelin, "check", volume], capture_output=True, text=True).stdout
    found["half"] = "data at risk: " in complaints
    return found


with tempfile.TemporaryDirectory() as work:
    directory = pathlib.Path(work)
    output(maker, directory)
    rows = [json.loads(line) for line in (directory / "manifest.jsonl").open()]
    assert len(rows) == len(list(directory.glob("*.vhd"))) == 12, rows
    text = pathlib.Path(guide).read_text()
    for row in rows:
        found = look_at(directory / row["image"], directory / "volume")
        # A mount completes what waits, and puts its own session's mark right.
        is_sound = row["log"] in ("header", "records") or row["log"] == "blank" and not row["dirty"]
        expected = {key: row[key] for key in ("log", "dirty", "half")} | {
            "probe": 0 if row["log"] == "blank" else 15, "check": 0 if is_sound else 1}
        assert found == expected, (row, found)
        assert f"| {row['image'].removesuffix('.vhd')} |" in text, f"{row} is not in {guide}"
