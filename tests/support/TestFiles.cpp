#include "TestFiles.h"

#include <gtest/gtest.h>

std::string WriteTestFile(const CTemporaryDirectory& directory, const std::string& name,
                          const std::string& content) {
    const CStatus written = directory.WriteFile(name, content);
    EXPECT_TRUE(written) << written.Message();
    return directory.Join(name);
}

std::string ReadTestFile(const std::string& path) {
    std::string content;
    return ReadWholeFile(path, content) ? content : std::string();
}
