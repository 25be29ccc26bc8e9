# SPDX-License-Identifier: GPL-2.0-or-later
"""Runs on a practice installation."""
import os, subprocess

import programs
from programs import CONFIG, ImageCase, PAIR, digest, quillet, sample


class DryRun(ImageCase):
    def assert_same_but_for_the_guid(self, before, after):
        """The file server's GUID is given anew in every run; with it times, checksums and sequence numbers change."""
        with open(before, "rb") as f: was = f.read()
        with open(after, "rb") as f: now = f.read()
        blocks = [slice(at, at + 4096) for at in range(0, len(was), 4096)]
        changed = [(was[block], now[block]) for block in blocks if was[block] != now[block]]
        self.assertLess(sum(old != new for one, other in changed for old, new in zip(one, other)), 150)
        self.assertTrue(changed)

    def test_nothing_is_written_and_every_find_is_named(self):
        image = self.copy(sample(), "dry.img")
        done = quillet("-sv", system=image)
        self.assertEqual(done.status, 0, done.err)
        self.assertRegex(done.out, PAIR)
        self.assertTrue(done.out.endswith("scanning c: ...\ncompleted successfully\n"), done.out)
        self.assert_same_but_for_the_guid(sample(), image)
        self.assert_sound(image)
        found = [line for line in done.error_lines() if "Found old SID in file SD" in line]
        self.assertTrue(all(line.startswith("INFO     [sidchng/sid:") and line.endswith("(simulation mode)") for line in found))
        self.assertGreater(len(found), 100)
        again = quillet("-svq", "-v", system=image)  # -q takes one -v back
        self.assertEqual(len([l for l in again.error_lines() if "Found old SID in file SD" in l]), len(found))
        quiet = quillet("-sq", system=image)
        self.assertEqual((quiet.status, quiet.out), (0, ""))
        self.assertTrue(all("RegLoadKey" in line for line in quiet.error_lines()), quiet.err)

    def test_a_disk_that_can_only_be_read(self):
        image, data = self.copy(sample(), "read-only.img"), self.volume("data.img")
        before = digest(image)
        for kept, system in ((image, image), (data, image + ":" + data)):
            os.chmod(kept, 0o444)
            for options in ("-sq", "-q"):  # a dry run gives the file server its GUID as well
                done = quillet(options, system=system)
                self.assertEqual(done.status, 19)
                self.assertRegex(done.error_lines()[-1], "^quillet: %s: it can only be read" % kept)
            os.chmod(kept, 0o644)
        self.assertEqual(digest(image), before)


class RealRun(ImageCase):
    def test_all_files_are_rewritten_once(self):
        image = self.copy(sample(), "run.img")
        done = quillet("-vv", system=image)
        self.assertEqual(done.status, 0, done.err[-500:])
        old, new = PAIR.search(done.out).groups()
        self.assertNotEqual(old, new)
        self.assertIn("DEBUG    [sidchng/sid:", done.err)
        self.assert_sound(image)
        # Every descriptor of the volume in hexadecimal: none of a file may hold the old SID.
        dumped = subprocess.run(["ntfssecaudit", "-v", "-r", image, "/"], capture_output=True).stdout.decode("utf-8", "replace")
        self.assertIn(new, dumped)
        for line in dumped.splitlines():
            if old in line: self.assertRegex(line, "object|callback|type", line)

    def test_restart_is_said_but_never_in_a_dry_run(self):
        image = self.copy(sample(), "restart.img")
        for options, said in ((["-b"], "a restart was asked for"), (["-r"], "a power-off was asked for"), (["-br"], "a restart was asked for")):
            done = quillet(*options, system=image)
            self.assertEqual(done.status, 0)
            self.assertIn(said, done.error_lines()[-1])
            self.assertIn(image, done.error_lines()[-1])
            self.assertNotIn("was asked for", quillet("-s", *options, system=image).err)

        done = quillet("-qr", system=image, QUILLET_UNDO=self.path("u" * 300))  # the commit is refused
        self.assertRegex(done.refusal(), r"uuu: the undo file can't be made there .*; nothing was changed\Z")
        self.assertNotIn("was asked for", done.err)

    def test_a_reader_that_goes_away_does_not_end_the_run(self):
        image = self.copy(sample(), "pipe.img")
        env = dict(os.environ, QUILLET_SYSTEM=image)
        with subprocess.Popen([programs.QUILLET], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env) as process:
            process.stdout.close()
            self.assertEqual(process.wait(), 0)
        self.assert_sound(image)
        self.assertNotEqual(self.contents(image, CONFIG + "SAM"), self.contents(sample(), CONFIG + "SAM"))

    def test_several_disks_have_letters_of_their_own(self):
        first, second = self.copy(sample(), "first.img"), self.volume("data.img")
        for system in (first + ":" + second, second + ":" + first):
            self.assertIn("scanning c: ...\nscanning d: ...\n", quillet("-s", system=system).out)


programs.main()
