#include "FakeFileHandler.h"

namespace {
std::string Text(const unsigned char* bytes) { return reinterpret_cast<const char*>(bytes); }

std::string Parent(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}
}  // namespace

CFakeFileHandler::CFakeFileHandler() { m_folders.insert("/"); }

CFakeFileHandler::~CFakeFileHandler() {
    for (auto& [file, stream] : m_streams) {
        fclose(file);
        free(stream->writeBuffer);
    }
}

void CFakeFileHandler::AddFile(const std::string& path, const std::string& content) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_files[path] = content;
}

void CFakeFileHandler::AddFolder(const std::string& path) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_folders.insert(path);
}

void CFakeFileHandler::AddStorage(const std::string& device) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_storages[device];
    m_storageFolders[device].insert("");
    m_files[device] = std::string();  // the device node itself
}

void CFakeFileHandler::AddStorageFile(const std::string& device, const std::string& relativePath,
                                      const std::string& content) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    AddStorage(device);
    m_storages[device][relativePath] = content;
}

void CFakeFileHandler::AddStorageFolder(const std::string& device,
                                        const std::string& relativePath) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    AddStorage(device);
    m_storageFolders[device].insert(relativePath);
}

bool CFakeFileHandler::HasFile(const std::string& path) const {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    std::string key;
    const auto* files = Locate(path, key);
    return files != nullptr && files->count(key) != 0;
}

std::string CFakeFileHandler::FileContent(const std::string& path) const {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    std::string key;
    const auto* files = Locate(path, key);
    return files != nullptr && files->count(key) != 0 ? files->at(key) : std::string();
}

bool CFakeFileHandler::HasStorageFile(const std::string& device,
                                      const std::string& relativePath) const {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const auto storage = m_storages.find(device);
    return storage != m_storages.end() && storage->second.count(relativePath) != 0;
}

std::string CFakeFileHandler::StorageFileContent(const std::string& device,
                                                 const std::string& relativePath) const {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return HasStorageFile(device, relativePath) ? m_storages.at(device).at(relativePath)
                                                : std::string();
}

bool CFakeFileHandler::IsMounted(const std::string& mountPoint) const {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return m_mounts.count(mountPoint) != 0;
}

std::vector<std::string> CFakeFileHandler::Calls() const {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return m_calls;
}

std::size_t CFakeFileHandler::OpenStreams() const {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return m_streams.size();
}

std::map<std::string, std::string>* CFakeFileHandler::Locate(const std::string& path,
                                                             std::string& key) {
    const auto* constThis = this;
    return const_cast<std::map<std::string, std::string>*>(constThis->Locate(path, key));
}

const std::map<std::string, std::string>* CFakeFileHandler::Locate(const std::string& path,
                                                                   std::string& key) const {
    for (const auto& [mountPoint, device] : m_mounts) {
        const std::string prefix = mountPoint + "/";
        if (path.compare(0, prefix.size(), prefix) == 0) {
            key = path.substr(prefix.size());
            return &m_storages.at(device);
        }
    }
    key = path;
    return &m_files;
}

bool CFakeFileHandler::FolderReachable(const std::string& path) const {
    if (m_mounts.count(path) != 0 || m_folders.count(path) != 0) {
        return true;
    }
    for (const auto& [mountPoint, device] : m_mounts) {
        const std::string prefix = mountPoint + "/";
        if (path.compare(0, prefix.size(), prefix) == 0) {
            return m_storageFolders.at(device).count(path.substr(prefix.size())) != 0;
        }
    }
    return false;
}

void CFakeFileHandler::Record(const std::string& call) { m_calls.push_back(call); }

int CFakeFileHandler::FileExists(const unsigned char* path) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Record("FileExists " + Text(path));
    return HasFile(Text(path)) || FolderReachable(Text(path)) ? 0 : 1;
}

int CFakeFileHandler::FolderExists(const unsigned char* path) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Record("FolderExists " + Text(path));
    if (FolderReachable(Text(path))) {
        return IFileHandler::kFolderPresent;
    }
    return HasFile(Text(path)) ? IFileHandler::kNotAFolder : IFileHandler::kFolderMissing;
}

int CFakeFileHandler::MakeFolder(const unsigned char* path) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const std::string folder = Text(path);
    Record("MakeFolder " + folder);
    if (!FolderReachable(Parent(folder))) {
        return 1;
    }
    for (const auto& [mountPoint, device] : m_mounts) {
        const std::string prefix = mountPoint + "/";
        if (folder.compare(0, prefix.size(), prefix) == 0) {
            m_storageFolders[device].insert(folder.substr(prefix.size()));
            return 0;
        }
    }
    m_folders.insert(folder);
    return 0;
}

int CFakeFileHandler::CopyFile(const unsigned char* source, const unsigned char* destination) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Record("CopyFile " + Text(source) + " " + Text(destination));
    std::string sourceKey;
    const auto* sourceFiles = Locate(Text(source), sourceKey);
    if (sourceFiles->count(sourceKey) == 0 || !FolderReachable(Parent(Text(destination)))) {
        return 1;
    }
    const std::string content = sourceFiles->at(sourceKey);
    std::string destinationKey;
    (*Locate(Text(destination), destinationKey))[destinationKey] = content;
    return 0;
}

int CFakeFileHandler::RemoveFile(const unsigned char* path) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Record("RemoveFile " + Text(path));
    std::string key;
    auto* files = Locate(Text(path), key);
    return files->erase(key) != 0 ? IFileHandler::kRemoved : IFileHandler::kRemoveNoSuchFile;
}

int CFakeFileHandler::FileSize(const unsigned char* path) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Record("FileSize " + Text(path));
    std::string key;
    const auto* files = Locate(Text(path), key);
    return files->count(key) != 0 ? static_cast<int>(files->at(key).size()) : -1;
}

FILE* CFakeFileHandler::FOpen(const unsigned char* path, const char* mode) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Record("FOpen " + Text(path) + " " + mode);
    std::string key;
    auto* files = Locate(Text(path), key);
    auto stream = std::make_unique<TStream>();
    stream->path = Text(path);
    FILE* file = nullptr;
    if (mode[0] == 'r') {
        if (files->count(key) == 0) {
            return nullptr;
        }
        stream->readBytes = files->at(key);
        // stdio refuses a memory stream of zero bytes; an empty file reads as /dev/null does.
        file = stream->readBytes.empty()
                   ? fopen("/dev/null", "r")
                   : fmemopen(stream->readBytes.data(), stream->readBytes.size(), "r");
    } else if (mode[0] == 'w') {
        if (!FolderReachable(Parent(Text(path)))) {
            return nullptr;
        }
        stream->writing = true;
        file = open_memstream(&stream->writeBuffer, &stream->writeSize);
        (*files)[key] = std::string();  // created or truncated at once, as fopen does
    }
    if (file != nullptr) {
        m_streams.emplace(file, std::move(stream));
    }
    return file;
}

std::size_t CFakeFileHandler::FRead(void* buffer, std::size_t size, std::size_t count, FILE* file) {
    return fread(buffer, size, count, file);
}

std::size_t CFakeFileHandler::FWrite(const void* data, std::size_t size, std::size_t count,
                                     FILE* file) {
    return fwrite(data, size, count, file);
}

char* CFakeFileHandler::FGets(char* buffer, int size, FILE* file) {
    return fgets(buffer, size, file);
}

int CFakeFileHandler::FClose(FILE* file) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const auto found = m_streams.find(file);
    if (found == m_streams.end()) {
        return EOF;
    }
    TStream& stream = *found->second;
    Record("FClose " + stream.path);
    const int result = fclose(file);
    if (stream.writing) {
        std::string key;
        (*Locate(stream.path, key))[key] = std::string(stream.writeBuffer, stream.writeSize);
        free(stream.writeBuffer);
    }
    m_streams.erase(found);
    return result;
}

int CFakeFileHandler::Mount(const unsigned char* device, const unsigned char* mountPoint,
                            IFileHandler::TFileSystemFormat format) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Record("Mount " + Text(device) + " " + Text(mountPoint) + " " +
           std::to_string(static_cast<int>(format)));
    if (m_storages.count(Text(device)) == 0 || m_mounts.count(Text(mountPoint)) != 0 ||
        !FolderReachable(Text(mountPoint))) {
        return 1;
    }
    m_mounts[Text(mountPoint)] = Text(device);
    return 0;
}

int CFakeFileHandler::Umount(const unsigned char* mountPoint) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Record("Umount " + Text(mountPoint));
    return m_mounts.erase(Text(mountPoint)) != 0 ? 0 : 1;
}

int CFakeFileHandler::Sync() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    Record("Sync");
    return 0;
}
