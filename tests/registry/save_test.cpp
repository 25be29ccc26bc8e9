/* Hives on a medium that takes no more writes. */
#include "platform/offline/registry/registry.h"
#include "tests/registry/small_system.h"

namespace offline {
namespace {

struct FullMedium : RecordingStore {
    using RecordingStore::RecordingStore;
    NTSTATUS flush() override { return STATUS_DISK_FULL; }
    std::string name() const override { return "full"; }
};

struct SaveTest : RegistryTest {};

TEST_F(SaveTest, AHiveIsNotBegunWhereNothingCanBeFlushed) {
    std::vector<const HiveStore*> failed;
    create(u"before");
    ASSERT_EQ(registrySaveAll(failed), STATUS_SUCCESS);
    const std::vector<uint8_t> saved = store.file;
    registryReset();
    HivePtr again;
    Problem problem;
    ASSERT_EQ(hiveOpen(saved, again, problem), STATUS_SUCCESS) << problem.text;
    ASSERT_EQ(
        registryMount(u"\\Registry\\Machine\\TEST", std::move(again), std::make_unique<FullMedium>(store)),
        STATUS_SUCCESS);
    EXPECT_EQ(registrySaveAll(failed), STATUS_SUCCESS); /* nothing to save */
    EXPECT_TRUE(failed.empty());
    create(u"behind");
    EXPECT_EQ(registrySaveAll(failed), STATUS_DISK_FULL);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0]->name(), "full");
    EXPECT_EQ(store.file, saved); /* as sound as it was */
}

} /* namespace */
} /* namespace offline */
