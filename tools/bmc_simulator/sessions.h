// Sessions that logins have opened. There is no logout: the oldest give way.
#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

class session_store {
public:
    // Opens a session and gives its cookie, as Set-Cookie has it.
    std::string open();
    // Whether the value of a Cookie header names an open session.
    bool knows(const std::string &cookies);

private:
    static constexpr std::size_t MOST = 64;

    std::mutex lock_;
    std::deque<std::string> tokens_;
};
