# SPDX-License-Identifier: GPL-2.0-or-later
"""The line that shows how far a command is: on terminals, between other lines, and where there is no terminal."""
import fcntl, json, os, pty, re, signal, struct, subprocess, termios, unittest

import programs
from programs import OFFLINE, QUILLET, SystemCase, run

PHASES = ["Opening and checking", "Registry, selected keys", "Registry", "User's hive 1", "Files of C:", "Committing"]
WIPE = "\033[K"


class Screen:
    """What a program writes to a terminal, and what is on it at the end."""

    def __init__(self, *command, columns=80, stdout=None, until=None, **more):
        master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        env = {k: v for k, v in os.environ.items() if not k.startswith(("QUILLET_", "LC_"))}
        env.update({"TERM": "xterm", "LC_ALL": "C.UTF-8", **more})
        def own(): fcntl.ioctl(2, termios.TIOCSCTTY, 0)
        process = subprocess.Popen(command, stdin=slave, stdout=slave if stdout is None else stdout, stderr=slave, env=env, start_new_session=True, preexec_fn=own)
        os.close(slave)
        data = b""
        while piece := self.read(master):
            data += piece
            if until and until in data:
                os.write(master, b"\x03")  # Ctrl-C
                until = None
        os.close(master)
        self.out = process.stdout.read().decode() if process.stdout else ""
        self.status, self.text = process.wait(), data.decode()
        if process.stdout: process.stdout.close()
        self.drawn, self.lines, row = [], [], ""
        column = 0
        for part in re.findall(r"\033\[K|[\r\n]|[^\r\n\033]+|\033", self.text):
            if part == "\r": column = 0
            elif part == "\n": self.lines, row = self.lines + [row], ""
            elif part == WIPE:
                if column: self.drawn.append(row[:column])
                row = row[:column]
            else: row, column = row[:column] + part + row[column + len(part):], column + len(part)
        self.left = row

    @staticmethod
    def read(master):
        try: return os.read(master, 1 << 16)
        except OSError: return b""  # nobody has the other end any more

    def shown(self, title): return [line for line in self.drawn if line.startswith(title)]


def counts(line): return [int(number.replace(",", "")) for number in re.search(r"  ([\d,]+) of ([\d,]+)", line).groups()]


class Progress(SystemCase):
    def same(self, lines): return [re.sub(r"\d+", "0", line) for line in lines]

    def test_a_terminal_is_left_as_without_it(self):
        """Also by names that would do something to it."""
        self.put(self.path("a.img"), "Windows/\033[31m\u202e of 7", b"x")
        screens = [Screen(OFFLINE, "run", "--no-undo", "--verify", "--progress", word, self.path("a.img"), "--", "-v") for word in ("auto", "never")]
        shown, plain = screens
        self.assertEqual((shown.status, shown.left), (0, ""), shown.text)
        self.assertEqual((plain.status, plain.drawn), (0, []), plain.text)
        for title in PHASES + ["Audit, files of C:", "Audit, registry", "Audit, user's hive 2"]: self.assertTrue(shown.shown(title), title)
        self.assertEqual(set(re.findall("\033.{0,2}", shown.text)), {WIPE})
        self.assertEqual(self.same(shown.lines[0:1] + shown.lines[-2:]), self.same(plain.lines[0:1] + plain.lines[-2:]))
        self.assertEqual([line for line in shown.lines if line.startswith(tuple(PHASES))], [])
        for line in shown.drawn:
            if " of " in line and re.search(r"\d of \d", line): self.assertLessEqual(*counts(line))

    def test_where_it_is_drawn(self):
        narrow = Screen(OFFLINE, "plan", self.path("a.img"), columns=20, LC_ALL="C")
        self.assertTrue(narrow.drawn and narrow.text.isascii())
        self.assertEqual(max(map(len, narrow.drawn)), 19)
        for words in (["plan", "--progress", "always", self.path("a.img"), "--", "-q"], ["audit", "--json", "--progress", "always", self.path("a.img")], ["info", self.path("a.img")]):
            self.assertEqual(Screen(OFFLINE, *words, QUILLET_PROGRESS="always").drawn, [], words)
        apart = Screen(OFFLINE, "audit", "--json", self.path("a.img"), stdout=subprocess.PIPE)
        self.assertEqual((json.loads(apart.out)["command"], apart.left, apart.lines), ("audit", "", []))
        self.assertTrue(apart.shown("Audit, files of C:"))
        self.assertEqual(Screen(OFFLINE, "audit", self.path("a.img"), TERM="dumb").drawn, [])
        self.assertEqual(Screen(QUILLET, "-s", QUILLET_SYSTEM=self.path("a.img")).drawn, [])
        self.assertTrue(Screen(QUILLET, "-s", QUILLET_SYSTEM=self.path("a.img"), QUILLET_PROGRESS="auto").shown("Files of C:"))

    def test_without_a_terminal(self):
        self.assertEqual(self.offline("audit", "a.img").err, "")
        done = self.offline("run", "--progress", "always", "a.img", "--", "-q")
        self.assertEqual((done.status, "progress:" in done.err), (0, False), done.err)
        done = self.offline("audit", "--progress", "always", "a.img")
        self.assertEqual([line for line in done.error_lines() if not line.startswith("progress: ")], [])
        met = {line[10:].split("  ")[0]: counts(line) for line in done.error_lines() if " of " in line[20:]}
        self.assertEqual(*met["Audit, registry"])  # each key that was validated is looked at
        self.assertEqual(*met["Audit, user's hive 1"])
        done, total = met["Audit, files of C:"]
        self.assertTrue(0.9 * total < done <= total, met)  # some records belong to no name
        done = programs.quillet("-s", system=self.path("a.img"), QUILLET_PROGRESS="always")
        met = {line[10:].split("  ")[0]: counts(line) for line in done.error_lines() if line.startswith("progress: ") and re.search(r"\d of \d", line)}
        self.assertEqual(met["Files of C:"][0] > 400, True, met)
        self.assertTrue(0.95 * met["Registry"][1] < met["Registry"][0] <= met["Registry"][1], met)
        self.assertEqual(programs.quillet("-s", system=self.path("a.img"), QUILLET_PROGRESS="loud").status, 87)
        self.assert_refused(run(OFFLINE, "audit", self.path("a.img"), QUILLET_PROGRESS="loud"), "always, auto or never")
        self.assertEqual(run(OFFLINE, "info", self.path("a.img"), QUILLET_PROGRESS="loud").status, 0)
        reader, writer = os.pipe()
        os.close(reader)
        self.assertEqual(subprocess.run([OFFLINE, "audit", "--progress", "always", self.path("a.img")], stdout=subprocess.DEVNULL, stderr=writer).returncode, 1)
        os.close(writer)
        done = self.offline("sample", "--files", "70", "--progress", "always", "b.img")
        self.assertIn("progress: Files made  70 of 70", done.err)

    def test_an_end_on_the_way(self):
        """By Ctrl-C, and by a failure."""
        failed = Screen(OFFLINE, "run", self.path("a.img"), self.path("none.img"))
        self.assertEqual((failed.left, len(failed.lines)), ("", 1), failed.text)
        large = programs.sample("--files", "4000")
        for command, says in (("audit", []), ("plan", []), ("run", ["quillet: ended by a signal; nothing was changed"])):
            for _ in range(10):  # it may be quicker than we are
                ended = Screen(OFFLINE, command, self.copy(large, "c.img"), until=b"Opening")
                if ended.status != 0: break
            if ended.status == 0: self.skipTest("no signal came in time")
            self.assertEqual((ended.status, ended.left), (-signal.SIGINT, ""), ended.text)
            self.assertEqual([line for line in ended.lines if not line.startswith(("S-1-5-21-", "scanning", "changing", "updating"))], says)


if __name__ == "__main__": programs.main()
