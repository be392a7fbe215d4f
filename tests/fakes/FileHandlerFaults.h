#pragma once
// Wraps a file-handler backend (usually a CFakeFileHandler) and makes chosen operations fail,
// installed in its place while the object lives. Operations not made to fail reach the inner
// backend unchanged (CForwardingFileHandler); reads and closes are never made to fail.
//
//   CFakeFileHandler files;
//   CFileHandlerFaults faults(files);
//   faults.FailWith("Mount", 1);                 // every Mount returns 1
//   faults.FailWith("CopyFile", 1, "firmware");  // copies whose source contains "firmware"
//   faults.FailOpen("revision");                 // FOpen of paths containing "revision" -> null
//   faults.LimitWrites(3);                       // FWrite writes at most 3 items
//   faults.ShortenNextRead(100);                 // the next FRead reads at most 100 items

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ForwardingFileHandler.h"
#include "InstalledBackend.h"

class CFileHandlerFaults : public CForwardingFileHandler {
public:
    explicit CFileHandlerFaults(IFileHandlerBackend& inner);
    ~CFileHandlerFaults() override;
    CFileHandlerFaults(const CFileHandlerFaults&) = delete;
    CFileHandlerFaults& operator=(const CFileHandlerFaults&) = delete;

    // `operation` (an IFileHandler name) returns `result` without reaching the inner backend,
    // for every path that contains `pathPart` (empty: every call).
    void FailWith(const std::string& operation, int result, const std::string& pathPart = "");
    void FailOpen(const std::string& pathPart);
    void LimitWrites(std::size_t maximumItems);
    // The next FRead reads at most `maximumItems` (the stream moves on by what it read); later
    // ones are not limited.
    void ShortenNextRead(std::size_t maximumItems);
    // The calls answered here without reaching the inner backend, in order, each as
    // "<operation> <path> -> <result>" ("Umount /mnt/flash -> 1", "FOpen /mnt/x w -> null").
    std::vector<std::string> ForcedCalls() const;

    int FileExists(const unsigned char* path) override;
    int FolderExists(const unsigned char* path) override;
    int MakeFolder(const unsigned char* path) override;
    int CopyFile(const unsigned char* source, const unsigned char* destination) override;
    int RemoveFile(const unsigned char* path) override;
    int FileSize(const unsigned char* path) override;
    FILE* FOpen(const unsigned char* path, const char* mode) override;
    std::size_t FRead(void* buffer, std::size_t size, std::size_t count, FILE* file) override;
    std::size_t FWrite(const void* data, std::size_t size, std::size_t count, FILE* file) override;
    int Mount(const unsigned char* device, const unsigned char* mountPoint,
              IFileHandler::TFileSystemFormat format) override;
    int Umount(const unsigned char* mountPoint) override;
    int Sync() override;

private:
    // The forced result of `operation` on `path`, if one applies.
    bool Forced(const std::string& operation, const unsigned char* path, int& result) const;

    mutable std::mutex m_mutex;
    std::multimap<std::string, std::pair<std::string, int>> m_failures;  // op -> {part, result}
    std::vector<std::string> m_failedOpens;
    std::size_t m_writeLimit = static_cast<std::size_t>(-1);
    std::size_t m_nextReadLimit = static_cast<std::size_t>(-1);
    mutable std::vector<std::string> m_forcedCalls;
    CInstalledFileHandler m_installation{this};  // last: installed once built, removed first
};
