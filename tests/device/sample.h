/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A small system of disks on a machine in memory, and a run that changes it. */
#ifndef QUILLET_TESTS_DEVICE_SAMPLE_H
#define QUILLET_TESTS_DEVICE_SAMPLE_H

#include <list>

#include "platform/offline/device/undo.h"
#include "tests/device/machine.h"

namespace offline::test {

struct Sample {
    Machine machine;
    MachineFiles files{machine};
    std::list<MachineDisk> disks;
    std::list<Overlay> overlays;
    std::vector<TransactionDisk> system;
    std::vector<DirtyMark> marks;
    std::vector<ByteVector> before, after;
    std::vector<std::vector<bool>> holes;
    UndoChoice undo;
    CommitReport report;
    Problem problem;

    Sample(uint64_t seed, size_t count) {
        machine.random.seed(seed);
        for (size_t number = 0; number < count; ++number) addDisk(number);
        change();
    }
    void addDisk(size_t number) {
        const uint64_t size = 64 * 1024 + machine.below(32) * 1024 + machine.below(2) * 512;
        ByteVector bytes(size);
        std::vector<bool> hole(size / 4096 + 1);
        for (uint64_t at = 0; at < size; at += 4096) {
            const uint64_t kind = at < 12288 ? 1 : machine.below(3);
            hole[at / 4096] = kind == 0;
            for (uint64_t word = at; kind > 0 && word < std::min<uint64_t>(size, at + 4096); word += 8) {
                const uint64_t value = kind == 1 ? machine.random() : number + at / 4096;
                std::memcpy(&bytes[word], &value, sizeof value);
            }
        }
        const std::string directory = number == 0 ? "/a" : "/b", name = "disk" + std::to_string(number);
        disks.emplace_back(machine, directory + "/" + name, std::move(bytes));
        disks.back().holes = hole;
        holes.push_back(std::move(hole));
        overlays.emplace_back(disks.back(), "/tmp");
        system.push_back({&disks.back(), &overlays.back(), {directory, name}});
    }
    /* The marks' volumes end clean, changed beside the mark or as they were. */
    void change() {
        for (size_t number = 0; number < system.size(); ++number) {
            MachineDisk& disk = *static_cast<MachineDisk*>(system[number].device);
            before.push_back(disk.medium.now);
            for (uint64_t offset : {uint64_t{8192}, 9216 + machine.below(3) * 512}) {
                const auto from = before[number].begin() + static_cast<std::ptrdiff_t>(offset);
                marks.push_back({number, offset,
                                 ByteVector(from, from + 512 * (1 + static_cast<int>(machine.below(2))))});
                marks.back().bytes[70] ^= 1;
                if (machine.below(2) == 0) write(number, offset + 200, 30);
            }
            for (uint64_t count = machine.below(40); count > 0; --count) {
                const uint64_t offset = 8192 + machine.below(disk.size() - 8192);
                const uint64_t most = std::array{20000u, 1024u, 1024u, 20u}[machine.below(4)];
                write(number, offset, std::min(machine.below(most) + 1, disk.size() - offset));
            }
            after.push_back(ByteVector(disk.size()));
            static_cast<void>(overlays.size());
            static_cast<void>(system[number].overlay->read(0, after[number]));
        }
        if (machine.below(8) == 0) {
            undo.keep = false;
            return;
        }
        undo.keep = true;
        const char* const places[] = {"", "", "/a/mine", "/b/mine", "/other/mine"};
        undo.path = places[machine.below(5)];
        files.oneMount = machine.below(2) == 0;
    }
    void write(size_t number, uint64_t offset, uint64_t length) {
        ByteVector bytes(length, static_cast<uint8_t>(machine.random()));
        for (size_t at = 0; at < length; at += 1 + machine.below(64)) bytes[at] = static_cast<uint8_t>(at);
        static_cast<void>(system[number].overlay->write(offset, bytes));
    }
    NTSTATUS commit() { return commitTransaction(files, system, marks, undo, report, problem); }
    NTSTATUS recover() {
        RecoveryReport recovered;
        problem = {};
        return recoverDisks(files, system, recovered, problem);
    }
    UndoOutcome takeBack() {
        UndoReport taken;
        problem = {};
        return undoLatest(files, system, undo.path, taken, problem);
    }
    /* Whether every disk of a system that is half changed leads to the journal, and is marked where it is
     * half changed itself, for those who open it without us. */
    bool warns() {
        std::string journal;
        const bool half = !holds(before) && !isNew();
        for (size_t number = 0; number < system.size(); ++number) {
            const MachineDisk& disk = *static_cast<MachineDisk*>(system[number].device);
            if (half && commitStateOf(files, system[number].place, journal) != CommitState::cutOff)
                return false;
            bool marked = true;
            std::vector<ByteVector> kinds = {disk.medium.now, before[number], after[number]};
            for (const DirtyMark& mark : marks) {
                if (mark.disk != number) continue;
                const Bytes there = Bytes(disk.medium.now).subspan(mark.offset, mark.bytes.size());
                marked = marked && sameBytes(there, mark.bytes);
                for (ByteVector& kind : kinds) Medium::put(kind, mark.offset / 1024 * 1024, ByteVector(2048));
            }
            if (!marked && kinds[0] != kinds[1] && kinds[0] != kinds[2]) return false;
        }
        return true;
    }
    /* The power goes, at the latest now, and comes back. */
    void reboot() {
        const uint64_t style = machine.below(4);
        const auto isKept = [&] {
            return style == 0 ? false : style == 1 ? true : machine.below(style * 2) == 0;
        };
        for (MachineDisk& disk : disks) disk.medium.cut(isKept);
        files.cut(isKept);
        soundMedia();
    }
    void soundMedia() {
        machine.heal();
        for (MachineDisk& disk : disks) disk.flushRefused = false;
    }
    bool holds(const std::vector<ByteVector>& wanted) const {
        return std::ranges::equal(
            disks, wanted, {}, [](const MachineDisk& disk) -> const ByteVector& { return disk.medium.now; });
    }
    /* Bit for bit, its holes too. */
    bool isOld() const { return holds(before) && std::ranges::equal(disks, holes, {}, &MachineDisk::holes); }
    bool isNew() const { return holds(after); }
    bool undoThere() const {
        return files.anyEnding("undo") || files.anyEnding("mine") || files.anyEnding(".quillet-part");
    }
};

} /* namespace offline::test */

#endif
