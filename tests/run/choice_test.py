# SPDX-License-Identifier: GPL-2.0-or-later
"""Which of several disks has the Windows that is worked on: never another than the one that was meant."""
import re, struct

import programs
from programs import ImageCase, digest, quillet, sample


class Choice(ImageCase):
    def test_a_volume_that_can_not_be_looked_through_is_not_passed_over(self):
        with open(sample(), "rb") as f: image = bytearray(f.read())
        cluster, = struct.unpack_from("<Q", image, 0x30)
        mft = cluster * image[0x0D] * 512
        name = re.compile(b"\x07[\0-\3]" + "Windows".encode("utf-16le"))
        record = next(at for at in range(mft + 24 * 1024, len(image), 1024)
                      if image[at:at + 4] == b"FILE" and name.search(image, at, at + 1024))
        image[record:record + 4] = b"BAAD"  # as a torn record is left
        image[72:80] = b"ANOTHER1"  # a serial number of its own: no clone of the other
        broken, other = self.write("broken.img", image), self.copy(sample(), "other.img")
        before = digest(other)
        done = quillet("-q", "-f", system=broken + ":" + other)
        self.assertNotEqual(done.status, 0)
        self.assertRegex(done.err, r"quillet: .*broken\.img: .*repair the volume")
        self.assertEqual(digest(other), before)

    def test_no_disk_at_all(self):
        for system in ":", "::":
            done = quillet("-q", system=system)
            self.assertNotEqual(done.status, 0)
            self.assertIn("quillet: QUILLET_SYSTEM names no disk; set it to", done.err)


programs.main()
