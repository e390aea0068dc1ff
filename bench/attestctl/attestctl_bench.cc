// Verifying lists beside the digests that it cannot do without, and beside the tools that a verifier would
// take otherwise, run on the same lists.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <cstdio>
#include <cstdlib>

#include <openssl/sha.h>

#include "attestctl/verify/boot_log.h"
#include "attestctl/verify/ima_list.h"
#include "bench/attestctl/whole_lists.h"
#include "bench/ratio.h"

namespace api = remote_attestation_api;

namespace {

bool all_rows_passed(const check_list &list)
{
    return all_passed(list.rows);
}

// From the stream's messages to the rows; their decoding is timed or not.
void verify_messages(benchmark::State &state, bool decoding_too)
{
    const ima_sample &sample = the_ima_list();
    while (state.KeepRunning()) {
        std::vector<ima_list> lists;
        api::NodeIMAData message;
        for (const std::string &bytes : sample.messages) {
            if (!decoding_too)
                state.PauseTiming();
            if (!message.ParseFromString(bytes))
                state.SkipWithError("a message that is none");
            if (!decoding_too)
                state.ResumeTiming();
            take_ima_message(lists, message, sample.quotes);
        }
        check_list rows;
        check_ima_list(rows, lists.at(0));
        if (!all_rows_passed(rows))
            state.SkipWithError("the list does not verify");
    }
}

void verify_ima_list(benchmark::State &state)
{
    verify_messages(state, false);
}

void decode_and_verify_ima_list(benchmark::State &state)
{
    verify_messages(state, true);
}

// SHA-1 and SHA-256 of each event's template data, and the extension of a PCR of each bank by them.
void digest_ima_list(benchmark::State &state)
{
    const ima_sample &sample = the_ima_list();
    while (state.KeepRunning()) {
        unsigned char sha1[2][SHA_DIGEST_LENGTH] = {}, sha256[2][SHA256_DIGEST_LENGTH] = {};
        for (const std::string &data : sample.data) {
            SHA_CTX one;
            SHA1_Init(&one);
            SHA1_Update(&one, data.data(), data.size());
            SHA1_Final(sha1[1], &one);
            SHA1_Init(&one);
            SHA1_Update(&one, sha1, sizeof sha1);
            SHA1_Final(sha1[0], &one);
            SHA256_CTX other;
            SHA256_Init(&other);
            SHA256_Update(&other, data.data(), data.size());
            SHA256_Final(sha256[1], &other);
            SHA256_Init(&other);
            SHA256_Update(&other, sha256, sizeof sha256);
            SHA256_Final(sha256[0], &other);
        }
        benchmark::DoNotOptimize(sha1);
        benchmark::DoNotOptimize(sha256);
    }
}

void run_tool(benchmark::State &state, const std::string &command)
{
    while (state.KeepRunning())
        if (std::system((command + " >/dev/null 2>&1").c_str()) != 0)
            state.SkipWithError(command.c_str());
}

void run_evmctl(benchmark::State &state)
{
    const ima_sample &sample = the_ima_list();
    run_tool(state, "evmctl ima_measurement --ignore-violations --pcrs sha1," + sample.sha1_pcrs +
                        " --pcrs sha256," + sample.sha256_pcrs + ' ' + sample.path);
}

void verify_boot_log(benchmark::State &state)
{
    const boot_sample &sample = the_boot_log();
    while (state.KeepRunning()) {
        api::NodeBootIntegrityLog log;
        check_list rows;
        if (log.ParseFromString(sample.message))
            check_boot_log(rows, log, &sample.quoted.pcrs());
        if (!all_rows_passed(rows))
            state.SkipWithError("the log does not verify");
    }
}

void run_eventlog(benchmark::State &state)
{
    run_tool(state, "tpm2_eventlog " + the_boot_log().path);
}

constexpr ratio_rounds LONG_ROUNDS = {3, 0.01}; // a round is one time through the list

RATIO_BENCHMARK("IMA list of 1,000,000 beside its digests", 1.5, verify_ima_list, digest_ima_list, {9, 0.01});
RATIO_BENCHMARK("IMA list of 1,000,000 beside evmctl", 0.25, decode_and_verify_ima_list, run_evmctl,
                LONG_ROUNDS);
RATIO_BENCHMARK("boot log of 10,000 beside tpm2_eventlog", 0.2, verify_boot_log, run_eventlog, LONG_ROUNDS);

} // namespace

int main(int argc, char **argv)
{
    return ratio_main(argc, argv);
}
