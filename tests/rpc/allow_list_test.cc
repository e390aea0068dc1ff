// The allow-list's text, and who is meant by it.
#include <cerrno>
#include <gtest/gtest.h>

#include "platform/rpc/allow_list.h"
#include "platform/rpc/methods.h"
#include "platform/status.h"

namespace {

const rpc_method &method(const char *name)
{
    return *rpc_method_find(std::string("/remote_attestation_api.RemoteAttestationApi/") + name);
}

TEST(AllowList, NamesWhoMayAskForWhat)
{
    rpc_allow_list list;
    std::string why;
    ASSERT_EQ(rpc_allow_list_parse("# all of it\r\n"
                                   "  uri:https://example/a#b\tGetCertificate,AttestPcrs # and why\r\n"
                                   "\n"
                                   "\"subject:CN=Jane Doe,O=Example\"  *\n"
                                   "dns:Verifier.Example GetCertificate\n"
                                   "dns:verifier.example , AttestPcrs,\n"
                                   "* GetPlatformHwIntegrity",
                                   &list, &why),
              0u)
        << why;
    const struct {
        rpc_caller caller;
        const char *operation;
        bool permitted;
    } cases[] = {
        {{{"uri", "https://example/a#b"}}, "AttestPcrs", true},
        {{{"uri", "https://example/a#b"}}, "GetPlatformBootIntegrityEventLogs", false},
        {{{"uri", "https://example/A#b"}}, "AttestPcrs", false},
        {{{"dns", "https://example/a#b"}}, "AttestPcrs", false},
        {{{"cn", "Jane Doe"}, {"subject", "CN=Jane Doe,O=Example"}}, "StreamPlatformImaEventLogs", true},
        {{{"subject", "CN=Jane Doe"}}, "StreamPlatformImaEventLogs", false},
        {{{"dns", "VERIFIER.example"}}, "GetCertificate", true}, // either line
        {{{"dns", "VERIFIER.example"}}, "AttestPcrs", true},
        {{{"dns", std::string("verifier.exampl\0", 16)}}, "AttestPcrs", false},
        {{{"dns", std::string("verifier.example\0", 17)}}, "AttestPcrs", false},
        {{{"dns", "verifier.example.net"}}, "AttestPcrs", false},
        {{{"dns", "*"}, {"*", ""}}, "AttestPcrs", false},
        {{}, "GetPlatformHwIntegrity", true},
        {{}, "AttestPcrs", false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(rpc_allow_list_permits(list, c.caller, method(c.operation)), c.permitted)
            << rpc_caller_text(c.caller) << ' ' << c.operation;
}

TEST(AllowList, WhatCannotBeMeantIsRefusedWithItsLine)
{
    const struct {
        std::string text;
        const char *why;
    } cases[] = {
        {"", "nobody is named in it"},
        {"# only this\n\n", "nobody is named in it"},
        {"* *\nverifier GetCertificate\n", "line 2: \"verifier\" is no identity: one is *, or begins with"},
        {"spiffe:a *", "line 1: \"spiffe:a\" is no identity"},
        {"dns: *", "line 1: \"dns:\" is no identity"},
        {"dns:*", "line 1: no operation is named"},
        {"dns:a # *", "line 1: no operation is named"},
        {"dns:a GetCertificates", "line 1: \"GetCertificates\" is no operation"},
        {"dns:a Check", "line 1: \"Check\" is no operation"}, // health is everybody's
        {"\"cn:Jane *\n", "line 1: a quotation mark is missing"},
        {std::string("dns:a\0 *", 8), "line 1: control characters in it"},
    };
    for (const auto &c : cases) {
        rpc_allow_list list{{{{"dns", "before"}, 1}}};
        std::string why;
        EXPECT_EQ(rpc_allow_list_parse(c.text, &list, &why), platform_status_from_errno(EBADMSG)) << c.text;
        EXPECT_EQ(why.rfind(c.why, 0), 0u) << why;
        EXPECT_EQ(list.entries.size(), 1u);
    }
}

} // namespace
