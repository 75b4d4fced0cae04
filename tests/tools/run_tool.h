// Runs the built vonet program as a user would and captures what it says.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "test_util.h"

namespace vo_test {

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

inline std::string quote(const std::string& arg) {
    std::string q = "'";
    for (char c : arg) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

inline Result vonet(const TempDir& dir, const std::vector<std::string>& args) {
    std::string command = quote(VONET_TOOL_PATH);
    for (const std::string& a : args) command += " " + quote(a);
    const std::string out = dir.file("stdout.txt"), err = dir.file("stderr.txt");
    command += " >" + quote(out) + " 2>" + quote(err);
    Result r;
    const int raw = std::system(command.c_str());
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = read_file(out);
    r.err = read_file(err);
    return r;
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace vo_test
