/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <cstdio>

#include "sidchng/sidchng.h"
#include "tool/run.h"
#include "tool/text_format.h"

static void _flushVolume(const WCHAR* volumePath) {
    const HANDLE volume =
        CreateFileW(volumePath, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    if (volume == INVALID_HANDLE_VALUE) {
        writeText(stderr, "CreateFileW(%ws) failed with code %d\n", volumePath, GetLastError());
        return;
    }
    if (!FlushFileBuffers(volume)) {
        writeText(stderr, "FlushFileBuffers(%ws) failed with code %d\n", volumePath, GetLastError());
    }
    CloseHandle(volume);
}

void sweepVolumes(runState* run) {
    WCHAR driveName[] = TEXT("X:");
    WCHAR volumePath[] = TEXT("\\\\?\\X:");
    run->runStatus = 0;
    for (char letter = 'a'; letter <= 'z'; letter++) {
        driveName[0] = static_cast<WCHAR>(letter);
        volumePath[4] = static_cast<WCHAR>(letter);
        if (GetDriveTypeW(driveName) != DRIVE_FIXED) continue;
        PROGRESS("scanning %ws ...\n", driveName);
        const DWORD error = sidReplaceInPath(driveName, run->sidFlags, run->sidOld, run->sidOldSize,
                                             run->sidNew, run->sidNewSize);
        if (error != 0) {
            writeText(stderr, "sidReplaceInPath(%ws) failed with code %d\n", driveName, error);
            if (run->runStatus == 0) run->runStatus = static_cast<int32_t>(error);
        }
        _flushVolume(volumePath);
    }
}
