#include "CopyBenchmark.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "ChildProcess.h"
#include "PseudoRandomBytes.h"

namespace {
// The movinand storage's TFileSystemFormat, as the plug-in mounts it.
constexpr IFileHandler::TFileSystemFormat kStorageFormat =
    static_cast<IFileHandler::TFileSystemFormat>(2);
// Room beside the copies for ext4's own metadata and journal.
constexpr std::size_t kImageMarginBytes = 96u << 20;

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.c_str());
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
}  // namespace

CCopyBenchmark::~CCopyBenchmark() {
    // Unmounts (and so lets the loop device go) before the storage and its directory go.
    m_fileHandler.reset();
}

CStatus CCopyBenchmark::Prepare(std::size_t fileCount, std::size_t fileBytes) {
    if (CStatus status = m_directory.Made(); !status) {
        return status;
    }
    m_fileBytes = fileBytes;
    m_targetFolder = m_storage.MountPoint() + "/update";
    if (::mkdir(m_directory.Join("sources").c_str(), 0755) != 0) {
        return CStatus::Failure("making the folders under " + m_directory.Path());
    }
    for (std::size_t index = 0; index < fileCount; ++index) {
        const std::string name = "sources/update-" + std::to_string(index) + ".bin";
        if (CStatus status = m_directory.WriteFile(name, PseudoRandomBytes(fileBytes, index + 1));
            !status) {
            return status;
        }
        m_sources.push_back(m_directory.Join(name));
    }
    if (CStatus status = m_storage.Make(fileCount * fileBytes + kImageMarginBytes); !status) {
        return status;
    }
    m_fileHandler = std::make_unique<CLinuxFileHandler>(std::map<int, std::string>{{2, "ext4"}});
    if (m_fileHandler->Mount(Bytes(m_storage.Image()), Bytes(m_storage.MountPoint()),
                             kStorageFormat) != 0) {
        return CStatus::Failure("mounting " + m_storage.Image() + ": " +
                                m_fileHandler->LastError());
    }
    if (m_fileHandler->MakeFolder(Bytes(m_targetFolder)) != 0) {
        return CStatus::Failure("making " + m_targetFolder + ": " + m_fileHandler->LastError());
    }
    // One untimed round of each, so that every measured run finds the sources in the page
    // cache and the image's blocks allocated once before, whichever method goes first.
    double untimed = 0;
    if (CStatus status = CopyWithFileHandler(untimed); !status) {
        return status.WithContext("warming up");
    }
    return CopyWithCp(untimed).WithContext("warming up");
}

std::string CCopyBenchmark::DestinationOf(const std::string& source) const {
    return m_targetFolder + source.substr(source.rfind('/'));
}

CStatus CCopyBenchmark::RemoveCopies() {
    for (const std::string& source : m_sources) {
        const std::string destination = DestinationOf(source);
        if (::unlink(destination.c_str()) != 0 && errno != ENOENT) {
            return CStatus::Failure("removing " + destination);
        }
    }
    ::sync();
    return CStatus::Ok();
}

CStatus CCopyBenchmark::CheckCopies() const {
    for (const std::string& source : m_sources) {
        struct stat copied {};
        const std::string destination = DestinationOf(source);
        if (::stat(destination.c_str(), &copied) != 0 ||
            static_cast<std::size_t>(copied.st_size) != m_fileBytes) {
            return CStatus::Failure(destination + " is not a complete copy");
        }
    }
    return CStatus::Ok();
}

CStatus CCopyBenchmark::CopyWithFileHandler(double& seconds) {
    if (CStatus status = RemoveCopies(); !status) {
        return status;
    }
    const auto start = std::chrono::steady_clock::now();
    for (const std::string& source : m_sources) {
        if (m_fileHandler->CopyFile(Bytes(source), Bytes(DestinationOf(source))) != 0) {
            return CStatus::Failure("CopyFile " + source + ": " + m_fileHandler->LastError());
        }
    }
    m_fileHandler->Sync();
    seconds = SecondsSince(start);
    return CheckCopies();
}

CStatus CCopyBenchmark::CopyWithCp(double& seconds) {
    if (CStatus status = RemoveCopies(); !status) {
        return status;
    }
    std::vector<std::string> copy{"cp"};
    copy.insert(copy.end(), m_sources.begin(), m_sources.end());
    copy.push_back(m_targetFolder + "/");
    // sync(1) with file names fsyncs each of them, and the folder for their entries: cp's
    // copies made durable as CopyFile's are.
    std::vector<std::string> flush{"sync"};
    for (const std::string& source : m_sources) {
        flush.push_back(DestinationOf(source));
    }
    flush.push_back(m_targetFolder);
    TChildOptions options;
    options.timeout = std::chrono::seconds(300);
    const auto start = std::chrono::steady_clock::now();
    const TChildResult copied = CChildProcess::Run(copy, options);
    const TChildResult flushed = copied.exitCode == 0 ? CChildProcess::Run(flush, options) : copied;
    seconds = SecondsSince(start);
    if (copied.exitCode != 0) {
        return CStatus::Failure("cp: " + Describe(copied));
    }
    if (flushed.exitCode != 0) {
        return CStatus::Failure("sync: " + Describe(flushed));
    }
    return CheckCopies();
}
