# SPDX-License-Identifier: GPL-2.0-or-later
"""Practice installations with a SAM that is broken in some way: refused by one line, and nothing is written."""
import lzma, os

import programs
from programs import CONFIG, ImageCase, digest, need_shared, quillet, sample

CODES = {2, 1009, 1016, 1017}


class BrokenHives(ImageCase):
    def test_every_way_in_which_a_sam_can_be_broken(self):
        broken, = need_shared("hives/broken")
        for name in sorted(os.listdir(broken)):
            with self.subTest(name):
                image = self.copy(sample(), "broken.img")
                with lzma.open(os.path.join(broken, name)) as f: self.put(image, CONFIG + "SAM", f.read())
                if name.startswith("SAM_DUPENAME"):  # a sound hive, and a machine's SAM
                    self.assertEqual(quillet("-sq", system=image).status, 0)
                    continue
                before = digest(image)  # damaged, or sound but not a SAM
                done = quillet("-q", system=image)
                self.assertIn(done.status, {code & 0xFF for code in CODES}, done.err)
                said = [line for line in done.error_lines() if line.startswith("quillet: ") and "exit status" not in line]
                self.assertEqual(len(said), 1, done.err)
                self.assertRegex(said[0], r"SAM is (damaged|dirty|not)")
                self.assertEqual(digest(image), before)


programs.main()
