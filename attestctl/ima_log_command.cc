#include "attestctl/interrupt.h"
#include "attestctl/log_file.h"
#include "attestctl/output.h"
#include "attestctl/progress.h"
#include "attestctl/text.h"

namespace {

// What has been seen of a list, whole or in messages.
struct list_state {
    std::string node;        // whose record was shown last
    bool any_source = false; // a record that names a node came, or has events
    bool cut_short = false;  // the last one names none: the node gave up
};

void note_record(list_state &state, const api::NodeIMAData &record)
{
    state.any_source |= record.has_node_name() || !record.events().empty();
    state.cut_short = !record.has_node_name();
}

// A head where another node's events begin, then the events. Text is written as it is made.
void write_record(list_state &state, const api::NodeIMAData &record, bool json)
{
    std::string out;
    if (json) {
        append_json(out, record);
        write_data(out + '\n');
        return;
    }
    if (record.has_node_name() && state.node != record.node_name()) {
        append_ima_head(out, record);
        state.node = record.node_name();
    }
    for (const api::IMA_EVENT &event : record.events()) {
        append_ima_event(out, event);
        write_data(out);
        out.clear();
    }
    write_data(out);
}

int no_list(const settings &chosen)
{
    complain(chosen.target + " answered without evidence: no IMA list");
    return EXIT_NO_EVIDENCE;
}

int run_at_once(const settings &chosen, client &c, const api::get_platform_ima_event_logs_request &request)
{
    api::get_platform_ima_event_logs_response answer;
    if (const ask_result result = ask(c, request, answer); result.status != ask_status::answered) {
        complain(result.text);
        return EXIT_USAGE;
    }
    list_state state;
    if (chosen.json) {
        std::string out;
        append_json(out, answer);
        write_data(out + '\n');
    }
    for (const api::NodeIMAData &record : answer.node_data()) {
        note_record(state, record);
        if (!chosen.json)
            write_record(state, record, false);
    }
    if (!flush_data())
        return EXIT_USAGE;
    if (state.any_source && state.cut_short) {
        complain(chosen.target + " sent a list that names no node");
        return EXIT_NO_EVIDENCE;
    }
    return state.any_source ? EXIT_DONE : no_list(chosen);
}

// The exit status of a stream that has ended, with a line for everything but a plain end.
int stream_end(const settings &chosen, const ask_result &result, const list_state &state,
               const stream_progress &progress)
{
    if (result.status == ask_status::stopped) {
        if (!interrupted())
            return EXIT_USAGE; // the output could not be written, which has been said
        complain("interrupted after " + received_text(progress));
        return EXIT_INTERRUPTED;
    }
    if (result.status != ask_status::answered) {
        complain(result.text + (progress.messages == 0 ? "" : ", after " + received_text(progress)));
        return EXIT_USAGE;
    }
    if (!state.any_source)
        return no_list(chosen);
    if (state.cut_short) {
        complain(chosen.target + " ended the stream early, after " + received_text(progress));
        return EXIT_NO_EVIDENCE;
    }
    if (progress.on_terminal)
        complain("received " + received_text(progress));
    return EXIT_DONE;
}

int run_streamed(const settings &chosen, client &c, const api::get_platform_ima_event_logs_request &request)
{
    watch_for_interrupt();
    list_state state;
    stream_progress progress = start_progress();
    const message_taker take = [&](const api::NodeIMAData &message) {
        note_record(state, message);
        count_message(progress, message);
        wipe_progress(progress);
        write_record(state, message, chosen.json);
        const bool written = flush_data();
        draw_progress(progress);
        return written;
    };
    const auto wants_to_stop = [&progress] {
        draw_progress(progress);
        return interrupted();
    };
    const ask_result result = ask_stream(c, request, take, wants_to_stop);
    wipe_progress(progress);
    return stream_end(chosen, result, state, progress);
}

} // namespace

int run_ima_log(const settings &chosen, client &c)
{
    api::get_platform_ima_event_logs_request request;
    if (chosen.start)
        request.set_start_event(*chosen.start);
    if (chosen.count)
        request.set_event_count(*chosen.count);
    if (chosen.format != log_format::table)
        return run_ima_log_file(chosen, c, request);
    return chosen.stream ? run_streamed(chosen, c, request) : run_at_once(chosen, c, request);
}
