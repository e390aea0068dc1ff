// A measurement list read to its end, and its events as the kernel's own listing prints them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ima/ima_record_reader.h"

// Bytes that can be opened by a path.
class list_file {
public:
    explicit list_file(std::string_view bytes);
    std::string path() const;

private:
    unique_fd file;
};

struct parsed_list {
    std::vector<IMA_EVENT> events; // with the one at which reading failed; numbered from 1
    ima_record_outcome end = ima_record_outcome::read;
    std::uint32_t status = 0;

    explicit parsed_list(std::string_view bytes) : parsed_list(list_file(bytes)) {}
    explicit parsed_list(const list_file &file);
    ~parsed_list();
    parsed_list(const parsed_list &) = delete;
    parsed_list &operator=(const parsed_list &) = delete;

    // Of the whole events, a line each; as evmctl, only with the signatures of records named "ima-sig".
    std::string listing(bool only_named_signatures = false) const;
};

std::string file_bytes(const std::string &path);
std::string text_of(const message_bytes &bytes);
