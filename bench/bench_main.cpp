// Runs the benchmarks and prints one table of ratios, in the form in which docs/performance.md has it.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <string>

#include "side_by_side.h"

namespace kova::bench {
namespace {

class RatioTable : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override {
        std::puts("| Measured | Against | Ratio | Wanted | |");
        std::puts("|---|---|---|---|---|");
        return true;
    }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                std::printf("| %s | | not measured | | %s |\n", run.run_name.function_name.c_str(),
                            run.error_message.c_str());
            } else {
                print_row(run);
            }
        }
        std::fflush(stdout);
    }

  private:
    static void print_row(const Run& run) {
        const auto ratio = run.counters.find(kRatio);
        if (ratio == run.counters.end()) {
            std::printf("| %s | | | | %s |\n", run.run_name.function_name.c_str(), run.report_label.c_str());
            return;
        }
        const double goal = run.counters.at(kGoal);
        // "capture, 30 mappings/its system calls" is two columns.
        const std::string& name = run.run_name.function_name;
        const std::size_t slash = name.find('/');
        std::printf("| %s | %s | %.*f | %s %.1f | %s |\n", name.substr(0, slash).c_str(),
                    slash == std::string::npos ? "" : name.substr(slash + 1).c_str(),
                    double{ratio->second} < 0.1 ? 3 : 2, double{ratio->second},
                    double{ratio->second} <= goal ? "at most" : "**missed:** at most", goal, run.report_label.c_str());
        std::fprintf(stderr, "%-60s %12.2f us against %12.2f us\n", name.c_str(), double{run.counters.at(kOurs)},
                     double{run.counters.at(kTheirs)});
    }
};

}  // namespace
}  // namespace kova::bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    kova::bench::RatioTable table;
    benchmark::RunSpecifiedBenchmarks(&table);
    benchmark::Shutdown();
    return 0;
}
