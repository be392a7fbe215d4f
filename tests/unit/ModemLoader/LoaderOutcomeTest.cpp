// What the module makes of its loaders' call-backs: progress percentages (206), completion
// (205) with the revision written and the sources removed on the storage, and aborts (208).

#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <functional>

#include "FileHandlerFaults.h"
#include "ModuleTestHost.h"

namespace moduletest {
namespace {

TLogEntry CompletedError(const std::string& message) {
    return ErrorEntry("HandleLoaderCompleted", message);
}

class LoaderOutcomeTest : public CModuleTest {
protected:
    // A device with the control pin, configured and initialised: a success finishes the update
    // on the storage.
    void SetUpImageDevice() {
        AddControlPin();
        AddSources();
        m_files.AddStorageFile(kMovinand, kFlagFile, "");
        CreateModule();
        Init();
    }
    void MountStorageBeforehand() {
        ASSERT_EQ(IFileHandler::Mount(reinterpret_cast<const unsigned char*>(kMovinand),
                                      reinterpret_cast<const unsigned char*>(kMountPoint),
                                      IFileHandler::eFormatMovinand),
                  0);
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
    bool SourcesPresent(bool bootloader, bool firmware, bool daemon, bool product) const {
        return m_files.HasFile(kBootloader) == bootloader &&
               m_files.HasFile(kFirmware) == firmware && m_files.HasFile(kDaemonConfig) == daemon &&
               m_files.HasFile(kProductConfig) == product;
    }
};

// ---- Progress ----

struct TPercentCase {
    unsigned remaining;
    unsigned total;
    uint8_t percent;
};
void PrintTo(const TPercentCase& row, std::ostream* stream) {
    *stream << row.remaining << " of " << row.total;
}

class PercentTest : public LoaderOutcomeTest, public ::testing::WithParamInterface<TPercentCase> {};

TEST_P(PercentTest, ProgressPublishesTheCompletedPercentage) {
    CreateModule();
    m_module->Progress(GetParam().remaining, GetParam().total);
    EXPECT_EQ(PublishedEvents(), std::vector<TPublished>{ProgressEvent(GetParam().percent)});
    EXPECT_TRUE(m_log.Entries().empty());
    EXPECT_TRUE(m_files.Calls().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Examples, PercentTest,
    ::testing::Values(TPercentCase{95, 100, 5}, TPercentCase{1, 3, 67}, TPercentCase{2, 3, 33},
                      TPercentCase{1, 200, 100},  // 99.5 rounds half up
                      TPercentCase{995, 1000, 1}, TPercentCase{0, 100, 100},
                      TPercentCase{150, 100, 206},  // more left than in total wraps
                      TPercentCase{2, 1, 255},      // saturates, low eight bits kept
                      TPercentCase{0, 0, 100}, TPercentCase{7, 0, 100},  // no total: done
                      TPercentCase{100, 100, 0}, TPercentCase{4294967291u, 100, 105},
                      TPercentCase{101, 100, 255}, TPercentCase{50, 100, 50},
                      TPercentCase{1, 4294967295u, 100}),
    [](const auto& parameter) {
        return "Remaining" + std::to_string(parameter.param.remaining) + "Of" +
               std::to_string(parameter.param.total);
    });

TEST_F(LoaderOutcomeTest, EveryProgressCallPublishesEvenARepeatedValue) {
    CreateModule();
    m_module->Progress(50, 100);
    m_module->Progress(50, 100);
    EXPECT_EQ(PublishedEvents(), (std::vector<TPublished>{ProgressEvent(50), ProgressEvent(50)}));
}

TEST_F(LoaderOutcomeTest, ProgressPayloadIs65BytesWithTheNameZeroFilled) {
    CreateModule();
    m_module->Progress(95, 100);
    const auto published = m_broker.Published();
    ASSERT_EQ(published.size(), 1u);
    EXPECT_EQ(published[0].size, 65u);
    ASSERT_EQ(published[0].payload.size(), 65u);
    const std::vector<uint8_t> name(published[0].payload.begin(),
                                    published[0].payload.begin() + 11);
    EXPECT_EQ(std::string(name.begin(), name.end()), "modemloader");
    for (std::size_t index = 11; index < 64; ++index) {
        EXPECT_EQ(published[0].payload[index], 0) << "byte " << index;
    }
    EXPECT_EQ(published[0].payload[64], 5);
}

// ---- Completed and Aborted without the control pin ----

TEST_F(LoaderOutcomeTest, ResultZeroIsAFailureAndTouchesNothing) {
    SetUpImageDevice();
    const std::size_t calls = m_files.Calls().size();
    m_module->Completed(0);
    EXPECT_EQ(PublishedSince(1), std::vector<TPublished>{Reply(205, 0)});
    EXPECT_EQ(m_files.Calls().size(), calls);
    EXPECT_TRUE(m_log.Entries().empty());
}

class SuccessCodeTest : public LoaderOutcomeTest, public ::testing::WithParamInterface<int> {};

TEST_P(SuccessCodeTest, AnyNonZeroResultIsASuccess) {
    CreateModule();
    Init();  // no control pin: the archive loader's case
    const std::size_t calls = m_files.Calls().size();
    m_module->Completed(GetParam());
    EXPECT_EQ(PublishedSince(1), std::vector<TPublished>{Reply(205, 1)});
    EXPECT_EQ(m_files.Calls().size(), calls) << "the archive loader left the storage as it is";
    EXPECT_FALSE(m_files.IsMounted(kMountPoint));
}

INSTANTIATE_TEST_SUITE_P(Results, SuccessCodeTest, ::testing::Values(1, -1, 2, 1000),
                         [](const auto& parameter) {
                             return parameter.param < 0
                                        ? "Minus" + std::to_string(-parameter.param)
                                        : "Result" + std::to_string(parameter.param);
                         });

TEST_F(LoaderOutcomeTest, AbortedAlwaysRepliesOutcomeOneAndDoesNothingElse) {
    SetUpImageDevice();
    const std::size_t calls = m_files.Calls().size();
    m_module->Aborted();
    m_module->Completed(0);
    m_module->Aborted();
    EXPECT_EQ(PublishedSince(1),
              (std::vector<TPublished>{Reply(208, 1), Reply(205, 0), Reply(208, 1)}));
    EXPECT_EQ(m_files.Calls().size(), calls);
}

// ---- Completed with the control pin: the update is finished on the storage ----

TEST_F(LoaderOutcomeTest, SuccessWritesTheRevisionRemovesFlagAndSourcesInOrderAndUnmounts) {
    SetUpImageDevice();
    MountStorageBeforehand();
    const std::size_t calls = m_files.Calls().size();
    m_module->Completed(1);
    EXPECT_EQ(FileCallsSince(calls),
              (std::vector<std::string>{
                  "Umount /mnt/movinand", "Mount /dev/movinand /mnt/movinand 2",
                  "FOpen /mnt/movinand/modem_revision w", "FClose /mnt/movinand/modem_revision",
                  "RemoveFile /mnt/movinand/update.flag", "RemoveFile /media/update/boot.bin",
                  "RemoveFile /media/update/firmware.bin", "RemoveFile /media/update/daemon.cfg",
                  "RemoveFile /media/update/product.cfg", "Umount /mnt/movinand"}));
    EXPECT_EQ(PublishedSince(1), std::vector<TPublished>{Reply(205, 1)});
    EXPECT_TRUE(m_log.Entries().empty());
    EXPECT_EQ(m_files.StorageFileContent(kMovinand, kRevisionFile), std::string("124\0", 4));
    EXPECT_FALSE(m_files.HasStorageFile(kMovinand, kFlagFile));
    EXPECT_TRUE(SourcesPresent(false, false, false, false));
    EXPECT_FALSE(m_files.IsMounted(kMountPoint));
}

struct TRevisionWrite {
    std::string configured;
    std::string written;
};

class RevisionWriteTest : public LoaderOutcomeTest,
                          public ::testing::WithParamInterface<TRevisionWrite> {};

TEST_P(RevisionWriteTest, TheRevisionFileHoldsExactlyFourBytesOfTheConfiguredRevision) {
    m_properties.Set(kName, "revision", GetParam().configured);
    SetUpImageDevice();
    m_module->Completed(1);
    const std::string content = m_files.StorageFileContent(kMovinand, kRevisionFile);
    ASSERT_EQ(content.size(), 4u);
    EXPECT_EQ(content.substr(0, GetParam().written.size()), GetParam().written);
}

INSTANTIATE_TEST_SUITE_P(Revisions, RevisionWriteTest,
                         ::testing::Values(TRevisionWrite{"124", std::string("124\0", 4)},
                                           TRevisionWrite{"12345", "1234"},
                                           TRevisionWrite{"1.2.3", "1.2."},
                                           TRevisionWrite{"1", std::string("1\0", 2)}),
                         [](const auto& parameter) {
                             std::string name = "Configured";
                             for (char character : parameter.param.configured) {
                                 name += std::isalnum(static_cast<unsigned char>(character))
                                             ? character
                                             : '_';
                             }
                             return name;
                         });

TEST_F(LoaderOutcomeTest, TheRevisionFileIsTruncatedOnEachWrite) {
    StoreRevision("100 and a much longer old line\n");
    SetUpImageDevice();
    m_module->Completed(1);
    EXPECT_EQ(m_files.StorageFileContent(kMovinand, kRevisionFile), std::string("124\0", 4));
}

// The failure table of the completion, one row per condition.
struct TCompletionCase {
    std::string name;
    bool mountedBefore;
    std::function<void(CFileHandlerFaults&)> fault;
    std::vector<TLogEntry> log;
    int32_t outcome;
    std::string revisionWritten;      // content of the revision file afterwards; "-" when absent
    std::array<bool, 4> sourcesLeft;  // bootloader, firmware, daemon config, product config
    bool flagLeft;
    bool mountedAfter;
};
void PrintTo(const TCompletionCase& row, std::ostream* stream) { *stream << row.name; }

std::vector<TCompletionCase> CompletionCases() {
    const std::string revision("124\0", 4);
    const auto none = [](CFileHandlerFaults&) {};
    const std::array<bool, 4> allRemoved = {false, false, false, false};
    const std::array<bool, 4> allKept = {true, true, true, true};
    return {
        {"AllWell", true, none, {}, 1, revision, allRemoved, false, false},
        {"FirstUnmountFails",
         false,
         none,
         {CompletedError("Couldn't umount /mnt/movinand")},
         1,
         revision,
         allRemoved,
         false,
         false},
        {"MountFails",
         true,
         [](CFileHandlerFaults& faults) { faults.FailWith("Mount", 1); },
         {CompletedError("Couldn't mount /dev/movinand")},
         0,
         "-",
         allKept,
         true,
         false},
        {"RevisionFileCannotBeOpened",
         true,
         [](CFileHandlerFaults& faults) { faults.FailOpen(kRevisionFile); },
         {},
         1,
         "-",
         allRemoved,
         false,
         false},
        {"ShortWrite",
         true,
         [](CFileHandlerFaults& faults) { faults.LimitWrites(3); },
         {CompletedError("Could not write new revision")},
         0,
         "124",
         allKept,
         true,
         false},
        {"FlagRemovalFails",
         true,
         [](CFileHandlerFaults& faults) { faults.FailWith("RemoveFile", 1, kFlagFile); },
         {CompletedError("Could not remove flagfile")},
         0,
         revision,
         allRemoved,
         true,
         false},
        {"FirmwareRemovalFailsLaterOnesStillAttempted",
         true,
         [](CFileHandlerFaults& faults) { faults.FailWith("RemoveFile", 1, "firmware"); },
         {CompletedError("Could not remove firmware")},
         0,
         revision,
         {false, true, false, false},
         false,
         false},
        {"EveryRemovalFails",
         true,
         [](CFileHandlerFaults& faults) { faults.FailWith("RemoveFile", 1); },
         {CompletedError("Could not remove flagfile"),
          CompletedError("Could not remove bootloader"),
          CompletedError("Could not remove firmware"),
          CompletedError("Could not remove daemon config"),
          CompletedError("Could not remove product config")},
         0,
         revision,
         allKept,
         true,
         false},
        {"RemovalOfAMissingFileIsDone",
         true,
         [](CFileHandlerFaults& faults) {
             faults.FailWith("RemoveFile", IFileHandler::kRemoveNoSuchFile, "boot.bin");
         },
         {},
         1,
         revision,
         {true, false, false, false},
         false,
         false},
        {"RemovalCodeOtherThanOneIsDone",
         true,
         [](CFileHandlerFaults& faults) { faults.FailWith("RemoveFile", -1, "daemon"); },
         {},
         1,
         revision,
         {false, false, true, false},
         false,
         false},
        {"FinalUnmountFails",
         false,
         [](CFileHandlerFaults& faults) { faults.FailWith("Umount", 1); },
         {CompletedError("Couldn't umount /mnt/movinand"),
          CompletedError("Unable to unmount /mnt/movinand")},
         1,
         revision,
         allRemoved,
         false,
         true},
    };
}

class CompletionFailureTest : public LoaderOutcomeTest,
                              public ::testing::WithParamInterface<TCompletionCase> {};

TEST_P(CompletionFailureTest, RepliesLogsWritesAndRemovesAsTheConditionDemands) {
    const TCompletionCase& row = GetParam();
    SetUpImageDevice();
    if (row.mountedBefore) {
        MountStorageBeforehand();
    }
    CFileHandlerFaults faults(m_files);
    row.fault(faults);
    m_module->Completed(1);

    EXPECT_EQ(PublishedSince(1), std::vector<TPublished>{Reply(205, row.outcome)});
    EXPECT_EQ(m_log.Entries(), row.log);
    if (row.revisionWritten == "-") {
        EXPECT_FALSE(m_files.HasStorageFile(kMovinand, kRevisionFile));
    } else {
        EXPECT_EQ(m_files.StorageFileContent(kMovinand, kRevisionFile), row.revisionWritten);
    }
    EXPECT_TRUE(SourcesPresent(row.sourcesLeft[0], row.sourcesLeft[1], row.sourcesLeft[2],
                               row.sourcesLeft[3]));
    EXPECT_EQ(m_files.HasStorageFile(kMovinand, kFlagFile), row.flagLeft);
    EXPECT_EQ(m_files.IsMounted(kMountPoint), row.mountedAfter);
}

INSTANTIATE_TEST_SUITE_P(Conditions, CompletionFailureTest, ::testing::ValuesIn(CompletionCases()),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_F(LoaderOutcomeTest, MountFailureWritesAndRemovesNothingAndDoesNotUnmount) {
    SetUpImageDevice();
    CFileHandlerFaults faults(m_files);
    faults.FailWith("Mount", 1);
    const std::size_t calls = m_files.Calls().size();
    m_module->Completed(1);
    EXPECT_EQ(FileCallsSince(calls), std::vector<std::string>{"Umount /mnt/movinand"});
}

// Only the first character of "removable" decides.
struct TRemovableCase {
    std::string name;
    std::string value;
    bool removes;
};
void PrintTo(const TRemovableCase& row, std::ostream* stream) { *stream << row.name; }

class RemovableTest : public LoaderOutcomeTest,
                      public ::testing::WithParamInterface<TRemovableCase> {};

TEST_P(RemovableTest, RemovesTheSourcesOnlyWhenTheFirstCharacterIsTheDigitOne) {
    m_properties.Set(kName, "removable", GetParam().value);
    SetUpImageDevice();
    m_module->Completed(1);
    const bool kept = !GetParam().removes;
    EXPECT_TRUE(SourcesPresent(kept, kept, kept, kept));
    EXPECT_EQ(m_files.HasStorageFile(kMovinand, kFlagFile), kept);
    EXPECT_EQ(PublishedSince(1), std::vector<TPublished>{Reply(205, 1)});
}

INSTANTIATE_TEST_SUITE_P(Values, RemovableTest,
                         ::testing::Values(TRemovableCase{"One", "1", true},
                                           TRemovableCase{"Ten", "10", true},
                                           TRemovableCase{"OneAndText", "1 (yes)", true},
                                           TRemovableCase{"Zero", "0", false},
                                           TRemovableCase{"True", "true", false},
                                           TRemovableCase{"Empty", "", false},
                                           TRemovableCase{"LeadingBlank", " 1", false},
                                           TRemovableCase{"ZeroOne", "01", false}),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_F(LoaderOutcomeTest, ASuccessWithoutTheControlPinLeavesTheStorageAlone) {
    AddSources();
    CreateModule();
    Init();
    const std::size_t calls = m_files.Calls().size();
    m_module->Completed(1);
    EXPECT_EQ(m_files.Calls().size(), calls);
    EXPECT_FALSE(m_files.HasStorageFile(kMovinand, kRevisionFile));
    EXPECT_TRUE(SourcesPresent(true, true, true, true));
    EXPECT_EQ(PublishedSince(1), std::vector<TPublished>{Reply(205, 1)});
}

// The archive loader copies within Install and reports; the module then replies at once.
TEST_F(LoaderOutcomeTest, AfterCompletionThroughTheArchiveLoaderNothingIsMounted) {
    AddSources();
    CreateModule();
    Init();
    Prepare();
    // No integrated modem is known here, so Install would use the fake loader; the archive
    // loader's own report is what the module answers, whoever triggers it.
    m_module->Completed(1);
    EXPECT_FALSE(m_files.IsMounted(kMountPoint));
    EXPECT_EQ(PublishedEvents().back(), Reply(205, 1));
}

// Only the control pin decides, not which loader ran: a fake installation on a device with the
// control pin (modem already up to date) rewrites the revision and removes the sources.
TEST_F(LoaderOutcomeTest, AFakeInstallationOnAControlPinDeviceStillFinishesOnTheStorage) {
    StoreRevision("124\n");
    SetUpImageDevice();
    Prepare();
    ASSERT_EQ(m_log.Entries().back(),
              AlwaysEntry("HandleControllerPrepare", "Modem already up to date"));
    Install();
    m_broker.Tick(20);
    EXPECT_EQ(PublishedEvents().back(), Reply(205, 1));
    EXPECT_EQ(m_files.StorageFileContent(kMovinand, kRevisionFile), std::string("124\0", 4));
    EXPECT_TRUE(SourcesPresent(false, false, false, false));
}

}  // namespace
}  // namespace moduletest
