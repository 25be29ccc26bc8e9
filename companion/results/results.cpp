/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/results/results.h"

#include <algorithm>

#include "companion/audit/audit_words.h"
#include "companion/formatting.h"
#include "companion/results/code_names.h"
#include "companion/results/json.h"

namespace companion {
namespace {

constexpr uint64_t schemaVersion = 1; /* of docs/quillet-results.schema.json */

const char* nameOf(CommitState state) {
    switch (state) {
        case CommitState::committed:
            return "committed";
        case CommitState::withheld:
            return "withheld";
        case CommitState::failed:
            return "failed";
        case CommitState::unchanged:
            break;
    }
    return "unchanged";
}

/* ---- What info shows ---- */

void write(JsonWriter& json, const DiskSeen& disk) {
    json.open('{');
    json.put("path", disk.path);
    json.put("size", disk.size);
    json.put("format", disk.chain.files.empty() ? "" : offline::formatName(disk.chain.format()));
    json.open("backing", '[');
    for (size_t i = 1; i < disk.chain.files.size(); i++) {
        json.open('{');
        json.put("path", disk.chain.files[i].path);
        json.put("format", offline::formatName(disk.chain.files[i].format));
        json.close('}');
    }
    json.close(']');
    json.put("partitionTable", tableName(disk.table));
    json.put("writable", disk.writable);
    json.close('}');
}

void write(JsonWriter& json, const VolumeSeen& volume) {
    json.open('{');
    json.put("disk", volume.disk);
    json.put("start", volume.start);
    json.put("size", volume.size);
    json.putKnown("letter", volume.letter == 0 ? std::string() : std::string(1, volume.letter));
    json.put("usable", volume.opened);
    json.close('}');
}

void write(JsonWriter& json, const HiveSeen& hive) {
    json.open('{');
    json.put("path", hive.path);
    json.put("state", stateName(hive.state));
    json.put("size", hive.size);
    json.putKnown("user", hive.user);
    json.close('}');
}

/* ---- What a run tells ---- */

void write(JsonWriter& json, const PassedOver& one) {
    json.open('{');
    json.put("as", nameOf(one.as));
    json.putKnown("object", one.object);
    json.put("reason", one.reason);
    json.putKnown("level", one.level);
    json.putKnown("call", one.call);
    if (one.code) {
        json.put("code", uint64_t{*one.code});
        const char* const name = one.native ? statusName(*one.native) : win32Name(*one.code);
        json.putKnown("name", name == nullptr ? "" : name);
    }
    json.put("line", one.line);
    json.close('}');
}

void write(JsonWriter& json, const Explained& one) {
    json.open('{');
    json.put("line", one.line);
    json.put("meaning", one.words);
    json.close('}');
}

void write(JsonWriter& json, const Timed& one) {
    json.open('{');
    json.put("name", one.name);
    json.put("milliseconds", one.milliseconds);
    json.close('}');
}

void write(JsonWriter& json, const std::string& text) {
    json.item(text);
}

void putOptional(JsonWriter& json, const char* name, const std::optional<std::string>& text) {
    if (text) {
        json.put(name, *text);
    } else {
        json.putNull(name);
    }
}

void write(JsonWriter& json, const IdentityChange& change) {
    json.open('{');
    json.put("id", nameOf(change.item));
    json.put("key", change.key);
    json.put("value", change.value);
    putOptional(json, "from", change.from);
    putOptional(json, "to", change.to);
    json.put("action", nameOf(change.action));
    json.close('}');
}

void write(JsonWriter& json, const CloneResult& clone);

template <typename Item>
void writeList(JsonWriter& json, const char* name, const std::vector<Item>& list) {
    json.open(name, '[');
    for (const Item& item : list) write(json, item);
    json.close(']');
}

void writeSight(JsonWriter& json, const Sight& sight, bool usable) {
    writeList(json, "disks", sight.disks);
    writeList(json, "volumes", sight.volumes);
    json.putKnown("windows", sight.windows);
    json.putKnown("product", sight.product);
    json.putKnown("machineSid", sight.machineSid);
    json.put("controlSet", uint64_t{sight.controlSet});
    writeList(json, "hives", sight.hives);
    json.put("usable", usable);
}

void writeStatus(JsonWriter& json, int status) {
    const char* const name = win32Name(static_cast<uint32_t>(status));
    json.open("status", '{');
    json.put("number", status);
    json.putKnown("name", name == nullptr ? "" : name);
    json.close('}');
}

void write(JsonWriter& json, const CloneResult& clone) {
    json.open('{');
    json.put("file", clone.file);
    json.putKnown("computerName", clone.computerName);
    json.put("made", clone.made);
    json.putKnown("oldSid", clone.oldSid);
    json.putKnown("newSid", clone.newSid);
    json.put("bytes", clone.bytes);
    json.put("milliseconds", clone.milliseconds);
    if (clone.runStatus) {
        writeStatus(json, *clone.runStatus);
    } else {
        json.putNull("status");
    }
    writeList(json, "identity", clone.identity);
    writeList(json, "passedOver", clone.passedOver);
    json.put("passedOverMore", clone.passedOverMore);
    writeList(json, "problems", clone.problems);
    json.close('}');
}

void write(JsonWriter& json, const Cloned& cloned) {
    json.open("golden", '{');
    json.put("path", cloned.golden);
    json.put("format", cloned.format);
    json.close('}');
    writeList(json, "clones", cloned.clones);
}

void writeRun(JsonWriter& json, const Results& results) {
    writeStatus(json, *results.runStatus);
    writeList(json, "identity", results.identity);
    writeList(json, "passedOver", results.passedOver);
    json.put("passedOverMore", results.passedOverMore);
    writeList(json, "explained", results.explained);
    writeList(json, "steps", results.steps);
}

void write(JsonWriter& json, const Commit& commit) {
    json.open("commit", '{');
    json.put("state", nameOf(commit.state));
    json.put("bytes", commit.bytes);
    json.put("stretches", commit.stretches);
    json.putKnown("undoFile", commit.undoFile);
    json.putKnown("takeBack", commit.takeBack);
    json.close('}');
}

void write(JsonWriter& json, const TakenBack& undone) {
    json.open("takenBack", '{');
    json.put("bytes", undone.bytes);
    json.put("stretches", undone.stretches);
    json.putKnown("undoFile", undone.undoFile);
    writeList(json, "journals", undone.journals);
    json.close('}');
}

/* ---- What an audit counts ---- */

void writeCounts(JsonWriter& json, const Counts& counts) {
    json.open("counts", '{');
    for (size_t i = 0; i < kindCount; i++) {
        json.open(wordsOf(static_cast<Kind>(i)).name, '{');
        if (counts.before) {
            json.put("before", (*counts.before)[i]);
        } else {
            json.putNull("before");
        }
        json.put("changed", counts.changed[i]);
        json.put("remaining", counts.remaining[i]);
        json.put("left", counts.left[i]);
        json.close('}');
    }
    json.close('}');
    json.open("leftByReason", '{');
    for (size_t i = 0; i < leftCount; i++) json.put(wordsOf(static_cast<Left>(i)).name, counts.reasons[i]);
    json.close('}');
}

void write(JsonWriter& json, const OtherSids& others) {
    json.open("otherMachines", '[');
    for (const auto& [sid, places] : others.byPlaces()) {
        json.open('{');
        json.put("sid", sid);
        json.put("places", places);
        json.close('}');
    }
    json.close(']');
    json.put("otherMachinesMore", others.more);
}

/* Of a plan a place would be changed, of a run it is; an audit finds it as it is. */
const char* stateName(PlaceState state, const Results& results) {
    if (state == PlaceState::stays) return "stays";
    if (results.command == "audit") return "holds";
    return state == PlaceState::remains ? "remains" : "changed";
}

void writePlaces(JsonWriter& json, Results& results) {
    json.open("places", '[');
    results.places->visit([&](const Finding& finding, PlaceState state) {
        json.open('{');
        json.put("kind", wordsOf(finding.kind).name);
        json.put("state", stateName(state, results));
        if (finding.left) json.put("reason", wordsOf(*finding.left).name);
        json.put("path", finding.path);
        if (finding.kind == Kind::value) json.put("value", finding.value);
        json.close('}');
    });
    json.close(']');
}

void writeHead(JsonWriter& json, const Results& results, int exitStatus) {
    json.put("schema", schemaVersion);
    json.put("program", "quillet-offline");
    json.put("version", QUILLET_VERSION);
    json.putKnown("command", results.command);
    writeList(json, "images", results.images);
    json.put("started", timeText(results.started, "%Y-%m-%dT%H:%M:%SZ"));
    json.put("finished", results.finished);
    json.put("exitStatus", exitStatus);
    json.put("needsAttention", needsAttention(results, exitStatus));
    json.open("problems", '[');
    for (const Problems* list : {&results.problems, &results.unseen}) {
        for (const std::string& line : *list) json.item(line);
    }
    json.close(']');
    writeList(json, "phases", results.phases);
}

} /* namespace */

Timer::~Timer() {
    const auto took = std::chrono::steady_clock::now() - begin;
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(took).count();
    all[place].milliseconds = static_cast<uint64_t>(milliseconds);
}

void wantReport(const std::string& file, Results& results) {
    if (file.empty()) return;
    results.report = std::make_unique<ReportFile>(file);
    results.places = std::make_unique<Places>();
}

bool needsAttention(const Results& results, int exitStatus) {
    if (!results.finished || !results.problems.empty() || !results.unseen.empty()) return true;
    if (!results.passedOver.empty() || results.passedOverMore != 0) return true;
    if (results.cloned) {
        const std::vector<CloneResult>& clones = results.cloned->clones;
        const auto whole = [](const CloneResult& clone) {
            return clone.made && clone.passedOver.empty() && clone.passedOverMore == 0;
        };
        if (!std::all_of(clones.begin(), clones.end(), whole)) return true;
    }
    const bool before = results.command == "audit" && results.counts && results.counts->before;
    if (before) return false; /* that the machine holds its own SID is as it should be */
    return exitStatus != 0 || (results.counts && sum(results.counts->remaining) != 0);
}

void printJson(Results& results, int exitStatus) {
    JsonWriter json(stdout);
    json.open('{');
    writeHead(json, results, exitStatus);
    if (results.sight) writeSight(json, *results.sight, results.usable);
    if (!results.oldSid.empty()) {
        json.put("oldSid", results.oldSid);
        json.putKnown("newSid", results.newSid);
    }
    if (results.counts) writeCounts(json, *results.counts);
    if (results.others) write(json, *results.others);
    if (results.runStatus) writeRun(json, results);
    if (results.commit) write(json, *results.commit);
    if (results.takenBack) write(json, *results.takenBack);
    if (results.cloned) write(json, *results.cloned);
    if (results.listPlaces && results.counts && results.places) writePlaces(json, results);
    json.close('}');
    json.finish();
}

} /* namespace companion */
