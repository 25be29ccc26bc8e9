/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The platform's calls that tests watch: result, name, parameters, arguments. How a call fails says its kind:
 * CODE gives a code, FLAG 0 and OTHER -1, both with a last error. To be included with all three defined. One
 * call a line; the build reads the names here. */
// clang-format off
CODE(NTSTATUS, ZwOpenKey, (PHANDLE a, ACCESS_MASK b, POBJECT_ATTRIBUTES c), (a, b, c))
CODE(NTSTATUS, ZwCreateKey, (PHANDLE a, ACCESS_MASK b, POBJECT_ATTRIBUTES c, ULONG d, PUNICODE_STRING e, ULONG f, PULONG g), (a, b, c, d, e, f, g))
CODE(NTSTATUS, ZwClose, (HANDLE a), (a))
CODE(NTSTATUS, ZwDeleteKey, (HANDLE a), (a))
CODE(NTSTATUS, ZwFlushKey, (HANDLE a), (a))
CODE(NTSTATUS, ZwEnumerateKey, (HANDLE a, ULONG b, KEY_INFORMATION_CLASS c, PVOID d, ULONG e, PULONG f), (a, b, c, d, e, f))
CODE(NTSTATUS, ZwQueryKey, (HANDLE a, KEY_INFORMATION_CLASS b, PVOID c, ULONG d, PULONG e), (a, b, c, d, e))
CODE(NTSTATUS, ZwQueryValueKey, (HANDLE a, PUNICODE_STRING b, KEY_VALUE_INFORMATION_CLASS c, PVOID d, ULONG e, PULONG f), (a, b, c, d, e, f))
CODE(NTSTATUS, ZwEnumerateValueKey, (HANDLE a, ULONG b, KEY_VALUE_INFORMATION_CLASS c, PVOID d, ULONG e, PULONG f), (a, b, c, d, e, f))
CODE(NTSTATUS, ZwSetValueKey, (HANDLE a, PUNICODE_STRING b, ULONG c, ULONG d, PVOID e, ULONG f), (a, b, c, d, e, f))
CODE(LSTATUS, RegEnumKeyExW, (HKEY a, DWORD b, LPWSTR c, LPDWORD d, LPDWORD e, LPWSTR f, LPDWORD g, PFILETIME h), (a, b, c, d, e, f, g, h))
CODE(LSTATUS, RegOpenKeyExW, (HKEY a, LPCWSTR b, DWORD c, REGSAM d, PHKEY e), (a, b, c, d, e))
CODE(LSTATUS, RegQueryValueExW, (HKEY a, LPCWSTR b, LPDWORD c, LPDWORD d, BYTE* e, LPDWORD f), (a, b, c, d, e, f))
CODE(LSTATUS, RegSetValueExW, (HKEY a, LPCWSTR b, DWORD c, DWORD d, const BYTE* e, DWORD f), (a, b, c, d, e, f))
CODE(LSTATUS, RegUnLoadKeyW, (HKEY a, LPCWSTR b), (a, b))
CODE(LSTATUS, RegGetKeySecurity, (HKEY a, SECURITY_INFORMATION b, PSECURITY_DESCRIPTOR c, LPDWORD d), (a, b, c, d))
CODE(LSTATUS, RegSetKeySecurity, (HKEY a, SECURITY_INFORMATION b, PSECURITY_DESCRIPTOR c), (a, b, c))
CODE(DWORD, SetNamedSecurityInfoW, (LPWSTR a, SE_OBJECT_TYPE b, SECURITY_INFORMATION c, PSID d, PSID e, PACL f, PACL g), (a, b, c, d, e, f, g))
CODE(NTSTATUS, ZwShutdownSystem, (SHUTDOWN_ACTION a), (a))
CODE(RPC_STATUS, UuidCreate, (UUID* a), (a))
FLAG(BOOL, OpenProcessToken, (HANDLE a, DWORD b, PHANDLE c), (a, b, c))
FLAG(BOOL, GetTokenInformation, (HANDLE a, TOKEN_INFORMATION_CLASS b, LPVOID c, DWORD d, LPDWORD e), (a, b, c, d, e))
FLAG(BOOL, LookupPrivilegeValueW, (LPCWSTR a, LPCWSTR b, PLUID c), (a, b, c))
FLAG(BOOL, AdjustTokenPrivileges, (HANDLE a, BOOL b, PTOKEN_PRIVILEGES c, DWORD d, PTOKEN_PRIVILEGES e, LPDWORD f), (a, b, c, d, e, f))
FLAG(BOOL, SetSecurityDescriptorOwner, (PSECURITY_DESCRIPTOR a, PSID b, BOOL c), (a, b, c))
FLAG(BOOL, GetSecurityDescriptorDacl, (PSECURITY_DESCRIPTOR a, LPBOOL b, PACL* c, LPBOOL d), (a, b, c, d))
FLAG(BOOL, GetAce, (PACL a, DWORD b, LPVOID* c), (a, b, c))
FLAG(BOOL, ConvertSidToStringSidA, (PSID a, LPSTR* b), (a, b))
FLAG(BOOL, ConvertSidToStringSidW, (PSID a, LPWSTR* b), (a, b))
FLAG(BOOL, GetFileSecurityW, (LPCWSTR a, SECURITY_INFORMATION b, PSECURITY_DESCRIPTOR c, DWORD d, LPDWORD e), (a, b, c, d, e))
FLAG(BOOL, SetFileSecurityW, (LPCWSTR a, SECURITY_INFORMATION b, PSECURITY_DESCRIPTOR c), (a, b, c))
FLAG(BOOL, FindNextFileW, (HANDLE a, LPWIN32_FIND_DATAW b), (a, b))
FLAG(BOOL, FindClose, (HANDLE a), (a))
FLAG(UINT, GetDriveTypeW, (LPCWSTR a), (a))
FLAG(BOOL, FlushFileBuffers, (HANDLE a), (a))
FLAG(BOOL, InitiateSystemShutdownW, (LPWSTR a, LPWSTR b, DWORD c, BOOL d, BOOL e), (a, b, c, d, e))
OTHER(HANDLE, FindFirstFileW, (LPCWSTR a, LPWIN32_FIND_DATAW b), (a, b))
OTHER(HANDLE, CreateFileW, (LPCWSTR a, DWORD b, DWORD c, LPSECURITY_ATTRIBUTES d, DWORD e, DWORD f, HANDLE g), (a, b, c, d, e, f, g))
OTHER(DWORD, GetFileAttributesW, (LPCWSTR a), (a))
OTHER(VOID, Sleep, (DWORD a), (a))
// clang-format on
#undef CODE
#undef FLAG
#undef OTHER
