# SPDX-License-Identifier: GPL-2.0-or-later
"""Running the built programs, for the tests beside this file."""
import contextlib, hashlib, os, re, shutil, subprocess, sys, tempfile, unittest

HERE = os.path.dirname(os.path.abspath(__file__))
BUILD = os.environ["QUILLET_BUILD"]
QUILLET, OFFLINE = os.path.join(BUILD, "quillet"), os.path.join(BUILD, "quillet-offline")
SHARED = os.environ.get("QUILLET_SHARED") or os.path.join(HERE, "..", "..", "..", "shared")
os.environ["PATH"] += ":/usr/sbin:/sbin"  # where mkntfs is, which a user's own path may lack
CONFIG = "Windows/System32/config/"
MACHINE = "S-1-5-21-1111-2222-3333"  # of the practice installation
WITH_QEMU = unittest.skipUnless(shutil.which("qemu-img") and shutil.which("qemu-nbd"), "no qemu-utils")
PAIR = re.compile(r"^(S-1-5-21-\d+-\d+-\d+) -> (S-1-5-21-\d+-\d+-\d+)$", re.M)


class Outcome:
    def __init__(self, done):
        self.status = done.returncode
        self.out = done.stdout.decode("utf-8")  # strict: whatever the programs print is UTF-8
        self.err = done.stderr.decode("utf-8")
        assert "Sanitizer" not in self.err and "runtime error" not in self.err, self.err
        assert self.status >= 0, "ended by signal %d: %s" % (-self.status, self.err)

    def error_lines(self):
        return self.err.splitlines()

    def refusal(self):
        """The one line by which quillet says why it does not work."""
        said = [line for line in self.error_lines() if line.startswith("quillet: ") and "exit status" not in line]
        assert self.status != 0 and len(said) == 1, self.err
        return said[0]


def run(program, *arguments, system=None, directory=None, **environment):
    env = {k: v for k, v in os.environ.items() if not k.startswith("QUILLET_")}
    if system is not None: env["QUILLET_SYSTEM"] = system
    env.update(environment)
    return Outcome(subprocess.run([program, *arguments], capture_output=True, cwd=directory, env=env))


def quillet(*arguments, system=None, **environment):
    return run(QUILLET, *arguments, system=system, **environment)


def digest(path):
    with open(path, "rb") as f: return hashlib.sha256(f.read()).hexdigest()


class ImageCase(unittest.TestCase):
    """Works in a temporary directory; self.path(NAME) is a file there."""

    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="quillet-test-")
        self.addCleanup(shutil.rmtree, self.work)

    def path(self, name): return os.path.join(self.work, name)

    def copy(self, image, name):
        shutil.copyfile(image, self.path(name))
        return self.path(name)

    def write(self, name, data):
        with open(self.path(name), "wb") as f: f.write(data)
        return self.path(name)

    def volume(self, name, size=16 << 20):
        """An empty NTFS volume."""
        with open(self.path(name), "wb") as f: f.truncate(size)
        geometry = ["-s", "512", "-p", "0", "-H", "255", "-S", "63"]
        subprocess.run(["mkntfs", "-F", "-Q", "-q", *geometry, self.path(name)], check=True, capture_output=True)
        return self.path(name)

    def contents(self, image, path):
        """A file of a volume, read by a program that is not ours."""
        return subprocess.run(["ntfscat", image, path], check=True, capture_output=True).stdout

    def put(self, image, path, data):
        """Gives a file of a volume these contents, by a program that is not ours; makes it where it is missing."""
        subprocess.run(["ntfscp", "-f", image, self.write("put", data), path], check=True, capture_output=True)

    def edit_hive(self, image, path, commands):
        """Has a program that is not ours change a hive of a volume; what it says."""
        if not shutil.which("hivexsh"): self.skipTest("hivexsh is not there")
        hive = self.write("hive", self.contents(image, path))
        script = "\n".join(commands + ["commit", ""]).encode()
        done = subprocess.run(["hivexsh", "-w", hive], input=script, check=True, capture_output=True)
        with open(hive, "rb") as f: self.put(image, path, f.read())
        return done.stdout.decode()

    @contextlib.contextmanager
    def locked(self, path):
        """Another process holds the file."""
        holder = "import fcntl, sys\nf = open(sys.argv[1], 'r+b')\nfcntl.lockf(f, fcntl.LOCK_EX)\nprint(flush=True)\ninput()"
        command = [sys.executable, "-c", holder, path]
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
            process.stdout.readline()
            yield
            process.kill()

    def assert_sound(self, image):
        """No structure of the volume's security stream is amiss, and no dirty mark is left."""
        said = subprocess.run(["ntfssecaudit", "-ar", image], capture_output=True)
        self.assertIn(b"All keys are present in all lists", said.stdout + said.stderr)
        said = subprocess.run(["ntfsinfo", "-m", image], capture_output=True)
        self.assertEqual(said.returncode, 0, said.stderr)
        self.assertNotIn(b"is dirty", said.stdout)


class CompanionCase(ImageCase):
    """Runs quillet-offline in the temporary directory."""

    def offline(self, *arguments): return run(OFFLINE, *arguments, directory=self.work)

    def look(self, *arguments):
        """What a command says that must leave a.img as it is."""
        before = digest(self.path("a.img"))
        done = self.offline(*arguments)
        self.assertEqual(digest(self.path("a.img")), before)
        return done

    def assert_refused(self, done, words=""):
        """One line on standard error says why, and nothing else is said."""
        self.assertEqual((done.status, done.out), (2, ""))
        self.assert_one_line(done, words)

    def assert_one_line(self, done, words=""):
        self.assertRegex(done.err, r"\Aquillet-offline: [^\n]+\n\Z")
        self.assertIn(words, done.err)


class SystemCase(CompanionCase):
    """Has a practice installation there: a.img, self.image."""

    def setUp(self):
        super().setUp()
        self.image = self.copy(sample(), "a.img")


_samples = {}


def sample(*options):
    """A practice installation, made once with these options for all tests of a program."""
    if options not in _samples:
        directory = tempfile.mkdtemp(prefix="quillet-sample-")
        unittest.addModuleCleanup(shutil.rmtree, directory)
        made = run(OFFLINE, "sample", *options, os.path.join(directory, "sample.img"), "--machine", MACHINE)
        assert made.status == 0, made.err
        _samples[options] = os.path.join(directory, "sample.img")
    return _samples[options]


def need_shared(*names):
    for name in names:
        if not os.path.exists(os.path.join(SHARED, name)):
            raise unittest.SkipTest("%s is not there; set QUILLET_SHARED" % name)
    return [os.path.join(SHARED, name) for name in names]


def main():
    program = unittest.main(module="__main__", exit=False)
    result = program.result
    if result.wasSuccessful() and result.testsRun and len(result.skipped) == result.testsRun: print("all tests skipped")
    sys.exit(not result.wasSuccessful())
