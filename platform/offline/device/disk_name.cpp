/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/disk_name.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace offline {
namespace {

using NamedFormat = std::pair<std::string_view, DiskFormat>;

/* The first name of each is the one to be shown. */
constexpr std::array<NamedFormat, 8> formatNames = {{{"auto", DiskFormat::byName},
                                                     {"raw", DiskFormat::raw},
                                                     {"qcow2", DiskFormat::qcow2},
                                                     {"vmdk", DiskFormat::vmdk},
                                                     {"vhdx", DiskFormat::vhdx},
                                                     {"vhd", DiskFormat::vhd},
                                                     {"vpc", DiskFormat::vhd},
                                                     {"vdi", DiskFormat::vdi}}};

constexpr std::array<NamedFormat, 7> endings = {{{".qcow2", DiskFormat::qcow2},
                                                 {".qcow", DiskFormat::qcow2},
                                                 {".vmdk", DiskFormat::vmdk},
                                                 {".vhdx", DiskFormat::vhdx},
                                                 {".vhd", DiskFormat::vhd},
                                                 {".vpc", DiskFormat::vhd},
                                                 {".vdi", DiskFormat::vdi}}};

constexpr std::string_view nbdSchemes[] = {"nbd://",       "nbds://",      "nbd+unix://",
                                           "nbds+unix://", "nbd+vsock://", "nbds+vsock://"};

/* Those of qemu's that name a disk elsewhere. The others stand for no disk (null-co), build one (json, fat,
 * blkdebug) or name a file (file, host_device): as names they are files. */
constexpr std::string_view qemuSchemes[] = {
    "rbd:",    "ssh://", "iscsi://",   "iser://",        "http://",         "https://",       "ftp://",
    "ftps://", "nfs://", "gluster://", "gluster+tcp://", "gluster+unix://", "gluster+rdma://"};

template <class Schemes>
bool beginsWithOneOf(std::string_view name, const Schemes& schemes) {
    return std::any_of(std::begin(schemes), std::end(schemes),
                       [&](std::string_view scheme) { return name.starts_with(scheme); });
}

std::string lowered(std::string_view text) {
    std::string lower(text);
    for (char& character : lower) {
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    }
    return lower;
}

} /* namespace */

const char* formatName(DiskFormat format) {
    for (const auto& [name, named] : formatNames) {
        if (named == format) return name.data();
    }
    return "";
}

bool formatFromName(std::string_view name, DiskFormat& format) {
    for (const auto& [known, named] : formatNames) {
        if (known != name) continue;
        format = named;
        return true;
    }
    return false;
}

NTSTATUS diskNames(const std::vector<std::string>& names, std::string_view formats,
                   std::vector<DiskName>& disks, Problem& problem) {
    disks.assign(names.begin(), names.end());
    if (formats.empty()) return STATUS_SUCCESS;
    std::vector<DiskFormat> said;
    for (size_t from = 0; from <= formats.size();) {
        const size_t end = std::min(formats.find(',', from), formats.size());
        const std::string_view word = formats.substr(from, end - from);
        DiskFormat format = DiskFormat::byName;
        if (!formatFromName(word, format)) {
            return refuse(problem, STATUS_INVALID_PARAMETER,
                          "\"" + std::string(word) +
                              "\" is no disk format; use raw, qcow2, vmdk, vhdx, vhd, vdi or auto");
        }
        said.push_back(format);
        from = end + 1;
    }
    if (said.size() != 1 && said.size() != names.size()) {
        return refuse(problem, STATUS_INVALID_PARAMETER,
                      "there are " + std::to_string(said.size()) + " formats for " +
                          std::to_string(names.size()) +
                          " disks; give one for all, or one for each, with commas between them");
    }
    for (size_t i = 0; i < disks.size(); ++i) disks[i].format = said[said.size() == 1 ? 0 : i];
    return STATUS_SUCCESS;
}

std::string formatsOf(const std::vector<DiskName>& disks) {
    const auto same = [&](const DiskName& disk) { return disk.format == disks.front().format; };
    if (disks.empty()) return "";
    if (std::all_of(disks.begin(), disks.end(), same)) {
        return disks.front().format == DiskFormat::byName ? "" : formatName(disks.front().format);
    }
    std::string text;
    for (const DiskName& disk : disks)
        text += (text.empty() ? "" : ",") + std::string(formatName(disk.format));
    return text;
}

NameKind kindOfName(std::string_view name) {
    if (beginsWithOneOf(name, nbdSchemes)) return NameKind::nbd;
    return beginsWithOneOf(name, qemuSchemes) ? NameKind::qemu : NameKind::file;
}

DiskFormat formatOfEnding(std::string_view name) {
    const std::string lower = lowered(name);
    for (const auto& [ending, format] : endings) {
        if (lower.ends_with(ending)) return format;
    }
    return DiskFormat::raw;
}

} /* namespace offline */
