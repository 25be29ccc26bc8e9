/* SPDX-License-Identifier: GPL-2.0-or-later */
/* What the help says below the options: of the program, then of each command. */
#ifndef QUILLET_COMPANION_COMMAND_HELP_H
#define QUILLET_COMPANION_COMMAND_HELP_H

namespace companion {

constexpr char programHelp[] =
    "Examples:\n"
    "  quillet-offline sample practice.img            a practice installation, to try things on\n"
    "  quillet-offline info practice.img              what is on it\n"
    "  quillet-offline plan practice.img              what quillet would change on it\n"
    "  quillet-offline run practice.img               quillet on it\n"
    "  quillet-offline undo practice.img              everything as it was before\n"
    "\n"
    "\"quillet-offline COMMAND --help\" tells more about a command.";

constexpr char sampleHelp[] =
    "The image is an NTFS volume with the registry, profiles and files of a small Windows installation that\n"
    "name the accounts of one machine in many ways; nothing on it can be started. Needs the program mkntfs\n"
    "(package ntfs-3g). Prints the image, the machine's SID, and how many files and directories there are.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline sample practice.img\n"
    "  quillet-offline sample disk.img --whole-disk gpt --size 256M --files 5000\n"
    "  quillet-offline sample same.img --machine S-1-5-21-1111-2222-3333 --force";

constexpr char infoHelp[] =
    "Shows the disks, the volumes with their drive letters, the Windows installation, its machine SID and\n"
    "the state of its registry hives. Nothing is written. What is wrong goes to standard error, a line "
    "each.\n"
    "A hive that is \"logged\" has its last changes in its log files, from where they are read. A user's "
    "hive\n"
    "that is damaged or dirty is named; a run passes it over.\n"
    "The exit status is 0 for a system that quillet can work on, else 2.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline info practice.img\n"
    "  quillet-offline info system.img data.img       one machine with two disks\n"
    "  quillet-offline info --json practice.img       for programs";

constexpr char auditHelp[] =
    "Usage: quillet-offline audit [OPTIONS] IMAGE... [SID]\n"
    "\n"
    "Looks for a machine's SID, and for those of its accounts, in the security descriptors of files and "
    "keys,\n"
    "in names of keys and in values, and counts what quillet would rewrite and what it leaves alone by "
    "design.\n"
    "Nothing is written. SID is the machine's of the installation when none is given; after a run of "
    "quillet,\n"
    "give the one from before. What can't be looked at goes to standard error, a line each. The exit status "
    "is\n"
    "0 when nothing that quillet treats holds the SID, 1 when something does, 2 when not all could be seen.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline audit practice.img\n"
    "  quillet-offline audit practice.img S-1-5-21-1111-2222-3333\n"
    "  quillet-offline audit --report disk.html practice.img\n"
    "  quillet-offline audit --all system.img data.img       every place, on one machine with two disks";

constexpr char planHelp[] =
    "Usage: quillet-offline plan [OPTIONS] IMAGE... -- [quillet's options]\n"
    "\n"
    "The whole run of quillet, with whatever stands after \"--\", but nothing of it is written; then what "
    "it\n"
    "would change, by kind, and what it would leave alone and why. Works on a disk that can only be read.\n"
    "The new SID is not shown, for the run itself will make another. The exit status is the run's, 1 when "
    "the\n"
    "run would succeed but leave something that quillet treats, and 2 when not all could be seen.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline plan practice.img\n"
    "  quillet-offline plan --report plan.html disk.img\n"
    "  quillet-offline plan -v system.img data.img    every place, on one machine with two disks";

constexpr char runHelp[] =
    "Usage: quillet-offline run [OPTIONS] IMAGE... -- [quillet's options]\n"
    "\n"
    "Everything after \"--\" is passed to quillet; \"quillet -h\" tells its options. The exit status is\n"
    "quillet's. What the run changes is written at its end, all of it or nothing, and only when the run\n"
    "succeeded (status 0) unless --commit always is given. The undo file is kept beside the first image as\n"
    "IMAGE.quillet-undo, with a number when there is one already; \"quillet-offline undo\" takes the run "
    "back.\n"
    "--strict is for all or nothing with nothing passed over: where quillet names an object that it could "
    "not\n"
    "treat, nothing is written, and the exit status is 3 although the run's was 0. --verify reads the disks\n"
    "again when all is written; where something that quillet treats still holds the old SID the exit status "
    "is\n1 although the run's was 0, and 2 where not all could be looked at.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline run practice.img -- -s         tells what would change; writes a new server GUID "
    "alone\n"
    "  quillet-offline run system.img data.img        one machine with two disks\n"
    "  quillet-offline run --strict --verify --report run.html system.img\n"
    "  quillet-offline run --computer-name web-7 --new all system.img\n"
    "  quillet-offline run --undo /safe/undo system.img";

constexpr char cloneHelp[] =
    "Usage: quillet-offline clone [OPTIONS] GOLDEN NEW... -- [quillet's options]\n"
    "\n"
    "Each NEW is a qcow2 image over GOLDEN, which is only read and must not change as long as it has "
    "clones,\n"
    "with a run of quillet on it: a machine SID of its own, and on its disk only what that changed. A clone "
    "has\n"
    "its name when it is whole. Prints for each the file, the new SID, the time and the file's size, and "
    "the\n"
    "computer's name where one is given: for several clones with a number, counted from --first-number on.\n"
    "After\n"
    "\"--\" -f and -v may stand. The exit status is 0 when all were made, else 2; the others are made all "
    "the\n"
    "same when one fails.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline clone golden.qcow2 alice.qcow2\n"
    "  quillet-offline clone --computer-name web-%02d --new all golden.img a.qcow2 b.qcow2\n"
    "  quillet-offline clone --jobs 4 golden.img lab-1.qcow2 lab-2.qcow2 lab-3.qcow2";

constexpr char undoHelp[] =
    "Takes the latest run on the images back: every byte is again what it was before. Refused when anything\n"
    "of what the run wrote was changed since, as by a start of the system. A run that was cut off while it "
    "was\n"
    "written (power, a kill) is put right in the same way. Name all disks of the run. The exit status is 0\n"
    "when something was taken back, 1 when there is nothing to take back, 2 when it is refused or failed.\n"
    "\n"
    "Examples:\n"
    "  quillet-offline undo practice.img\n"
    "  quillet-offline undo --undo /safe/undo system.img";

} /* namespace companion */

#endif
