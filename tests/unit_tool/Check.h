// Tables of {expected, actual} for the tool's unit tests: each row is one case, named by its
// index when it fails.
#ifndef QORLDAP_TESTS_UNIT_TOOL_CHECK_H
#define QORLDAP_TESTS_UNIT_TOOL_CHECK_H

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace tooltest {

inline void Check(std::vector<std::pair<std::string, std::string>> const& expectedActual) {
    for (size_t i = 0; i < expectedActual.size(); ++i)
        EXPECT_EQ(expectedActual[i].first, expectedActual[i].second) << "case " << i;
}

}  // namespace tooltest

#endif
