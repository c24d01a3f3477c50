// Cost of one change of the sync point list (push, remove) as the list grows
// from 10 to 100,000 points. Every change refits over all points and re-times
// the track with a fixed number of edits, so the cost per point should stay
// flat: the program prints, for each size, the cost per operation, per point,
// the track edits per operation, and the per-point ratio to the smallest size.
#include "OffsetList.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <random>

using namespace dm;

namespace {

struct Fixture {
    Movie movie;
    TrackPtr sound;
    std::unique_ptr<OffsetList> list;

    explicit Fixture(int points)
    {
        const double seconds = 3 * 3600;
        movie.addTrack(MediaType::Video, std::make_shared<Media>(MediaType::Video, 600, 600LL * 3 * 3600), 600);
        sound = movie.addTrack(MediaType::Sound, std::make_shared<Media>(MediaType::Sound, 48000, 48000LL * 3 * 3600), 48000);
        list = std::make_unique<OffsetList>(&movie, nullptr);
        std::mt19937 rng(1);
        std::uniform_real_distribution<double> u(0, seconds);
        std::vector<Offset> pts;
        for (int i = 0; i < points; ++i) {
            double m = u(rng);
            pts.emplace_back(myQTTime(m, 600), myQTTime(m * 1.001 + 0.3, 600));
        }
        list->replacePoints(pts);
    }
};

std::map<std::pair<std::string, long>, double> perPoint;

// Track edits so far: edits of the sound track plus tracks added or removed.
std::uint64_t edits(Fixture const& f) { return f.sound->changeCount() + f.movie.trackChangeCount(); }

void record(benchmark::State& state, std::uint64_t timedEdits)
{
    double ops = static_cast<double>(state.iterations());
    state.counters["points"] = static_cast<double>(state.range(0));
    state.counters["per_point"] = benchmark::Counter(ops * static_cast<double>(state.range(0)),
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["edits_per_op"] = static_cast<double>(timedEdits) / ops;
}

// Pushes a point into a list of N points (removed again, untimed).
void BM_Push(benchmark::State& state)
{
    Fixture f(static_cast<int>(state.range(0)));
    std::mt19937 rng(2);
    std::uniform_real_distribution<double> u(0, 3 * 3600);
    std::uint64_t timedEdits = 0;
    for (auto _ : state) {
        double m = u(rng);
        std::uint64_t before = edits(f);
        auto it = f.list->push(Offset(myQTTime(m, 600), myQTTime(m * 1.001 + 0.3, 600)));
        timedEdits += edits(f) - before;
        state.PauseTiming();
        f.list->remove(it);
        state.ResumeTiming();
    }
    record(state, timedEdits);
}

// Removes a point from a list of N + 1 points (pushed again, untimed).
void BM_Remove(benchmark::State& state)
{
    Fixture f(static_cast<int>(state.range(0)) + 1);
    std::mt19937 rng(3);
    std::uint64_t timedEdits = 0;
    for (auto _ : state) {
        int n = static_cast<int>(f.list->points().size());
        std::uint64_t before = edits(f);
        f.list->remove(f.list->getIterator(static_cast<int>(rng() % n)));
        timedEdits += edits(f) - before;
        state.PauseTiming();
        f.list->push(Offset(myQTTime(1000.0, 600), myQTTime(1001.3, 600)));
        state.ResumeTiming();
    }
    record(state, timedEdits);
}

BENCHMARK(BM_Push)->RangeMultiplier(10)->Range(10, 100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Remove)->RangeMultiplier(10)->Range(10, 100000)->Unit(benchmark::kMicrosecond);

// Prints the per-point cost of each size relative to the smallest.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (auto const& r : runs) {
            auto it = r.counters.find("per_point");
            if (it == r.counters.end()) continue;
            std::string name = r.run_name.function_name;
            long points = static_cast<long>(r.counters.at("points").value);
            perPoint[{name, points}] = it->second.value;
        }
    }
    void Finalize() override
    {
        ConsoleReporter::Finalize();
        std::printf("\nper-point cost relative to 10 points (flat = linear growth):\n");
        for (auto const& [key, value] : perPoint) {
            double base = perPoint[{key.first, 10}];
            std::printf("  %-10s %7ld points: %6.1f ns/point, ratio %.2f\n", key.first.c_str(), key.second,
                        value * 1e9, value / base);
        }
    }
};

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
}
