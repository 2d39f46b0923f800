// Temporary folders, files and a gzip writer for tests, plus running the torvex binary.
#pragma once

#include <string>
#include <vector>

namespace torvex::fixture {

// A fresh folder under /tmp, removed with its contents when the object goes.
struct TempDir {
    std::string path;
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string file(const std::string& name) const { return path + "/" + name; }
};

void write_file(const std::string& path, const std::string& bytes);
std::string read_file(const std::string& path);
bool file_exists(const std::string& path);

// One gzip member of `text`, with optional header fields (FEXTRA, FNAME, FCOMMENT, FHCRC).
std::string gzip_member(const std::string& text, bool extra = false, bool name = false,
                        bool comment = false, bool hcrc = false);

struct RunResult {
    int exit_code = -1;  // process exit status, or 128 + signal when it ended abnormally
    std::string out, err;
};

// Runs `program args...` in `cwd` with no standard input; captures both streams.
RunResult run_program(const std::string& program, const std::vector<std::string>& args,
                      const std::string& cwd = ".");

}  // namespace torvex::fixture
