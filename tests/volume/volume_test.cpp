/* SPDX-License-Identifier: GPL-2.0-or-later */
#include <algorithm>

#include "tests/volume/images.h"

namespace offline::images {
namespace {

struct VolumeTest : FreshVolumeTest {
    void expectRefused(NTSTATUS status, const std::string& words) const {
        const ByteVector before = readFile(image);
        for (DiskAccess access : {DiskAccess::readWrite, DiskAccess::trial, DiskAccess::readOnly}) {
            {
                const OpenVolume opened(image, access);
                EXPECT_EQ(opened.volume, nullptr);
                EXPECT_EQ(opened.problem.status, status) << words;
                EXPECT_TRUE(opened.problem.text.starts_with(image)) << opened.problem.text;
                EXPECT_NE(opened.problem.text.find(words), std::string::npos) << opened.problem.text;
            }
            EXPECT_EQ(readFile(image), before);
        }
    }
};

/* A journal in use: the restart pages that Windows leaves while the volume is mounted, as published. */
void markJournalInUse(ByteVector& image) {
    const ByteVector unused(64 * 1024, 0xFF);
    const auto journal = std::search(image.begin(), image.end(), unused.begin(), unused.end());
    ASSERT_NE(journal, image.end());
    const auto start = static_cast<size_t>(journal - image.begin());
    constexpr size_t area = 48, client = area + 48;
    const std::pair<size_t, uint32_t> fields[] = {
        {4, 30 | 9 << 16},             /* update sequence */
        {16, 4096},                    /* bytes of a system page */
        {20, 4096},                    /* and of a log page */
        {24, area | 1 << 16},          /* restart area, minor version */
        {28, 1 | 1 << 16},             /* major version, update sequence number */
        {area + 8, 1 | 0xFFFFu << 16}, /* clients; none free, the first in use */
        {area + 16, 46},               /* 67 less the bits of the file's size */
        {area + 20, 208 | 48 << 16},   /* bytes of the area, offset of the client */
        {area + 24, 2 * mebibyte - 4096},
        {area + 36, 48 | 64 << 16},
        {client + 16, 0xFFFFFFFF}, /* no client before or after it */
        {client + 28, 8},
    };
    for (size_t page : {start, start + 4096}) {
        std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(page), 4096, uint8_t{0});
        putText(image, page, "RSTR");
        for (const auto& [at, value] : fields) put(image, page + at, value);
        for (size_t sector = 0; sector < 8; ++sector) put<uint16_t>(image, page + 512 * sector + 510, 1);
    }
}

TEST_F(VolumeTest, RefusesWhatMustNotBeWritten) {
    const ByteVector fresh = readFile(image);
    for (const char* signature : {"hibr", "HIBR"}) {
        writeFile(image, fresh);
        changed([&](OpenVolume& opened) {
            ByteVector hibernation(8192);
            putText(hibernation, 0, signature);
            ASSERT_EQ(volumeWriteFile(opened, opened.make(u"hiberfil.sys"), 0, hibernation), STATUS_SUCCESS);
        });
        expectRefused(STATUS_SHARING_VIOLATION, "shutdown /s /t 0");
    }
    ByteVector inUse = fresh;
    markJournalInUse(inUse);
    writeFile(image, inUse);
    expectRefused(STATUS_DISK_CORRUPT_ERROR, "journal");

    /* damage is done to both copies of the MFT's first records. */
    const auto expectDamageRefused = [&](NTSTATUS status, const char* words, const auto& damage) {
        ByteVector damaged = fresh;
        for (const size_t mft : {mftField, mirrorField}) damage(damaged, mft);
        writeFile(image, damaged);
        expectRefused(status, words);
    };
    const auto information = [](size_t at, uint16_t value) { /* a field of the volume's */
                                                             return [=](ByteVector& bytes, size_t mft) {
                                                                 put(bytes, valueAt(bytes, 3, 0x70, mft) + at,
                                                                     value);
                                                             };
    };
    /* As a commit marks it that ended in the middle; the version of NTFS. */
    expectDamageRefused(STATUS_DISK_CORRUPT_ERROR, "marked as dirty", information(10, 1));
    expectDamageRefused(STATUS_NOT_SUPPORTED, "older than version 3.0", information(8, 0x0102));
    for (const FileRef file : {0u, 2u}) { /* the MFT's own record and the journal's: nothing is in them */
        expectDamageRefused(STATUS_DISK_CORRUPT_ERROR, "damaged", [&](ByteVector& bytes, size_t mft) {
            const size_t at = recordAt(bytes, file, mft);
            put<uint16_t>(bytes, at + 20, static_cast<uint16_t>(numberAt<uint16_t>(bytes, at + 24) - 8));
        });
    }
}

TEST_F(VolumeTest, LookingChangesNothing) {
    const ByteVector before = changed([](OpenVolume& opened) {
        opened.make(u"file");
        opened.makeDirectory(u"directory");
    });
    for (DiskAccess access : {DiskAccess::readWrite, DiskAccess::readOnly}) {
        for (bool orderly : {true, false}) {
            failures = {};
            OpenVolume opened(image, access);
            ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
            FileRef file = 0, made = 0;
            FileInfo info = {};
            EXPECT_EQ(volumeFind(opened, u"\\FILE", file), STATUS_SUCCESS);
            EXPECT_EQ(volumeFileInfo(opened, file, info), STATUS_SUCCESS);
            EXPECT_EQ(opened.read(file), descriptor(1));
            EXPECT_EQ(opened.names(), (std::vector<std::u16string>{u"directory", u"file"}));
            EXPECT_EQ(volumeFlush(opened), STATUS_SUCCESS);
            EXPECT_FALSE(volumeRefusedChange(opened));
            EXPECT_EQ(volumeReadOnly(opened), access == DiskAccess::readOnly);
            if (volumeReadOnly(opened)) {
                for (const NTSTATUS status :
                     {volumeSetDescriptor(opened, file, descriptor(7)),
                      volumeWriteFile(opened, file, 0, ByteVector(1)), volumeSetAttributes(opened, file, 1),
                      volumeLink(opened, file, rootDirectory, u"other"),
                      volumeCreateJunction(opened, file, u"C:\\x"),
                      volumeCreate(opened, rootDirectory, u"new", NewFile::file, descriptor(1), made)}) {
                    EXPECT_EQ(status, STATUS_MEDIA_WRITE_PROTECTED);
                    EXPECT_TRUE(volumeRefusedChange(opened));
                }
            }
            EXPECT_EQ(orderly ? opened.close() : STATUS_SUCCESS, STATUS_SUCCESS);
            opened.volume.reset();
            opened.disk.reset();
            for (const auto& call : failures.calls) EXPECT_TRUE(call.kind == 'r' || call.kind == 's');
            EXPECT_EQ(readFile(image), before);
        }
    }
}

/* The disk refuses each write or flush, with all that follow; what it refused stays to be written. */
TEST_F(VolumeTest, WhatTheDiskRefusesIsToldWhenClosing) {
    std::vector<FileRef> files;
    const ByteVector before = changed([&](OpenVolume& opened) {
        for (char16_t letter = u'a'; letter <= u'z'; ++letter) files.push_back(opened.make({letter}));
    });
    const auto fresh = [](FileRef file) { return descriptor(static_cast<uint32_t>(file)); };
    for (long Faults::*left : {&Faults::writesLeft, &Faults::flushesLeft}) {
        long turns = 0;
        for (bool refused = true; refused; ++turns) {
            writeFile(image, before);
            failures = {};
            failures.*left = turns;
            OpenVolume opened(image);
            ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
            for (const FileRef file : files)
                EXPECT_EQ(volumeSetDescriptor(opened, file, fresh(file)), STATUS_SUCCESS);
            const NTSTATUS flushed = volumeFlush(opened);
            refused = failures.refused;
            EXPECT_EQ(flushed, refused ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS) << turns;
            EXPECT_EQ(diskWriteReason(*opened.disk), refused ? " (Input/output error)" : "");
            EXPECT_EQ(volumeWriteReason(opened), diskWriteReason(*opened.disk));
            failures = {};
            for (const FileRef file : files) EXPECT_EQ(opened.read(file), fresh(file)) << turns;
            EXPECT_EQ(opened.close(), flushed) << turns;
            OpenVolume again(image, DiskAccess::readOnly);
            for (const FileRef file : files) EXPECT_EQ(again.read(file), fresh(file)) << turns;
        }
        EXPECT_GT(turns, 1);
    }
}

/* Changes of every kind, which must not undo each other, in the volume that made them and after it. */
TEST_F(VolumeTest, KeepsWhatWasMade) {
    const std::u16string longest(255, u'\x00E4'), surrogates = u"\xD800x\xDC00", wide = u"\x03A9\x0416\x4E2D";
    OpenVolume opened(image);
    const FileRef folder = opened.makeDirectory(u"Folder"), large = opened.makeDirectory(u"large"),
                  junction = opened.makeDirectory(u"junction");
    std::vector<FileRef> files;
    for (const std::u16string& name : {longest, surrogates, wide, std::u16string(u"hidden")})
        files.push_back(opened.make(name, descriptor(2), folder));
    const FileRef file = opened.make(u"file");
    ASSERT_EQ(volumeCreateJunction(opened, junction, u"C:\\Windows"), STATUS_SUCCESS);
    std::vector<std::u16string> many; /* several levels and blocks of an index */
    for (int i = 0; i < 700; ++i) {
        const std::string digits = std::to_string(1000 + i * 37 % 700);
        many.push_back(u"a rather long name to fill the index with, number " +
                       std::u16string(digits.begin(), digits.end()));
        opened.make(many.back(), descriptor(1), large);
    }
    std::sort(many.begin(), many.end());

    ByteVector model;
    const auto write = [&](uint64_t offset, size_t count, uint8_t value) {
        const ByteVector bytes(count, value);
        model.resize(std::max<size_t>(model.size(), offset + count));
        std::copy(bytes.begin(), bytes.end(), model.begin() + static_cast<std::ptrdiff_t>(offset));
        ASSERT_EQ(volumeWriteFile(opened, file, offset, bytes), STATUS_SUCCESS);
        ByteVector read;
        ASSERT_EQ(volumeReadFile(opened, file, model.size(), read), STATUS_SUCCESS);
        EXPECT_EQ(read, model);
    };
    write(0, 100, 1); /* in the record */
    ASSERT_EQ(volumeSetDescriptor(opened, file, descriptor(2)), STATUS_SUCCESS);
    write(50, 200, 2);
    write(100, 5000, 3); /* grown out of it */
    ASSERT_EQ(volumeLink(opened, file, folder, u"second name"), STATUS_SUCCESS);
    ASSERT_EQ(volumeSetDescriptor(opened, file, descriptor(1)), STATUS_SUCCESS);
    write(4000, 300'000, 4);
    write(10, 5, 5); /* within */
    ASSERT_EQ(volumeSetAttributes(opened, file, FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY),
              STATUS_SUCCESS);
    ASSERT_EQ(volumeSetDescriptor(opened, file, descriptor(3)), STATUS_SUCCESS);
    write(400'000, 1000, 6); /* after a gap */
    ASSERT_EQ(volumeSetAttributes(opened, files[3], FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM),
              STATUS_SUCCESS);

    const auto check = [&](OpenVolume& current) {
        ASSERT_NE(current.volume, nullptr) << current.problem.text;
        const std::pair<std::u16string, FileRef> paths[] = {
            {u"", rootDirectory},
            {u"folder\\" + std::u16string(255, u'\x00C4'), files[0]},
            {u"\\FOLDER\\" + surrogates, files[1]},
            {u"folder\\\x03C9\x0436\x4E2D", files[2]},
            {u"folder\\Second Name", file},
        };
        FileRef found = 0;
        for (const auto& [path, expected] : paths) {
            EXPECT_EQ(volumeFind(current, path, found), STATUS_SUCCESS);
            EXPECT_EQ(found, expected);
        }
        EXPECT_EQ(current.names(folder),
                  (std::vector<std::u16string>{u"hidden", u"second name", longest, wide, surrogates}));
        EXPECT_EQ(current.names(large), many);
        ByteVector contents;
        EXPECT_EQ(volumeReadFile(current, file, model.size(), contents), STATUS_SUCCESS);
        EXPECT_EQ(contents, model);
        EXPECT_EQ(current.read(file), descriptor(3));
        EXPECT_EQ(current.read(files[2]), descriptor(2));

        FileInfo info = {};
        ASSERT_EQ(volumeFileInfo(current, file, info), STATUS_SUCCESS);
        EXPECT_EQ(info.size, model.size());
        EXPECT_EQ(info.attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY),
                  FILE_ATTRIBUTE_READONLY);
        EXPECT_GT(info.lastWritten, info.created);
        EXPECT_GT(info.created, 0x01D0000000000000u);
        ASSERT_EQ(volumeFileInfo(current, junction, info), STATUS_SUCCESS);
        EXPECT_EQ(info.attributes & ~FILE_ATTRIBUTE_ARCHIVE,
                  FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
        EXPECT_EQ(info.reparseTag, 0xA0000003u);
        ASSERT_EQ(volumeFileInfo(current, 8, info), STATUS_SUCCESS); /* has a named stream alone */
        EXPECT_EQ(info.size, 0u);
        DirectoryListing listing;
        ASSERT_EQ(volumeList(current, rootDirectory, listing), STATUS_SUCCESS);
        for (const DirectoryEntry& entry : listing.entries) {
            EXPECT_EQ(entry.directory, entry.file != file);
            EXPECT_EQ(entry.reparse, entry.file == junction);
        }
        EXPECT_EQ(current.close(), STATUS_SUCCESS);
    };
    check(opened);
    OpenVolume again(image);
    check(again);
    EXPECT_NE(outputOf("ntfsresize -i -f -n " + image).find("You might resize"), std::string::npos);
    const std::string record = std::to_string(file & UINT32_MAX);
    EXPECT_NE(outputOf("istat " + image + " " + record).find("Links: 2"), std::string::npos);
    EXPECT_EQ(copyOf("file"), model);
}

TEST_F(VolumeTest, RefusesWhatIsNotThereOrMayNotBe) {
    OpenVolume opened(image);
    Volume& volume = opened;
    const FileRef folder = opened.makeDirectory(u"folder"), junction = opened.makeDirectory(u"junction");
    const FileRef file = opened.make(u"hidden", descriptor(1), folder), full = opened.make(u"full");
    ASSERT_EQ(volumeCreateJunction(volume, junction, u"C:\\Windows"), STATUS_SUCCESS);
    const std::pair<std::u16string, NTSTATUS> paths[] = {
        {u"missing\\x", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"folder\\missing", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"folder\\hidden\\x", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"junction\\system32", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"folder\\" + std::u16string(300, u'x'), STATUS_OBJECT_NAME_NOT_FOUND},
    };
    FileRef found = 0;
    for (const auto& [path, status] : paths) EXPECT_EQ(volumeFind(volume, path, found), status);
    EXPECT_EQ(volumeLookUp(volume, file, u"x", found), STATUS_NOT_A_DIRECTORY);
    DirectoryListing listing;
    EXPECT_EQ(volumeList(volume, file, listing), STATUS_NOT_A_DIRECTORY);
    const std::pair<std::u16string, NTSTATUS> names[] = {
        {u"HIDDEN", STATUS_OBJECT_NAME_COLLISION}, {u"a/b", STATUS_OBJECT_NAME_INVALID},
        {u"a?", STATUS_OBJECT_NAME_INVALID},       {u"", STATUS_OBJECT_NAME_INVALID},
        {u"end.", STATUS_OBJECT_NAME_INVALID},     {std::u16string(256, u'x'), STATUS_OBJECT_NAME_INVALID},
    };
    for (const auto& [name, status] : names) {
        EXPECT_EQ(volumeCreate(volume, folder, name, NewFile::file, descriptor(1), found), status);
        EXPECT_EQ(volumeLink(volume, full, folder, name), status);
    }
    EXPECT_EQ(volumeLink(volume, folder, rootDirectory, u"no"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(volumeCreateJunction(volume, folder, u"C:\\Windows"), STATUS_ACCESS_DENIED); /* not empty */

    FileInfo info = {};
    ByteVector read;
    for (FileRef last : {file, full}) { /* the record at hand is the stale one's, or another */
        for (FileRef stale : {FileRef{1} << 40, file + (FileRef{1} << 48), FileRef{60}}) {
            EXPECT_EQ(volumeFileInfo(volume, last, info), STATUS_SUCCESS);
            EXPECT_EQ(volumeFileInfo(volume, stale, info), STATUS_FILE_CORRUPT_ERROR) << stale;
        }
    }
    EXPECT_EQ(volumeWriteFile(volume, full, 0, ByteVector(16 * mebibyte)), STATUS_DISK_FULL);
    EXPECT_EQ(volumeWriteFile(volume, 0, 0, read), STATUS_ACCESS_DENIED); /* $MFT */
    ASSERT_EQ(volumeWriteFile(volume, file, 0, ByteVector(100)), STATUS_SUCCESS);
    EXPECT_EQ(volumeReadFile(volume, file, 99, read), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(volumeReadFile(volume, rootDirectory, 1000, read), STATUS_ACCESS_DENIED);
}

TEST_F(VolumeTest, ADamagedRecordIsRefused) {
    FileRef file = 0;
    const ByteVector sound = changed([&](OpenVolume& opened) { file = opened.make(u"file"); });
    const size_t record = recordAt(sound, file), first = attributeAt(sound, file, 0x10);
    const struct {
        const char* what;
        size_t at;
        uint32_t value;
    } damages[] = {
        {.what = "no mark", .at = record, .value = 0},
        {.what = "no update sequence", .at = record + 4, .value = 3 << 16},
        {.what = "update sequence too long", .at = record + 4, .value = 4 << 16 | 48},
        {.what = "attributes beyond what is used", .at = record + 20, .value = 1 << 16 | 0x3F8},
        {.what = "deleted", .at = record + 20, .value = 56},
        {.what = "more used than there is", .at = record + 24, .value = 0x7FFFFFFF},
        {.what = "part of another record", .at = record + 32, .value = 5},
        {.what = "attribute of no length", .at = first + 4, .value = 0},
        {.what = "attribute of an odd length", .at = first + 4, .value = 97},
        {.what = "attribute beyond the record", .at = first + 4, .value = 0x7FFFFFF8},
        {.what = "value beyond its attribute", .at = first + 16, .value = 0x7FFFFFFF},
        {.what = "value too short", .at = first + 16, .value = 40},
        {.what = "no standard information", .at = first, .value = 0x20},
        {.what = "standard information with a name", .at = first + 8, .value = 24 << 16 | 1 << 8},
    };
    for (const auto& damage : damages) {
        ByteVector bytes = sound;
        put(bytes, damage.at, damage.value);
        writeFile(image, bytes);
        OpenVolume opened(image, DiskAccess::readOnly);
        ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
        FileInfo info = {};
        EXPECT_EQ(volumeFileInfo(opened, file, info), STATUS_FILE_CORRUPT_ERROR) << damage.what;
    }
}

} /* namespace */
} /* namespace offline::images */
