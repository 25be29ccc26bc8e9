/* SPDX-License-Identifier: GPL-2.0-or-later */
#include "companion/results/code_names.h"

#include "platform/nt.h"

namespace companion {
namespace {

struct Win32Row {
    uint32_t code;
    const char *name, *words; /* words: null where there is nothing plainer to say than the name */
};
struct StatusRow {
    NTSTATUS status;
    const char* name;
};

#define ROW(code, words) \
    { code, #code, words }
const Win32Row win32Rows[] = {
    ROW(ERROR_SUCCESS, "it went well"),
    ROW(ERROR_INVALID_FUNCTION, "the call does not exist here"),
    ROW(ERROR_FILE_NOT_FOUND, "there is no such file or key"),
    ROW(ERROR_PATH_NOT_FOUND, "there is no such directory"),
    ROW(ERROR_ACCESS_DENIED, "access was refused"),
    ROW(ERROR_INVALID_HANDLE, "it was closed meanwhile"),
    ROW(ERROR_NOT_ENOUGH_MEMORY, "memory ran out"),
    ROW(ERROR_INVALID_DATA, "what it holds is not what belongs there"),
    ROW(ERROR_NO_MORE_FILES, nullptr),
    ROW(ERROR_WRITE_PROTECT, "it can only be read"),
    ROW(ERROR_BAD_LENGTH, nullptr),
    ROW(ERROR_SHARING_VIOLATION, "it is in use"),
    ROW(ERROR_NOT_SUPPORTED, "its kind is not supported"),
    ROW(ERROR_WRITE_FAULT, "not every line could be written"),
    ROW(ERROR_GEN_FAILURE, "it failed without a reason"),
    ROW(ERROR_INVALID_PARAMETER, "it is not something that the call takes"),
    ROW(ERROR_OPEN_FAILED, "it could not be opened"),
    ROW(ERROR_BUFFER_OVERFLOW, nullptr),
    ROW(ERROR_DISK_FULL, "there is no room for it"),
    ROW(ERROR_INSUFFICIENT_BUFFER, nullptr),
    ROW(ERROR_INVALID_NAME, "its name is not valid"),
    ROW(ERROR_BAD_PATHNAME, "its path is not valid"),
    ROW(ERROR_ALREADY_EXISTS, "there is one of that name already"),
    ROW(ERROR_FILENAME_EXCED_RANGE, "its name is too long"),
    ROW(ERROR_MORE_DATA, "it is longer than can be taken"),
    ROW(ERROR_NO_MORE_ITEMS, nullptr),
    ROW(ERROR_DIRECTORY, "it is no directory"),
    ROW(ERROR_MR_MID_NOT_FOUND, nullptr),
    ROW(ERROR_OBJECT_NAME_EXISTS, nullptr),
    ROW(ERROR_PREDEFINED_HANDLE, nullptr),
    ROW(ERROR_NOACCESS, nullptr),
    ROW(ERROR_UNRECOGNIZED_VOLUME, "the volume is of no known kind"),
    ROW(ERROR_NO_TOKEN, nullptr),
    ROW(ERROR_BADDB, "the hive is damaged"),
    ROW(ERROR_REGISTRY_RECOVERED, nullptr),
    ROW(ERROR_REGISTRY_CORRUPT, "the hive is damaged"),
    ROW(ERROR_REGISTRY_IO_FAILED, "the hive is dirty, and its log files do not mend it"),
    ROW(ERROR_NOT_REGISTRY_FILE, "it is no hive"),
    ROW(ERROR_KEY_DELETED, "the key was deleted meanwhile"),
    ROW(ERROR_KEY_HAS_CHILDREN, nullptr),
    ROW(ERROR_CHILD_MUST_BE_VOLATILE, nullptr),
    ROW(ERROR_IO_DEVICE, "the disk refused a read or a write"),
    ROW(ERROR_NOT_ALL_ASSIGNED, "a privilege is missing"),
    ROW(ERROR_INVALID_OWNER, "its owner may not be set so"),
    ROW(ERROR_NO_SUCH_PRIVILEGE, nullptr),
    ROW(ERROR_PRIVILEGE_NOT_HELD, "a privilege is missing"),
    ROW(ERROR_INVALID_ACL, "its access list is not valid"),
    ROW(ERROR_INVALID_SID, "it holds a SID that is not valid"),
    ROW(ERROR_INVALID_SECURITY_DESCR, "its security descriptor is not valid"),
    ROW(ERROR_INTERNAL_ERROR, "it failed without a reason, or lies too deep"),
    ROW(ERROR_DISK_CORRUPT, "the volume is damaged there"),
    ROW(ERROR_FILE_CORRUPT, "it is damaged"),
    ROW(ERROR_NO_SYSTEM_RESOURCES, "there is no room for it"),
};
#undef ROW

#define ROW(status) \
    { status, #status }
const StatusRow statusRows[] = {
    ROW(STATUS_SUCCESS),
    ROW(STATUS_NOT_ALL_ASSIGNED),
    ROW(STATUS_PREDEFINED_HANDLE),
    ROW(STATUS_OBJECT_NAME_EXISTS),
    ROW(STATUS_REGISTRY_RECOVERED),
    ROW(STATUS_BUFFER_OVERFLOW),
    ROW(STATUS_NO_MORE_FILES),
    ROW(STATUS_NO_MORE_ENTRIES),
    ROW(STATUS_UNSUCCESSFUL),
    ROW(STATUS_NOT_IMPLEMENTED),
    ROW(STATUS_INFO_LENGTH_MISMATCH),
    ROW(STATUS_ACCESS_VIOLATION),
    ROW(STATUS_INVALID_HANDLE),
    ROW(STATUS_INVALID_PARAMETER),
    ROW(STATUS_NO_SUCH_DEVICE),
    ROW(STATUS_NO_SUCH_FILE),
    ROW(STATUS_NO_MEMORY),
    ROW(STATUS_ACCESS_DENIED),
    ROW(STATUS_BUFFER_TOO_SMALL),
    ROW(STATUS_OBJECT_TYPE_MISMATCH),
    ROW(STATUS_DISK_CORRUPT_ERROR),
    ROW(STATUS_OBJECT_NAME_INVALID),
    ROW(STATUS_OBJECT_NAME_NOT_FOUND),
    ROW(STATUS_OBJECT_NAME_COLLISION),
    ROW(STATUS_OBJECT_PATH_INVALID),
    ROW(STATUS_OBJECT_PATH_NOT_FOUND),
    ROW(STATUS_OBJECT_PATH_SYNTAX_BAD),
    ROW(STATUS_SHARING_VIOLATION),
    ROW(STATUS_DELETE_PENDING),
    ROW(STATUS_INVALID_OWNER),
    ROW(STATUS_PRIVILEGE_NOT_HELD),
    ROW(STATUS_INVALID_ACL),
    ROW(STATUS_INVALID_SID),
    ROW(STATUS_INVALID_SECURITY_DESCR),
    ROW(STATUS_NO_TOKEN),
    ROW(STATUS_DISK_FULL),
    ROW(STATUS_INSUFFICIENT_RESOURCES),
    ROW(STATUS_MEDIA_WRITE_PROTECTED),
    ROW(STATUS_NOT_SUPPORTED),
    ROW(STATUS_INTERNAL_ERROR),
    ROW(STATUS_FILE_CORRUPT_ERROR),
    ROW(STATUS_NOT_A_DIRECTORY),
    ROW(STATUS_NAME_TOO_LONG),
    ROW(STATUS_CANNOT_DELETE),
    ROW(STATUS_REGISTRY_CORRUPT),
    ROW(STATUS_REGISTRY_IO_FAILED),
    ROW(STATUS_UNRECOGNIZED_VOLUME),
    ROW(STATUS_NOT_REGISTRY_FILE),
    ROW(STATUS_KEY_DELETED),
    ROW(STATUS_KEY_HAS_CHILDREN),
    ROW(STATUS_CHILD_MUST_BE_VOLATILE),
    ROW(STATUS_IO_DEVICE_ERROR),
};
#undef ROW

const Win32Row* find(uint32_t code) {
    for (const Win32Row& row : win32Rows) {
        if (row.code == code) return &row;
    }
    return nullptr;
}

} /* namespace */

const char* win32Name(uint32_t code) {
    const Win32Row* const row = find(code);
    return row == nullptr ? nullptr : row->name;
}

const char* statusName(uint32_t status) {
    for (const StatusRow& row : statusRows) {
        if (static_cast<uint32_t>(row.status) == status) return row.name;
    }
    return nullptr;
}

std::string win32Words(uint32_t code) {
    const Win32Row* const row = find(code);
    if (row == nullptr) return "the platform says " + std::to_string(code);
    return row->words != nullptr ? row->words : row->name;
}

uint32_t win32Of(uint32_t status) {
    return RtlNtStatusToDosError(static_cast<NTSTATUS>(status));
}

} /* namespace companion */
