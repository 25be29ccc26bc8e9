# SPDX-License-Identifier: GPL-2.0-or-later
"""Disks, volumes and systems that can't be used: one clear line each, a failing status, the image untouched."""
import lzma, os, re, struct, subprocess

import programs
from programs import CONFIG, ImageCase, digest, need_shared, quillet, sample


class Refusals(ImageCase):
    def check(self, image, pattern, codes=(), system=None):
        before = digest(image) if os.path.isfile(image) else None
        done = quillet("-q", system=system or image)
        said = done.refusal()
        if codes: self.assertIn(done.status, {code & 0xFF for code in codes}, done.err)
        self.assertRegex(said, pattern)
        self.assertIn(os.path.basename(image), said)
        if before is not None: self.assertEqual(digest(image), before)

    def test_what_is_no_disk(self):
        self.check(self.path("missing.img"), "no such|missing|does not exist")
        self.check(self.write("empty.img", b""), "empty")
        self.check(self.write("text.img", b"this is a text file\n" * 400), "NTFS")
        self.check(self.work, "directory")
        fat = self.path("fat.img")
        with open(fat, "wb") as f: f.truncate(8 << 20)
        subprocess.run(["mkfs.fat", fat], check=True, capture_output=True)
        self.check(fat, "NTFS|FAT")

    def test_damaged_volumes_and_tables(self):
        with open(sample(), "rb") as f: whole = f.read()
        self.check(self.write("truncated.img", whole[:len(whole) // 2]), "truncated|ends")
        self.check(self.write("boot.img", b"\xff" * 512 + whole[512:]), "NTFS|boot")
        mbr = bytearray(512)
        mbr[446:462] = struct.pack("<B3sB3sII", 0x80, b"\xfe\xff\xff", 7, b"\xfe\xff\xff", 2048, 0x7FFFFFFF)
        mbr[510:512] = b"\x55\xaa"
        self.check(self.write("table.img", bytes(mbr) + bytes(4 << 20)), "partition")
        self.check(self.write("gpt.img", bytes(510) + b"\x55\xaa" + b"EFI PART" + b"\xff" * 504 + bytes(1 << 20)), "NTFS|partition|GPT")

    def test_no_system_is_named(self):
        rows = [({}, "QUILLET_SYSTEM is not set; set it to"), ({"system": ""}, "QUILLET_SYSTEM is not set; set it to"),
                ({"system": ":"}, "QUILLET_SYSTEM names no disk; set it to"), ({"system": "::"}, "QUILLET_SYSTEM names no disk; set it to"),
                ({"system": "/no/such/disk", "QUILLET_ACCESS": "maybe"}, 'QUILLET_ACCESS is "maybe"; set it to')]
        for environment, words in rows:
            done = quillet("-q", **environment)
            self.assertIn(words, done.refusal())
            self.assertEqual(done.out, "")

    def test_one_bad_disk_of_two(self):
        """Of a torn one it is not known whether it has the Windows that was meant, so none on the next is worked on."""
        with open(sample(), "rb") as f: torn = bytearray(f.read())
        cluster, = struct.unpack_from("<Q", torn, 0x30)
        mft = cluster * torn[0x0D] * 512
        name = re.compile(b"\x07[\0-\3]" + "Windows".encode("utf-16le"))
        record = next(at for at in range(mft + 24 * 1024, len(torn), 1024)
                      if torn[at:at + 4] == b"FILE" and name.search(torn, at, at + 1024))
        torn[record:record + 4] = b"BAAD"  # as a torn record is left
        torn[72:80] = b"ANOTHER1"  # a serial number of its own: no clone of the other
        good = self.copy(sample(), "good.img")
        before = digest(good)
        for data, words in ((b"no disk", "NTFS"), (torn, "repair the volume")):
            bad = self.write("bad.img", data)
            self.check(bad, words, system=bad + ":" + good)
            self.assertEqual(digest(good), before)
        self.check(self.write("bad.img", b"no disk"), "NTFS", system=good + ":" + bad)
        self.assertEqual(digest(good), before)

    def test_an_installation_without_one_of_its_hives(self):
        """Named, with the code of a missing file."""
        with open(sample(), "rb") as f: whole = f.read()
        for hive, other in (("SYSTEM", "SYSTEN"), ("SOFTWARE", "SOFTWARF"), ("SAM", "SAN"), ("SECURITY", "SECURITZ")):
            name = re.compile(b"(%c[\0-\3])%s" % (len(hive), hive.encode("utf-16-le")))  # in the file's record and in the directory
            renamed, places = name.subn(b"\\1" + other.encode("utf-16-le"), whole)
            self.assertGreaterEqual(places, 2)
            self.check(self.write("part.img", renamed), "Windows.System32.config.%s is missing" % hive, {2})

    def test_every_way_in_which_a_sam_can_be_broken(self):
        broken, = need_shared("hives/broken")
        for name in sorted(os.listdir(broken)):
            with self.subTest(name):
                image = self.copy(sample(), "broken.img")
                with lzma.open(os.path.join(broken, name)) as f: self.put(image, CONFIG + "SAM", f.read())
                if name.startswith("SAM_DUPENAME"):  # a sound hive, and a machine's SAM
                    self.assertEqual(quillet("-sq", system=image).status, 0)
                else:  # damaged, or sound but not a SAM
                    self.check(image, r"SAM is (damaged|dirty|not)", {2, 1009, 1016, 1017})

    def test_a_volume_without_windows(self):
        self.check(self.volume("plain.img"), "no Windows installation", {2})

    def test_damage_that_is_passed_over(self):
        """One file's record is damaged: the rest is treated, and the end tells it."""
        image = self.copy(sample(), "damaged.img")
        with open(image, "rb") as f: data = bytearray(f.read())
        name = "read only.txt".encode("utf-16-le")
        at = next(at for at in range(0, len(data), 1024) if data[at:at + 4] == b"FILE" and data[at + 22] == 1 and name in data[at:at + 1024])
        data[at + 510:at + 512] = b"??"  # the update sequence does not match any more
        with open(image, "wb") as f: f.write(data)
        planned = programs.run(programs.OFFLINE, "plan", image)
        self.assertEqual(planned.status, 1393 & 0xFF, planned.err)
        self.assertIn("the run would end with status 1393", planned.out)
        done = quillet(system=image)
        self.assertEqual(done.status, 1393 & 0xFF, done.err)
        self.assertIn("completed successfully\n", done.out)
        self.assertRegex(done.err, r"GetFileSecurity returned 1392 for .*read only.txt\n")
        self.assertIn("quillet: the run's full exit status is 1393 (0x00000571)\n", done.err)
        self.assertRegex(done.err, r"(?m)^quillet: \S*damaged.img: 1 file or directory of its volumes can't be read or reached for damage, .*run again$")
        audited = programs.run(programs.OFFLINE, "audit", image, programs.PAIR.search(done.out).group(1))
        self.assertEqual(audited.status, 2)
        self.assertIn("nothing that quillet treats holds", audited.out)
        self.assertRegex(audited.err, "(?m)damaged.img: 1 file or directory .*repair")

    def test_a_limit_on_files_sizes(self):
        image = self.copy(sample(), "limit.img")
        done = programs.run("prlimit", "--fsize=1000000", programs.QUILLET, "-q", system=image)
        self.assertNotEqual(done.status, 0)
        self.assertRegex(done.err, r"limit.img: it is longer than files may be here")

    def test_one_volume_twice(self):
        image, clone = self.copy(sample(), "one.img"), self.copy(sample(), "clone.img")
        os.link(image, self.path("hard.img"))
        for other, words in ((image, "is named twice"), (clone, "or a clone of it"), (self.path("hard.img"), "the same disk")):
            before = digest(image)
            self.check(other, words, {87}, system=image + ":" + other)
            self.assertEqual(digest(image), before)

    def test_an_image_in_use(self):
        image = self.copy(sample(), "locked.img")
        with self.locked(image): self.check(image, "in use|use by|locked")


class Streams(ImageCase):
    """Whatever the standard streams are, no byte of what is printed reaches a disk."""

    def shell(self, command, image):
        env = dict(os.environ, QUILLET_SYSTEM=image, Q=programs.QUILLET, O=programs.OFFLINE, I=image)
        return subprocess.run(["bash", "-c", command], env=env, capture_output=True)

    def test_closed_streams(self):
        image = self.copy(sample(), "closed.img")
        for program in ('"$Q" -s', '"$O" run "$I" -- -s', '"$O" info "$I"', '"$O" sample "$I" --force --files 0'):
            for closed in ("<&-", ">&-", "2>&-", "<&- >&- 2>&-"):
                with self.subTest(program + closed):
                    done = self.shell(program + " " + closed, image)
                    self.assertEqual(done.returncode, 0, done.stderr)
                    with open(image, "rb") as f: self.assertEqual(f.read(11), b"\xeb\x52\x90NTFS    ")
                    if program != '"$O" info "$I"': self.assert_sound(image)

    def test_lines_that_are_lost_are_told(self):
        image = self.copy(sample(), "full.img")
        for command, status in (('"$Q" -s >/dev/full', 29), ('"$Q" -s 2>/dev/full', 29), ('"$Q" -sd >/dev/full 2>/dev/full', 255),
                                ('"$O" audit "$I" >/dev/full', 2), ('"$O" info "$I/" 2>/dev/full', 2)):
            self.assertEqual(self.shell(command, image).returncode, status, command)
        done = self.shell('"$Q" >/dev/full', image)  # and all is done nevertheless
        self.assertEqual(done.returncode, 29)
        self.assertEqual(self.shell('"$O" audit "$I"', image).returncode, 1)
        self.assert_sound(image)


programs.main()
