#!/usr/bin/env python3
"""The property lists, the entitlements and the bundle that packaging/macos/assemble-bundle makes.

usage: bundle_test.py BUILD_DIRECTORY SOURCE_DIRECTORY [unittest arguments]
"""
import os
import plistlib
import re
import stat
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

BUILD = Path(sys.argv.pop(1)).resolve()
SOURCE = Path(sys.argv.pop(1)).resolve()
INPUTS = BUILD / "bundle"
PRODUCT = dict(
    re.findall(r'k(\w+) = "(.*)"', (BUILD / "generated/platform/product.hpp").read_text())
)
BASIC_DATA = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7"

# key path, type, value (None: any of that type), and who reads it.
COMMON = [
    # CFBundle…, LSMinimumSystemVersion: Apple's "Information Property List" reference. The module
    # is public from macOS 15.4 on.
    ("CFBundleExecutable", str, None),
    ("CFBundleName", str, None),
    ("CFBundleInfoDictionaryVersion", str, "6.0"),
    ("CFBundleShortVersionString", str, PRODUCT["Version"]),
    ("CFBundleVersion", str, PRODUCT["Build"]),
    ("CFBundleSupportedPlatforms", list, ["MacOSX"]),
    ("LSMinimumSystemVersion", str, "15.4"),
    # The event log, in the extension and in the host application.
    ("TVLLogGroup", str, PRODUCT["Group"]),
]
ATTRIBUTES = "EXAppExtensionAttributes"
EXTENSION = COMMON + [
    # XPC! is what swift-build's ExtensionKit product type sets.
    ("CFBundlePackageType", str, "XPC!"),
    ("CFBundleIdentifier", str, PRODUCT["ExtensionBundleID"]),
    # ExtensionKit: the point, and the class that NSExtensionMain instantiates (as in the module
    # for FAT that Apple publishes).
    (ATTRIBUTES + "/EXExtensionPointIdentifier", str, "com.apple.fskit.fsmodule"),
    (ATTRIBUTES + "/EXExtensionPrincipalClass", str, "TavelinFileSystem"),
    # diskdev_cmds (mount): finds the module by its short name and by the kinds of resource it
    # takes, and refuses an operation whose option syntax is missing.
    (ATTRIBUTES + "/FSShortName", str, PRODUCT["ShortName"]),
    (ATTRIBUTES + "/FSSupportsBlockResources", bool, True),
    (ATTRIBUTES + "/FSSupportsPathURLs", bool, False),
    (ATTRIBUTES + "/FSSupportsGenericURLResources", bool, False),
    (ATTRIBUTES + "/FSSupportsServerURLs", bool, False),
    (ATTRIBUTES + "/FSRequiresSecurityScopedPathURLResources", bool, False),
    # Without it, some releases of macOS leave the module out of the installed ones. Adopting the
    # protocol is not asked for.
    (ATTRIBUTES + "/FSSupportsKernelOffloadedIO", bool, True),
    (ATTRIBUTES + "/FSActivateOptionSyntax/shortOptions", str, None),
    (ATTRIBUTES + "/FSCheckOptionSyntax/shortOptions", str, None),
    # DiskArbitration: drops a module without personalities or media types; matches the media by
    # the properties of the IOMedia object (IOStorageFamily).
    (ATTRIBUTES + "/FSPersonalities/NTFS/FSName", str, "NTFS"),
    (ATTRIBUTES + "/FSPersonalities/NTFS/FSSubType", int, 0),
    (ATTRIBUTES + f"/FSMediaTypes/{BASIC_DATA}/FSMediaProperties/Content Hint", str, BASIC_DATA),
    (ATTRIBUTES + f"/FSMediaTypes/{BASIC_DATA}/FSMediaProperties/Leaf", bool, True),
    (ATTRIBUTES + "/FSMediaTypes/Windows_NTFS/FSMediaProperties/Content Hint", str, "Windows_NTFS"),
    (ATTRIBUTES + "/FSMediaTypes/Windows_NTFS/FSMediaProperties/Leaf", bool, True),
    (ATTRIBUTES + "/FSMediaTypes/Whole/FSMediaProperties/Leaf", bool, True),
    (ATTRIBUTES + "/FSMediaTypes/Whole/FSMediaProperties/Whole", bool, True),
]
HOST = COMMON + [
    ("CFBundlePackageType", str, "APPL"),
    ("CFBundleIdentifier", str, PRODUCT["HostBundleID"]),
    ("NSPrincipalClass", str, "NSApplication"),
]
# Apple's entitlement reference; identifiers as the provisioning profile names them.
ENTITLEMENTS = [
    ("com.apple.security.app-sandbox", bool, True),
    ("com.apple.security.application-groups", list, [PRODUCT["Group"]]),
    ("com.apple.developer.team-identifier", str, None),
    ("com.apple.application-identifier", str, None),
]
EXTENSION_ENTITLEMENTS = ENTITLEMENTS + [("com.apple.developer.fskit.fsmodule", bool, True)]


def load(name):
    return plistlib.loads((INPUTS / name).read_bytes())


class PropertyLists(unittest.TestCase):
    def check(self, name, table):
        for path, kind, value in table:
            entry = load(name)
            for key in path.split("/"):
                self.assertIn(key, entry, f"{name}: {path}")
                entry = entry[key]
            self.assertIs(type(entry), kind, f"{name}: {path}")
            if value is not None:
                self.assertEqual(entry, value, f"{name}: {path}")

    def test_hold_what_the_platform_reads(self):
        self.check("extension-Info.plist", EXTENSION)
        self.check("host-Info.plist", HOST)
        self.check("extension.entitlements", EXTENSION_ENTITLEMENTS)
        self.check("host.entitlements", ENTITLEMENTS)

    def test_the_group_is_the_teams_own_which_needs_no_profile(self):
        entitlements = load("extension.entitlements")
        team = entitlements["com.apple.developer.team-identifier"]
        prefix = "group" if team == "TEAMID" else team
        self.assertEqual(PRODUCT["Group"], f"{prefix}.{PRODUCT['HostBundleID']}")
        claimed = [] if team == "TEAMID" else [PRODUCT["Group"]]
        self.assertEqual(
            load("unprofiled.entitlements"),
            {
                "com.apple.security.app-sandbox": True,
                "com.apple.security.application-groups": claimed,
            },
        )

    def test_extension_agrees_with_itself_and_the_sources(self):
        plist = load("extension-Info.plist")
        attributes = plist[ATTRIBUTES]
        self.assertEqual([key for key in plist if re.match("(FS|EX)[A-Z]", key)], [ATTRIBUTES])
        # DiskArbitration cuts the type at its first underscore; the kernel's type name has room for
        # 15 bytes; a plain "ntfs" would find the system's own driver.
        self.assertRegex(attributes["FSShortName"], r"^(?!ntfs$)[a-z][a-z0-9]{0,14}$")
        self.assertIn("o:", attributes["FSActivateOptionSyntax"]["shortOptions"])
        self.assertEqual(set("nqy"), set(attributes["FSCheckOptionSyntax"]["shortOptions"]))
        host = load("host-Info.plist")["CFBundleIdentifier"]
        self.assertTrue(plist["CFBundleIdentifier"].startswith(host + "."))
        binding = "".join(file.read_text() for file in (SOURCE / "Sources/extension").glob("*.mm"))
        self.assertRegex(
            binding, rf"@implementation {attributes['EXExtensionPrincipalClass']}\b"
        )

    def test_text_is_as_the_tools_want_it(self):
        for file in INPUTS.iterdir():
            text = file.read_bytes()
            self.assertNotRegex(text, rb"\$\(|@[A-Z_]+@|\r|^\xef\xbb\xbf", file.name)
            # A comment makes codesign refuse entitlements, two keys of one name hide a mistake.
            if file.suffix == ".entitlements":
                self.assertNotIn(b"<!--", text, file.name)
                keys = re.findall(rb"<key>(.*?)</key>", text)
                self.assertEqual(len(keys), len(set(keys)), file.name)


class Folder(unittest.TestCase):
    """Tests with a folder of their own."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)


class Bundle(Folder):
    def assemble(self, **changes):
        folder = self.folder
        for part in ("host-binary", "extension-binary", "profile"):
            (folder / part).write_text(part)
        options = {
            "output": folder,
            "license": SOURCE / "LICENSE",
            "host": f"Tavelin={folder}/host-binary",
            "host-plist": INPUTS / "host-Info.plist",
            "extension": f"TavelinModule={folder}/extension-binary",
            "extension-plist": INPUTS / "extension-Info.plist",
            "extension-profile": folder / "profile",
        }
        options.update(changes)
        command = [SOURCE / "packaging/macos/assemble-bundle"]
        for name, value in options.items():
            command += [f"--{name.replace('_', '-')}", value]
        return subprocess.run(command, capture_output=True, text=True, check=False)

    def test_layout(self):
        app = self.folder / "Tavelin.app"
        (app / "Contents/Extensions/Old.appex").mkdir(parents=True)
        result = self.assemble()
        self.assertEqual(result.returncode, 0, result.stderr)
        appex = "Contents/Extensions/TavelinModule.appex/Contents"
        files = {str(f.relative_to(app)): f for f in app.rglob("*") if f.is_file()}
        host = {"Info.plist", "PkgInfo", "MacOS/Tavelin", "Resources/LICENSE"}
        module = {"Info.plist", "MacOS/TavelinModule", "embedded.provisionprofile"}
        expected = {f"Contents/{file}" for file in host} | {f"{appex}/{file}" for file in module}
        self.assertEqual(set(files), expected)
        for part, binary in (("Contents", "host-binary"), (appex, "extension-binary")):
            plist = plistlib.loads(files[f"{part}/Info.plist"].read_bytes())
            program = files[f"{part}/MacOS/{plist['CFBundleExecutable']}"]
            self.assertEqual(program.read_text(), binary)
            self.assertEqual(stat.S_IMODE(program.stat().st_mode), 0o755)

    def test_refuses_unfinished_input_and_keeps_the_old_bundle(self):
        (self.folder / "Tavelin.app").mkdir()
        template = SOURCE / "Sources/extension/Info.plist.in"
        for changes in ({"extension_plist": template}, {"host": f"Tavelin={self.folder}/none"}):
            self.assertNotEqual(self.assemble(**changes).returncode, 0)
            self.assertEqual(os.listdir(self.folder / "Tavelin.app"), [])

    def test_is_signed_from_the_inside_out_claiming_only_what_a_profile_grants(self):
        script = SOURCE / "packaging/macos/sign-bundle"
        sandbox = str(script.parent / "sandbox.entitlements")
        self.assertEqual(
            plistlib.loads(Path(sandbox).read_bytes()), {"com.apple.security.app-sandbox": True}
        )
        for identity, profiles, entitlements in (
            ("Developer ID", ("inner", "outer"), ("inner", "outer")),
            ("Developer ID", ("inner",), ("inner", "team")),
            ("Developer ID", (), ("team", "team")),
            ("-", ("inner", "outer"), (sandbox, sandbox)),
        ):
            folder = Path(tempfile.mkdtemp(dir=self.folder))
            app = folder / "T.app"
            appex = app / "Contents/Extensions/M.appex"
            for part, path in (("inner", appex), ("outer", app)):
                (path / "Contents").mkdir(parents=True, exist_ok=True)
                if part in profiles:
                    (path / "Contents/embedded.provisionprofile").touch()
            recorder = folder / "codesign"
            recorder.write_text(f'#!/bin/sh\necho "$@" >>"{folder}/calls"\n')
            recorder.chmod(0o755)
            path = {"PATH": f"{folder}:{os.environ['PATH']}"}
            command = [script, app, identity, "inner", "outer", "team"]
            subprocess.run(command, env=path, capture_output=True, check=True)
            stamp = "--timestamp=none" if identity == "-" else "--timestamp"
            flags = f"--force {stamp} --options runtime --entitlements"
            self.assertEqual(
                (folder / "calls").read_text().splitlines(),
                [
                    f"{flags} {entitlements[0]} --sign {identity} {appex}",
                    f"{flags} {entitlements[1]} --sign {identity} {app}",
                    f"--verify --deep --strict --verbose=2 {app}",
                ],
            )


class Library(Folder):
    def test_untested_releases_are_refused(self):
        top = self.folder / "top"
        top.mkdir()
        for package, release in (("ntfs-3g", "2017.3.23"), ("other", "2022.10.3")):
            version = f"PACKAGE_NAME='{package}'\nPACKAGE_VERSION='{release}'\n"
            (top / "configure").write_text(version)
            subprocess.run(["tar", "-cf", "a.tar", "top"], cwd=self.folder, check=True)
            command = [SOURCE / "packaging/macos/build-ntfs-3g", "a.tar", "prefix"]
            result = subprocess.run(command, cwd=self.folder, capture_output=True, text=True,
                                    check=False)
            self.assertEqual(result.returncode, 1)
            self.assertIn(release if package == "ntfs-3g" else package, result.stderr)
            self.assertFalse((self.folder / "prefix").exists())


if __name__ == "__main__":
    unittest.main()
