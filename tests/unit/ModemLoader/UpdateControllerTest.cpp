// The update controller: Init, Prepare, Install and Abort requests, the revision check on the
// movinand storage, and which loader each request reaches.

#include <gtest/gtest.h>

#include <algorithm>

#include "FdtExportInterposer.h"
#include "FileHandlerFaults.h"
#include "ModuleTestHost.h"

namespace moduletest {
namespace {

const std::vector<std::string> kImageLoaderKeys = {"control", "ready", "serial", "bootloader",
                                                   "firmware"};
const std::vector<std::string> kArchiveLoaderKeys = {"bootloader",    "firmware",    "daemonconfig",
                                                     "productconfig", "flagfile",    "mountpoint",
                                                     "movinand",      "targetfolder"};

std::string Blob(const std::string& name) {
    return std::string(FDT_BLOB_DIRECTORY) + "/" + name + ".dtb";
}

TLogEntry PrepareError(const std::string& message) {
    return ErrorEntry("HandleControllerPrepare", message);
}
TLogEntry PrepareNote(const std::string& message) {
    return AlwaysEntry("HandleControllerPrepare", message);
}

class UpdateControllerTest : public CModuleTest {
protected:
    UpdateControllerTest() {
        AddSources();
        // No export unless a test gives one: the device has no integrated modem.
        FdtExportUse(eFdtExportMissing, nullptr);
    }
    ~UpdateControllerTest() override { FdtExportUseEnvironment(); }

    void SetIntegratedModem(bool present) {
        FdtExportUse(eFdtExportCharDevice, Blob(present ? "has-gprs-1" : "has-gprs-0").c_str());
    }
    // A stale mount left by someone else: the first unmount of Prepare then succeeds.
    void MountStorageBeforehand() {
        ASSERT_EQ(IFileHandler::Mount(reinterpret_cast<const unsigned char*>(kMovinand),
                                      reinterpret_cast<const unsigned char*>(kMountPoint),
                                      IFileHandler::eFormatMovinand),
                  0);
    }

    // The keys looked up since `from` lookups had been made.
    std::vector<std::string> KeysSince(std::size_t from) const {
        const auto keys = m_properties.LookedUpKeys();
        return std::vector<std::string>(keys.begin() + static_cast<std::ptrdiff_t>(from),
                                        keys.end());
    }
    std::vector<std::string> FileCallsSince(std::size_t from) const {
        const auto calls = m_files.Calls();
        return std::vector<std::string>(calls.begin() + static_cast<std::ptrdiff_t>(from),
                                        calls.end());
    }
    std::vector<TPublished> PublishedSince(std::size_t from) const {
        const auto events = PublishedEvents();
        return std::vector<TPublished>(events.begin() + static_cast<std::ptrdiff_t>(from),
                                       events.end());
    }

    // Which loader a Prepare request reached, told by the properties it read: the image loader
    // reads its five keys, the archive loader its eight, the fake loader none.
    std::string PrepareReaches() {
        const std::size_t lookups = m_properties.Lookups().size();
        Prepare();
        const auto keys = KeysSince(lookups);
        if (keys.empty()) {
            return "fake";
        }
        if (keys == kImageLoaderKeys) {
            return "image";
        }
        if (keys == kArchiveLoaderKeys) {
            return "archive";
        }
        return "unknown";
    }

    // Which loader an Install request reached: the archive loader completes inside Install; the
    // fake loader answers its first tick with progress; the image loader takes the tick and its
    // first tick only moves it to its first step.
    std::string InstallReaches() {
        const std::size_t published = m_broker.Published().size();
        Install();
        const auto duringInstall = PublishedSince(published);
        if (duringInstall == std::vector<TPublished>{Reply(205, 1)}) {
            return m_broker.HasTickSubscribers() ? "unknown" : "archive";
        }
        if (!duringInstall.empty() || !m_broker.HasTickSubscribers()) {
            return "unknown";
        }
        m_broker.Tick();
        const auto afterTick = PublishedSince(published);
        // The percent depends on the process-wide tick count, so only the event id is compared.
        if (afterTick.size() == 1 && afterTick[0].id == EVT_CONTROLLER_PROGRESS) {
            return "fake";
        }
        return afterTick.empty() ? "image" : "unknown";
    }
};

// ---- Init ----

TEST_F(UpdateControllerTest, InitRepliesWithTheNameCharactersOnly) {
    CreateModule();
    Init();
    const auto published = m_broker.Published();
    ASSERT_EQ(published.size(), 1u);
    EXPECT_EQ(published[0].type, 3);
    EXPECT_EQ(published[0].id, 201);
    EXPECT_EQ(published[0].size, 11u) << "the name's length, no terminator";
    EXPECT_EQ(published[0].PayloadText(), "modemloader");
}

TEST_F(UpdateControllerTest, InitTestsTheControlPathAfterASuccessfulParse) {
    CreateModule();
    Init();
    EXPECT_EQ(m_files.Calls(), std::vector<std::string>{"FileExists /sys/class/modem/control"});
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(UpdateControllerTest, InitWithAMissingPropertySkipsTheControlPathButStillReplies) {
    m_properties.Remove(kName, "revision");
    CreateModule();
    Init();
    EXPECT_TRUE(m_files.Calls().empty());
    EXPECT_EQ(PublishedEvents(), std::vector<TPublished>{InitDone()})
        << "the reply does not tell whether initialisation succeeded";
}

TEST_F(UpdateControllerTest, ControlPathPresentSelectsTheImageLoader) {
    AddControlPin();
    CreateModule();
    Init();
    EXPECT_EQ(PrepareReaches(), "image");
}

TEST_F(UpdateControllerTest, ControlPathAbsentSelectsTheArchiveLoader) {
    CreateModule();
    Init();
    EXPECT_EQ(PrepareReaches(), "archive");
}

TEST_F(UpdateControllerTest, EveryInitRecomputesTheControlPath) {
    AddControlPin();
    CreateModule();
    Init();
    EXPECT_EQ(PrepareReaches(), "image");
    m_files.RemoveFile(reinterpret_cast<const unsigned char*>(kControlPin));
    Init();
    EXPECT_EQ(PrepareReaches(), "archive");
}

TEST_F(UpdateControllerTest, AFailedParseLeavesTheControlPathFlagAsItWas) {
    AddControlPin();
    CreateModule();
    Init();
    m_files.RemoveFile(reinterpret_cast<const unsigned char*>(kControlPin));
    m_properties.Remove(kName, "removable");
    Init();
    EXPECT_EQ(PrepareReaches(), "image") << "the flag from the first Init still holds";
}

// ---- Prepare ----

// The file calls of a Prepare that finds the storage mounted and reads the stored revision.
std::vector<std::string> RevisionReadCalls() {
    return {"Umount /mnt/movinand",
            "Mount /dev/movinand /mnt/movinand 2",
            "FileExists /mnt/movinand/modem_revision",
            "FOpen /mnt/movinand/modem_revision r",
            "FClose /mnt/movinand/modem_revision",
            "Umount /mnt/movinand"};
}

TEST_F(UpdateControllerTest, PrepareMountsReadsTheRevisionUnmountsThenPreparesTheLoader) {
    StoreRevision("100\n");
    CreateModule();
    Init();
    MountStorageBeforehand();
    const std::size_t calls = m_files.Calls().size();
    Prepare();
    EXPECT_EQ(FileCallsSince(calls), RevisionReadCalls());
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{PrepareNote("current version: 100\n")});
    EXPECT_EQ(PublishedEvents().back(), Reply(203, 1));
    EXPECT_FALSE(m_files.IsMounted(kMountPoint));
    EXPECT_EQ(KeysSince(11), kArchiveLoaderKeys) << "the loader is prepared after the unmount";
}

// The failure table of Prepare, one row per condition.
struct TPrepareCase {
    std::string name;
    bool mountedBefore;          // a stale mount makes the first unmount succeed
    const char* storedRevision;  // null: no revision file
    std::string failOperation;   // forced to return 1 ("Mount", "Umount"), or "FOpen" made null
    std::vector<TLogEntry> log;
    int32_t outcome;
    bool loaderPrepared;
    bool mountedAfter;
    bool upToDate;
};
void PrintTo(const TPrepareCase& prepareCase, std::ostream* stream) { *stream << prepareCase.name; }

std::vector<TPrepareCase> PrepareCases() {
    const TLogEntry couldNotUmount = PrepareError("Couldn't umount /mnt/movinand");
    return {
        {"AllWell",
         true,
         "100\n",
         "",
         {PrepareNote("current version: 100\n")},
         1,
         true,
         false,
         false},
        {"FirstUnmountFails",
         false,
         "100\n",
         "",
         {couldNotUmount, PrepareNote("current version: 100\n")},
         1,
         true,
         false,
         false},
        {"MountFails",
         false,
         "124\n",
         "Mount",
         {couldNotUmount, PrepareError("Couldn't mount /dev/movinand")},
         0,
         false,
         false,
         false},
        {"RevisionFileMissing", true, nullptr, "", {}, 1, true, false, false},
        {"RevisionFileUnopenable", true, "124\n", "FOpen", {}, 1, true, false, false},
        {"RevisionFileEmpty", true, "", "", {}, 1, true, false, false},
        {"FinalUnmountFails",
         false,
         "100\n",
         "Umount",
         {couldNotUmount, PrepareNote("current version: 100\n"),
          PrepareError("Unable to unmount /mnt/movinand")},
         1,
         true,
         true,
         false},
        {"UpToDate",
         true,
         "124\n",
         "",
         {PrepareNote("current version: 124\n"), PrepareNote("Modem already up to date")},
         1,
         false,
         false,
         true},
    };
}

class PrepareFailureTest : public UpdateControllerTest,
                           public ::testing::WithParamInterface<TPrepareCase> {};

TEST_P(PrepareFailureTest, RepliesLogsAndPreparesAsTheConditionDemands) {
    const TPrepareCase& row = GetParam();
    if (row.storedRevision != nullptr) {
        StoreRevision(row.storedRevision);
    }
    CFileHandlerFaults faults(m_files);
    CreateModule();
    Init();
    if (row.mountedBefore) {
        MountStorageBeforehand();
    }
    if (row.failOperation == "FOpen") {
        faults.FailOpen(kRevisionFile);
    } else if (!row.failOperation.empty()) {
        faults.FailWith(row.failOperation, 1);
    }
    Prepare();

    const auto published = PublishedEvents();
    ASSERT_EQ(published.size(), 2u);
    EXPECT_EQ(published[1], Reply(203, row.outcome));
    std::vector<TLogEntry> log;
    for (const TLogEntry& entry : m_log.Entries()) {
        if (entry.function != "Prepare") {  // the archive loader's own records are not ours
            log.push_back(entry);
        }
    }
    EXPECT_EQ(log, row.log);
    EXPECT_EQ(KeysSince(11), row.loaderPrepared ? kArchiveLoaderKeys : std::vector<std::string>{});
    EXPECT_EQ(m_files.IsMounted(kMountPoint), row.mountedAfter);

    if (row.upToDate) {
        // From now on Install goes to the fake loader even with an integrated modem.
        SetIntegratedModem(true);
        EXPECT_EQ(InstallReaches(), "fake");
    }
}

INSTANTIATE_TEST_SUITE_P(Conditions, PrepareFailureTest, ::testing::ValuesIn(PrepareCases()),
                         [](const auto& parameter) { return parameter.param.name; });

// Only the first three characters of the stored line and of the configured revision decide.
struct TRevisionCase {
    std::string name;
    std::string stored;
    std::string configured;
    std::string logged;  // what "current version: " is followed by; empty: nothing was read
    bool upToDate;
};
void PrintTo(const TRevisionCase& revisionCase, std::ostream* stream) {
    *stream << revisionCase.name;
}

std::vector<TRevisionCase> RevisionCases() {
    return {
        {"ThreeOfFourCharactersMatch", "123\n", "1234", "123\n", true},
        {"ShortLineEndTakesTheThirdPlace", "12\n", "123", "12\n", false},
        {"OneCharacterWithoutLineEnd", "1", "1", "1", true},
        {"SameRevisionWithLineEnd", "124\n", "124", "124\n", true},
        {"SameRevisionAsWrittenAfterAnUpdate", std::string("124\0", 4), "124", "124", true},
        {"DifferentThirdCharacter", "125\n", "124", "125\n", false},
        {"TwoCharactersBoth", "12", "12", "12", true},
        {"StoredShorterThanConfigured", "12", "123", "12", false},
        {"LongerStoredLine", "1234567\n", "123", "1234567\n", true},
        {"OnlyTheFirstLineCounts", "999\n124\n", "124", "999\n", false},
        {"LineCutAt31Characters", "124" + std::string(40, 'x') + "\n", "124",
         "124" + std::string(28, 'x'), true},
        {"LeadingLineEnd", "\n124", "124", "\n", false},
        {"EmptyFile", "", "124", "", false},
        {"EmptyConfiguredRevision", "124\n", "", "124\n", false},
    };
}

class RevisionTest : public UpdateControllerTest,
                     public ::testing::WithParamInterface<TRevisionCase> {};

TEST_P(RevisionTest, ComparesTheFirstThreeCharacters) {
    const TRevisionCase& row = GetParam();
    StoreRevision(row.stored);
    m_properties.Set(kName, "revision", row.configured);
    CreateModule();
    Init();
    MountStorageBeforehand();
    Prepare();
    std::vector<TLogEntry> expected;
    if (!row.logged.empty()) {
        expected.push_back(PrepareNote("current version: " + row.logged));
    }
    if (row.upToDate) {
        expected.push_back(PrepareNote("Modem already up to date"));
    }
    std::vector<TLogEntry> log;
    for (const TLogEntry& entry : m_log.Entries()) {
        if (entry.function == "HandleControllerPrepare") {
            log.push_back(entry);
        }
    }
    EXPECT_EQ(log, expected);
    EXPECT_EQ(KeysSince(11), row.upToDate ? std::vector<std::string>{} : kArchiveLoaderKeys);
    EXPECT_EQ(PublishedEvents().back(), Reply(203, 1));
}

INSTANTIATE_TEST_SUITE_P(Revisions, RevisionTest, ::testing::ValuesIn(RevisionCases()),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_F(UpdateControllerTest, OnceUpToDateALaterPrepareWithAnotherRevisionStillUsesTheFakeLoader) {
    StoreRevision("124\n");
    AddControlPin();
    SetIntegratedModem(true);
    CreateModule();
    Init();
    EXPECT_EQ(PrepareReaches(), "fake");

    m_properties.Set(kName, "revision", "200");
    Init();
    EXPECT_EQ(PrepareReaches(), "fake");
    EXPECT_EQ(InstallReaches(), "fake");
    const std::size_t published = m_broker.Published().size();
    const std::size_t lookups = m_properties.Lookups().size();
    Abort();
    EXPECT_EQ(PublishedSince(published), std::vector<TPublished>{Reply(208, 1)});
    EXPECT_EQ(m_properties.Lookups().size(), lookups);
}

TEST_F(UpdateControllerTest, MountFailurePreparesNoLoaderAndRepliesFailure) {
    CFileHandlerFaults faults(m_files);
    faults.FailWith("Mount", 1);
    AddControlPin();
    CreateModule();
    Init();
    Prepare();
    EXPECT_EQ(KeysSince(11), std::vector<std::string>{});
    EXPECT_EQ(PublishedEvents(), (std::vector<TPublished>{InitDone(), Reply(203, 0)}));
    EXPECT_EQ(FileCallsSince(1), std::vector<std::string>{"Umount /mnt/movinand"})
        << "nothing is read or unmounted after the failed mount";
}

class FailingLoaderTest : public UpdateControllerTest {
protected:
    // A Prepare whose loader fails for want of its own key `missingKey`: the reply still
    // carries outcome 1, and none of the records is the controller's. Returns the records.
    std::vector<logging::TLogRecord> PrepareWithoutKey(const std::string& missingKey) {
        m_properties.Remove(kName, missingKey);
        CreateModule();
        Init();
        MountStorageBeforehand();
        m_log.Clear();
        Prepare();
        EXPECT_EQ(PublishedEvents().back(), Reply(203, 1));
        const auto records = m_log.Records();
        for (const logging::TLogRecord& record : records) {
            EXPECT_NE(record.file, "features/component/ModemLoader/src/ModemLoader")
                << record.function << ": " << record.text;
        }
        return records;
    }
};

TEST_F(FailingLoaderTest, AnArchiveLoaderWhosePrepareFailsStillGetsOutcomeOne) {
    PrepareWithoutKey("targetfolder");
}

TEST_F(FailingLoaderTest, AnImageLoaderWhosePrepareFailsGetsOutcomeOneAndNoControllerRecord) {
    AddControlPin();
    const auto records = PrepareWithoutKey("serial");
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.front().function, "Prepare");
    EXPECT_EQ(records.front().text, "(error encountered while reading properties)\n");
}

TEST_F(UpdateControllerTest, AParseMissingOnlyRemovableStillUsesTheOtherTenValues) {
    m_properties.Remove(kName, "removable");
    StoreRevision("124\n");
    CreateModule();
    Init();
    MountStorageBeforehand();
    const std::size_t calls = m_files.Calls().size();
    Prepare();
    // "movinand", "mountpoint", "revisionfile" and "revision" as read by the failed parse.
    EXPECT_EQ(FileCallsSince(calls), RevisionReadCalls());
    EXPECT_EQ(m_log.Entries(),
              (std::vector<TLogEntry>{
                  ErrorEntry("ParseProperties", "Failed to retrieve 'removable' property"),
                  PrepareNote("current version: 124\n"), PrepareNote("Modem already up to date")}));
    EXPECT_EQ(PublishedEvents().back(), Reply(203, 1));
}

// ---- Loader selection ----

struct TSelectionCase {
    std::string name;
    bool updateNeeded;
    bool integratedModem;
    bool controlPin;
    std::string prepareUses;
    std::string installUses;
};
void PrintTo(const TSelectionCase& selection, std::ostream* stream) { *stream << selection.name; }

std::vector<TSelectionCase> SelectionCases() {
    return {
        {"UpToDateWithModemAndControlPin", false, true, true, "fake", "fake"},
        {"UpToDateWithoutModemOrControlPin", false, false, false, "fake", "fake"},
        {"NoIntegratedModemWithControlPin", true, false, true, "image", "fake"},
        {"NoIntegratedModemWithoutControlPin", true, false, false, "archive", "fake"},
        {"IntegratedModemWithControlPin", true, true, true, "image", "image"},
        {"IntegratedModemWithoutControlPin", true, true, false, "archive", "archive"},
    };
}

class LoaderSelectionTest : public UpdateControllerTest,
                            public ::testing::WithParamInterface<TSelectionCase> {
protected:
    void SetUpDevice() {
        const TSelectionCase& row = GetParam();
        StoreRevision(row.updateNeeded ? "100\n" : "124\n");
        if (row.controlPin) {
            AddControlPin();
        }
        SetIntegratedModem(row.integratedModem);
        CreateModule();
        Init();
    }
};

TEST_P(LoaderSelectionTest, PrepareReachesTheChosenLoader) {
    SetUpDevice();
    EXPECT_EQ(PrepareReaches(), GetParam().prepareUses);
    EXPECT_EQ(PublishedEvents().back(), Reply(203, 1));
}

TEST_P(LoaderSelectionTest, InstallReachesTheChosenLoader) {
    SetUpDevice();
    Prepare();
    EXPECT_EQ(InstallReaches(), GetParam().installUses);
}

// Every loader acknowledges an abort alike, at once and with nothing else: the reply is the
// observable part, and no loader reads, mounts or subscribes for it.
TEST_P(LoaderSelectionTest, AbortIsAcknowledgedAtOnceWithOutcomeOne) {
    SetUpDevice();
    Prepare();
    const std::size_t published = m_broker.Published().size();
    const std::size_t lookups = m_properties.Lookups().size();
    const std::size_t calls = m_files.Calls().size();
    const std::size_t subscriptions = m_broker.SubscriptionCalls().size();
    Abort();
    EXPECT_EQ(PublishedSince(published), std::vector<TPublished>{Reply(208, 1)});
    EXPECT_EQ(m_properties.Lookups().size(), lookups);
    EXPECT_EQ(m_files.Calls().size(), calls);
    EXPECT_EQ(m_broker.SubscriptionCalls().size(), subscriptions);
}

INSTANTIATE_TEST_SUITE_P(Devices, LoaderSelectionTest, ::testing::ValuesIn(SelectionCases()),
                         [](const auto& parameter) { return parameter.param.name; });

// Install asks the device tree only while an update is needed.
TEST_F(UpdateControllerTest, InstallLooksAtTheDeviceTreeOnlyWhileAnUpdateIsNeeded) {
    StoreRevision("124\n");
    SetIntegratedModem(true);
    CreateModule();
    Init();
    const unsigned opensBefore = FdtExportOpenCount();
    Install();
    EXPECT_EQ(FdtExportOpenCount(), opensBefore + 1);
    Prepare();  // up to date from now on
    Install();
    EXPECT_EQ(FdtExportOpenCount(), opensBefore + 1);
}

TEST_F(UpdateControllerTest, InstallAndAbortPublishNothingThemselves) {
    CreateModule();
    Init();
    const std::size_t published = m_broker.Published().size();
    Install();  // no integrated modem: the fake loader, which reports on ticks only
    EXPECT_EQ(m_broker.Published().size(), published);
}

}  // namespace
}  // namespace moduletest
