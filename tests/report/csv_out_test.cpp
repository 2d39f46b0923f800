// Hand formatting of the result files against printf itself: every value must print the same bytes.
#include "report/csv_out.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "support/test_files.h"

namespace torvex {
namespace {

std::string hand(float v, int d) {
    char buf[kNumberRoom + 8];
    return std::string(buf, put_fixed(buf, v, d));
}

std::string ref(float v, int d) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "%.*f", d, static_cast<double>(v));
    return buf;
}

TEST(CsvFormat, FixedMatchesPrintfOnEveryKindOfValue) {
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    // Exact ties at each precision (printf rounds them to even, so must we; the random values
    // below hold many more), then signed zeros, subnormals, extremes, values past 2^24 and the
    // non-finite ones.
    const float values[] = {0.5f,    1.5f,        2.5f,     -2.5f,    0.125f,     0.375f,
                            -0.625f, 0.0625f,     0.03125f, 1023.5f,  8388607.5f, 0.00125f,
                            0.0f,    -0.0f,       -0.001f,  -0.0049f, 0.005f,     0.015f,
                            1e-45f,  -1e-45f,     FLT_MIN,  FLT_MAX,  -FLT_MAX,   1e15f,
                            1.0e16f, 16777217.0f, inf,      -inf,     nan,        -nan};
    for (int d = 0; d <= 4; ++d)
        for (float v : values) EXPECT_EQ(hand(v, d), ref(v, d)) << v << " d=" << d;

    std::mt19937 rng(7);
    // Arbitrary bit patterns cover every exponent; decimal-looking values cover the usual range,
    // where ties at the printed digit are most likely.
    std::uniform_int_distribution<uint32_t> bits;
    std::uniform_int_distribution<int> cents(-2000000, 2000000);
    std::uniform_int_distribution<int> digits(0, 4);
    int mismatches = 0;
    for (int n = 0; n < 2000000; ++n) {
        const uint32_t b = bits(rng);
        float v = static_cast<float>(cents(rng)) / (n % 3 == 0 ? 1000.0f : 8.0f);
        if (n % 2 == 0) std::memcpy(&v, &b, sizeof v);
        const int d = digits(rng);
        if (hand(v, d) != ref(v, d) && ++mismatches < 10) ADD_FAILURE() << v << " d=" << d;
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(CsvFormat, IntegersMatchPrintf) {
    std::vector<int64_t> values = {
        0, 1, -1, 9, 10, 99, 100, 101, 65535, -65535, 1234567890123LL, INT64_MAX, INT64_MIN};
    std::mt19937_64 rng(3);
    for (int n = 0; n < 100000; ++n) values.push_back(static_cast<int64_t>(rng()) >> (n % 64));
    for (int64_t v : values) {
        char buf[32], want[32];
        std::snprintf(want, sizeof want, "%lld", static_cast<long long>(v));
        ASSERT_EQ(std::string(buf, put_i64(buf, v)), want);
    }
}

TEST(CsvFormat, BufferedFileHoldsEveryByteAndReportsFailures) {
    fixture::TempDir dir;
    const std::string path = dir.file("big.csv");
    std::string expected;
    {
        CsvOut out;
        csv_open(out, path, 4096);  // small buffer: many flushes
        for (int i = 0; i < 20000; ++i) {
            csv_printf(out, "%d,%s\n", i, i % 7 == 0 ? "seven" : "");
            expected += std::to_string(i) + "," + (i % 7 == 0 ? "seven" : "") + "\n";
        }
        const std::string long_text(10000, 'x');  // longer than the buffer
        csv_text(out, long_text);
        expected += long_text;
        const std::string long_name(3000, 'n');  // longer than printf's reserved room
        csv_printf(out, "%s|%s\n", long_name.c_str(), long_name.c_str());
        expected += long_name + "|" + long_name + "\n";
        csv_close(out);
    }
    EXPECT_EQ(fixture::read_file(path), expected);

    CsvOut bad;
    const std::string missing = dir.file("missing/x.csv");
    try {
        csv_open(bad, missing);
        ADD_FAILURE() << "opened a file in a missing folder";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "cannot write " + missing);
    }
    EXPECT_FALSE(csv_try_open(bad, dir.file("missing/x.csv"), "a"));
}

}  // namespace
}  // namespace torvex
