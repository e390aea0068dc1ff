#include "platform/rpc/grpc_server.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <grpc/grpc_security_constants.h>
#include <grpc/support/log.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/grpcpp.h>
#include <mutex>
#include <new>
#include <pthread.h>
#include <syslog.h>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/operator_log.h"
#include "platform/owners.h"
#include "platform/rpc/calls.h"
#include "platform/rpc/server.h"

namespace {

using acceptor_ptr = std::unique_ptr<grpc::experimental::ExternalConnectionAcceptor>;

// Bytes as a slice that frees them; an empty message is an empty slice, not an absent one.
grpc::ByteBuffer buffer_of(rpc_message &message)
{
    if (message.bytes == nullptr) {
        const grpc::Slice empty;
        return {&empty, 1};
    }
    const grpc::Slice slice(message.bytes.release(), message.size, std::free);
    return {&slice, 1};
}

std::vector<grpc::Slice> slices_of(const grpc::ByteBuffer &buffer)
{
    std::vector<grpc::Slice> slices;
    if (buffer.Valid())
        buffer.Dump(&slices);
    return slices;
}

std::vector<std::byte> bytes_of(const grpc::ByteBuffer &buffer)
{
    std::vector<std::byte> bytes;
    for (const grpc::Slice &slice : slices_of(buffer)) {
        const auto *begin = reinterpret_cast<const std::byte *>(slice.begin());
        bytes.insert(bytes.end(), begin, begin + slice.size());
    }
    return bytes;
}

// gRPC runs the reactions of a call one after the other as far as they depend on each other, by means that
// the thread sanitizer cannot see in a library that is not built for it.
#ifdef RPC_THREAD_SANITIZER
extern "C" void __tsan_acquire(void *address);
extern "C" void __tsan_release(void *address);
void reaction_begins(void *reactor)
{
    __tsan_acquire(reactor);
}
void reaction_ends(void *reactor)
{
    __tsan_release(reactor);
}
#else
void reaction_begins(void *) {}
void reaction_ends(void *) {}
#endif

// What a client's certificate says of it, in the words of the allow-list. Without TLS: nothing.
rpc_caller caller_of(const grpc::GenericCallbackServerContext &context)
{
    constexpr std::pair<const char *, const char *> kinds[] = {
        {GRPC_PEER_URI_PROPERTY_NAME, "uri"},         {GRPC_PEER_DNS_PROPERTY_NAME, "dns"},
        {GRPC_PEER_EMAIL_PROPERTY_NAME, "email"},     {GRPC_PEER_IP_PROPERTY_NAME, "ip"},
        {GRPC_X509_SUBJECT_PROPERTY_NAME, "subject"}, {GRPC_X509_CN_PROPERTY_NAME, "cn"},
    };
    rpc_caller caller;
    const std::shared_ptr<const grpc::AuthContext> context_of_tls = context.auth_context();
    if (context_of_tls == nullptr || !context_of_tls->IsPeerAuthenticated())
        return caller;
    for (const auto &[property, kind] : kinds) {
        for (const grpc::string_ref &value : context_of_tls->FindPropertyValues(property))
            caller.push_back({kind, {value.data(), value.size()}});
    }
    return caller;
}

// Without memory the text is left out.
grpc::Status status_of(rpc_code code, const std::string &text)
{
    try {
        return {static_cast<grpc::StatusCode>(code), text};
    } catch (const std::bad_alloc &) {
        return {static_cast<grpc::StatusCode>(code), {}};
    }
}

// Ends a call that there is no memory for.
struct refusal final : grpc::ServerGenericBidiReactor {
    void refuse() { Finish({grpc::StatusCode::RESOURCE_EXHAUSTED, {}}); }
    void OnDone() override { delete this; }
};

} // namespace

// gRPC's threads run the On... functions, the other operations come from calls.cc. It deletes itself when
// gRPC is done with the call, after which nobody has its address any more.
struct rpc_reactor final : grpc::ServerGenericBidiReactor {
    std::shared_ptr<rpc_call> call;
    grpc::ByteBuffer incoming, outgoing;

    rpc_reactor(rpc_shared &shared, const grpc::GenericCallbackServerContext &context)
    {
        rpc_code code = rpc_code::ok;
        std::string text;
        call =
            rpc_call_open(shared, context.peer(), context.method(), caller_of(context), this, &code, &text);
        reaction_ends(this);
        if (call == nullptr)
            Finish(status_of(code, text));
        else
            StartRead(&incoming);
    }

    void OnReadDone(bool ok) override
    {
        reaction_begins(this);
        try {
            const std::vector<std::byte> bytes = ok ? bytes_of(incoming) : std::vector<std::byte>();
            rpc_call_read(call, ok, bytes);
        } catch (const std::bad_alloc &) {
            rpc_call_end(*call, rpc_code::resource_exhausted, {});
        }
        reaction_ends(this);
    }

    void OnWriteDone(bool ok) override
    {
        reaction_begins(this);
        outgoing.Clear();
        rpc_call_written(*call, ok);
        reaction_ends(this);
    }

    void OnCancel() override
    {
        reaction_begins(this);
        if (call != nullptr)
            rpc_call_cancelled(*call);
        reaction_ends(this);
    }

    void OnDone() override
    {
        reaction_begins(this);
        if (call != nullptr)
            rpc_call_done(call);
        delete this;
    }
};

void rpc_reactor_read(rpc_reactor *reactor)
{
    reactor->StartRead(&reactor->incoming);
}

// Written through: the confirmation comes when the socket has taken the bytes, not when gRPC has buffered
// them, so that what counts as queued is what the client has not taken.
void rpc_reactor_write(rpc_reactor *reactor, rpc_message &message, bool last)
{
    grpc::WriteOptions options;
    options.set_write_through();
    reactor->outgoing = buffer_of(message);
    if (last)
        reactor->StartWriteAndFinish(&reactor->outgoing, options, grpc::Status::OK);
    else
        reactor->StartWrite(&reactor->outgoing, options);
}

void rpc_reactor_finish(rpc_reactor *reactor, rpc_code code, const std::string &text)
{
    reactor->Finish(status_of(code, text));
}

struct rpc_grpc_server {
    struct service final : grpc::CallbackGenericService {
        std::shared_ptr<rpc_shared> shared;
        std::atomic<refusal *> spare = new refusal; // for when there is no memory for one

        ~service() override { delete spare.load(); }
        grpc::ServerGenericBidiReactor *CreateReactor(grpc::GenericCallbackServerContext *context) override
        {
            try {
                if (spare.load() == nullptr)
                    delete spare.exchange(new refusal);
                return new rpc_reactor(*shared, *context);
            } catch (const std::bad_alloc &) {
                return refuse();
            }
        }
        // Null, which gRPC takes for an operation that there is not, only when the spare one is taken.
        grpc::ServerGenericBidiReactor *refuse()
        {
            refusal *refusing = spare.exchange(nullptr);
            if (refusing == nullptr)
                refusing = new (std::nothrow) refusal;
            if (refusing != nullptr)
                refusing->refuse();
            return refusing;
        }
    };
    service calls;
    acceptor_ptr acceptor;
    std::unique_ptr<grpc::Server> server; // before `calls` is gone it is stopped
    std::thread retirement;               // waits for the last call
    std::atomic<bool> retired = false;    // it has waited long enough
};

namespace {

std::shared_ptr<grpc::ServerCredentials> credentials_of(const rpc_tls &tls)
{
    if (!tls.on())
        return grpc::InsecureServerCredentials();
    grpc::SslServerCredentialsOptions options(GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
    options.pem_key_cert_pairs.push_back({tls.key, tls.certificate});
    options.pem_root_certs = tls.client_ca;
    return grpc::SslServerCredentials(options);
}

void set_bounds(grpc::ServerBuilder &builder, const rpc_limits &limits)
{
    grpc::ResourceQuota quota("rpc");
    quota.Resize(limits.grpc_memory_bytes);
    builder.SetResourceQuota(quota);
    builder.SetMaxReceiveMessageSize(static_cast<int>(limits.request_bytes));
    // A compressed request could unfold to a thousand times its size; requests are too small to gain from it.
    builder.SetCompressionAlgorithmSupportStatus(GRPC_COMPRESS_GZIP, false);
    builder.SetCompressionAlgorithmSupportStatus(GRPC_COMPRESS_DEFLATE, false);
    const auto number = [](std::uint64_t value) { return static_cast<int>(value); };
    builder.AddChannelArgument(GRPC_ARG_MAX_CONCURRENT_STREAMS, number(limits.calls_per_connection));
    builder.AddChannelArgument(GRPC_ARG_MAX_METADATA_SIZE, number(limits.metadata_bytes));
    builder.AddChannelArgument(GRPC_ARG_SERVER_HANDSHAKE_TIMEOUT_MS, number(limits.handshake_ms));
    builder.AddChannelArgument(GRPC_ARG_MAX_CONNECTION_IDLE_MS, number(limits.idle_ms));
}

// gRPC's own complaints go where the operator looks, but a peer cannot fill the journal; that of a failed
// handshake waits for who knows whose it was.
void log_of_grpc(gpr_log_func_args *line)
{
    static std::mutex lock;
    static rpc_log_limit limit;
    const std::lock_guard guard(lock);
    std::uint32_t held_back = 0;
    if (line->severity == GPR_LOG_SEVERITY_ERROR && !rpc_handshake_failed(line->message) &&
        rpc_log_allowed(limit, rpc_limits{}.log_interval_ms, &held_back))
        operator_log(LOG_NOTICE, "gRPC: %s (%u more lines)", line->message, held_back);
}

// Signals are for the loop's thread: those that `start` starts take none.
template <class Start>
void with_signals_blocked(Start start)
{
    sigset_t all, former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    const scope_exit restore([&former] { pthread_sigmask(SIG_SETMASK, &former, nullptr); });
    start();
}

} // namespace

rpc_grpc_server_ptr rpc_grpc_start(const std::shared_ptr<rpc_shared> &shared, const rpc_tls &tls)
{
    gpr_set_log_function(log_of_grpc);
    rpc_grpc_server_ptr made(new rpc_grpc_server);
    made->calls.shared = shared;
    grpc::EnableDefaultHealthCheckService(false); // the layer answers health checks itself
    grpc::ServerBuilder builder;
    set_bounds(builder, shared->limits);
    builder.RegisterCallbackGenericService(&made->calls);
    made->acceptor = builder.experimental().AddExternalConnectionAcceptor(
        grpc::ServerBuilder::experimental_type::ExternalConnectionType::FROM_FD, credentials_of(tls));
    with_signals_blocked([&] { made->server = builder.BuildAndStart(); });
    if (made->server == nullptr)
        made.reset();
    return made;
}

void rpc_grpc_take_connection(rpc_grpc_server &server, int fd)
{
    grpc::experimental::ExternalConnectionAcceptor::NewConnectionParameters connection;
    connection.fd = fd;
    server.acceptor->HandleNewConnection(&connection);
}

bool rpc_grpc_retire(rpc_grpc_server &server, std::uint64_t patience_ms)
{
    try {
        with_signals_blocked([&] {
            server.retirement = std::thread([&server, patience_ms] {
                server.server->Shutdown(std::chrono::system_clock::now() +
                                        std::chrono::milliseconds(patience_ms));
                server.retired = true;
            });
        });
        return true;
    } catch (const std::system_error &) {
        return false;
    }
}

bool rpc_grpc_retired(const rpc_grpc_server &server)
{
    return server.retired;
}

void rpc_grpc_server_deleter::operator()(rpc_grpc_server *server) const noexcept
{
    // The connections are shut already; what is left ends now, not when a client agrees.
    if (server->retirement.joinable())
        server->retirement.join();
    else if (server->server != nullptr)
        server->server->Shutdown(std::chrono::system_clock::now());
    delete server;
}
