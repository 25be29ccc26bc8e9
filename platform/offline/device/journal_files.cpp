/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/journal_files.h"

#include <algorithm>
#include <cerrno>

namespace offline {

int JournalFile::create(JournalFiles& in, const std::string& path) {
    close();
    size = 0;
    const int error = in.create(path, number);
    if (error == 0) files = &in;
    return error;
}

int JournalFile::open(JournalFiles& in, const std::string& path) {
    close();
    const int error = in.open(path, number, size);
    if (error == 0) files = &in;
    return error;
}

void JournalFile::close() {
    if (files != nullptr) files->close(number);
    files = nullptr;
}

int JournalFile::write(uint64_t offset, Bytes bytes) {
    while (!bytes.empty()) {
        size_t done = 0;
        if (const int error = files->write(number, offset, bytes, done)) return error;
        if (done == 0) return EIO;
        offset += done;
        bytes = bytes.subspan(done);
    }
    return 0;
}

int JournalFile::read(uint64_t offset, std::span<uint8_t> bytes) {
    while (!bytes.empty()) {
        size_t done = 0;
        if (const int error = files->read(number, offset, bytes, done)) return error;
        if (done == 0) return deviceShrank;
        offset += done;
        bytes = bytes.subspan(done);
    }
    return 0;
}

std::string directoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

namespace {

int copyContents(JournalFile& source, JournalFile& copy) {
    ByteVector buffer(size_t{1} << 20);
    for (uint64_t offset = 0; offset < source.size;) {
        const auto part = static_cast<size_t>(std::min<uint64_t>(source.size - offset, buffer.size()));
        int error = source.read(offset, std::span(buffer).first(part));
        if (error == 0) error = copy.write(offset, Bytes(buffer).first(part));
        if (error != 0) return error;
        offset += part;
    }
    return copy.flush();
}

} /* namespace */

int copyFile(JournalFiles& files, const std::string& from, const std::string& to) {
    JournalFile source, copy;
    int error = source.open(files, from);
    if (error == 0) error = copy.create(files, to);
    if (error == EEXIST && files.remove(to) == 0) error = copy.create(files, to);
    if (error != 0) return error;
    error = copyContents(source, copy);
    if (error == 0) error = files.flushDirectory(directoryOf(to));
    if (error != 0) files.remove(to);
    return error;
}

} /* namespace offline */
