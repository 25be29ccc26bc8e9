/* SPDX-License-Identifier: GPL-2.0-or-later */
/* A machine in memory: disks and a file system that keep what was flushed. Its power can be cut at any call,
 * and any call can fail. */
#ifndef QUILLET_TESTS_DEVICE_MACHINE_H
#define QUILLET_TESTS_DEVICE_MACHINE_H

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/offline/device/journal_files.h"

namespace offline::test {

/* Bytes and what of them has reached the medium. */
struct Medium {
    ByteVector now, kept;
    std::vector<std::pair<uint64_t, ByteVector>> pending;

    void write(uint64_t offset, Bytes bytes) {
        put(now, offset, bytes);
        pending.emplace_back(offset, ByteVector(bytes.begin(), bytes.end()));
    }
    void flush() {
        kept = now;
        pending.clear();
    }
    /* Of what was not flushed each sector is there or not. */
    template <class Kept>
    void cut(Kept isKept) {
        for (const auto& [offset, bytes] : pending) {
            for (uint64_t at = 0; at < bytes.size();) {
                const uint64_t part = std::min<uint64_t>(bytes.size() - at, 512 - (offset + at) % 512);
                if (isKept()) put(kept, offset + at, Bytes(bytes).subspan(at, part));
                at += part;
            }
        }
        now = kept;
        pending.clear();
    }
    static void put(ByteVector& to, uint64_t offset, Bytes bytes) {
        if (to.size() < offset + bytes.size()) to.resize(offset + bytes.size());
        std::copy(bytes.begin(), bytes.end(), to.begin() + static_cast<std::ptrdiff_t>(offset));
    }
};

/* The call that fails, and with what. */
struct Failure {
    uint64_t at = UINT64_MAX;
    bool on = false; /* as do all after it */
    int error = EIO;
};

struct Machine {
    static constexpr uint64_t never = UINT64_MAX;
    std::mt19937_64 random;
    uint64_t calls = 0;
    uint64_t cutAt = never; /* from this call on nothing happens any more */
    Failure failure;
    bool failed = false; /* a call did, since it was told to */

    uint64_t below(uint64_t bound) { return bound == 0 ? 0 : random() % bound; }
    int call() {
        const uint64_t number = calls++;
        if (number >= cutAt) return EIO;
        if (number != failure.at && !(failure.on && number > failure.at)) return 0;
        failed = true;
        return failure.error;
    }
    bool dead() const { return calls > cutAt; }
    void heal() {
        calls = 0;
        cutAt = never;
        failure = {};
    }
    void fail(const Failure& planned) {
        heal();
        failure = planned;
        failed = false;
    }
};

struct MachineDisk final : BlockDevice {
    MachineDisk(Machine& of, std::string called, ByteVector contents)
        : machine(of), path(std::move(called)), holes(contents.size() / 4096 + 1), grown(holes) {
        medium.now = medium.kept = std::move(contents);
    }
    Machine& machine;
    std::string path;
    Medium medium;
    std::vector<bool> holes, grown; /* blocks of 4 KiB; those that were written */
    bool flushRefused = false, protectedFromWrites = false;
    uint64_t roomLeft =
        UINT64_MAX; /* blocks that can be written for the first time, as in an image that grows */

    const std::string& name() const override { return path; }
    uint64_t size() const override { return medium.now.size(); }
    uint32_t sectorSize() const override { return 512; }
    bool readOnly() const override { return protectedFromWrites; }
    DeviceError read(uint64_t offset, std::span<uint8_t> bytes) override {
        if (!lies(offset, bytes.size())) std::abort();
        if (const int error = machine.call()) return error;
        const auto from = medium.now.begin() + static_cast<std::ptrdiff_t>(offset);
        std::copy(from, from + static_cast<std::ptrdiff_t>(bytes.size()), bytes.begin());
        return 0;
    }
    DeviceError write(uint64_t offset, Bytes bytes) override {
        if (!lies(offset, bytes.size())) std::abort();
        const int error = machine.call();
        if (machine.dead()) return error;
        if (error != 0) bytes = bytes.first(machine.below(bytes.size() / 512 + 1) * 512); /* gets that far */
        for (uint64_t block = offset / 4096; block * 4096 < offset + bytes.size(); ++block) {
            if (!grown[block] && roomLeft-- == 0) return roomLeft = 0, ENOSPC;
            grown[block] = true;
        }
        medium.write(offset, bytes);
        for (uint64_t at = offset; at < offset + bytes.size(); at += 512) holes[at / 4096] = false;
        return error;
    }
    DeviceError flush() override {
        const int error = machine.call();
        flushRefused = flushRefused || error != 0;
        if (flushRefused) return EIO;
        medium.flush();
        return 0;
    }
    uint64_t holeAt(uint64_t offset, uint64_t count) override {
        for (uint64_t at = offset; at < offset + count; at += 512) {
            if (!holes[at / 4096]) return 0;
        }
        return count;
    }
    DeviceError zero(uint64_t offset, uint64_t count) override {
        const DeviceError error = write(offset, ByteVector(count));
        if (error != 0) return error;
        const uint64_t end = offset + count == size() ? offset + count + 4095 : offset + count;
        for (uint64_t block = (offset + 4095) / 4096; (block + 1) * 4096 <= end; ++block) holes[block] = true;
        return 0;
    }
    bool lies(uint64_t offset, uint64_t count) const { return offset <= size() && count <= size() - offset; }
};

/* Names are kept when their directory was flushed; directories are there as long as nobody hides them. What
 * lies below /other is another file system. */
struct MachineFiles final : JournalFiles {
    explicit MachineFiles(Machine& of) : machine(of) {}
    using File = std::shared_ptr<Medium>;
    struct Change {
        std::string gone, made; /* either may be empty */
        File file;
    };
    Machine& machine;
    std::map<std::string, File> now, kept;
    std::vector<Change> pending;
    std::vector<File> opened;
    uint64_t roomLeft = UINT64_MAX;
    std::string hidden;    /* a directory that is out of reach */
    bool oneMount = false; /* /other says that it is the same file system, and is not */

    static bool elsewhere(const std::string& path) { return path.starts_with("/other"); }
    static void apply(std::map<std::string, File>& names, const Change& change) {
        const auto gone = names.find(change.gone);
        if (gone != names.end() && gone->second == change.file) names.erase(gone);
        if (!change.made.empty()) names[change.made] = change.file;
    }
    void change(Change made) {
        apply(now, made);
        pending.push_back(std::move(made));
    }
    int create(const std::string& path, int& file) override {
        if (const int error = machine.call()) return error;
        if (now.contains(path)) return EEXIST;
        change({"", path, std::make_shared<Medium>()});
        opened.push_back(now[path]);
        file = static_cast<int>(opened.size()) - 1;
        return 0;
    }
    int open(const std::string& path, int& file, uint64_t& size) override {
        if (const int error = machine.call()) return error;
        if (!now.contains(path)) return ENOENT;
        opened.push_back(now[path]);
        file = static_cast<int>(opened.size()) - 1;
        size = now[path]->now.size();
        return 0;
    }
    int write(int file, uint64_t offset, Bytes bytes, size_t& done) override {
        if (const int error = machine.call()) return error;
        if (roomLeft == 0) return ENOSPC;
        bytes = bytes.first(std::min<uint64_t>(bytes.size(), roomLeft));
        done = machine.below(4) == 0 ? 1 + machine.below(bytes.size()) : bytes.size(); /* short at times */
        opened[static_cast<size_t>(file)]->write(offset, bytes.first(done));
        roomLeft -= done;
        return 0;
    }
    int read(int file, uint64_t offset, std::span<uint8_t> bytes, size_t& done) override {
        if (const int error = machine.call()) return error;
        const Bytes all = opened[static_cast<size_t>(file)]->now;
        done = offset >= all.size() ? 0 : std::min<size_t>(bytes.size(), all.size() - offset);
        if (done > 0) std::copy_n(all.begin() + static_cast<std::ptrdiff_t>(offset), done, bytes.begin());
        return 0;
    }
    int flush(int file) override {
        if (const int error = machine.call()) return error;
        opened[static_cast<size_t>(file)]->flush();
        return 0;
    }
    void close(int) override {}
    int flushDirectory(const std::string& directory) override {
        if (const int error = machine.call()) return error;
        const auto in = [&](const std::string& path) {
            return !path.empty() && directoryOf(path) == directory;
        };
        std::erase_if(pending, [&](const Change& made) {
            if (!in(made.gone) && !in(made.made)) return false;
            apply(kept, made);
            return true;
        });
        return 0;
    }
    int rename(const std::string& from, const std::string& to) override {
        if (const int error = machine.call()) return error;
        if (elsewhere(from) != elsewhere(to)) return EXDEV;
        if (!now.contains(from)) return ENOENT;
        if (now.contains(to)) return EEXIST;
        change({from, to, now[from]});
        return 0;
    }
    int remove(const std::string& path) override {
        if (const int error = machine.call()) return error;
        if (!now.contains(path)) return ENOENT;
        change({path, "", now[path]});
        return 0;
    }
    int names(const std::string& directory, std::vector<std::string>& found) override {
        if (const int error = machine.call()) return error;
        if (directory == hidden) return ENOENT;
        for (const auto& [path, file] : now) {
            if (directoryOf(path) == directory) found.push_back(path.substr(path.rfind('/') + 1));
        }
        return 0;
    }
    int room(const std::string& directory, uint64_t& bytes, uint64_t& fileSystem) override {
        if (const int error = machine.call()) return error;
        bytes = 4711;
        fileSystem = elsewhere(directory) && !oneMount ? 2 : 1;
        return 0;
    }
    /* Names that were not flushed are kept or lost; so is what was written to the files. */
    template <class Kept>
    void cut(Kept isKept) {
        for (const Change& made : pending) {
            if (isKept()) apply(kept, made);
        }
        pending.clear();
        now = kept;
        for (const auto& [path, file] : now) file->cut(isKept);
        opened.clear();
    }
    bool anyEnding(const std::string& ending) const {
        return std::any_of(now.begin(), now.end(),
                           [&](const auto& entry) { return entry.first.ends_with(ending); });
    }
};

} /* namespace offline::test */

#endif
