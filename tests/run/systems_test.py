# SPDX-License-Identifier: GPL-2.0-or-later
"""Installations built from registry hives of real machines, and an independent model of what a run makes of them."""
import importlib, lzma, os, re, shutil, struct, subprocess, sys, tempfile, unittest

import programs
from programs import CONFIG, ImageCase, PAIR, digest, need_shared, quillet, run

HIVES = [CONFIG + "SAM", CONFIG + "SECURITY", CONFIG + "SOFTWARE", CONFIG + "SYSTEM", "Users/alice/NTUSER.DAT", "Users/bob/NTUSER.DAT"]
_directory = tempfile.mkdtemp(prefix="quillet-real-")


def real(*options):
    """A system on real hives, made once for each set of options; its image and its machine SID."""
    maker, = need_shared("tools/make-real-system")
    if not shutil.which("hivexsh"): raise unittest.SkipTest("hivexsh is not there")
    image = os.path.join(_directory, "real" + "".join(options) + ".img")
    if not os.path.exists(image):
        made = subprocess.run([maker, image, *options], capture_output=True, text=True)
        assert made.returncode == 0, made.stderr
    with open(image + ".expected") as f: return image, f.readline().split()[1]


def tool(name):
    """A module of those that read hives and descriptors independently of ours."""
    tools, = need_shared("tools")
    if tools not in sys.path: sys.path.insert(0, tools)
    return importlib.import_module(name)


class RealSystems(ImageCase):
    def audit(self, before, after, *options):
        auditor, = need_shared("tools/audit-system")
        said = subprocess.run([auditor, before, after, *options], capture_output=True, text=True)
        self.assertIn("as it should be", said.stdout, said.stdout + said.stderr)

    def test_whole_fast_and_simulated_runs(self):
        for disk, options, audited in (((), "-s", ["--simulated"]), ((), "-f", ["--fast"]), ((), "-", []), (("--whole-disk",), "-", [])):
            with self.subTest(disk + (options,)):
                image, machine = real(*disk)
                after = self.copy(image, "after.img")
                done = quillet(options, system=after)
                self.assertEqual(done.status, 0, done.err)
                self.assertEqual(PAIR.search(done.out).group(1), machine)
                self.assertIn("scanning c: ...\n", done.out)
                self.assertTrue(done.out.endswith("completed successfully\n"))
                self.audit(image, after, *audited)

    def test_keys_and_files_that_refuse(self):
        """What an administrator's run takes by force, and what it leaves behind."""
        auditor, = need_shared("tools/audit-system")
        hive = tool("hive")
        image, machine = real()
        after = self.copy(image, "after.img")
        done = quillet(system=after, QUILLET_ACCESS="checked")
        self.assertEqual(done.status, 0, done.err)
        lost = {kind: len(re.findall(kind + " Original security attributes lost for ", done.err)) for kind in ("_regOpenCreateKey", "sidReplaceInFileSD")}
        self.assertEqual(lost, {"_regOpenCreateKey": 107, "sidReplaceInFileSD": 7})
        keys = [key.sd for path in HIVES for key in hive.walk(self.contents(after, path))]
        open_to_all = sum(control & 4 and dacl == 0 for key in keys for control, dacl in [struct.unpack_from("<H12xI", key, 2)])
        self.assertEqual(open_to_all - 107, 123)  # renamed keys that refused, and what is below them
        kept = sum(tool("descriptors").sid(machine)[2:24] in key for key in keys)
        self.assertEqual(kept, 22)  # keys that refused, with their own descriptor again, and what lies below one that can't be taken
        said = subprocess.run([auditor, image, after], capture_output=True, text=True).stdout
        faults = re.findall(r"^(\S.*): (\d+)$", said, re.M)  # the one more is the owner of the key that can't be taken
        self.assertEqual(faults, [("file descriptor", "7"), ("key descriptor", str(open_to_all + kept + 1))], said)

    def test_run_after_run(self):
        """Each finds the SID of the run before; nothing grows, and no descriptor is left over."""
        hivecheck, = need_shared("tools/hivecheck")
        hive = tool("hive")
        image, old = real()
        after, seen = self.copy(image, "after.img"), []
        for turn in range(4):
            if turn == 3: before = self.copy(after, "before.img")
            done = quillet(system=after)
            self.assertEqual(done.status, 0, done.err)
            found, new = PAIR.search(done.out).groups()
            self.assertEqual(found, old)
            old = new
            seen.append({path: (hive.u32(data, 40), descriptors(hive, data)) for path in HIVES for data in [self.contents(after, path)]})
        self.assertEqual(seen[1], seen[2])
        self.assertEqual(seen[2], seen[3])
        self.audit(before, after)
        for path in HIVES:
            checked = subprocess.run([hivecheck, self.write("hive", self.contents(after, path))], capture_output=True, text=True)
            self.assertEqual(checked.returncode, 0, path + checked.stdout)


class DirtyHives(ImageCase):
    def test_hives_that_their_logs_make_whole(self):
        dirty, hivecheck = need_shared("hives/dirty", "tools/hivecheck")
        hive = tool("hive")
        image = self.copy(real()[0], "dirty.img")
        def unpack(name):
            with lzma.open(os.path.join(dirty, name + ".xz")) as f: return f.read()
        for ending in ("", ".LOG1", ".LOG2"):
            self.put(image, CONFIG + "SYSTEM" + ending, unpack("SYSTEM_B" + ending))
        before = digest(image)
        seen = run(programs.OFFLINE, "info", image)
        self.assertEqual(seen.status, 0, seen.err)
        self.assertRegex(seen.out, r"hive +logged, C:.Windows.System32.config.SYSTEM,")
        self.assertEqual(run(programs.OFFLINE, "audit", image).status, 1)
        self.assertEqual(digest(image), before)
        self.assertEqual(quillet(system=image).status, 0)
        data = self.contents(image, CONFIG + "SYSTEM")
        self.assertEqual(hive.u32(data, 4), hive.u32(data, 8))
        self.assertGreater(hive.u32(data, 4), 2111)  # or a stale entry of the logs could count as a later one
        checked = subprocess.run([hivecheck, self.write("hive", data)], capture_output=True, text=True)
        self.assertIn("35595 keys, sound", checked.stdout)
        self.assertIn("hive        clean, C:\\Windows\\System32\\config\\SYSTEM", run(programs.OFFLINE, "info", image).out)


def descriptors(hive, data):
    """How many descriptors the ring of a hive holds."""
    first = at = hive.u32(data, hive.cell(data, hive.u32(data, 36))[0] + 44)
    count = 0
    while count == 0 or at != first: at, count = hive.u32(data, hive.cell(data, at)[0] + 4), count + 1
    return count


unittest.addModuleCleanup(shutil.rmtree, _directory)
programs.main()
