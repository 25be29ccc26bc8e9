/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/practice/sample_files.h"

#include "companion/ending.h"
#include "companion/formatting.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/base/unicode.h"

namespace companion {
namespace {

using offline::FileRef;
using offline::NewFile;

struct Filler {
    offline::Volume& volume;
    const std::string& image;
    size_t entries = 1; /* the root directory */

    void check(NTSTATUS status, std::u16string_view name) const {
        if (status >= 0) return;
        const std::string what = image + ": " + offline::toUtf8(name);
        if (status == STATUS_DISK_FULL) throw Failure{what + " does not fit; give a larger --size"};
        throw Failure{what + " can't be made (" + statusText(status) +
                      "); check the disk that the image is on"};
    }

    FileRef create(FileRef directory, std::u16string_view name, NewFile kind, const ByteVector& descriptor) {
        FileRef file;
        check(offline::volumeCreate(volume, directory, name, kind, descriptor, file), name);
        entries++;
        return file;
    }

    void write(FileRef file, std::u16string_view name, const ByteVector& bytes) const {
        check(offline::volumeWriteFile(volume, file, 0, bytes), name);
    }

    /* The directory of a path and the name in it; the directory must be there. */
    FileRef parentOf(std::u16string_view path, std::u16string_view& name) const {
        const size_t slash = path.rfind(u'\\');
        name = slash == path.npos ? path : path.substr(slash + 1);
        FileRef directory = offline::rootDirectory;
        if (slash != path.npos) check(offline::volumeFind(volume, path.substr(0, slash), directory), path);
        return directory;
    }

    FileRef makePath(std::u16string_view path, NewFile kind, const ByteVector& descriptor) {
        std::u16string_view name;
        const FileRef directory = parentOf(path, name);
        return create(directory, name, kind, descriptor);
    }
};

/* ---- What every installation has ---- */

const char16_t* const plainDirectories[] = {
    u"Windows",
    u"Windows\\System32",
    u"Windows\\System32\\config",
    u"Windows\\System32\\config\\systemprofile",
    u"Windows\\System32\\drivers",
    u"Windows\\ServiceProfiles",
    u"Windows\\ServiceProfiles\\LocalService",
    u"Windows\\ServiceProfiles\\NetworkService",
    u"Program Files",
    u"Program Files\\Practice",
    u"ProgramData",
    u"Users",
    u"Users\\Public",
};

const char16_t* const plainFiles[] = {
    u"Windows\\System32\\ntoskrnl.exe",
    u"Windows\\System32\\drivers\\disk.sys",
    u"Windows\\win.ini",
    u"Program Files\\Practice\\service.exe",
};

struct User {
    const char16_t* name;
    uint32_t rid;
    uint32_t hiveVersion;
};
constexpr User users[] = {{u"alice", 1000, 5}, {u"bob", 1001, 6}};

const char16_t* const userDirectories[] = {u"Desktop", u"Documents", u"AppData", u"AppData\\Local",
                                           u"AppData\\Local\\Temp"};

void makeSystem(Filler& filler, const Machine& machine, const DiskIdentity& disk) {
    const ByteVector plain = plainDescriptor(fileRights);
    for (const char16_t* path : plainDirectories) filler.makePath(path, NewFile::directory, plain);
    for (const char16_t* path : plainFiles) {
        filler.write(filler.makePath(path, NewFile::file, plain), path, utf16Bytes(path));
    }
    const std::pair<const char16_t*, HiveSketch> hives[] = {
        {u"Windows\\System32\\config\\SAM", samHive(machine)},
        {u"Windows\\System32\\config\\SECURITY", securityHive(machine)},
        {u"Windows\\System32\\config\\SOFTWARE", softwareHive(machine)},
        {u"Windows\\System32\\config\\SYSTEM", systemHive(machine, disk)},
        {u"Windows\\System32\\config\\DEFAULT", defaultHive()},
        {u"Windows\\ServiceProfiles\\LocalService\\ntuser.dat", serviceHive(machine, 3)},
        {u"Windows\\ServiceProfiles\\NetworkService\\ntuser.dat", serviceHive(machine, 4)},
    };
    for (const auto& [path, sketch] : hives) {
        filler.write(filler.makePath(path, NewFile::file, plain), path, makeHive(sketch));
    }
}

void makeUser(Filler& filler, const Machine& machine, const User& user) {
    const std::u16string home = std::u16string(u"Users\\") + user.name;
    const ByteVector own = profileDescriptor(machine, user.rid, fileRights);
    filler.makePath(home, NewFile::directory, own);
    for (const char16_t* name : userDirectories) {
        filler.makePath(home + u"\\" + name, NewFile::directory, own);
    }
    const FileRef hive = filler.makePath(home + u"\\NTUSER.DAT", NewFile::file, own);
    filler.write(hive, u"NTUSER.DAT", makeHive(userHive(machine, user.rid, user.hiveVersion)));
    filler.check(offline::volumeSetAttributes(filler.volume, hive, FILE_ATTRIBUTE_HIDDEN), home);
}

/* ---- What a walk must bear ---- */

constexpr uint32_t depth = 60; /* directories below one another: a path of more than 260 characters */

void makeDepth(Filler& filler, const std::vector<ByteVector>& descriptors) {
    FileRef at = filler.makePath(u"Users\\bob\\Documents\\deep", NewFile::directory, descriptors[0]);
    for (uint32_t i = 0; i < depth; i++) {
        const ByteVector& descriptor = descriptors[i % descriptors.size()];
        at = filler.create(at, u"level " + paddedDecimal(i, 2), NewFile::directory, descriptor);
    }
    filler.create(at, u"at the bottom.txt", NewFile::file, descriptors[0]);
}

void makeNames(Filler& filler, const std::vector<ByteVector>& descriptors) {
    const std::u16string names[] = {
        u"Größe und Ärger.txt",
        u"Ключ.txt",
        u"日本語.txt",
        u"smile \U0001F600.txt",
        u"  two spaces before.txt",
        std::u16string(255, u'n'),
        u"CASE",
        u"percent %SystemRoot%.txt",
    };
    const FileRef directory =
        filler.makePath(u"Users\\alice\\Documents\\Ünïcode", NewFile::directory, descriptors[0]);
    for (size_t i = 0; i < std::size(names); i++) {
        filler.create(directory, names[i], NewFile::file, descriptors[i % descriptors.size()]);
    }
}

/* A junction back to where it came from, a file with two names, one that may not be written. */
void makeOddities(Filler& filler, const std::vector<ByteVector>& descriptors) {
    const FileRef junction =
        filler.makePath(u"Users\\alice\\My Windows", NewFile::directory, descriptors.front());
    filler.check(offline::volumeCreateJunction(filler.volume, junction, u"C:\\Windows"), u"My Windows");
    const FileRef linked =
        filler.makePath(u"Users\\alice\\Documents\\one.txt", NewFile::file, descriptors[0]);
    std::u16string_view name;
    const FileRef directory = filler.parentOf(u"Users\\bob\\Documents\\two.txt", name);
    filler.check(offline::volumeLink(filler.volume, linked, directory, name), name);
    filler.entries++;
    const FileRef readOnly =
        filler.makePath(u"Users\\bob\\Documents\\read only.txt", NewFile::file, descriptors.back());
    filler.check(offline::volumeSetAttributes(filler.volume, readOnly,
                                              FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_SYSTEM),
                 u"read only.txt");
}

void makeOrdinary(Filler& filler, const std::vector<ByteVector>& descriptors, size_t files) {
    constexpr uint32_t filesInFolder = 20;
    const ByteVector plain = plainDescriptor(fileRights);
    FileRef documents[std::size(users)];
    for (size_t i = 0; i < std::size(users); i++) {
        std::u16string_view name;
        documents[i] = filler.parentOf(std::u16string(u"Users\\") + users[i].name + u"\\Documents\\x", name);
    }
    FileRef folder = offline::rootDirectory;
    offline::progressBegin({"Files made", files});
    for (uint32_t i = 0; i < files; i++) {
        const ByteVector& descriptor = descriptors[i % descriptors.size()];
        const uint32_t number = i / filesInFolder;
        if (i % filesInFolder == 0) {
            folder =
                filler.create(documents[number % std::size(users)], u"Folder " + paddedDecimal(number, 4),
                              NewFile::directory, descriptors[number % descriptors.size()]);
        }
        const std::u16string name = u"file " + paddedDecimal(i % filesInFolder, 2) + u".txt";
        const FileRef file = filler.create(folder, name, NewFile::file, i % 9 == 0 ? plain : descriptor);
        if (i % 50 == 0) filler.write(file, name, ByteVector(size_t{i} % 5000 + 1, 'x'));
        offline::progressAdd();
    }
}

} /* namespace */

size_t fillVolume(offline::Volume& volume, const Machine& machine, const DiskIdentity& disk,
                  const FilesWanted& wanted, const std::string& image) {
    Filler filler{volume, image};
    const std::vector<ByteVector> descriptors = descriptorVariety(machine, fileRights, wanted.descriptors);
    filler.check(offline::volumeSetDescriptor(volume, offline::rootDirectory, rootDescriptor(machine)),
                 u"the root directory");
    makeSystem(filler, machine, disk);
    for (const User& user : users) makeUser(filler, machine, user);
    makeDepth(filler, descriptors);
    makeNames(filler, descriptors);
    makeOddities(filler, descriptors);
    makeOrdinary(filler, descriptors, wanted.files);
    return filler.entries;
}

} /* namespace companion */
