"""What is said in more than one place is the same there: the version, and the packages needed."""
import pathlib
import re
import sys


def main():
    root = pathlib.Path(sys.argv[1])
    read = lambda name: (root / name).read_text(encoding="utf-8")
    failures = []

    version = re.search(r"set\(TAVELIN_VERSION (\S+)\)", read("cmake/Product.cmake"))[1]
    packaged = re.match(r"tavelin \(([^-)]+)", read("debian/changelog"))[1]
    if version != packaged:
        failures.append(f"debian/changelog has version {packaged}, cmake/Product.cmake {version}")

    listed = {word for line in read("packaging/debian-packages").splitlines()
              if not line.startswith("#") for word in line.partition(":")[2].split()}
    needed = re.search(r"^Build-Depends:(.*?)^\S", read("debian/control"), re.DOTALL | re.M)[1]
    needed = {re.split(r"[ :(<]", entry.strip())[0] for entry in needed.split(",")}
    for package in sorted(needed - listed - {"debhelper-compat"}):
        failures.append(f"debian/control needs {package}, which packaging/debian-packages lacks")

    print("\n".join(failures) or "the same everywhere")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
