#!/usr/bin/python
# SPDX-License-Identifier: GPL-2.0-or-later
"""Ansible module: the machine SID of a Windows system at rest, by quillet-offline and the JSON that it prints."""
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: quillet_identity
short_description: Give a Windows system at rest a machine SID of its own
description:
  - Runs C(quillet-offline) on the disks of one Windows system that is shut down, and gives it a new random machine SID.
  - A run changes the disks whole or not at all. One that was cut off while it wrote is put right first of all.
  - Runs on the host that has the disks, not in Windows.
options:
  image:
    description:
      - The disks of one system, image files or addresses that C(quillet-offline) takes, the system's own first.
      - Either this or I(device) is required.
    type: list
    elements: path
    aliases: [images]
  device:
    description: The same for block devices.
    type: list
    elements: path
    aliases: [devices]
  state:
    description:
      - C(renewed) runs quillet. Without I(unless_sid) each play makes one more identity.
      - C(undone) takes the latest run back, as long as nothing else changed what it wrote. Where there is nothing to
        take back, nothing is changed. Without I(unless_sid) each play takes one more run back.
    type: str
    choices: [renewed, undone]
    default: renewed
  unless_sid:
    description:
      - The machine SID of the golden image that the disks are copies of, or several, where there are several golden
        images. It is what makes a second play change nothing.
      - With I(state=renewed) nothing is done unless the system still has one of these SIDs. A system with any other SID
        has an identity of its own already.
      - With I(state=undone) nothing is done when the system has one of these SIDs, for then it has its old identity.
      - An empty list is as if nothing were given.
    type: list
    elements: str
    aliases: [golden_sid]
  format:
    description:
      - What the disks are; one word for all, or one for each.
      - Without it name and contents have to agree.
    type: list
    elements: str
    choices: [auto, raw, qcow2, vmdk, vhdx, vhd, vdi]
  options:
    description: Options of quillet itself; C(-f), C(-v) and those made of their letters. Only for I(state=renewed).
    type: list
    elements: str
    default: []
  computer_name:
    description:
      - The computer's new name. Only for I(state=renewed), and with a quillet-offline that has C(--computer-name).
      - It is given together with a new SID; a system that I(unless_sid) leaves alone keeps its name.
    type: str
  new_ids:
    description:
      - Which other ids of the machine are made anew, together with the SID. Only for I(state=renewed), and with a quillet-offline that has
        C(--new).
    type: list
    elements: str
    choices: [all, machine-guid, wsus-id, duid, telemetry-id]
  undo_file:
    description:
      - Where the undo file is kept, or with I(state=undone) which one is used. A file that is there is not replaced.
      - Without it, beside the first image.
    type: path
  keep_undo:
    description: Whether an undo file is kept. It holds pieces of the disk, secrets among them.
    type: bool
    default: true
  commit:
    description: Whether what a run did is written only when it ended with status 0 or whatever its status.
    type: str
    choices: [success, always]
  strict:
    description: Write nothing and fail when an object was passed over.
    type: bool
    default: false
  verify:
    description: Look at the disks again when all is written, and fail when something treated still holds the old SID.
    type: bool
    default: false
  report:
    description:
      - A file for a page of HTML on the run. One that is there is not replaced.
      - Written only when quillet runs, and not in check mode.
    type: path
  executable:
    description: The program, by its path or as it is found in C(PATH).
    type: str
    default: quillet-offline
attributes:
  check_mode:
    support: partial
    description:
      - Does the whole run without a change (C(quillet-offline plan)), and fails where the run would fail.
      - There is no plan of I(state=undone); it is skipped, unless I(unless_sid) tells that nothing is to be done.
  diff_mode:
    support: full
    description: Shows the old and the new SID. The new one is random, so check mode does not know it.
requirements:
  - quillet-offline
  - qemu-utils, for disks that are not raw
notes:
  - Disks that the system has in use are refused, and so are those of a system that was not shut down fully.
  - Ansible's C(environment) keyword sets what quillet-offline takes from there, such as C(QUILLET_JOURNAL).
author:
  - quillet's maintainers (@quillet)
"""

EXAMPLES = r"""
- name: Learn the golden image's SID
  ansible.builtin.command: quillet-offline info --json /srv/golden.img
  register: golden
  changed_when: false
  failed_when: not (golden.stdout | from_json).machineSid
  check_mode: false

- name: Give each copy an identity of its own; a second play changes nothing
  quillet_identity:
    image: "/srv/machines/{{ item }}.qcow2"
    unless_sid: "{{ (golden.stdout | from_json).machineSid }}"
    strict: true
    verify: true
  loop: [lab-1, lab-2, lab-3]

- name: One machine with two disks, and a page to hand over
  quillet_identity:
    image: [/srv/machines/system.img, /srv/machines/data.img]
    format: raw
    unless_sid: S-1-5-21-1111-2222-3333
    report: /srv/reports/machine.html

- name: Back to the golden image's identity
  quillet_identity:
    image: /srv/machines/lab-1.qcow2
    state: undone
    unless_sid: S-1-5-21-1111-2222-3333
"""

RETURN = r"""
result:
  description:
    - The object that quillet-offline printed, as docs/quillet-results.schema.json has it; of C(info) where nothing was
      to be done.
  returned: when it printed one
  type: dict
  sample: {command: run, exitStatus: 0, finished: true, needsAttention: false}
old_sid:
  description: The machine's SID before.
  returned: when it is known
  type: str
  sample: S-1-5-21-1111-2222-3333
new_sid:
  description: The machine's SID after. Not in check mode, for the run itself will make another.
  returned: when the identity changed
  type: str
  sample: S-1-5-21-4073520716-1273211230-2291058021
undo_file:
  description: What takes the run back.
  returned: when one was kept
  type: str
  sample: /srv/machines/lab-1.qcow2.quillet-undo
rc:
  description: The exit status of quillet-offline.
  returned: on failure
  type: int
  sample: 113
status:
  description: What quillet ended with, in full, and its Win32 name where it is known.
  returned: when quillet-offline tells it
  type: dict
  contains:
    number: {description: The status., type: int, sample: 1393}
    name: {description: Its name., type: str, sample: ERROR_DISK_CORRUPT}
msg:
  description: The line of quillet that says what is wrong and what to do; all that it wrote is in C(stderr_lines).
  returned: on failure
  type: str
  sample: >-
    /srv/lab-3.img: the boot sector of the disk is damaged, its backup copy is intact; restore it (ntfsfix, or chkdsk /f),
    then try again
stderr_lines:
  description: All lines that quillet wrote to standard error.
  returned: on failure
  type: list
  elements: str
"""

import json
import re

from ansible.module_utils.basic import AnsibleModule

CUT_OFF = ": an earlier run was cut off while it was committed;"


class Ended(object):
    """How one call of quillet-offline ended."""

    def __init__(self, rc, out, err):
        self.rc = rc
        self.lines = err.splitlines()
        try:
            self.result = json.loads(out)
        except ValueError:
            self.result = None

    def get(self, member):
        return self.result.get(member) if self.result else None

    @property
    def finished(self):
        return bool(self.get("finished"))

    @property
    def was_cut_off(self):
        return any(CUT_OFF in line for line in self.get("problems") or [])

    @property
    def passed_over(self):
        return len(self.get("passedOver") or []) + (self.get("passedOverMore") or 0)

    def problem(self):
        """The line that says why it failed."""
        problems = self.get("problems") or [re.sub(r"^quillet(-offline)?: ", "", line) for line in self.lines[-1:]]
        return problems[-1] if problems else "quillet-offline ended with status %d and said nothing" % self.rc


class Identity(object):
    """One system, and what the task wants of it."""

    def __init__(self, module):
        self.module = module
        self.wanted = module.params
        self.program = module.get_bin_path(self.wanted["executable"], required=True)
        # A name that begins with a dash is no option.
        self.disks = [re.sub(r"^-", "./-", disk) for disk in self.wanted["image"] or self.wanted["device"]]
        self.found = {}

    # ---- quillet-offline ----

    def call(self, command, *arguments, **after):
        """One call with --json; its result is the task's, until there is a later one."""
        line = [self.program, command, "--json"]
        if self.wanted["format"]:
            line += ["--format", ",".join(self.wanted["format"])]
        line += list(arguments) + self.disks + after.get("options", [])
        ended = Ended(*self.module.run_command(line, errors="surrogate_or_replace"))
        self.found.update(rc=ended.rc)
        for name, value in (("result", ended.result), ("status", ended.get("status"))):
            self.found.pop(name, None)
            if value is not None:
                self.found[name] = value
        return ended

    def given(self, *names):
        """Options of the same name as their parameters."""
        words = []
        for name in names:
            value = self.wanted[name]
            if value is True:
                words.append("--" + name)
            elif value not in (None, False):  # an empty one is refused by the program
                words += ["--" + name, value]
        return words

    def identity_options(self):
        words = []
        if self.wanted["computer_name"] is not None:
            words += ["--computer-name", self.wanted["computer_name"]]
        if self.wanted["new_ids"]:
            words += ["--new", ",".join(self.wanted["new_ids"])]
        return words

    def after_dashes(self):
        return ["--"] + self.wanted["options"] if self.wanted["options"] else []

    # ---- How the task ends ----

    def fail(self, ended, msg=None):
        self.module.fail_json(msg=msg or ended.problem(), stderr_lines=ended.lines, **self.found)

    def fail_unseen(self, seen):
        """Fails with what info said; a plan, which is refused for the same, tells the status of the run as well."""
        planned = self.call("plan", options=self.after_dashes())
        if planned.finished:
            self.found.update(result=seen.result, rc=seen.rc)
            self.found.pop("status", None)
        self.fail(seen if planned.finished else planned)

    def done(self, ended=None, planned=False):
        """The task's end, without a fault. Ansible would take the status of a call that has another than 0 for one."""
        self.found.pop("rc", None)
        if self.found.get("changed") and self.module._diff:
            self.found["diff"] = self.diff(planned)
        if ended and ended.passed_over:
            self.module.warn("%s: quillet passed %d objects over; result.passedOver names them" % (self.disks[0], ended.passed_over))
        self.module.exit_json(**self.found)

    def diff(self, planned):
        new = "one that the run will make" if planned else self.found.get("new_sid")
        rows = [("machine SID", self.found.get("old_sid"), new)]
        for one in self.found["result"].get("identity") or []:
            if one["action"] in ("replaced", "removed"):
                rows.append(("%s, %s\\%s" % (one["id"], one["key"], one["value"]), one["from"], one["to"]))
        text = ["".join("%s: %s\n" % (row[0], row[side] or "none") for row in rows) for side in (1, 2)]
        return dict(before=text[0], after=text[1], before_header=self.disks[0], after_header=self.disks[0])

    # ---- What is done ----

    def machine_sid(self):
        """The system's SID of now; None where it can't be seen."""
        seen = self.call("info")
        return seen, seen.get("machineSid")

    def machine_sid_mended(self):
        """The same; a run that was cut off is put right before, but not in check mode."""
        seen, sid = self.machine_sid()
        if not seen.was_cut_off or self.module.check_mode:
            return seen, sid
        mended = self.call("undo")
        if mended.rc != 0:
            self.fail(mended)
        return self.machine_sid()

    def renew(self):
        self.found["changed"] = False
        if self.wanted["unless_sid"]:
            seen, sid = self.machine_sid_mended()
            if sid is None:
                self.fail_unseen(seen)
            self.found["old_sid"] = sid
            if sid not in self.wanted["unless_sid"]:
                self.done()
        if self.module.check_mode:
            self.plan()
        self.run()

    def plan(self):
        ended = self.call("plan", *self.identity_options(), options=self.after_dashes())
        status = (ended.get("status") or {}).get("number")
        if not ended.finished or (status != 0 and self.wanted["commit"] != "always"):
            self.fail(ended)
        if self.wanted["strict"] and ended.passed_over:
            self.fail(ended, "%d objects would be passed over, and strict is set; result.passedOver names them" % ended.passed_over)
        if self.wanted["verify"] and ended.rc != 0:
            self.fail(ended, "the run would leave places that hold the old SID; result.counts has how many" if ended.rc == 1 else None)
        self.found.update(changed=True, old_sid=ended.get("oldSid"))
        self.done(ended, planned=True)

    def run(self):
        options = self.given("commit", "strict", "verify", "report") + self.identity_options()
        if self.wanted["undo_file"] is not None:
            options += ["--undo", self.wanted["undo_file"]]
        if not self.wanted["keep_undo"]:
            options.append("--no-undo")
        ended = self.call("run", *options, options=self.after_dashes())
        commit = ended.get("commit") or {}
        for name, value in (("old_sid", ended.get("oldSid")), ("new_sid", ended.get("newSid")), ("undo_file", commit.get("undoFile"))):
            if value:
                self.found[name] = value
        self.found["changed"] = commit.get("state") == "committed" and bool(ended.get("newSid"))
        if ended.rc != 0 or not ended.finished:
            self.fail(ended)
        self.done(ended)

    def undo(self):
        self.found["changed"] = False
        unless = self.wanted["unless_sid"]
        before = (self.machine_sid_mended() if unless else self.machine_sid())[1]
        if before:
            self.found["old_sid"] = before
        if unless and before in unless:
            self.done()
        if self.module.check_mode:
            self.module.exit_json(skipped=True, msg="there is no plan of an undo", **self.found)
        options = ["--undo", self.wanted["undo_file"]] if self.wanted["undo_file"] is not None else []
        ended = self.call("undo", *options)
        if ended.rc not in (0, 1) or not ended.finished:
            self.fail(ended)
        if (ended.get("takenBack") or {}).get("undoFile"):
            after = self.machine_sid()[1]
            self.found.update(changed=True, result=ended.result)
            if after:
                self.found["new_sid"] = after
        self.done()


def main():
    formats = ["auto", "raw", "qcow2", "vmdk", "vhdx", "vhd", "vdi"]
    module = AnsibleModule(
        argument_spec=dict(
            image=dict(type="list", elements="path", aliases=["images"]),
            device=dict(type="list", elements="path", aliases=["devices"]),
            state=dict(type="str", choices=["renewed", "undone"], default="renewed"),
            unless_sid=dict(type="list", elements="str", aliases=["golden_sid"]),
            format=dict(type="list", elements="str", choices=formats),
            options=dict(type="list", elements="str", default=[]),
            computer_name=dict(type="str"),
            new_ids=dict(type="list", elements="str", choices=["all", "machine-guid", "wsus-id", "duid", "telemetry-id"]),
            undo_file=dict(type="path"),
            keep_undo=dict(type="bool", default=True),
            commit=dict(type="str", choices=["success", "always"]),
            strict=dict(type="bool", default=False),
            verify=dict(type="bool", default=False),
            report=dict(type="path"),
            executable=dict(type="str", default="quillet-offline"),
        ),
        required_one_of=[("image", "device")],
        mutually_exclusive=[("image", "device")],
        supports_check_mode=True,
    )
    wanted = module.params
    if not (wanted["image"] or wanted["device"]):
        module.fail_json(msg="no disk is named; give image or device")
    for word in wanted["options"]:
        if not re.match(r"-[fv]+\Z", word):
            module.fail_json(msg="options: %r is none of -f and -v; for a dry run use check mode" % word)
    for sid in wanted["unless_sid"] or []:
        if not re.match(r"S-1-5-21(-\d{1,10}){3}\Z", sid):
            module.fail_json(msg="unless_sid: %r is no machine SID; it reads S-1-5-21-x-y-z" % sid)
    if wanted["strict"] and wanted["commit"]:
        module.fail_json(msg="strict and commit can't be given together")
    if wanted["undo_file"] and not wanted["keep_undo"]:
        module.fail_json(msg="undo_file and keep_undo: false can't be given together")
    identity = Identity(module)
    identity.undo() if wanted["state"] == "undone" else identity.renew()


if __name__ == "__main__":
    main()
