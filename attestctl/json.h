// Any message of the contract as one JSON object on one line.
//
// Fields stand under their proto names, in the order of their numbers; absent ones and empty lists are left
// out. Numbers are numbers, also those that need 64 bits: read them with a parser that keeps integers whole.
// Bytes are lower-case hexadecimal, with one exception: names that come from the kernel (event_name,
// template_name, digest_algo) are text, in which \xNN stands for a byte that is not UTF-8 and \\ for a
// backslash. That holds for the text that a JSON parser gives back; in the line itself JSON doubles each
// backslash once more.
#pragma once

#include <string>
#include <string_view>

namespace google::protobuf {
class Message;
}

// Appends the object, without a line break.
void append_json(std::string &out, const google::protobuf::Message &message);

// Appends `text` (UTF-8; a byte that is none becomes U+FFFD) as a JSON string. Unsafe characters are escaped,
// so that a line can be shown on a terminal as it is.
void append_json_string(std::string &out, std::string_view text);
