/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Widths and layouts that the platform publishes and that the system proper relies on. Include platform/nt.h.
 */
#ifndef QUILLET_PLATFORM_NT_LAYOUT_H
#define QUILLET_PLATFORM_NT_LAYOUT_H

#include <cstddef>
#include <cstdint>

static_assert(sizeof(WCHAR) == 2 && sizeof(LONG) == 4 && sizeof(DWORD) == 4 && sizeof(ULONG) == 4);
static_assert(sizeof(BOOL) == 4 && sizeof(NTSTATUS) == 4 && sizeof(HANDLE) == 8 && sizeof(HKEY) == 8);
static_assert(sizeof(UNICODE_STRING) == 16 && offsetof(UNICODE_STRING, MaximumLength) == 2 &&
              offsetof(UNICODE_STRING, Buffer) == 8);
static_assert(sizeof(OBJECT_ATTRIBUTES) == 48 && offsetof(OBJECT_ATTRIBUTES, RootDirectory) == 8 &&
              offsetof(OBJECT_ATTRIBUTES, ObjectName) == 16 &&
              offsetof(OBJECT_ATTRIBUTES, Attributes) == 24 &&
              offsetof(OBJECT_ATTRIBUTES, SecurityDescriptor) == 32);
static_assert(sizeof(LARGE_INTEGER) == 8 && sizeof(FILETIME) == 8 && sizeof(LUID) == 8);
static_assert(sizeof(TOKEN_PRIVILEGES) == 16 && offsetof(TOKEN_PRIVILEGES, Privileges) == 4);
static_assert(sizeof(TOKEN_USER) == 16 && sizeof(TOKEN_OWNER) == 8);
static_assert(sizeof(ACL) == 8 && sizeof(ACE_HEADER) == 4 && sizeof(ACL_SIZE_INFORMATION) == 12);
static_assert(sizeof(SECURITY_DESCRIPTOR) == 40 && offsetof(SECURITY_DESCRIPTOR, Control) == 2 &&
              offsetof(SECURITY_DESCRIPTOR, Owner) == 8);
static_assert(sizeof(SECURITY_DESCRIPTOR_RELATIVE) == 20);
static_assert(sizeof(UUID) == 16);
static_assert(sizeof(WIN32_FIND_DATAW) == 592 && offsetof(WIN32_FIND_DATAW, cFileName) == 44);
static_assert(offsetof(KEY_BASIC_INFORMATION, Name) == 16 && offsetof(KEY_NODE_INFORMATION, Name) == 24 &&
              offsetof(KEY_VALUE_FULL_INFORMATION, Name) == 20 &&
              offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data) == 12);
static_assert(sizeof(KEY_FLAGS_INFORMATION) == 12 && offsetof(KEY_FLAGS_INFORMATION, KeyFlags) == 4 &&
              KeyFlagsInformation == 5);
static_assert(KeyNodeInformation == 1 && KeyValueFullInformation == 1 && KeyValuePartialInformation == 2);

#endif
