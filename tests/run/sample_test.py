# SPDX-License-Identifier: GPL-2.0-or-later
"""quillet-offline sample and run: what practice installations hold, what is refused, and how quillet is started."""
import os, re, shutil, struct, subprocess

import programs
from programs import CONFIG, MACHINE, OFFLINE, CompanionCase, need_shared, run, sample

LEFT_ALONE = [["there"], ["link", "--force"], ["directory", "--force"], ["/dev/null", "--force"], ["nowhere/a.img"], [""],
              ["new", "--size", "33M", "--files", "60000"]]
WRONG = [[], ["destroy"], ["sample"], ["info"], ["run"], ["info", "x", "--", "y"], ["run", "x", ""], ["run", "x", "-s"],
         ["run", "--format", "raw,raw", "x"], ["info", "--format", "raw,raw", "x"]]
WRONG += [["sample", "x", *options] for options in (
    ["--size", "1M"], ["--size", "much"], ["--whole-disk", "dos"], ["--machine", "S-1-5-18"],
    ["--machine", "S-1-5-21-1-2-3-500"], ["--descriptors", "0"])]


class Sample(CompanionCase):
    def test_its_drive_is_remembered_by_the_table_on_the_disk(self):
        for table in ("none", "mbr", "gpt"):
            with self.subTest(table):
                options = [] if table == "none" else ["--whole-disk", table]
                made = self.offline("sample", table, "--machine", MACHINE, *options)
                self.assertEqual((made.status, made.err), (0, ""))
                self.assertTrue(made.out.startswith(table + ": machine SID " + MACHINE + ", "), made.out)
                told = self.offline("info", table)
                self.assertEqual((told.status, told.err), (0, ""))
                for part in (MACHINE + "\n", "C:\\Windows\n", "Windows practice system", "volume      C:"):
                    self.assertIn(part, told.out)
                with open(self.path(table), "rb") as f: disk = f.read()
                volume = self.write("volume", disk[0 if table == "none" else 1 << 20:])
                remembered = {"none": b"\xff" * 4096, "mbr": disk[440:444] + struct.pack("<Q", 1 << 20),
                              "gpt": b"DMIO:ID:" + disk[2 * 512 + 16:2 * 512 + 32]}
                hive = self.contents(volume, CONFIG + "SYSTEM")
                self.assertEqual(rb"\DosDevices\C:" in hive, table != "none")
                self.assertEqual(remembered[table] in hive, table != "none")

    def test_what_was_asked_for_and_odd_things(self):
        made = self.offline("sample", "a.img", "--files", "90", "--descriptors", "40")
        listed = subprocess.run(["ntfssecaudit", "-b", self.path("a.img")], capture_output=True).stdout
        paths = re.findall(rb"^(?:File|Directory) (/(?!\$).*)$", listed, re.M)
        self.assertIn(" %d entries" % len(paths), made.out)
        self.assertGreaterEqual(len(set(re.findall(rb"^Security key : (.*)$", listed, re.M))), 40)
        self.assertGreater(max(path.count(b"/") for path in paths), 60)
        inode = lambda path: re.search(r"Dumping Inode (\d+)", self.inode(path)).group(1)
        self.assertEqual(inode("Users/alice/Documents/one.txt"), inode("Users/bob/Documents/two.txt"))
        self.assertRegex(self.inode("Users/alice/My Windows"), "(?i)0xa0000003")

    def inode(self, path):
        return subprocess.run(["ntfsinfo", "-v", "-F", path, self.path("a.img")], capture_output=True, text=True).stdout

    def test_the_same_machine_has_the_same_hives(self):
        # A parent that had its children's ends ignored does not hide how the programs that we start end.
        for name, options in (("a", ["--machine", MACHINE]), ("b", ["--machine", MACHINE]), ("c", [])):
            made = run("env", "--ignore-signal=CHLD", OFFLINE, "sample", name, "--files", "0", *options, directory=self.work)
            self.assertEqual(made.status, 0, made.err)
        for name in ("SAM", "SECURITY", "SOFTWARE", "SYSTEM"):
            hives = [self.contents(self.path(image), CONFIG + name) for image in "abc"]
            self.assertEqual((hives[0] == hives[1], hives[0] == hives[2]), (True, False), name)

    def test_every_hive_is_sound(self):
        hivecheck, = need_shared("tools/hivecheck")
        hives = [CONFIG + name for name in ("SAM", "SECURITY", "SOFTWARE", "SYSTEM", "DEFAULT")]
        hives += ["Windows/ServiceProfiles/%s/ntuser.dat" % service for service in ("LocalService", "NetworkService")]
        for path in hives + ["Users/alice/NTUSER.DAT", "Users/bob/NTUSER.DAT"]:
            checked = subprocess.run([hivecheck, self.write("hive", self.contents(sample(), path))], capture_output=True)
            self.assertEqual(checked.returncode, 0, (path, checked.stdout))
        self.assert_sound(sample())

    def test_nothing_is_replaced_unasked(self):
        there = self.write("there", b"precious")
        os.symlink("there", self.path("link"))
        os.mkdir(self.path("directory"))
        before = sorted(os.listdir(self.work))
        for arguments in LEFT_ALONE: self.assert_refused(self.offline("sample", *arguments))
        # A limit on files' sizes is an error like others, not the program's end.
        self.assert_refused(run("sh", "-c", "ulimit -f 1000; exec %s sample new --size 32M" % OFFLINE, directory=self.work))
        with self.locked(there): self.assert_refused(self.offline("sample", "there", "--force"))
        self.assertEqual(sorted(os.listdir(self.work)), before)  # nothing half made is left
        with open(there, "rb") as f: self.assertEqual(f.read(), b"precious")
        self.assertEqual(self.offline("sample", "there", "--force", "--size", "32M").status, 0)
        self.assertEqual((os.path.getsize(there), sorted(os.listdir(self.work))), (32 << 20, before))

    def test_usage(self):
        for arguments in WRONG: self.assert_refused(self.offline(*arguments))
        self.assertEqual(os.listdir(self.work), [])
        for arguments in (["--help"], ["sample", "--help"], ["run", "-h"]):
            told = self.offline(*arguments)
            self.assertEqual((told.status, "Examples:" in told.out), (0, True), arguments)
        self.assertTrue(self.offline("--version").out.startswith("quillet-offline "))


programs.main()
