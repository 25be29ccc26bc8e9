/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Opening and creating by path, links, and the life of handles. */
#include "tests/support/small_system.h"

namespace offline {
namespace {

using PathTest = SmallSystem;
using LinkTest = SmallSystem;
using HandleTest = SmallSystem;

TEST_F(PathTest, NativePathsAreParsedAsThePlatformDoes) {
    create(u"A");
    create(u"A\\b");
    HANDLE a = open(u"A");
    const std::vector<std::tuple<HANDLE, std::u16string, NTSTATUS>> rows = {
        {nullptr, u"\\REGISTRY\\machine\\test\\a\\B", STATUS_SUCCESS},
        {nullptr, u"\\Registry\\User\\", STATUS_SUCCESS},
        {nullptr, u"", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {nullptr, u"Registry\\Machine", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {nullptr, u"\\", STATUS_OBJECT_TYPE_MISMATCH},
        {nullptr, u"\\Device\\A", STATUS_OBJECT_NAME_NOT_FOUND},
        {nullptr, full(u"none"), STATUS_OBJECT_NAME_NOT_FOUND},
        {nullptr, full(std::u16string(300, u'x')), STATUS_INVALID_PARAMETER},
        {a, u"b", STATUS_SUCCESS},
        {a, u"", STATUS_SUCCESS},
        {a, u"\\b", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {HKEY_LOCAL_MACHINE, u"TEST", STATUS_INVALID_HANDLE},
        {reinterpret_cast<HANDLE>(0x7770), u"TEST", STATUS_INVALID_HANDLE},
    };
    for (const auto& [root, path, status] : rows)
        EXPECT_EQ(tryOpen(path, {.root = root}), status) << toUtf8(path);
    UNICODE_STRING odd = counted(u"b");
    odd.Length = 1;
    OBJECT_ATTRIBUTES attributes = {sizeof attributes, a, &odd, 0, nullptr, nullptr};
    HANDLE key = nullptr;
    EXPECT_EQ(ZwOpenKey(&key, KEY_READ, &attributes), STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(ZwOpenKey(&key, KEY_READ, nullptr), STATUS_INVALID_PARAMETER);
}

TEST_F(PathTest, Win32PathsStartAtPredefinedAndOpenKeys) {
    const auto a = asHkey(create(u"A"));
    create(u"A\\b");
    const std::vector<std::tuple<HKEY, const char16_t*, LSTATUS, const char*>> rows = {
        {HKEY_LOCAL_MACHINE, u"test\\a\\B\\", ERROR_SUCCESS, "b"},
        {HKEY_USERS, nullptr, ERROR_SUCCESS, "USER"},
        {a, u"", ERROR_SUCCESS, "A"},
        {a, u"\\b", ERROR_BAD_PATHNAME, "?"},
        {a, u"none", ERROR_FILE_NOT_FOUND, "?"},
        {nullptr, u"TEST", ERROR_INVALID_HANDLE, "?"},
    };
    for (const auto& [root, path, code, name] : rows) {
        HKEY key = nullptr;
        EXPECT_EQ(RegOpenKeyExW(root, path, 0, KEY_READ, &key), code);
        EXPECT_EQ(nameOf(key), name);
        EXPECT_EQ(RegCloseKey(key), code == ERROR_SUCCESS ? ERROR_SUCCESS : ERROR_INVALID_HANDLE);
    }
    EXPECT_EQ(RegCloseKey(HKEY_LOCAL_MACHINE), ERROR_SUCCESS);
}

TEST_F(PathTest, CreateMakesOrOpens) {
    const std::u16string longest(255, u'n');
    ULONG disposition = 0;
    HANDLE key = nullptr;
    ASSERT_EQ(createKey(key, full(longest), {.className = u"Class"}, &disposition), STATUS_SUCCESS);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
    ZwClose(key);
    ASSERT_EQ(createKey(key, full(longest), {.className = u"Other"}, &disposition), STATUS_SUCCESS);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
    ZwClose(key);
    WCHAR name[256];
    WCHAR className[6];
    DWORD room[] = {256, 6};
    HKEY root = asHkey(open(u""));
    EXPECT_EQ(RegEnumKeyExW(root, 0, name, &room[0], nullptr, className, &room[1], nullptr), ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(className), u"Class");
    const std::vector<std::tuple<std::u16string, ULONG, NTSTATUS>> refused = {
        {full(std::u16string(256, u'n')), 0, STATUS_INVALID_PARAMETER},
        {full(u"none\\child"), 0, STATUS_OBJECT_NAME_NOT_FOUND},
        {full(u"volatile"), REG_OPTION_VOLATILE, STATUS_NOT_SUPPORTED},
        {full(u"odd"), 0x40, STATUS_INVALID_PARAMETER},
        {full(longest), REG_OPTION_CREATE_LINK, STATUS_OBJECT_NAME_COLLISION},
        {u"\\Registry\\Machine\\NEW", 0, STATUS_ACCESS_DENIED},
        {u"\\Registry\\User\\NEW", 0, STATUS_ACCESS_DENIED},
    };
    for (const auto& [path, options, status] : refused) {
        EXPECT_EQ(createKey(key, path, {.options = options}), status) << toUtf8(path);
    }
    EXPECT_EQ(children(root), toUtf8(longest) + " ");
}

TEST_F(LinkTest, LinksAreFollowedAtEveryComponent) {
    create(u"real");
    create(u"real\\child");
    makeLink(u"toReal", full(u"real"));
    makeLink(u"toLink", full(u"TOREAL\\"));
    makeLink(u"dangling", full(u"gone"));
    makeLink(u"loop", full(u"loop\\x"));
    makeLink(u"relative", u"Machine\\TEST\\real");
    makeLink(u"outside", u"\\Device\\real");
    create(u"valueless", {.options = REG_OPTION_CREATE_LINK});
    create(u"odd", {.options = REG_OPTION_CREATE_LINK});
    Cell odd = noCell;
    ASSERT_EQ(hiveFindSubkey(*hive, hiveRoot(*hive), u"odd", odd), STATUS_SUCCESS);
    ASSERT_EQ(hiveSetValue(*hive, odd, u"SymbolicLinkValue", REG_SZ, bytesOf(full(u"real")), 0),
              STATUS_SUCCESS);
    HANDLE link = open(u"toReal", {.attributes = OBJ_OPENLINK});
    const std::vector<std::tuple<HANDLE, std::u16string, ULONG, NTSTATUS, const char*>> rows = {
        {nullptr, full(u"toReal"), 0, STATUS_SUCCESS, "real"},
        {nullptr, full(u"toLink\\child"), OBJ_OPENLINK, STATUS_SUCCESS, "child"},
        {nullptr, full(u"toLink\\"), OBJ_OPENLINK, STATUS_SUCCESS, "toLink"},
        {nullptr, full(u"dangling"), 0, STATUS_OBJECT_NAME_NOT_FOUND, "?"},
        {nullptr, full(u"dangling"), OBJ_OPENLINK, STATUS_SUCCESS, "dangling"},
        {nullptr, full(u"loop"), 0, STATUS_OBJECT_PATH_INVALID, "?"},
        {nullptr, full(u"relative"), 0, STATUS_OBJECT_NAME_NOT_FOUND, "?"},
        {nullptr, full(u"outside\\child"), 0, STATUS_OBJECT_NAME_NOT_FOUND, "?"},
        {nullptr, full(u"valueless"), 0, STATUS_OBJECT_NAME_NOT_FOUND, "?"},
        {nullptr, full(u"odd"), 0, STATUS_OBJECT_NAME_NOT_FOUND, "?"},
        {link, u"child", OBJ_OPENLINK, STATUS_SUCCESS, "child"},
        {link, u"", OBJ_OPENLINK, STATUS_SUCCESS, "toReal"},
        {link, u"", 0, STATUS_SUCCESS, "real"},
    };
    for (const auto& [root, path, attributes, status, name] : rows) {
        HANDLE key = nullptr;
        EXPECT_EQ(openKey(key, path, {.attributes = attributes, .root = root}), status);
        EXPECT_EQ(nameOf(key), name);
        ZwClose(key);
    }
    EXPECT_EQ(setText(link, u"SymbolicLinkValue", REG_SZ, full(u"real")), STATUS_ACCESS_DENIED);
    EXPECT_EQ(setText(link, u"other", REG_LINK, full(u"real")), STATUS_ACCESS_DENIED);
}

TEST_F(HandleTest, AResetEndsOpenKeys) {
    HANDLE key = create(u"key");
    ASSERT_EQ(ZwDeleteKey(create(u"deleted")), STATUS_SUCCESS);
    registryReset();
    EXPECT_EQ(store.closed, 1u);
    EXPECT_EQ(ZwFlushKey(key), STATUS_KEY_DELETED);
    EXPECT_EQ(tryOpen(full(u"")), STATUS_OBJECT_NAME_NOT_FOUND);
}

} /* namespace */
} /* namespace offline */
