#include "text_out.h"

#include <zlib.h>

#include <cmath>
#include <cstring>

namespace torvex::synth {

void TextBuf::put_i64(int64_t v) {
    reserve(24);
    char tmp[24];
    int n = 0;
    uint64_t u = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    do {
        tmp[n++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    if (v < 0) data[len++] = '-';
    while (n > 0) data[len++] = tmp[--n];
}

static const double kPow10[] = {1, 10, 100, 1000, 1e4, 1e5, 1e6, 1e7, 1e8};

void TextBuf::put_fixed(double v, int decimals) {
    if (v < 0) {
        put('-');
        v = -v;
    }
    const double scale = kPow10[decimals];
    const uint64_t scaled = static_cast<uint64_t>(std::floor(v * scale + 0.5));
    const uint64_t whole = scaled / static_cast<uint64_t>(scale);
    uint64_t frac = scaled % static_cast<uint64_t>(scale);
    put_i64(static_cast<int64_t>(whole));
    if (decimals == 0) return;
    reserve(static_cast<size_t>(decimals) + 1);
    data[len++] = '.';
    for (int i = decimals - 1; i >= 0; --i) {
        data[len + i] = static_cast<char>('0' + frac % 10);
        frac /= 10;
    }
    len += decimals;
}

void TextBuf::put_trim(double v, int decimals) {
    put_fixed(v, decimals);
    if (decimals == 0) return;
    while (data[len - 1] == '0') --len;
    if (data[len - 1] == '.') --len;
}

bool open_text(TextFile& out, const std::string& path, bool gzip) {
    out.path = path;
    out.gzip = gzip;
    out.f = std::fopen(path.c_str(), "wb");
    if (out.f) std::setvbuf(out.f, nullptr, _IOFBF, 1 << 20);
    return out.f != nullptr;
}

bool compress_member(const TextBuf& text, int level, TextBuf& member) {
    member.clear();
    z_stream zs;
    std::memset(&zs, 0, sizeof zs);
    // Window bits 15 + 16: zlib writes the gzip header and trailer itself.
    if (deflateInit2(&zs, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) return false;
    const size_t bound = deflateBound(&zs, static_cast<uLong>(text.len)) + 64;
    member.reserve(bound);
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data.data()));
    zs.avail_in = static_cast<uInt>(text.len);
    zs.next_out = reinterpret_cast<Bytef*>(member.data.data());
    zs.avail_out = static_cast<uInt>(bound);
    const int rc = deflate(&zs, Z_FINISH);
    member.len = bound - zs.avail_out;
    deflateEnd(&zs);
    return rc == Z_STREAM_END;
}

bool write_raw(TextFile& out, const TextBuf& bytes) {
    return bytes.len == 0 || std::fwrite(bytes.data.data(), 1, bytes.len, out.f) == bytes.len;
}

bool write_block(TextFile& out, const TextBuf& buf) {
    if (!out.gzip) return write_raw(out, buf);
    TextBuf member;
    return compress_member(buf, out.level, member) && write_raw(out, member);
}

bool close_text(TextFile& out) {
    if (!out.f) return false;
    const bool ok = std::fflush(out.f) == 0 && !std::ferror(out.f);
    const bool closed = std::fclose(out.f) == 0;
    out.f = nullptr;
    return ok && closed;
}

}  // namespace torvex::synth
