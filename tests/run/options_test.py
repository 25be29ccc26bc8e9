# SPDX-License-Identifier: GPL-2.0-or-later
"""Options, streams and exit statuses, and that neither help nor a wrong option needs a system."""
import unittest

import programs
from programs import quillet

USAGE = """Tarvane SID change tool
Usage:
  quillet -[f][r][s][d][q][v][h]
Options:
  -f       perform fast registry scan
  -b       reboot on completion
  -r       shutdown on completion
  -s       simulate dry run, do not change anything
  -q       quiet mode
  -v[v]    verbose mode
  -h       this help
"""


class Options(unittest.TestCase):
    def test_help_ends_at_once(self):
        for arguments in (["-h"], ["-vh"], ["-s", "-h"], ["-hz"], ["-h", "nonsense"], ["-", "-fbrsqvh"]):
            done = quillet(*arguments, system="/no/such/disk")
            self.assertEqual((done.status, done.out, done.err), (0, USAGE, ""), arguments)

    def test_an_invalid_argument_is_named_whole(self):
        for arguments, named in ((["-zh"], "-zh"), (["-d"], "-d"), (["-f", "file"], "file"), (["--"], "--"), ([""], ""),
                                 (["-sv-"], "-sv-"), (["-F"], "-F"), (["größe-漢字-😀"], "größe-漢字-😀"), (["-\t\x1b\x9b\u202e"], "-\t" + 3 * "\ufffd")):
            done = quillet(*arguments, system="/no/such/disk", LC_ALL="C")
            self.assertEqual((done.status, done.out), (255, USAGE), arguments)
            self.assertEqual(done.error_lines(), ["invalid option: " + named])

    def test_bytes_that_are_no_text_are_shown_as_such(self):
        done = quillet(b"-\xff\xfe".decode("utf-8", "surrogateescape"))
        self.assertEqual(done.error_lines()[0], "invalid option: -\ufffd\ufffd")


programs.main()
