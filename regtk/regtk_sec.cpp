/* SPDX-License-Identifier: GPL-2.0-or-later */
#define OMBRA_UNIT "regtk/regtk_sec"
#include <cstring>

#include "common/last_error.h"
#include "common/log.h"
#include "regtk/regtk.h"

DWORD regGetKeySec(HANDLE key, SECURITY_INFORMATION information, memBuf* secBuf) {
    for (;;) {
        DWORD length = secBuf->size;
        const LSTATUS error = RegGetKeySecurity(static_cast<HKEY>(key), information, secBuf->data, &length);
        if (error == ERROR_SUCCESS) return 0;
        if (error != ERROR_INSUFFICIENT_BUFFER) {
            OMBRA_LOG(OMBRA_ERROR, "Win API call %hs returned %d", "RegGetKeySecurity", error);
            return static_cast<DWORD>(error);
        }
        if (!memBufResize(secBuf, length)) return ERROR_NOT_ENOUGH_MEMORY;
    }
}

DWORD regSetKeySec(HANDLE key, SECURITY_INFORMATION information, void* descriptor) {
    uint8_t* const field = static_cast<uint8_t*>(descriptor) + offsetof(SECURITY_DESCRIPTOR, Control);
    SECURITY_DESCRIPTOR_CONTROL control;
    memcpy(&control, field, sizeof control);
    if ((control & SE_DACL_AUTO_INHERITED) != 0) control |= SE_DACL_AUTO_INHERIT_REQ;
    if ((control & SE_SACL_AUTO_INHERITED) != 0) control |= SE_SACL_AUTO_INHERIT_REQ;
    memcpy(field, &control, sizeof control);
    const LSTATUS error = RegSetKeySecurity(static_cast<HKEY>(key), information, descriptor);
    if (error != ERROR_SUCCESS) {
        OMBRA_LOG(OMBRA_ERROR, "Win API call %hs returned %d", "RegSetKeySecurity", error);
    }
    return static_cast<DWORD>(error);
}

DWORD regCopyKeySec(HANDLE target, HANDLE source, memBuf* secBuf) {
    const DWORD error = regGetKeySec(source, REG_SEC_ALL, secBuf);
    return error != 0 ? error : regSetKeySec(target, REG_SEC_ALL, secBuf->data);
}

static const char _taking[] = "regTakesOwnershipU";  // what the helpers below report as

/* What taking ownership holds while it runs. */
struct _ownership {
    HANDLE root;
    const UNICODE_STRING* name;
    HANDLE key;
    HANDLE token;
    SECURITY_DESCRIPTOR descriptor; /* the running user as owner, a null DACL */
    alignas(TOKEN_USER) uint8_t user[88];
};

/* A failure of a call that reports through the last error. */
static DWORD _lastErrorOf(const char* call) {
    const DWORD error = ombraLastError();
    OMBRA_LOG_AS(_taking, OMBRA_ERROR, "Win API call %hs returned %d", call, error);
    return error;
}

static DWORD _buildOwnership(_ownership* taking) {
    if (!InitializeSecurityDescriptor(&taking->descriptor, SECURITY_DESCRIPTOR_REVISION)) {
        return _lastErrorOf("InitializeSecurityDescriptor");
    }
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &taking->token))
        return _lastErrorOf("OpenProcessToken");
    DWORD length = sizeof taking->user;
    if (!GetTokenInformation(taking->token, TokenUser, taking->user, sizeof taking->user, &length)) {
        return _lastErrorOf("GetTokenInformation");
    }
    if (length > sizeof taking->user) {
        OMBRA_LOG_AS(_taking, OMBRA_ERROR, "GetTokenInformation requested %d bytes of buffer (%d allocated)",
                     length, static_cast<int>(sizeof taking->user));
        return ERROR_INTERNAL_ERROR;
    }
    const TOKEN_USER* user = reinterpret_cast<const TOKEN_USER*>(taking->user);
    if (!SetSecurityDescriptorOwner(&taking->descriptor, user->User.Sid, FALSE)) {
        return _lastErrorOf("SetSecurityDescriptorOwner");
    }
    if (!SetSecurityDescriptorDacl(&taking->descriptor, TRUE, nullptr, FALSE)) {
        return _lastErrorOf("SetSecurityDescriptorDacl");
    }
    return 0;
}

static DWORD _writeOwnership(_ownership* taking, SECURITY_INFORMATION information) {
    const LSTATUS error = RegSetKeySecurity(static_cast<HKEY>(taking->key), information, &taking->descriptor);
    if (error != ERROR_SUCCESS) {
        OMBRA_LOG_AS(_taking, OMBRA_ERROR, "Win API call %hs returned %d", "RegSetKeySecurity", error);
    }
    return static_cast<DWORD>(error);
}

/* Owner first: only an owner is sure to be let at the DACL, and only through a handle opened since. */
static DWORD _takeOwnership(_ownership* taking) {
    DWORD error = _buildOwnership(taking);
    if (error == 0) error = _writeOwnership(taking, OWNER_SECURITY_INFORMATION);
    if (error != 0) return error;
    RegCloseKey(static_cast<HKEY>(taking->key));
    taking->key = nullptr;
    if (!regOpenKeyU(taking->root, taking->name, WRITE_DAC, 0, &taking->key, &error)) return error;
    return _writeOwnership(taking, DACL_SECURITY_INFORMATION);
}

DWORD regTakesOwnershipU(HANDLE root, const UNICODE_STRING* name) {
    _ownership taking = {};
    taking.root = root;
    taking.name = name;
    DWORD error = 0;
    if (!regOpenKeyU(root, name, WRITE_OWNER, 0, &taking.key, &error)) return error;
    error = _takeOwnership(&taking);
    if (taking.key != nullptr) RegCloseKey(static_cast<HKEY>(taking.key));
    if (taking.token != nullptr) CloseHandle(taking.token);
    return error;
}
