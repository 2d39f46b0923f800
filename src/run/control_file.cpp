// Control file: one "KEY value" per line, "#" starts a comment.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "run/conversions.h"
#include "run/run_config.h"

namespace torvex {

namespace {

bool is_blank(char ch) {
    return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n' || ch == '\v' || ch == '\f';
}

}  // namespace

bool apply_control_file(RunConfig& config, const std::string& path) {
    // A directory opens as a stream but reads nothing; it is no control file either.
    std::error_code ec;
    std::ifstream in;
    if (!std::filesystem::is_directory(path, ec)) in.open(path);
    if (!in.is_open()) {
        std::fprintf(stderr, "cannot open control file %s\n", path.c_str());
        return false;
    }
    std::string line;
    int line_no = 0;
    while (std::getline(in, line)) {
        ++line_no;
        const std::size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);

        std::size_t key_begin = 0;
        while (key_begin < line.size() && is_blank(line[key_begin])) ++key_begin;
        if (key_begin == line.size()) continue;
        std::size_t key_end = key_begin;
        while (key_end < line.size() && !is_blank(line[key_end])) ++key_end;

        // "KEY value", "KEY = value", "KEY\tvalue" and "KEY" alone all read alike.
        std::size_t value_begin = line.find_first_not_of(" \t=", key_end);
        if (value_begin == std::string::npos) value_begin = line.size();
        std::size_t value_end = line.find_last_not_of(" \t\r");
        value_end = (value_end == std::string::npos) ? 0 : value_end + 1;
        const std::string value =
            value_end > value_begin ? line.substr(value_begin, value_end - value_begin) : "";

        const std::string key = upper_copy(line.substr(key_begin, key_end - key_begin));
        if (!apply_key(config, key, value)) {
            std::fprintf(stderr, "%s(%d): unknown control key %s\n", path.c_str(), line_no,
                         key.c_str());
            return false;
        }
    }
    return true;
}

}  // namespace torvex
