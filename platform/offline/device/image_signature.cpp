/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/device/image_signature.h"

namespace offline {
namespace {

struct Signature {
    size_t offset;
    std::string_view text;
    DiskFormat format;
};

constexpr Signature imageSignatures[] = {
    {0, "QFI\xFB", DiskFormat::qcow2},     {0, vmdkSparse, DiskFormat::vmdk},
    {0, vmdkDescriptor, DiskFormat::vmdk}, {0, "vhdxfile", DiskFormat::vhdx},
    {0, vhdCookie, DiskFormat::vhd},       {0x40, "\x7F\x10\xDA\xBE", DiskFormat::vdi},
};

} /* namespace */

bool holdsText(Bytes bytes, std::string_view text, size_t at) {
    const Bytes there = checkedSpan(bytes, at, text.size());
    return !there.empty() && std::memcmp(there.data(), text.data(), text.size()) == 0;
}

DiskFormat formatOfBeginning(Bytes bytes) {
    for (const Signature& signature : imageSignatures) {
        if (holdsText(bytes, signature.text, signature.offset)) return signature.format;
    }
    return DiskFormat::raw;
}

} /* namespace offline */
