"""Runs script/tidy over small projects that break one rule each, and over one that breaks none."""
import pathlib
import subprocess
import sys
import tempfile

HEADER = "// What it is for.\n#pragma once\n"

# (rule that must object, file, contents)
FORBIDDEN = [
    ("columns", "Sources/core/a.cpp", "int " + "a" * 97 + ";\n"),
    ("length", "Sources/core/a.cpp", "\n" * 401),
    ("length", "Tests/core/a.cpp", "\n" * 501),
    ("functions", "Sources/core/a.cpp", "void f() {\n" + "    g();\n" * 59 + "}\n"),
    ("layers", "Sources/core/a.cpp", '#include "fskit/a.hpp"\n'),
    ("layers", "Sources/platform/a.cpp", '#include "diagnostics/log.hpp"\n'),
    ("layers", "Sources/hosting/a.cpp", '#include "hosts/fuse/a.hpp"\n'),
    ("layers", "Sources/fskit/a.cpp", '#include "NTFSBridge/ntb.h"\n'),
    ("layers", "Sources/core/a.cpp", '#include "core/journal/a.hpp"\n'),
    ("layers", "Sources/hosts/fuse/tree/a.cpp", '#include "hosts/fuse/protocol/a.hpp"\n'),
    ("private_headers", "Tests/core/a.cpp", '#include "NTFSBridge/device/a.hpp"\n'),
    ("layers", "Sources/core/a.cpp", '#include "support/temp_directory.hpp"\n'),
    ("layers", "Sources/core/a.cpp", '#include "b.hpp"\n'),
    ("private_headers", "Sources/core/a.cpp", '#include "platform/private/b.hpp"\n'),
    ("private_headers", "Sources/core/a.cpp", '#include "NTFSBridge/volume.hpp"\n'),
    ("private_headers", "Tests/core/a.cpp", '#include "diagnostics/private/b.hpp"\n'),
    ("foreign_headers", "Sources/core/a.cpp", "#include <ntfs-3g/inode.h>\n"),
    ("foreign_headers", "Sources/core/a.hpp", HEADER + "#include <nlohmann/json.hpp>\n"),
    ("foreign_headers", "Sources/fskit/a.cpp", "#include <fuse_lowlevel.h>\n"),
    ("header_contract", "Sources/core/a.hpp", "#pragma once\n"),
    ("header_contract", "Sources/core/a.hpp", "// What it is for.\nint a;\n"),
    ("banned_calls", "Sources/core/a.cpp", "int n = std::atoi(text);\n"),
    ("printing", "Sources/core/a.cpp", 'void f() { std::printf("x"); }\n'),
    ("printing", "Sources/core/a.cpp", "void f() { std::cerr << 1; }\n"),
    ("sleeping", "Tests/core/a.cpp", "std::this_thread::sleep_for(1s);\n"),
    ("ownership", "Sources/core/a.cpp", "auto* a = new Thing(1);\n"),
    ("ownership", "Sources/core/a.cpp", "void f(int* a) { delete[] a; }\n"),
    ("error_numbers", "Sources/core/a.cpp", "throw NTFSError(6);\n"),
    ("error_numbers", "Sources/hosts/cli/a.cpp", "if (error.code == 66) {}\n"),
    ("error_numbers", "Sources/fskit/volume.cpp", "reply(ENOENT);\n"),
    ("pipes", "script/a", "#!/bin/bash\nls |\n    grep -qx a\n"),
    ("pipes", "script/lib/a.sh", "ls | sort | grep -E -q a && b\n"),
    ("pipes", "packaging/a", "#!/bin/sh\nls \\\n  | head -n 1\n"),
    ("unfinished", "docs/a.md", "TO" + "DO: more\n"),
    ("words", "Sources/core/a.cpp", "// as the sp" + "ec says\n"),
    ("words", "docs/sp" + "ec_notes.md", "Notes\n"),
    # A file that is excused, and has nothing to be excused.
    ("printing", "Sources/platform/checked.cpp", "int a;\n"),
]

ALLOWED = [
    ("Sources/core/a.cpp",
     '#include "NTFSBridge/ntb.h"\n#include "core/private/b.hpp"\n#include <nlohmann/json.hpp>\n'
     "// new names, delete nothing; sleep(1) and printf() are words here, NTFSError(6) too\n"
     "A(const A&) = delete;\nvoid f();\n"
     'const char* text = "new Thing; printf(1) EIO";\n'
     "std::unique_ptr<int[]> list(new (std::nothrow) int[4]);\n"
     "static A& a = *new A;\nthrow NTFSError(kENXIO);\nif (error.code == kEIO || code == 0) {}\n"
     "timespec time{};\n"),
    ("Sources/fskit/resource_device.cpp", "return EIO;\n"),
    ("Sources/core/a.cpp", "constexpr int kTable[] = {\n" + "    1,\n" * 100 + "};\n"),
    ("Tests/core/a.cpp", "\n" * 401),
    ("Sources/hosts/cli/a.cpp", '#include "hosting/a.hpp"\nvoid f() { std::puts("x"); }\n'),
    ("Sources/core/b.cpp", "void f() {\n" + "    g();\n" * 58 + "}\n"),
    ("Tests/core/a.cpp", '#include "core/private/b.hpp"\n#include "support/temp_directory.hpp"\n'),
    ("docs/a.md", "a" * 200 + "\n"),
    ("script/a", "#!/bin/bash\nhead -c 9 a | wc -c\ngrep -q a <<<b || grep -q b c\nls | grep a\n"),
]


def tidy(script, files):
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["git", "init", "-q", folder], check=True)
        for name, contents in files:
            path = pathlib.Path(folder, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(contents, encoding="utf-8")
        return subprocess.run([script, "--root", folder], capture_output=True, text=True)


def main():
    script = sys.argv[1]
    failures = []
    for rule, name, contents in FORBIDDEN:
        result = tidy(script, [(name, contents)])
        objections = {line.rsplit("[", 1)[-1].rstrip("]") for line in result.stdout.splitlines()}
        if result.returncode != 1 or objections != {rule}:
            failures.append(f"{rule} on {name} {contents[:60]!r}: {result.stdout}{result.stderr}")
    result = tidy(script, ALLOWED)
    if result.returncode != 0:
        failures.append(f"objects to what is allowed: {result.stdout}{result.stderr}")
    print("\n".join(failures) or "all rules hold")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
