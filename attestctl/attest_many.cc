#include "attestctl/attest_many.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

#include <unistd.h>

#include "attestctl/attest_report.h"
#include "attestctl/client.h"
#include "attestctl/output.h"
#include "attestctl/report.h"
#include "attestctl/targets.h"
#include "attestctl/text.h"
#include "attestctl/verify/judge.h"

using std::chrono::steady_clock;

namespace {

// Of one message: with every job at a node that sends as much as it may, memory stays bounded. A boot log has
// some hundred kB, the list of a management controller, which comes as one message, rarely 80,000 events.
constexpr int LARGEST_ANSWER = 16 << 20;

enum class node_outcome { verified, not_verified, not_asked_to_the_end };

struct node_result {
    node_outcome outcome = node_outcome::not_asked_to_the_end;
    std::string line;
    node_memory memory;
};

// What the threads share. All but the last three stay as they are while there are any.
struct crowd {
    const settings &chosen;
    const chosen_roots &roots;
    const attest_memory &memory;
    const std::vector<std::string> &targets;
    std::size_t width; // of the longest target

    std::mutex mutex; // of what follows
    std::condition_variable changed;
    std::size_t next = 0; // the target that the next free thread takes
    std::deque<node_result> done;
};

// The first check that did not pass.
std::string first_problem(std::span<const check> checks)
{
    const auto found = std::find_if(checks.begin(), checks.end(),
                                    [](const check &row) { return row.outcome != check_outcome::passed; });
    if (found == checks.end())
        return {};
    return " (" + (found->source.empty() ? "" : found->source + ": ") + found->name + ": " + found->reason +
           ')';
}

node_result attest_one(const crowd &all, const std::string &target)
{
    settings chosen = all.chosen;
    chosen.target = target;
    chosen.largest_answer = LARGEST_ANSWER;
    ask_result asked{ask_status::unreachable, {}};
    evidence got;
    got.remembered = recall_lists(all.memory, target);
    got.deadline = steady_clock::now() + chosen.node_timeout;
    if (const client_owner c = make_client(chosen, asked.text); c)
        asked = fetch_evidence(
            *c,
            [&got](const api::NodeIMAData &message) {
                take_ima_message(got.ima_lists, message, got.pcrs, got.start);
                return true;
            },
            got);

    const chosen_roots roots = roots_for(all.memory, target, all.roots);
    std::vector<check> checks = judge(got, EVERY_SUBJECT, roots.node, roots.for_bmc());
    check_memory(checks, all.memory, target, got);
    const bool whole = asked.status == ask_status::answered;
    node_result result;
    if (whole)
        result.outcome = all_passed(checks) ? node_outcome::verified : node_outcome::not_verified;
    if (whole)
        result.memory = memory_of(target, got, checks);
    if (chosen.json) {
        append_json_report(result.line, chosen, got, checks, roots.node.vouched_for(), asked.text);
        return result;
    }
    // Folded, as a reason tells what the node sent: it begins no line that could be another node's.
    result.line = format("%-*s  ", static_cast<int>(all.width), target.c_str());
    append_folded(result.line, output_columns(), result.line.size(),
                  whole ? verdict_line(checks, roots.node.vouched_for()) + first_problem(checks)
                        : "NOT VERIFIED: " + asked.text);
    return result;
}

void work(crowd &all)
{
    std::unique_lock lock(all.mutex);
    while (all.next < all.targets.size()) {
        const std::string &target = all.targets[all.next++];
        lock.unlock();
        node_result result = attest_one(all, target);
        lock.lock();
        all.done.push_back(std::move(result));
        all.changed.notify_one();
    }
}

struct tally {
    std::size_t verified = 0, not_verified = 0, not_asked_to_the_end = 0;

    std::size_t nodes() const { return verified + not_verified + not_asked_to_the_end; }
};

void count(tally &so_far, node_outcome outcome)
{
    ++(outcome == node_outcome::verified       ? so_far.verified
       : outcome == node_outcome::not_verified ? so_far.not_verified
                                               : so_far.not_asked_to_the_end);
}

std::string tally_text(const tally &so_far)
{
    return grouped(so_far.verified) + " verified, " + grouped(so_far.not_verified) + " not verified, " +
           grouped(so_far.not_asked_to_the_end) + " not asked to the end";
}

// The line on a terminal that is drawn anew while nodes are asked.
struct crowd_progress {
    bool on_terminal = isatty(STDERR_FILENO) == 1;

    void draw(const tally &so_far, std::size_t nodes) const
    {
        if (!on_terminal)
            return;
        const std::string line = "\r\x1b[K" + grouped(so_far.nodes()) + " of " + counted(nodes, "node") +
                                 ": " + tally_text(so_far);
        std::fwrite(line.data(), 1, line.size(), stderr);
    }
    void wipe() const
    {
        if (on_terminal)
            std::fputs("\r\x1b[K", stderr);
    }
};

// Shows the results as they come; `memories` are those of the nodes. False when the output cannot be written:
// then nodes that nobody has begun with are not asked.
bool show_results(crowd &all, tally &so_far, std::vector<node_memory> &memories)
{
    constexpr std::chrono::milliseconds GLANCE{200};
    const crowd_progress progress;
    bool written = true;
    std::unique_lock lock(all.mutex);
    while (written && so_far.nodes() < all.targets.size()) {
        all.changed.wait_for(lock, GLANCE, [&all] { return !all.done.empty(); });
        std::deque<node_result> done = std::exchange(all.done, {});
        lock.unlock();
        progress.wipe();
        for (node_result &result : done) {
            count(so_far, result.outcome);
            write_data(result.line);
            memories.push_back(std::move(result.memory));
        }
        written = flush_data();
        progress.draw(so_far, all.targets.size());
        lock.lock();
    }
    progress.wipe();
    if (!written)
        all.next = all.targets.size();
    return written;
}

// As many threads as can be had, at most `wanted`.
std::vector<std::jthread> start_threads(crowd &all, std::size_t wanted)
{
    std::vector<std::jthread> threads;
    try {
        while (threads.size() < wanted)
            threads.emplace_back([&all] { work(all); });
    } catch (const std::system_error &) {
    }
    return threads;
}

// Without a line of its own in JSON, where every line is a node.
void write_summary(const settings &chosen, const tally &so_far, std::size_t pinned,
                   steady_clock::duration took)
{
    const std::string text = counted(so_far.nodes(), "node") + ": " + tally_text(so_far) +
                             (pinned != 0 ? "; " + grouped(pinned) + " pinned" : "") +
                             format("; %.1f s", std::chrono::duration<double>(took).count());
    if (chosen.json)
        complain(text);
    else
        write_data(text + '\n');
}

} // namespace

int attest_many(const settings &chosen, const chosen_roots &roots, attest_memory &memory)
{
    const auto began = steady_clock::now();
    std::string error;
    std::vector<std::string> targets;
    if (!read_targets(chosen.targets_file, targets, error)) {
        complain(error);
        return EXIT_USAGE;
    }
    std::size_t width = 0;
    for (const std::string &target : targets)
        width = std::max(width, target.size());
    crowd all{chosen, roots, memory, targets, width, {}, {}, 0, {}};
    tally so_far;
    std::vector<node_memory> memories;
    {
        const std::vector<std::jthread> threads = start_threads(all, std::min(chosen.jobs, targets.size()));
        if (threads.empty()) {
            complain("no thread can be started");
            return EXIT_USAGE;
        }
        if (!show_results(all, so_far, memories))
            return EXIT_USAGE;
    }
    std::size_t pinned = 0;
    for (node_memory &node : memories)
        pinned += keep(memory, std::move(node)) ? 1 : 0;
    write_summary(chosen, so_far, pinned, steady_clock::now() - began);
    if (!write_memory(memory, error)) {
        complain(error);
        return EXIT_USAGE;
    }
    if (!flush_data())
        return EXIT_USAGE;
    return so_far.not_verified != 0           ? EXIT_NO_EVIDENCE
           : so_far.not_asked_to_the_end != 0 ? EXIT_USAGE
                                              : EXIT_DONE;
}
