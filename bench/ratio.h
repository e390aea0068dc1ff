// Jobs beside their yardsticks. A benchmark registers two functions under one job name, "JOB/ours" and
// "JOB/yardstick" (BENCHMARK(f)->Name("JOB/ours")), and states its goal; the program runs both in interleaved
// repetitions and prints, a line a job: job, our median, the yardstick's median, ratio, goal, holds or not.
//
//   RATIO_BENCHMARK("boot log parse", 3.0, parse_log, copy_same_buffers);
//   int main(int argc, char **argv) { return ratio_main(argc, argv); }
//
// A number by itself says nothing on a shared machine: only the ratio is reported as a result.
#pragma once

#include <benchmark/benchmark.h>

// How a job is measured: many short rounds where other processes take part in the work and what else runs on
// the machine would weigh on one side alone.
struct ratio_rounds {
    int count = 9;
    double seconds = 0.2;
};

// States that JOB's time may be at most `goal` times its yardstick's. Returns true, for use in an
// initialiser.
bool ratio_job(const char *job, double goal, void (*ours)(benchmark::State &),
               void (*yardstick)(benchmark::State &), ratio_rounds rounds = {});

// Runs all jobs and prints the table. Exit status 0 also when a goal is missed: a benchmark measures, it does
// not fail a build. 1 when a job could not be run.
int ratio_main(int argc, char **argv);

#define RATIO_CONCAT_(a, b) a##b
#define RATIO_CONCAT(a, b) RATIO_CONCAT_(a, b)
#define RATIO_BENCHMARK(job, goal, ours, ...)                                                                \
    static const bool RATIO_CONCAT(ratio_job_, __LINE__) = ratio_job(job, goal, ours, __VA_ARGS__)
