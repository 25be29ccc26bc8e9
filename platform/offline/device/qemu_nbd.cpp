/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/qemu_nbd.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/offline/base/streams.h"
#include "platform/offline/base/unicode.h"
#include "platform/offline/device/disk_file.h"

namespace offline {
namespace {

constexpr size_t longestWords = 300; /* bytes, as they are shown */
constexpr int shortly = 5000;        /* milliseconds in which one ends that nobody is connected to */

/* ---- The socket ---- */

struct Descriptor {
    int number;
    ~Descriptor() {
        if (number >= 0) close(number);
    }
};

int unixSocket() {
    return aboveStandard(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

/* A listening socket with one connection waiting. It bears a name only meanwhile, where no other user can
 * reach it. An errno or 0. */
int connectedPair(int& listening, int& connected) {
    std::array<char, 32> directory = {"/tmp/quillet-XXXXXX"};
    if (mkdtemp(directory.data()) == nullptr) return errno;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s/nbd", directory.data());
    const auto* const name = reinterpret_cast<const sockaddr*>(&address);
    listening = unixSocket();
    connected = unixSocket();
    const bool made = listening >= 0 && connected >= 0 && bind(listening, name, sizeof address) == 0 &&
                      listen(listening, 1) == 0 && connect(connected, name, sizeof address) == 0;
    const int error = made ? 0 : errno;
    unlink(address.sun_path);
    rmdir(directory.data());
    return error;
}

/* ---- What it is told ---- */

/* A string of JSON. */
std::string quoted(const std::string& text) {
    std::string json = "\"";
    for (const char character : text) {
        std::array<char, 8> code = {};
        if (static_cast<unsigned char>(character) < 0x20) {
            snprintf(code.data(), code.size(), "\\u%04x", static_cast<unsigned>(character));
            json += code.data();
            continue;
        }
        if (character == '"' || character == '\\') json += '\\';
        json += character;
    }
    return json + "\"";
}

} /* namespace */

const char* qemuFormatName(DiskFormat format) {
    return format == DiskFormat::vhd ? "vpc" : formatName(format);
}

std::string absolutePath(const std::string& path) {
    std::error_code noDirectory;
    std::string whole = std::filesystem::absolute(path, noDirectory);
    return noDirectory ? "" : whole;
}

bool isUtf8(const std::string& text) {
    return toUtf8(toUtf16(text)) == text;
}

std::string qemuImage(const ImageChain& chain, bool readOnly) {
    std::string image, ends;
    for (size_t i = 0; i < chain.files.size(); ++i) {
        const ImageFile& file = chain.files[i];
        const std::string path = absolutePath(file.path);
        struct stat info = {};
        if (path.empty() || !isUtf8(path)) return ""; /* JSON has no other text */
        const bool device = stat(path.c_str(), &info) == 0 && S_ISBLK(info.st_mode);
        image += std::string("{\"driver\":\"") + qemuFormatName(file.format) +
                 "\",\"read-only\":" + (readOnly || i > 0 ? "true" : "false") +
                 ",\"discard\":\"unmap\",\"file\":{\"driver\":\"" + (device ? "host_device" : "file") +
                 "\",\"filename\":" + quoted(path) + "}";
        ends += '}';
        const bool last = i + 1 == chain.files.size();
        const bool mayGoOn = file.format == DiskFormat::qcow2 || file.format == DiskFormat::vmdk;
        if (!last) image += ",\"backing\":";
        if (last && mayGoOn) image += ",\"backing\":null";
    }
    return "json:" + image + ends;
}

QemuNbd::~QemuNbd() {
    if (socket >= 0) close(socket);
}

std::string QemuNbd::words() const {
    std::string text = program.words();
    const size_t name = text.find("Failed to blk_new_open '"), end = text.find("': ", name);
    if (name != std::string::npos && end != std::string::npos) text.erase(name, end + 3 - name);
    if (text.size() > longestWords) text.replace(longestWords, std::string::npos, "...");
    return text;
}

NTSTATUS QemuNbd::refuseDisk(const std::string& disk, const std::string& error, Problem& problem) {
    const bool over = program.endsWithin(shortly);
    std::string said = words();
    if (said.empty()) said = over ? "it ended with status " + std::to_string(program.status()) : error;
    if (said.find("\" lock") != std::string::npos) {
        const NTSTATUS status = refuseInUse(disk, problem);
        problem.text += " (qemu-nbd: " + said + ")";
        return status;
    }
    return refuse(problem, STATUS_UNRECOGNIZED_VOLUME, disk + ": qemu-nbd does not serve it: " + said);
}

NTSTATUS qemuNbdStart(const std::string& disk, const QemuServing& serving, QemuNbd& server,
                      Problem& problem) {
    if (serving.image.empty()) {
        return refuse(problem, STATUS_OBJECT_NAME_INVALID,
                      disk + ": its path, or that of a backing file, is no UTF-8; rename it");
    }
    Descriptor listening{-1};
    int error = connectedPair(listening.number, server.socket);
    std::vector<std::string> arguments = {"--discard=unmap"};
    if (serving.readOnly) arguments.emplace_back("--read-only");
    if (serving.scratch) arguments.emplace_back("--cache=unsafe");
    if (serving.ioUring) arguments.emplace_back("--aio=io_uring");
    if (serving.isAddress) arguments.emplace_back("--format=raw");
    arguments.insert(arguments.end(), {"--", serving.image});
    if (error == 0) error = server.program.start("qemu-nbd", arguments, listening.number);
    if (error == 0) return STATUS_SUCCESS;
    if (error == ENOENT) {
        return refuse(problem, STATUS_NOT_SUPPORTED,
                      disk +
                          ": it needs the program qemu-nbd, which is not on PATH; install it (package "
                          "qemu-utils), or convert the disk to a raw one");
    }
    return refuse(problem, STATUS_IO_DEVICE_ERROR,
                  disk + ": qemu-nbd can't be started (" + std::strerror(error) + ")");
}

} /* namespace offline */
