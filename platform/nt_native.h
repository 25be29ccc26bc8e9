/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The native registry calls and their records, which no header of the platform for programs declares: its
 * headers for drivers do, in the same way. Include platform/nt.h. */
#ifndef QUILLET_PLATFORM_NT_NATIVE_H
#define QUILLET_PLATFORM_NT_NATIVE_H

extern "C" {

typedef struct _KEY_BASIC_INFORMATION {
    LARGE_INTEGER LastWriteTime;
    ULONG TitleIndex;
    ULONG NameLength; /* bytes */
    WCHAR Name[1];
} KEY_BASIC_INFORMATION;

typedef struct _KEY_NODE_INFORMATION {
    LARGE_INTEGER LastWriteTime;
    ULONG TitleIndex;
    ULONG ClassOffset; /* 0xFFFFFFFF when there is no class */
    ULONG ClassLength; /* bytes */
    ULONG NameLength;  /* bytes */
    WCHAR Name[1];
} KEY_NODE_INFORMATION;

typedef struct _KEY_FLAGS_INFORMATION {
    ULONG Wow64Flags;
    ULONG KeyFlags; /* REG_FLAG_LINK and others */
    ULONG ControlFlags;
} KEY_FLAGS_INFORMATION;

#define REG_FLAG_LINK 0x2 /* the key is a symbolic link */

typedef struct _KEY_VALUE_FULL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataOffset;
    ULONG DataLength; /* bytes */
    ULONG NameLength; /* bytes */
    WCHAR Name[1];
} KEY_VALUE_FULL_INFORMATION;

typedef struct _KEY_VALUE_PARTIAL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataLength; /* bytes */
    UCHAR Data[1];
} KEY_VALUE_PARTIAL_INFORMATION;

typedef enum _KEY_INFORMATION_CLASS {
    KeyBasicInformation = 0,
    KeyNodeInformation = 1,
    KeyFlagsInformation = 5 /* of ZwQueryKey alone */
} KEY_INFORMATION_CLASS;

typedef enum _KEY_VALUE_INFORMATION_CLASS {
    KeyValueFullInformation = 1,
    KeyValuePartialInformation = 2
} KEY_VALUE_INFORMATION_CLASS;

typedef enum _SHUTDOWN_ACTION {
    ShutdownNoReboot = 0,
    ShutdownReboot = 1,
    ShutdownPowerOff = 2
} SHUTDOWN_ACTION;

/* An NTSTATUS, negative on failure. */
NTSYSAPI NTSTATUS NTAPI ZwOpenKey(PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes);
NTSYSAPI NTSTATUS NTAPI ZwCreateKey(PHANDLE key, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                                    ULONG titleIndex, PUNICODE_STRING className, ULONG createOptions,
                                    PULONG disposition);
NTSYSAPI NTSTATUS NTAPI ZwClose(HANDLE handle);
NTSYSAPI NTSTATUS NTAPI ZwEnumerateKey(HANDLE key, ULONG index, KEY_INFORMATION_CLASS infoClass, PVOID buffer,
                                       ULONG size, PULONG resultLength);
NTSYSAPI NTSTATUS NTAPI ZwEnumerateValueKey(HANDLE key, ULONG index, KEY_VALUE_INFORMATION_CLASS infoClass,
                                            PVOID buffer, ULONG size, PULONG resultLength);
NTSYSAPI NTSTATUS NTAPI ZwQueryKey(HANDLE key, KEY_INFORMATION_CLASS infoClass, PVOID buffer, ULONG size,
                                   PULONG resultLength);
NTSYSAPI NTSTATUS NTAPI ZwQueryValueKey(HANDLE key, PUNICODE_STRING name,
                                        KEY_VALUE_INFORMATION_CLASS infoClass, PVOID buffer, ULONG size,
                                        PULONG resultLength);
NTSYSAPI NTSTATUS NTAPI ZwSetValueKey(HANDLE key, PUNICODE_STRING name, ULONG titleIndex, ULONG type,
                                      PVOID data, ULONG size);
NTSYSAPI NTSTATUS NTAPI ZwDeleteKey(HANDLE key);
NTSYSAPI NTSTATUS NTAPI ZwFlushKey(HANDLE key);
NTSYSAPI NTSTATUS NTAPI ZwShutdownSystem(SHUTDOWN_ACTION action);
NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING target, const UNICODE_STRING* source);

} /* extern "C" */

#endif
