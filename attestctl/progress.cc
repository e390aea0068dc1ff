#include "attestctl/progress.h"

#include <cstdio>

#include <unistd.h>

#include "attestctl/text.h"

using std::chrono::steady_clock;

stream_progress start_progress()
{
    stream_progress progress;
    progress.on_terminal = isatty(STDERR_FILENO) == 1;
    progress.started = steady_clock::now();
    return progress;
}

void count_message(stream_progress &progress, const remote_attestation_api::NodeIMAData &message)
{
    ++progress.messages;
    progress.events += static_cast<std::uint64_t>(message.events_size());
    progress.bytes += message.ByteSizeLong();
    if (message.events_size() > 0)
        progress.last_event = message.events(message.events_size() - 1).event_num();
}

void draw_progress(stream_progress &progress)
{
    const auto now = steady_clock::now();
    if (!progress.on_terminal ||
        (progress.drawn && now - progress.last_drawn < std::chrono::milliseconds(200)))
        return;
    const double seconds = std::chrono::duration<double>(now - progress.started).count();
    const double rate = seconds > 0 ? static_cast<double>(progress.events) / seconds : 0;
    const std::string line = "\r\x1b[K" + counted(progress.events, "event") + ", " +
                             grouped(static_cast<std::uint64_t>(rate)) + "/s, " +
                             format("%.1f MB", static_cast<double>(progress.bytes) / 1e6);
    std::fwrite(line.data(), 1, line.size(), stderr);
    progress.last_drawn = now;
    progress.drawn = true;
}

void wipe_progress(stream_progress &progress)
{
    if (progress.drawn)
        std::fputs("\r\x1b[K", stderr);
    progress.drawn = false;
}

std::string received_text(const stream_progress &progress)
{
    std::string out = counted(progress.events, "event");
    if (progress.events > 0)
        out += " (the last is number " + grouped(progress.last_event) + ")";
    return out + " in " + counted(progress.messages, "message") +
           format(", %.1f MB", static_cast<double>(progress.bytes) / 1e6);
}
