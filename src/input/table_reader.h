// The one reader of delimited input: lines as views into its own buffer, plain text or gzip
// (recognised by its magic bytes), plus the comma splitter, header map and forgiving converters.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace torvex {

// Pointer and length into the reader's text buffer; valid until the next next_line call.
struct FieldView {
    const char* data = nullptr;
    size_t size = 0;

    std::string_view view() const { return {data, size}; }
    bool empty() const { return size == 0; }
};

using HeaderMap = std::unordered_map<std::string, int32_t>;

struct LineReader {
    static constexpr size_t kInputChunk = 0x100000;  // compressed input read per fread
    static constexpr size_t kTextChunk = 0x400000;   // text buffer growth per refill

    FILE* file = nullptr;
    bool gzip = false;
    bool input_ended = false;  // no more compressed input in the file
    bool finished = false;     // no more text will come
    std::vector<unsigned char> in;
    size_t in_pos = 0, in_len = 0;
    z_stream* zs = nullptr;  // raw-inflate state, only for gzip input
    std::vector<char> text;
    size_t text_len = 0;  // bytes of text held
    size_t cursor = 0;    // next unread byte

    explicit LineReader(const std::string& path);
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    bool is_open() const { return file != nullptr; }
    void close();
    // The next line without its line end (one trailing CR removed); false at end of input.
    bool next_line(FieldView& line);
};

void split_csv(FieldView line, std::vector<FieldView>& fields);
void read_header(FieldView line, HeaderMap& map);
// Index of a column that must exist; raises "<path>: missing required column <name>".
int32_t required_column(const HeaderMap& map, const std::string& name, const std::string& path);
// Index of the first alias present, in the order given; raises
// "<path>: missing required column (<first> or alias)" when none is.
int32_t required_column(const HeaderMap& map, std::initializer_list<const char*> aliases,
                        const std::string& path);
// Index of the first alias present, in the order given, or -1.
int32_t any_column(const HeaderMap& map, std::initializer_list<const char*> aliases);
FieldView trim_right(FieldView f);
double field_f64(FieldView f);
int64_t field_i64(FieldView f);
// The field at a column, empty when the column is absent (-1) or the row is short.
inline FieldView field_at(const std::vector<FieldView>& fields, int32_t col) {
    if (col < 0 || static_cast<size_t>(col) >= fields.size()) return FieldView{};
    return fields[col];
}

}  // namespace torvex
