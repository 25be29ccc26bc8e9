/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Drive C: on a fresh NTFS image. */
#ifndef QUILLET_TESTS_FILES_FIXTURE_H
#define QUILLET_TESTS_FILES_FIXTURE_H

#include <optional>

#include "platform/offline/files/drives.h"
#include "tests/support/descriptors.h"
#include "tests/volume/images.h"

namespace offline {

inline Image readDescriptor(const std::u16string& path, SECURITY_INFORMATION information = 15) {
    Image bytes(65536);
    DWORD needed = 0;
    if (!GetFileSecurityW(path.c_str(), information, bytes.data(), 65536, &needed)) return {};
    bytes.resize(needed);
    return bytes;
}

/* A call failed, and with this last error. */
inline void expectError(LONG error, bool failed) {
    EXPECT_TRUE(failed);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(error));
}

struct FilesTest : images::FreshVolumeTest {
    std::optional<images::OpenVolume> volume;

    void SetUp() override {
        EXPECT_EQ(enable(securityPrivilege), 0u);
        mount(DiskAccess::readWrite);
    }
    void TearDown() override { unmount(); }
    void mount(DiskAccess access) {
        volume.emplace(image, access);
        ASSERT_NE(volume->volume, nullptr) << volume->problem.text;
        driveSet('C', *volume);
    }
    void unmount() {
        drivesReset();
        EXPECT_TRUE(!volume || volume->close() >= 0);
        volume.reset();
    }
};

} /* namespace offline */

#endif
