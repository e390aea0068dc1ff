// Recorded logs, read here and by tpm2_eventlog.
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/boot_log/boot_log_fixture.h"

namespace {

const std::map<std::string, std::uint32_t> type_numbers = {{"EV_NO_ACTION", 3},
                                                           {"EV_SEPARATOR", 4},
                                                           {"EV_EVENT_TAG", 6},
                                                           {"EV_S_CRTM_CONTENTS", 7},
                                                           {"EV_S_CRTM_VERSION", 8},
                                                           {"EV_IPL", 0xD},
                                                           {"EV_NONHOST_INFO", 0x11},
                                                           {"EV_EFI_VARIABLE_DRIVER_CONFIG", 0x80000001},
                                                           {"EV_EFI_VARIABLE_BOOT", 0x80000002},
                                                           {"EV_EFI_BOOT_SERVICES_APPLICATION", 0x80000003},
                                                           {"EV_EFI_BOOT_SERVICES_DRIVER", 0x80000004},
                                                           {"EV_EFI_GPT_EVENT", 0x80000006},
                                                           {"EV_EFI_ACTION", 0x80000007},
                                                           {"EV_EFI_PLATFORM_FIRMWARE_BLOB", 0x80000008},
                                                           {"EV_EFI_HANDOFF_TABLES", 0x80000009},
                                                           {"EV_EFI_VARIABLE_AUTHORITY", 0x800000E0}};

const std::map<std::string, int> hash_algs = {{"sha1", 0}, {"sha256", 1}, {"sha384", 2}, {"sha512", 3}};

struct reference_event {
    std::uint32_t pcr = 0;
    std::uint32_t type = 0;
    std::string digests; // as the fixture's event text has them
    std::size_t digest_count = 0;
    std::size_t digest_bytes = 0;
    std::size_t size = 0;
};

// The tool's YAML, as far as it is needed: one "key: value" line after the other, an event beginning with its
// PCRIndex. Events are numbered in logs of TPM 2.0 only, and only their first digest is without an algorithm.
struct reference_log {
    std::vector<reference_event> events;
    bool is_tpm_12 = true;
    std::string algorithm = "0";

    void take(const std::string &line)
    {
        std::size_t start = line.find_first_not_of(" -");
        std::size_t colon = line.find(": ");
        if (start > 4 || colon == std::string::npos)
            return;
        std::string key = line.substr(start, colon - start);
        std::string value = line.substr(colon + 2);
        std::erase(value, '"');
        if (key == "EventNum")
            is_tpm_12 = false;
        else if (key == "PCRIndex")
            events.emplace_back().pcr = static_cast<std::uint32_t>(std::stoul(value));
        else if (key == "EventType")
            events.back().type = type_numbers.at(value);
        else if (key == "AlgorithmId")
            algorithm = std::to_string(hash_algs.at(value));
        else if (key == "Digest")
            take_digest(events.back(), value);
        else if (key == "EventSize")
            events.back().size = std::stoul(value);
    }

    void take_digest(reference_event &event, const std::string &value)
    {
        event.digests += (event.digests.empty() ? "" : " ") + algorithm + ':' + value;
        event.digest_bytes += value.size() / 2;
        ++event.digest_count;
    }

    // Where the data of event `index` lies behind its record's beginning.
    std::size_t data_offset(std::size_t index) const
    {
        const reference_event &event = events[index];
        return is_tpm_12 || index == 0 ? 32 : 16 + 2 * event.digest_count + event.digest_bytes;
    }
};

reference_log run_tpm2_eventlog(const std::string &path)
{
    std::FILE *pipe = popen(("tpm2_eventlog '" + path + "'").c_str(), "r");
    std::string output;
    std::array<char, 4096> part = {};
    while (std::size_t count = std::fread(part.data(), 1, part.size(), pipe))
        output.append(part.data(), count);
    pclose(pipe);
    reference_log log;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
        log.take(line);
    return log;
}

std::vector<std::string> recorded_logs()
{
    std::vector<std::string> paths = {ATTEST_TEST_DATA "/recorded-a-boot.bin",
                                      ATTEST_TEST_DATA "/recorded-b-boot.bin"};
    std::error_code no_folder;
    for (const auto &entry : std::filesystem::directory_iterator(ATTEST_FIXTURES "/boot", no_folder))
        paths.push_back(entry.path());
    if (no_folder)
        paths.emplace_back();
    return paths;
}

class reference_test : public boot_log_test, public testing::WithParamInterface<std::string> {};

TEST_P(reference_test, ReadsWhatTheReferenceReads)
{
    if (GetParam().empty())
        GTEST_SKIP() << "the shared boot log fixtures are not beside this checkout";
    reference_log reference = run_tpm2_eventlog(GetParam());
    ASSERT_FALSE(reference.events.empty()) << "tpm2_eventlog (package tpm2-tools) lists nothing";
    ASSERT_EQ(read_path(GetParam().c_str()), ATTEST_OK);
    std::ifstream stream(GetParam(), std::ios::binary);
    const std::string file(std::istreambuf_iterator<char>(stream), {});
    ASSERT_EQ(log->events.count, reference.events.size());
    std::size_t position = 0;
    for (std::uint32_t i = 0; i < log->events.count; ++i) {
        const reference_event &expected = reference.events[i];
        position += reference.data_offset(i);
        std::ostringstream text;
        text << i + 1 << ' ' << std::hex << expected.type << ' ' << std::dec << expected.pcr << " ["
             << expected.digests << "] " << expected.size << ':' << hex(file.substr(position, expected.size));
        EXPECT_EQ(event(i), text.str());
        position += expected.size;
    }
    EXPECT_EQ(position, file.size());
}

INSTANTIATE_TEST_SUITE_P(recorded, reference_test, testing::ValuesIn(recorded_logs()));

} // namespace
