// Plain text tables with aligned columns.
#ifndef VONET_TOOLS_TABLE_H
#define VONET_TOOLS_TABLE_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace vo::cli {

class Table {
public:
    // `rightAligned[i]` aligns column i to the right (numbers).
    Table(std::vector<std::string> header, std::vector<bool> rightAligned);
    void add(std::vector<std::string> row);
    // Writes the header and the rows, each line indented by `indent` spaces;
    // the last column is not padded.
    void print(FILE* out, int indent) const;

private:
    std::vector<std::vector<std::string>> rows_;
    std::vector<bool> right_;
};

// 240416 -> "240.4 K"; values below 1000 as they are.
std::string human_count(int64_t value);
// printf-style formatting into a std::string.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace vo::cli

#endif
