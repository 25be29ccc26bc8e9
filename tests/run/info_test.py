# SPDX-License-Identifier: GPL-2.0-or-later
"""What quillet-offline info sees of a disk, and of systems that are broken in some way; it writes nothing."""
import json, os, resource, struct

import programs
from programs import CONFIG, MACHINE, SystemCase, sample


def line_with(text, part): return next((line for line in text.splitlines() if part in line), "")


class Info(SystemCase):
    def damage(self, path, at, data):
        """Gives a file of the image other bytes at a place."""
        contents = bytearray(self.contents(self.image, path))
        contents[at:at + len(data)] = data
        self.put(self.image, path, bytes(contents))

    def test_what_is_no_disk(self):
        self.write("empty", b"")
        self.write("text", b"x" * 100000)
        self.assert_one_line(self.offline("info", "a.img", "a.img"), "twice")
        for name in ("missing", ".", "empty", "text", "/dev/null"):
            for images in ([name], ["a.img", name]):
                with self.subTest(images):
                    done = self.offline("info", *images)
                    self.assertEqual((done.status, MACHINE in done.out), (2, len(images) == 2))
                    self.assert_one_line(done, name)

    def test_broken_and_dirty_hives_beside_sound_ones(self):
        sam = self.contents(self.image, CONFIG + "SAM")
        primary = struct.unpack_from("<I", sam, 4)[0]
        dirty = bytearray(sam[:512])
        struct.pack_into("<I", dirty, 4, primary + 1)
        dirty[508] ^= (primary ^ primary + 1) & 0xFF  # the checksum stays right
        local = "Windows/ServiceProfiles/LocalService/ntuser.dat"
        bob = "Users/bob/NTUSER.DAT"
        rows = [
            ([(CONFIG + "SECURITY", 0, b"x"), (CONFIG + "SOFTWARE", 4096, b"x"), (bob, 4096 + 32, b"\1")],
             {"damaged": ("SECURITY", "SOFTWARE", "bob"), "clean": ("SAM", "SYSTEM", "alice")}, MACHINE),
            ([(CONFIG + "SAM", 0, dirty), (bob, 0, b"x"), (local, 0, b"x")],
             {"dirty": ("SAM",), "damaged": ("bob", "LocalService"), "missing": (r"Users\gone",)}, "unknown"),
        ]
        for damages, states, machine in rows:
            with self.subTest(machine):
                self.copy(sample(), "a.img")
                for damage in damages: self.damage(*damage)
                done = self.look("info", "a.img")
                self.assertEqual((done.status, len(done.error_lines())), (2, 3), done.err)
                for state, names in states.items():
                    for name in names: self.assertIn(" %s, " % state, line_with(done.out, name), name)
                for path, _, _ in damages: self.assertIn(path.replace("/", "\\").lower(), done.err.lower())
                self.assertIn(machine, line_with(done.out, "machine SID"))
        # A run leaves a user's hive as it is, but does not start without that of a service.
        self.assertIn("leaves this user's hive", line_with(done.err, "bob"))
        self.assertNotIn("leaves", line_with(done.err, "LocalService"))

    def test_no_offset_in_the_accounts_is_believed(self):
        sam = self.contents(self.image, CONFIG + "SAM")
        sid = sam.index(struct.pack("<BB6s4I", 1, 4, b"\0\0\0\0\0\5", 21, 1111, 2222, 3333))
        # The value's header lies before the descriptor, whose size is the SID's offset.
        header = next(at for at in range(sid - 48, 4096, -4)
                      if struct.unpack_from("<II", sam, at + 12) == (sid - at - 48, 24))
        for at, number in ((header + 12, 0xFFFFFFF0), (header + 12, 0x100000), (header + 12, 0),
                           (header + 16, 0xFFFFFFFF), (header + 16, 28), (sid, 0x0F01)):
            with self.subTest(at=at - header, number=number):
                self.put(self.image, CONFIG + "SAM", sam[:at] + struct.pack("<I", number) + sam[at + 4:])
                done = self.look("info", "a.img")
                self.assertEqual(done.status, 2)
                self.assert_one_line(done)
                self.assertIn("unknown", line_with(done.out, "machine SID"))

    def test_a_refused_volume_of_a_disk(self):
        with open(self.image, "r+b") as f:
            boot = f.read(512)
            for table in struct.unpack_from("<QQ", boot, 0x30):  # the record of $Volume, and its mirror
                record = table * boot[0x0D] * 512 + 3 * 1024
                f.seek(record)
                information = f.read(1024).index(b"\x70\0\0\0")
                f.seek(record + information + 24 + 10)
                f.write(b"\1")
        done = self.look("info", "a.img")
        self.assertEqual(done.status, 2)
        self.assert_one_line(done, "dirty")
        self.assertIn("can't be used", line_with(done.out, "volume"))
        self.assertIn("a.img", line_with(done.out, "disk"))

    def test_json(self):
        done = self.offline("info", "--json", "a.img", "missing\n\"one\"\x9b")
        self.assertEqual(done.status, 2)
        self.assertIn(r'"problems":["missing\u000a\"one\"\u009b: ', done.out)
        told = json.loads(done.out)
        self.assertEqual((told["disks"][0]["path"], told["machineSid"], told["usable"]), ("a.img", MACHINE, False))
        states = {hive["path"]: hive["state"] for hive in told["hives"]}
        self.assertEqual(states[r"C:\Windows\System32\config\SAM"], "clean")

    def test_environment_strings_that_name_each_other_take_no_memory(self):
        """Each names the one before 1,000 times: expanded without a bound, they would take gigabytes."""
        values, text = [], "x" * 4000
        for name in ("v%d" % i for i in range(6)):
            values += [name, "expandstring:" + text]
            text = ("%%%s%%" % name) * 1000
        environment = r"cd \ControlSet001\Control\Session Manager\Environment"
        self.edit_hive(self.image, CONFIG + "SYSTEM", [environment, "setval 6", *values])
        self.assertEqual(self.look("info", "a.img").status, 0)
        self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, 600 * 1024)  # sanitizers take most of it

    def test_whoever_took_the_permission_to_write_meant_it(self):
        first = r"\Adisk        a.img, \d+\.\d MiB, raw, no partition table"
        self.assertRegex(self.offline("info", "a.img").out, first + "\n")
        os.chmod(self.image, 0o400)
        done = self.offline("info", "a.img")
        self.assertRegex(done.out, first + ", read-only\n")
        self.assertIn("machine SID " + MACHINE, done.out)
        self.assertTrue(done.out.endswith("usable      no\n"), done.out)
        self.assertEqual(done.status, 2)
        self.assert_one_line(done, "can only be read")
        self.assertEqual(self.offline("audit", "a.img").status, 1)

    def test_text_on_the_disk_stays_on_its_line(self):
        with open(self.image, "rb") as f: data = f.read()
        name, evil = "Windows practice system", "Windows\nhive \x1b[2Jsystem"
        self.write("a.img", data.replace(name.encode("utf-16-le"), evil.encode("utf-16-le"), 1))
        self.assertIn("product     Windows<U+000A>hive <U+001B>[2Jsystem\n", self.offline("info", "a.img").out)


programs.main()
