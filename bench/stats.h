// Medians and the number formats the table uses.
#pragma once

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace bench {

// The middle value (the upper middle for an even count); 0 for no values.
inline double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

inline std::string format(const char* fmt, double value) {
    char text[64];
    std::snprintf(text, sizeof text, fmt, value);
    return text;
}

constexpr double kMiB = 1048576.0;

}  // namespace bench
