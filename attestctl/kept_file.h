// A file that attestctl keeps between runs.
#pragma once

#include <string>

struct kept_file {
    std::string path;
    std::string content;  // as it was read or last written
    bool existed = false; // false: there was none, and that is no error
};
