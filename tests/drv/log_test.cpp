// SPDX-License-Identifier: MIT
//
// How a line of the library's begins: whose it is, the function and source line that it
// stands in, and its level.
#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "carddev.h"
#include "tests/support/capture.h"

#define LOG_TAG Mivosdif
#include "common/log.h"

namespace {

TEST(Log, NamesTheFunctionAndTheLine)
{
    int line = 0;
    EXPECT_EQ("[mivosdif:Somewhere(81)](E)text 7\n",
              PrintedExactly([] { LOG_ERROR_OF("Somewhere", 81, "text %d\n", 7); }));
    EXPECT_EQ("[mivosdif:Elsewhere(4095)](W)text\n",
              PrintedExactly([] { LOG_WARNING_OF("Elsewhere", 4095, "text\n"); }));
    const std::string here = PrintedExactly([&] { line = __LINE__, LOG_ERROR("text\n"); });
    EXPECT_EQ("[mivosdif:operator()(" + std::to_string(line) + ")](E)text\n", here);
    EXPECT_EQ("text\n", PrintedExactly([] { LOG_PLAIN("text\n"); }));
}

// As the library was compiled, not as this file was.
TEST(Log, LeadsToTheTextInTheSource)
{
    const std::string printed = PrintedExactly([] { DevDetect(nullptr); });
    int number = 0;
    ASSERT_EQ(1, sscanf(printed.c_str(), "[drv:DevDetect(%d)]", &number)) << printed;
    std::string file = __FILE__;
    file.resize(file.rfind("tests/drv/"));
    std::ifstream source(file + "drv/detect.cpp");
    std::string line;
    for (int i = 0; i < number; i++) {
        ASSERT_TRUE(std::getline(source, line)) << number;
    }
    EXPECT_NE(std::string::npos, line.find("\"info is null")) << line;
}

}  // namespace
