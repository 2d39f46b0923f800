#include "input/table_reader.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace torvex {

namespace {

// Next byte of compressed input, reading more of the file when the buffer is used up.
bool input_byte(LineReader& r, unsigned char& out) {
    if (r.in_pos == r.in_len) {
        if (r.input_ended) return false;
        r.in_len = std::fread(r.in.data(), 1, r.in.size(), r.file);
        r.in_pos = 0;
        if (r.in_len == 0) {
            r.input_ended = true;
            return false;
        }
    }
    out = r.in[r.in_pos++];
    return true;
}

bool skip_input(LineReader& r, size_t n) {
    unsigned char b;
    for (size_t i = 0; i < n; ++i)
        if (!input_byte(r, b)) return false;
    return true;
}

bool skip_zero_terminated(LineReader& r) {
    unsigned char b;
    do {
        if (!input_byte(r, b)) return false;
    } while (b != 0);
    return true;
}

// One gzip member header, parsed by hand so that zlib only ever sees raw deflate data.
bool parse_member_header(LineReader& r) {
    unsigned char h[10];
    for (unsigned char& b : h)
        if (!input_byte(r, b)) return false;
    if (h[0] != 31 || h[1] != 139 || h[2] != 8) return false;
    const unsigned flags = h[3];
    if (flags & 0x04) {
        unsigned char lo, hi;
        if (!input_byte(r, lo) || !input_byte(r, hi)) return false;
        if (!skip_input(r, static_cast<size_t>(lo) | (static_cast<size_t>(hi) << 8))) return false;
    }
    if ((flags & 0x08) && !skip_zero_terminated(r)) return false;
    if ((flags & 0x10) && !skip_zero_terminated(r)) return false;
    if ((flags & 0x02) && !skip_input(r, 2)) return false;
    return true;
}

bool start_raw_inflate(z_stream* zs) {
    std::memset(zs, 0, sizeof(z_stream));
    return inflateInit2(zs, -15) == Z_OK;
}

void ensure_room(LineReader& r) {
    if (r.text.size() < r.text_len + LineReader::kTextChunk)
        r.text.resize(r.text_len + LineReader::kTextChunk);
}

void refill_plain(LineReader& r) {
    ensure_room(r);
    size_t n = std::fread(r.text.data() + r.text_len, 1, LineReader::kTextChunk, r.file);
    if (n == 0) r.finished = true;
    r.text_len += n;
}

// Inflates into up to one text chunk. Any fault ends the text where it stands, silently:
// batch runs read files that are still being written.
void refill_gzip(LineReader& r) {
    ensure_room(r);
    z_stream* zs = r.zs;
    size_t room = LineReader::kTextChunk;
    while (room > 0) {
        if (r.in_pos == r.in_len) {
            unsigned char b;
            if (!input_byte(r, b)) {  // input ran out mid-stream
                r.finished = true;
                return;
            }
            --r.in_pos;
        }
        zs->next_in = r.in.data() + r.in_pos;
        zs->avail_in = static_cast<uInt>(r.in_len - r.in_pos);
        zs->next_out = reinterpret_cast<Bytef*>(r.text.data() + r.text_len);
        zs->avail_out = static_cast<uInt>(room);
        const int ret = inflate(zs, Z_SYNC_FLUSH);
        const size_t made = room - zs->avail_out;
        room -= made;
        r.text_len += made;
        r.in_pos = r.in_len - zs->avail_in;
        if (ret == Z_STREAM_END) {
            // Trailer (CRC and size, unchecked), then either the end or another member.
            unsigned char b;
            if (!skip_input(r, 8) || !input_byte(r, b)) {
                r.finished = true;
                return;
            }
            --r.in_pos;
            inflateEnd(zs);
            if (!parse_member_header(r) || !start_raw_inflate(zs)) {
                r.finished = true;
                return;
            }
            continue;
        }
        if (ret != Z_OK) {
            r.finished = true;
            return;
        }
    }
}

}  // namespace

LineReader::LineReader(const std::string& path) {
    file = std::fopen(path.c_str(), "rb");
    if (!file) return;
    in.resize(kInputChunk);
    unsigned char magic[2] = {0, 0};
    size_t got = std::fread(magic, 1, 2, file);
    std::fseek(file, 0, SEEK_SET);
    if (got == 2 && magic[0] == 31 && magic[1] == 139) {
        gzip = true;
        zs = new z_stream;
        std::memset(zs, 0, sizeof(z_stream));
        bool ok = parse_member_header(*this) && start_raw_inflate(zs);
        if (!ok) close();
    }
}

LineReader::~LineReader() {
    close();
}

void LineReader::close() {
    if (zs) {
        inflateEnd(zs);
        delete zs;
        zs = nullptr;
    }
    if (file) {
        std::fclose(file);
        file = nullptr;
    }
}

bool LineReader::next_line(FieldView& line) {
    if (!file && text_len == cursor) return false;
    size_t scanned = 0;  // bytes after the cursor already known to hold no newline
    for (;;) {
        const size_t avail = text_len - cursor;
        if (avail > scanned) {
            const char* start = text.data() + cursor;
            const void* nl = std::memchr(start + scanned, '\n', avail - scanned);
            if (nl) {
                size_t len = static_cast<const char*>(nl) - start;
                cursor += len + 1;
                if (len > 0 && start[len - 1] == '\r') --len;
                line = FieldView{start, len};
                return true;
            }
            scanned = avail;
        }
        if (finished || !file) {
            if (avail == 0) return false;
            const char* start = text.data() + cursor;
            size_t len = avail;
            cursor = text_len;
            if (start[len - 1] == '\r') --len;
            line = FieldView{start, len};
            return true;
        }
        if (cursor > 0) {
            std::memmove(text.data(), text.data() + cursor, avail);
            text_len = avail;
            cursor = 0;
        }
        if (gzip)
            refill_gzip(*this);
        else
            refill_plain(*this);
    }
}

namespace {

#ifdef __SSE2__
inline unsigned comma_mask(const char* at) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(','))));
}

// Bits set in a 16-bit mask, without the library call that a plain x86-64 build makes of
// __builtin_popcount.
inline unsigned bit_count16(unsigned x) {
    x = x - ((x >> 1) & 0x5555u);
    x = (x & 0x3333u) + ((x >> 2) & 0x3333u);
    x = (x + (x >> 4)) & 0x0f0fu;
    return (x + (x >> 8)) & 0x1fu;
}

// Comma bits of the 16-byte blocks of a line, the last block ending at the line's end and
// overlapping the one before (its bits already seen are dropped), so no byte loop is needed for a
// line of 16 bytes or more. f(block_start, mask) is called per block.
template <typename F>
inline void for_comma_blocks(const char* base, size_t n, F&& f) {
    size_t i = 0;
    for (; i + 16 <= n; i += 16) f(base + i, comma_mask(base + i));
    if (i < n) f(base + i, comma_mask(base + n - 16) >> (16 - (n - i)));
}
#endif

}  // namespace

// Fields of a trip row are short, so commas are found sixteen bytes at a time (SSE2, part of
// every x86-64 processor). A first pass counts them so that the field vector is sized once
// (rows of one table have the same count, so that is a no-op) and filled without growth checks.
void split_csv(FieldView line, std::vector<FieldView>& fields) {
    const char* base = line.data;
    const size_t n = line.size;
    const char* start = base;
#ifdef __SSE2__
    if (n >= 16) {
        size_t count = 1;
        for_comma_blocks(base, n, [&](const char*, unsigned mask) { count += bit_count16(mask); });
        fields.resize(count);
        FieldView* out = fields.data();
        for_comma_blocks(base, n, [&](const char* at, unsigned mask) {
            for (; mask != 0; mask &= mask - 1) {
                const char* p = at + __builtin_ctz(mask);
                *out++ = FieldView{start, static_cast<size_t>(p - start)};
                start = p + 1;
            }
        });
        *out = FieldView{start, static_cast<size_t>(base + n - start)};
        return;
    }
#endif
    fields.clear();
    for (size_t i = 0; i < n; ++i) {
        if (base[i] != ',') continue;
        fields.push_back(FieldView{start, static_cast<size_t>(base + i - start)});
        start = base + i + 1;
    }
    fields.push_back(FieldView{start, static_cast<size_t>(base + n - start)});
}

void read_header(FieldView line, HeaderMap& map) {
    std::vector<FieldView> fields;
    split_csv(line, fields);
    for (size_t i = 0; i < fields.size(); ++i) {
        FieldView name = trim_right(fields[i]);
        map[std::string(name.data, name.size)] = static_cast<int32_t>(i);
    }
}

int32_t required_column(const HeaderMap& map, const std::string& name, const std::string& path) {
    auto it = map.find(name);
    if (it == map.end()) throw std::runtime_error(path + ": missing required column " + name);
    return it->second;
}

int32_t required_column(const HeaderMap& map, std::initializer_list<const char*> aliases,
                        const std::string& path) {
    int32_t col = any_column(map, aliases);
    if (col < 0)
        throw std::runtime_error(path + ": missing required column (" +
                                 std::string(*aliases.begin()) + " or alias)");
    return col;
}

int32_t any_column(const HeaderMap& map, std::initializer_list<const char*> aliases) {
    for (const char* a : aliases) {
        auto it = map.find(a);
        if (it != map.end()) return it->second;
    }
    return -1;
}

FieldView trim_right(FieldView f) {
    while (f.size > 0 && (f.data[f.size - 1] == '\r' || f.data[f.size - 1] == ' ')) --f.size;
    return f;
}

// Plain decimals of at most 15 digits take a fast path: the digits and the power of ten are exact
// doubles, so one division rounds exactly as strtod does. Anything else goes through strtod.
double field_f64(FieldView f) {
    static constexpr double kPow10[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                        1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
    if (f.size == 0) return 0.0;
    const char* p = f.data;
    const size_t n = f.size;
    const bool negative = p[0] == '-';
    uint64_t m = 0;
    int digits = 0, frac = -1;
    bool plain = n <= 63;
    for (size_t i = negative ? 1 : 0; plain && i < n; ++i) {
        if (p[i] == '.') {
            plain = frac < 0;
            frac = 0;
            continue;
        }
        const unsigned d = static_cast<unsigned>(p[i] - '0');
        plain = d <= 9 && ++digits <= 15;
        m = m * 10 + d;
        if (frac >= 0) ++frac;
    }
    if (plain && digits > 0) {
        const double v = frac > 0 ? static_cast<double>(m) / kPow10[frac] : static_cast<double>(m);
        return negative ? -v : v;
    }
    char buf[64];
    const size_t len = n < 63 ? n : 63;
    std::memcpy(buf, p, len);
    buf[len] = 0;
    return std::strtod(buf, nullptr);
}

// Plain integers of at most 18 digits cannot overflow and are parsed in place; anything else
// goes through strtoll, with the same result.
int64_t field_i64(FieldView f) {
    if (f.size == 0) return 0;
    const char* p = f.data;
    const size_t n = f.size;
    const bool negative = p[0] == '-';
    size_t i = negative ? 1 : 0;
    if (n <= 18 && i < n) {
        int64_t v = 0;
        for (; i < n; ++i) {
            const unsigned d = static_cast<unsigned>(p[i] - '0');
            if (d > 9) break;
            v = v * 10 + d;
        }
        if (i == n) return negative ? -v : v;
    }
    char buf[32];
    const size_t len = n < 31 ? n : 31;
    std::memcpy(buf, p, len);
    buf[len] = 0;
    return std::strtoll(buf, nullptr, 10);
}

}  // namespace torvex
