#include "input/table_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>

#include "support/test_files.h"

namespace torvex {
namespace {

using fixture::gzip_member;
using fixture::TempDir;
using fixture::write_file;

using Lines = std::vector<std::string>;

Lines read_lines(const std::string& path) {
    LineReader r(path);
    EXPECT_TRUE(r.is_open());
    Lines lines;
    FieldView line;
    while (r.next_line(line)) lines.emplace_back(line.data, line.size);
    return lines;
}

// The lines read back from a file holding `bytes`.
Lines lines_of(const std::string& bytes) {
    TempDir dir;
    write_file(dir.file("f.csv"), bytes);
    return read_lines(dir.file("f.csv"));
}

std::string numbered_rows(int n) {
    std::string s = "hh_id,O,D,hour\n";
    for (int i = 0; i < n; ++i) s += std::to_string(i) + "," + std::to_string(i % 97) + ",5,7\n";
    return s;
}

TEST(LineReader, PlainLineEndsAndLastLine) {
    const Lines want = {"a,b", "", "1,2 ", "last"};
    EXPECT_EQ(lines_of("a,b\n\n1,2 \nlast"), want);
    // Only the one carriage return before the newline goes; the blank before it stays.
    EXPECT_EQ(lines_of("a,b\r\n\r\n1,2 \r\nlast\r"), want);
    EXPECT_TRUE(lines_of("").empty());

    TempDir dir;
    LineReader missing(dir.file("nope"));
    EXPECT_FALSE(missing.is_open());
    FieldView line;
    EXPECT_FALSE(missing.next_line(line));
}

TEST(LineReader, LargerThanSeveralRefillsMatchesSource) {
    const std::string text = numbered_rows(1000000);  // about 14 MB: several 4 MiB refills
    ASSERT_GT(text.size(), 3 * LineReader::kTextChunk);
    for (const std::string& bytes : {text, gzip_member(text)}) {
        const Lines lines = lines_of(bytes);
        ASSERT_EQ(lines.size(), 1000001u);
        std::string joined;
        for (const std::string& l : lines) joined += l + "\n";
        EXPECT_EQ(joined, text);
    }
}

TEST(LineReader, GzipByMagicHeaderFieldsAndMembers) {
    // Recognised by its magic, not by the name.
    TempDir dir;
    const std::string text = "N,X,Y\n1,0.5,2\n2,3,4\n";
    write_file(dir.file("nodes.csv"), gzip_member(text));
    write_file(dir.file("nodes.csv.gz"), text);
    const Lines want = {"N,X,Y", "1,0.5,2", "2,3,4"};
    EXPECT_EQ(read_lines(dir.file("nodes.csv")), want);
    EXPECT_EQ(read_lines(dir.file("nodes.csv.gz")), want);
    EXPECT_TRUE(LineReader(dir.file("nodes.csv")).gzip);

    EXPECT_EQ(lines_of(gzip_member("a\nb\n", true, true, true, true)), (Lines{"a", "b"}));
    // Members join byte for byte: a member ending mid-line continues in the next.
    EXPECT_EQ(lines_of(gzip_member("h\n1,2\n3,") + gzip_member("4\n", false, true) +
                       gzip_member("") + gzip_member("5,6")),
              (Lines{"h", "1,2", "3,4", "5,6"}));
    // Garbage after a member ends the file there, silently.
    EXPECT_EQ(lines_of(gzip_member("x\ny\n") + "not a gzip header at all"), (Lines{"x", "y"}));
}

TEST(LineReader, TruncatedAndCorruptGzipReadUpToTheFault) {
    TempDir dir;
    const std::string text = numbered_rows(200000);
    const std::string whole = gzip_member(text);
    // Returns the lines, each with its newline, read from `bytes` until the reader stops.
    auto drain = [&](const std::string& bytes) {
        write_file(dir.file("cut"), bytes);
        LineReader r(dir.file("cut"));
        std::string got;
        FieldView line;
        while (r.is_open() && r.next_line(line)) got.append(line.data, line.size) += "\n";
        return got;
    };
    for (size_t cut :
         {size_t{5}, size_t{12}, whole.size() / 3, whole.size() - 9, whole.size() - 1}) {
        const std::string got = drain(whole.substr(0, cut));
        // Whatever came out is a prefix of the true text (the last line may be partial).
        ASSERT_LE(got.size(), text.size() + 1) << cut;
        const size_t full = got.rfind('\n', got.size() >= 2 ? got.size() - 2 : 0);
        EXPECT_EQ(got.substr(0, full + 1), text.substr(0, full + 1));  // npos + 1 is 0
        EXPECT_TRUE(cut < whole.size() - 9 || got == text) << "trailer cut only";
    }
    std::mt19937 rng(7);
    for (int trial = 0; trial < 20; ++trial) {
        std::string bad = whole;
        for (int k = 0; k < 8; ++k)
            bad[10 + rng() % (bad.size() - 10)] ^= static_cast<char>(1 + rng() % 255);
        const std::string got = drain(bad);
        EXPECT_LE(std::count(got.begin(), got.end(), '\n'), 400000);
    }
    // A bad header, or the magic alone: the reader stays closed.
    write_file(dir.file("badhdr"), std::string("\x1f\x8b\x07\x00", 4) + std::string(20, 'x'));
    EXPECT_FALSE(LineReader(dir.file("badhdr")).is_open());
    write_file(dir.file("magic_only"), std::string("\x1f\x8b", 2));
    EXPECT_FALSE(LineReader(dir.file("magic_only")).is_open());
}

TEST(LineReader, BinaryAndHugeLines) {
    TempDir dir;
    std::string binary(3 * 1024 * 1024, '\0');
    std::mt19937 rng(1);
    for (char& c : binary) c = static_cast<char>(rng());
    write_file(dir.file("bin"), binary);
    size_t total = 0;
    {
        LineReader r(dir.file("bin"));
        FieldView line;
        std::vector<FieldView> fields;
        while (r.next_line(line)) split_csv(line, fields), total += line.size;
    }
    EXPECT_LE(total, binary.size());

    // One 9 MB line spans three refills and comes back whole.
    const std::string huge(9 * 1024 * 1024, 'q');
    const Lines lines = lines_of("head\n" + huge + "\ntail\n");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1].size(), huge.size());
    EXPECT_EQ(lines[2], "tail");
}

TEST(SplitCsv, FieldsAgainstAPlainSplit) {
    std::vector<FieldView> f;
    auto split = [&](const std::string& s) {
        split_csv(FieldView{s.data(), s.size()}, f);
        Lines out;
        for (FieldView v : f) out.emplace_back(v.data, v.size);
        return out;
    };
    EXPECT_EQ(split(""), Lines{""});
    EXPECT_EQ(split("a,,b,"), (Lines{"a", "", "b", ""}));
    // No quoting: a comma inside quotes still splits and the quotes stay.
    EXPECT_EQ(split("\"x,y\",z"), (Lines{"\"x", "y\"", "z"}));
    // Long rows, commas on and across every 16-byte boundary.
    std::mt19937 rng(11);
    for (int trial = 0; trial < 2000; ++trial) {
        std::string row(rng() % 90, 'x');
        Lines want(1);
        for (char& c : row) {
            if (rng() % 3 == 0) c = ',';
            c == ',' ? want.emplace_back() : want.back() += c;
        }
        ASSERT_EQ(split(row), want) << row;
    }
}

TEST(HeaderMap, TrimsRightOnlyAndLaterWins) {
    // required_column, found or not, is checked through the network loader and its messages.
    HeaderMap h;
    std::string line = " A,B \r,C,B";
    read_header(FieldView{line.data(), line.size()}, h);
    EXPECT_EQ(any_column(h, {"A"}), -1);
    EXPECT_EQ(any_column(h, {" A"}), 0);
    EXPECT_EQ(any_column(h, {"B"}), 3);
    EXPECT_EQ(any_column(h, {"Z", "C", "B"}), 2);
}

TEST(FieldConversion, ForgivingNumbers) {
    auto f64 = [](const std::string& s) { return field_f64(FieldView{s.data(), s.size()}); };
    auto i64 = [](const std::string& s) { return field_i64(FieldView{s.data(), s.size()}); };
    // Plain forms (blank, leading blanks, trailing text, a point) are in the random cross-check.
    // Cut at 63 characters: the 64th digit onwards is never seen.
    EXPECT_DOUBLE_EQ(f64("1" + std::string(62, '0') + "9999999"), 1e62);
    // 31 digits overflow and strtoll saturates; a digit past the copy limit is never seen.
    EXPECT_EQ(i64("1234567890123456789" + std::string(12, '0') + "55"), INT64_MAX);
    EXPECT_EQ(i64(std::string(40, ' ') + "5"), 0);
    std::string s = "  1,5 \r";
    EXPECT_EQ(trim_right(FieldView{s.data(), s.size()}).view(), "  1,5");

    // The in-place fast paths give exactly what strtod and strtoll give on the copied text, for
    // plain numbers of every length and for the odd ones that leave the fast path.
    std::mt19937 rng(5);
    const char alphabet[] = "0123456789012345678901234567890123456789.-+e x";
    for (int trial = 0; trial < 20000; ++trial) {
        std::string t(rng() % 24, '0');
        for (char& c : t) c = alphabet[rng() % (sizeof alphabet - 1)];
        if (trial % 2 == 0)  // mostly digits with at most a sign and one point
            for (char& c : t) c = (c < '0' || c > '9') ? '0' + static_cast<char>(rng() % 10) : c;
        if (trial % 4 == 0 && !t.empty()) t[rng() % t.size()] = '.';
        if (trial % 8 == 0) t = "-" + t;
        const double want_f = std::strtod(t.substr(0, 63).c_str(), nullptr);
        ASSERT_EQ(std::signbit(f64(t)), std::signbit(want_f)) << t;
        ASSERT_EQ(f64(t), want_f) << t;
        ASSERT_EQ(i64(t), std::strtoll(t.substr(0, 31).c_str(), nullptr, 10)) << t;
    }
}

}  // namespace
}  // namespace torvex
