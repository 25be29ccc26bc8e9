/* The platform's calls that tests redirect: result, name, parameters, arguments. To be included with SCRIPTED
 * (the test has an answer, or else the call is a failure) and PASSED_ON (goes on to the platform unless the
 * test has it refused) defined. One call a line; the build reads the names here. */
// clang-format off
SCRIPTED(NTSTATUS, ZwOpenKey, (PHANDLE a, ACCESS_MASK b, POBJECT_ATTRIBUTES c), (a, b, c))
SCRIPTED(NTSTATUS, ZwCreateKey, (PHANDLE a, ACCESS_MASK b, POBJECT_ATTRIBUTES c, ULONG d, PUNICODE_STRING e, ULONG f, PULONG g), (a, b, c, d, e, f, g))
SCRIPTED(NTSTATUS, ZwClose, (HANDLE a), (a))
SCRIPTED(NTSTATUS, ZwShutdownSystem, (SHUTDOWN_ACTION a), (a))
SCRIPTED(LSTATUS, RegCloseKey, (HKEY a), (a))
SCRIPTED(LSTATUS, RegQueryValueExW, (HKEY a, LPCWSTR b, LPDWORD c, LPDWORD d, BYTE* e, LPDWORD f), (a, b, c, d, e, f))
SCRIPTED(LSTATUS, RegGetKeySecurity, (HKEY a, SECURITY_INFORMATION b, PSECURITY_DESCRIPTOR c, LPDWORD d), (a, b, c, d))
SCRIPTED(LSTATUS, RegSetKeySecurity, (HKEY a, SECURITY_INFORMATION b, PSECURITY_DESCRIPTOR c), (a, b, c))
SCRIPTED(BOOL, OpenProcessToken, (HANDLE a, DWORD b, PHANDLE c), (a, b, c))
SCRIPTED(BOOL, GetTokenInformation, (HANDLE a, TOKEN_INFORMATION_CLASS b, LPVOID c, DWORD d, LPDWORD e), (a, b, c, d, e))
SCRIPTED(BOOL, LookupPrivilegeValueW, (LPCWSTR a, LPCWSTR b, PLUID c), (a, b, c))
SCRIPTED(BOOL, AdjustTokenPrivileges, (HANDLE a, BOOL b, PTOKEN_PRIVILEGES c, DWORD d, PTOKEN_PRIVILEGES e, LPDWORD f), (a, b, c, d, e, f))
SCRIPTED(BOOL, ConvertSidToStringSidA, (PSID a, LPSTR* b), (a, b))
SCRIPTED(BOOL, GetFileSecurityW, (LPCWSTR a, SECURITY_INFORMATION b, PSECURITY_DESCRIPTOR c, DWORD d, LPDWORD e), (a, b, c, d, e))
SCRIPTED(BOOL, SetFileSecurityW, (LPCWSTR a, SECURITY_INFORMATION b, PSECURITY_DESCRIPTOR c), (a, b, c))
SCRIPTED(DWORD, SetNamedSecurityInfoW, (LPWSTR a, SE_OBJECT_TYPE b, SECURITY_INFORMATION c, PSID d, PSID e, PACL f, PACL g), (a, b, c, d, e, f, g))
SCRIPTED(HANDLE, FindFirstFileW, (LPCWSTR a, LPWIN32_FIND_DATAW b), (a, b))
SCRIPTED(BOOL, FindNextFileW, (HANDLE a, LPWIN32_FIND_DATAW b), (a, b))
SCRIPTED(BOOL, FindClose, (HANDLE a), (a))
SCRIPTED(DWORD, GetFileAttributesW, (LPCWSTR a), (a))
SCRIPTED(UINT, GetDriveTypeW, (LPCWSTR a), (a))
SCRIPTED(HANDLE, CreateFileW, (LPCWSTR a, DWORD b, DWORD c, LPSECURITY_ATTRIBUTES d, DWORD e, DWORD f, HANDLE g), (a, b, c, d, e, f, g))
SCRIPTED(BOOL, FlushFileBuffers, (HANDLE a), (a))
SCRIPTED(BOOL, CloseHandle, (HANDLE a), (a))
SCRIPTED(HLOCAL, LocalFree, (HLOCAL a), (a))
SCRIPTED(VOID, Sleep, (DWORD a), (a))
SCRIPTED(BOOL, InitiateSystemShutdownW, (LPWSTR a, LPWSTR b, DWORD c, BOOL d, BOOL e), (a, b, c, d, e))
SCRIPTED(RPC_STATUS, UuidCreate, (UUID* a), (a))
PASSED_ON(BOOL, SetSecurityDescriptorOwner, (PSECURITY_DESCRIPTOR a, PSID b, BOOL c), (a, b, c))
PASSED_ON(BOOL, GetSecurityDescriptorDacl, (PSECURITY_DESCRIPTOR a, LPBOOL b, PACL* c, LPBOOL d), (a, b, c, d))
PASSED_ON(BOOL, ConvertSidToStringSidW, (PSID a, LPWSTR* b), (a, b))
PASSED_ON(BOOL, GetAce, (PACL a, DWORD b, LPVOID* c), (a, b, c))
// clang-format on
#undef SCRIPTED
#undef PASSED_ON
