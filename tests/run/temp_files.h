// Temporary control files for the option tests, under a fresh directory in /tmp.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace torvex::testing_support {

struct TempDir {
    std::filesystem::path path;
    TempDir() {
        path = std::filesystem::temp_directory_path() /
               ("torvex_opts_" + std::to_string(::getpid()) + "_" + std::to_string(counter()++));
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(path);
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    // Writes text byte for byte and returns the file's path.
    std::string write(const std::string& name, const std::string& text) const {
        const std::string file = (path / name).string();
        std::ofstream out(file, std::ios::binary);
        out << text;
        return file;
    }
    static int& counter() {
        static int n = 0;
        return n;
    }
};

}  // namespace torvex::testing_support
