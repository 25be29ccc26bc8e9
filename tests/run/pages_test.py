# SPDX-License-Identifier: GPL-2.0-or-later
"""Commands and their options are the same in the help, in the manual pages and in each shell's completion, and the pages
are well-formed."""
import glob, os, re, shutil, subprocess, tempfile, unittest

import programs

PACKAGING = os.path.join(programs.HERE, "..", "..", "packaging")
BASH, ZSH, FISH = (os.path.join(PACKAGING, "completions", name) for name in ("quillet-offline.bash", "_quillet-offline", "quillet-offline.fish"))
PAGES = sorted(glob.glob(os.path.join(PACKAGING, "man", "*.1.in")))
COMMON = {"-h", "--help"}


def read(path):
    with open(path) as f: return f.read()


def listed(command, heading):
    """The first words of the lines below a heading of a command's help."""
    said = programs.run(programs.OFFLINE, *command, "--help").out
    return {name for names in re.findall(r"^  (\S+)", said.split("\n%s:\n" % heading)[1].split("\n\n")[0], re.M) for name in names.split(",")}


def bash(*words):
    """What bash offers for the last of these words."""
    script = '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _quillet_offline "$1" "${@: -1}" "${@: -2:1}"; printf "%s\\n" "${COMPREPLY[@]}"'
    return set(subprocess.run(["bash", "-c", script, "bash", BASH, "quillet-offline", *words], check=True, capture_output=True, text=True).stdout.splitlines())


def zsh(command):
    return set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*(?=[\[,}])", re.search(r"^%s\)$(.*?);;" % command, read(ZSH), re.M | re.S)[1])) | COMMON


def fish(command):
    rows = "\n".join(re.findall(r"seen_subcommand_from %s'(.*?) -d " % command, read(FISH)))
    return {("-" if kind == "s" else "--") + name for kind, name in re.findall(r"-([sl]) (\S+)", rows)} | COMMON


def page(name):
    rows = re.findall(r"^\.It (Fl .*)", read(os.path.join(PACKAGING, "man", name + ".1.in")), re.M)
    return {("--" if longer else "-") + option for row in rows for longer, option in re.findall(r"Fl (Fl )?([a-z][\w-]*)", row)}


class Pages(unittest.TestCase):
    def test_every_command_and_option_is_told_everywhere(self):
        self.maxDiff = None
        commands = listed([], "Subcommands")
        top = listed([], "Options")
        everywhere = {command: listed([command], "Options") for command in commands}
        self.assertIn("--undo", everywhere["run"])
        self.assertEqual(page("quillet-offline"), top)
        self.assertEqual(bash(""), commands | top)
        told = set(re.findall(r"^\.It Xr quillet-offline-(\w+) 1", read(os.path.join(PACKAGING, "man", "quillet-offline.1.in")), re.M))
        self.assertEqual(told, commands)
        self.assertEqual(set(re.findall(r"^ {4}['\"](\w+):", read(ZSH), re.M)), commands)
        self.assertEqual(set(re.findall(r'-n "\$none" -f -a (\w+)', read(FISH))), commands)
        self.assertEqual({os.path.basename(p)[:-5] for p in PAGES}, {"quillet", "quillet-offline"} | {"quillet-offline-" + c for c in commands})
        for command, options in everywhere.items():
            for where, told in (("page", page("quillet-offline-" + command)), ("bash", bash(command, "-")), ("zsh", zsh(command)), ("fish", fish(command))):
                self.assertEqual(told, options, "%s, %s" % (command, where))
        letters = set(re.findall(r"^  (-[a-z])", programs.quillet("-h").out, re.M))
        self.assertEqual(page("quillet"), letters)
        for offered in (bash("run", "--", "-"), set(re.search(r"^tool=\((.*)\)", read(ZSH), re.M)[1].split())): self.assertEqual(offered, letters)

    def test_bash_completes_names_and_what_follows_an_equals_sign(self):
        with tempfile.TemporaryDirectory() as directory:
            name = os.path.join(directory, "a b.img")
            open(name, "w").close()
            self.assertEqual(bash("run", "--report", name[:-5]), {name})
        self.assertEqual(bash("run", "--format", "=", "q"), {"qcow2"})
        self.assertEqual(bash("clone", "golden.img", "a.qcow2", "--", "-"), {"-f", "-v"})

    def test_the_pages_are_well_formed(self):
        if not shutil.which("mandoc"): self.skipTest("mandoc is not there")
        said = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", *PAGES], capture_output=True, text=True)
        self.assertEqual((said.returncode, said.stdout + said.stderr), (0, ""))


programs.main()
