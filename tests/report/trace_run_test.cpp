// The path trace through a whole run of the torvex binary: one block of rows per iteration.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_files.h"

namespace torvex {
namespace {

TEST(TraceRun, OneBlockOfRowsPerIterationOfTheLoop) {
    fixture::TempDir dir;
    fixture::write_file(dir.file("NODE.csv"), "N,X,Y\n100,0,0\n200,9,0\n1,1,0\n2,2,0\n3,3,0\n");
    fixture::write_file(dir.file("LINK.csv"),
                        "A,B,DISTANCE,NLANES,CAPACITY,FTYPE,SPEED,from_county\n"
                        "100,1,0.2,1,2000,51,30,\n1,100,0.2,1,2000,51,30,\n"
                        "1,2,2,3,2000,11,60,North\n2,1,2,3,2000,11,60,North\n"
                        "2,3,1,2,900,21,30,North\n3,2,1,2,900,21,30,North\n"
                        "3,200,0.2,1,2000,51,30,\n200,3,0.2,1,2000,51,30,\n");
    fixture::write_file(dir.file("TRIPS.csv"), "hh_id,O,D,hour\n1,100,200,8\n2,200,100,9\n");
    const fixture::RunResult r = fixture::run_program(
        TORVEX_BIN,
        {"--node", "NODE.csv", "--link", "LINK.csv", "--trips", "TRIPS.csv", "--out-dir", "out",
         "--iters", "3", "--trace-agents", "2,77", "--macro-model", "DTA_PointQueue"},
        dir.path);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_NE(r.out.find("[trace] 1 of 2 requested agents found; paths -> out/trace_paths.csv\n"),
              std::string::npos);
    int last_iter = 0;
    const std::regex iter_line(R"(\]\[iter (\d+)\])");
    for (std::sregex_iterator it(r.out.begin(), r.out.end(), iter_line), end; it != end; ++it)
        last_iter = std::stoi((*it)[1]);
    ASSERT_GE(last_iter, 1);

    const std::string text = fixture::read_file(dir.file("out/trace_paths.csv"));
    std::istringstream in(text);
    std::string line;
    std::getline(in, line);  // the header, checked with the writer
    // Agent 2 goes 200 -> 3 -> 2 -> 1 -> 100, departing in the middle of hour 9 (slot 8).
    std::vector<std::string> want = {"200,3,", "3,2,North,", "2,1,North,", "1,100,"};
    int rows = 0;
    while (std::getline(in, line)) {
        const int iter = rows / 4, seq = rows % 4;
        const std::string lead = std::to_string(iter) + ",2,200,100,8," + std::to_string(seq) + ",";
        EXPECT_EQ(line.rfind(lead + want[seq], 0), 0u) << line;
        if (seq == 0) {
            EXPECT_NE(line.find(",510.00,"), std::string::npos) << line;
        }
        ++rows;
    }
    EXPECT_EQ(rows, 4 * (last_iter + 1));
}

}  // namespace
}  // namespace torvex
