// The agent's reading of a list against others': the kernel's own listing, and evmctl of ima-evm-utils.
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>

#include "tests/ima/parsed_list.h"
#include "tests/support/ima_list.h"

namespace {

// A field without bytes leaves its blank at the line's end.
std::string without_trailing_blanks(const std::string &text)
{
    std::string trimmed;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        trimmed += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    return trimmed;
}

struct judgement {
    int exit_status;
    std::string listing; // the lines that are measurements
};

bool evmctl_is_there()
{
    return std::system("evmctl --version >/dev/null 2>&1") == 0;
}

judgement ask_evmctl(const list_file &list, const std::array<std::uint8_t, 20> &pcr)
{
    std::string pcrs;
    for (int i = 0; i < 24; ++i) {
        pcrs += "PCR-" + std::string(i < 10 ? "0" : "") + std::to_string(i) + ":";
        for (std::uint8_t byte : pcr) {
            char digits[4];
            std::snprintf(digits, sizeof digits, " %02X", i == 10 ? byte : 0);
            pcrs += digits;
        }
        pcrs += "\n";
    }
    list_file pcr_file(pcrs);
    std::string command = "evmctl ima_measurement -v -v --ignore-violations --pcrs sha1," + pcr_file.path() +
                          " " + list.path() + " 2>&1";
    judgement said{};
    std::FILE *output = popen(command.c_str(), "r");
    std::string text;
    char buffer[4096];
    while (std::size_t got = std::fread(buffer, 1, sizeof buffer, output))
        text.append(buffer, got);
    said.exit_status = pclose(output);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        // PCR and template hash
        std::size_t hash = line.find(' ') + 1;
        if (line.find_first_not_of("0123456789") + 1 == hash &&
            line.find_first_not_of("0123456789abcdef", hash) == hash + 40)
            said.listing += line + "\n";
    }
    return said;
}

TEST(Listing, AgreesWithTheKernels)
{
    std::string data = ATTEST_TEST_DATA;
    parsed_list list(file_bytes(data + "/recorded-b-ima.bin"));
    EXPECT_EQ(list.events.size(), 297);
    EXPECT_EQ(without_trailing_blanks(list.listing()),
              without_trailing_blanks(file_bytes(data + "/recorded-b-ima.txt")));
}

TEST(Listing, AgreesWithEvmctlsOnGeneratedLists)
{
    if (!evmctl_is_there())
        GTEST_SKIP() << "evmctl (ima-evm-utils) is not installed";
    // evmctl does not take "ima" records and others in one list.
    for (unsigned kinds :
         {+IMA_KIND_OLD, +IMA_KIND_NG, IMA_KIND_NG | IMA_KIND_SIG | IMA_KIND_LISTED | IMA_KIND_EDGE}) {
        std::string bytes = ima_list(100, kinds);
        list_file file(bytes);
        judgement said = ask_evmctl(file, ima_list_pcr(bytes));
        EXPECT_EQ(said.exit_status, 0) << "evmctl finds another PCR value, kinds " << kinds;
        EXPECT_EQ(without_trailing_blanks(parsed_list(file).listing(true)),
                  without_trailing_blanks(said.listing));
    }
    std::string all = ima_list(100, IMA_KIND_ALL & ~IMA_KIND_OLD);
    EXPECT_EQ(ask_evmctl(list_file(all), ima_list_pcr(all)).exit_status, 0);
    EXPECT_NE(ask_evmctl(list_file(all), {}).exit_status, 0) << "evmctl accepts any PCR value";
}

TEST(Listing, AgreesWithEvmctlsOnRecordedLists)
{
    if (!evmctl_is_there())
        GTEST_SKIP() << "evmctl (ima-evm-utils) is not installed";
    std::vector<std::string> paths = {std::string(ATTEST_TEST_DATA) + "/recorded-a-ima.bin"};
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator(ATTEST_FIXTURES "/ima", none))
        paths.push_back(entry.path());
    if (none)
        std::printf("no shared fixtures beside this checkout: one recorded list only\n");
    for (const std::string &path : paths) {
        std::string bytes = file_bytes(path);
        parsed_list list(bytes);
        EXPECT_EQ(list.end, ima_record_outcome::end_of_log) << path;
        EXPECT_EQ(without_trailing_blanks(list.listing(true)),
                  without_trailing_blanks(ask_evmctl(list_file(bytes), {}).listing))
            << path;
    }
}

} // namespace
