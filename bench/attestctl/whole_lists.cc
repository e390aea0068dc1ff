#include "bench/attestctl/whole_lists.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string_view>

#include <unistd.h>

#include "attestctl/event_types.h"
#include "attestctl/text.h"
#include "attestctl/verify/boot_log.h"
#include "attestctl/verify/hashes.h"
#include "tests/support/ima_list.h"

namespace api = remote_attestation_api;
using namespace std::string_literals;

namespace {

constexpr std::size_t EVENTS_A_MESSAGE = 1000;
constexpr const char *NODE = "card7";

// Files that are gone with the process.
struct sample_folder {
    std::string path = "/tmp/attestctl_bench_XXXXXX";
    std::vector<std::string> files;

    sample_folder() { path = mkdtemp(path.data()); }
    ~sample_folder()
    {
        for (const std::string &file : files)
            unlink(file.c_str());
        rmdir(path.c_str());
    }
    std::string put(const char *name, const std::string &content)
    {
        files.push_back(path + '/' + name);
        std::ofstream(files.back(), std::ios::binary) << content;
        return files.back();
    }
};

sample_folder &folder()
{
    static sample_folder made;
    return made;
}

// Takes a list of templates with named digests apart.
struct list_reader {
    std::string_view left;

    std::string_view take(std::size_t size)
    {
        const std::string_view taken = left.substr(0, size);
        left.remove_prefix(size);
        return taken;
    }
    std::uint32_t number()
    {
        std::uint32_t value = 0;
        std::memcpy(&value, take(sizeof value).data(), sizeof value);
        return value;
    }
    std::string_view field() { return take(number()); }
};

// Fills the event and gives its template data.
std::string_view read_event(list_reader &list, std::uint64_t number, api::IMA_EVENT &event)
{
    event.set_event_num(number);
    event.set_pcr(list.number());
    event.set_template_hash(std::string(list.take(20)));
    event.set_template_name(std::string(list.field()));
    event.set_duplicate(0);
    const std::string_view data = list.field();
    list_reader fields{data};
    const std::string_view digest = fields.field();
    const std::size_t colon = digest.find(':');
    event.set_digest_algo(std::string(digest.substr(0, colon)));
    event.set_digest(std::string(digest.substr(colon + 2)));
    std::string_view name = fields.field();
    name.remove_suffix(1);
    event.set_event_name(std::string(name));
    if (event.template_name() == "ima-sig")
        if (const std::string_view signature = fields.field(); !signature.empty())
            event.set_signature(std::string(signature));
    return data;
}

std::string pcr_file(std::string_view value)
{
    std::string text;
    for (int pcr = 0; pcr < 24; ++pcr) {
        text += format("PCR-%02d:", pcr);
        for (const char byte : value)
            text += pcr == 10 ? format(" %02X", static_cast<unsigned char>(byte)) : " 00";
        text += '\n';
    }
    return text;
}

std::size_t event_count()
{
    const char *wanted = std::getenv("ATTEST_BENCH_RECORDS");
    return wanted != nullptr ? std::strtoul(wanted, nullptr, 10) : 1000000;
}

ima_sample make_ima_list()
{
    const std::size_t count = event_count();
    const std::string bytes = ima_list(count, IMA_KIND_NG | IMA_KIND_SIG);
    ima_sample made;
    made.data.reserve(count);
    sha256_digest pcr{};
    api::NodeIMAData message;
    for (list_reader list{bytes}; !list.left.empty();) {
        api::IMA_EVENT &event = *message.add_events();
        const std::string_view data = read_event(list, made.data.size() + 1, event);
        const bool violation = event.template_hash() == std::string(20, '\0');
        made.data.emplace_back(violation ? std::string_view() : data);
        sha256_digest extension;
        extension.fill(0xff);
        pcr = sha256_of(pcr, violation ? extension : sha256_of(data));
        if (static_cast<std::size_t>(message.events_size()) < EVENTS_A_MESSAGE && !list.left.empty())
            continue;
        message.set_node_name(NODE);
        made.messages.push_back(message.SerializeAsString());
        message.Clear();
    }
    const std::string value(pcr.begin(), pcr.end());
    const std::array<std::uint8_t, 20> sha1 = ima_list_pcr(bytes);
    made.path = folder().put("ima", bytes);
    made.sha1_pcrs =
        folder().put("sha1", pcr_file({reinterpret_cast<const char *>(sha1.data()), sha1.size()}));
    made.sha256_pcrs = folder().put("sha256", pcr_file(value));
    api::NodePCRData &record = *made.quotes.add_node_data();
    record.set_node_name(NODE);
    api::PCR_DUMP &quoted = *record.add_pcrs();
    quoted.set_index(10);
    quoted.set_value(value);
    return made;
}

std::string number(std::uint32_t value, std::size_t size = 4)
{
    return std::string(reinterpret_cast<const char *>(&value), size);
}

boot_sample make_boot_log()
{
    constexpr std::uint32_t EVENTS = 10000;
    constexpr std::size_t DATA_SIZE = 64; // about the median in recorded logs
    const std::string id = "Spec ID Event03\0"s + number(0) + "\0\2\0\2"s + number(2) + number(4, 2) +
                           number(20, 2) + number(11, 2) + number(32, 2) + '\0';
    std::string log = number(0) + number(event_type::NO_ACTION) + std::string(20, '\0') +
                      number(static_cast<std::uint32_t>(id.size())) + id;
    api::NodeBootIntegrityLog message;
    for (std::uint32_t i = 0; i < EVENTS; ++i) {
        const std::string data = format("%0*u", static_cast<int>(DATA_SIZE), i);
        const sha1_digest sha1 = sha1_of(data);
        const sha256_digest sha256 = sha256_of(data);
        api::BOOT_EVENT &event = *message.add_events();
        event.set_event_num(i + 1);
        event.set_pcr_index(8 + i % 2); // those of a boot loader
        event.set_event_type(0xD /* EV_IPL */);
        event.set_event_size(DATA_SIZE);
        event.set_event_data(data);
        api::BOOT_EVENT_DIGEST &first = *event.add_digests();
        first.set_hash_alg(0);
        first.set_digest(std::string(sha1.begin(), sha1.end()));
        api::BOOT_EVENT_DIGEST &second = *event.add_digests();
        second.set_hash_alg(1);
        second.set_digest(std::string(sha256.begin(), sha256.end()));
        log += number(event.pcr_index()) + number(event.event_type()) + number(2) + number(4, 2) +
               first.digest() + number(11, 2) + second.digest() + number(DATA_SIZE) + data;
    }
    boot_sample made{folder().put("boot", log), message.SerializeAsString(), {}};
    const pcr_replay after = replay(message, quoted_bank());
    for (std::uint32_t i = 0; i < PCR_COUNT; ++i) {
        api::PCR_DUMP &pcr = *made.quoted.add_pcrs();
        pcr.set_index(i);
        pcr.set_value(after.values[i]);
    }
    return made;
}

} // namespace

const ima_sample &the_ima_list()
{
    static const ima_sample made = make_ima_list();
    return made;
}

const boot_sample &the_boot_log()
{
    static const boot_sample made = make_boot_log();
    return made;
}
