// What the process tells those who watch it: counters, gauges and durations, asked for over HTTP in
// Prometheus' text format.
//
// A family is constant data where it is counted; a series of it comes into being with the first value.
// Counting is callable from any thread, never fails and allocates only for a new series' sake; while nobody
// asked for metrics (ATTEST_METRICS) it costs a load and a branch.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "platform/levm.h"

enum class metric_kind : std::uint8_t { counter, gauge, seconds };

struct metric_family {
    metric_kind kind;
    const char *name; // attest_..., counters ..._total, durations ..._seconds
    const char *help;
    std::array<const char *, 3> labels; // their names; null: fewer
};

// One value for each of the family's labels, in their order. Few values a label: each combination is a series
// that lives as long as the process.
using metric_labels = std::initializer_list<std::string_view>;

void metric_add(const metric_family &counter, metric_labels labels, std::uint64_t count = 1);
void metric_set(const metric_family &gauge, metric_labels labels, double value);
void metric_observe(const metric_family &seconds, metric_labels labels, double value);

// Whether anybody asked for metrics: for what has to be measured before it can be counted.
bool metrics_wanted();

// ---- on the event manager's thread ----

// Has `collect` called before every answer, to set gauges. Until it is taken back with the same arguments.
void metrics_collect_with(void (*collect)(void *context), void *context);
void metrics_collect_no_more(void (*collect)(void *context), void *context);

// Listens as ATTEST_METRICS says: a port of 127.0.0.1, a loopback address and port ("127.0.0.1:9551"), or
// "unix:" and the path of a socket; not set or empty: nothing. Answers GET /metrics on the loop, between the
// other callbacks; at most 8 connections of 5 s each. 0, or a status that was told to the operator; then the
// process goes on without metrics.
std::uint32_t metrics_start(levm *manager);

// Stops listening and removes the socket; what was counted stays. Before the event manager is destroyed.
void metrics_stop();
