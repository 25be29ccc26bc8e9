/* SPDX-License-Identifier: GPL-2.0-or-later */
/* scattered_image IMAGE SID DIRECTORIES FILES DESCRIPTORS: adds to the first NTFS volume of an image
 * DIRECTORIES directories with FILES files in each, made round by round, so that the files of a directory lie
 * far from each other in the MFT, and of as many different descriptors, which name accounts of the machine
 * SID. */
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/made_descriptor.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/volume/volume.h"

namespace {

using namespace offline;

constexpr size_t inFolder = 250; /* directories that lie in one other */

[[noreturn]] void fail(const std::string& why) {
    fprintf(stderr, "scattered_image: %s\n", why.c_str());
    exit(1);
}

void check(NTSTATUS status, const char* what) {
    if (status < 0) fail(std::string(what) + ": status " + std::to_string(static_cast<uint32_t>(status)));
}

struct Maker {
    Volume& volume;
    const std::string machine;
    const size_t descriptors;
    size_t made = 0;

    FileRef make(FileRef directory, const std::string& name, NewFile kind) {
        FileRef file = 0;
        const std::vector<uint8_t> descriptor = descriptorOf(machine, made++ % descriptors);
        check(volumeCreate(volume, directory, toUtf16(name), kind, descriptor, file), name.c_str());
        return file;
    }
    /* Neighbours in the tree are made with others between them. */
    void fill(size_t directories, size_t files) {
        const FileRef top = make(rootDirectory, "Scattered", NewFile::directory);
        std::vector<FileRef> folders, below(directories);
        for (size_t i = 0; i < (directories + inFolder - 1) / inFolder; ++i)
            folders.push_back(make(top, "folder " + std::to_string(i), NewFile::directory));
        for (size_t i = 0; i < directories; ++i)
            below[i] =
                make(folders[i % folders.size()], "directory " + std::to_string(i), NewFile::directory);
        for (size_t round = 0; round < files; ++round) {
            for (const FileRef directory : below)
                make(directory, "file " + std::to_string(round), NewFile::file);
        }
    }
};

size_t number(const char* text) {
    const size_t value = strtoull(text, nullptr, 10);
    if (value == 0) fail(std::string(text) + ": no number");
    return value;
}

} /* namespace */

int main(int count, char** words) {
    if (count != 6) fail("usage: scattered_image IMAGE SID DIRECTORIES FILES DESCRIPTORS");
    DiskPtr disk;
    VolumePtr volume;
    Problem problem;
    std::vector<Partition> partitions;
    NTSTATUS status = diskOpen(DiskName(words[1]), DiskAccess::readWrite, disk, problem);
    if (status >= 0) status = diskPartitions(*disk, partitions, problem);
    if (status >= 0) status = volumeOpen(*disk, partitions.front(), volume, problem);
    if (status < 0) fail(problem.text);
    Maker maker{*volume, words[2], number(words[5])};
    maker.fill(number(words[3]), number(words[4]));
    check(volumeClose(std::move(volume)), words[1]);
    printf("%zu entries\n", maker.made);
}
