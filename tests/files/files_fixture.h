/* Drive C: on a fresh NTFS image, and descriptors to put there. */
#ifndef QUILLET_TESTS_FILES_FIXTURE_H
#define QUILLET_TESTS_FILES_FIXTURE_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/offline/descriptor/sid_format.h"
#include "platform/offline/files/drives.h"
#include "platform/offline/security/security.h"
#include "tests/support/privileges.h"

namespace offline {

using ByteVector = std::vector<uint8_t>;

inline void append32(ByteVector& bytes, size_t number) {
    for (size_t i = 0; i < 4; i++) bytes.push_back(static_cast<uint8_t>(number >> (8 * i)));
}

/* Self-relative: the owner, the same as the group, and a DACL that allows one SID these rights. */
inline ByteVector makeDescriptor(const std::string& owner, ACCESS_MASK rights, const std::string& allowed,
                                 unsigned control = 0) {
    const ByteVector ownerSid = sidFromText(owner);
    const ByteVector sid = sidFromText(allowed);
    const size_t list = 20 + 2 * ownerSid.size();
    ByteVector image;
    append32(image, 1 | (SE_SELF_RELATIVE | SE_DACL_PRESENT | control) << 16);
    for (const size_t offset : {size_t{20}, 20 + ownerSid.size(), size_t{0}, list}) append32(image, offset);
    for (int i = 0; i < 2; i++) image.insert(image.end(), ownerSid.begin(), ownerSid.end());
    append32(image, 2 | (16 + sid.size()) << 16);
    append32(image, 1);
    append32(image, ACCESS_ALLOWED_ACE_TYPE | (8 + sid.size()) << 16);
    append32(image, rights);
    image.insert(image.end(), sid.begin(), sid.end());
    return image;
}

inline ByteVector numberedDescriptor(size_t number) {
    return makeDescriptor("S-1-5-21-1-2-3-" + std::to_string(number), 0x1F01FF, "S-1-1-0",
                          SE_DACL_AUTO_INHERITED);
}

inline ByteVector readDescriptor(const std::u16string& path, SECURITY_INFORMATION information = 15) {
    ByteVector bytes(65536);
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

struct FilesTest : testing::Test {
    std::string image = (std::filesystem::temp_directory_path() / "files-XXXXXX").string();
    DiskPtr disk;
    VolumePtr volume;

    void SetUp() override {
        close(mkstemp(image.data()));
        std::filesystem::resize_file(image, 16u << 20);
        const std::string make = "mkntfs -F -Q -q -s 512 -p 2048 -H 255 -S 63 " + image + " >/dev/null 2>&1";
        ASSERT_EQ(system(make.c_str()), 0);
        setAccessMode(AccessMode::unrefused);
        enablePrivilege(securityPrivilege);
        mount(DiskAccess::readWrite);
    }
    void TearDown() override {
        unmount();
        setAccessMode(AccessMode::unrefused);
        std::filesystem::remove(image);
    }

    void mount(DiskAccess access) {
        Problem problem;
        std::vector<Partition> partitions;
        ASSERT_GE(diskOpen(image, access, disk, problem), 0) << problem.text;
        ASSERT_GE(diskPartitions(*disk, partitions, problem), 0) << problem.text;
        ASSERT_GE(volumeOpen(*disk, partitions.at(0), volume, problem), 0) << problem.text;
        driveSet('C', *volume);
    }
    void unmount() {
        drivesReset();
        EXPECT_TRUE(volume == nullptr || volumeClose(std::move(volume)) >= 0);
        disk.reset();
    }

    FileRef make(FileRef directory, std::u16string_view name, NewFile kind,
                 const ByteVector& descriptor = numberedDescriptor(0)) {
        FileRef file = 0;
        EXPECT_GE(volumeCreate(*volume, directory, name, kind, descriptor, file), 0);
        return file;
    }
};

} /* namespace offline */

#endif
