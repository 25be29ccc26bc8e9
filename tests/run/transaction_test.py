# SPDX-License-Identifier: GPL-2.0-or-later
"""A run is whole or has not happened, can be taken back, and can be planned first."""
import os, re, shutil, signal, subprocess

import programs
from programs import OFFLINE, PAIR, SystemCase, digest, run, sample

INTERRUPT = os.path.join(programs.BUILD, "tests", "run", "libinterrupt.so")
SCARCE = os.path.join(programs.BUILD, "scarce-quillet")


class TransactionCase(SystemCase):
    def setUp(self):
        super().setUp()
        self.old = digest(self.image)
        self.killed = 0

    def beside(self): return sorted(name for name in os.listdir(self.work) if name.startswith("a.img."))

    def interrupted(self, at, command):
        """Runs a command of the companion and kills it before a call; 0: not at all. How many calls there were, which
        differs a little from run to run, so that the last ones may not be reached."""
        count = self.path("count")
        if os.path.exists(count): os.unlink(count)
        env = dict(os.environ, LD_PRELOAD=INTERRUPT, ASAN_OPTIONS="verify_asan_link_order=0", INTERRUPT_COUNT=count, INTERRUPT_AT=str(at))
        done = subprocess.run([OFFLINE, command, self.image], env=env, capture_output=True)
        self.assertIn(done.returncode, (0,) if at == 0 else (0, -signal.SIGKILL), done.stderr)
        self.killed += done.returncode != 0
        return os.path.getsize(count)

    def assert_taken_back(self, *said):
        done = run(OFFLINE, "undo", self.image)
        self.assertEqual((digest(self.image), self.beside()), (self.old, []), (said, done.out, done.err))

    def assert_nothing_builds_on_it(self):
        above = self.path("above.qcow2")
        subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-b", self.image, "-F", "raw", above], check=True)
        for command in ("info", "run"): self.assertIn("its backing file %s: an earlier run was cut off" % self.image, run(OFFLINE, command, above).err)

    def points(self, calls):
        """Calls from the first to the last, each with the one after it."""
        return sorted({1 + i * (calls - 1) // 9 + next for i in range(10) for next in (0, 1)} | {calls - 2, calls - 1})


class Killed(TransactionCase):
    def test_a_run_at_any_call(self):
        calls = self.interrupted(0, "run")
        self.assert_taken_back()
        whole = 0
        for at in self.points(calls):
            self.interrupted(at, "run")
            if "a.img.quillet-undo" in self.beside():
                whole += 1
                self.assert_sound(self.image)
            elif digest(self.image) != self.old:
                looked = run(OFFLINE, "info", self.image)
                self.assertEqual(looked.status, 2)
                self.assertIn("run `quillet-offline undo`", looked.err)
                if shutil.which("qemu-nbd"): self.assert_nothing_builds_on_it()
            self.assert_taken_back(at)
        self.assertGreater(whole, 0)
        self.assertGreater(self.killed, 16)

    def test_memory_that_runs_out_is_no_crash_and_leaves_nothing_unsaid(self):
        count, environment = self.path("count"), {"QUILLET_COMMIT": "success", "QUILLET_UNDO": "auto"}

        def scarce(at, **more): return run(SCARCE, system=self.image, SCARCE_AT=str(at), **environment, **more)

        self.assertEqual(scarce(0, SCARCE_COUNT=count).status, 0)
        with open(count) as f: calls = int(f.read())
        self.assert_taken_back()
        ended = set()
        for at in range(calls // 16, calls, calls // 8):
            for on in ("0", "1"):
                done = scarce(at, SCARCE_ON=on)
                ended.add(done.status)
                if done.status == 0:
                    old, _ = PAIR.search(done.out).groups()
                    self.assertEqual(run(OFFLINE, "audit", self.image, old).status, 0, (at, on, done.err))
                else:
                    self.assertIn("quillet: ", done.err)
                self.assert_taken_back(at, on)
        self.assertIn(8, ended)

    def test_an_undo_at_any_call_and_what_follows(self):
        self.assertEqual(run(OFFLINE, "run", self.image).status, 0)
        for name in ("a.img", "a.img.quillet-undo"): shutil.copyfile(self.path(name), self.path("kept-" + name))
        calls = self.interrupted(0, "undo")
        for at in self.points(calls):
            for name in ("a.img", "a.img.quillet-undo"): shutil.copyfile(self.path("kept-" + name), self.path(name))
            os.chmod(self.path("a.img.quillet-undo"), 0o600)
            self.interrupted(at, "undo")
            if "a.img.quillet-journal" in self.beside(): self.interrupted(4 + at // 2, "undo")
            self.assert_taken_back(at)

    def test_what_asks_to_end_does_so_without_a_change(self):
        for number in (signal.SIGTERM, signal.SIGHUP):
            process = subprocess.Popen([programs.QUILLET], stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=dict(os.environ, QUILLET_SYSTEM=self.image))
            process.stdout.readline()  # it is at work, and nothing can be committed before the last line
            process.send_signal(number)
            said = process.communicate()[1].decode()
            self.assertEqual(process.returncode, -number)
            self.assertTrue(said.endswith("quillet: ended by a signal; nothing was changed\n"), said)
            self.assertEqual((digest(self.image), self.beside()), (self.old, []))

    def test_a_limit_between_journal_and_disk_is_told_first(self):
        for command in ("run", "undo"):
            done = run("sh", "-c", f"ulimit -f 1000; exec {OFFLINE} {command} {self.image}")
            self.assertNotEqual(done.status, 0)
            self.assertIn("a.img: it is longer than files may be here", done.err)
            self.assertEqual((digest(self.image), self.beside()), (self.old, []))


class Undo(TransactionCase):
    def test_run_after_run_and_back(self):
        states = []
        for options in ("-", "-f", "-sqf"):
            states.append(digest(self.image))
            done = run(OFFLINE, "run", self.image, "--", options)
            self.assertEqual((done.status, done.out == ""), (0, options == "-sqf"))
            self.assertRegex(done.err, r"(?m)%s^quillet: \d+ KiB were changed in \d+ places; `quillet-offline undo %s` takes the run back.*\n\Z"
                             % (r"\A" if done.out == "" else "", self.image))
        self.assertEqual(self.beside(), ["a.img.quillet-undo", "a.img.quillet-undo.2", "a.img.quillet-undo.3"])
        self.assertEqual(os.stat(self.path("a.img.quillet-undo")).st_mode & 0o777, 0o600)
        for state in reversed(states):
            self.assertEqual(run(OFFLINE, "undo", self.image).status, 0)
            self.assertEqual(digest(self.image), state)
        nothing = run(OFFLINE, "undo", self.image)
        self.assertEqual((nothing.status, nothing.err), (1, ""))

    def test_a_disk_that_moved_on_is_left_alone(self):
        kept = self.path("undo file")
        self.assertEqual(run(OFFLINE, "run", "--undo", kept, self.image).status, 0)
        with open(sample(), "rb") as was, open(self.image, "r+b") as now:
            old, new = was.read(), now.read()
            at = next(i for i in range(len(old) // 2, len(old)) if old[i] != new[i])
            now.seek(at)
            now.write(bytes([new[at] ^ 0xFF]))
        moved = digest(self.image)
        done = run(OFFLINE, "undo", "--undo", kept, self.image)
        self.assertEqual((done.status, digest(self.image)), (2, moved))
        self.assertRegex(done.err, "1 of [0-9]+ stretches differ")
        with open(self.image, "r+b") as now:
            now.seek(at)
            now.write(new[at:at + 1])
        self.assertEqual(run(OFFLINE, "undo", "--undo", kept, self.image).status, 0)
        self.assertEqual(digest(self.image), self.old)

    def test_a_run_that_fails_is_committed_only_when_asked(self):
        checked = dict(QUILLET_ACCESS="checked")  # refuses some of the practice system's files, which ends with 5
        done = run(OFFLINE, "run", self.image, **checked)
        self.assertEqual((done.status, digest(self.image), self.beside()), (5, self.old, []))
        self.assertIn("nothing was committed", done.error_lines()[-1])
        self.assertEqual(run(OFFLINE, "run", "--commit", "always", "--no-undo", self.image, **checked).status, 5)
        self.assertNotEqual(digest(self.image), self.old)


class Plan(TransactionCase):
    def test_tells_what_an_audit_finds_and_writes_nothing(self):
        os.chmod(self.image, 0o444)
        plan = run(OFFLINE, "plan", self.image)
        self.assertEqual(plan.status, 0, plan.err)
        self.assertEqual((digest(self.image), self.beside()), (self.old, []))
        audit = run(OFFLINE, "audit", self.image)
        counts = lambda out: [re.findall(r"^%s +(\d+) +(\d+)$" % kind, out, re.M) for kind in ("files", "key descriptors", "key names", "values")]
        self.assertEqual(counts(plan.out), counts(audit.out))
        sids = set(re.findall(r"S-1-5-21-\d+-\d+-\d+", plan.out + plan.err))
        self.assertLessEqual(sids, set(re.findall(r"S-1-5-21-\d+-\d+-\d+", audit.out)))
        places = run(OFFLINE, "plan", "-v", self.image).out.splitlines()
        self.assertEqual(len([line for line in places if line.startswith("would change  ")]), sum(int(one) for [(one, _)] in counts(audit.out)))
        self.assertEqual(run(OFFLINE, "plan", self.image, "--", "-s").status, 1)


programs.main()
