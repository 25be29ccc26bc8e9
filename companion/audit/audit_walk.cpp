/* SPDX-License-Identifier: GPL-2.0-or-later */
/* The walks of an audit: over the files of the volumes, over the keys of the hives. */
#include <algorithm>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "companion/audit/audit.h"
#include "companion/formatting.h"
#include "platform/offline/base/progress.h"
#include "platform/offline/base/unicode.h"

namespace companion {
namespace {

using offline::Cell;
using offline::FileRef;

constexpr size_t mostRemembered = 1 << 16; /* descriptors; an installation has some thousand */

offline::Bytes bytesOf(std::u16string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size() * sizeof(char16_t)};
}

/* What a descriptor holds. */
struct DescriptorSeen {
    std::optional<Match> match; /* none: it is not valid */
    bool changed = false;
    MachineIds ids;
};

struct Walk {
    Audit& audit;
    MachineIds own = {}; /* which are no others */
    std::unordered_map<std::string, DescriptorSeen> descriptors = {};
    std::set<decltype(OpenedHive::file)> hives = {}; /* that were walked */

    explicit Walk(Audit& of) : audit(of) {
        own.push_back(machineIdOf(audit.wanted.sid));
        if (audit.current) own.push_back(machineIdOf(audit.current->sid));
    }

    void noteOthers(const MachineIds& ids) const {
        for (const MachineId& id : ids) {
            if (std::find(own.begin(), own.end(), id) == own.end()) audit.others.add(id);
        }
    }

    DescriptorSeen lookInto(offline::Bytes image) const {
        DescriptorSeen seen{matchDescriptor(audit.wanted, image), false, machineIdsIn(image)};
        if (audit.current) seen.changed = matchDescriptor(*audit.current, image).value_or(Match{}).treated;
        return seen;
    }

    /* What holds no machine's SID at all needs no closer look. matcher says what it holds of one. */
    template <typename MakePath, typename Matcher>
    void look(Kind kind, offline::Bytes data, const Matcher& matcher, const MakePath& path,
              std::u16string_view value = {}) const {
        const MachineIds ids = machineIdsIn(data);
        if (ids.empty()) return;
        noteOthers(ids);
        note(kind, matcher(audit.wanted), path, value);
        if (audit.current && matcher(*audit.current).treated) audit.changed[static_cast<size_t>(kind)]++;
    }

    /* path builds the finding's path, which takes time, only when somebody wants it. */
    template <typename MakePath>
    void note(Kind kind, const Match& match, const MakePath& path, std::u16string_view value = {}) const {
        const auto row = static_cast<size_t>(kind);
        if (match.treated) {
            audit.treated[row]++;
            if (audit.found) audit.found({kind, {}, path(), offline::toUtf8(value)});
        }
        if (match.left) {
            audit.left[row]++;
            audit.reasons[static_cast<size_t>(*match.left)]++;
            if (audit.found) audit.found({kind, match.left, path(), offline::toUtf8(value)});
        }
    }

    template <typename MakePath>
    void descriptor(Kind kind, offline::Bytes image, const MakePath& path) {
        std::string bytes(reinterpret_cast<const char*>(image.data()), image.size());
        auto known = descriptors.find(bytes);
        if (known == descriptors.end()) {
            if (descriptors.size() >= mostRemembered) descriptors.clear();
            known = descriptors.emplace(std::move(bytes), lookInto(image)).first;
        }
        const DescriptorSeen& seen = known->second;
        noteOthers(seen.ids);
        if (seen.changed) audit.changed[static_cast<size_t>(kind)]++;
        if (seen.match) {
            note(kind, *seen.match, path);
        } else {
            problem(path(), "has a security descriptor that is not valid");
        }
    }

    void problem(const std::string& path, const std::string& what) const {
        audit.problems.push_back(path + ": " + what + "; what it holds is not known");
    }
};

/* ---- Files ---- */

struct VolumeWalk {
    struct Directory {
        FileRef file;
        std::u16string path; /* without a backslash after it; empty for the root */
    };

    Walk& walk;
    offline::Volume& volume;
    char letter;      /* 0: none */
    std::string name; /* "C:", or the disk */
    std::vector<Directory> left = {};
    std::unordered_set<FileRef> entered = {}; /* a broken directory could lead back to itself */

    std::string pathOf(std::u16string_view directory, std::u16string_view entry) const {
        return name + offline::toUtf8(directory) + "\\" + offline::toUtf8(entry);
    }

    void lookAt(FileRef file, std::u16string_view directory, std::u16string_view entry) const {
        const auto path = [&] { return pathOf(directory, entry); };
        offline::Bytes descriptor;
        const NTSTATUS status = offline::volumeDescriptor(volume, file, descriptor);
        if (status >= 0) {
            walk.descriptor(Kind::file, descriptor, path);
        } else {
            walk.problem(path(), "its security descriptor can't be read (" + statusText(status) + ")");
        }
    }

    /* As its own record has it, if that can be read: a run goes by that too. */
    bool isDirectory(FileRef directory, const offline::DirectoryListing& listing,
                     const offline::DirectoryEntry& entry) const {
        offline::FileInfo info;
        if (offline::volumeEntryInfo(volume, directory, listing, entry, info) < 0) return entry.directory;
        return (info.attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) ==
               FILE_ATTRIBUTE_DIRECTORY;
    }

    void enter(FileRef file, std::u16string path) {
        if (entered.insert(file).second) {
            left.push_back({file, std::move(path)});
        } else {
            walk.problem(pathOf(path, {}),
                         "leads to a directory that has another name; the volume is damaged");
        }
    }

    void run() {
        offline::DirectoryListing listing;
        offline::volumeWalkBegins(
            volume, {.title = letter != 0 ? "Audit, files of" : "Audit, files", .letter = letter});
        lookAt(offline::rootDirectory, {}, {});
        enter(offline::rootDirectory, {});
        while (!left.empty()) {
            const Directory directory = std::move(left.back());
            left.pop_back();
            const NTSTATUS status = offline::volumeList(volume, directory.file, listing);
            if (status < 0) {
                walk.problem(pathOf(directory.path, {}), "can't be listed (" + statusText(status) + ")");
                continue;
            }
            for (const offline::DirectoryEntry& entry : listing.entries) {
                const std::u16string_view entryName = listing.name(entry);
                lookAt(entry.file, directory.path, entryName);
                if (isDirectory(directory.file, listing, entry)) {
                    enter(entry.file, std::u16string(directory.path).append(u"\\").append(entryName));
                }
            }
        }
    }
};

/* ---- Keys ---- */

/* A tree of a hive in which values are rewritten, and the names of the keys below its head with them. */
struct Tree {
    std::u16string hive; /* the hive file's name */
    std::u16string path; /* "\Key\Subkey" below the hive's root */
    bool names;
    std::vector<std::u16string_view> values = {}; /* the only ones that are looked at; empty: all */

    bool looksAt(std::u16string_view value) const {
        return values.empty() || std::any_of(values.begin(), values.end(), [&](std::u16string_view one) {
                   return offline::equalFolded(one, value);
               });
    }
};

std::vector<Tree> treesOf(uint32_t controlSet) {
    const std::u16string set = u"\\ControlSet" + paddedDecimal(controlSet, 3);
    return {
        {u"SECURITY", u"\\Policy", true},
        {u"SAM", u"\\SAM\\Domains", true},
        {u"SOFTWARE", u"\\Microsoft\\Windows NT\\CurrentVersion", true, {u"Sid", u"Security"}},
        {u"SOFTWARE", u"\\Microsoft\\Windows\\CurrentVersion", true},
        {u"SYSTEM", set + u"\\Services", false},
        {u"SOFTWARE", u"\\Classes\\AppID", false, {u"AccessPermission", u"LaunchPermission"}},
    };
}

struct HiveWalk {
    struct Level {
        Cell key;
        const Tree* tree; /* that the key lies in, its head included */
        size_t pathLength;
        uint32_t next = 0; /* child */
    };

    Walk& walk;
    const offline::Hive& hive;
    const std::string& file;
    std::vector<const Tree*> trees; /* of this hive */
    std::u16string path = {};       /* of the key that is being looked at */
    std::vector<Level> levels = {};
    std::u16string valueName = {};
    std::vector<uint8_t> data = {};

    std::string pathOf() const { return file + ": " + (path.empty() ? "\\" : offline::toUtf8(path)); }

    const Tree* treeHere() const {
        for (const Tree* tree : trees) {
            if (offline::equalFolded(tree->path, path)) return tree;
        }
        return nullptr;
    }

    void lookAtValue(const offline::HiveValue& value, const Tree* tree) {
        const auto keyPath = [&] { return pathOf(); };
        valueName.resize(value.nameLength);
        offline::hiveValueName(hive, value, valueName.data());
        walk.look(
            Kind::value, bytesOf(valueName),
            [&](const Wanted& wanted) { return matchValueName(wanted, valueName); }, keyPath, valueName);
        data.resize(value.dataLength);
        offline::hiveValueData(hive, value, data);
        const bool inTable = tree != nullptr && tree->looksAt(valueName);
        walk.look(
            Kind::value, data,
            [&](const Wanted& wanted) { return matchValue(wanted, value.type, data, inTable); }, keyPath,
            valueName);
    }

    void lookAtKey(Cell key, const Tree* tree) {
        walk.descriptor(Kind::keyDescriptor, offline::hiveKeyDescriptor(hive, key), [&] { return pathOf(); });
        offline::HiveValue value;
        for (uint32_t i = 0; offline::hiveValue(hive, key, i, value) >= 0; i++) lookAtValue(value, tree);
    }

    void enter(Cell key, const Tree* tree) {
        if (tree == nullptr) tree = treeHere();
        lookAtKey(key, tree);
        offline::progressAdd();
        levels.push_back({key, tree, path.size()});
    }

    void run() {
        enter(offline::hiveRoot(hive), nullptr);
        while (!levels.empty()) {
            Level& level = levels.back();
            const Tree* const tree = level.tree;
            path.resize(level.pathLength);
            Cell child;
            if (offline::hiveSubkey(hive, level.key, level.next++, child) < 0) {
                levels.pop_back();
                continue;
            }
            char16_t name[offline::longestKeyName];
            const size_t length = offline::hiveKeyName(hive, child, name);
            path.append(u"\\").append(name, length);
            const bool inTable = tree != nullptr && tree->names;
            const std::u16string_view text(name, length);
            walk.look(
                Kind::keyName, bytesOf(text),
                [&](const Wanted& wanted) { return matchKeyName(wanted, text, inTable); },
                [&] { return pathOf(); });
            enter(child, tree);
        }
    }
};

/* ---- The installation ---- */

/* The volume of a Windows that does not say has a letter all the same. */
void auditVolume(const Opened& opened, size_t index, Walk& walk) {
    const offline::InstallationVolume& entry = opened.installation.volumes[index];
    char letter = entry.letter;
    if (letter == 0 && index == opened.installation.systemVolume) letter = opened.letter;
    const std::string name = letter != 0 ? std::string{letter, ':'} : offline::diskPath(*entry.disk) + ": ";
    VolumeWalk{walk, *entry.volume, letter, name}.run();
}

void auditHive(const OpenedHive& opened, const std::vector<Tree>& trees, Walk& walk) {
    if (!opened.hive || !walk.hives.insert(opened.file).second) return;
    HiveWalk hiveWalk{walk, *opened.hive, opened.seen.path, {}};
    const std::u16string path = offline::toUtf16(opened.seen.path);
    const std::u16string name = path.substr(path.rfind(u'\\') + 1);
    for (const Tree& tree : trees) {
        if (offline::equalFolded(tree.hive, name)) hiveWalk.trees.push_back(&tree);
    }
    hiveWalk.run();
}

} /* namespace */

void auditInstallation(const Opened& opened, Audit& audit) {
    Walk walk(audit);
    const std::vector<offline::InstallationVolume>& volumes = opened.installation.volumes;
    for (size_t i = 0; i < volumes.size(); i++) auditVolume(opened, i, walk);
    const std::vector<Tree> trees = treesOf(opened.controlSet);
    uint64_t keys = 0;
    for (const OpenedHive& hive : opened.hives) keys += hive.hive ? offline::hiveKeysFound(*hive.hive) : 0;
    offline::progressBegin({"Audit, registry", keys});
    for (const OpenedHive& hive : opened.hives) auditHive(hive, trees, walk);
    visitUserHives(opened, audit.problems, [&](const OpenedHive& hive) {
        if (hive.hive) offline::progressBeginNext({"Audit, user's hive", offline::hiveKeysFound(*hive.hive)});
        auditHive(hive, trees, walk);
    });
    offline::progressEnd();
    noteUnread(opened, audit.problems);
}

} /* namespace companion */
