"""What the companion tells of its work: one schema for every command and every end."""
import json, os, unittest

import programs
from programs import ImageCase, OFFLINE, digest, run, sample

SCHEMA = os.path.join(programs.HERE, "..", "..", "docs", "quillet-results.schema.json")
KINDS = ("files", "keyDescriptors", "keyNames", "values")
try:
    import jsonschema
except ImportError:
    raise unittest.SkipTest("python3-jsonschema is not there")


class ResultsCase(ImageCase):
    with open(SCHEMA) as f: schema = jsonschema.Draft202012Validator(json.load(f))

    def setUp(self):
        super().setUp()
        self.image = self.copy(sample(), "a.img")

    def results(self, status, command, *arguments, **environment):
        """The one object that a command prints."""
        done = run(OFFLINE, command, "--json", *arguments, **environment)
        self.assertEqual(done.status, status, done.err)
        results = json.loads(done.out)
        self.schema.validate(results)
        self.assertEqual((results["command"], results["exitStatus"]), (command, status))
        for problem in results["problems"]: self.assertIn(problem.split("\n")[0], done.err)
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
                                 (2, "run", self.image, "--", "-q"), (123, "run", "--undo", self.image, self.image)):
            results = self.results(status, *command)
            self.assertTrue(results["needsAttention"], command)
            self.assertEqual(len(results["problems"]), 1, results["problems"])
            self.assertEqual(run(OFFLINE, command[0], "--json", *command[1:]).err.count("\n"), 1, command)
        self.assertEqual(digest(self.image), digest(sample()))

    def test_what_was_passed_over(self):
        checked = dict(QUILLET_ACCESS="checked")  # refuses some of the practice system's files and keys
        ran = self.results(5, "run", self.image, **checked)
        self.assertEqual((ran["commit"]["state"], ran["status"]), ("withheld", {"number": 5, "name": "ERROR_ACCESS_DENIED"}))
        self.assertEqual(self.counted(ran, "remaining"), self.counted(ran, "before"))
        self.assertTrue(ran["needsAttention"])
        refused = [one for one in ran["passedOver"] if one.get("name") in ("ERROR_ACCESS_DENIED", "STATUS_ACCESS_DENIED")]
        self.assertTrue(all(one["object"] and one["reason"] == "access was refused" for one in refused) and refused, ran["passedOver"])


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


programs.main()
