#include "attestctl/log_file.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <unistd.h>

#include "attestctl/formats/cel.h"
#include "attestctl/formats/kernel.h"
#include "attestctl/interrupt.h"
#include "attestctl/output.h"
#include "attestctl/progress.h"
#include "attestctl/text.h"

namespace {

// Whether a record is to be written. With no name given there must be one source alone.
bool is_meant(const settings &chosen, const std::string &node_name)
{
    return chosen.source.empty() || chosen.source == node_name;
}

std::string several_sources(const std::string &one, const std::string &other)
{
    if (one == other)
        return "two logs came from \"" + printable(one, 64) + "\"";
    return "several sources answered, choose one with --source: \"" + printable(one, 64) + "\", \"" +
           printable(other, 64) + '"';
}

// Bytes of a node do not go to a terminal.
bool may_be_written(const settings &chosen)
{
    if (chosen.format != log_format::raw || isatty(STDOUT_FILENO) == 0)
        return true;
    complain("--format raw is not for a terminal: redirect the output");
    return false;
}

// An IMA list on its way. It waits in a file without a name until all of it can be written.
struct ima_file {
    const settings &chosen;
    std::unique_ptr<FILE, int (*)(FILE *)> waiting{std::tmpfile(), std::fclose};
    bool is_first = true;     // no event has been written
    bool has_source = false;  // a record of a source came
    std::string node{};       // of the records that are written
    bool has_node = false;    // one was
    bool cut_short = false;   // the last message named no node: it gave up
    std::uint64_t number = 0; // of the last event
    int status = EXIT_DONE;   // of what went wrong
    std::string error{};      // one line; empty: nothing did
};

bool fail(ima_file &file, int status, std::string error)
{
    file.status = status;
    file.error = std::move(error);
    return false;
}

bool cannot_keep(ima_file &file)
{
    return fail(file, EXIT_USAGE, std::string("cannot keep the list in a file: ") + std::strerror(errno));
}

bool put(ima_file &file, const std::string &bytes)
{
    return std::fwrite(bytes.data(), 1, bytes.size(), file.waiting.get()) == bytes.size() ||
           cannot_keep(file);
}

bool take_event(ima_file &file, const api::IMA_EVENT &event)
{
    const bool may_begin_here = file.is_first && file.chosen.start.value_or(0) != 0;
    if (event.event_num() == 0 || (!may_begin_here && event.event_num() != file.number + 1))
        return fail(file, EXIT_NO_EVIDENCE,
                    "the IMA list cannot be written: event " + grouped(event.event_num()) + " came after " +
                        grouped(file.number));
    std::string out;
    std::string error;
    const bool is_cel = file.chosen.format == log_format::cel_json;
    if (is_cel)
        out = file.is_first ? "[" : ",\n";
    if (!(is_cel ? append_cel_ima_record(out, event, error) : append_kernel_ima_record(out, event, error)))
        return fail(file, EXIT_NO_EVIDENCE, error);
    file.is_first = false;
    file.number = event.event_num();
    return put(file, out);
}

bool take_record(ima_file &file, const api::NodeIMAData &record)
{
    file.cut_short = !record.has_node_name();
    if (file.cut_short)
        return true;
    file.has_source = true;
    if (!is_meant(file.chosen, record.node_name()))
        return true;
    if (file.has_node && file.node != record.node_name())
        return fail(file, EXIT_USAGE, several_sources(file.node, record.node_name()));
    file.has_node = true;
    file.node = record.node_name();
    for (const api::IMA_EVENT &event : record.events())
        if (!take_event(file, event))
            return false;
    return true;
}

// What is wrong with a list that has come to its end.
bool is_complete(ima_file &file)
{
    if (!file.has_source)
        return fail(file, EXIT_NO_EVIDENCE, file.chosen.target + " answered without evidence: no IMA list");
    if (!file.has_node)
        return fail(file, EXIT_NO_EVIDENCE,
                    "no IMA list came from \"" + printable(file.chosen.source, 64) + '"');
    if (file.cut_short)
        return fail(file, EXIT_NO_EVIDENCE,
                    file.chosen.target +
                        (file.chosen.stream ? " ended the stream early" : " sent a list that names no node"));
    return true;
}

void write_out(ima_file &file)
{
    const bool is_cel = file.chosen.format == log_format::cel_json;
    if (is_cel && !put(file, file.is_first ? "[]\n" : "]\n"))
        return;
    if (std::fseek(file.waiting.get(), 0, SEEK_SET) != 0) { // writes what is still in memory, and may fail to
        cannot_keep(file);
        return;
    }
    std::array<char, 1 << 16> block{};
    while (const std::size_t size = std::fread(block.data(), 1, block.size(), file.waiting.get()))
        write_data({block.data(), size});
    if (std::ferror(file.waiting.get()) != 0)
        fail(file, EXIT_USAGE, std::string("cannot read the list back: ") + std::strerror(errno));
    if (!flush_data())
        file.status = EXIT_USAGE;
}

ask_result ask_for_list(ima_file &file, client &c, const api::get_platform_ima_event_logs_request &request)
{
    if (!file.chosen.stream) {
        api::get_platform_ima_event_logs_response answer;
        ask_result result = ask(c, request, answer);
        for (const api::NodeIMAData &record : answer.node_data())
            if (!take_record(file, record))
                break;
        return result;
    }
    watch_for_interrupt();
    stream_progress progress = start_progress();
    const message_taker take = [&](const api::NodeIMAData &message) {
        count_message(progress, message);
        draw_progress(progress);
        return take_record(file, message);
    };
    const auto wants_to_stop = [&progress] {
        draw_progress(progress);
        return interrupted();
    };
    ask_result result = ask_stream(c, request, take, wants_to_stop);
    wipe_progress(progress);
    return result;
}

} // namespace

int write_boot_log(const settings &chosen, const api::get_platform_boot_integrity_event_logs_response &answer)
{
    const api::NodeBootIntegrityLog *log = nullptr;
    std::string out;
    std::string error;
    for (const api::NodeBootIntegrityLog &record : answer.node_data()) {
        if (!is_meant(chosen, record.node_name()))
            continue;
        if (log != nullptr) {
            complain(several_sources(log->node_name(), record.node_name()));
            return EXIT_USAGE;
        }
        log = &record;
    }
    if (log == nullptr)
        error = "no boot log came from \"" + printable(chosen.source, 64) + '"';
    else if (!may_be_written(chosen))
        return EXIT_USAGE;
    else if (chosen.format == log_format::raw ? append_kernel_boot_log(out, *log, error)
                                              : append_cel_boot_log(out, *log, error))
        write_data(out);
    if (error.empty())
        return flush_data() ? EXIT_DONE : EXIT_USAGE;
    complain(error);
    return EXIT_NO_EVIDENCE;
}

int run_ima_log_file(const settings &chosen, client &c,
                     const api::get_platform_ima_event_logs_request &request)
{
    if (!may_be_written(chosen))
        return EXIT_USAGE;
    ima_file file{chosen};
    if (!file.waiting) {
        cannot_keep(file);
        complain(file.error);
        return file.status;
    }
    const ask_result result = ask_for_list(file, c, request);
    if (file.error.empty() && result.status == ask_status::stopped) {
        complain("interrupted, nothing was written");
        return EXIT_INTERRUPTED;
    }
    if (file.error.empty() && result.status != ask_status::answered)
        fail(file, EXIT_USAGE, result.text);
    if (file.error.empty() && is_complete(file))
        write_out(file);
    if (!file.error.empty())
        complain(file.error);
    return file.status;
}
