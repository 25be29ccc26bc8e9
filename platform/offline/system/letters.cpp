/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/system/letters.h"

#include <array>
#include <cstring>
#include <new>

#include "platform/offline/base/guarded.h"
#include "platform/offline/base/unicode.h"

namespace offline {
namespace {

/* What MountedDevices knows a partition by: on MBR disks the signature and the start, on GPT disks a tag and
 * a GUID. */
constexpr size_t mbrNameSize = 12;
constexpr size_t gptNameSize = 24;
constexpr char gptTag[] = "DMIO:ID:";
constexpr size_t gptTagSize = 8;

const std::u16string_view letterPrefix = u"\\DosDevices\\";

/* The letter of a value's name "\DosDevices\C:", or 0. */
char letterOf(std::u16string_view name) {
    if (name.size() != letterPrefix.size() + 2 || name.back() != u':') return 0;
    if (!equalFolded(name.substr(0, letterPrefix.size()), letterPrefix)) return 0;
    const char16_t letter = upcase(name[letterPrefix.size()]);
    return letter >= u'A' && letter <= u'Z' ? static_cast<char>(letter) : '\0';
}

bool namesPartition(Bytes data, const Partition& partition) {
    if (partition.table == PartitionTable::mbr && data.size() == mbrNameSize) {
        uint32_t signature;
        uint64_t start;
        memcpy(&signature, data.data(), sizeof signature);
        memcpy(&start, data.data() + sizeof signature, sizeof start);
        return signature == partition.mbrSignature && start == partition.start;
    }
    return partition.table == PartitionTable::gpt && data.size() == gptNameSize &&
           memcmp(data.data(), gptTag, gptTagSize) == 0 &&
           memcmp(data.data() + gptTagSize, partition.gptPartition, sizeof partition.gptPartition) == 0;
}

struct Letters {
    std::array<bool, 26> taken = {};
    bool take(InstallationVolume& entry, char letter) {
        bool& mine = taken[static_cast<size_t>(letter - 'A')];
        if (mine) return false;
        mine = true;
        entry.letter = letter;
        return true;
    }
};

void takeRemembered(const Hive& system, Installation& installation, Letters& letters) {
    Cell key;
    if (hiveFindSubkey(system, hiveRoot(system), u"MountedDevices", key) < 0) return;
    HiveValue value;
    for (uint32_t index = 0; hiveValue(system, key, index, value) >= 0; index++) {
        std::u16string name(value.nameLength, u'\0');
        hiveValueName(system, value, name.data());
        const char letter = letterOf(name);
        uint8_t data[gptNameSize];
        if (letter == 0 || value.dataLength > sizeof data) continue;
        hiveValueData(system, value, data);
        for (InstallationVolume& entry : installation.volumes) {
            if (entry.letter == 0 && namesPartition({data, value.dataLength}, entry.partition)) {
                letters.take(entry, letter);
            }
        }
    }
}

bool takeNext(InstallationVolume& entry, Letters& letters) {
    for (char letter = 'C'; letter <= 'Z'; letter++) {
        if (letters.take(entry, letter)) return true;
    }
    return false;
}

} /* namespace */

NTSTATUS lettersAssign(const Hive& system, Installation& installation, Problem& problem) {
    return guardedRefusing(problem, [&] {
        Letters letters;
        takeRemembered(system, installation, letters);
        InstallationVolume& systemVolume = installation.volumes[installation.systemVolume];
        bool enough = systemVolume.letter != 0 || takeNext(systemVolume, letters);
        for (InstallationVolume& entry : installation.volumes) {
            if (entry.letter == 0) enough = takeNext(entry, letters) && enough;
        }
        if (enough) return STATUS_SUCCESS;
        return refuse(
            problem, STATUS_INSUFFICIENT_RESOURCES,
            "there are more NTFS volumes than drive letters; leave some of the disks out of QUILLET_SYSTEM");
    });
}

} /* namespace offline */
