#include "support/test_files.h"

#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace torvex::fixture {

TempDir::TempDir() {
    char tmpl[] = "/tmp/torvex_test_XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    path = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool file_exists(const std::string& path) {
    return std::filesystem::exists(path);
}

std::string gzip_member(const std::string& text, bool extra, bool name, bool comment, bool hcrc) {
    std::string out;
    unsigned char flags =
        (hcrc ? 0x02 : 0) | (extra ? 0x04 : 0) | (name ? 0x08 : 0) | (comment ? 0x10 : 0);
    out += std::string("\x1f\x8b\x08", 3);
    out += static_cast<char>(flags);
    out += std::string(6, '\0');
    if (extra)
        out += std::string(
            "\x05\x00"
            "ABCDE",
            7);
    if (name) out += std::string("trips.csv\0", 10);
    if (comment) out += std::string("made by a test\0", 15);
    if (hcrc) out += std::string("\x12\x34", 2);

    z_stream zs{};
    deflateInit2(&zs, 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    std::string body(deflateBound(&zs, text.size()) + 16, '\0');
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    zs.avail_in = static_cast<uInt>(text.size());
    zs.next_out = reinterpret_cast<Bytef*>(body.data());
    zs.avail_out = static_cast<uInt>(body.size());
    deflate(&zs, Z_FINISH);
    body.resize(zs.total_out);
    deflateEnd(&zs);
    out += body;

    uLong crc =
        crc32(0L, reinterpret_cast<const Bytef*>(text.data()), static_cast<uInt>(text.size()));
    uint32_t size = static_cast<uint32_t>(text.size());
    for (int i = 0; i < 4; ++i) out += static_cast<char>((crc >> (8 * i)) & 0xff);
    for (int i = 0; i < 4; ++i) out += static_cast<char>((size >> (8 * i)) & 0xff);
    return out;
}

RunResult run_program(const std::string& program, const std::vector<std::string>& args,
                      const std::string& cwd) {
    TempDir capture;
    const std::string out_path = capture.file("out"), err_path = capture.file("err");
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(cwd.c_str()) != 0) _exit(127);
        FILE* in = freopen("/dev/null", "r", stdin);
        FILE* o = freopen(out_path.c_str(), "w", stdout);
        FILE* e = freopen(err_path.c_str(), "w", stderr);
        if (!in || !o || !e) _exit(127);
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(program.c_str()));
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    RunResult r;
    if (WIFEXITED(status))
        r.exit_code = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        r.exit_code = 128 + WTERMSIG(status);
    r.out = read_file(out_path);
    r.err = read_file(err_path);
    return r;
}

}  // namespace torvex::fixture
