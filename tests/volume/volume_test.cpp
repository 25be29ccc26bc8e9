#include <algorithm>
#include <cstring>
#include <random>

#include "tests/volume/images.h"

using namespace offline;
using images::ByteVector;
using images::descriptor;
using images::OpenVolume;

namespace {

struct VolumeTest : images::ImageTest {
    void expectRefused(const std::string& image, NTSTATUS status, const std::string& words) {
        for (DiskAccess access : {DiskAccess::readWrite, DiskAccess::readOnly}) {
            ByteVector before = images::readFile(image);
            OpenVolume opened(image, access);
            EXPECT_EQ(opened.volume, nullptr);
            EXPECT_EQ(opened.problem.status, status) << words;
            EXPECT_TRUE(opened.problem.text.starts_with(image)) << opened.problem.text;
            EXPECT_NE(opened.problem.text.find(words), std::string::npos) << opened.problem.text;
            opened.disk.reset();
            EXPECT_EQ(images::readFile(image), before);
        }
    }
    static FileRef make(OpenVolume& opened, std::u16string_view name, NewFile kind = NewFile::file,
                        FileRef directory = rootDirectory) {
        FileRef file = 0;
        EXPECT_EQ(volumeCreate(opened.get(), directory, name, kind, descriptor(1000), file), STATUS_SUCCESS);
        return file;
    }
    static std::vector<std::u16string> names(OpenVolume& opened, FileRef directory = rootDirectory) {
        DirectoryListing listing;
        EXPECT_EQ(volumeList(opened.get(), directory, listing), STATUS_SUCCESS);
        std::vector<std::u16string> result;
        for (const DirectoryEntry& entry : listing.entries) result.emplace_back(listing.name(entry));
        return result;
    }
};

/* A journal in use: the restart page that Windows leaves while the volume is mounted, as published. */
void markJournalInUse(ByteVector& image, size_t journal) {
    using images::put;
    constexpr size_t area = 48, clients = 48;
    for (size_t page : {journal, journal + 4096}) {
        std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(page), 4096, uint8_t{0});
        images::putText(image, page, "RSTR");
        put<uint16_t>(image, page + 4, 30);
        put<uint16_t>(image, page + 6, 9);
        put<uint32_t>(image, page + 16, 4096);
        put<uint32_t>(image, page + 20, 4096);
        put<uint16_t>(image, page + 24, area);
        put<uint16_t>(image, page + 26, 1);
        put<uint16_t>(image, page + 28, 1);
        put<uint16_t>(image, page + area + 8, 1);       /* clients */
        put<uint16_t>(image, page + area + 10, 0xFFFF); /* none free */
        put<uint16_t>(image, page + area + 12, 0);      /* the first in use */
        put<uint32_t>(image, page + area + 16, 46);     /* 67 less the bits of the file's size */
        put<uint16_t>(image, page + area + 20, 208);
        put<uint16_t>(image, page + area + 22, clients);
        put<uint64_t>(image, page + area + 24, 2 * images::mebibyte - 4096);
        put<uint16_t>(image, page + area + 36, 48);
        put<uint16_t>(image, page + area + 38, 64);
        put<uint16_t>(image, page + area + clients + 16, 0xFFFF);
        put<uint16_t>(image, page + area + clients + 18, 0xFFFF);
        put<uint32_t>(image, page + area + clients + 28, 8);
        put<uint16_t>(image, page + 30, 1);
        for (size_t sector = 0; sector < 8; ++sector) put<uint16_t>(image, page + 512 * sector + 510, 1);
    }
}

TEST_F(VolumeTest, RefusesWhatMustNotBeWritten) {
    ByteVector fresh = ntfs();
    std::string image = path("volume.img");
    auto made = [&](auto change) {
        images::writeFile(image, fresh);
        change();
    };
    for (const char* signature : {"hibr", "HIBR"}) {
        made([&] {
            OpenVolume opened(image);
            ByteVector hibernation(8192);
            images::putText(hibernation, 0, signature);
            FileRef file = make(opened, u"hiberfil.sys");
            ASSERT_EQ(volumeWriteFile(opened.get(), file, 0, hibernation), STATUS_SUCCESS);
            ASSERT_EQ(opened.close(), STATUS_SUCCESS);
        });
        expectRefused(image, STATUS_SHARING_VIOLATION, "shutdown /s /t 0");
    }
    made([&] { /* a run that ended in the middle */
               OpenVolume opened(image);
               make(opened, u"file");
    });
    expectRefused(image, STATUS_DISK_CORRUPT_ERROR, "marked as dirty");
    EXPECT_NE(images::outputOf("ntfsinfo -fm " + image).find("Volume Flags: 0x0001 DIRTY"),
              std::string::npos);
    made([&] {
        ByteVector inUse = fresh;
        const ByteVector unused(64 * 1024, 0xFF);
        auto journal = std::search(inUse.begin(), inUse.end(), unused.begin(), unused.end());
        ASSERT_NE(journal, inUse.end());
        markJournalInUse(inUse, static_cast<size_t>(journal - inUse.begin()));
        images::writeFile(image, inUse);
    });
    expectRefused(image, STATUS_DISK_CORRUPT_ERROR, "journal");
    made([&] { /* the first record of the MFT, and its mirror */
               ByteVector damaged = fresh;
               size_t cluster = damaged[0x0D] * size_t{512};
               damaged[images::get<uint64_t>(damaged, 0x30) * cluster] = 'X';
               damaged[images::get<uint64_t>(damaged, 0x38) * cluster] = 'X';
               images::writeFile(image, damaged);
    });
    expectRefused(image, STATUS_DISK_CORRUPT_ERROR, "damaged");
}

TEST_F(VolumeTest, LookingChangesNothing) {
    std::string image = ntfsImage();
    {
        OpenVolume opened(image);
        make(opened, u"file");
        make(opened, u"directory", NewFile::directory);
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    }
    ByteVector before = images::readFile(image);
    for (DiskAccess access : {DiskAccess::readWrite, DiskAccess::readOnly}) {
        for (bool orderly : {true, false}) {
            images::failures = {};
            OpenVolume opened(image, access);
            ASSERT_NE(opened.volume, nullptr) << opened.problem.text;
            FileRef file = 0;
            FileInfo info = {};
            std::span<const uint8_t> bytes;
            EXPECT_EQ(volumeFind(opened.get(), u"\\FILE", file), STATUS_SUCCESS);
            EXPECT_EQ(volumeFileInfo(opened.get(), file, info), STATUS_SUCCESS);
            EXPECT_EQ(volumeDescriptor(opened.get(), file, bytes), STATUS_SUCCESS);
            EXPECT_EQ(names(opened), (std::vector<std::u16string>{u"directory", u"file"}));
            EXPECT_EQ(volumeFlush(opened.get()), STATUS_SUCCESS);
            EXPECT_EQ(orderly ? opened.close() : STATUS_SUCCESS, STATUS_SUCCESS);
            opened.volume.reset();
            opened.disk.reset();
            for (const auto& call : images::failures.calls) EXPECT_NE(call.first, 'w');
            EXPECT_EQ(images::readFile(image), before);
        }
    }
}

TEST_F(VolumeTest, AReadOnlyDiskIsNeverChanged) {
    std::string image = ntfsImage();
    {
        OpenVolume opened(image);
        make(opened, u"file");
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    }
    ByteVector before = images::readFile(image);
    OpenVolume opened(image, DiskAccess::readOnly);
    Volume& volume = opened.get();
    FileRef file = 0, made = 0;
    ASSERT_EQ(volumeFind(volume, u"file", file), STATUS_SUCCESS);
    EXPECT_TRUE(volumeReadOnly(volume));
    EXPECT_FALSE(volumeRefusedChange(volume));
    EXPECT_EQ(volumeSetDescriptor(volume, file, descriptor(7)), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_TRUE(volumeRefusedChange(volume));
    EXPECT_EQ(volumeWriteFile(volume, file, 0, ByteVector(1)), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(volumeSetAttributes(volume, file, 1), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(volumeLink(volume, file, rootDirectory, u"other"), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(volumeCreateJunction(volume, file, u"C:\\x"), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(volumeCreate(volume, rootDirectory, u"new", NewFile::file, descriptor(1), made),
              STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(opened.close(), STATUS_SUCCESS);
    EXPECT_EQ(images::readFile(image), before);
}

/* Whether the $Volume record has the dirty mark. */
bool marked(const ByteVector& image) {
    size_t record = images::get<uint64_t>(image, 0x30) * image[0x0D] * 512 + size_t{3} * 1024;
    size_t at = record + images::get<uint16_t>(image, record + 20);
    while (images::get<uint32_t>(image, at) < 0x70) at += images::get<uint32_t>(image, at + 4);
    EXPECT_EQ(images::get<uint32_t>(image, at), 0x70u);
    return (image.at(at + images::get<uint16_t>(image, at + 20) + 10) & 1) != 0;
}

/* The system stops after any number of writes: the volume is as before, as after, or marked. */
TEST_F(VolumeTest, AnInterruptedChangeLeavesAMark) {
    std::string image = ntfsImage();
    {
        OpenVolume opened(image);
        for (char16_t letter = u'a'; letter <= u'z'; ++letter) make(opened, {&letter, 1});
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    }
    const ByteVector before = images::readFile(image);
    auto change = [&](long writes) {
        images::writeFile(image, before);
        images::failures = {};
        images::failures.pwritesLeft = writes;
        OpenVolume opened(image);
        NTSTATUS status = STATUS_SUCCESS;
        for (char16_t letter = u'a'; letter <= u'z' && status >= 0; ++letter) {
            FileRef file = 0;
            status = volumeFind(opened.get(), {&letter, 1}, file);
            if (status >= 0) status = volumeSetDescriptor(opened.get(), file, descriptor(letter));
        }
        NTSTATUS closed = opened.close();
        return status < 0 ? status : closed;
    };
    ASSERT_EQ(change(-1), STATUS_SUCCESS);
    const auto calls = images::failures.calls;
    const ByteVector after = images::readFile(image);
    const long writes =
        std::count_if(calls.begin(), calls.end(), [](const auto& call) { return call.first == 'w'; });
    ASSERT_GT(writes, 4);
    for (long left = 0; left < writes; ++left) {
        EXPECT_LT(change(left), 0) << left;
        images::failures = {};
        ByteVector result = images::readFile(image);
        if (result == before || result == after) continue;
        bool atMark = left < 2 || left == writes - 1; /* between the mark and its mirror */
        EXPECT_TRUE(marked(result) || atMark) << left;
        OpenVolume opened(image);
        EXPECT_EQ(opened.problem.status, STATUS_DISK_CORRUPT_ERROR) << left;
    }
    EXPECT_FALSE(marked(after));
    /* A sync stands between the mark and the change, and between the change and taking the mark away. */
    std::string order;
    for (const auto& call : calls) order += call.first;
    EXPECT_TRUE(order.starts_with("wwsw")) << order;
    EXPECT_NE(order.find("wswws"), std::string::npos) << order;
    EXPECT_EQ(std::count(order.begin(), order.end(), 's'), 4) << order; /* the last when the disk is closed */
}

TEST_F(VolumeTest, AFailedSyncIsToldWhenClosing) {
    std::string image = ntfsImage();
    OpenVolume opened(image);
    make(opened, u"file");
    images::failures.fdatasyncsLeft = 0;
    EXPECT_LT(volumeFlush(opened.get()), 0);
    images::failures = {};
    EXPECT_LT(opened.close(), 0);
    OpenVolume again(image);
    EXPECT_EQ(again.volume, nullptr);
}

TEST_F(VolumeTest, Names) {
    std::string image = ntfsImage();
    const std::u16string longest(255, u'\x00E4'), surrogates = u"\xD800x\xDC00", wide = u"\x03A9\x0416\x4E2D";
    OpenVolume opened(image);
    FileRef folder = make(opened, u"Folder", NewFile::directory);
    std::vector<FileRef> files;
    for (const std::u16string& name : {longest, surrogates, wide, std::u16string(u"hidden")}) {
        files.push_back(make(opened, name, NewFile::file, folder));
    }
    ASSERT_EQ(volumeSetAttributes(opened.get(), files[3], FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM),
              STATUS_SUCCESS);
    FileRef found = 0;
    EXPECT_EQ(volumeLookUp(opened.get(), folder, std::u16string(255, u'\x00C4'), found), STATUS_SUCCESS);
    EXPECT_EQ(found, files[0]);
    EXPECT_EQ(volumeFind(opened.get(), u"\\FOLDER\\" + surrogates, found), STATUS_SUCCESS);
    EXPECT_EQ(found, files[1]);
    EXPECT_EQ(volumeFind(opened.get(), u"folder\\\x03C9\x0436\x4E2D", found), STATUS_SUCCESS);
    EXPECT_EQ(found, files[2]);
    EXPECT_EQ(volumeFind(opened.get(), u"", found), STATUS_SUCCESS);
    EXPECT_EQ(found & 0xFFFFFFFF, rootDirectory);
    EXPECT_EQ(names(opened, folder), (std::vector<std::u16string>{u"hidden", longest, wide, surrogates}));

    EXPECT_EQ(volumeFind(opened.get(), u"missing\\x", found), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(volumeFind(opened.get(), u"folder\\missing", found), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(volumeFind(opened.get(), u"folder\\hidden\\x", found), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(volumeLookUp(opened.get(), files[3], u"x", found), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(volumeLookUp(opened.get(), folder, std::u16string(300, u'x'), found),
              STATUS_OBJECT_NAME_NOT_FOUND);
    DirectoryListing listing;
    EXPECT_EQ(volumeList(opened.get(), files[3], listing), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(volumeCreate(opened.get(), folder, u"HIDDEN", NewFile::file, descriptor(1), found),
              STATUS_OBJECT_NAME_COLLISION);
    for (const std::u16string& name : {std::u16string(u"a/b"), std::u16string(u"a?"), std::u16string(u""),
                                       std::u16string(u"end."), std::u16string(256, u'x')}) {
        EXPECT_EQ(volumeCreate(opened.get(), folder, name, NewFile::file, descriptor(1), found),
                  STATUS_OBJECT_NAME_INVALID);
    }
    EXPECT_EQ(volumeFileInfo(opened.get(), FileRef{1} << 40, *std::make_unique<FileInfo>()),
              STATUS_FILE_CORRUPT_ERROR);
    EXPECT_EQ(volumeFileInfo(opened.get(), files[0] + (FileRef{1} << 48), *std::make_unique<FileInfo>()),
              STATUS_FILE_CORRUPT_ERROR);
    EXPECT_EQ(opened.close(), STATUS_SUCCESS);
}

/* Large enough that the index has several levels and blocks. */
TEST_F(VolumeTest, ALargeDirectoryComesInOrder) {
    std::string image = ntfsImage();
    OpenVolume opened(image);
    FileRef folder = make(opened, u"Folder", NewFile::directory);
    std::vector<std::u16string> expected;
    for (int i = 0; i < 700; ++i) {
        std::string digits = std::to_string(1000 + i * 37 % 700);
        std::u16string name = u"a rather long name to fill the index with, number ";
        name.append(digits.begin(), digits.end());
        make(opened, name, NewFile::file, folder);
        expected.push_back(name);
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names(opened, folder), expected);
    EXPECT_EQ(opened.close(), STATUS_SUCCESS);
    EXPECT_NE(images::outputOf("ntfsresize -i -f -n " + image).find("You might resize"), std::string::npos);
}

TEST_F(VolumeTest, LinksJunctionsAttributes) {
    std::string image = ntfsImage();
    OpenVolume opened(image);
    Volume& volume = opened.get();
    FileRef folder = make(opened, u"folder", NewFile::directory), file = make(opened, u"file");
    FileRef junction = make(opened, u"junction", NewFile::directory), found = 0;
    ASSERT_EQ(volumeLink(volume, file, folder, u"second name"), STATUS_SUCCESS);
    EXPECT_EQ(volumeLink(volume, file, folder, u"SECOND NAME"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(volumeLink(volume, folder, rootDirectory, u"no"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(volumeFind(volume, u"folder\\second name", found), STATUS_SUCCESS);
    EXPECT_EQ(found, file);
    EXPECT_EQ(names(opened, folder), std::vector<std::u16string>{u"second name"});
    EXPECT_EQ(volumeCreateJunction(volume, folder, u"C:\\Windows"), STATUS_ACCESS_DENIED); /* not empty */
    ASSERT_EQ(volumeCreateJunction(volume, junction, u"C:\\Windows"), STATUS_SUCCESS);
    EXPECT_EQ(volumeFind(volume, u"junction\\system32", found), STATUS_OBJECT_PATH_NOT_FOUND);
    ASSERT_EQ(volumeSetAttributes(volume, file, FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY),
              STATUS_SUCCESS);

    FileInfo info = {};
    DirectoryListing listing;
    ASSERT_EQ(volumeFileInfo(volume, junction, info), STATUS_SUCCESS);
    EXPECT_EQ(info.attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT),
              FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_EQ(info.reparseTag, 0xA0000003u);
    ASSERT_EQ(volumeList(volume, rootDirectory, listing), STATUS_SUCCESS);
    for (const DirectoryEntry& entry : listing.entries) {
        EXPECT_EQ(entry.directory, entry.file == folder || entry.file == junction);
        EXPECT_EQ(entry.reparse, entry.file == junction);
    }
    ASSERT_EQ(volumeFileInfo(volume, file, info), STATUS_SUCCESS);
    EXPECT_EQ(info.attributes & ~FILE_ATTRIBUTE_ARCHIVE, FILE_ATTRIBUTE_READONLY);
    EXPECT_GT(info.created, 0x01D0000000000000u);
    EXPECT_EQ(opened.close(), STATUS_SUCCESS);
    EXPECT_NE(images::outputOf("istat " + image + " " + std::to_string(file & 0xFFFFFFFF)).find("Links: 2"),
              std::string::npos);
}

TEST_F(VolumeTest, Contents) {
    std::string image = ntfsImage();
    OpenVolume opened(image);
    Volume& volume = opened.get();
    FileRef file = make(opened, u"file");
    ByteVector model, read;
    /* In the record, grown out of it, written within, grown further, after a gap. */
    struct {
        uint64_t offset;
        size_t count;
    } const writes[] = {{0, 100}, {50, 200}, {100, 5000}, {4000, 300'000}, {10, 5}, {400'000, 1000}};
    uint8_t value = 0;
    for (const auto& write : writes) {
        ByteVector bytes(write.count, ++value);
        model.resize(std::max<size_t>(model.size(), write.offset + write.count));
        std::copy(bytes.begin(), bytes.end(), model.begin() + static_cast<std::ptrdiff_t>(write.offset));
        ASSERT_EQ(volumeWriteFile(volume, file, write.offset, bytes), STATUS_SUCCESS);
        ASSERT_EQ(volumeReadFile(volume, file, model.size(), read), STATUS_SUCCESS);
        EXPECT_EQ(read, model);
        FileInfo info = {};
        ASSERT_EQ(volumeFileInfo(volume, file, info), STATUS_SUCCESS);
        EXPECT_EQ(info.size, model.size());
    }
    EXPECT_EQ(volumeReadFile(volume, file, model.size() - 1, read), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_LT(volumeReadFile(volume, rootDirectory, 1000, read), 0);
    EXPECT_EQ(volumeWriteFile(volume, 0, 0, model), STATUS_ACCESS_DENIED); /* $MFT */
    FileRef full = make(opened, u"full");
    EXPECT_EQ(volumeWriteFile(volume, full, 0, ByteVector(16 * images::mebibyte)), STATUS_DISK_FULL);
    opened.volume.reset();
    opened.disk.reset();
    images::outputOf("(ntfscat -f " + image + " /file >" + path("copy") + ")");
    EXPECT_EQ(images::readFile(path("copy")), model);
}

/* Whatever the volume's records and indexes say: no crash, and an end. */
TEST_F(VolumeTest, DamagedMetadata) {
    std::string image = ntfsImage();
    {
        OpenVolume opened(image);
        FileRef folder = make(opened, u"folder", NewFile::directory);
        for (char16_t letter = u'a'; letter <= u'z'; ++letter) {
            make(opened, std::u16string(100, letter), NewFile::file, folder);
        }
        ASSERT_EQ(opened.close(), STATUS_SUCCESS);
    }
    const ByteVector sound = images::readFile(image);
    std::vector<size_t> offsets;
    for (size_t at = 0; at < sound.size(); at += 1024) {
        bool metadata = std::memcmp(&sound[at], "FILE", 4) == 0 || std::memcmp(&sound[at], "INDX", 4) == 0;
        if (metadata) offsets.push_back(at);
    }
    std::mt19937 random(7);
    size_t seen = 0;
    for (int i = 0; i < 120; ++i) {
        ByteVector bytes = sound;
        for (int change = 0; change < 6; ++change) {
            bytes[offsets[random() % offsets.size()] + random() % 512] = static_cast<uint8_t>(random());
        }
        images::writeFile(image, bytes);
        OpenVolume opened(image);
        if (opened.volume == nullptr) continue;
        DirectoryListing listing;
        FileRef folder = rootDirectory, found = 0;
        volumeLookUp(opened.get(), rootDirectory, u"folder", folder);
        if (volumeList(opened.get(), folder, listing) < 0) continue;
        for (const DirectoryEntry& entry : listing.entries) {
            FileInfo info = {};
            std::span<const uint8_t> stored;
            volumeLookUp(opened.get(), folder, listing.name(entry), found);
            volumeFileInfo(opened.get(), entry.file, info);
            if (volumeDescriptor(opened.get(), entry.file, stored) >= 0) ++seen;
            volumeSetDescriptor(opened.get(), entry.file, descriptor(static_cast<uint32_t>(i)));
        }
    }
    EXPECT_GT(seen, 1000u);
}

} /* namespace */
