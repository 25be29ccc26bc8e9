/* The platform's calls that the tests of keys watch: result, name, parameters, arguments, all with the key
 * first. To be included with WATCHED defined. One call a line; the build reads the names here. */
// clang-format off
WATCHED(NTSTATUS, ZwDeleteKey, (HANDLE a), (a))
WATCHED(NTSTATUS, ZwFlushKey, (HANDLE a), (a))
WATCHED(NTSTATUS, ZwEnumerateKey, (HANDLE a, ULONG b, KEY_INFORMATION_CLASS c, PVOID d, ULONG e, PULONG f), (a, b, c, d, e, f))
WATCHED(NTSTATUS, ZwQueryKey, (HANDLE a, KEY_INFORMATION_CLASS b, PVOID c, ULONG d, PULONG e), (a, b, c, d, e))
WATCHED(NTSTATUS, ZwQueryValueKey, (HANDLE a, PUNICODE_STRING b, KEY_VALUE_INFORMATION_CLASS c, PVOID d, ULONG e, PULONG f), (a, b, c, d, e, f))
WATCHED(NTSTATUS, ZwEnumerateValueKey, (HANDLE a, ULONG b, KEY_VALUE_INFORMATION_CLASS c, PVOID d, ULONG e, PULONG f), (a, b, c, d, e, f))
WATCHED(NTSTATUS, ZwSetValueKey, (HANDLE a, PUNICODE_STRING b, ULONG c, ULONG d, PVOID e, ULONG f), (a, b, c, d, e, f))
WATCHED(LSTATUS, RegEnumKeyExW, (HKEY a, DWORD b, LPWSTR c, LPDWORD d, LPDWORD e, LPWSTR f, LPDWORD g, PFILETIME h), (a, b, c, d, e, f, g, h))
WATCHED(LSTATUS, RegOpenKeyExW, (HKEY a, LPCWSTR b, DWORD c, REGSAM d, PHKEY e), (a, b, c, d, e))
WATCHED(LSTATUS, RegSetValueExW, (HKEY a, LPCWSTR b, DWORD c, DWORD d, const BYTE* e, DWORD f), (a, b, c, d, e, f))
WATCHED(LSTATUS, RegLoadKeyW, (HKEY a, LPCWSTR b, LPCWSTR c), (a, b, c))
WATCHED(LSTATUS, RegUnLoadKeyW, (HKEY a, LPCWSTR b), (a, b))
// clang-format on
#undef WATCHED
