#pragma once
// A fresh directory under /tmp for one test's files, removed with its contents afterwards.

#include <string>

class CTemporaryDirectory {
public:
    CTemporaryDirectory();
    ~CTemporaryDirectory();
    CTemporaryDirectory(const CTemporaryDirectory&) = delete;
    CTemporaryDirectory& operator=(const CTemporaryDirectory&) = delete;

    bool Valid() const { return !m_path.empty(); }
    std::string Path(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};
