#include "tools/bmc_simulator/reply.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <string_view>
#include <thread>

#include <openssl/ssl.h>

#include "tools/bmc_simulator/connection.h"

namespace {

constexpr char JSON_TYPE[] = "application/json";
constexpr std::size_t HUGE_REPLY_BYTES = 100'000'000;
constexpr std::chrono::milliseconds PAUSE{50};

int connection_of(const httplib::Request &request)
{
    return SSL_get_fd(request.ssl);
}

// A body of which nothing but its first `sent` bytes comes before `end` is done to the connection.
void break_off(httplib::Response &response, const std::string &body, std::size_t sent, int connection,
               void (*end)(int))
{
    response.set_content_provider(body.size(), JSON_TYPE,
                                  [=](std::size_t at, std::size_t, httplib::DataSink &sink) {
                                      if (at < sent)
                                          return sink.write(body.data() + at, sent - at);
                                      end(connection);
                                      return false;
                                  });
}

void send_pieces(httplib::Response &response, const std::string &body, std::chrono::milliseconds pause)
{
    response.set_content_provider(body.size(), JSON_TYPE,
                                  [=](std::size_t at, std::size_t, httplib::DataSink &sink) {
                                      std::this_thread::sleep_for(pause);
                                      return sink.write(body.data() + at, 1);
                                  });
}

void send_huge(httplib::Response &response)
{
    constexpr std::string_view BEGIN = "{\n  \"data\": \"";
    constexpr std::string_view END = "\",\n  \"message\": \"200 OK\",\n  \"status\": \"ok\"\n}\n";
    const auto filler = std::make_shared<std::string>(std::size_t{1} << 18, 'A');
    response.set_content_provider(BEGIN.size() + HUGE_REPLY_BYTES + END.size(), JSON_TYPE,
                                  [=](std::size_t at, std::size_t, httplib::DataSink &sink) {
                                      if (at < BEGIN.size())
                                          return sink.write(BEGIN.data() + at, BEGIN.size() - at);
                                      at -= BEGIN.size();
                                      if (at < HUGE_REPLY_BYTES)
                                          return sink.write(filler->data(),
                                                            std::min(filler->size(), HUGE_REPLY_BYTES - at));
                                      at -= HUGE_REPLY_BYTES;
                                      return sink.write(END.data() + at, END.size() - at);
                                  });
}

std::string member(const char *key, const std::string &value)
{
    return "\"" + std::string(key) + "\": \"" + value + '"';
}

std::string object(std::initializer_list<std::string> members)
{
    std::string text = "{";
    for (const std::string &one : members)
        text += (text.size() > 1 ? ",\n  " : "\n  ") + one;
    return text + "\n}\n";
}

void send_body(const rest_reply &reply, const std::string &body, httplib::Response &response)
{
    response.status = reply.status;
    response.set_content(body, JSON_TYPE);
}

} // namespace

rest_reply refused(int status, std::string message)
{
    return {status, "", std::move(message), "error", ""};
}

std::string reply_body(const rest_reply &reply)
{
    return object(
        {member("data", reply.data), member("message", reply.message), member("status", reply.status_text)});
}

void send_reply(const rest_reply &reply, fault_kind wrong, const httplib::Request &request,
                httplib::Response &response)
{
    const int connection = connection_of(request);
    const std::string body = reply_body(reply);
    if (!reply.cookie.empty() && wrong != fault_kind::no_cookie)
        response.set_header("Set-Cookie", reply.cookie);
    response.status = reply.status;
    switch (wrong) {
    case fault_kind::status_401:
        return send_reply(refused(401, "Unauthorized"), fault_kind::none, request, response);
    case fault_kind::status_500:
        return send_reply(refused(500, "Internal Server Error"), fault_kind::none, request, response);
    case fault_kind::redirect:
        return response.set_redirect(request.path);
    case fault_kind::stall_before_headers:
        return stall_connection(connection);
    case fault_kind::reset_before_headers:
        return reset_connection(connection);
    case fault_kind::stall_after_headers:
        return break_off(response, body, 0, connection, stall_connection);
    case fault_kind::reset_after_headers:
        return break_off(response, body, body.size() / 2, connection, reset_connection);
    case fault_kind::one_byte_pieces:
        return send_pieces(response, body, {});
    case fault_kind::slow_pieces:
        return send_pieces(response, body, PAUSE);
    case fault_kind::huge_reply:
        return send_huge(response);
    case fault_kind::not_ok:
        return send_body(reply, reply_body(refused(200, "No blob")), response);
    case fault_kind::status_first:
        return send_body(reply,
                         object({member("status", reply.status_text), member("data", reply.data),
                                 member("message", reply.message)}),
                         response);
    case fault_kind::no_data:
        return send_body(
            reply, object({member("message", reply.message), member("status", reply.status_text)}), response);
    case fault_kind::garbage_base64:
        return send_body(reply, reply_body({200, "###" + reply.data, "200 OK", "ok", ""}), response);
    default: // the others have been dealt with before there was a reply
        return send_body(reply, body, response);
    }
}
