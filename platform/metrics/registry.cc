#include "platform/metrics/registry.h"

#include <atomic>
#include <exception>
#include <map>
#include <mutex>
#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>
#include <sstream>
#include <string_view>
#include <unordered_map>

#include "platform/metrics.h"

namespace {

std::atomic<bool> wanted = false;

// From an answer out of a warm cache to one of a management controller that uses up its limits.
const prometheus::Histogram::BucketBoundaries DURATIONS = {
    0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60};

prometheus::Registry &registry()
{
    static prometheus::Registry all;
    return all;
}

std::map<std::string, std::string> labels_of(const metric_family &family, metric_labels values)
{
    std::map<std::string, std::string> labels;
    const auto *name = family.labels.begin();
    for (const std::string_view value : values) {
        if (name == family.labels.end() || *name == nullptr)
            break;
        labels.emplace(*name++, value);
    }
    return labels;
}

// The library finds a series by maps that it builds for each value; found once, it is known by a text. Series
// live as long as the process.
template <class Series, class Builder, class... Shape>
Series &series_of(Builder builder, const metric_family &family, metric_labels labels, const Shape &...shape)
{
    static std::mutex lock;
    static std::unordered_map<std::string, Series *> known;
    std::string key = family.name;
    for (const std::string_view value : labels)
        (key += '\0') += value;
    const std::lock_guard guard(lock);
    Series *&series = known[key];
    if (series == nullptr)
        series = &builder.Name(family.name)
                      .Help(family.help)
                      .Register(registry())
                      .Add(labels_of(family, labels), shape...);
    return *series;
}

// Counting must not cost the caller its work: what memory does not suffice for is not counted.
template <class Count>
void guarded(Count count) noexcept
{
    if (!wanted.load(std::memory_order_relaxed))
        return;
    try {
        count();
    } catch (const std::exception &) {
    }
}

} // namespace

bool metrics_wanted()
{
    return wanted.load(std::memory_order_relaxed);
}

void metric_add(const metric_family &counter, metric_labels labels, std::uint64_t count)
{
    guarded([&] {
        series_of<prometheus::Counter>(prometheus::BuildCounter(), counter, labels)
            .Increment(static_cast<double>(count));
    });
}

void metric_set(const metric_family &gauge, metric_labels labels, double value)
{
    guarded([&] { series_of<prometheus::Gauge>(prometheus::BuildGauge(), gauge, labels).Set(value); });
}

void metric_observe(const metric_family &seconds, metric_labels labels, double value)
{
    guarded([&] {
        series_of<prometheus::Histogram>(prometheus::BuildHistogram(), seconds, labels, DURATIONS)
            .Observe(value);
    });
}

void metrics_registry_enable()
{
    wanted = true;
}

std::string metrics_registry_text()
{
    std::string text;
    guarded([&] {
        std::ostringstream out;
        prometheus::TextSerializer().Serialize(out, registry().Collect());
        text = out.str();
    });
    return text;
}
