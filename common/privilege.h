/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Privileges of the process's own token. */
#ifndef QUILLET_COMMON_PRIVILEGE_H
#define QUILLET_COMMON_PRIVILEGE_H

#include "platform/nt.h"

/* Enables (enable non-zero) or disables one privilege by its terminated name. A Win32 code, 0 on success;
 * ERROR_NOT_ALL_ASSIGNED when the token does not hold it. A failure is logged. */
DWORD ombraModifyPrivilege(const WCHAR* name, int enable);

DWORD ombraEnablePrivilege(const WCHAR* name);

#endif
