# SPDX-License-Identifier: GPL-2.0-or-later
"""The hives of users who are not logged on: what the profile list can say of them, in one run."""
import programs
from programs import CONFIG, ImageCase, quillet, sample

SOFTWARE = CONFIG + "SOFTWARE"
LIST = r"Software\Microsoft\Windows NT\CurrentVersion\ProfileList"
LONG = r"C:\Users" + r"\0123456789" * 22  # 250 characters; with the file name 261
FULL = "C:\\Users\\" + "x" * 247 + ".dat"  # 260, the longest there can be

# The profile's key, the type and text of its path, and the line on standard error: none where the hive is
# treated, or passed over because it is in use. In the order in which keys enumerate.
PROFILES = [
    ("S-1-1", "expandstring", r"%SystemDrive%\Users\alice", ""),
    ("S-1-2", "string", r"%SystemRoot%\..\none", r"RegLoadKey(User.S-1-2, C:\Windows\..\none\ntuser.dat) failed with code 3"),
    ("S-1-3", "string", r"%SystemDrive%\Users\bob", ""),
    ("S-1-4", "hex:1", ",".join("%02x" % b for b in FULL.encode("utf-16le")), ""),  # without its end
    ("S-1-5", None, "", r"RegQueryValueEx(%s\S-1-5) failed with code 2" % LIST),
    ("S-1-6", "hex:3", "01,02", "Unexpected type of image path (3) for S-1-6"),
    ("S-1-7", "string", LONG + r"\012345678", r"RegQueryValueEx(%s\S-1-7) failed with code 234" % LIST),  # 260
    ("S-1-8", "string", LONG, "RegLoadKey(User.S-1-8, %s) failed with code 3" % (LONG + r"\ntuser.dat")[:260]),
    ("S-1-9", "string", r"C:\Windows\ServiceProfiles\LocalService", ""),  # mounted as S-1-5-19
    ("S-2-1", "string", r"C:\Users\text.dat", r"RegLoadKey(User.S-2-1, C:\Users\text.dat) failed with code 1017"),
    ("S-2-2", "string", r"C:\Users\torn.dat", r"RegLoadKey(User.S-2-2, C:\Users\torn.dat) failed with code 1009"),
    ("S-2-3", "string", r"C:\Users\gone", r"RegLoadKey(User.S-2-3, C:\Users\gone\ntuser.dat) failed with code 3"),
]
TREATED = [("S-1-1", r"C:\Users\alice\ntuser.dat"), ("S-1-3", r"C:\Users\bob\ntuser.dat"), ("S-1-4", FULL)]


class Profiles(ImageCase):
    def system(self):
        image = self.copy(sample(), "profiles.img")
        lines, at = [], r"\Microsoft\Windows NT\CurrentVersion\ProfileList"
        for old in self.edit_hive(image, SOFTWARE, ["cd " + at, "ls"]).split():
            if not old.startswith("S-1-5-21-") and old != "S-1-5-18": continue
            lines += ["cd %s\\%s" % (at, old), "del"]
        for name, kind, text, _ in PROFILES:
            lines += ["cd " + at, "add " + name, "cd " + name]
            if kind: lines += ["setval 1", "ProfileImagePath", kind + ":" + text]
        self.edit_hive(image, SOFTWARE, lines)
        user = self.contents(image, "Users/bob/NTUSER.DAT")
        for name, data in ((FULL[9:-4], user), ("text", b"no hive\n" * 1000), ("torn", user[:4096] + user[8192:12288] + user[8192:])):
            self.put(image, "Users/%s.dat" % name, data)
        return image

    def test_each_kind_of_path(self):
        image = self.system()
        for options in ("-s", "-sq", "-"):
            done = quillet(options, system=image)
            self.assertEqual(done.status, 0)
            self.assertEqual(done.error_lines(), [line for *_, line in PROFILES if line])
            said = [line for line in done.out.splitlines() if "profile hive" in line or "User." in line]
            loaded = [("loaded profile hive User.%s <- %s" % p, "updating SIDs in User.%s ..." % p[0]) for p in TREATED]
            self.assertEqual(said, [] if "q" in options else [line for pair in loaded for line in pair])


programs.main()
