# SPDX-License-Identifier: GPL-2.0-or-later
"""What the companion tells of its work: one schema for every command and every end."""
import html.parser, json, os, re, shutil, sys

import programs
from programs import CONFIG, OFFLINE, SystemCase, digest, run, sample

SCHEMA = os.path.join(programs.HERE, "..", "..", "docs", "quillet-results.schema.json")
KINDS = ("files", "keyDescriptors", "keyNames", "values")
try:
    import jsonschema
except ImportError:
    print("all tests skipped: python3-jsonschema is not there")
    sys.exit()


class ResultsCase(SystemCase):
    with open(SCHEMA) as f: schema = jsonschema.Draft202012Validator(json.load(f))

    def results(self, status, command, *arguments, **environment):
        """The one object that a command prints."""
        done = run(OFFLINE, command, "--json", *arguments, **environment)
        self.assertEqual(done.status, status, done.err)
        results = json.loads(done.out)
        self.schema.validate(results)
        self.assertEqual((results["command"], results["exitStatus"]), (command, status))
        for problem in results["problems"]: self.assertIn(problem.split("\n")[0], done.err)
        self.error_lines = done.error_lines()
        return results

    def counted(self, results, member): return [results["counts"][kind][member] for kind in KINDS]


class Json(ResultsCase):
    def test_a_system_from_first_to_last(self):
        self.assertTrue(self.results(0, "info", self.image)["usable"])
        first = self.results(1, "audit", "--all", self.image)
        plan = self.results(0, "plan", "-v", self.image)
        ran = self.results(0, "run", self.image)
        after = self.results(0, "audit", self.image, ran["oldSid"])
        for one in (plan, ran):
            self.assertEqual(self.counted(one, "changed"), self.counted(first, "before"))
            self.assertEqual(self.counted(one, "remaining"), [0] * 4)
            self.assertEqual(one["leftByReason"], first["leftByReason"])
            self.assertEqual((one["needsAttention"], one["passedOver"]), (False, []))
            self.assertIn("S-1-5-18", one["explained"][0]["line"])
        self.assertEqual([(p["kind"], p["path"]) for p in plan["places"]], [(p["kind"], p["path"]) for p in first["places"]])
        self.assertEqual({p["state"] for p in plan["places"]}, {"changed", "stays"})
        self.assertEqual(self.counted(after, "changed"), self.counted(ran, "changed"))
        self.assertEqual((after["newSid"], plan["newSid"]), (ran["newSid"], None))
        self.assertNotIn("User.S-1-5-21-", str(plan["steps"]))  # nobody will have the SID that a plan made
        self.assertIn("S-1-5-21-1-2-3", [other["sid"] for other in ran["otherMachines"]])
        self.assertEqual(ran["otherMachines"], after["otherMachines"])
        self.assertEqual((ran["commit"]["state"], os.path.exists(ran["commit"]["undoFile"])), ("committed", True))
        undone = self.results(0, "undo", self.image)["takenBack"]
        self.assertEqual((undone["bytes"], undone["undoFile"]), (ran["commit"]["bytes"], ran["commit"]["undoFile"]))
        self.assertEqual(digest(self.image), digest(sample()))
        self.assertTrue(self.results(1, "undo", self.image)["needsAttention"])

    def test_each_failure_is_an_object_and_a_line(self):
        missing = self.path('no\n"such"\x9b')
        for status, *command in ((2, "info", missing), (2, "audit", missing), (2, "plan", missing), (2, "run", missing), (2, "undo", missing),
                                 (2, "plan", self.image, "--no-such"), (2, "run", self.image, self.image, "--commit", "never"),
                                 (2, "audit", self.image, "S-1-5-18"), (87, "run", self.image, self.image), (255, "run", self.image, "--", "-z"),
                                 (2, "run", self.image, "--", "-q"), (2, "run", "--computer-name", "2026", self.image), (123, "run", "--undo", self.image, self.image)):
            results = self.results(status, *command)
            self.assertTrue(results["needsAttention"], command)
            self.assertEqual((len(results["problems"]), len(self.error_lines)), (1, 1), self.error_lines)
        self.assertEqual(run(OFFLINE, "run", missing).err.count("\n"), 1)
        damaged = self.copy(sample(), "damaged.img")
        with open(damaged, "r+b") as f: f.write(bytes(65536))
        self.assertEqual([self.results(113, command, damaged)["status"]["name"] for command in ("plan", "run")], ["ERROR_DISK_CORRUPT"] * 2)
        self.assertEqual(digest(self.image), digest(sample()))

    def test_what_was_passed_over(self):
        checked = dict(QUILLET_ACCESS="checked")  # refuses some of the practice system's files and keys
        ran = self.results(5, "run", self.image, **checked)
        self.assertEqual((ran["commit"]["state"], ran["status"]), ("withheld", {"number": 5, "name": "ERROR_ACCESS_DENIED"}))
        dry = self.results(0, "run", self.image, "--", "-s")
        for one in (ran, dry):  # of neither anything is left but the server GUID
            self.assertEqual(self.counted(one, "remaining"), self.counted(one, "before"))
            self.assertEqual((one["newSid"], one["needsAttention"], sum(self.counted(one, "changed"))), (None, True, 0))
        refused = [one for one in ran["passedOver"] if one.get("name") in ("ERROR_ACCESS_DENIED", "STATUS_ACCESS_DENIED")]
        self.assertTrue(all(one["object"] and one["reason"] == "access was refused" for one in refused) and refused, ran["passedOver"])


class Clones(ResultsCase):
    def test_one_object_for_all_of_a_call(self):
        if not (shutil.which("qemu-img") and shutil.which("qemu-nbd")): self.skipTest("no qemu-utils")
        names = [self.path(name + ".qcow2") for name in "abc"]
        os.mkdir(names[1] + ".quillet-part")
        told = self.results(2, "clone", "--computer-name", "web-%d", "--new", "wsus-id,telemetry-id", self.image, *names)
        self.assertEqual((told["golden"], told["images"], told["needsAttention"]), ({"path": self.image, "format": "raw"}, [self.image], True))
        first, failed, last = told["clones"]
        self.assertEqual([clone["file"] for clone in told["clones"]], names)
        self.assertEqual([clone["computerName"] for clone in told["clones"]], ["web-1", "web-2", "web-3"])
        self.assertEqual((failed["made"], failed["newSid"], failed["status"], failed["problems"]), (False, None, None, told["problems"]))
        for clone in (first, last):
            self.assertEqual((clone["made"], clone["status"], clone["bytes"]), (True, {"number": 0, "name": "ERROR_SUCCESS"}, os.path.getsize(clone["file"])))
            self.assertEqual(self.results(0, "info", clone["file"])["machineSid"], clone["newSid"])
            self.assertEqual(clone["oldSid"], programs.MACHINE)
            self.assertEqual([(one["from"], one["to"]) for one in clone["identity"] if one["value"] == "ComputerName"], [("PRACTICE", clone["computerName"].upper())] * 2)
            self.assertEqual({one["id"] for one in clone["identity"]}, {"computer-name", "wsus-id", "telemetry-id"})
        again = self.results(0, "clone", self.image, self.path("d.qcow2"))
        self.assertEqual((again["needsAttention"], again["clones"][0]["identity"]), (False, []))
        refused = self.results(5, "run", self.image, QUILLET_ACCESS="checked")["passedOver"]
        strange = self.results(2, "clone", self.image, self.path("e.qcow2"), QUILLET_ACCESS="checked")["clones"][0]
        self.assertEqual((strange["made"], strange["status"]["number"], strange["passedOver"]), (False, 5, refused))
        refused = self.results(2, "clone", self.write("empty", bytes(1 << 20)), self.path("f.qcow2"))
        self.assertEqual((refused["finished"], refused["clones"][0]["made"], len(refused["problems"])), (False, False, 1))


class StrictAndVerify(ResultsCase):
    def test_what_remains_is_told_by_the_status(self):
        for options, status, said in (([], 0, "verified: "), (["-f"], 1, " that quillet treats still hold S-1-5-21-")):
            done = run(OFFLINE, "run", "--verify", self.image, "--", *options)
            self.assertEqual(done.status, status, done.err)
            self.assertIn(said, done.out + done.err)
            self.assertEqual(run(OFFLINE, "undo", self.image).status, 0)
        self.assertTrue(self.results(1, "run", "--verify", self.image, "--", "-f")["needsAttention"])

    def test_strict_keeps_nothing_where_something_was_passed_over(self):
        self.assertEqual(run(OFFLINE, "run", "--strict", "--no-undo", self.image).status, 0)
        hive = bytearray(self.contents(self.image, "Users/bob/NTUSER.DAT"))
        hive[:4] = b"torn"
        self.put(self.image, "Users/bob/NTUSER.DAT", hive)
        before = digest(self.image)
        done = run(OFFLINE, "run", "--strict", self.image)
        self.assertEqual((done.status, digest(self.image)), (3, before))
        self.assertRegex(done.error_lines()[-1], "^quillet: 1 object was passed over, and --strict was given, so nothing was committed")
        results = self.results(3, "run", "--strict", "--verify", self.image)
        self.assertEqual((results["commit"]["state"], results["status"]["number"], digest(self.image)), ("withheld", 0, before))
        self.assertEqual([(one["as"], one["name"]) for one in results["passedOver"]], [("profile", "ERROR_NOT_REGISTRY_FILE")])
        self.assertEqual(run(OFFLINE, "run", "--verify", self.image).status, 2)  # not all could be looked at


class Page(html.parser.HTMLParser):
    """What a browser would make of a report: its text, and whatever could act."""

    def __init__(self, page):
        super().__init__()
        self.text, self.acting, self.stack, self.tags = "", [], [], set()
        self.feed(page)
        self.close()

    def handle_starttag(self, tag, attributes):
        self.tags.add(tag)
        if tag not in ("meta", "input", "br", "rect"): self.stack.append(tag)
        self.acting += [(tag, name) for name, value in attributes if name.startswith("on") or name in ("src", "href", "style", "action")]
        if tag in ("script", "style"): self.acting.append((tag, dict(attributes).get("nonce")))

    handle_startendtag = handle_starttag

    def handle_endtag(self, tag): assert self.stack.pop() == tag, tag

    def handle_data(self, data): self.text += data


class Report(ResultsCase):
    HOSTILE = ("</pre><script>alert(1)</script>", "\" onload='x' &lt;&#60;", "bell\u0007 esc\u009b turn\u202e line\u2028", "<!-- ]]>", "x" * 4000)

    def plant(self):
        """Values of these names, which hold the SID."""
        values = [line for name in self.HOSTILE for line in (name, "string:%s-1000" % programs.MACHINE)]
        self.edit_hive(self.image, CONFIG + "SOFTWARE", ["cd \\Practice", "setval %d" % len(self.HOSTILE), *values])

    def assert_harmless(self, file):
        with open(file, encoding="utf-8") as f: text = f.read()
        page = Page(text)
        self.assertEqual(page.stack, [])
        nonce, = {what for tag, what in page.acting if tag in ("script", "style")}
        self.assertRegex(text, "default-src 'none'; style-src 'nonce-%s'; script-src 'nonce-%s'" % (nonce, nonce))
        self.assertEqual(sorted(page.acting), [("script", nonce), ("style", nonce)])
        self.assertLessEqual(page.tags, set("html head meta title style script body main header p h1 h2 h3 span section dl dt dd ul li table tr th td "
                                            "svg rect div label input details summary pre code br b footer".split()))
        self.assertIsNone(re.search("[\0-\x08\x0b-\x1f\x7f-\x9f\u200e\u200f\u2028-\u202e\u2066-\u2069]", text))
        return page.text

    def test_nothing_from_a_disk_acts(self):
        self.plant()
        image = self.copy(self.image, "\"><script>x\u202e.img")
        for command, *options in (["audit"], ["plan"], ["run", "--no-undo"]):
            file = self.path(command + ".html")
            listed = self.results(1 if command == "audit" else 0, command, "--report", file, *options, image)
            text = self.assert_harmless(file)
            for name in self.HOSTILE[:2] + ("bell<U+0007> esc<U+009B> turn<U+202E> line<U+2028>", "<!-- ]]>", "bytes left out ...]", "\"><script>x<U+202E>.img"):
                self.assertIn(name, text)
            self.assertIn(listed["oldSid"], text)
            for kind in KINDS: self.assertIn("{:,}".format(listed["counts"][kind]["before"]), text)

    def test_a_place_that_can_not_be_had_is_refused_before_the_work(self):
        taken = self.write("taken.html", b"mine")
        for file in (taken, self.path("none/report.html"), self.work, "", self.image + ".quillet-journal"):
            for command in ("audit", "plan", "run"):
                done = run(OFFLINE, command, "--report", file, self.image)
                self.assertEqual((done.status, done.out, len(done.error_lines()), digest(self.image)), (2, "", 1, digest(sample())), done.err)
        with open(taken, "rb") as f: self.assertEqual(f.read(), b"mine")
        for command, *wrong in (["run", self.path("missing")], ["run", "--undo", self.path("./gone.html"), self.image], ["plan", self.image, "--", "-q"], ["audit", taken]):
            self.assertNotEqual(run(OFFLINE, command, "--report", self.path("gone.html"), *wrong).status, 0)
        self.assertEqual(sorted(os.listdir(self.work)), ["a.img", "taken.html"])


programs.main()
