// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cmath>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "summary.h"

namespace {

// Reads one line, which the client may end with LF, CR or both.
bool readLine(std::string& line) {
    static bool afterCr = false;
    line.clear();
    char c;
    while (std::cin.get(c)) {
        if (c == '\n' && afterCr) {
            afterCr = false;
            continue;
        }
        afterCr = c == '\r';
        if (c == '\r' || c == '\n')
            return true;
        line += c;
    }
    return false;
}

void report(const struct summary& s) {
    std::cout << "count " << s.count;
    if (s.count > 0)
        std::cout << "  min " << s.least << "  max " << s.greatest << "  mean " << s.mean
                  << "  deviation " << std::sqrt(summary_variance(&s));
    std::cout << '\n';
}

void histogram(const std::vector<double>& values, const struct summary& s) {
    const size_t bars = 8;
    const double width = (s.greatest - s.least) / bars;
    std::vector<size_t> counts(bars);
    for (double value : values) {
        const size_t bar = width > 0 ? static_cast<size_t>((value - s.least) / width) : 0;
        ++counts[std::min(bar, bars - 1)];
    }
    for (size_t i = 0; i < bars; ++i) {
        std::cout.width(12);
        std::cout << s.least + width * static_cast<double>(i) << ' ' << std::string(counts[i], '#')
                  << '\n';
    }
}

// Adds the numbers of a line; false at the first word that is none.
bool addNumbers(const std::string& line, std::vector<double>& values, struct summary& s) {
    std::istringstream words(line);
    double value;
    while (words >> value) {
        values.push_back(value);
        summary_add(&s, value);
    }
    return words.eof();
}

} // namespace

int main() {
    std::vector<double> values;
    struct summary s = {};
    std::string line;
    std::cout << "stats: type help or some numbers\n";
    while (std::cout << "stats> " << std::flush && readLine(line)) {
        if (line == "quit")
            return values.empty() ? 2 : 0;
        if (line == "help")
            std::cout << "NUMBER...  add values\n"
                         "report     count, extremes, mean and standard deviation\n"
                         "bars       histogram\n"
                         "clear      forget all values\n"
                         "quit       end; exit status 0, or 2 when there is no value\n";
        else if (line == "report")
            report(s);
        else if (line == "bars")
            histogram(values, s);
        else if (line == "clear") {
            values.clear();
            s = {};
        } else if (!addNumbers(line, values, s))
            std::cout << "error: neither a number nor a command; try help\n";
    }
    return 1;
}
