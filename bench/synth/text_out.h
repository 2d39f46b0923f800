// Fast text output: an append-only byte buffer with hand-written number formatting, and a file
// sink that writes it plain or as gzip members. printf is too slow for ten million trip rows.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace torvex::synth {

struct TextBuf {
    std::vector<char> data;
    size_t len = 0;

    void reserve(size_t n) {
        if (data.size() < len + n) data.resize((len + n) * 2 + 4096);
    }
    void clear() { len = 0; }
    void put(char c) {
        reserve(1);
        data[len++] = c;
    }
    void put(std::string_view s) {
        reserve(s.size());
        for (char c : s) data[len++] = c;
    }
    void put_i64(int64_t v);
    // Fixed point with `decimals` digits after the point, rounded half away from zero.
    void put_fixed(double v, int decimals);
    // Like put_fixed, but drops trailing zeros and a bare point: 0.5, 1, 0.3333.
    void put_trim(double v, int decimals);
};

// Output file: plain bytes, or a gzip stream where each flushed block is a complete member, so
// that blocks can be compressed on several threads and still concatenate to one valid file.
struct TextFile {
    FILE* f = nullptr;
    bool gzip = false;
    int level = 1;  // fastest: trip files are large and written once per benchmark
    std::string path;
};

// Opens for writing; false on failure.
bool open_text(TextFile& out, const std::string& path, bool gzip);
// Writes the buffer's bytes (plain) or one gzip member made of them; false on a write error.
bool write_block(TextFile& out, const TextBuf& buf);
// Writes a member already compressed by compress_member.
bool write_raw(TextFile& out, const TextBuf& bytes);
bool close_text(TextFile& out);
// One complete gzip member holding `text`, appended to `member` (which is cleared first).
bool compress_member(const TextBuf& text, int level, TextBuf& member);

}  // namespace torvex::synth
