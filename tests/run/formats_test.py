# SPDX-License-Identifier: GPL-2.0-or-later
"""Disks that are no raw files: runs in place and taken back in each format, and what must not be opened."""
import json, os, re, shutil, subprocess, time

import programs
from programs import ImageCase, OFFLINE, PAIR, WITH_QEMU, digest, quillet, run

# Stands for qemu-nbd: passes so many bytes on to it, and then both are killed; else it says how many there were.
RELAY = """#!/usr/bin/env python3
import os, socket, subprocess, sys, tempfile, threading, time
left = int(os.environ["RELAY_BYTES"])
client = socket.socket(fileno=3).accept()[0]
path = tempfile.mkdtemp() + "/socket"
server = subprocess.Popen([os.environ["RELAY_TO"], "-k", path, *sys.argv[1:]], env={k: v for k, v in os.environ.items() if k[:7] != "LISTEN_"})
open(sys.argv[0] + ".server", "w").write(str(server.pid))
while not os.path.exists(path): time.sleep(0.01)
other = socket.socket(socket.AF_UNIX)
other.connect(path)
def back():
    while data := other.recv(1 << 20): client.sendall(data)
threading.Thread(target=back, daemon=True).start()
while left > 0 and (data := client.recv(min(left, 65536))):
    left -= len(data)
    other.sendall(data)
if left <= 0: server.kill()
else: open(sys.argv[0] + ".left", "w").write(str(left))
other.close()
server.wait()
"""


def sample(): return programs.sample("--files", "20", "--descriptors", "5")


def running(process):
    try:
        with open(f"/proc/{process}/stat") as f: return f.read().rpartition(")")[2].split()[0] not in "ZX"
    except FileNotFoundError: return False


def qemu_img(*arguments):
    return subprocess.run(["qemu-img", *arguments], check=True, capture_output=True).stdout.decode()


@WITH_QEMU
class FormatCase(ImageCase):
    def make(self, name, driver, *options):
        qemu_img("convert", "-O", driver, *options, sample(), self.path(name))
        return self.path(name)

    def clone(self, name="clone.qcow2", base=None):
        qemu_img("create", "-q", "-f", "qcow2", "-F", "raw", "-b", base or self.copy(sample(), "base.img"), self.path(name))
        return self.path(name)

    def raw(self, disk, driver):
        """The disk's own bytes, as another program sees them."""
        qemu_img("convert", "-f", driver, "-O", "raw", disk, self.path("raw.img"))
        return self.path("raw.img")

    def assert_refused(self, words, *arguments, **environment):
        """By one line of each command, and without a change."""
        before = {name: digest(self.path(name)) for name in os.listdir(self.work) if os.path.isfile(self.path(name))}
        for command in ("info", "run"):
            done = run(OFFLINE, command, *arguments, **environment)
            self.assertNotEqual(done.status, 0)
            said = [line for line in done.error_lines() if line.startswith("quillet") and "exit status" not in line]
            self.assertEqual(len(said), 1, done.err)
            self.assertRegex(said[0], words)
        self.assertEqual(before, {name: digest(self.path(name)) for name in before})
        return said[0]


class InPlace(FormatCase):
    def check(self, disk, driver, shown, base=None):
        info = json.loads(run(OFFLINE, "info", "--json", disk).out)
        self.assertTrue(info["usable"], info["problems"])
        [seen] = info["disks"]
        self.assertEqual((seen["format"], [file["path"] for file in seen["backing"]]), (shown, [base] if base else []))
        kept = base and digest(base)
        done = run(OFFLINE, "run", disk)
        self.assertEqual(done.status, 0, done.err)
        old, new = PAIR.search(done.out).groups()
        raw = self.raw(disk, driver)
        self.assert_sound(raw)
        audit = run(OFFLINE, "audit", raw, old)
        self.assertEqual((audit.status, new in audit.out), (0, True), audit.err + audit.out)
        back = run("sh", "-c", re.search("`(.*)`", done.err).group(1), PATH=programs.BUILD + ":" + os.environ["PATH"])
        self.assertEqual(back.status, 0, back.err)
        with open(self.raw(disk, driver), "rb") as now, open(sample(), "rb") as then:
            self.assertTrue(now.read().rstrip(b"\0") == then.read().rstrip(b"\0"))
        self.assertEqual([name for name in os.listdir(self.work) if "quillet" in name], [])
        if base: self.assertEqual(digest(base), kept)

    def test_qcow2(self):
        disk = self.make("plain.qcow2", "qcow2")
        qemu_img("snapshot", "-c", "before", disk)
        self.check(disk, "qcow2", "qcow2")
        qemu_img("convert", "-l", "before", "-O", "raw", disk, self.path("snapshot"))
        self.assertEqual(digest(self.path("snapshot")), digest(sample()))
        self.check(self.make("compressed.qcow2", "qcow2", "-c"), "qcow2", "qcow2")

    def test_linked_clones(self):
        base = self.copy(sample(), "base.img")
        self.check(self.clone(base=base), "qcow2", "qcow2", base)
        self.assertLess(os.path.getsize(self.path("clone.qcow2")), 8 << 20)

    def test_vmdk(self):
        self.check(self.make("plain.vmdk", "vmdk"), "vmdk", "vmdk")
        self.check(self.make("parts.vmdk", "vmdk", "-o", "subformat=twoGbMaxExtentFlat"), "vmdk", "vmdk")

    def test_vhdx_vhd_and_vdi(self):
        self.check(self.make("disk.vhdx", "vhdx"), "vhdx", "vhdx")
        self.check(self.make("fixed.vhd", "vpc", "-o", "subformat=fixed,force_size=on"), "vpc", "vhd")
        self.check(self.make("DYNAMIC.VHD", "vpc", "-o", "force_size=on"), "vpc", "vhd")
        self.check(self.make("disk.vdi", "vdi"), "vdi", "vdi")

    def test_names_are_only_names(self):
        for name in ('json:{"driver":"null-co"}.qcow2', "nbd:x,driver=raw,file.filename=y.qcow2", "-r é'\"\\.qcow2", "ssh:x%2F.qcow2"):
            self.make("plain.qcow2", "qcow2")
            os.rename(self.path("plain.qcow2"), self.path(name))
            done = run(OFFLINE, "run", "--no-undo", "./" + name, directory=self.work)
            self.assertEqual(done.status, 0, done.err)
            self.assertEqual(run(OFFLINE, "info", self.path(name)).status, 0)

    def test_an_address(self):
        disk, state = self.make("plain.qcow2", "qcow2"), self.path("state")
        os.mkdir(state)
        server = subprocess.Popen(["qemu-nbd", "-t", "-f", "qcow2", "-k", self.path("socket"), disk])
        self.addCleanup(server.wait)
        self.addCleanup(server.terminate)
        while not os.path.exists(self.path("socket")): time.sleep(0.01)
        address = "nbd+unix:///?socket=" + self.path("socket")
        done = quillet(system=address.replace(":", "\\:"), QUILLET_UNDO="auto", QUILLET_JOURNAL=state)
        self.assertEqual(done.status, 0, done.err)
        self.assertEqual(len(os.listdir(state)), 1)
        command = re.search("`(.*)`", done.err).group(1)
        back = run("sh", "-c", command, PATH=programs.BUILD + ":" + os.environ["PATH"], QUILLET_JOURNAL=state)
        self.assertEqual((back.status, os.listdir(state)), (0, []), back.err)
        self.assertIn('write "\\:"', quillet(system=address).err)


class Refused(FormatCase):
    def test_formats_that_do_not_agree(self):
        """Contents alone never decide: on a raw disk the guest writes them."""
        disk = self.make("disk.img", "qcow2")
        self.assert_refused("its contents look qcow2; say which it is, --format qcow2 or --format raw", disk)
        self.assert_refused("it is a qcow2 image", "--format", "raw", disk)
        self.assertEqual(run(OFFLINE, "run", "--no-undo", "--format", "qcow2", disk).status, 0)
        self.assertEqual(run(OFFLINE, "info", disk, QUILLET_FORMAT="qcow2").status, 0)
        raw = self.copy(sample(), "raw.vmdk")
        self.assert_refused("its name says vmdk, but its contents look raw", raw)
        self.assertEqual(run(OFFLINE, "info", "--format", "raw", raw).status, 0)
        self.assert_refused("said to be vdi", "--format", "vdi", raw)

    def test_what_an_image_names(self):
        disk = self.clone()
        for name, words in (("json:{}", "only a file is followed"), ("nbd://host/x", "only a file is followed"), ("gone.img", "no such file")):
            qemu_img("rebase", "-u", "-F", "raw", "-b", name, disk)
            self.assert_refused(words, disk)
        self.make("below.img", "qcow2")
        qemu_img("rebase", "-u", "-F", "qcow2", "-b", "below.img", disk)
        self.assertEqual(run(OFFLINE, "info", disk).status, 0)
        with open(disk, "r+b") as f:
            head = f.read(65536)
            f.seek(head.index(bytes.fromhex("E2792ACA")))
            f.write(b"none")  # an extension that nobody knows, where the format was
        self.assert_refused("has no word on its format", disk)
        qemu_img("create", "-q", "-f", "qcow2", "-o", "data_file=" + self.path("data"), self.path("data.qcow2"), "1M")
        self.assert_refused("data_file", self.path("data.qcow2"))
        parts = self.make("parts.vmdk", "vmdk", "-o", "subformat=monolithicFlat")
        with open(parts) as f: text = f.read()
        elsewhere = "names a file elsewhere"
        for evil, words in (("/etc/passwd", elsewhere), ("../x", elsewhere), ("json:{}", elsewhere), ("123", "a part of it can't be used")):
            with open(parts, "w") as f: f.write(text.replace("parts-flat.vmdk", evil))
            self.assert_refused(words, parts)

    def test_what_can_only_be_read(self):
        disk = self.make("stream.vmdk", "vmdk", "-o", "subformat=streamOptimized")
        self.assertIn("can't be changed in place", run(OFFLINE, "run", disk).err)
        self.assertEqual(run(OFFLINE, "plan", disk).status, 0)
        disk = self.make("locked.qcow2", "qcow2")
        os.chmod(disk, 0o444)
        self.assertIn("it can only be read", run(OFFLINE, "run", disk).err)

    def test_two_names_of_one_disk(self):
        clone, base = self.clone(), self.path("base.img")
        os.link(clone, self.path("link.qcow2"))
        for disks, words in (((clone, self.path("link.qcow2")), "the same disk"), ((base, clone), "has as a backing file"), ((clone, base), "is a backing file")):
            done = run(OFFLINE, "run", *disks)
            self.assertIn(words, done.err)

    def test_a_disk_in_use(self):
        disk = self.make("used.qcow2", "qcow2")
        for options in ([], ["-r"]):
            server = subprocess.Popen(["qemu-nbd", "-t", *options, "-f", "qcow2", "-k", self.path("socket"), disk])
            while not os.path.exists(self.path("socket")): time.sleep(0.01)
            self.assertIn("another program is using it; end that", run(OFFLINE, "run", disk).err)
            self.assertIn("another program is using it; end that", run(OFFLINE, "info", disk).err)
            server.terminate()
            server.wait()
            if os.path.exists(self.path("socket")): os.unlink(self.path("socket"))


class Server(FormatCase):
    def stand_in(self, text):
        os.makedirs(self.path("bin"), exist_ok=True)
        with open(self.path("bin/qemu-nbd"), "w") as f: f.write(text)
        os.chmod(self.path("bin/qemu-nbd"), 0o755)
        return self.path("bin") + ":" + os.environ["PATH"]

    def test_one_that_does_not_serve(self):
        disk = self.make("disk.qcow2", "qcow2")
        self.assert_refused("needs the program qemu-nbd", disk, PATH=self.work)
        self.assertEqual(run(OFFLINE, "info", sample(), PATH=self.work).status, 0)
        for text, words in (("exit 3", "ended with status 3"), ("echo 'qemu-nbd: out of luck' >&2; exit 1", "it: out of luck"),
                            ("kill -9 $$", "ended with status 137"), ("exec python3 -c 'import socket; socket.socket(fileno=3).accept()[0].send(b\"no NBD\" * 99)'", "disk.qcow2: ")):
            self.assert_refused(words, disk, PATH=self.stand_in("#!/bin/sh\n" + text))
        older = '#!/bin/sh\ncase "$*" in *io_uring*) echo "no linux io_uring here" >&2; exit 1;; esac\nexec %s "$@"\n'
        self.assertEqual(run(OFFLINE, "info", disk, PATH=self.stand_in(older % shutil.which("qemu-nbd"))).status, 0)
        with open(disk, "r+b") as f:
            f.seek(40)
            f.write(b"\xff" * 8)  # where the table of tables lies
        self.assert_refused("qemu-nbd does not serve it: .*L1 table", disk)

    def test_one_that_is_killed_on_the_way(self):
        """While it connects, in the walk and in the commit: nothing is lost."""
        disk = self.make("disk.qcow2", "qcow2")
        path, real = self.stand_in(RELAY), shutil.which("qemu-nbd")

        def relayed(limit):
            done = run(OFFLINE, "run", disk, PATH=path, RELAY_TO=real, RELAY_BYTES=str(limit))
            with open(self.path("bin/qemu-nbd.server")) as f: server = f.read()
            while running(server): time.sleep(0.01)  # no child of quillet's: it holds the lock until it is gone
            return done

        self.assertEqual(relayed(1 << 40).status, 0)
        with open(self.path("bin/qemu-nbd.left")) as f: total = (1 << 40) - int(f.read())
        self.assertEqual(run(OFFLINE, "undo", disk).status, 0)
        journals = 0
        for limit in (10, 3_000, 10_000, total // 3, total * 2 // 3):  # most of it is the commit
            done = relayed(limit)
            self.assertNotEqual(done.status, 0)
            self.assertRegex(done.err, "(?m)^quillet: .*disk.qcow2: .*qemu-nbd")
            if os.path.exists(disk + ".quillet-journal"):
                journals += 1
                self.assertIn("keep " + disk + ".quillet-journal", done.err)
                self.assertEqual(run(OFFLINE, "info", disk).status, 2)
                self.assertEqual(run(OFFLINE, "undo", disk).status, 0)
            self.assertEqual(digest(self.raw(disk, "qcow2")), digest(sample()))
        self.assertGreater(journals, 0)


programs.main()
