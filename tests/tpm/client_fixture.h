// A client of the trust anchor as the agent is one, with its callbacks counted.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/owners.h"
#include "platform/trust_anchor_client.h"
#include "tests/tpm/software_tpm.h"

// What went through the registered callbacks of the client under test.
struct client_traffic {
    std::vector<std::uint32_t> commands; // their command codes
    std::size_t allocations = 0;
    // Changes a response before the library sees it; it may also change the length.
    std::function<void(std::uint8_t *response, std::uint32_t capacity, std::uint32_t &length)> on_response;
};
extern client_traffic traffic;

struct handed_out {
    kov_status status;
    malloc_ptr<std::uint8_t> data;
    std::uint32_t length;

    std::vector<std::uint8_t> bytes() const { return {data.get(), data.get() + length}; }
};
struct quote_result {
    handed_out quote;
    handed_out signature;
};
struct uid_result {
    handed_out digests;
    std::uint16_t count;
};

class session_owner {
public:
    session_owner(kovc_session *session, kov_status status) : login_status(status), session_(session) {}
    session_owner(const session_owner &) = delete;
    session_owner &operator=(const session_owner &) = delete;
    ~session_owner() { logout(); }
    kov_status logout() { return session_ == nullptr ? KOV_SUCCESS : kovc_app_logout(&session_); }
    kovc_session *get() const { return session_; }

    handed_out pcr(std::uint32_t algorithm, std::uint32_t index) const;
    quote_result quote(const char *key, std::uint32_t algorithm, std::uint64_t mask,
                       const std::vector<std::uint8_t> &nonce) const;
    handed_out sign(const char *key, const std::vector<std::uint8_t> &data,
                    std::uint32_t algorithm = 2) const;
    handed_out object(const char *name) const;
    uid_result uids(std::uint32_t db_type, std::uint32_t algorithm) const;

    const kov_status login_status;

private:
    kovc_session *session_;
};

class client_fixture : public ::testing::Test {
protected:
    client_fixture();
    ~client_fixture() override;

    // The client of this TPM from now on, by a context of its own.
    void use(const software_tpm &tpm);
    void use(const std::string &address, const std::string &manifest);
    session_owner login(const char *secret = KOV_LOGIN_SECRET);
    void release() { kovc_release_context(&context_); }

    kovc_context *context_ = nullptr;
};

// In a test of evidence: a TPM that is provisioned, the client logged out.
class provisioned_fixture : public client_fixture {
protected:
    provisioned_fixture() { use(tpm_); }
    software_tpm tpm_{provisioned_tpm()};
};
