#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

// A directory of its own for one test, removed with what is in it.
class TempDir {
public:
    TempDir() { path_ = mkdtemp(path_.data()); }
    ~TempDir() {
        std::error_code mounted;
        std::filesystem::remove_all(path_, mounted);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // Runs shell commands in it, which are to succeed.
    void Run(const std::string& commands) const {
        EXPECT_EQ(0, std::system(("cd " + path_ + " && " + commands).c_str())) << commands;
    }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_ = "/tmp/test.XXXXXX";
};
