/* info: what lies on some disks. */
#include <algorithm>
#include <cstdio>

#include "companion/commands.h"
#include "companion/ending.h"
#include "companion/formatting.h"
#include "companion/json.h"
#include "companion/survey.h"
#include "platform/offline/base/unicode.h"

namespace companion {
namespace {

/* ---- For a person ---- */

void printRow(const char* kind, const std::string& text) {
    printf("%-12s%s\n", kind, offline::printable(text).c_str());
}

std::string describe(const DiskSeen& disk) {
    std::string text = disk.path + ", " + sizeText(disk.size);
    const std::vector<offline::ImageFile>& files = disk.chain.files;
    for (size_t i = 0; i < files.size(); i++) {
        text += i == 0 ? ", " : " over " + files[i].path + ", ";
        text += offline::formatName(files[i].format);
    }
    text += disk.table == offline::PartitionTable::none ? ", no partition table"
                                                        : std::string(", ") + tableName(disk.table);
    return text + (disk.writable ? "" : ", read-only");
}

std::string describe(const VolumeSeen& volume) {
    std::string text = volume.letter != 0 ? std::string{volume.letter, ':'} : "no letter";
    text += ", " + sizeText(volume.size) + " at " + sizeText(volume.start) + " of " + volume.disk;
    return text + (volume.opened ? "" : ", can't be used");
}

std::string describe(const HiveSeen& hive) {
    std::string text = std::string(stateName(hive.state)) + ", " + hive.path;
    if (hive.state != HiveState::missing) text += ", " + sizeText(hive.size);
    if (hive.version != 0) text += ", version 1." + std::to_string(hive.version);
    if (!hive.user.empty()) text += ", of " + hive.user;
    return text;
}

void printInstallation(const Sight& sight) {
    const std::string unknown = "unknown";
    printRow("windows", sight.windows);
    printRow("product", sight.product.empty() ? unknown : sight.product);
    printRow("machine SID", sight.machineSid.empty() ? unknown : sight.machineSid);
    printRow("control set", sight.controlSet == 0 ? unknown : std::to_string(sight.controlSet));
    for (const HiveSeen& hive : sight.hives) printRow("hive", describe(hive));
}

void print(const Sight& sight, bool usable) {
    for (const DiskSeen& disk : sight.disks) printRow("disk", describe(disk));
    for (const VolumeSeen& volume : sight.volumes) printRow("volume", describe(volume));
    if (!sight.windows.empty()) printInstallation(sight);
    printRow("usable", usable ? "yes" : "no");
}

/* ---- For programs ---- */

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
    json.put("letter", volume.letter == 0 ? std::string() : std::string(1, volume.letter));
    json.put("usable", volume.opened);
    json.close('}');
}

void write(JsonWriter& json, const HiveSeen& hive) {
    json.open('{');
    json.put("path", hive.path);
    json.put("state", stateName(hive.state));
    json.put("size", hive.size);
    json.put("user", hive.user);
    json.close('}');
}

void write(JsonWriter& json, const std::string& text) {
    json.item(text);
}

template <typename Item>
void writeList(JsonWriter& json, const char* name, const std::vector<Item>& list) {
    json.open(name, '[');
    for (const Item& item : list) write(json, item);
    json.close(']');
}

void printJson(const Sight& sight, bool usable) {
    JsonWriter json;
    json.open('{');
    writeList(json, "disks", sight.disks);
    writeList(json, "volumes", sight.volumes);
    json.put("windows", sight.windows);
    json.put("product", sight.product);
    json.put("machineSid", sight.machineSid);
    json.put("controlSet", uint64_t{sight.controlSet});
    writeList(json, "hives", sight.hives);
    json.put("usable", usable);
    writeList(json, "problems", sight.problems);
    json.close('}');
    printf("%s\n", json.text.c_str());
}

} /* namespace */

int info(const InfoOptions& options) {
    const std::vector<offline::DiskName> disks = namedDisks(options.images, options.format);
    Sight sight = survey(disks);
    const std::string why = whyRefused(disks);
    const bool known = std::find(sight.problems.begin(), sight.problems.end(), why) != sight.problems.end();
    if (!why.empty() && !known) sight.problems.push_back(why);
    const bool usable = why.empty() && !sight.machineSid.empty(); /* that has been reported, too */
    if (options.json) {
        printJson(sight, usable);
    } else {
        print(sight, usable);
    }
    fflush(stdout);
    for (const std::string& problem : sight.problems) say(problem);
    return usable ? exitDone : exitFailed;
}

} /* namespace companion */
