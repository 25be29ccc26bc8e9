/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "platform/offline/system/choices.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace offline {
namespace {

const char accessVariable[] = "QUILLET_ACCESS";
const char systemVariable[] = "QUILLET_SYSTEM";
const char formatVariable[] = "QUILLET_FORMAT";
const char commitVariable[] = "QUILLET_COMMIT";
const char progressVariable[] = "QUILLET_PROGRESS";
const char undoVariable[] = "QUILLET_UNDO";

} /* namespace */

NTSTATUS accessWish(AccessMode& mode, Problem& problem) {
    const char* const text = getenv(accessVariable);
    const std::string_view access = text == nullptr ? "" : text;
    mode = access == "checked" ? AccessMode::checked : AccessMode::unrefused;
    if (access.empty() || access == "checked" || access == "unrefused") return STATUS_SUCCESS;
    return refuse(
        problem, STATUS_INVALID_PARAMETER,
        "QUILLET_ACCESS is \"" + std::string(access) + "\"; set it to unrefused or checked, or unset it");
}

NTSTATUS progressWish(ProgressWish& wish, Problem& problem) {
    const char* const word = getenv(progressVariable);
    wish = ProgressWish::never;
    if (word == nullptr || *word == 0 || progressWishOf(word, wish)) return STATUS_SUCCESS;
    return refuse(
        problem, STATUS_INVALID_PARAMETER,
        std::string("QUILLET_PROGRESS is \"") + word + "\"; set it to never, auto or always, or unset it");
}

/* Told before the work, not after it; that the place is still good then is the commit's to see. */
NTSTATUS refuseUndoPlace(const UndoChoice& undo, Problem& problem) {
    if (undo.path.empty()) return STATUS_SUCCESS;
    const std::filesystem::path path = undo.path;
    std::error_code unknown;
    std::string fault;
    if (std::filesystem::exists(std::filesystem::symlink_status(path, unknown))) {
        fault = "there is such a file already";
    } else if (!std::filesystem::is_directory(path.parent_path(), unknown)) {
        fault = "there is no such directory";
    }
    if (fault.empty()) return STATUS_SUCCESS;
    return refuse(
        problem, STATUS_OBJECT_NAME_INVALID,
        undo.path + ": the undo file can't be made there (" + fault + "); name another place for it");
}

NTSTATUS commitWish(CommitWish& wish, Problem& problem) {
    const char* const rule = getenv(commitVariable);
    const char* const undo = getenv(undoVariable);
    if (rule != nullptr && strcmp(rule, "success") == 0) {
        wish.rule = CommitRule::onSuccess;
    } else if (rule != nullptr && *rule != 0 && strcmp(rule, "always") != 0) {
        return refuse(
            problem, STATUS_INVALID_PARAMETER,
            std::string("QUILLET_COMMIT is \"") + rule + "\"; set it to always or success, or unset it");
    }
    wish.undo.keep = undo != nullptr && *undo != 0;
    if (!wish.undo.keep || strcmp(undo, "auto") == 0) return STATUS_SUCCESS;
    std::error_code noDirectory;
    wish.undo.path = std::filesystem::absolute(undo, noDirectory);
    if (!noDirectory) return refuseUndoPlace(wish.undo, problem);
    return refuse(problem, STATUS_OBJECT_PATH_NOT_FOUND,
                  std::string(undo) + ": the undo file has no place (" + noDirectory.message() +
                      "); name it by its whole path");
}

NTSTATUS disksWish(std::vector<DiskName>& disks, Problem& problem) {
    const char* const text = getenv(systemVariable);
    const char* const formats = getenv(formatVariable);
    const std::vector<std::string> names = systemDisks(text == nullptr ? "" : text);
    for (size_t i = 1; i < names.size(); ++i) {
        const std::string joined = names[i - 1] + ":" + names[i];
        if (kindOfName(joined) == NameKind::file) continue;
        return refuse(problem, STATUS_OBJECT_NAME_INVALID,
                      joined + ": in QUILLET_SYSTEM \":\" separates disks; write \"\\:\" in an address");
    }
    if (!names.empty()) return diskNames(names, formats == nullptr ? "" : formats, disks, problem);
    const bool set = text != nullptr && *text != 0;
    return refuse(problem, STATUS_OBJECT_NAME_NOT_FOUND,
                  std::string("QUILLET_SYSTEM ") + (set ? "names no disk" : "is not set") +
                      "; set it to the disk that Windows is installed on (an image file or a block device)");
}

std::vector<std::string> systemDisks(std::string_view text) {
    std::vector<std::string> disks;
    std::string disk;
    for (size_t at = 0; at <= text.size(); ++at) {
        const bool escape =
            at + 1 < text.size() && text[at] == '\\' && (text[at + 1] == ':' || text[at + 1] == '\\');
        if (at < text.size() && (escape || text[at] != ':')) {
            disk += text[escape ? ++at : at];
        } else if (!disk.empty()) {
            disks.push_back(std::move(disk));
            disk.clear();
        }
    }
    return disks;
}

std::string systemText(const std::vector<std::string>& disks) {
    std::string text;
    for (const std::string& disk : disks) {
        if (!text.empty()) text += ':';
        for (const char character : disk) {
            if (character == ':' || character == '\\') text += '\\';
            text += character;
        }
    }
    return text;
}

} /* namespace offline */
