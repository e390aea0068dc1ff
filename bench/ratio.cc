#include "bench/ratio.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

struct job_row {
    std::string name;
    double goal;
};

std::vector<job_row> &jobs()
{
    static std::vector<job_row> rows;
    return rows;
}

// Keeps the medians that the library computes over the repetitions, by benchmark name, and prints nothing.
class median_collector : public benchmark::BenchmarkReporter {
public:
    std::map<std::string, double> medians;
    bool failed = false;

    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.error_occurred) {
                std::fprintf(stderr, "%s: %s\n", run.run_name.function_name.c_str(),
                             run.error_message.c_str());
                failed = true;
            } else if (run.aggregate_name == "median") {
                medians[run.run_name.function_name] = run.GetAdjustedRealTime();
            }
        }
    }
};

} // namespace

bool ratio_job(const char *job, double goal, void (*ours)(benchmark::State &),
               void (*yardstick)(benchmark::State &), ratio_rounds rounds)
{
    jobs().push_back({job, goal});
    for (auto [side, function] : {std::pair{"/ours", ours}, std::pair{"/yardstick", yardstick}}) {
        benchmark::RegisterBenchmark((std::string(job) + side).c_str(), function)
            ->Unit(benchmark::kMicrosecond)
            ->UseRealTime()
            ->MinTime(rounds.seconds)
            ->Repetitions(rounds.count)
            ->ReportAggregatesOnly(true);
    }
    return true;
}

int ratio_main(int argc, char **argv)
{
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    std::vector<char *> arguments(argv, argv + argc);
    arguments.push_back(interleave.data());
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
        return 2;
    median_collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);

    std::printf("%-44s %14s %14s %8s %8s\n", "job", "ours (us)", "yardstick (us)", "ratio", "goal");
    for (const job_row &job : jobs()) {
        auto ours = collector.medians.find(job.name + "/ours");
        auto yardstick = collector.medians.find(job.name + "/yardstick");
        if (ours == collector.medians.end() || yardstick == collector.medians.end())
            continue;
        double ratio = ours->second / yardstick->second;
        std::printf("%-44s %14.2f %14.2f %8.2f %8.2f  %s\n", job.name.c_str(), ours->second,
                    yardstick->second, ratio, job.goal, ratio <= job.goal ? "holds" : "DOES NOT HOLD");
    }
    return collector.failed ? 1 : 0;
}
