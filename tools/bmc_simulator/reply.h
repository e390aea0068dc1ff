// Replies of the REST interface, and how they go wrong.
#pragma once

#include <string>

#include <httplib.h>

#include "tools/bmc_simulator/faults.h"

struct rest_reply {
    int status = 200;
    std::string data; // fit for JSON as it is: base64, or nothing
    std::string message = "200 OK";
    std::string status_text = "ok";
    std::string cookie; // empty: none is set
};

rest_reply refused(int status, std::string message);

// The keys in the order in which a BMC's server writes them.
std::string reply_body(const rest_reply &reply);

// Sends the reply; with a fault, what the fault makes of it.
void send_reply(const rest_reply &reply, fault_kind wrong, const httplib::Request &request,
                httplib::Response &response);
