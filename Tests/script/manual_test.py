"""The table of the manual page has every option of ntfs-3g, and the program does as it says."""
import gzip
import pathlib
import re
import subprocess
import sys

THEIR_PAGE = pathlib.Path("/usr/share/man/man8/ntfs-3g.8.gz")
SKIPPED = 77

# An option that means nothing without a value is asked for with this one.
VALUES = {"uid": "1000", "gid": "1000", "umask": "022", "fmask": "0133", "dmask": "022",
          "locale": "C", "streams_interface": "xattr", "special_files": "wsl",
          "usermapping": "file", "max_read": "4096"}


def their_options(page):
    options = page.partition(".SH OPTIONS")[2].partition(".SH ")[0]
    entries = re.findall(r"^\.TP\n(?:\.BI?|\\fB) ?([^\n]*)", options, re.M)
    return {name for entry in entries for name in re.findall(r"[a-z_]+", re.split(
        r"\\fP|[=[(]| value", entry)[0])}


def our_table(page):
    """What becomes of each option: The same, Different, or Not offered."""
    table = page.partition(".TS")[2].partition(".TE")[0]
    options, group = {}, None
    for heading, names in re.findall(r"^([A-Z][a-z ]+)$|^T{\n\.na\n(.*)\nT}\t", table, re.M):
        group = heading or group
        options |= {name.strip(): group for name in names.split(",") if name}
    return options


def is_accepted(program, option):
    word = f"{option}={VALUES[option]}" if option in VALUES else option
    result = subprocess.run([program, "mount", "-o", word, "/nonexistent/image", "/mnt"],
                            capture_output=True, text=True, check=False)
    return "no such option" not in result.stderr


def main():
    ours = our_table(pathlib.Path(sys.argv[1]).read_text(encoding="utf-8"))
    failures = [f"{option}: listed as {group}, and the program says otherwise"
                for option, group in sorted(ours.items()) if group != "Different"
                and is_accepted(sys.argv[2], option) != (group == "The same")]
    if len(ours) < 30:
        failures.append(f"only {len(ours)} options were found in the table")
    isThere = THEIR_PAGE.exists()
    if isThere:
        theirs = their_options(gzip.decompress(THEIR_PAGE.read_bytes()).decode())
        failures += [f"{option}: not in the table" for option in sorted(theirs - ours.keys())]
        if len(theirs) < 30:
            failures.append(f"only {len(theirs)} options were found in {THEIR_PAGE}")
    print("\n".join(failures) or ("as in the manual" if isThere else f"without {THEIR_PAGE}"))
    return 1 if failures else 0 if isThere else SKIPPED


if __name__ == "__main__":
    sys.exit(main())
