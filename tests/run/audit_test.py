# SPDX-License-Identifier: GPL-2.0-or-later
"""What quillet-offline audit finds, before and after a run, and what it does with a system that it can't see whole."""
import json, struct

import programs
from programs import CONFIG, MACHINE, SystemCase

KINDS = ("files", "keyDescriptors", "keyNames", "values")
PLANTED = "S-1-5-21-77-88-99"
ACCOUNT = PLANTED + "-1000"
EXPLORER = r"\Microsoft\Windows\CurrentVersion\Explorer"
PROFILES = r"\Microsoft\Windows NT\CurrentVersion\ProfileList"
NONE, SZ, EXPAND, BINARY, DWORD, MULTI = 0, 1, 2, 3, 4, 7


def image(*numbers, revision=1, count=None):
    return struct.pack("<BB6s%dI" % len(numbers), revision, count or len(numbers), b"\0\0\0\0\0\5", *numbers)


def text(characters): return characters.encode("utf-16-le")


USER = image(21, 77, 88, 99, 1000)
# Values of SOFTWARE: the key, the name, the type, the data; "treated", or why it is left, or None for no such SID.
VALUES = [
    (EXPLORER, "binary", BINARY, b"\1\4\0" + USER, "treated"),
    (EXPLORER, "no type", NONE, image(21, 77, 88, 99), "treated"),
    (EXPLORER, "cut", BINARY, USER[:-1], None),
    (EXPLORER, "few", BINARY, image(21, 77, 88, 99, 1000, count=3), None),
    (EXPLORER, "many", BINARY, image(21, 77, 88, 99, 1000, *[0] * 11, count=16), None),
    (EXPLORER, "old", BINARY, image(21, 77, 88, 99, 1000, revision=2), None),
    (EXPLORER, "an account", SZ, text(ACCOUNT + "\0"), "treated"),
    (EXPLORER, "whole", SZ, text(PLANTED), "treated"),
    (EXPLORER, "whole, terminated", SZ, text(PLANTED + "\0"), "insideText"),
    (EXPLORER, "longer", SZ, text(PLANTED + "0-1000\0"), None),
    (EXPLORER, "middle", SZ, text("x" + ACCOUNT + "\0"), "insideText"),
    (EXPLORER, "list", MULTI, text("x\0" + PLANTED + "\0\0"), "treated"),
    (EXPLORER, "list, middle", MULTI, text("x" + PLANTED + "\0\0"), "insideText"),
    (EXPLORER, "unaligned text", BINARY, b"\1" + text(PLANTED), "insideText"),
    (EXPLORER, "expandable", EXPAND, text(ACCOUNT + "\0"), "otherValueTypes"),
    (EXPLORER, "number", DWORD, USER, "otherValueTypes"),
    (PROFILES, "SECURITY", BINARY, USER, "treated"),
    (PROFILES, "Other", BINARY, USER, "valuesOutside"),
    (r"\Practice", "outside", BINARY, USER, "valuesOutside"),
    (r"\Practice", "of " + ACCOUNT, DWORD, bytes(4), "valueNames"),
]


class Audit(SystemCase):
    def audit(self, status, *arguments):
        done = self.look("audit", *arguments)
        self.assertEqual((done.status, done.err == ""), (status, status != 2), done.out + done.err)
        return done

    def told(self, status, *arguments): return json.loads(self.audit(status, "--json", *arguments).out)

    def counts(self, status, *arguments):
        """Of each kind, what a run treats and what it leaves alone."""
        counts = self.told(status, *arguments)["counts"]
        return {kind: (counts[kind]["remaining"], counts[kind]["left"]) for kind in KINDS}

    def test_a_run_leaves_what_it_should_and_gives_all_else_the_new_sid(self):
        self.edit_hive(self.image, CONFIG + "SOFTWARE", ["cd \\Classes\\AppID", "add " + MACHINE])  # a tree whose names stay
        before = self.counts(1, "a.img")
        for other in ("S-1-5-21-1111-2222-333", "S-1-5-21-1111-2222-33333", "S-1-5-21-9-8-7"):
            self.assertEqual(set(self.counts(0, "--all", "a.img", other).values()), {(0, 0)}, other)
        self.assertEqual(self.offline("run", "a.img", "--", "-q").status, 0)
        after, now = self.counts(0, "a.img", "--sid", MACHINE), self.counts(1, "a.img")
        self.assertEqual([one["sid"] for one in self.told(1, "a.img")["otherMachines"] if one["sid"] == MACHINE], [MACHINE])
        for kind, (treated, left) in before.items():
            self.assertTrue(treated > 20 and left > 0, kind)
            self.assertEqual((after[kind], now[kind]), ((0, left), (treated, 0)), kind)
        self.assertIn("\nnothing that quillet treats holds %s\n" % MACHINE, self.audit(0, "a.img", MACHINE).out)

    def test_each_planted_value(self):
        commands = []
        for key in (EXPLORER, PROFILES, r"\Practice"):
            values = [row for row in VALUES if row[0] == key]
            commands += ["cd " + key, "setval %d" % len(values)]
            for _, name, kind, data, _ in values: commands += [name, "hex:%d:%s" % (kind, data.hex(","))]
        self.edit_hive(self.image, CONFIG + "SOFTWARE", commands)
        places = self.told(1, "a.img", "--all", PLANTED)["places"]
        found = {place["value"]: place.get("reason", "treated") for place in places if place["kind"] == "values"}
        self.assertEqual(found, {name: sort for _, name, _, _, sort in VALUES if sort})
        self.assertTrue(all((place["state"] == "stays") == ("reason" in place) for place in places))
        counts = self.counts(1, "a.img", PLANTED)
        self.assertEqual((counts["values"], counts["keyNames"]), ((6, 9), (0, 0)))

    def test_names_by_where_they_lie(self):
        """The head of a tree keeps its name; below it, names that begin with the SID are rewritten."""
        commands = []
        for parent in ("Policy", "RXACT"):
            commands.append("cd \\" + parent)
            commands += ["add " + name for name in (PLANTED, PLANTED + "-5", PLANTED + "0", "x " + PLANTED)]
        self.edit_hive(self.image, CONFIG + "SECURITY", commands)
        out = self.audit(1, "a.img", "--all", PLANTED).out
        hive = "key name, C:\\Windows\\System32\\config\\SECURITY: "
        for line in ("still old     " + hive + "\\Policy\\" + PLANTED + "\n", "SECURITY: \\Policy\\" + PLANTED + "-5\n",
                     "\\Policy\\x " + PLANTED + " (inside other text)\n",
                     "stays         " + hive + "\\RXACT\\" + PLANTED + "-5 (outside the table)\n",
                     "\n2 places that quillet treats hold " + PLANTED + "\n"):
            self.assertIn(line, out)
        self.assertNotIn("\\" + PLANTED + "0", out)

    def test_what_can_not_be_looked_at(self):
        self.write("text", b"x" * 100000)
        for images in (["text"], ["a.img", "missing"], ["a.img", "text"]): self.assert_one_line(self.audit(2, *images))
        for wrong in (["a.img", "a.img"], ["a.img", "S-1-5-18"], ["a.img", "S-1-5-21-1-2-3-500"], [PLANTED],
                      ["a.img", "--sid", "x"], ["a.img", "--sid", PLANTED, PLANTED]):
            self.assert_refused(self.audit(2, *wrong))
        # The letters are in SYSTEM; the other hives are found without.
        self.copy(self.image, "b.img")
        system = bytearray(self.contents(self.image, CONFIG + "SYSTEM"))
        system[4096] = ord("x")
        self.put(self.image, CONFIG + "SYSTEM", bytes(system))
        done = self.audit(2, "a.img", "b.img", PLANTED)
        self.assert_one_line(done)
        self.assertIn("\nnot everything could be looked at; in the rest nothing", done.out)


programs.main()
