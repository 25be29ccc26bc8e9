/* SPDX-License-Identifier: GPL-2.0-or-later */
/* platform/nt.h on Windows: the platform's own headers. Include platform/nt.h instead. */
#ifndef QUILLET_PLATFORM_NT_WINDOWS_H
#define QUILLET_PLATFORM_NT_WINDOWS_H

// clang-format off
#define WIN32_NO_STATUS
#include <windows.h>
#undef WIN32_NO_STATUS
#include <ntstatus.h>
#include <winternl.h>
#include <aclapi.h>
#include <rpc.h>
#include <sddl.h>
// clang-format on

#ifndef OBJ_OPENLINK
#define OBJ_OPENLINK 0x100
#endif

#endif
