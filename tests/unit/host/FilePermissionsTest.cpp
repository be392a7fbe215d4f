// The host's refusal of configuration and plug-in files that someone other than root or the
// invoking user could change: the file's owner and mode, every directory above it, sticky
// directories, symbolic links and files that are not there yet.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <memory>

#include "FilePermissions.h"
#include "MountTable.h"
#include "Prerequisite.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"

namespace {

constexpr uid_t kNobody = 65534;

// stat of one path fails with one error while a CFailingStat lives (the interposed stat below):
// a file that realpath found but that cannot be examined, as on a failing storage.
std::atomic<const char*> g_failingPath{nullptr};
std::atomic<int> g_failingError{0};

class CFailingStat {
public:
    CFailingStat(const std::string& path, int error) : m_path(path) {
        g_failingError = error;
        g_failingPath = m_path.c_str();
    }
    ~CFailingStat() { g_failingPath = nullptr; }
    CFailingStat(const CFailingStat&) = delete;
    CFailingStat& operator=(const CFailingStat&) = delete;

private:
    const std::string m_path;
};

std::string UserName(uid_t user) {
    const passwd* entry = ::getpwuid(user);
    const std::string number = "uid " + std::to_string(user);
    return entry != nullptr ? std::string(entry->pw_name) + " (" + number + ")" : number;
}

// The refusal's text after its subject.
std::string Refusal(const std::string& fault, uid_t owner, const std::string& mode) {
    return ": it " + fault + " (owner " + UserName(owner) + ", mode " + mode +
           "); whoever can change it runs code as root here; make it writable only by " +
           (::getuid() == 0 ? "root" : "root or " + UserName(::getuid())) +
           ", or pass --insecure-permissions";
}

class FilePermissionsTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_file = WriteTestFile(m_directory, "host.ini", "[host]\n");
        ASSERT_EQ(::chmod(m_file.c_str(), 0644), 0);
    }

    CStatus Check(const std::string& path) const {
        return CFilePermissions::CheckTrusted("configuration", path, ::getuid());
    }

    std::string MakeDirectory(const std::string& name, mode_t mode) const {
        const std::string path = m_directory.Path() + "/" + name;
        EXPECT_EQ(::mkdir(path.c_str(), 0700), 0);
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);  // not narrowed by the umask
        return path;
    }

    CTemporaryDirectory m_directory;
    std::string m_file;
};

TEST_F(FilePermissionsTest, AFileOnlyItsOwnerWritesInAPrivateDirectoryIsTrusted) {
    const CStatus status = Check(m_file);
    EXPECT_TRUE(status.IsOk()) << status.Message();
}

TEST_F(FilePermissionsTest, AWorldWritableFileIsRefusedWithItsOwnerAndMode) {
    ASSERT_EQ(::chmod(m_file.c_str(), 0666), 0);
    const CStatus status = Check(m_file);
    ASSERT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(), "refusing the configuration " + m_file +
                                    Refusal("is writable by others", ::geteuid(), "0666"));
}

TEST_F(FilePermissionsTest, AGroupWritableFileIsRefused) {
    ASSERT_EQ(::chmod(m_file.c_str(), 0664), 0);
    const CStatus status = CFilePermissions::CheckTrusted("plug-in", m_file, ::getuid());
    ASSERT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(), "refusing the plug-in " + m_file +
                                    Refusal("is writable by its group", ::geteuid(), "0664"));
}

TEST_F(FilePermissionsTest, AFileInAWorldWritableDirectoryIsRefusedNamingTheDirectory) {
    const std::string shared = MakeDirectory("shared", 0777);
    const std::string file = WriteTestFile(m_directory, "shared/host.ini", "[host]\n");
    const CStatus status = Check(file);
    ASSERT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(), "refusing the directory " + shared + " of the configuration " +
                                    file + Refusal("is writable by others", ::geteuid(), "0777"));
}

TEST_F(FilePermissionsTest, AGroupWritableDirectoryHigherUpIsRefused) {
    const std::string outer = MakeDirectory("outer", 0775);
    MakeDirectory("outer/inner", 0755);
    const std::string file = WriteTestFile(m_directory, "outer/inner/host.ini", "[host]\n");
    const CStatus status = Check(file);
    ASSERT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(), "refusing the directory " + outer + " of the configuration " +
                                    file +
                                    Refusal("is writable by its group", ::geteuid(), "0775"));
}

TEST_F(FilePermissionsTest, AStickyWorldWritableDirectoryLikeTmpIsTrusted) {
    MakeDirectory("sticky", 01777);
    const std::string file = WriteTestFile(m_directory, "sticky/host.ini", "[host]\n");
    ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
    const CStatus status = Check(file);
    EXPECT_TRUE(status.IsOk()) << status.Message();
}

TEST_F(FilePermissionsTest, ASymbolicLinkIsJudgedByTheFileItPointsTo) {
    ASSERT_EQ(::chmod(m_file.c_str(), 0646), 0);
    const std::string link = m_directory.Path() + "/link.ini";
    ASSERT_EQ(::symlink(m_file.c_str(), link.c_str()), 0);
    const CStatus status = Check(link);
    ASSERT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(), "refusing the configuration " + m_file +
                                    Refusal("is writable by others", ::geteuid(), "0646"));
}

TEST_F(FilePermissionsTest, AMissingFileIsLeftToItsReaderButItsDirectoryIsChecked) {
    EXPECT_TRUE(Check(m_directory.Path() + "/absent.ini").IsOk());
    const std::string shared = MakeDirectory("shared", 0777);
    const CStatus status = Check(shared + "/absent.ini");
    ASSERT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(), "refusing the directory " + shared + " of the configuration " +
                                    shared + "/absent.ini" +
                                    Refusal("is writable by others", ::geteuid(), "0777"));
}

TEST_F(FilePermissionsTest, AFileInAFolderThatIsNotThereEitherIsLeftToItsReader) {
    EXPECT_TRUE(Check(m_directory.Path() + "/absent-folder/absent.ini").IsOk());
}

TEST_F(FilePermissionsTest, AMissingFileNamedWithoutAFolderIsLookedForInTheWorkingDirectory) {
    const std::string shared = MakeDirectory("shared", 0777);
    // The working directory is given back, so that the later tests of this executable do not
    // run in a removed folder.
    const std::string previous = std::filesystem::current_path();
    struct TBack {
        const std::string& folder;
        ~TBack() { static_cast<void>(::chdir(folder.c_str())); }
    } back{previous};
    ASSERT_EQ(::chdir(shared.c_str()), 0);
    const CStatus status = Check("absent.ini");
    ASSERT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(), "refusing the directory " + shared +
                                    " of the configuration absent.ini" +
                                    Refusal("is writable by others", ::geteuid(), "0777"));
}

TEST_F(FilePermissionsTest, AFileOrFolderThatCannotBeExaminedIsRefusedWithTheReason) {
    const std::string file = ResolvedPath(m_file);
    const std::string folder = ResolvedPath(m_directory.Path());
    CStatus status = CStatus::Ok();
    {
        const CFailingStat failing(file, EIO);
        status = Check(m_file);
    }
    EXPECT_EQ(status.Message(), "configuration " + m_file + ": " + file + ": Input/output error");
    {
        const CFailingStat failing(folder, EACCES);
        status = Check(m_file);
    }
    EXPECT_EQ(status.Message(), "configuration " + m_file + ": " + folder + ": Permission denied");
    EXPECT_TRUE(Check(m_file).IsOk()) << "examined again once the fault is gone";
}

TEST_F(FilePermissionsTest, AnOwnerWithoutAUserNameIsNamedByNumber) {
    if (::geteuid() != 0) {
        MODEMLOADER_MISSING_PREREQUISITE("giving a file to another user needs root");
    }
    constexpr uid_t kUnnamed = 54321;
    ASSERT_EQ(::getpwuid(kUnnamed), nullptr) << "uid 54321 has a name on this machine";
    ASSERT_EQ(::chown(m_file.c_str(), kUnnamed, static_cast<gid_t>(-1)), 0);
    const CStatus status = Check(m_file);
    EXPECT_EQ(status.Message(),
              "refusing the configuration " + m_file +
                  ": it is owned by a user other than root or the invoking user (owner uid "
                  "54321, mode 0644); whoever can change it runs code as root here; make it "
                  "writable only by " +
                  (::getuid() == 0 ? std::string("root") : "root or " + UserName(::getuid())) +
                  ", or pass --insecure-permissions");
}

TEST_F(FilePermissionsTest, ARefusalOnBehalfOfAnInvokingUserNamesThatUserAsTrustedToo) {
    ASSERT_EQ(::chmod(m_file.c_str(), 0666), 0);
    const CStatus status = CFilePermissions::CheckTrusted("configuration", m_file, kNobody);
    const std::string owner = UserName(::geteuid());
    EXPECT_EQ(status.Message(), "refusing the configuration " + m_file +
                                    ": it is writable by others (owner " + owner +
                                    ", mode 0666); whoever can change it runs code as root "
                                    "here; make it writable only by root or " +
                                    UserName(kNobody) + ", or pass --insecure-permissions");
}

TEST_F(FilePermissionsTest, AFileOwnedByAnotherUserIsRefused) {
    if (::geteuid() != 0) {
        MODEMLOADER_MISSING_PREREQUISITE("giving a file to another user needs root");
    }
    ASSERT_EQ(::chown(m_file.c_str(), kNobody, static_cast<gid_t>(-1)), 0);
    const CStatus status = Check(m_file);
    ASSERT_FALSE(status.IsOk());
    EXPECT_EQ(
        status.Message(),
        "refusing the configuration " + m_file +
            Refusal("is owned by a user other than root or the invoking user", kNobody, "0644"));
}

TEST_F(FilePermissionsTest, TheInvokingUsersOwnFileIsTrusted) {
    if (::geteuid() != 0) {
        MODEMLOADER_MISSING_PREREQUISITE("giving a file to another user needs root");
    }
    // Root running on behalf of an invoking user: that user's files are as good as root's.
    ASSERT_EQ(::chown(m_file.c_str(), kNobody, static_cast<gid_t>(-1)), 0);
    const CStatus status = CFilePermissions::CheckTrusted("configuration", m_file, kNobody);
    EXPECT_TRUE(status.IsOk()) << status.Message();
}

}  // namespace

// The name the C library gives stat where off_t is made 64 bits wide by the build.
#ifdef __USE_FILE_OFFSET64
#define MODEMLOADER_STAT_NAME "stat64"
#else
#define MODEMLOADER_STAT_NAME "stat"
#endif

extern "C" int stat(const char* path, struct stat* status) noexcept {
    const char* failing = g_failingPath;
    if (failing != nullptr && std::string(path) == failing) {
        errno = g_failingError;
        return -1;
    }
    static const auto next = reinterpret_cast<int (*)(const char*, struct stat*)>(
        ::dlsym(RTLD_NEXT, MODEMLOADER_STAT_NAME));
    return next(path, status);
}
