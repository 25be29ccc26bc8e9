/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/image_chain.h"

#include "platform/offline/base/guarded.h"
#include "platform/offline/device/device_error.h"
#include "platform/offline/device/file_device.h"
#include "platform/offline/device/image_header.h"

namespace offline {
namespace {

constexpr size_t longestChain = 64; /* files */

NTSTATUS refuseRead(const std::string& path, DeviceError error, Problem& problem) {
    return refuse(problem, deviceStatus(error),
                  path + ": it can't be read (" + deviceErrorText(error) + "); check the medium");
}

/* Why the format can't be told; "" when it could. Where one was said, the contents need only fit; raw fits
 * all. */
DeviceError formatOf(BlockDevice& file, const DiskName& image, DiskFormat& format, std::string& fault) {
    const bool said = image.format != DiskFormat::byName;
    format = said ? image.format : formatOfEnding(image.name);
    if (said && format == DiskFormat::raw) return 0;
    bool fits = false;
    DiskFormat contents = DiskFormat::raw;
    DeviceError error = beginningOf(file, contents);
    if (error == 0) error = fitsFormat(file, format, fits);
    if (error != 0 || fits) return error;
    const std::string found = contents == DiskFormat::raw ? "raw" : formatName(contents);
    fault = said ? "it was said to be " : "its name says ";
    fault += formatName(format);
    fault += ", but its contents look " + found;
    if (!said) format = contents;
    return 0;
}

/* A name as it is found in an image, from where that lies. */
std::string beside(const std::string& path, const std::string& name) {
    return name.starts_with('/') ? name : path.substr(0, path.rfind('/') + 1) + name;
}

/* A name with a scheme would be no file to other programs. */
bool looksLikeAddress(const std::string& name) {
    return name.substr(0, name.find('/')).find(':') != std::string::npos;
}

struct Follower {
    ImageChain& chain;
    Problem& problem;
    const std::string& disk; /* the one that the user named, for messages */
    DiskName image = {};     /* the last of the chain so far */

    NTSTATUS follow(BlockDevice& first);

private:
    bool atTop() const { return chain.files.size() <= 1; }
    NTSTATUS add(BlockDevice& file);
    NTSTATUS addExtents(const ImageHeader& header);
    NTSTATUS goBelow(const ImageHeader& header, BlockDevicePtr& below);
    NTSTATUS refuseHere(const std::string& what);
    NTSTATUS refuseFormat(DiskFormat likely, const std::string& fault);
};

NTSTATUS Follower::refuseHere(const std::string& what) {
    const std::string which = atTop() ? "" : "its backing file " + image.name + ": ";
    return refuse(problem, STATUS_NOT_SUPPORTED, disk + ": " + which + what);
}

NTSTATUS Follower::refuseFormat(DiskFormat likely, const std::string& fault) {
    const bool said = image.format != DiskFormat::byName;
    if (chain.files.empty()) {
        if (said) return refuseHere(fault + "; say another --format (QUILLET_FORMAT for quillet)");
        const std::string either =
            likely == DiskFormat::raw ? "" : std::string("--format ") + formatName(likely) + " or ";
        return refuseHere(fault + "; say which it is, " + either +
                          "--format raw (QUILLET_FORMAT for quillet)");
    }
    return refuse(
        problem, STATUS_NOT_SUPPORTED,
        disk + ": its backing file " + image.name + ": " + fault +
            (said ? "; correct it"
                  : ", and " + chain.files.back().path + " has no word on its format; write it there") +
            " (qemu-img rebase -u -b FILE -F FORMAT IMAGE)");
}

NTSTATUS Follower::add(BlockDevice& file) {
    DiskFormat format = DiskFormat::raw;
    std::string fault;
    const DeviceError error = formatOf(file, image, format, fault);
    if (error != 0) return refuseRead(image.name, error, problem);
    if (!fault.empty()) return refuseFormat(format, fault);
    image.format = format;
    chain.files.push_back({image.name, format});
    return STATUS_SUCCESS;
}

NTSTATUS Follower::addExtents(const ImageHeader& header) {
    for (const std::string& name : header.extents) {
        const std::string path = beside(image.name, name);
        BlockDevicePtr file;
        NTSTATUS status = fileDeviceOpen(path, DiskAccess::readOnly, file, problem);
        if (status < 0)
            return refuse(problem, status, disk + ": a part of it can't be used: " + problem.text);
        DiskFormat contents = DiskFormat::raw;
        ImageHeader extent;
        DeviceError error = beginningOf(*file, contents);
        if (error == 0 && contents == DiskFormat::vmdk) error = readHeader(*file, contents, extent);
        if (error != 0) return refuseRead(path, error, problem);
        if (!extent.unusable.empty()) return refuseHere(extent.unusable);
        if (atTop()) chain.onlyReadable = chain.onlyReadable || extent.onlyReadable;
        chain.extents.push_back(path);
    }
    return STATUS_SUCCESS;
}

NTSTATUS Follower::goBelow(const ImageHeader& header, BlockDevicePtr& below) {
    DiskName backing(beside(image.name, header.backing));
    if (header.backing.find('\0') != std::string::npos || looksLikeAddress(header.backing)) {
        return refuseHere("it names " + header.backing + " as its backing file; only a file is followed");
    }
    if (chain.files.size() == longestChain) {
        return refuseHere("its backing files go on without an end; merge them");
    }
    if (!header.backingFormat.empty() && !formatFromName(header.backingFormat, backing.format)) {
        return refuseHere("the format that it names for its backing file, " + header.backingFormat +
                          ", is not supported");
    }
    image = std::move(backing);
    const NTSTATUS status = fileDeviceOpen(image.name, DiskAccess::below, below, problem);
    if (status >= 0) return status;
    return refuse(problem, status, disk + ": its backing file can't be used: " + problem.text);
}

NTSTATUS Follower::follow(BlockDevice& first) {
    BlockDevicePtr below;
    for (BlockDevice* file = &first;; file = below.get()) {
        NTSTATUS status = add(*file);
        if (status < 0 || image.format == DiskFormat::raw) return status;
        ImageHeader header;
        const DeviceError error = readHeader(*file, image.format, header);
        if (error != 0) return refuseRead(image.name, error, problem);
        if (!header.unusable.empty()) return refuseHere(header.unusable);
        if (atTop()) chain.onlyReadable = header.onlyReadable;
        status = addExtents(header);
        if (status < 0 || header.backing.empty()) return status;
        status = goBelow(header, below);
        if (status < 0) return status;
    }
}

} /* namespace */

NTSTATUS imageChainOver(BlockDevice& file, const DiskName& disk, ImageChain& chain, Problem& problem) {
    return guardedRefusing(problem, [&] {
        chain = {};
        return Follower{chain, problem, disk.name, disk}.follow(file);
    });
}

NTSTATUS imageChainOf(const DiskName& disk, ImageChain& chain, Problem& problem) {
    return guardedRefusing(problem, [&]() -> NTSTATUS {
        chain = {};
        if (kindOfName(disk.name) != NameKind::file) {
            chain.files.push_back({disk.name, DiskFormat::raw});
            return STATUS_SUCCESS;
        }
        BlockDevicePtr file;
        const NTSTATUS status = fileDeviceOpen(disk.name, DiskAccess::readOnly, file, problem);
        return status < 0 ? status : imageChainOver(*file, disk, chain, problem);
    });
}

} /* namespace offline */
