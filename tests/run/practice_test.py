"""Runs on a practice installation."""
import os, subprocess, unittest

import programs
from programs import ImageCase, PAIR, digest, quillet, run, sample


class DryRun(ImageCase):
    def test_nothing_is_written_and_every_find_is_named(self):
        image = self.copy(sample(), "dry.img")
        before = digest(image)
        done = quillet("-sv", system=image)
        self.assertEqual(done.status, 0, done.err)
        self.assertRegex(done.out, PAIR)
        self.assertTrue(done.out.endswith("scanning c: ...\ncompleted successfully\n"), done.out)
        self.assertEqual(digest(image), before)
        found = [line for line in done.error_lines() if "Found old SID in file SD" in line]
        self.assertTrue(all(line.startswith("INFO     [sidchng/sid:") and line.endswith("(simulation mode)") for line in found))
        self.assertGreater(len(found), 100)
        again = quillet("-svq", "-v", system=image)  # -q takes one -v back
        self.assertEqual(len([l for l in again.error_lines() if "Found old SID in file SD" in l]), len(found))
        self.assertEqual(quillet("-s", system=image).err, "")
        quiet = quillet("-sq", system=image)
        self.assertEqual((quiet.status, quiet.out, quiet.err), (0, "", ""))

    def test_a_disk_that_can_only_be_read(self):
        image = self.copy(sample(), "read-only.img")
        os.chmod(image, 0o444)
        before = digest(image)
        self.assertEqual(quillet("-s", system=image).status, 0)
        done = quillet("-q", system=image)
        self.assertEqual(done.status, 19)
        self.assertEqual(digest(image), before)
        self.assertRegex(done.error_lines()[-1], "can only be read")


class RealRun(ImageCase):
    def test_all_files_are_rewritten_once(self):
        image = self.copy(sample(), "run.img")
        done = quillet("-vv", system=image)
        self.assertEqual(done.status, 0, done.err)
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
            self.assertEqual((done.status, len(done.error_lines())), (0, 1), done.err)
            self.assertIn(said, done.err)
            self.assertIn(image, done.err)
            self.assertEqual(quillet("-s", *options, system=image).err, "")

    def test_the_companion_runs_it(self):
        image = self.copy(sample(), "companion.img")
        done = run(programs.OFFLINE, "run", image, "--", "-s", "-q")
        self.assertEqual((done.status, done.out, done.err), (0, "", ""))
        self.assertEqual(run(programs.OFFLINE, "run", image, "--", "-z").status, 255)

    def test_several_disks_have_letters_of_their_own(self):
        first, second = self.copy(sample(), "first.img"), self.path("data.img")
        with open(second, "wb") as f: f.truncate(16 << 20)
        subprocess.run(["mkntfs", "-F", "-Q", "-q", "-s", "512", "-p", "0", "-H", "255", "-S", "63", second], check=True, capture_output=True)
        for system in (first + ":" + second, second + ":" + first):
            self.assertIn("scanning c: ...\nscanning d: ...\n", quillet("-s", system=system).out)


programs.main()
