"""The Windows program needs nothing that a Windows system lacks. Left out where it has not been built."""
import os, shutil, subprocess, unittest

import programs

PROGRAM = os.path.join(programs.HERE, "..", "..", "build-windows", "quillet.exe")
EVERY_WINDOWS = {"advapi32.dll", "kernel32.dll", "msvcrt.dll", "ntdll.dll", "rpcrt4.dll"}


class Imports(unittest.TestCase):
    def test_only_libraries_of_every_windows(self):
        reader = shutil.which("x86_64-w64-mingw32-objdump")
        if not reader or not os.path.exists(PROGRAM): self.skipTest("build-windows/quillet.exe is not there")
        said = subprocess.run([reader, "-p", PROGRAM], check=True, capture_output=True, text=True).stdout
        self.assertIn("pei-x86-64", said)
        imported = {line.split()[-1].lower() for line in said.splitlines() if "DLL Name:" in line}
        self.assertIn("ntdll.dll", imported)
        self.assertLessEqual(imported, EVERY_WINDOWS)


programs.main()
