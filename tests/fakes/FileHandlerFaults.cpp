#include "FileHandlerFaults.h"

namespace {
std::string Text(const unsigned char* bytes) {
    return bytes != nullptr ? reinterpret_cast<const char*>(bytes) : "";
}
}  // namespace

CFileHandlerFaults::CFileHandlerFaults(IFileHandlerBackend& inner)
    : CForwardingFileHandler(inner) {}

CFileHandlerFaults::~CFileHandlerFaults() = default;

void CFileHandlerFaults::FailWith(const std::string& operation, int result,
                                  const std::string& pathPart) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_failures.emplace(operation, std::make_pair(pathPart, result));
}

void CFileHandlerFaults::FailOpen(const std::string& pathPart) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_failedOpens.push_back(pathPart);
}

void CFileHandlerFaults::LimitWrites(std::size_t maximumItems) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_writeLimit = maximumItems;
}

void CFileHandlerFaults::ShortenNextRead(std::size_t maximumItems) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_nextReadLimit = maximumItems;
}

std::vector<std::string> CFileHandlerFaults::ForcedCalls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_forcedCalls;
}

bool CFileHandlerFaults::Forced(const std::string& operation, const unsigned char* path,
                                int& result) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto [first, last] = m_failures.equal_range(operation);
    for (auto it = first; it != last; ++it) {
        if (Text(path).find(it->second.first) != std::string::npos) {
            result = it->second.second;
            m_forcedCalls.push_back(operation + (path != nullptr ? " " + Text(path) : "") + " -> " +
                                    std::to_string(result));
            return true;
        }
    }
    return false;
}

int CFileHandlerFaults::FileExists(const unsigned char* path) {
    int result = 0;
    return Forced("FileExists", path, result) ? result : CForwardingFileHandler::FileExists(path);
}

int CFileHandlerFaults::FolderExists(const unsigned char* path) {
    int result = 0;
    return Forced("FolderExists", path, result) ? result
                                                : CForwardingFileHandler::FolderExists(path);
}

int CFileHandlerFaults::MakeFolder(const unsigned char* path) {
    int result = 0;
    return Forced("MakeFolder", path, result) ? result : CForwardingFileHandler::MakeFolder(path);
}

int CFileHandlerFaults::CopyFile(const unsigned char* source, const unsigned char* destination) {
    int result = 0;
    return Forced("CopyFile", source, result)
               ? result
               : CForwardingFileHandler::CopyFile(source, destination);
}

int CFileHandlerFaults::RemoveFile(const unsigned char* path) {
    int result = 0;
    return Forced("RemoveFile", path, result) ? result : CForwardingFileHandler::RemoveFile(path);
}

int CFileHandlerFaults::FileSize(const unsigned char* path) {
    int result = 0;
    return Forced("FileSize", path, result) ? result : CForwardingFileHandler::FileSize(path);
}

FILE* CFileHandlerFaults::FOpen(const unsigned char* path, const char* mode) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const std::string& part : m_failedOpens) {
            if (Text(path).find(part) != std::string::npos) {
                m_forcedCalls.push_back("FOpen " + Text(path) + " " + mode + " -> null");
                return nullptr;
            }
        }
    }
    return CForwardingFileHandler::FOpen(path, mode);
}

std::size_t CFileHandlerFaults::FRead(void* buffer, std::size_t size, std::size_t count,
                                      FILE* file) {
    std::size_t limit = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        limit = m_nextReadLimit;
        m_nextReadLimit = static_cast<std::size_t>(-1);
    }
    return CForwardingFileHandler::FRead(buffer, size, count < limit ? count : limit, file);
}

std::size_t CFileHandlerFaults::FWrite(const void* data, std::size_t size, std::size_t count,
                                       FILE* file) {
    std::size_t limit = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        limit = m_writeLimit;
    }
    return CForwardingFileHandler::FWrite(data, size, count < limit ? count : limit, file);
}

int CFileHandlerFaults::Mount(const unsigned char* device, const unsigned char* mountPoint,
                              IFileHandler::TFileSystemFormat format) {
    int result = 0;
    return Forced("Mount", device, result)
               ? result
               : CForwardingFileHandler::Mount(device, mountPoint, format);
}

int CFileHandlerFaults::Umount(const unsigned char* mountPoint) {
    int result = 0;
    return Forced("Umount", mountPoint, result) ? result
                                                : CForwardingFileHandler::Umount(mountPoint);
}

int CFileHandlerFaults::Sync() {
    int result = 0;
    return Forced("Sync", nullptr, result) ? result : CForwardingFileHandler::Sync();
}
