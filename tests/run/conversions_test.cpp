#include "run/conversions.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

namespace torvex {
namespace {

// Runs fn and returns "value@pos", "invalid:<what>" or "range:<what>".
template <typename Fn>
std::string outcome(Fn fn) {
    try {
        return fn();
    } catch (const std::invalid_argument& e) {
        return std::string("invalid:") + e.what();
    } catch (const std::out_of_range& e) {
        return std::string("range:") + e.what();
    }
}

// The library conversions decide value, stop position and exception kind; ours must agree and
// only carry other texts.
TEST(StrictConversions, AgreeWithLibraryConversions) {
    const std::vector<std::string> inputs = {"42",
                                             "  42",
                                             "\t-17x",
                                             "+8 apples",
                                             "0012",
                                             "3.9",
                                             "",
                                             "   ",
                                             "abc",
                                             "-",
                                             "1e3",
                                             "0x1F",
                                             "  -0",
                                             "2147483647",
                                             "2147483648",
                                             "-2147483648",
                                             "-2147483649",
                                             "9223372036854775807",
                                             "9223372036854775808",
                                             "-9223372036854775809",
                                             "7#comment"};
    for (const std::string& in : inputs) {
        SCOPED_TRACE("input '" + in + "'");
        const auto mine_i = outcome([&] {
            std::size_t pos = 0;
            return std::to_string(strict_stoi(in, &pos)) + "@" + std::to_string(pos);
        });
        const auto lib_i = outcome([&] {
            std::size_t pos = 0;
            return std::to_string(std::stoi(in, &pos)) + "@" + std::to_string(pos);
        });
        const auto mine_ll = outcome([&] {
            std::size_t pos = 0;
            return std::to_string(strict_stoll(in, &pos)) + "@" + std::to_string(pos);
        });
        const auto lib_ll = outcome([&] {
            std::size_t pos = 0;
            return std::to_string(std::stoll(in, &pos)) + "@" + std::to_string(pos);
        });
        // Same outcome apart from the text: compare kind and value only.
        auto kind = [](const std::string& s) { return s.substr(0, s.find(':')); };
        if (lib_i.find(':') == std::string::npos) {
            EXPECT_EQ(mine_i, lib_i);
        } else {
            EXPECT_EQ(kind(mine_i), kind(lib_i));
        }
        if (lib_ll.find(':') == std::string::npos) {
            EXPECT_EQ(mine_ll, lib_ll);
        } else {
            EXPECT_EQ(kind(mine_ll), kind(lib_ll));
        }
    }

    const std::vector<std::string> floats = {"0.25", " 1e3x", "-2.5e-1", "inf", "nan(1)", ".5.5",
                                             "1e39", "-1e39", "1e-50",   "",    "e5",     "12 34"};
    for (const std::string& in : floats) {
        SCOPED_TRACE("float input '" + in + "'");
        std::size_t mine_pos = 99, lib_pos = 99;
        std::string mine, lib;
        try {
            mine = std::to_string(strict_stof(in, &mine_pos));
        } catch (const std::invalid_argument&) {
            mine = "invalid";
        } catch (const std::out_of_range&) {
            mine = "range";
        }
        try {
            lib = std::to_string(std::stof(in, &lib_pos));
        } catch (const std::invalid_argument&) {
            lib = "invalid";
        } catch (const std::out_of_range&) {
            lib = "range";
        }
        EXPECT_EQ(mine, lib);
        EXPECT_EQ(mine_pos, lib_pos);
    }
}

TEST(StrictConversions, CarryOwnTexts) {
    auto text_of = [](auto fn) { return outcome([&] { return std::to_string(fn()); }); };
    EXPECT_EQ(text_of([] { return strict_stoi("x1"); }), "invalid:invalid stoi argument");
    EXPECT_EQ(text_of([] { return strict_stoi("99999999999"); }),
              "range:stoi argument out of range");
    EXPECT_EQ(text_of([] { return strict_stoll(""); }), "invalid:invalid stoll argument");
    EXPECT_EQ(text_of([] { return strict_stoll("-99999999999999999999"); }),
              "range:stoll argument out of range");
    EXPECT_EQ(text_of([] { return strict_stof("."); }), "invalid:invalid stof argument");
    EXPECT_EQ(text_of([] { return strict_stof("1e40"); }), "range:stof argument out of range");

    // Leading white space is skipped and trailing text ignored.
    std::size_t pos = 0;
    EXPECT_EQ(strict_stoi(" \t 12 chunks", &pos), 12);
    EXPECT_EQ(pos, 5u);
    EXPECT_EQ(strict_stoll("  -4000000000000,7"), -4000000000000LL);
    EXPECT_FLOAT_EQ(strict_stof("  0.02 # tight"), 0.02f);

    // errno of the caller survives a clean conversion.
    errno = EDOM;
    EXPECT_EQ(strict_stoi("5"), 5);
    EXPECT_EQ(errno, EDOM);
}

TEST(StrictConversions, CaseFoldingTouchesAsciiLettersOnly) {
    EXPECT_EQ(upper_copy("Dta_nodeLtm-1\xc3\xa9"), "DTA_NODELTM-1\xc3\xa9");
    EXPECT_EQ(lower_copy("STA_Bpr 2"), "sta_bpr 2");
    EXPECT_EQ(upper_copy(""), "");
}

}  // namespace
}  // namespace torvex
