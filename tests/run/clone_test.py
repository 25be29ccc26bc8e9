# SPDX-License-Identifier: GPL-2.0-or-later
"""Linked clones of a golden image: each whole, with an identity of its own, or not there."""
import json, os, shutil, signal, socket, subprocess, tempfile, time

import programs
from programs import ImageCase, OFFLINE, WITH_QEMU, digest, run


def sample(): return programs.sample("--files", "20", "--descriptors", "5")


@WITH_QEMU
class Clones(ImageCase):
    def setUp(self):
        super().setUp()
        self.raw = self.copy(sample(), "golden.img")
        self.golden = self.path("golden.qcow2")
        subprocess.run(["qemu-img", "convert", "-f", "raw", "-O", "qcow2", self.raw, self.golden], check=True)
        self.before = self.state()

    def state(self):
        return {name: digest(self.path(name)) for name in os.listdir(self.work) if name.startswith("golden")}

    def made(self): return sorted(name for name in os.listdir(self.work) if not name.startswith("golden"))

    def serve(self, image, driver, *options):
        """Another program that has the image open; gives what ends it."""
        directory = tempfile.mkdtemp()
        path = os.path.join(directory, "socket")
        server = subprocess.Popen(["qemu-nbd", "-t", "-f", driver, "-e", "2", "-k", path, *options, image])
        def end(): server.kill(), server.wait(), shutil.rmtree(directory, True)
        self.addCleanup(end)
        while not os.path.exists(path): time.sleep(0.01)
        with socket.socket(socket.AF_UNIX) as client:  # which is there before the image is open; the greeting is not
            client.connect(path)
            client.recv(8)
        return end

    def clone(self, golden, *names, options=()):
        return run(OFFLINE, "clone", *options, golden, *map(self.path, names))

    def check(self, done, golden, driver, sids):
        """The clones that are told: identity, soundness, what lies below them."""
        self.assertEqual(self.before, {name: digest(self.path(name)) for name in self.before})
        old = sids[0]
        for line in done.out.splitlines():
            disk, sid = line.split()[:2]
            self.assertNotIn(sid, sids)
            sids.append(sid)
            self.assertIn(sid, run(OFFLINE, "info", disk).out)
            audit = run(OFFLINE, "audit", disk, old)
            self.assertEqual(audit.status, 0, audit.out + audit.err)
            subprocess.run(["qemu-img", "check", "-q", disk], check=True)
            said = subprocess.run(["qemu-img", "info", disk], check=True, capture_output=True).stdout.decode()
            self.assertIn("backing file: %s\nbacking file format: %s\n" % (golden, driver), said)
            self.assertLess(os.path.getsize(disk), os.path.getsize(sample()) / 8)

    def test_each_has_an_identity_of_its_own(self):
        sids = [next(l.split()[-1] for l in run(OFFLINE, "info", self.raw).out.splitlines() if l.startswith("machine"))]
        self.serve(self.golden, "qcow2", "--read-only")  # readers share it
        done = self.clone(self.golden, "a.qcow2", "b.qcow2", "c.qcow2", options=["--jobs", "3"])
        self.assertEqual((done.status, done.err), (0, ""))
        self.check(done, self.golden, "qcow2", sids)
        os.chmod(self.raw, 0o444)
        done = self.clone(self.raw, "d.qcow2")
        self.assertEqual((done.status, len(done.out.splitlines())), (0, 1), done.err)
        self.check(done, self.raw, "raw", sids)
        self.assertEqual((len(sids), self.made()), (5, ["a.qcow2", "b.qcow2", "c.qcow2", "d.qcow2"]))

    def test_a_device_has_several_at_a_time(self):
        losetup = shutil.which("losetup", path=os.environ["PATH"] + ":/usr/sbin:/sbin")
        lent = losetup and subprocess.run([losetup, "-f", "--show", self.raw], capture_output=True, text=True)
        if not lent or lent.returncode != 0: self.skipTest("no loop devices")
        self.addCleanup(subprocess.run, [losetup, "-d", lent.stdout.strip()])
        done = self.clone(lent.stdout.strip(), "a.qcow2", "b.qcow2", "c.qcow2", options=["--jobs", "3"])
        self.assertEqual((done.status, done.err, self.made()), (0, "", ["a.qcow2", "b.qcow2", "c.qcow2"]))

    def test_one_that_fails_keeps_no_other_from_being_made(self):
        os.mkdir(self.path("b.qcow2.quillet-part"))
        self.write("c.qcow2.quillet-part", b"left by a kill")
        done = self.clone(self.golden, "a.qcow2", "b.qcow2", "c.qcow2")
        self.assertEqual((done.status, len(done.error_lines())), (2, 1), done.err)
        self.assertRegex(done.err, r"b\.qcow2\.quillet-part: .*not made")
        self.assertEqual(self.made(), ["a.qcow2", "b.qcow2.quillet-part", "c.qcow2"])

    def test_no_room_leaves_nothing(self):
        done = run("bash", "-c", 'ulimit -f 150; exec "$@"', "-", OFFLINE, "clone", self.golden, self.path("a.qcow2"), self.path("b.qcow2"))
        self.assertEqual((done.status, done.out, self.made(), len(done.error_lines())), (2, "", [], 2), done.err)
        self.assertRegex(done.err, r"a\.qcow2: (the changes can't be written|it can't be flushed) \(No space left on device\); this clone")  # the cause, no other line of the run
        self.assertNotIn("undo", done.err)

    def test_a_golden_image_that_changes_has_no_further_clones(self):
        work = subprocess.Popen([OFFLINE, "clone", "--jobs", "1", self.golden, self.path("a.qcow2"), self.path("b.qcow2")],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        work.stdout.readline()
        os.utime(self.golden)
        err = work.communicate()[1].decode()
        self.assertEqual((work.returncode, self.made()), (2, ["a.qcow2"]), err)
        self.assertIn("changed or replaced", err)

    def test_a_signal_leaves_whole_ones_alone_and_tells_them(self):
        for options in ([], ["--json"]):
            names = [self.path("%s%d.qcow2" % (name, len(options))) for name in "abcdefgh"]
            work = subprocess.Popen([OFFLINE, "clone", *options, "--jobs", "2", self.golden, *names], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                    preexec_fn=lambda: signal.signal(signal.SIGINT, signal.default_int_handler))
            while not any(map(os.path.exists, names)): time.sleep(0.01)
            work.send_signal(signal.SIGINT)
            out, err = (text.decode() for text in work.communicate())
            told = json.loads(out) if options else [line.split()[0] for line in out.splitlines()]
            made = [one["file"] for one in told["clones"] if one["made"]] if options else told
            self.assertEqual(sorted(filter(os.path.exists, names)), sorted(made))
            self.assertFalse([name for name in self.made() if name.endswith("part")])
            if len(made) == len(names): continue
            self.assertEqual(work.returncode, -signal.SIGINT, err)
            if options: self.assertEqual((told["finished"], told["exitStatus"], ["quillet-offline: " + line for line in told["problems"]]), (False, 130, err.splitlines()))

    def test_what_is_refused_makes_nothing(self):
        there = self.copy(sample(), "golden-there.qcow2")
        empty = self.write("golden-empty", bytes(1 << 20))
        new, other = self.path("new.qcow2"), self.path("other.qcow2")
        before = self.state()
        rows = [("such a file already", [self.golden, new, there]), ("such a file already", [self.golden, self.golden]),
                ("named twice", [self.golden, new, os.path.join(self.work, ".", "new.qcow2")]),
                ("directory", [self.golden, self.path("none/new.qcow2")]), ("names no file", [self.golden, self.work + "/"]), ("call it", [self.golden, self.path("x.img")]),
                ("no such file", [self.path("none"), new]), ("no UTF-8", [self.golden, self.path("\udcff.qcow2")]), ("no NTFS volume", [empty, new]),
                ("contents look qcow2|qcow2", [self.golden, new, "--format", "vmdk"]),
                ("takes -f and -v alone", [self.golden, new, "--", "-s"]), ("file or a device", ["nbd://host", new])]
        for words, arguments in rows:
            with self.subTest(words):
                done = run(OFFLINE, "clone", *arguments)
                self.assertEqual((done.status, done.out, len(done.error_lines())), (2, "", 1), done.err)
                self.assertRegex(done.err, words)
        for image, driver in ((self.golden, "qcow2"), (self.raw, "raw")):
            with self.subTest("in use", driver=driver):
                end = self.serve(image, driver)
                done = run(OFFLINE, "clone", image, new, other)
                self.assertEqual((done.status, len(done.error_lines())), (2, 1), done.err)
                self.assertIn("another program is using it", done.err)
                end()
        done = run(OFFLINE, "clone", self.raw, new, PATH=os.path.dirname(OFFLINE))
        self.assertEqual((done.status, self.made(), self.state()), (2, [], before), done.err)
        self.assertIn("qemu-img", done.err)


if __name__ == "__main__": programs.main()
