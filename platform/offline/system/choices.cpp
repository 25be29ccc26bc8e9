#include "platform/offline/system/choices.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace offline {
namespace {

const char accessVariable[] = "QUILLET_ACCESS";
const char systemVariable[] = "QUILLET_SYSTEM";
const char commitVariable[] = "QUILLET_COMMIT";
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

NTSTATUS disksWish(std::vector<std::string>& disks, Problem& problem) {
    const char* const text = getenv(systemVariable);
    disks = systemDisks(text == nullptr ? "" : text);
    if (!disks.empty()) return STATUS_SUCCESS;
    const bool set = text != nullptr && *text != 0;
    return refuse(problem, STATUS_OBJECT_NAME_NOT_FOUND,
                  std::string("QUILLET_SYSTEM ") + (set ? "names no disk" : "is not set") +
                      "; set it to the disk that Windows is installed on (an image file or a block device)");
}

std::vector<std::string> systemDisks(std::string_view text) {
    std::vector<std::string> disks;
    while (!text.empty()) {
        const size_t end = std::min(text.find(':'), text.size());
        if (end > 0) disks.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return disks;
}

} /* namespace offline */
