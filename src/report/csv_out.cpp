#include "report/csv_out.h"

#include <cstdarg>
#include <stdexcept>

namespace torvex {

namespace {

[[noreturn]] void cannot_write(const std::string& path) {
    throw std::runtime_error("cannot write " + path);
}

}  // namespace

bool csv_try_open(CsvOut& out, const std::string& path, const char* mode, size_t buffer_bytes) {
    out.path = path;
    out.file = std::fopen(path.c_str(), mode);
    if (!out.file) return false;
    // The buffer below is the only one: the stream passes each block straight through.
    std::setvbuf(out.file, nullptr, _IONBF, 0);
    out.buf.resize(buffer_bytes < 4096 ? 4096 : buffer_bytes);
    out.cur = out.buf.data();
    out.end = out.buf.data() + out.buf.size();
    return true;
}

void csv_open(CsvOut& out, const std::string& path, size_t buffer_bytes) {
    if (!csv_try_open(out, path, "w", buffer_bytes)) cannot_write(path);
}

void csv_flush(CsvOut& out) {
    const size_t n = static_cast<size_t>(out.cur - out.buf.data());
    out.cur = out.buf.data();
    if (n > 0 && std::fwrite(out.buf.data(), 1, n, out.file) != n) cannot_write(out.path);
}

void csv_write_raw(CsvOut& out, const char* data, size_t n) {
    csv_flush(out);
    if (std::fwrite(data, 1, n, out.file) != n) cannot_write(out.path);
}

void csv_close(CsvOut& out) {
    csv_flush(out);
    FILE* f = out.file;
    out.file = nullptr;
    if (std::fclose(f) != 0) cannot_write(out.path);
}

void csv_printf(CsvOut& out, const char* fmt, ...) {
    char* p = csv_room(out, 1024);
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(p, 1024, fmt, ap);
    va_end(ap);
    if (n < 0) return;
    if (n < 1024) {
        out.cur = p + n;
        return;
    }
    // Longer than the reserved room (long names): format again into its own string.
    std::string big(static_cast<size_t>(n) + 1, '\0');
    va_start(ap, fmt);
    std::vsnprintf(big.data(), big.size(), fmt, ap);
    va_end(ap);
    big.pop_back();
    csv_write_raw(out, big.data(), big.size());
}

}  // namespace torvex
