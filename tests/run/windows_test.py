# SPDX-License-Identifier: GPL-2.0-or-later
"""The Windows program: it needs nothing that a Windows system lacks, and run under Wine it treats a registry as it
should. Left out where it has not been built, or where Wine is not there."""
import os, re, shutil, struct, subprocess, unittest

import programs
from programs import ImageCase, PAIR

PROGRAM = os.path.join(programs.HERE, "..", "..", "build-windows", "quillet.exe")
DRIVER_HEADERS = "/usr/x86_64-w64-mingw32/include/ddk"
# What Windows 7 has of each module, as far as the program takes anything from there. Only what it has may be added.
WINDOWS_7 = {
    "advapi32.dll": """AdjustTokenPrivileges ConvertSidToStringSidA ConvertSidToStringSidW GetAce GetAclInformation
        GetFileSecurityW GetSecurityDescriptorDacl GetSecurityDescriptorGroup GetSecurityDescriptorOwner
        GetSecurityDescriptorSacl GetTokenInformation InitializeSecurityDescriptor InitiateSystemShutdownW
        LookupPrivilegeValueW OpenProcessToken RegCloseKey RegEnumKeyExW RegGetKeySecurity RegLoadKeyW RegOpenKeyExW
        RegQueryValueExW RegSetKeySecurity RegSetValueExW RegUnLoadKeyW SetFileSecurityW SetNamedSecurityInfoW
        SetSecurityDescriptorDacl SetSecurityDescriptorOwner""",
    "kernel32.dll": """CloseHandle CreateFileW DeleteCriticalSection EnterCriticalSection ExpandEnvironmentStringsW
        FindClose FindFirstFileW FindNextFileW FlushFileBuffers GetConsoleOutputCP GetCurrentProcess GetDriveTypeW
        GetFileAttributesW GetLastError GetStartupInfoW GetStdHandle InitializeCriticalSection LeaveCriticalSection
        LocalFree SetConsoleCtrlHandler SetConsoleOutputCP SetUnhandledExceptionFilter Sleep TlsGetValue VirtualProtect
        VirtualQuery WriteFile __C_specific_handler""",
    "msvcrt.dll": """__iob_func __set_app_type __setusermatherr __wgetmainargs __winitenv _amsg_exit _cexit _commode _fmode
        _initterm _onexit _wcmdln abort calloc exit fprintf free fwrite malloc memchr memcmp memcpy realloc setvbuf signal
        strchr strlen strncmp vfprintf""",
    "ntdll.dll": """RtlAppendUnicodeStringToString RtlInitUnicodeString RtlNtStatusToDosError ZwClose ZwCreateKey
        ZwDeleteKey ZwEnumerateKey ZwEnumerateValueKey ZwFlushKey ZwOpenKey ZwQueryKey ZwQueryValueKey ZwSetValueKey
        ZwShutdownSystem""",
    "rpcrt4.dll": "UuidCreate"}


class Program(unittest.TestCase):
    def setUp(self):
        reader = shutil.which("x86_64-w64-mingw32-objdump")
        if not reader or not os.path.exists(PROGRAM): self.skipTest("build-windows/quillet.exe is not there")
        self.said = subprocess.run([reader, "-p", PROGRAM], check=True, capture_output=True, text=True).stdout
        self.assertIn("pei-x86-64", self.said)

    def test_it_takes_only_what_windows_7_has(self):
        modules = re.findall(r"^\tDLL Name: (\S+)\n(.*?)^$", self.said, re.M | re.S)
        self.assertIn("ntdll.dll", [module.lower() for module, _ in modules])
        for module, rows in modules:
            taken = set(re.findall(r"^\t[0-9a-f]+\t +\d+  (\S+)", rows, re.M))
            self.assertEqual(len(taken), rows.count("\n") - 1, rows)  # each is by name
            self.assertLessEqual(taken, set(WINDOWS_7.get(module.lower(), "").split()), module)

    def test_it_says_what_it_is(self):
        for guard in ("HIGH_ENTROPY_VA", "DYNAMIC_BASE", "NX_COMPAT"): self.assertIn(guard, self.said)
        version = programs.run(programs.OFFLINE, "--version").out.split()[1]
        with open(PROGRAM, "rb") as f: data = f.read()
        for name in ("FileVersion", "ProductVersion"):
            self.assertIn(name.encode("utf-16le") + bytes(2), data)
            at = data.index(name.encode("utf-16le")) + 2 * len(name) + 2
            self.assertEqual(data[at:at + 40].decode("utf-16le", "replace").lstrip("\0").split("\0")[0], version)
        manifest = data[data.index(b"<assembly"):data.index(b"</assembly>")]
        self.assertIn(b'level="asInvoker"', manifest)
        self.assertEqual(manifest.count(b"<supportedOS"), 4)


class Declarations(ImageCase):
    def test_what_is_ours_to_declare_agrees_with_the_headers_for_drivers(self):
        """Those can't be used in a program. One call and one record are not in the compiler's copy of them."""
        compiler = shutil.which("x86_64-w64-mingw32-gcc")
        if not compiler or not os.path.isdir(DRIVER_HEADERS): self.skipTest("the cross-compiler is not there")
        with open(os.path.join(programs.HERE, "..", "..", "platform", "nt_native.h")) as f: ours = f.read()
        checks = ["#include <ntifs.h>", "#include <stddef.h>"]
        for name, arguments in re.findall(r"NTSYSAPI NTSTATUS NTAPI (\w+)\(([^)]*)\);", ours):
            if name == "ZwShutdownSystem": continue
            types = ", ".join(re.sub(r"\s*\w+$", "", argument.strip()) for argument in arguments.split(","))
            checks.append("_Static_assert(__builtin_types_compatible_p(__typeof__(%s), NTSTATUS NTAPI(%s)), \"\");" % (name, types))
        for name, fields in re.findall(r"struct _(KEY_\w+_INFORMATION) \{(.*?)\}", ours, re.S):
            if name == "KEY_FLAGS_INFORMATION": continue
            at = 0
            for kind, field, many in re.findall(r"(\w+) (\w+)(\[1\])?;", fields):
                checks.append("_Static_assert(offsetof(%s, %s) == %d, \"\");" % (name, field, at))
                at += {"LARGE_INTEGER": 8, "ULONG": 4, "WCHAR": 2, "UCHAR": 1}[kind]
        for constant, number in re.findall(r"(Key\w+) = (\d+)", ours): checks.append("_Static_assert(%s == %s, \"\");" % (constant, number))
        self.assertGreater(len(checks), 30)
        said = subprocess.run([compiler, "-std=gnu11", "-w", "-I", DRIVER_HEADERS, "-fsyntax-only", "-x", "c", "-"], input="\n".join(checks), capture_output=True, text=True)
        self.assertEqual((said.returncode, said.stderr), (0, ""))


OLD = "S-1-5-21-1111-2222-3333"
SZ, EXPAND, BINARY, MULTI = 1, 2, 3, 7


def image(sid):
    numbers = [int(n) for n in sid.split("-")[3:]]
    return struct.pack("<BB6s%dI" % len(numbers), 1, len(numbers), b"\0\0\0\0\0\5", *numbers)


def text(*strings): return "".join(s + "\0" for s in strings).encode("utf-16le")


def registry(sid):
    """Keys below HKEY_LOCAL_MACHINE and their values, of a machine with this SID."""
    user, account = image(sid + "-1000"), bytearray(48)
    struct.pack_into("<II", account, 12, 0, 24)
    always = image(OLD + "-1000")
    return {
        r"SAM\SAM\Domains\Account": {"V": (BINARY, bytes(account) + image(OLD))},  # read, and no tree of the table
        r"SECURITY\Policy\Accounts\%s-1000" % sid: {
            "Sid": (BINARY, user), "Text": (SZ, text(sid + "-1000")), "Not a SID": (SZ, text(OLD)),
            "Many": (MULTI, text(sid + "-1000", "", "other", sid + "-1001", "")), "Expand": (EXPAND, text(OLD + "-1"))},
        r"SECURITY\Policy\Accounts\%s-1000\Deeper\Still" % sid: {"": (0, b"x" + user + b"yy" + user), "RID": (1000, always)},
        r"SECURITY\SAM\Domains\Builtin\Aliases\Members\%s" % sid: {"": (1000, b"")},
        r"SECURITY\SAM\Domains\Builtin\Aliases\Members\%s\000001F4" % sid: {"Large": (BINARY, user * 4000)},
        r"Software\Microsoft\Windows NT\CurrentVersion\ProfileList\%s-1000" % sid: {
            "Sid": (BINARY, user), "ProfileImagePath": (EXPAND, text(r"%SystemDrive%\users\gone")), "Other": (BINARY, always)},
        r"Software\Classes\AppID\{1}": {"LaunchPermission": (BINARY, user), "Other": (BINARY, always)},
        r"Software\Classes\Elsewhere": {"Sid": (BINARY, always)},
        r"System\CurrentControlSet\Services\lanmanserver\Parameters": {},
    }


def write_reg(tree):
    lines = ["Windows Registry Editor Version 5.00", ""]
    for key, values in tree.items():
        lines += [r"[HKEY_LOCAL_MACHINE\%s]" % key]
        for name, (kind, data) in values.items():
            lines.append("%s=hex(%x):%s" % ('"%s"' % name if name else "@", kind, ",".join("%02x" % b for b in data)))
        lines.append("")
    return ("\ufeff" + "\r\n".join(lines)).encode("utf-16le")


def read_reg(data):
    tree, key = {}, None
    for line in data.decode("utf-16le").replace("\\\r\n  ", "").split("\r\n"):
        value = re.fullmatch(r'(?:@|"(.*?)")=(?:"(.*)"|hex(?:\((\w+)\))?:(.*)|dword:.*)', line)
        if line.startswith("[HKEY_LOCAL_MACHINE\\"): key = tree[line[20:-1].lower()] = {}
        elif value and value[4] is not None: key[value[1] or ""] = (int(value[3] or "3", 16), bytes.fromhex(value[4].replace(",", "")))
        elif value and value[2] is not None: key[value[1] or ""] = (SZ, text(value[2].replace("\\\\", "\\")))
    return tree


class UnderWine(ImageCase):
    def setUp(self):
        super().setUp()
        self.wine = shutil.which("wine64") or shutil.which("wine")
        if not os.path.exists(PROGRAM) or not self.wine: self.skipTest("quillet.exe or Wine is not there")
        self.environment = dict(os.environ, WINEPREFIX=self.path("prefix"), WINEDEBUG="-all", WINEDLLOVERRIDES="mscoree,mshtml=")
        self.environment.pop("DISPLAY", None)
        server = shutil.which("wineserver") or self.skipTest("Wine's server is not there")
        os.mkdir(self.environment["WINEPREFIX"])
        silent = {"env": self.environment, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        subprocess.run([server, "-p"], **silent)  # or it would start anew each time
        self.addCleanup(subprocess.run, [server, "-k"], **silent)
        try: started = self.start("wineboot", "-i")[0] == 0
        except subprocess.TimeoutExpired: started = False
        if not started: self.skipTest("Wine does not start here")
        os.remove(self.path("prefix/dosdevices/z:"))  # or the sweep would leave the prefix
        shutil.copy(PROGRAM, self.drive("quillet.exe"))

    def drive(self, name): return self.path("prefix/drive_c/" + name)

    def start(self, *command, errors=subprocess.DEVNULL):
        """The exit status and the output, which goes by way of a file: what stays running would hold a pipe open."""
        with open(self.path("said"), "w+b") as said:
            done = subprocess.run([self.wine, *command], env=self.environment, cwd=self.work, stdin=subprocess.DEVNULL,
                                  stdout=said, stderr=errors, timeout=120)
            said.seek(0)
            return done.returncode, said.read().decode().replace("\r\n", "\n")

    def exported(self):
        tree = {}
        for root in ("SAM", "SECURITY", "Software\\Microsoft\\Windows NT", "Software\\Classes", "System\\CurrentControlSet\\Services\\lanmanserver"):
            self.start("regedit", "/E", r"C:\out.reg", "HKEY_LOCAL_MACHINE\\" + root)
            with open(self.drive("out.reg"), "rb") as f: tree.update(read_reg(f.read()))
        return tree

    def test_a_registry_from_end_to_end(self):
        with open(self.drive("in.reg"), "wb") as f: f.write(write_reg(registry(OLD)))
        self.start("regedit", "/S", r"C:\in.reg")
        status, out = self.start(r"C:\quillet.exe", "-\t\u20ac\x9b", errors=subprocess.STDOUT)
        self.assertEqual((status, out.split("\n")[:2]), (255, ["invalid option: -\t\u20ac\ufffd", "Tarvane SID change tool"]))
        for options in ("-s", "-"):
            status, out = self.start(r"C:\quillet.exe", options)
            self.assertEqual(status, 0, out)
            found, new = PAIR.search(out).groups()
            self.assertEqual(found, OLD)
            self.assertTrue(out.endswith("scanning c: ...\ncompleted successfully\n"), out)
            after = self.exported()
            guid = after[r"system\currentcontrolset\services\lanmanserver\parameters"]["Guid"]
            self.assertEqual((guid[0], len(guid[1])), (BINARY, 16))
            for key, values in registry(OLD if options == "-s" else new).items():
                for name, value in values.items(): self.assertEqual(after[key.lower()].get(name), value, key + "\\" + name)
            names = [key for key in after if OLD.lower() in key]
            self.assertEqual(bool(names), options == "-s", names)


programs.main()
