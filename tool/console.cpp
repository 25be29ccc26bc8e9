/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <cstdio>

#include "platform/nt.h"
#include "tool/run.h"

static UINT _codePage = 0; /* the console's own; 0 where there is no console */

/* Called in a thread of its own for Ctrl-C, Ctrl-Break and a window that closes. What follows is what would
 * have without it: the process ends. */
static BOOL WINAPI _giveBack(DWORD) {
    endConsole();
    return FALSE;
}

void beginConsole() {
    _codePage = GetConsoleOutputCP();
    SetConsoleCtrlHandler(_giveBack, TRUE);
    SetConsoleOutputCP(CP_UTF8);
    setvbuf(stdout, nullptr, _IONBF, 0);  // a line is one write, as it is on standard error
}

void endConsole() {
    if (_codePage != 0) SetConsoleOutputCP(_codePage);
}
