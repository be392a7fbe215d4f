// One whole update on fakes of the host services, from the host's Init to the last tick, with the
// fake loader doing the installation: every published event and every log record, in order.

#include <gtest/gtest.h>

#include "FdtExportInterposer.h"
#include "ModuleTestHost.h"

namespace moduletest {
namespace {

class WholeUpdateTest : public CModuleTest {
protected:
    WholeUpdateTest() {
        AddSources();
        m_files.AddStorageFile(kMovinand, kFlagFile, "");
        FdtExportUse(eFdtExportMissing, nullptr);
    }
    ~WholeUpdateTest() override { FdtExportUseEnvironment(); }

    void RunUpdate() {
        CreateModule();
        Init();
        Prepare();
        Install();
        for (int tick = 0; tick < 20; ++tick) {
            m_broker.Tick();
        }
    }

    // The replies of a whole fake installation: 201, 203, twenty progress events counting up
    // from 5 to 100 percent, and the final 205.
    static std::vector<TPublished> ExpectedEvents(int32_t outcome) {
        std::vector<TPublished> events = {InitDone(), Reply(203, 1)};
        for (uint8_t percent = 5; percent <= 100; percent += 5) {
            events.push_back(ProgressEvent(percent));
        }
        events.push_back(Reply(205, outcome));
        return events;
    }

    void ExpectEveryRecordOnTheModulesChannel() const {
        for (const auto& record : m_log.Records()) {
            EXPECT_EQ(record.channel, logging::ModemLoader);
            EXPECT_EQ(record.file, "features/component/ModemLoader/src/ModemLoader");
        }
    }
};

// The modem is up to date on a device with the control pin: the fake loader simulates the
// installation and the completion still writes the revision and removes the update's files.
TEST_F(WholeUpdateTest, UpToDateModemOnADeviceWithTheControlPin) {
    AddControlPin();
    StoreRevision("124\n");
    RunUpdate();

    EXPECT_EQ(PublishedEvents(), ExpectedEvents(1));
    EXPECT_EQ(m_log.Entries(),
              (std::vector<TLogEntry>{
                  ErrorEntry("HandleControllerPrepare", "Couldn't umount /mnt/movinand"),
                  AlwaysEntry("HandleControllerPrepare", "current version: 124\n"),
                  AlwaysEntry("HandleControllerPrepare", "Modem already up to date"),
                  ErrorEntry("HandleLoaderCompleted", "Couldn't umount /mnt/movinand"),
              }));
    const auto records = m_log.Records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[1].text, "(current version: 124\n)\n");
    ExpectEveryRecordOnTheModulesChannel();

    EXPECT_EQ(m_files.StorageFileContent(kMovinand, kRevisionFile), std::string("124\0", 4));
    EXPECT_FALSE(m_files.HasStorageFile(kMovinand, kFlagFile));
    EXPECT_FALSE(m_files.HasFile(kBootloader));
    EXPECT_FALSE(m_files.HasFile(kFirmware));
    EXPECT_FALSE(m_files.HasFile(kDaemonConfig));
    EXPECT_FALSE(m_files.HasFile(kProductConfig));
    EXPECT_FALSE(m_files.IsMounted(kMountPoint));
    EXPECT_EQ(m_files.OpenStreams(), 0u);

    EXPECT_FALSE(m_broker.HasTickSubscribers()) << "the fake loader unsubscribed when done";
    m_broker.Tick();
    EXPECT_EQ(PublishedEvents().size(), 23u) << "a later tick reaches nobody";
}

// Without the control pin the completion leaves the storage as the archive loader would have.
TEST_F(WholeUpdateTest, UpToDateModemOnADeviceWithoutTheControlPin) {
    StoreRevision("124\n");
    RunUpdate();

    EXPECT_EQ(PublishedEvents(), ExpectedEvents(1));
    EXPECT_EQ(m_log.Entries(),
              (std::vector<TLogEntry>{
                  ErrorEntry("HandleControllerPrepare", "Couldn't umount /mnt/movinand"),
                  AlwaysEntry("HandleControllerPrepare", "current version: 124\n"),
                  AlwaysEntry("HandleControllerPrepare", "Modem already up to date"),
              }));
    ExpectEveryRecordOnTheModulesChannel();
    EXPECT_EQ(m_files.StorageFileContent(kMovinand, kRevisionFile), "124\n");
    EXPECT_TRUE(m_files.HasStorageFile(kMovinand, kFlagFile));
    EXPECT_TRUE(m_files.HasFile(kBootloader));
    EXPECT_FALSE(m_files.IsMounted(kMountPoint));
}

// An update is needed but the device tree announces no integrated modem: the archive loader is
// prepared, yet the fake loader installs, so nothing is copied and the host still hears success.
TEST_F(WholeUpdateTest, UpdateNeededWithoutAnIntegratedModemIsSimulated) {
    StoreRevision("100\n");
    RunUpdate();

    EXPECT_EQ(PublishedEvents(), ExpectedEvents(1));
    EXPECT_EQ(m_log.Entries(),
              (std::vector<TLogEntry>{
                  ErrorEntry("HandleControllerPrepare", "Couldn't umount /mnt/movinand"),
                  AlwaysEntry("HandleControllerPrepare", "current version: 100\n"),
                  AlwaysEntry("HasIntegratedGPRS", "trying to check node"),
                  ErrorEntry("HasIntegratedGPRS", "FDT path offset"),
              }));
    EXPECT_EQ(m_properties.LookedUpKeys().size(), 11u + 8u) << "the archive loader was prepared";
    EXPECT_EQ(m_files.StorageFileContent(kMovinand, kRevisionFile), "100\n");
    EXPECT_FALSE(m_files.HasStorageFile(kMovinand, std::string(kTargetFolder) + "/boot.bin"));
    EXPECT_TRUE(m_files.HasFile(kBootloader));
    EXPECT_FALSE(m_files.IsMounted(kMountPoint));
}

// An abort in the middle is acknowledged at once; the simulated installation runs to its end.
TEST_F(WholeUpdateTest, AbortHalfwayIsAcknowledgedAndTheInstallationStillCompletes) {
    StoreRevision("124\n");
    CreateModule();
    Init();
    Prepare();
    Install();
    m_broker.Tick(10);
    Abort();
    m_broker.Tick(10);

    auto expected = ExpectedEvents(1);
    expected.insert(expected.begin() + 2 + 10, Reply(208, 1));
    EXPECT_EQ(PublishedEvents(), expected);
}

}  // namespace
}  // namespace moduletest
