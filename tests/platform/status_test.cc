#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include "agent/status.h"
#include "platform/status.h"

namespace {

TEST(status_test, EveryDomainGivesItsTexts)
{
    EXPECT_STREQ(status_strerror(6), "Unknown status"); // nobody's code before the domain is known
    ASSERT_EQ(status_domain_register(&attest_status_domain), 0u);
    EXPECT_STREQ(status_strerror(6), "No data available");
    EXPECT_STREQ(status_strerror(12), "Attestation data flow is paused");
    EXPECT_STREQ(status_strerror(0), "Success");
    // errno 12 and code 12 are two things.
    EXPECT_STREQ(status_strerror(platform_status_from_errno(ENOMEM)), strerrordesc_np(ENOMEM));
    for (std::uint32_t code : {13u, 0x0E00FFFFu, 0x0E000000u | 4000u, 0x1CA00004u, 0xFFFFFFFFu})
        EXPECT_STREQ(status_strerror(code), "Unknown status") << code;
    EXPECT_EQ(platform_status_from_errno(0), 0u);
}

TEST(status_test, TableOfDomainsIsBoundedAndKnowsItsMembers)
{
    static const status_text texts[] = {{0x5000, "from elsewhere"}};
    static status_domain domains[16];
    std::uint32_t result = 0;
    std::size_t count = 0;
    for (; count < std::size(domains) && result == 0; ++count) {
        domains[count] = {"other", 5, 1, texts};
        result = status_domain_register(&domains[count]);
    }
    EXPECT_EQ(result, platform_status_from_errno(ENOSPC));
    EXPECT_EQ(status_domain_register(&domains[0]), 0u);
    EXPECT_STREQ(status_strerror(0x5000), "from elsewhere");
    static const status_domain broken = {"broken", 6, 3, nullptr};
    EXPECT_EQ(status_domain_register(&broken), platform_status_from_errno(EINVAL));
}

} // namespace
