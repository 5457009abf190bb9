// What one call of KELM_AviFile_DataInput costs the delivering thread: a P frame of 20 kB, 64 channels in turn, rings that
// never fill.
//
// The yardstick is what no such call can do without: one copy of the same frame into a ring of 1 MiB, and nine pairs of lock
// and unlock of a recursive lock that nobody else wants. Bursts of both take turns, so that the caches and the clock of the
// processor treat them alike; before each of them the writer threads have emptied the rings.
//
//   input_benchmark [options of Google Benchmark] [FOLDER]      FOLDER: where the partition is made, /dev/shm by default
//
// A burst of one frame for each channel is what a recorder sees when cameras are spread out: the writer threads sleep until
// they are woken. In a burst of sixteen they work beside the calls from the second frame on.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <cstring>

#include "support.h"

namespace {

using namespace bench;

constexpr uint32_t kChannels = 64, kFrameBytes = 20'000;
constexpr uint32_t kKeyInterval = 250;  // frames; a key frame is never measured
constexpr uint32_t kWarmUpRounds = 2 * kRingBytes / kFrameBytes;
constexpr int kLockPairs = 9;

std::string g_folder = "/dev/shm";
bool g_failed = false;

// The least work that takes a frame.
class Baseline {
 public:
    explicit Baseline(const Frames &frames) : m_frames(frames), m_rings(frames.channels()) {}

    void hand_over(uint32_t channel) {
        Ring &ring = m_rings[channel];
        for (int pair = 0; pair < kLockPairs; ++pair) {
            pthread_mutex_lock(&ring.lock);
            pthread_mutex_unlock(&ring.lock);
        }
        const uint8_t *frame = m_frames.of(channel);
        const size_t first = std::min<size_t>(kFrameBytes, ring.bytes.size() - ring.position);
        std::memcpy(ring.bytes.data() + ring.position, frame, first);
        std::memcpy(ring.bytes.data(), frame + first, kFrameBytes - first);
        ring.position = (ring.position + kFrameBytes) % ring.bytes.size();
        benchmark::ClobberMemory();
    }

 private:
    struct Ring {
        Ring() {
            pthread_mutexattr_t recursive{};
            pthread_mutexattr_init(&recursive);
            pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
            pthread_mutex_init(&lock, &recursive);
            pthread_mutexattr_destroy(&recursive);
        }
        ~Ring() { pthread_mutex_destroy(&lock); }
        Ring(const Ring &) = delete;
        Ring &operator=(const Ring &) = delete;

        pthread_mutex_t lock{};
        size_t position = 0;
        std::vector<uint8_t> bytes = std::vector<uint8_t>(kRingBytes);
    };

    const Frames &m_frames;
    std::vector<Ring> m_rings;
};

double nanoseconds(Clock::time_point begin, Clock::time_point end) {
    return std::chrono::duration<double, std::nano>(end - begin).count();
}

// What reading the clock twice adds to each measurement.
double clock_cost() {
    Samples samples;
    for (int i = 0; i < 10'001; ++i) {
        const auto begin = Clock::now();
        samples.add(nanoseconds(begin, Clock::now()));
    }
    return samples.at(0.5);
}

// Both contestants, and how long their calls took.
class Contest {
 public:
    explicit Contest(const std::string &folder) : m_recorder(folder, m_frames), m_baseline(m_frames) { m_recorder.start(); }

    // Touches every page of the rings.
    void warm_up() {
        for (uint32_t round = 0; round < kWarmUpRounds; ++round) {
            drained_round(round == 0);
            for (uint32_t channel = 0; channel < kChannels; ++channel) {
                m_baseline.hand_over(channel);
            }
        }
    }

    // Gives the seconds that the calls of the recorder took.
    double run(int64_t rounds) {
        if (m_recorder.delivered(0) - m_last_key > kKeyInterval) {
            drained_round(true);
        }
        double sum = 0;
        for (int64_t round = 0; round < rounds; ++round) {
            sum += recorder_round();
        }
        m_recorder.drain();
        for (int64_t round = 0; round < rounds; ++round) {
            baseline_round();
        }
        return sum / 1e9;
    }

    void report(benchmark::State &state) {
        m_recorder.stop();
        const uint64_t lost = m_recorder.lost();
        if (lost > 0) {
            throw std::runtime_error(std::to_string(lost) + " frames were lost");
        }
        state.counters["lost"] = static_cast<double>(lost);
        state.counters["median_ns"] = m_library_ns.at(0.5);
        state.counters["base_ns"] = m_baseline_ns.at(0.5);
        state.counters["ratio"] = m_library_ns.at(0.5) / m_baseline_ns.at(0.5);
        state.counters["p99_ns"] = m_library_ns.at(0.99);
        state.counters["p999_ns"] = m_library_ns.at(0.999);
        state.counters["base_p999_ns"] = m_baseline_ns.at(0.999);
    }

 private:
    void drained_round(bool key) {
        for (uint32_t channel = 0; channel < kChannels; ++channel) {
            m_recorder.deliver(channel, key);
        }
        m_last_key = key ? m_recorder.delivered(0) : m_last_key;
        m_recorder.drain();
    }

    double recorder_round() {
        double sum = 0;
        for (uint32_t channel = 0; channel < kChannels; ++channel) {
            m_recorder.prepare(channel, false);
            const auto begin = Clock::now();
            const int32_t result = m_recorder.hand_over(channel);
            const double took = nanoseconds(begin, Clock::now()) - m_clock_cost;
            check(result, "KELM_AviFile_DataInput");
            m_library_ns.add(took);
            sum += took;
        }
        return sum;
    }

    void baseline_round() {
        for (uint32_t channel = 0; channel < kChannels; ++channel) {
            const auto begin = Clock::now();
            m_baseline.hand_over(channel);
            m_baseline_ns.add(nanoseconds(begin, Clock::now()) - m_clock_cost);
        }
    }

    Frames m_frames{kChannels, kFrameBytes};
    Recorder m_recorder;
    Baseline m_baseline;
    uint32_t m_last_key = 0;
    double m_clock_cost = clock_cost();
    Samples m_library_ns, m_baseline_ns;
};

void measure(benchmark::State &state) {
    const TempFolder folder(g_folder);
    Contest contest(folder.path());
    contest.warm_up();
    const int64_t rounds = state.range(0);
    for ([[maybe_unused]] auto _ : state) {
        state.SetIterationTime(contest.run(rounds) / static_cast<double>(rounds * kChannels));
    }
    contest.report(state);
}

void data_input(benchmark::State &state) {
    if (g_failed) {
        state.SkipWithError("an earlier run failed");
        return;
    }
    try {
        measure(state);
    } catch (const std::exception &failure) {
        g_failed = true;
        state.SkipWithError(failure.what());
    }
}

// 20480 calls in each repetition, 400 MB on disk.
void settings(benchmark::internal::Benchmark *benchmark) {
    benchmark->ArgName("frames_in_burst")->UseManualTime()->Repetitions(15)->ReportAggregatesOnly();
    benchmark->ComputeStatistics("max", [](const std::vector<double> &values) { return *std::ranges::max_element(values); });
    benchmark->Unit(benchmark::kNanosecond);
}
BENCHMARK(data_input)->Apply(settings)->Arg(1)->Iterations(320);
BENCHMARK(data_input)->Apply(settings)->Arg(16)->Iterations(20);

}  // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (argc == 2) {
        g_folder = argv[--argc];
    }
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return g_failed ? 1 : 0;
}
