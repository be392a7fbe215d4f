#pragma once
// The archive loader's copy path measured against cp(1): four update files of the same size are
// copied onto an ext4 image that CLinuxFileHandler attached to a loop device and mounted (as it
// mounts the movinand storage). Once with CLinuxFileHandler::CopyFile, which returns only when
// each copy and its folder entry are on the storage, followed by the file handler's Sync as the
// archive loader calls it; once with cp followed by sync(1) of the copies, which makes the same
// data durable: the fair comparison, since a cp that only fills the page cache does not do the
// same work. Both copy the same files onto the same mounted image in the same run; the order of
// the two alternates from run to run, so neither always finds the caches as the other left them.

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "LinuxFileHandler.h"
#include "Status.h"
#include "StorageImage.h"
#include "TemporaryDirectory.h"

class CCopyBenchmark {
public:
    CCopyBenchmark() = default;
    ~CCopyBenchmark();
    CCopyBenchmark(const CCopyBenchmark&) = delete;
    CCopyBenchmark& operator=(const CCopyBenchmark&) = delete;

    // Writes `fileCount` source files of `fileBytes` each, makes the image (with its inode
    // tables and journal written at once, so that no background initialisation of the file
    // system competes with the copies), mounts it and copies once with each method untimed.
    [[nodiscard]] CStatus Prepare(std::size_t fileCount, std::size_t fileBytes);

    // One timed copy of all the files, in seconds: with CopyFile, or with one cp and one sync
    // command.
    [[nodiscard]] CStatus CopyWithFileHandler(double& seconds);
    [[nodiscard]] CStatus CopyWithCp(double& seconds);

    std::size_t TotalBytes() const { return m_sources.size() * m_fileBytes; }

private:
    // Removes the copies of the last run and flushes, so that every run writes fresh files.
    CStatus RemoveCopies();
    // The copies hold the sources' bytes (checked by size; the content is CopyFile's own tests').
    CStatus CheckCopies() const;
    std::string DestinationOf(const std::string& source) const;

    CTemporaryDirectory m_directory{"/tmp/modemloader-copy-bench-"};
    CStorageImage m_storage{m_directory.Path()};
    std::unique_ptr<CLinuxFileHandler> m_fileHandler;
    std::vector<std::string> m_sources;
    std::size_t m_fileBytes = 0;
    std::string m_targetFolder;
};
