#pragma once
// A fresh directory under /tmp, removed with everything in it when the object goes: the home of
// one simulated device, one storage image, one test's files. Whoever mounts something inside it
// unmounts it before then (CStorageImage does).

#include <string>

#include "Status.h"

class CTemporaryDirectory {
public:
    // Makes the directory `prefix` followed by six random characters; Made() says whether it was.
    explicit CTemporaryDirectory(const std::string& prefix = "/tmp/modemloader-test-");
    ~CTemporaryDirectory();
    CTemporaryDirectory(const CTemporaryDirectory&) = delete;
    CTemporaryDirectory& operator=(const CTemporaryDirectory&) = delete;

    const CStatus& Made() const { return m_made; }
    const std::string& Path() const { return m_path; }  // empty when it was not made
    std::string Join(const std::string& name) const { return m_path + "/" + name; }

    // Writes `content` to Path()/name, replacing it.
    [[nodiscard]] CStatus WriteFile(const std::string& name, const std::string& content) const;

private:
    std::string m_path;
    CStatus m_made;
};

// The whole content of `path`.
[[nodiscard]] CStatus ReadWholeFile(const std::string& path, std::string& content);
