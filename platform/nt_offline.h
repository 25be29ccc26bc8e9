/* SPDX-License-Identifier: GPL-2.0-or-later */
/* platform/nt.h away from Windows: the platform's types, constants and functions under its names, with its
 * widths and layouts. platform/offline answers the functions. Include platform/nt.h instead.
 *
 * WCHAR is char16_t, so that no wide function of the C library can be handed one by mistake. */
#ifndef QUILLET_PLATFORM_NT_OFFLINE_H
#define QUILLET_PLATFORM_NT_OFFLINE_H

#include <cstdint>

#define QUILLET_WIDE_LITERAL(text) u##text
#define TEXT(text) QUILLET_WIDE_LITERAL(text)

#define NTAPI
#define WINAPI
#define NTSYSAPI

typedef void VOID, *PVOID, *LPVOID;
typedef int BOOL, *LPBOOL;
typedef uint8_t BYTE, BOOLEAN, UCHAR;
typedef uint16_t WORD, USHORT;
typedef int32_t LONG, NTSTATUS, LSTATUS, RPC_STATUS;
typedef uint32_t DWORD, ULONG, UINT, ACCESS_MASK, REGSAM, SECURITY_INFORMATION, *PULONG, *LPDWORD;
typedef int64_t LONGLONG;
typedef uint64_t ULONG_PTR, DWORD_PTR, SIZE_T;
typedef int64_t LONG_PTR;
typedef char16_t WCHAR, *PWSTR, *LPWSTR;
typedef const WCHAR *PCWSTR, *LPCWSTR;
typedef char* LPSTR;
typedef void *HANDLE, *HLOCAL, *PSID, *PSECURITY_DESCRIPTOR;
typedef HANDLE* PHANDLE;
typedef struct HKEY__* HKEY;
typedef HKEY* PHKEY;

#define TRUE 1
#define FALSE 0
#define MAX_PATH 260

/* ---- Statuses (ntstatus.h) ---- */
#define STATUS_SUCCESS static_cast<NTSTATUS>(0x00000000)
#define STATUS_OBJECT_NAME_EXISTS static_cast<NTSTATUS>(0x40000000)
#define STATUS_REGISTRY_RECOVERED static_cast<NTSTATUS>(0x40000009)
#define STATUS_NOT_ALL_ASSIGNED static_cast<NTSTATUS>(0x00000106)
#define STATUS_BUFFER_OVERFLOW static_cast<NTSTATUS>(0x80000005)
#define STATUS_NO_MORE_FILES static_cast<NTSTATUS>(0x80000006)
#define STATUS_NO_MORE_ENTRIES static_cast<NTSTATUS>(0x8000001A)
#define STATUS_UNSUCCESSFUL static_cast<NTSTATUS>(0xC0000001)
#define STATUS_NOT_IMPLEMENTED static_cast<NTSTATUS>(0xC0000002)
#define STATUS_INVALID_INFO_CLASS static_cast<NTSTATUS>(0xC0000003)
#define STATUS_INFO_LENGTH_MISMATCH static_cast<NTSTATUS>(0xC0000004)
#define STATUS_ACCESS_VIOLATION static_cast<NTSTATUS>(0xC0000005)
#define STATUS_INVALID_HANDLE static_cast<NTSTATUS>(0xC0000008)
#define STATUS_INVALID_PARAMETER static_cast<NTSTATUS>(0xC000000D)
#define STATUS_NO_SUCH_DEVICE static_cast<NTSTATUS>(0xC000000E)
#define STATUS_NO_SUCH_FILE static_cast<NTSTATUS>(0xC000000F)
#define STATUS_NO_MEMORY static_cast<NTSTATUS>(0xC0000017)
#define STATUS_ACCESS_DENIED static_cast<NTSTATUS>(0xC0000022)
#define STATUS_BUFFER_TOO_SMALL static_cast<NTSTATUS>(0xC0000023)
#define STATUS_OBJECT_TYPE_MISMATCH static_cast<NTSTATUS>(0xC0000024)
#define STATUS_DISK_CORRUPT_ERROR static_cast<NTSTATUS>(0xC0000032)
#define STATUS_OBJECT_NAME_INVALID static_cast<NTSTATUS>(0xC0000033)
#define STATUS_OBJECT_NAME_NOT_FOUND static_cast<NTSTATUS>(0xC0000034)
#define STATUS_OBJECT_NAME_COLLISION static_cast<NTSTATUS>(0xC0000035)
#define STATUS_OBJECT_PATH_INVALID static_cast<NTSTATUS>(0xC0000039)
#define STATUS_OBJECT_PATH_NOT_FOUND static_cast<NTSTATUS>(0xC000003A)
#define STATUS_OBJECT_PATH_SYNTAX_BAD static_cast<NTSTATUS>(0xC000003B)
#define STATUS_SHARING_VIOLATION static_cast<NTSTATUS>(0xC0000043)
#define STATUS_DELETE_PENDING static_cast<NTSTATUS>(0xC0000056)
#define STATUS_INVALID_OWNER static_cast<NTSTATUS>(0xC000005A)
#define STATUS_PRIVILEGE_NOT_HELD static_cast<NTSTATUS>(0xC0000061)
#define STATUS_INVALID_ACL static_cast<NTSTATUS>(0xC0000077)
#define STATUS_INVALID_SID static_cast<NTSTATUS>(0xC0000078)
#define STATUS_INVALID_SECURITY_DESCR static_cast<NTSTATUS>(0xC0000079)
#define STATUS_NO_TOKEN static_cast<NTSTATUS>(0xC000007C)
#define STATUS_DISK_FULL static_cast<NTSTATUS>(0xC000007F)
#define STATUS_INSUFFICIENT_RESOURCES static_cast<NTSTATUS>(0xC000009A)
#define STATUS_MEDIA_WRITE_PROTECTED static_cast<NTSTATUS>(0xC00000A2)
#define STATUS_NOT_SUPPORTED static_cast<NTSTATUS>(0xC00000BB)
#define STATUS_INTERNAL_ERROR static_cast<NTSTATUS>(0xC00000E5)
#define STATUS_FILE_CORRUPT_ERROR static_cast<NTSTATUS>(0xC0000102)
#define STATUS_NOT_A_DIRECTORY static_cast<NTSTATUS>(0xC0000103)
#define STATUS_NAME_TOO_LONG static_cast<NTSTATUS>(0xC0000106)
#define STATUS_CANNOT_DELETE static_cast<NTSTATUS>(0xC0000121)
#define STATUS_REGISTRY_CORRUPT static_cast<NTSTATUS>(0xC000014C)
#define STATUS_REGISTRY_IO_FAILED static_cast<NTSTATUS>(0xC000014D)
#define STATUS_UNRECOGNIZED_VOLUME static_cast<NTSTATUS>(0xC000014F)
#define STATUS_NOT_REGISTRY_FILE static_cast<NTSTATUS>(0xC000015C)
#define STATUS_KEY_DELETED static_cast<NTSTATUS>(0xC000017C)
#define STATUS_KEY_HAS_CHILDREN static_cast<NTSTATUS>(0xC0000180)
#define STATUS_CHILD_MUST_BE_VOLATILE static_cast<NTSTATUS>(0xC0000181)
#define STATUS_IO_DEVICE_ERROR static_cast<NTSTATUS>(0xC0000185)
#define STATUS_PREDEFINED_HANDLE static_cast<NTSTATUS>(0x00000129)

/* ---- Win32 error codes (winerror.h) ---- */
#define ERROR_SUCCESS 0L
#define NO_ERROR 0L
#define ERROR_INVALID_FUNCTION 1L
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_PATH_NOT_FOUND 3L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_NOT_ENOUGH_MEMORY 8L
#define ERROR_INVALID_DATA 13L
#define ERROR_NO_MORE_FILES 18L
#define ERROR_WRITE_PROTECT 19L
#define ERROR_BAD_LENGTH 24L
#define ERROR_SHARING_VIOLATION 32L
#define ERROR_NOT_SUPPORTED 50L
#define ERROR_WRITE_FAULT 29L
#define ERROR_GEN_FAILURE 31L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_OPEN_FAILED 110L
#define ERROR_BUFFER_OVERFLOW 111L
#define ERROR_DISK_FULL 112L
#define ERROR_INSUFFICIENT_BUFFER 122L
#define ERROR_INVALID_NAME 123L
#define ERROR_BAD_PATHNAME 161L
#define ERROR_ALREADY_EXISTS 183L
#define ERROR_FILENAME_EXCED_RANGE 206L
#define ERROR_MORE_DATA 234L
#define ERROR_NO_MORE_ITEMS 259L
#define ERROR_DIRECTORY 267L
#define ERROR_MR_MID_NOT_FOUND 317L
#define ERROR_OBJECT_NAME_EXISTS 698L
#define ERROR_PREDEFINED_HANDLE 714L
#define ERROR_NOACCESS 998L
#define ERROR_UNRECOGNIZED_VOLUME 1005L
#define ERROR_NO_TOKEN 1008L
#define ERROR_BADDB 1009L
#define ERROR_REGISTRY_RECOVERED 1014L
#define ERROR_REGISTRY_CORRUPT 1015L
#define ERROR_REGISTRY_IO_FAILED 1016L
#define ERROR_NOT_REGISTRY_FILE 1017L
#define ERROR_KEY_DELETED 1018L
#define ERROR_KEY_HAS_CHILDREN 1020L
#define ERROR_CHILD_MUST_BE_VOLATILE 1021L
#define ERROR_IO_DEVICE 1117L
#define ERROR_NOT_ALL_ASSIGNED 1300L
#define ERROR_INVALID_OWNER 1307L
#define ERROR_NO_SUCH_PRIVILEGE 1313L
#define ERROR_PRIVILEGE_NOT_HELD 1314L
#define ERROR_INVALID_ACL 1336L
#define ERROR_INVALID_SID 1337L
#define ERROR_INVALID_SECURITY_DESCR 1338L
#define ERROR_INTERNAL_ERROR 1359L
#define ERROR_DISK_CORRUPT 1393L
#define ERROR_FILE_CORRUPT 1392L
#define ERROR_NO_SYSTEM_RESOURCES 1450L
#define RPC_S_OK 0
#define RPC_S_UUID_LOCAL_ONLY 1824

/* ---- Access rights (winnt.h) ---- */
#define DELETE 0x00010000u
#define READ_CONTROL 0x00020000u
#define WRITE_DAC 0x00040000u
#define WRITE_OWNER 0x00080000u
#define SYNCHRONIZE 0x00100000u
#define ACCESS_SYSTEM_SECURITY 0x01000000u
#define MAXIMUM_ALLOWED 0x02000000u
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define GENERIC_EXECUTE 0x20000000u
#define GENERIC_ALL 0x10000000u
#define KEY_QUERY_VALUE 0x0001u
#define KEY_SET_VALUE 0x0002u
#define KEY_CREATE_SUB_KEY 0x0004u
#define KEY_ENUMERATE_SUB_KEYS 0x0008u
#define KEY_NOTIFY 0x0010u
#define KEY_CREATE_LINK 0x0020u
#define KEY_READ 0x20019u
#define KEY_WRITE 0x20006u
#define KEY_ALL_ACCESS 0xF003Fu
#define TOKEN_QUERY 0x0008u
#define TOKEN_ADJUST_PRIVILEGES 0x0020u
#define FILE_SHARE_READ 1u
#define FILE_SHARE_WRITE 2u
#define FILE_SHARE_DELETE 4u

/* ---- Counted strings, object attributes (winternl.h) ---- */
typedef struct _UNICODE_STRING {
    USHORT Length;        /* bytes */
    USHORT MaximumLength; /* bytes */
    PWSTR Buffer;         /* not terminated */
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_CASE_INSENSITIVE 0x40u
#define OBJ_OPENIF 0x80u
#define OBJ_OPENLINK 0x100u

typedef union _LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER;

typedef struct _FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
} FILETIME, *PFILETIME;

/* ---- Registry ---- */
#define HKEY_LOCAL_MACHINE reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(static_cast<LONG>(0x80000002)))
#define HKEY_USERS reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(static_cast<LONG>(0x80000003)))

#define REG_NONE 0u
#define REG_SZ 1u
#define REG_EXPAND_SZ 2u
#define REG_BINARY 3u
#define REG_DWORD 4u
#define REG_LINK 6u
#define REG_MULTI_SZ 7u
#define REG_OPTION_NON_VOLATILE 0u
#define REG_OPTION_VOLATILE 1u
#define REG_OPTION_CREATE_LINK 2u
#define REG_CREATED_NEW_KEY 1u
#define REG_OPENED_EXISTING_KEY 2u

/* ---- Security ---- */
#define OWNER_SECURITY_INFORMATION 0x1u
#define GROUP_SECURITY_INFORMATION 0x2u
#define DACL_SECURITY_INFORMATION 0x4u
#define SACL_SECURITY_INFORMATION 0x8u
#define PROTECTED_DACL_SECURITY_INFORMATION 0x80000000u
#define SECURITY_DESCRIPTOR_REVISION 1u
#define SE_OWNER_DEFAULTED 0x0001
#define SE_GROUP_DEFAULTED 0x0002
#define SE_DACL_PRESENT 0x0004
#define SE_DACL_DEFAULTED 0x0008
#define SE_SACL_PRESENT 0x0010
#define SE_SACL_DEFAULTED 0x0020
#define SE_DACL_AUTO_INHERIT_REQ 0x0100
#define SE_SACL_AUTO_INHERIT_REQ 0x0200
#define SE_DACL_AUTO_INHERITED 0x0400
#define SE_SACL_AUTO_INHERITED 0x0800
#define SE_DACL_PROTECTED 0x1000
#define SE_SACL_PROTECTED 0x2000
#define SE_SELF_RELATIVE 0x8000
#define ACCESS_ALLOWED_ACE_TYPE 0
#define ACCESS_DENIED_ACE_TYPE 1
#define SYSTEM_AUDIT_ACE_TYPE 2
#define SYSTEM_ALARM_ACE_TYPE 3
#define SE_PRIVILEGE_ENABLED 0x2u

typedef struct _ACL {
    BYTE AclRevision;
    BYTE Sbz1;
    WORD AclSize; /* bytes, header and free room included */
    WORD AceCount;
    WORD Sbz2;
} ACL, *PACL;

typedef struct _ACE_HEADER {
    BYTE AceType;
    BYTE AceFlags;
    WORD AceSize; /* bytes */
} ACE_HEADER;

typedef struct _ACL_SIZE_INFORMATION {
    DWORD AceCount;
    DWORD AclBytesInUse;
    DWORD AclBytesFree;
} ACL_SIZE_INFORMATION;
typedef enum _ACL_INFORMATION_CLASS {
    AclRevisionInformation = 1,
    AclSizeInformation = 2
} ACL_INFORMATION_CLASS;

typedef WORD SECURITY_DESCRIPTOR_CONTROL;
typedef struct _SECURITY_DESCRIPTOR {
    BYTE Revision;
    BYTE Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    PSID Owner;
    PSID Group;
    PACL Sacl;
    PACL Dacl;
} SECURITY_DESCRIPTOR;

typedef struct _SECURITY_DESCRIPTOR_RELATIVE {
    BYTE Revision;
    BYTE Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    DWORD Owner;
    DWORD Group;
    DWORD Sacl;
    DWORD Dacl;
} SECURITY_DESCRIPTOR_RELATIVE;

typedef struct _LUID {
    DWORD LowPart;
    LONG HighPart;
} LUID, *PLUID;

typedef struct _LUID_AND_ATTRIBUTES {
    LUID Luid;
    DWORD Attributes;
} LUID_AND_ATTRIBUTES;

typedef struct _TOKEN_PRIVILEGES {
    DWORD PrivilegeCount;
    LUID_AND_ATTRIBUTES Privileges[1];
} TOKEN_PRIVILEGES, *PTOKEN_PRIVILEGES;

typedef struct _SID_AND_ATTRIBUTES {
    PSID Sid;
    DWORD Attributes;
} SID_AND_ATTRIBUTES;
typedef struct _TOKEN_USER {
    SID_AND_ATTRIBUTES User;
} TOKEN_USER;
typedef struct _TOKEN_OWNER {
    PSID Owner;
} TOKEN_OWNER;
typedef enum _TOKEN_INFORMATION_CLASS { TokenUser = 1, TokenOwner = 4 } TOKEN_INFORMATION_CLASS;
typedef enum _SE_OBJECT_TYPE { SE_UNKNOWN_OBJECT_TYPE = 0, SE_FILE_OBJECT = 1 } SE_OBJECT_TYPE;

/* ---- Files and system ---- */
#define INVALID_HANDLE_VALUE reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1))
#define INVALID_FILE_ATTRIBUTES 0xFFFFFFFFu
#define FILE_ATTRIBUTE_READONLY 0x1u
#define FILE_ATTRIBUTE_HIDDEN 0x2u
#define FILE_ATTRIBUTE_SYSTEM 0x4u
#define FILE_ATTRIBUTE_DIRECTORY 0x10u
#define FILE_ATTRIBUTE_ARCHIVE 0x20u
#define FILE_ATTRIBUTE_NORMAL 0x80u
#define FILE_ATTRIBUTE_REPARSE_POINT 0x400u
#define OPEN_EXISTING 3u
#define DRIVE_NO_ROOT_DIR 1u
#define DRIVE_FIXED 3u
#define CP_UTF8 65001u

typedef struct _WIN32_FIND_DATAW {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwReserved0; /* the reparse tag */
    DWORD dwReserved1;
    WCHAR cFileName[MAX_PATH];
    WCHAR cAlternateFileName[14];
} WIN32_FIND_DATAW, *LPWIN32_FIND_DATAW;

typedef struct _UUID {
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];
} UUID;

typedef struct _SECURITY_ATTRIBUTES* LPSECURITY_ATTRIBUTES;
typedef BOOL (*PHANDLER_ROUTINE)(DWORD event);

extern "C" {

/* Statuses and counted strings. */
ULONG RtlNtStatusToDosError(NTSTATUS status);
VOID RtlInitUnicodeString(PUNICODE_STRING target, PCWSTR source);

/* Win32 registry calls: a Win32 code, 0 on success. */
LSTATUS RegOpenKeyExW(HKEY root, LPCWSTR path, DWORD options, REGSAM access, PHKEY key);
LSTATUS RegCloseKey(HKEY key);
LSTATUS RegEnumKeyExW(HKEY key, DWORD index, LPWSTR name, LPDWORD nameLength, LPDWORD reserved,
                      LPWSTR className, LPDWORD classLength, PFILETIME lastWrite);
LSTATUS RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, BYTE* data, LPDWORD size);
LSTATUS RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size);
LSTATUS RegDeleteValueW(HKEY key, LPCWSTR name);
LSTATUS RegLoadKeyW(HKEY root, LPCWSTR mountName, LPCWSTR file);
LSTATUS RegUnLoadKeyW(HKEY root, LPCWSTR mountName);
LSTATUS RegGetKeySecurity(HKEY key, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor,
                          LPDWORD size);
LSTATUS RegSetKeySecurity(HKEY key, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor);

/* Tokens and descriptors: non-zero on success, else GetLastError. */
BOOL OpenProcessToken(HANDLE process, DWORD access, PHANDLE token);
BOOL GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS infoClass, LPVOID buffer, DWORD size,
                         LPDWORD resultLength);
BOOL LookupPrivilegeValueW(LPCWSTR system, LPCWSTR name, PLUID luid);
BOOL AdjustTokenPrivileges(HANDLE token, BOOL disableAll, PTOKEN_PRIVILEGES state, DWORD size,
                           PTOKEN_PRIVILEGES previous, LPDWORD resultLength);
BOOL InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, DWORD revision);
BOOL SetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR descriptor, PSID owner, BOOL defaulted);
BOOL SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, BOOL present, PACL dacl, BOOL defaulted);
BOOL GetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR descriptor, PSID* owner, LPBOOL defaulted);
BOOL GetSecurityDescriptorGroup(PSECURITY_DESCRIPTOR descriptor, PSID* group, LPBOOL defaulted);
BOOL GetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, LPBOOL present, PACL* dacl, LPBOOL defaulted);
BOOL GetSecurityDescriptorSacl(PSECURITY_DESCRIPTOR descriptor, LPBOOL present, PACL* sacl, LPBOOL defaulted);
BOOL GetAclInformation(PACL acl, LPVOID information, DWORD size, ACL_INFORMATION_CLASS infoClass);
BOOL GetAce(PACL acl, DWORD index, LPVOID* ace);
BOOL ConvertSidToStringSidA(PSID sid, LPSTR* text);
BOOL ConvertSidToStringSidW(PSID sid, LPWSTR* text);

/* Files: non-zero on success, else GetLastError. */
BOOL GetFileSecurityW(LPCWSTR path, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor,
                      DWORD size, LPDWORD needed);
BOOL SetFileSecurityW(LPCWSTR path, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor);
DWORD SetNamedSecurityInfoW(LPWSTR path, SE_OBJECT_TYPE type, SECURITY_INFORMATION information, PSID owner,
                            PSID group, PACL dacl, PACL sacl);
HANDLE FindFirstFileW(LPCWSTR pattern, LPWIN32_FIND_DATAW record);
BOOL FindNextFileW(HANDLE search, LPWIN32_FIND_DATAW record);
BOOL FindClose(HANDLE search);
DWORD GetFileAttributesW(LPCWSTR path);
UINT GetDriveTypeW(LPCWSTR root);
HANDLE CreateFileW(LPCWSTR path, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES attributes,
                   DWORD disposition, DWORD flags, HANDLE templateFile);
BOOL FlushFileBuffers(HANDLE file);
BOOL CloseHandle(HANDLE handle);

/* The rest of the system. */
HANDLE GetCurrentProcess();
DWORD GetLastError();
VOID SetLastError(DWORD code);
HLOCAL LocalFree(HLOCAL block);
VOID Sleep(DWORD milliseconds);
DWORD ExpandEnvironmentStringsW(LPCWSTR text, LPWSTR expanded, DWORD capacity);
BOOL InitiateSystemShutdownW(LPWSTR machine, LPWSTR message, DWORD timeout, BOOL forceClose, BOOL reboot);
RPC_STATUS UuidCreate(UUID* uuid);
UINT GetConsoleOutputCP();
BOOL SetConsoleOutputCP(UINT codePage);
BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE handler, BOOL add);

/* The tool's entry, called by the offline start-up. Text is UTF-16. */
int wmain(int argc, WCHAR** argv, WCHAR** envp);

} /* extern "C" */

#endif
