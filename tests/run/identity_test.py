# SPDX-License-Identifier: GPL-2.0-or-later
"""Computer names and ids, changed together with the SID: all of it, in the registry and nowhere else, or nothing."""
import json, os, re, shutil, subprocess, unittest

import programs
from programs import CONFIG, OFFLINE, SystemCase, WITH_QEMU, digest, run, sample

NAME, TCPIP, TCPIP6 = "Control\\ComputerName\\ComputerName", "Services\\Tcpip\\Parameters", "Services\\TCPIP6\\Parameters"
CRYPTOGRAPHY, UPDATE = "Microsoft\\Cryptography", "Microsoft\\Windows\\CurrentVersion\\WindowsUpdate"
TELEMETRY = ("Microsoft\\SQMClient", "Wow6432Node\\Microsoft\\SQMClient")
GUID = "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"


@unittest.skipUnless(shutil.which("hivexget") and shutil.which("hivexsh"), "no libhivex-bin")
class IdentityCase(SystemCase):
    def values(self, image, hive, key):
        """A key's values as a program that is not ours reads them; those of a missing key are none."""
        file = self.write("read", self.contents(image, CONFIG + hive))
        said = subprocess.run(["hivexget", file, "\\" + key], capture_output=True, text=True).stdout
        return dict(re.findall(r'^"(.*?)"="?(.*?)"?$', said, re.M))

    def guids(self, image):
        return [self.values(image, "SOFTWARE", CRYPTOGRAPHY)["MachineGuid"]] + [self.values(image, "SOFTWARE", key)["MachineId"] for key in TELEMETRY]

    def json(self, command, *arguments):
        done = self.offline(command, "--json", *arguments)
        return done, json.loads(done.out)


class OneMachine(IdentityCase):
    def test_all_of_it_and_back(self):
        wish = ["--computer-name", "Web-01", "--new", "all"]
        plan, planned = self.json("plan", *wish, "a.img")
        self.assertEqual((plan.status, digest(self.image)), (0, digest(sample())), plan.err)
        done, ran = self.json("run", "--strict", "--verify", *wish, "a.img")
        self.assertEqual(done.status, 0, done.err)
        for control_set in ("ControlSet001\\", "ControlSet002\\"):
            self.assertEqual(self.values(self.image, "SYSTEM", control_set + NAME), {"ComputerName": "WEB-01"})
            self.assertEqual(self.values(self.image, "SYSTEM", control_set + TCPIP), {"NV Hostname": "Web-01", "Domain": "", "Hostname": "Web-01"})
            self.assertEqual(self.values(self.image, "SYSTEM", control_set + TCPIP6), {})
        self.assertEqual(self.values(self.image, "SOFTWARE", UPDATE), {})
        machine, telemetry, other = self.guids(self.image)
        self.assertRegex(machine, "^%s$" % GUID)
        self.assertRegex(telemetry, r"^\{%s\}$" % GUID.replace("a-f", "A-F").replace("89ab", "89AB"))
        self.assertEqual((telemetry, set(self.guids(self.image)) & set(self.guids(sample()))), (other, set()))
        self.assert_sound(self.image)
        self.assertEqual(len(ran["identity"]), 13)
        row = lambda changes, name: [change for change in changes if change["value"] == name][0]
        self.assertEqual((row(ran["identity"], "MachineGuid")["to"], row(planned["identity"], "MachineGuid")["to"]), (machine, None))
        self.assertEqual([row(ran["identity"], "Dhcpv6DUID")[member] for member in ("id", "from", "to", "action")], ["duid", "000100012A1B5C11525400123456", None, "removed"])
        hidden = [{**change, "to": None if change["id"].endswith("-guid") or change["id"].startswith("telemetry") else change["to"]} for change in ran["identity"]]
        self.assertEqual(hidden, planned["identity"])
        told = self.offline("run", *wish, "a.img").out
        self.assertIn('computer-name  SYSTEM\\ControlSet001\\%s "ComputerName": WEB-01 already, unchanged' % NAME, told)
        self.assertIn('duid  SYSTEM\\ControlSet001\\%s "Dhcpv6DUID": not there' % TCPIP6, told)
        self.assertRegex(told, 'machine-guid  SOFTWARE.*"MachineGuid": %s -> %s' % (machine, GUID))
        for _ in range(2): self.assertEqual(self.offline("undo", "a.img").status, 0)
        self.assertEqual(digest(self.image), digest(sample()))

    def test_a_run_that_is_not_committed_changes_no_name(self):
        checked = dict(QUILLET_ACCESS="checked")  # refuses some of the practice system's files, which ends with 5
        refused = run(OFFLINE, "run", "--json", "--computer-name", "web", self.image, **checked)
        self.assertEqual((refused.status, digest(self.image)), (5, digest(sample())))
        self.assertEqual({(one["action"], one["to"]) for one in json.loads(refused.out)["identity"]}, {("kept", None)})
        self.assertEqual(run(OFFLINE, "run", "--commit", "always", "--computer-name", "web", self.image, **checked).status, 5)
        self.assertEqual(self.values(self.image, "SYSTEM", "ControlSet001\\" + NAME), {"ComputerName": "WEB"})

    def test_what_can_not_be_changed_ends_the_run(self):
        for hive, key, values, wish, words in (
                ("SOFTWARE", CRYPTOGRAPHY, ["MachineGuid", "dword:1"], ["--new", "duid,machine-guid"], '"MachineGuid": it is no text'),
                ("SOFTWARE", CRYPTOGRAPHY, ["MachineGuid", "string:x"], ["--new", "all"], '"MachineGuid": it holds no GUID'),
                ("SYSTEM", "ControlSet002\\" + TCPIP, ["Hostname", "hex:3:00"], ["--computer-name", "web"], 'ControlSet002\\%s "Hostname": it is no text' % TCPIP),
                ("SYSTEM", "ControlSet001\\" + NAME, [], ["--computer-name", "web"], '"ComputerName": the system has no name there')):
            with self.subTest(words):
                self.copy(sample(), "a.img")
                self.edit_hive(self.image, CONFIG + hive, ["cd \\" + key, "setval %d" % (len(values) // 2), *values])
                for command in (["plan"], ["run"], ["run", "--commit", "always", "--json"]):
                    done = self.look(*command, *wish, "a.img")
                    self.assertEqual(done.status, 2)
                    self.assert_one_line(done, words)
                self.assertEqual([name for name in os.listdir(self.work) if "quillet" in name], [])


class Refused(IdentityCase):
    def test_what_is_no_name_or_no_id(self):
        rows = [(["--computer-name", name], words) for name, words in (
                    ("", "it is empty"), ("web_1", "no computer name has"), ("wéb", "no computer name has"), ("a" * 16, "16 characters; take 15"), ("-web", "hyphen"),
                    ("web-", "hyphen"), ("2026", "digits alone"), ("web-%d", "only clone"))]
        rows += [(["--new", ids], "is none of machine-guid") for ids in ("", "duid,", "sid", "computer-name", "duid machine-guid")]
        for wish, words in rows:
            for command in ("run", "plan"): self.assert_refused(self.look(command, *wish, "a.img"), words)
        for option in ("-vs", "-x", "v"): self.assert_refused(self.look("run", "--commit", "always", "--new", "all", "a.img", "--", option), "leave it out")
        for wish, words in [(["web"], "all 2 clones"), (["web%d%d"], "one %d"), (["web%s"], "one %d"), (["web%5d"], "one %d"), (["web%0d"], "one %d"), (["%"], "one %d"),
                            (["%04d"], "digits alone"), (["a-long-name-%04d"], "16 characters"), (["web-%d", "--first-number", "99999999", "--new", "no"], "none of"),
                            (["long-name-%d", "--first-number", "99999"], "15 at most"), (["web", "--first-number", "2"], "number"),
                            (["web-%d", "--first-number", "+010"], "decimal digits"), (["web-%d", "--first-number", "0xa"], "decimal digits")]:
            self.assert_refused(self.look("clone", "--computer-name", *wish, "a.img", "x.qcow2", "y.qcow2"), words)
        self.assertEqual(os.listdir(self.work), ["a.img"])


@WITH_QEMU
class Clones(IdentityCase):
    def test_each_has_a_name_and_ids_of_its_own(self):
        done = self.offline("clone", "--computer-name", "Web-%02d", "--first-number", "09", "--new", "all", "a.img", "x.qcow2", "y.qcow2", "z.qcow2")
        self.assertEqual((done.status, done.err), (0, ""))
        told, guids = {line.split()[0]: line.split()[-1] for line in done.out.splitlines()}, self.guids(self.image)[:2]
        self.assertEqual(told, {"x.qcow2": "Web-09", "y.qcow2": "Web-10", "z.qcow2": "Web-11"})
        for clone, name in told.items():
            raw = self.path("raw")
            subprocess.run(["qemu-img", "convert", "-O", "raw", self.path(clone), raw], check=True)
            self.assertEqual(self.values(raw, "SYSTEM", "ControlSet001\\" + NAME), {"ComputerName": name.upper()})
            self.assertEqual(self.values(raw, "SYSTEM", "ControlSet001\\" + TCPIP)["Hostname"], name)
            guids += self.guids(raw)[:2]
        self.assertEqual(len(set(guids)), 8)
        same = self.offline("clone", "--computer-name", "practice", "a.img", "same.qcow2")
        self.assertEqual((same.status, same.err), (0, "quillet-offline: same.qcow2: its name, practice, is the golden image's too\n"))


programs.main()
