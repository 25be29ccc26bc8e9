/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/results/places.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "companion/ending.h"

namespace companion {
namespace {

constexpr size_t mostAreas = 300; /* a disk can hold any number of directories */

[[noreturn]] void refuseFile() {
    throw Failure{std::string("the list of places can't be kept in a temporary file (") + strerror(errno) +
                  "); see to a /tmp that has room"};
}

struct Head {
    uint8_t kind, left; /* left: 0, or one more than its number */
    uint32_t pathLength, valueLength;
};

uint64_t hashOf(const Finding& finding) {
    const std::string text = finding.path + '\0' + finding.value + static_cast<char>(finding.kind);
    return std::hash<std::string>{}(text);
}

} /* namespace */

std::string areaOf(const Finding& finding) {
    const std::string& path = finding.path;
    if (finding.kind != Kind::file) return path.substr(0, path.find(": "));
    const size_t root = path.find('\\');
    const size_t end = root == std::string::npos ? root : path.find('\\', root + 1);
    if (end != std::string::npos) return path.substr(0, end + 1);
    return root == std::string::npos ? path : path.substr(0, root + 1);
}

Places::Places() : file(tmpfile()) {
    if (file == nullptr) refuseFile();
}

Places::~Places() {
    fclose(file);
}

void Places::count(const Finding& finding, bool again) {
    std::string name = areaOf(finding);
    if (byArea.size() >= mostAreas && !byArea.contains(name)) name = "elsewhere";
    AreaCounts& area = byArea[name];
    area.name = name;
    (finding.left ? area.left : again ? area.remaining : area.before)++;
}

void Places::add(const Finding& finding) {
    const Head head = {static_cast<uint8_t>(finding.kind),
                       static_cast<uint8_t>(finding.left ? static_cast<int>(*finding.left) + 1 : 0),
                       static_cast<uint32_t>(finding.path.size()),
                       static_cast<uint32_t>(finding.value.size())};
    fwrite(&head, sizeof head, 1, file);
    fwrite(finding.path.data(), 1, finding.path.size(), file);
    fwrite(finding.value.data(), 1, finding.value.size(), file);
    if (ferror(file) != 0) refuseFile();
    count(finding, false);
}

void Places::addRemaining(Finding finding, const std::string& oldSid, const std::string& newSid) {
    for (size_t at = 0; !newSid.empty() && (at = finding.path.find(newSid, at)) != std::string::npos;
         at += oldSid.size()) {
        finding.path.replace(at, newSid.size(), oldSid);
    }
    remaining.push_back(hashOf(finding));
    count(finding, true);
}

void Places::visit(const std::function<void(const Finding&, PlaceState)>& visitor) {
    std::sort(remaining.begin(), remaining.end());
    rewind(file);
    Head head;
    while (fread(&head, sizeof head, 1, file) == 1) {
        Finding finding{static_cast<Kind>(head.kind), {}, {}};
        if (head.left != 0) finding.left = static_cast<Left>(head.left - 1);
        finding.path.resize(head.pathLength);
        finding.value.resize(head.valueLength);
        if (fread(finding.path.data(), 1, head.pathLength, file) != head.pathLength ||
            fread(finding.value.data(), 1, head.valueLength, file) != head.valueLength) {
            refuseFile();
        }
        const bool stayed =
            unchanged || std::binary_search(remaining.begin(), remaining.end(), hashOf(finding));
        visitor(finding, finding.left ? PlaceState::stays
                         : stayed     ? PlaceState::remains
                                      : PlaceState::treated);
    }
    if (ferror(file) != 0) refuseFile();
}

std::vector<AreaCounts> Places::areas() const {
    std::vector<AreaCounts> all;
    for (const auto& [name, counts] : byArea) {
        all.push_back(counts);
        if (unchanged) all.back().remaining = counts.before;
    }
    return all;
}

} /* namespace companion */
