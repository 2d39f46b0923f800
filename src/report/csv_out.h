// Buffered text output for the result files: one large buffer per file, numbers formatted by hand
// where that is exactly what printf would print, and "cannot write " errors for main outputs.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace torvex {

// Room a single number may take in the buffer, printf fallback included (%.4f of FLT_MAX).
constexpr size_t kNumberRoom = 64;

// Digits of v, no sign.
inline char* put_u64(char* p, uint64_t v) {
    static constexpr char kPairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    char tmp[20];
    char* e = tmp + sizeof tmp;
    char* s = e;
    while (v >= 100) {
        const unsigned r = static_cast<unsigned>(v % 100);
        v /= 100;
        s -= 2;
        std::memcpy(s, kPairs + 2 * r, 2);
    }
    if (v >= 10) {
        s -= 2;
        std::memcpy(s, kPairs + 2 * v, 2);
    } else {
        *--s = static_cast<char>('0' + v);
    }
    const size_t n = static_cast<size_t>(e - s);
    std::memcpy(p, s, n);
    return p + n;
}

// As "%lld" / "%d".
inline char* put_i64(char* p, int64_t v) {
    if (v < 0) {
        *p++ = '-';
        return put_u64(p, 0 - static_cast<uint64_t>(v));
    }
    return put_u64(p, static_cast<uint64_t>(v));
}

// As "%.<decimals>f" of a float (promoted to double), decimals 0 to 4, byte for byte.
// A float times 10^4 needs at most 24 + 14 significant bits, so the scaled value is exact in a
// double; rounding it to the nearest integer with ties to even is then exactly the decimal
// rounding printf performs. Magnitudes beyond 1e15, infinities and NaN go through snprintf.
inline char* put_fixed(char* p, float v, int decimals) {
    static constexpr double kScale[] = {1.0, 10.0, 100.0, 1000.0, 10000.0};
    static constexpr uint64_t kPow[] = {1, 10, 100, 1000, 10000};
    const double x = static_cast<double>(v) * kScale[decimals];
    if (!(std::fabs(x) < 1e15))
        return p + std::snprintf(p, kNumberRoom, "%.*f", decimals, static_cast<double>(v));
    if (std::signbit(v)) *p++ = '-';
    uint64_t u = static_cast<uint64_t>(std::fabs(std::nearbyint(x)));
    p = put_u64(p, u / kPow[decimals]);
    if (decimals > 0) {
        u %= kPow[decimals];
        *p = '.';
        for (int k = decimals; k >= 1; --k) {
            p[k] = static_cast<char>('0' + u % 10);
            u /= 10;
        }
        p += decimals + 1;
    }
    return p;
}

inline char* put_str(char* p, std::string_view s) {
    if (s.empty()) return p;  // an empty view may hold no pointer at all
    std::memcpy(p, s.data(), s.size());
    return p + s.size();
}

// One output file written through a large buffer. Rows are formatted straight into the buffer
// after room() has made space for them; open and write failures raise "cannot write <path>".
struct CsvOut {
    std::string path;
    FILE* file = nullptr;
    std::vector<char> buf;
    char* cur = nullptr;
    char* end = nullptr;

    CsvOut() = default;
    CsvOut(const CsvOut&) = delete;
    CsvOut& operator=(const CsvOut&) = delete;
    // A file still open here is being abandoned after a failure: closed without a report.
    ~CsvOut() {
        if (file) std::fclose(file);
    }
};

// Opens for writing ("w") or appending ("a"); false when the file cannot be opened.
bool csv_try_open(CsvOut& out, const std::string& path, const char* mode,
                  size_t buffer_bytes = size_t{1} << 22);
// As csv_try_open, raising "cannot write <path>" on failure.
void csv_open(CsvOut& out, const std::string& path, size_t buffer_bytes = size_t{1} << 22);
// Writes the buffer out; raises "cannot write <path>" on a short write.
void csv_flush(CsvOut& out);
// Flushes and closes; raises on a failed write or close.
void csv_close(CsvOut& out);
// Flushes if fewer than n bytes are free; returns the write position.
inline char* csv_room(CsvOut& out, size_t n) {
    if (static_cast<size_t>(out.end - out.cur) < n) csv_flush(out);
    return out.cur;
}
// Writes bytes straight to the file after flushing the buffer.
void csv_write_raw(CsvOut& out, const char* data, size_t n);
inline void csv_text(CsvOut& out, std::string_view s) {
    if (s.size() > out.buf.size()) return csv_write_raw(out, s.data(), s.size());
    out.cur = put_str(csv_room(out, s.size()), s);
}
// printf-formatted text of up to 1024 bytes, for the rare and slow rows.
void csv_printf(CsvOut& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

}  // namespace torvex
