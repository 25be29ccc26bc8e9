/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/results/tool_lines.h"

#include <charconv>

#include "companion/results/code_names.h"
#include "platform/nt.h"

namespace companion {
namespace {

/* Takes the prefix from the text's head. */
bool take(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
}

/* Takes what stands before the separator, and that; false where it is not there. */
bool takeUpTo(std::string_view& text, std::string_view separator, std::string_view& part) {
    const size_t at = text.find(separator);
    if (at == text.npos) return false;
    part = text.substr(0, at);
    text.remove_prefix(at + separator.size());
    return true;
}

std::optional<uint32_t> takeNumber(std::string_view& text, int base) {
    if (base == 16 && !take(text, "0X") && !take(text, "0x")) return std::nullopt;
    int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc()) return std::nullopt;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return static_cast<uint32_t>(number);
}

/* ---- Log lines ---- */

/* "Win API call NAME returned 5 for OBJECT", "Native API call NAME returned 0XC0000022 for OBJECT". */
bool readCall(std::string_view text, PassedOver& one) {
    const bool native = take(text, "Native API call ");
    std::string_view call;
    if (!native && !take(text, "Win API call ")) return false;
    if (!takeUpTo(text, " returned ", call)) return false;
    const std::optional<uint32_t> number = takeNumber(text, native ? 16 : 10);
    if (!number) return false;
    one.call = call;
    if (native) one.native = number;
    one.code = native ? win32Of(*number) : *number;
    one.reason = win32Words(*one.code);
    if (!take(text, " for ")) return true;
    if (call == "FindFirstFile") text = text.substr(0, text.rfind(", attr="));
    if (call == "ZwOpenKey") text = text.substr(0, text.rfind(", access="));
    one.object = text;
    /* The scan of a key's children, or the walk of a directory, does without what is below. */
    const bool below = call == "FindFirstFile" || call == "ZwEnumerateKey" || call == "ZwOpenKey";
    one.as = below ? PassedOverAs::tree : PassedOverAs::object;
    return true;
}

struct TextRow {
    std::string_view begin;
    PassedOverAs as;
    const char* reason;
};
const TextRow texts[] = {
    {"Failed to rename key   ", PassedOverAs::object, "it could not be renamed; the line before says why"},
    {"Original security attributes lost for ", PassedOverAs::openToAll,
     "its permissions could not be read, or not be put back"},
    {"failed to copy security attributes for ", PassedOverAs::object, "its permissions could not be copied"},
    {"Too deep recursion in ", PassedOverAs::tree, "it has more than 256 levels"},
    {"Too long a path below ", PassedOverAs::tree, "its path is too long"},
    {"Too long a name with the new SID ", PassedOverAs::notNamed, "its name would become too long"},
    {"failed to ", PassedOverAs::notNamed, "memory ran out"},
};

/* "Too long a string with the old SID (N bytes), left alone in value  KEY\VALUE: TEXT..." */
bool readLongString(std::string_view text, PassedOver& one) {
    std::string_view before;
    if (!take(text, "Too long a string ") || !takeUpTo(text, " in value  ", before)) return false;
    one.as = PassedOverAs::object;
    one.object = text.substr(0, text.rfind(": "));
    one.reason = "its text is longer than 65,535 bytes";
    return true;
}

void readMessage(std::string_view text, PassedOver& one) {
    if (readCall(text, one) || readLongString(text, one)) return;
    for (const TextRow& row : texts) {
        std::string_view rest = text;
        if (!take(rest, row.begin)) continue;
        one.as = row.as;
        one.reason = row.reason;
        if (row.as != PassedOverAs::notNamed) one.object = rest.substr(0, rest.rfind(" : error "));
        return;
    }
    one.reason = text;
}

/* The walk of a drive without files: its root alone has no "." either. */
bool isEmptyDrive(const PassedOver& one) {
    constexpr std::string_view drive = "\\\\?\\d", below = ":\\*.*";
    return one.call == "FindFirstFile" && one.code == ERROR_FILE_NOT_FOUND &&
           one.object.size() == drive.size() + below.size() && one.object.ends_with(below);
}

/* "LEVEL    [unit:line] function message". Nothing for levels that tell of no failure. */
bool readLogLine(std::string_view line, ToolLine& read) {
    const std::string_view whole = line;
    std::string_view level;
    for (const std::string_view word :
         {"CRITICAL", "ALERT", "ERROR", "WARN", "NOTICE", "INFO", "DEBUG", "TRACE"}) {
        if (take(line, word)) {
            level = word;
            break;
        }
    }
    std::string_view place, function;
    if (level.empty() || !takeUpTo(line, "] ", place) || place.find('[') == place.npos) return false;
    if (!takeUpTo(line, " ", function)) return false;
    const bool failure = level == "CRITICAL" || level == "ALERT" || level == "ERROR" || level == "WARN";
    if (!failure) return true;
    PassedOver one;
    one.level = level;
    readMessage(line, one);
    if (isEmptyDrive(one)) {
        read.explained =
            Explained{std::string(whole), "names a drive without files: there is nothing to treat"};
        return true;
    }
    /* A key that refuses is opened by force next, and the line after says what came of that. */
    const bool onTheWay = level == "WARN" && one.call == "ZwOpenKey";
    if (!onTheWay) read.passedOver = std::move(one);
    return true;
}

/* ---- The tool's own lines ---- */

const char* whyNoProfile(std::string_view user) {
    return user == "User.S-1-5-18"
               ? "is usual: the system's own profile has no hive of that name, so there is nothing to treat"
               : "names a profile whose hive is not there any more, so there is nothing to treat";
}

/* "CALL(ARGUMENTS) failed with code N". A hive that is not there is no hive that was passed over. */
bool readFailedCall(std::string_view line, ToolLine& read) {
    std::string_view call, arguments, text = line;
    const size_t end = text.rfind(") failed with code ");
    if (!takeUpTo(text, "(", call) || end == line.npos || end < call.size() + 1) return false;
    arguments = line.substr(call.size() + 1, end - call.size() - 1);
    text = line.substr(end + std::string_view(") failed with code ").size());
    const std::optional<uint32_t> code = takeNumber(text, 10);
    if (!code || arguments.empty()) return false;
    PassedOver one{PassedOverAs::object, std::string(arguments), {}, std::string(call), code, {}, {}, {}};
    one.reason = win32Words(*code);
    std::string_view user, path = arguments;
    if (call == "RegLoadKey" && takeUpTo(path, ", ", user)) {
        if (*code == ERROR_FILE_NOT_FOUND || *code == ERROR_PATH_NOT_FOUND) {
            const std::string short_ = "RegLoadKey(" + std::string(user) + ", ...)";
            read.explained = Explained{std::string(line), short_ + " " + whyNoProfile(user)};
            return true;
        }
        one.as = PassedOverAs::profile;
        one.object = path;
    } else if (call == "sidReplaceInPath") {
        one.as = PassedOverAs::tree;
    }
    read.passedOver = std::move(one);
    return true;
}

/* "Unexpected type of image path (3) for USER" */
bool readImagePath(std::string_view line, ToolLine& read) {
    std::string_view before, user = line;
    if (!line.starts_with("Unexpected type of image path ") || !takeUpTo(user, " for ", before)) return false;
    PassedOver one{PassedOverAs::profile, std::string(user), {}, {}, {}, {}, {}, {}};
    one.reason = "the path of its profile is no text";
    read.passedOver = std::move(one);
    return true;
}

} /* namespace */

ToolLine readToolLine(std::string_view line) {
    ToolLine read;
    if (line.ends_with('\n')) line.remove_suffix(1);
    if (!readLogLine(line, read) && !readFailedCall(line, read) && !readImagePath(line, read) &&
        !line.empty()) {
        read.problem = line;
    }
    if (read.passedOver) read.passedOver->line = line;
    return read;
}

bool isToldAgain(const std::vector<PassedOver>& list, const PassedOver& one) {
    if (list.empty() || one.object.empty()) return false;
    return list.back().object == one.object && list.back().as == one.as && list.back().reason == one.reason;
}

const char* nameOf(PassedOverAs as) {
    switch (as) {
        case PassedOverAs::object:
            return "object";
        case PassedOverAs::tree:
            return "tree";
        case PassedOverAs::profile:
            return "profile";
        case PassedOverAs::openToAll:
            return "openToEveryone";
        case PassedOverAs::notNamed:
            break;
    }
    return "notNamed";
}

const char* sentenceOf(PassedOverAs as) {
    switch (as) {
        case PassedOverAs::object:
            return "It was left as it was, in whole or in part.";
        case PassedOverAs::tree:
            return "It and what is below it were left as they were.";
        case PassedOverAs::profile:
            return "This user's hive was left as it was.";
        case PassedOverAs::openToAll:
            return "It is open to everyone now: set its permissions anew.";
        case PassedOverAs::notNamed:
            break;
    }
    return "The lines around it tell where.";
}

} /* namespace companion */
