#include "table.h"

#include <algorithm>
#include <cstdarg>

namespace vo::cli {

Table::Table(std::vector<std::string> header, std::vector<bool> rightAligned) : right_(std::move(rightAligned)) {
    rows_.push_back(std::move(header));
    right_.resize(rows_[0].size(), false);
}

void Table::add(std::vector<std::string> row) {
    row.resize(rows_[0].size());
    rows_.push_back(std::move(row));
}

void Table::print(FILE* out, int indent) const {
    const size_t columns = rows_[0].size();
    std::vector<size_t> width(columns, 0);
    for (const auto& row : rows_)
        for (size_t i = 0; i < columns; ++i) width[i] = std::max(width[i], row[i].size());
    for (const auto& row : rows_) {
        std::string line(size_t(indent), ' ');
        for (size_t i = 0; i < columns; ++i) {
            const bool last = i + 1 == columns;
            std::string pad(width[i] - row[i].size(), ' ');
            if (right_[i])
                line += pad + row[i];
            else
                line += last ? row[i] : row[i] + pad;
            if (!last) line += "  ";
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        fprintf(out, "%s\n", line.c_str());
    }
}

std::string human_count(int64_t value) {
    static const char* const kUnits[] = {"K", "M", "G", "T", "P"};
    if (value < 1000 && value > -1000) return std::to_string(value);
    double v = double(value);
    int unit = -1;
    while ((v >= 1000.0 || v <= -1000.0) && unit < 4) {
        v /= 1000.0;
        ++unit;
    }
    return format("%.1f %s", v, kUnits[unit]);
}

std::string format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    int size = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(size > 0 ? size_t(size) : 0, '\0');
    if (size > 0) vsnprintf(&text[0], text.size() + 1, fmt, args);
    va_end(args);
    return text;
}

}  // namespace vo::cli
