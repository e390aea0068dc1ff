// Settings that are files, taken up again when the files change, without a restart.
#include <syslog.h>
#include <utility>

#include "platform/operator_log.h"
#include "platform/rpc/rpc_metrics.h"
#include "platform/rpc/server.h"

namespace {

// Each has its threads and its share of memory; who replaces certificates faster than calls end has to wait.
constexpr std::size_t MOST_FORMER = 4;

// Certificates belong to a gRPC server: new ones come with a new server for the connections from now on. The
// former one's clients come back by themselves, so that nobody stays served by what was withdrawn. False when
// the next look is to try again.
bool use_certificates(remote_attestation_api_server &server, rpc_tls tls)
{
    server.former.reserve(MOST_FORMER);
    rpc_grpc_server_ptr grpc = rpc_grpc_start(server.shared, tls);
    if (grpc == nullptr) {
        rpc_count_reload("certificates", false);
        operator_log(LOG_ERR,
                     "TLS setting %s: gRPC does not take the new files; those read before stay in use",
                     server.settings.tls_directory.c_str());
        return true;
    }
    if (!rpc_grpc_retire(*server.grpc, server.limits.retire_ms))
        return false; // no thread may be had
    rpc_count_reload("certificates", true);
    server.former.push_back(std::exchange(server.grpc, std::move(grpc)));
    server.settings.tls = std::move(tls);
    operator_log(LOG_NOTICE, "TLS setting %s: the new files are in use; clients are asked to connect anew",
                 server.settings.tls_directory.c_str());
    return true;
}

void reload_certificates(remote_attestation_api_server &server)
{
    rpc_settings &settings = server.settings;
    const rpc_tls_marks marks = rpc_tls_marks_of(settings.tls_directory);
    if (marks == settings.tls_marks)
        return;
    if (server.former.size() >= MOST_FORMER) {
        std::string waits =
            settings.tls_directory + ": the new files wait until clients of earlier ones have left";
        if (std::exchange(server.tls_complaint, waits) != waits)
            operator_log(LOG_WARNING, "TLS setting %s", waits.c_str());
        return;
    }
    rpc_tls tls;
    std::string why;
    const bool taken = rpc_tls_read(settings.tls_directory, &tls, &why) == 0;
    settings.tls_marks = marks; // not before: without memory the next look tries again
    if (!taken) {
        rpc_count_reload("certificates", false);
        if (std::exchange(server.tls_complaint, why) != why)
            operator_log(LOG_ERR, "TLS setting %s; the files read before stay in use", why.c_str());
        return;
    }
    server.tls_complaint.clear();
    if (tls == settings.tls)
        return;
    scope_exit look_again([&settings] { settings.tls_marks = {}; });
    if (use_certificates(server, std::move(tls)))
        look_again.dismiss();
}

void reload_allow_list(remote_attestation_api_server &server)
{
    rpc_settings &settings = server.settings;
    const file_mark mark = file_mark_of(settings.allow_file);
    if (mark == settings.allow_mark)
        return;
    std::shared_ptr<const rpc_allow_list> list;
    std::string why;
    const bool taken = rpc_allow_file_read(settings.allow_file, &list, &why) == 0;
    settings.allow_mark = mark; // not before: without memory the next look tries again
    rpc_count_reload("allow-list", taken);
    if (!taken) {
        if (std::exchange(server.allow_complaint, why) != why)
            operator_log(LOG_ERR, "ATTEST_ALLOW %s; the list read before stays in force", why.c_str());
        return;
    }
    server.allow_complaint.clear();
    {
        const std::lock_guard guard(server.shared->lock);
        server.shared->allow = std::move(list);
    }
    operator_log(LOG_NOTICE, "ATTEST_ALLOW %s: the new list is in force", settings.allow_file.c_str());
}

} // namespace

void rpc_reload_changed(remote_attestation_api_server &server)
{
    if (!server.settings.tls_directory.empty())
        reload_certificates(server);
    if (!server.settings.allow_file.empty())
        reload_allow_list(server);
}

void rpc_reload_end_retired(remote_attestation_api_server &server)
{
    std::erase_if(server.former, [](const rpc_grpc_server_ptr &former) { return rpc_grpc_retired(*former); });
}
