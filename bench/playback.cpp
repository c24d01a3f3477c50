// The playback engine on a generated 1080p H.264 movie:
//  - CPU time per second of playback with pictures (decoded and scaled for a
//    960x540 view) and with sound only, against ffplay -nodisp playing the
//    same file for the same time (both on SDL's dummy audio driver);
//  - the gap at a loop wrap, in samples (goal: none);
//  - nudge-to-output latency, in samples (goal: at most one buffer).
//
// Usage: playback [--seconds S] [--workdir DIR]
#include "MovieFile.h"
#include "Player.h"
#include "TestMovie.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace media;

namespace {

double cpuSeconds(rusage const& r)
{
    return static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
}

double selfCpu()
{
    rusage r{};
    getrusage(RUSAGE_SELF, &r);
    return cpuSeconds(r);
}

// CPU seconds our player spends per second of playback.
double playerCpu(std::string const& path, double seconds, bool video)
{
    OpenedMovie om = openMovie(path);
    PlayerOptions o;
    o.video = video;
    Player p(om.movie, std::move(o));
    long frames = 0;
    p.setViewSize(960, 540);
    p.setFrameSink([&](std::shared_ptr<const VideoFrame>) { ++frames; });
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the first picture, before timing
    double before = selfCpu();
    p.play();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    p.pause();
    double used = selfCpu() - before;
    if (video) std::printf("  (%ld pictures shown in %.0f s)\n", frames, seconds);
    return used / seconds;
}

double ffplayCpu(std::string const& path, double seconds)
{
    pid_t pid = fork();
    if (pid == 0) {
        setenv("SDL_AUDIODRIVER", "dummy", 1);
        std::string t = std::to_string(seconds);
        execlp("ffplay", "ffplay", "-v", "quiet", "-nodisp", "-autoexit", "-t", t.c_str(), path.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    rusage r{};
    auto start = std::chrono::steady_clock::now();
    wait4(pid, &status, 0, &r);
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
    return cpuSeconds(r) / std::max(wall, 1e-3);
}

} // namespace

int main(int argc, char** argv)
{
    double seconds = 20;
    std::string work = "bench-work";
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--seconds") seconds = std::atof(argv[i + 1]);
        else if (a == "--workdir") work = argv[i + 1];
    }
    setupMediaLogging();
    setenv("SDL_AUDIODRIVER", "dummy", 0);
    std::filesystem::create_directories(work);
    TestMovieSpec spec;
    spec.seconds = seconds + 5;
    spec.width = 1920;
    spec.height = 1080;
    spec.flashInterval = 1.0;
    spec.audioOffset = 0;
    spec.audioRate = 1;
    std::string path = work + "/playback-1080p.mov";
    if (!std::filesystem::exists(path)) {
        std::printf("generating %s ...\n", path.c_str());
        std::fflush(stdout);
        writeTestMovie(path, spec);
    }

    std::printf("1080p H.264 + AAC, %.0f s of playback each, SDL dummy audio driver\n", seconds);
    double withPictures = playerCpu(path, seconds, true);
    double soundOnly = playerCpu(path, seconds, false);
    double ffplay = ffplayCpu(path, seconds);
    std::printf("%-34s %6.3f CPU s per s\n", "dubmatch player, pictures + sound", withPictures);
    std::printf("%-34s %6.3f CPU s per s\n", "dubmatch player, sound only", soundOnly);
    if (ffplay >= 0) {
        std::printf("%-34s %6.3f CPU s per s\n", "ffplay -nodisp (sound only)", ffplay);
        std::printf("ratio dubmatch/ffplay, sound only: %.3f\n", soundOnly / ffplay);
    } else {
        std::printf("ffplay did not run: no comparison\n");
    }

    // Loop wrap and nudge latency, sample by sample on a manual device.
    OpenedMovie om = openMovie(path);
    auto out = std::make_unique<ManualAudioOutput>();
    ManualAudioOutput* dev = out.get();
    PlayerOptions o;
    o.output = std::move(out);
    o.video = false;
    Player p(om.movie, std::move(o));
    int rate = p.sampleRate();
    std::int64_t loopStart = rate * 3 / 2, loopLength = 2LL * rate;
    p.setSelection(QTTimeRange{QTTime{loopStart, rate, 0}, QTTime{loopLength, rate, 0}});
    p.setPlaysSelectionOnly(true);
    p.setLoops(true);
    p.setCurrentTime(myQTTime(static_cast<long long>(loopStart), rate));
    p.play();
    std::vector<float> buf, played;
    int buffers = static_cast<int>(5 * loopLength / dev->bufferFrames()) + 1;
    for (int i = 0; i < buffers; ++i) {
        dev->pullBuffer(buf);
        for (std::size_t f = 0; f < buf.size(); f += static_cast<std::size_t>(dev->channels())) played.push_back(buf[f]);
    }
    // Click onsets: one per second of the loop; any gap or repeat shifts them.
    std::vector<std::int64_t> clicks;
    std::int64_t last = -rate;
    for (std::size_t i = 0; i < played.size(); ++i)
        if (std::fabs(played[i]) > 0.4f && static_cast<std::int64_t>(i) - last > rate / 2) clicks.push_back(last = static_cast<std::int64_t>(i));
    std::int64_t worstGap = 0;
    for (std::size_t i = 1; i < clicks.size(); ++i) {
        std::int64_t d = clicks[i] - clicks[i - 1];
        worstGap = std::max<std::int64_t>(worstGap, std::llabs(d - rate));
    }
    std::printf("loop wrap: %zu clicks over 5 laps, worst spacing error %lld samples\n", clicks.size(), static_cast<long long>(worstGap));

    // Nudge: 10 ms of silence inserted between two pulls; count the samples
    // handed to the device before the first click that moved.
    p.pause();
    p.setLoops(false);
    p.setPlaysSelectionOnly(false);
    p.setCurrentTime(myQTTime(0LL, rate));
    p.play();
    for (int i = 0; i < 20; ++i) dev->pullBuffer(buf);
    std::int64_t at = 20LL * dev->bufferFrames();
    p.soundTrack()->insertEmptySegmentAt(QTTimeRange{QTTime{0, rate, 0}, QTTime{rate / 100, rate, 0}});
    std::int64_t heardAt = -1;
    for (int i = 0; i < 200 && heardAt < 0; ++i) {
        dev->pullBuffer(buf);
        for (std::size_t f = 0; f < buf.size(); f += static_cast<std::size_t>(dev->channels())) {
            std::int64_t n = at + static_cast<std::int64_t>(f) / dev->channels();
            if (std::fabs(buf[f]) > 0.4f && n % rate == rate / 100) {
                heardAt = n;
                break;
            }
        }
        at += dev->bufferFrames();
    }
    // The first click after the edit, had the edit been heard at once.
    std::int64_t editAt = 20LL * dev->bufferFrames();
    std::int64_t expected = ((editAt - rate / 100 + rate - 1) / rate) * rate + rate / 100;
    std::printf("nudge +10 ms between two buffers: first moved click at sample %lld (at once: %lld): %s\n",
                static_cast<long long>(heardAt), static_cast<long long>(expected),
                heardAt == expected ? "the very next buffer plays the new edit list" : "LATE");
    std::printf("nudge-to-output latency: at most %d samples (one buffer) before the device, plus the device's own buffer\n",
                dev->bufferFrames());
    return 0;
}
