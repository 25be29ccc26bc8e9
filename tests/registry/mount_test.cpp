/* SPDX-License-Identifier: GPL-2.0-or-later */
/* Mounted hives, links in memory, saving, loading and unloading. */
#include "platform/offline/base/system_needed.h"
#include "tests/support/small_system.h"

namespace offline {
namespace {

struct MountTest : SmallSystem {
    Recording other;
};

HivePtr freshHive() {
    HivePtr made;
    EXPECT_EQ(hiveCreate(5, u"FILE", u"ntuser.dat", openToAll(), made), STATUS_SUCCESS);
    return made;
}

TEST_F(MountTest, MountPointsAreChildrenInFoldedOrder) {
    const std::vector<std::tuple<const char16_t*, NTSTATUS>> rows = {
        {u"\\Registry\\Machine\\system", STATUS_SUCCESS},
        {u"\\REGISTRY\\MACHINE\\Sam", STATUS_SUCCESS},
        {u"\\Registry\\User\\.DEFAULT", STATUS_SUCCESS},
        {u"\\Registry\\Machine\\Test", STATUS_OBJECT_NAME_COLLISION},
        {u"\\Registry\\Machine", STATUS_OBJECT_NAME_COLLISION},
        {u"\\Registry\\Machine\\TEST\\below", STATUS_INVALID_PARAMETER},
        {u"\\Registry\\Other\\SAM", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\Registry\\", STATUS_INVALID_PARAMETER},
        {u"Machine\\SAM", STATUS_OBJECT_PATH_SYNTAX_BAD},
    };
    for (const auto& [path, status] : rows) EXPECT_EQ(registryMount(path, freshHive(), nullptr), status);
    EXPECT_EQ(children(open(u"\\Registry")), "MACHINE USER ");
    EXPECT_EQ(children(open(u"\\Registry\\Machine")), "Sam system TEST ");
    EXPECT_EQ(nameOf(open(u"\\Registry\\Machine\\SAM")), "Sam");
    ASSERT_EQ(registryAddLink(u"\\Registry\\User\\S-1-5-18", u"\\Registry\\User\\.DEFAULT"), STATUS_SUCCESS);
    EXPECT_EQ(children(open(u"\\Registry\\User")), ".DEFAULT S-1-5-18 ");
    EXPECT_EQ(nameOf(open(u"\\Registry\\User\\s-1-5-18")), ".DEFAULT");
    HANDLE machine = open(u"\\Registry\\Machine");
    EXPECT_EQ(ZwDeleteKey(machine), STATUS_CANNOT_DELETE);
    EXPECT_EQ(ZwFlushKey(machine), STATUS_SUCCESS);
    EXPECT_EQ(ZwFlushKey(open(u"\\Registry\\Machine\\SAM")), STATUS_SUCCESS); /* no store */
}

TEST_F(MountTest, LinksInMemoryBehaveAsStoredOnes) {
    for (const char16_t* name : {u"ControlSet001", u"Select", u"currentcontrolset", u"Zone"}) create(name);
    create(u"ControlSet001\\Services");
    ASSERT_EQ(ZwFlushKey(open(u"")), STATUS_SUCCESS);
    ASSERT_EQ(registryAddLink(full(u"CurrentControlSet"), full(u"ControlSet001")), STATUS_SUCCESS);
    ASSERT_EQ(registryAddLink(full(u"Aaa"), full(u"Zone")), STATUS_SUCCESS);
    ASSERT_EQ(registryAddLink(full(u"zzz"), full(u"nothing")), STATUS_SUCCESS);
    ASSERT_EQ(registryAddLink(full(u"zone\\only"), full(u"Aaa")), STATUS_SUCCESS);
    EXPECT_EQ(registryAddLink(full(u"AAA"), full(u"Zone")), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(registryAddLink(full(u"none\\x"), full(u"Zone")), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(registryAddLink(full(u"x"), u"Zone"), STATUS_OBJECT_PATH_SYNTAX_BAD);

    EXPECT_EQ(children(open(u"")), "Aaa ControlSet001 CurrentControlSet Select Zone zzz ");
    EXPECT_EQ(nameOf(open(u"currentCONTROLset\\services")), "Services");
    EXPECT_EQ(nameOf(open(u"aaa\\only\\only\\ONLY")), "Zone"); /* each leads back to Zone */
    EXPECT_EQ(tryOpen(full(u"zzz")), STATUS_OBJECT_NAME_NOT_FOUND);

    HANDLE link = open(u"currentcontrolset", {.attributes = OBJ_OPENLINK});
    EXPECT_EQ(nameOf(link), "CurrentControlSet");
    WCHAR target[100];
    DWORD size = sizeof target;
    auto* data = reinterpret_cast<BYTE*>(target);
    EXPECT_EQ(RegQueryValueExW(asHkey(link), u"symboliclinkvalue", nullptr, nullptr, data, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(std::u16string(target, size / sizeof(WCHAR)), full(u"ControlSet001"));
    uint8_t image[256];
    size = sizeof image;
    ASSERT_EQ(RegGetKeySecurity(asHkey(link), 7, image, &size), ERROR_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(image, image + size), openToAll());

    /* Changes stay in memory. */
    EXPECT_EQ(ZwDeleteKey(open(u"Zone")), STATUS_CANNOT_DELETE);
    auto narrower = systemOnly();
    EXPECT_EQ(RegSetKeySecurity(asHkey(link), 4, narrower.data()), ERROR_SUCCESS);
    EXPECT_EQ(setText(link, u"SymbolicLinkValue", REG_LINK, full(u"Select")), STATUS_SUCCESS);
    EXPECT_EQ(nameOf(open(u"CurrentControlSet")), "Select");
    EXPECT_EQ(setText(link, u"x", REG_SZ, u"x"), STATUS_ACCESS_DENIED);
    HANDLE second = open(u"currentcontrolset", {.attributes = OBJ_OPENLINK});
    EXPECT_EQ(ZwDeleteKey(link), STATUS_SUCCESS);
    EXPECT_EQ(ZwFlushKey(second), STATUS_KEY_DELETED);
    EXPECT_EQ(nameOf(open(u"CurrentControlSet")), "currentcontrolset"); /* what the link hid */
    EXPECT_FALSE(hiveChanged(*hive));
}

/* Only what has changed is written, none on a medium that refuses, and each hive whatever comes of the
 * others. */
TEST_F(MountTest, SavingReachesTheStoreAndFailuresTheCaller) {
    ASSERT_EQ(registryMount(u"\\Registry\\Machine\\ZZ", freshHive(), std::make_unique<RecordingStore>(other)),
              STATUS_SUCCESS);
    HANDLE key = create(u"key");
    ASSERT_EQ(setText(key, u"v", REG_SZ, u"data"), STATUS_SUCCESS);
    create(u"\\Registry\\Machine\\ZZ\\key");
    for (NTSTATUS* const refusal : {&store.failure, &store.unflushed}) {
        *refusal = STATUS_MEDIA_WRITE_PROTECTED;
        EXPECT_EQ(ZwFlushKey(key), STATUS_MEDIA_WRITE_PROTECTED);
        std::vector<const HiveStore*> failed;
        EXPECT_EQ(registrySaveAll(failed), STATUS_MEDIA_WRITE_PROTECTED);
        ASSERT_EQ(failed.size(), 1u); /* and it can be named */
        EXPECT_EQ(store.writes, 0u);
        *refusal = STATUS_SUCCESS;
    }
    EXPECT_GT(other.writes, 0u);
    EXPECT_EQ(ZwFlushKey(open(u"key", {.access = KEY_NOTIFY})), STATUS_SUCCESS); /* any handle will do */
    EXPECT_EQ(store.file, hiveImage(*hive));
    store.unflushed = STATUS_MEDIA_WRITE_PROTECTED;
    std::vector<const HiveStore*> none;
    EXPECT_EQ(registrySaveAll(none), STATUS_SUCCESS); /* nothing has changed since */
    store.refused = STATUS_MEDIA_WRITE_PROTECTED;
    HANDLE made = nullptr;
    auto image = openToAll();
    EXPECT_EQ(setText(key, u"v", REG_SZ, u"x"), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(createKey(made, full(u"new"), {}), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(ZwDeleteKey(key), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(RegSetKeySecurity(asHkey(key), 4, image.data()), ERROR_WRITE_PROTECT);
    EXPECT_FALSE(hiveChanged(*hive));
}

/* What the loader finds. */
struct LoaderFiles {
    Recording recording;
    NTSTATUS failure = STATUS_SUCCESS;
    std::u16string asked;
} files;

NTSTATUS loadFile(std::u16string_view file, HivePtr& hive, std::unique_ptr<HiveStore>& store) {
    files.asked = file;
    if (files.failure < 0) return files.failure;
    store = std::make_unique<RecordingStore>(files.recording);
    hive = freshHive();
    return STATUS_SUCCESS;
}

TEST_F(MountTest, HivesAreLoadedAndUnloaded) {
    files = {};
    constexpr auto* file = u"C:\\Users\\x\\ntuser.dat";
    const auto load = [&](HKEY root, LPCWSTR name) { return RegLoadKeyW(root, name, file); };
    EXPECT_EQ(load(HKEY_USERS, u"x"), ERROR_PRIVILEGE_NOT_HELD);
    enable(restorePrivilege);
    EXPECT_EQ(load(HKEY_USERS, u"x"), ERROR_PRIVILEGE_NOT_HELD);
    enable(backupPrivilege);
    EXPECT_EQ(load(HKEY_USERS, u"x"), ERROR_FILE_NOT_FOUND); /* no loader */
    registrySetLoader(loadFile);
    files.failure = STATUS_SHARING_VIOLATION;
    EXPECT_EQ(load(HKEY_USERS, u"x"), ERROR_SHARING_VIOLATION);
    files.failure = STATUS_SUCCESS;
    EXPECT_EQ(load(HKEY_LOCAL_MACHINE, u"test"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(files.recording.closed, 1u); /* the file is let go */
    EXPECT_EQ(load(HKEY_LOCAL_MACHINE, u"a\\b"), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(load(HKEY_LOCAL_MACHINE, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(load(nullptr, u"x"), ERROR_INVALID_HANDLE);
    const HKEY below = asHkey(open(u""));
    EXPECT_EQ(load(below, u"x"), ERROR_INVALID_PARAMETER);
    RegCloseKey(below);
    EXPECT_EQ(RegLoadKeyW(HKEY_USERS, u"x", u""), ERROR_INVALID_PARAMETER);

    ASSERT_EQ(load(HKEY_USERS, u"x"), ERROR_SUCCESS);
    EXPECT_EQ(files.asked, file);
    EXPECT_EQ(children(open(u"\\Registry\\User")), "x ");
    HANDLE key = nullptr;
    ASSERT_EQ(createKey(key, u"\\Registry\\User\\X\\made", {}), STATUS_SUCCESS);
    ASSERT_EQ(registryAddLink(u"\\Registry\\User\\X\\link", u"\\Registry\\User\\X\\made"), STATUS_SUCCESS);
    EXPECT_EQ(RegUnLoadKeyW(HKEY_USERS, u"x"), ERROR_ACCESS_DENIED); /* a key is open */
    ZwClose(key);
    ASSERT_EQ(openKey(key, u"\\Registry\\User\\X\\link", {.attributes = OBJ_OPENLINK}), STATUS_SUCCESS);
    EXPECT_EQ(RegUnLoadKeyW(HKEY_USERS, u"x"), ERROR_ACCESS_DENIED); /* a link in memory is open */
    ZwClose(key);
    enable(restorePrivilege, 0);
    EXPECT_EQ(RegUnLoadKeyW(HKEY_USERS, u"x"), ERROR_PRIVILEGE_NOT_HELD);
    enable(restorePrivilege);
    files.recording.failure = STATUS_DISK_FULL;
    EXPECT_EQ(RegUnLoadKeyW(HKEY_USERS, u"x"), ERROR_DISK_FULL);
    EXPECT_EQ(tryOpen(u"\\Registry\\User\\x\\made"), STATUS_SUCCESS); /* still mounted */
    files.recording.failure = STATUS_SUCCESS;
    EXPECT_EQ(RegUnLoadKeyW(HKEY_USERS, u"x"), ERROR_SUCCESS);
    EXPECT_EQ(RegUnLoadKeyW(HKEY_USERS, u"x"), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegUnLoadKeyW(HKEY_LOCAL_MACHINE, u"TEST"), ERROR_ACCESS_DENIED); /* not loaded by a call */
    EXPECT_EQ(files.recording.closed, 2u);

    HivePtr again;
    Problem problem;
    ASSERT_EQ(hiveOpen(files.recording.file, again, problem), STATUS_SUCCESS) << problem.text;
    Cell made = noCell;
    EXPECT_EQ(hiveFindSubkey(*again, hiveRoot(*again), u"made", made), STATUS_SUCCESS);
    EXPECT_EQ(hiveFindSubkey(*again, hiveRoot(*again), u"link", made), STATUS_OBJECT_NAME_NOT_FOUND);
}

} /* namespace */
} /* namespace offline */
