#include "run/conversions.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>

namespace torvex {
namespace {

// "value@pos", or "invalid:<what>" / "range:<what>" for what the conversion raises; "+pos"
// follows the kind if it wrote pos before raising, which the library never does.
template <typename Fn>
std::string outcome(Fn convert, const std::string& in) {
    std::size_t pos = 99;
    const auto raised = [&](const char* kind, const char* what) {
        return std::string(kind) + (pos == 99 ? ":" : "+pos:") + what;
    };
    try {
        const auto value = convert(in, &pos);
        return std::to_string(value) + "@" + std::to_string(pos);
    } catch (const std::invalid_argument& e) {
        return raised("invalid", e.what());
    } catch (const std::out_of_range& e) {
        return raised("range", e.what());
    }
}

// The outcome without the exception text, which is ours on purpose.
std::string without_text(const std::string& s) {
    return s.substr(0, s.find(':'));
}

const auto to_int = [](const std::string& s, std::size_t* p) { return strict_stoi(s, p); };
const auto to_ll = [](const std::string& s, std::size_t* p) { return strict_stoll(s, p); };
const auto to_float = [](const std::string& s, std::size_t* p) { return strict_stof(s, p); };
const auto lib_int = [](const std::string& s, std::size_t* p) { return std::stoi(s, p); };
const auto lib_ll = [](const std::string& s, std::size_t* p) { return std::stoll(s, p); };
const auto lib_float = [](const std::string& s, std::size_t* p) { return std::stof(s, p); };

// The library conversions decide value, stop position and exception kind; ours must agree and
// only carry other texts.
TEST(StrictConversions, AgreeWithLibraryConversions) {
    const auto agree = [](auto mine, auto lib, const std::string& in) {
        EXPECT_EQ(without_text(outcome(mine, in)), without_text(outcome(lib, in)))
            << "input '" << in << "'";
    };
    const auto agree_ints = [&](const std::string& in) {
        agree(to_int, lib_int, in);
        agree(to_ll, lib_ll, in);
    };
    // Blanks, signs, other bases and trailing text, then the 32- and 64-bit limits.
    for (const char* in : {"42", "  42", "\t-17x", "+8 apples", "0012", "3.9", "", "   ", "abc",
                           "-", "1e3", "0x1F", "  -0", "7#comment"}) {
        agree_ints(in);
    }
    for (const char* in : {"2147483647", "2147483648", "-2147483648", "-2147483649",
                           "9223372036854775807", "9223372036854775808", "-9223372036854775809"}) {
        agree_ints(in);
    }
    for (const char* in : {"0.25", " 1e3x", "-2.5e-1", "inf", "nan(1)", ".5.5", "1e39", "-1e39",
                           "1e-50", "", "e5", "12 34"}) {
        agree(to_float, lib_float, in);
    }
}

TEST(StrictConversions, CarryOwnTexts) {
    EXPECT_EQ(outcome(to_int, "x1"), "invalid:invalid stoi argument");
    EXPECT_EQ(outcome(to_int, "99999999999"), "range:stoi argument out of range");
    EXPECT_EQ(outcome(to_ll, ""), "invalid:invalid stoll argument");
    EXPECT_EQ(outcome(to_ll, "-99999999999999999999"), "range:stoll argument out of range");
    EXPECT_EQ(outcome(to_float, "."), "invalid:invalid stof argument");
    EXPECT_EQ(outcome(to_float, "1e40"), "range:stof argument out of range");

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
