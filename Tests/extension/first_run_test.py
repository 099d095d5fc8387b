#!/usr/bin/env python3
"""What of packaging/macos/first-run Linux can run: its images, its steps, its report.

usage: first_run_test.py SOURCE_DIRECTORY [unittest arguments]
"""
import importlib.machinery
import importlib.util
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE = Path(sys.argv.pop(1)).resolve()
SCRIPT = SOURCE / "packaging/macos/first-run"
sys.dont_write_bytecode = True
LOADER = importlib.machinery.SourceFileLoader("first_run", str(SCRIPT))
first_run = importlib.util.module_from_spec(importlib.util.spec_from_loader("first_run", LOADER))
sys.modules["first_run"] = first_run
LOADER.exec_module(first_run)

# What a Mac is expected to print, by the title of the step.
GOOD = {
    "The program": "T:\n\t/usr/lib/libSystem.B.dylib (x)\n\t/System/Library/F (y)\nstatus 0",
    "Its classes": "x _OBJC_CLASS_$_TavelinFileSystem\nx _OBJC_CLASS_$_TavelinHandlerVolume\n"
                   "x _OBJC_CLASS_$_TavelinVolume\nstatus 0",
    "The signature": '  "com.apple.developer.fskit.fsmodule" => true\nstatus 0',
    "Registration": "+ org.tavelin.Tavelin.fsmodule(0.1.0) /Applications\nstatus 0",
    "The switch": "status 0",
    "A mount": "/dev/disk4 on /t/mount (tavelin, local, nodev, fskit)\nstatus 0",
    "The event log": '{"ev":"load","ok":true}\n{"ev":"activate"}\nstatus 0',
    "Statistics": "/dev/disk4 262140 5000 257140 2% 10 100 9% /t\n2 40777\nstatus 0",
    "Reading and writing": "status 0",
    "Names": "c3a974c3a90a\nstatus 0",
    "Names that Windows cannot have": "touch: what?: Invalid argument\nstatus 1",
    "Extended attributes": "value\n0\nstatus 1",
    "A removed open file": "kept\nls: open: No such file or directory\nstatus 0",
    "A replaced open file": "old\nnew\nstatus 0",
    "Locked files": "chflags: l: Operation not supported\nstatus 1",
    "Two at once": "status 0",
    "A synchronise": "real 0m1s\nstatus 0",
    "Errors in the log": "Timestamp Thread Type\nstatus 0",
    "Unmounting": '{"ev":"deactivate"}\nstatus 1',
    "Read-only": "touch: x: Read-only file system\nstatus 0",
    "A check": "status 0",
    "A stick": "status 0",
    "Pulling it out": "status 0",
}
BAD = {
    "The program": "T:\n\t/opt/homebrew/lib/libfmt.9.dylib (x)\nstatus 0",
    "Registration": "a.fsmodule(1) x\nb.fsmodule(1) y\nstatus 0",
    "A removed open file": "cat: stdin: Stale NFS file handle\nstatus 1",
    "Extended attributes": "value\n2\nstatus 0",
    "Unmounting": '{"ev":"activate"}\n123\nstatus 0',
}


class FirstRun(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def play(self, answers, verdict="yes"):
        """Runs the steps with these outputs; what differs, the steps run and the report."""
        ran = []

        def shell(command, _environment, **_):
            step = next(s for s in first_run.STEPS if s.command == command and s not in ran)
            ran.append(step)
            return answers[step.title]

        original, first_run.shell = first_run.shell, shell
        self.addCleanup(setattr, first_run, "shell", original)
        path = self.folder / "report.txt"
        differ = first_run.run_steps({}, first_run.Report(path), lambda question: verdict)
        first_run.shell = original
        return differ, [step.title for step in ran], path.read_text()

    def test_a_good_run_is_recognised_in_the_guides_order(self):
        differ, ran, report = self.play(GOOD)
        self.assertEqual(differ, [])
        self.assertEqual(ran, list(GOOD))
        self.assertEqual(report.count("as expected\n"), len(ran))
        self.assertIn(first_run.step_list(), (SOURCE / "docs/macos.md").read_text(),
                      "the guide's list is the output of `first-run list`")

    def test_what_differs_is_reported_and_ends_the_run_where_the_rest_needs_it(self):
        for title, found in BAD.items():
            differ, ran, report = self.play({**GOOD, title: found})
            self.assertEqual(differ, [title])
            needed = next(s for s in first_run.STEPS if s.title == title).needed
            self.assertEqual(ran[-1] == title, needed)
            self.assertIn("DIFFERS", report)

    def test_what_only_the_user_sees_is_the_users_to_judge(self):
        asked = [step.title for step in first_run.STEPS if step.asks]
        self.assertTrue(asked)
        for verdict in ("no", "", "it hangs"):
            self.assertEqual(self.play(GOOD, verdict)[0], asked)

    def test_commands_are_run_as_the_steps_say(self):
        self.assertEqual(first_run.shell('echo "$X"; exit 3', {"X": "a b"}), "a b\nstatus 3")
        self.assertEqual(first_run.shell("echo begun; sleep 9", {}, seconds=0.2),
                         "begun\nno end after 0.2 s")
        for step in first_run.STEPS:
            subprocess.run(["bash", "-n", "-c", step.command], check=True)
            self.assertFalse(set(re.findall(r'"?\$([A-Z]+)', step.command))
                             - set(first_run.environment_for(Path("a"), "d", Path("f"))))

    def test_the_device_is_read_from_what_hdiutil_prints(self):
        printed = "/dev/disk12          \t\nstatus 0"
        self.assertEqual(first_run.attached_disk(printed), "/dev/disk12")
        with self.assertRaises(ValueError):
            first_run.attached_disk("hdiutil: attach failed\nstatus 1")

    def test_its_image_is_made_once_and_checked(self):
        image = self.folder / "t.img"
        for what, status in (("image", 0), ("image", 1), ("check", 0)):
            done = subprocess.run([SCRIPT, what, image], capture_output=True, check=False)
            self.assertEqual(done.returncode, status, done.stderr)
        image.write_bytes(b"\0" * 4096)
        self.assertEqual(subprocess.run([SCRIPT, "check", image], capture_output=True,
                                        check=False).returncode, 1)
        self.assertEqual(subprocess.run([SCRIPT, "run", image], capture_output=True,
                                        check=False).returncode, 2)


if __name__ == "__main__":
    unittest.main()
