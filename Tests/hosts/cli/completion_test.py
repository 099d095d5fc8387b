"""Completes command lines with tavelin.bash, as bash would, on a real volume.

usage: completion_test.py TAVELIN COMPLETIONS
"""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

PROGRAM, SCRIPT = map(pathlib.Path, sys.argv[1:3])

COMPLETE = r"""
. "$0"
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
_tavelin tavelin "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}" 2>/dev/null
[ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}"
"""


class Completion(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        image = os.path.join(cls.folder.name, "disk.img")
        with open(image, "wb") as file:
            file.truncate(16 << 20)
        system = os.environ["PATH"] + ":/usr/sbin:/sbin"
        cls.environment = dict(os.environ, PATH=f"{PROGRAM.parent}:{system}")
        cls.call(["mkntfs", "-F", "-Q", "-q", image])
        cls.call(["tavelin", "mkdir", "-p", image, "photos/2026 summer/raw", "papers"])
        cls.call(["tavelin", "ln", "-s", image, "photos", "pictures"])
        cls.call(["tavelin", "xattr", "set", image, "papers", "author", "Ada"])
        os.symlink(image, os.path.join(cls.folder.name, "a disk.img"))

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    @classmethod
    def call(cls, words):
        return subprocess.run(words, env=cls.environment, cwd=cls.folder.name, check=True,
                              capture_output=True, text=True).stdout

    def complete(self, *words):
        lines = self.call(["bash", "-c", COMPLETE, str(SCRIPT), "tavelin", *words])
        return sorted(lines.splitlines())

    def test_commands_options_and_images(self):
        self.assertEqual(self.complete("l"), ["label", "ln", "ls"])
        self.assertEqual(self.complete("ls", "-"),
                         sorted("--help --read-only --wait --offset -o -l -a -R -h -t -S -r -d -1 "
                                "-p --streams --short-names --json".split()))
        self.assertEqual(self.complete("ls", "d"), ["disk.img"])
        self.assertIn("windows_names", self.complete("ls", "-o", ""))
        self.assertIn("low_latency", self.complete("mount", "-o", ""))
        self.assertEqual(self.complete("xattr", ""), ["get", "list", "rm", "set"])
        self.assertEqual(self.complete("diff", "disk.img", "papers", "--with", "d"), ["disk.img"])

    def test_paths_inside_the_image(self):
        self.assertEqual(self.complete("ls", "disk.img", "p"), ["papers/", "photos/", "pictures"])
        self.assertEqual(self.complete("cat", "disk.img", "photos/"), ["photos/2026 summer/"])
        self.assertEqual(self.complete("xattr", "get", "disk.img", "photos/2026 summer/r"),
                         ["photos/2026 summer/raw/"])
        self.assertEqual(self.complete("ls", "missing.img", "p"), [])
        self.assertEqual(self.complete("diff", "--with", "missing.img", "disk.img", "pa"),
                         ["papers/"])
        for quoted in ("'a disk.img'", '"a disk.img"', r"a\ disk.img"):
            self.assertEqual(self.complete("ls", quoted, "pa"), ["papers/"])
        self.assertEqual(self.complete("xattr", "get", "disk.img", "papers", "au"), ["author"])

    def test_every_command_of_the_program_is_offered(self):
        offered = set(self.complete("")) - {"help", "--help", "--version", "mount", "umount"}
        known = {line.split()[0] for line in self.call(["tavelin", "--help"]).splitlines()
                 if line.startswith("  ") and not line.startswith("  -")}
        self.assertEqual(offered, known - {"mount", "umount"})


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
