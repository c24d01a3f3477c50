// The playback engine against its peers, in one run, on a generated 1280x720
// H.264 + AAC movie:
//  1. the sound path on a device that pulls in real time: time spent in each
//     device callback (worst and 99.9th percentile, against the buffer
//     period), underruns, and how soon a nudge reaches the device, over
//     --soak seconds of a looped 4 s selection nudged every 0.6 s, the movie
//     read at --read-limit MB/s as from a network share;
//  2. loop wraps and a nudge on a manual device, sample by sample;
//  3. CPU per second of playback with pictures in a 1280x720 view: the
//     Dubmatch application, ffplay and mpv, each in a window of the same X
//     server (Xvfb), sound to a null device; interleaved runs, medians.
//
// Usage: playback [--seconds S] [--soak S] [--read-limit MBPS] [--runs N]
//                 [--workdir DIR] [--skip-soak] [--skip-cpu]
#include "MovieFile.h"
#include "Player.h"
#include "TestMovie.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace media;
using Clock = std::chrono::steady_clock;

namespace {

void soak(std::string const& path, double seconds, double readLimitMBps)
{
    setReadLimit(readLimitMBps * 1e6);
    OpenedMovie om = openMovie(path);
    // A device that pulls in real time; each callback timed.
    std::vector<double> us;
    us.reserve(static_cast<std::size_t>(seconds * 48000 / 1024) + 1000);
    auto out = std::make_unique<PacedAudioOutput>(1.0, [&us](float* samples, int frames, AudioOutput::Pull const& pull) {
        auto t0 = Clock::now();
        pull(samples, frames);
        if (us.size() < us.capacity()) us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    });
    PacedAudioOutput* device = out.get();
    PlayerOptions o;
    o.output = std::move(out);
    o.video = false;
    Player p(om.movie, std::move(o));
    int rate = p.sampleRate();
    dm::Track& sound = *p.soundTrack();
    p.setSelection(QTTimeRange{QTTime{10LL * rate, rate, 0}, QTTime{4LL * rate, rate, 0}});
    p.setPlaysSelectionOnly(true);
    p.setLoops(true);
    p.setCurrentTime(myQTTime(10LL * rate, rate));
    dm::MovieEditState saved = dm::NewMovieEditState(*om.movie);
    p.play();
    auto end = Clock::now() + std::chrono::duration<double>(seconds);
    int nudges = 0;
    std::int64_t worstNudge = 0;
    while (Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        // As the sync session nudges: back to the saved edits, then the new shift.
        std::int64_t before = p.stats().delivered;
        dm::UseMovieEditState(*om.movie, saved);
        std::int64_t shift = (nudges % 7 + 1) * rate / 100;
        sound.insertEmptySegmentAt(QTTimeRange{QTTime{0, rate, 0}, QTTime{shift, rate, 0}});
        ++nudges;
        // Frames the device was handed before the new edits reached it.
        for (int i = 0; i < 200; ++i) {
            PlaybackStats s = p.stats();
            if (s.lastSwitch >= before) {
                worstNudge = std::max(worstNudge, s.lastSwitch - before);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    p.pause();
    PlaybackStats s = p.stats();
    double period = device->periodSeconds() * 1e6;
    device->close();
    setReadLimit(0);
    std::sort(us.begin(), us.end());
    double worst = us.empty() ? 0 : us.back();
    double p999 = us.empty() ? 0 : us[std::min(us.size() - 1, us.size() * 999 / 1000)];
    std::printf("sound path, %.0f s of a looped 4 s selection, %d nudges, movie read at %.0f MB/s:\n", seconds, nudges, readLimitMBps);
    std::printf("  %zu callbacks of %.0f us each: worst %.1f us (%.4f of the period), 99.9th percentile %.1f us (%.5f)\n",
                us.size(), period, worst, worst / period, p999, p999 / period);
    std::printf("  underruns: %llu (%llu frames); loop laps: %.0f\n", static_cast<unsigned long long>(s.underruns),
                static_cast<unsigned long long>(s.underrunFrames), seconds / 4);
    std::printf("  nudge to device: at most %lld frames handed over before the new edits (buffer %d)\n",
                static_cast<long long>(worstNudge), 1024);
}

// Loop wrap spacing and a nudge, sample by sample on a manual device.
void exactness(std::string const& path)
{
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
        p.waitForSound();
        dev->pullBuffer(buf);
        for (std::size_t f = 0; f < buf.size(); f += static_cast<std::size_t>(dev->channels())) played.push_back(buf[f]);
    }
    std::vector<std::int64_t> clicks;
    std::int64_t last = -rate;
    for (std::size_t i = 0; i < played.size(); ++i)
        if (std::fabs(played[i]) > 0.4f && static_cast<std::int64_t>(i) - last > rate / 2) clicks.push_back(last = static_cast<std::int64_t>(i));
    std::int64_t worstGap = 0;
    for (std::size_t i = 1; i < clicks.size(); ++i) worstGap = std::max<std::int64_t>(worstGap, std::llabs(clicks[i] - clicks[i - 1] - rate));
    std::printf("loop wrap: %zu clicks over 5 laps, worst spacing error %lld samples\n", clicks.size(), static_cast<long long>(worstGap));

    p.pause();
    p.setLoops(false);
    p.setPlaysSelectionOnly(false);
    p.setCurrentTime(myQTTime(0LL, rate));
    p.play();
    for (int i = 0; i < 20; ++i) {
        p.waitForSound();
        dev->pullBuffer(buf);
    }
    std::int64_t at = 20LL * dev->bufferFrames();
    p.soundTrack()->insertEmptySegmentAt(QTTimeRange{QTTime{0, rate, 0}, QTTime{rate / 100, rate, 0}});
    std::int64_t heardAt = -1;
    for (int i = 0; i < 200 && heardAt < 0; ++i) {
        p.waitForSound();
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
    std::int64_t editAt = 20LL * dev->bufferFrames();
    std::int64_t expected = ((editAt - rate / 100 + rate - 1) / rate) * rate + rate / 100;
    std::printf("nudge +10 ms between two buffers: first moved click at sample %lld (at once: %lld): %s\n",
                static_cast<long long>(heardAt), static_cast<long long>(expected),
                heardAt == expected ? "the next buffer plays the new edit list" : "LATE");
}

// ---- CPU with pictures, under one X server --------------------------------

double processCpu(pid_t pid)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
    std::string s((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    auto close = s.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream rest(s.substr(close + 2));
    std::string field;
    std::vector<std::string> fields;
    while (rest >> field) fields.push_back(field);
    if (fields.size() < 13) return -1;
    // utime and stime are fields 14 and 15 of the whole line.
    return (std::stod(fields[11]) + std::stod(fields[12])) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

pid_t spawn(std::vector<std::string> const& args, std::vector<std::pair<std::string, std::string>> const& env)
{
    pid_t pid = fork();
    if (pid == 0) {
        for (auto const& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
        int null = ::open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        std::vector<char*> argv;
        for (auto const& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

void stop(pid_t pid)
{
    kill(pid, SIGTERM);
    for (int i = 0; i < 100; ++i) {
        int status;
        if (waitpid(pid, &status, WNOHANG) == pid) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

bool have(char const* program) { return std::system((std::string("command -v ") + program + " >/dev/null 2>&1").c_str()) == 0; }

std::string run(std::string const& cmd)
{
    std::string out;
    if (FILE* f = popen(cmd.c_str(), "r")) {
        char b[256];
        while (fgets(b, sizeof b, f)) out += b;
        pclose(f);
    }
    return out;
}

// CPU seconds per second of a player started by `args`, over `seconds`
// after a `settle` second start; `start` (if given) makes it play.
double playerCpu(std::vector<std::string> const& args, std::string const& display, double seconds,
                 std::function<bool(pid_t)> const& start = {})
{
    std::vector<std::pair<std::string, std::string>> env = {{"DISPLAY", display}, {"SDL_AUDIODRIVER", "dummy"},
                                                            {"QT_QPA_PLATFORM", "xcb"}};
    pid_t pid = spawn(args, env);
    std::this_thread::sleep_for(std::chrono::seconds(3));
    if (start && !start(pid)) {
        stop(pid);
        return -1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(2)); // playing steadily
    double c0 = processCpu(pid);
    auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    double c1 = processCpu(pid);
    double wall = std::chrono::duration<double>(Clock::now() - t0).count();
    int status = 0;
    bool alive = waitpid(pid, &status, WNOHANG) == 0;
    stop(pid);
    if (!alive || c0 < 0 || c1 < 0) return -1;
    return (c1 - c0) / wall;
}

double median(std::vector<double> v)
{
    v.erase(std::remove_if(v.begin(), v.end(), [](double x) { return x < 0; }), v.end());
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void cpuWithPictures(std::string const& path, double seconds, int runs)
{
    if (!have("Xvfb") || !have("xdotool")) {
        std::printf("CPU with pictures: needs Xvfb and xdotool; skipped\n");
        return;
    }
    std::string display = std::to_string(90 + getpid() % 9);
    display.insert(display.begin(), ':'); // (GCC 12 warns wrongly about ":" + std::string)
    pid_t x = spawn({"Xvfb", display, "-screen", "0", "1920x1200x24", "-nolisten", "tcp"}, {});
    std::this_thread::sleep_for(std::chrono::seconds(1));
    pid_t wm = have("openbox") ? spawn({"openbox"}, {{"DISPLAY", display}}) : -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::string app = DUBMATCH_APP;
    std::string abs = std::filesystem::absolute(path).string();
    std::vector<double> ours, ffplay, mpv;
    std::string geometry;
    for (int r = 0; r < runs; ++r) {
        ours.push_back(playerCpu({app, abs}, display, seconds, [&](pid_t pid) {
            // The movie window, wide enough for the picture to fill 1280x720, playing (Space).
            std::string id = run("DISPLAY=" + display + " xdotool search --all --sync --onlyvisible --pid " + std::to_string(pid) +
                                 " --name '^" + std::filesystem::path(path).filename().string() + "$' 2>/dev/null | head -1");
            while (!id.empty() && (id.back() == '\n')) id.pop_back();
            if (id.empty()) return false;
            run("DISPLAY=" + display + " xdotool windowsize --sync " + id + " 1280 940 windowactivate --sync " + id);
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            run("DISPLAY=" + display + " xdotool key space");
            geometry = run("DISPLAY=" + display + " xdotool getwindowgeometry " + id + " | tail -1");
            while (!geometry.empty() && (geometry.back() == '\n' || geometry.back() == ' ')) geometry.pop_back();
            if (char const* shot = std::getenv("DUBMATCH_BENCH_SCREENSHOT"))
                run("sleep 2; DISPLAY=" + display + " import -window root " + shot);
            return true;
        }));
        if (have("ffplay"))
            ffplay.push_back(playerCpu({"ffplay", "-v", "quiet", "-x", "1280", "-y", "720", "-loop", "0", abs}, display, seconds));
        if (have("mpv"))
            mpv.push_back(playerCpu({"mpv", "--really-quiet", "--no-config", "--vo=x11", "--ao=null", "--geometry=1280x720",
                                     "--loop=inf", abs},
                                    display, seconds));
    }
    if (wm > 0) stop(wm);
    stop(x);
    double o = median(ours), f = median(ffplay), m = median(mpv);
    std::printf("CPU with pictures in a 1280x720 view (Xvfb, sound to a null device), median of %d runs of %.0f s:\n", runs, seconds);
    std::printf("  %-36s %6.3f CPU s per s  (window %s)\n", "dubmatch (the application)", o, geometry.empty() ? "?" : geometry.c_str());
    if (f > 0) std::printf("  %-36s %6.3f CPU s per s\n", "ffplay -x 1280 -y 720", f);
    if (m > 0) std::printf("  %-36s %6.3f CPU s per s\n", "mpv --vo=x11 --geometry=1280x720", m);
    if (o > 0 && f > 0) std::printf("  ratio dubmatch/ffplay: %.3f\n", o / f);
    if (o > 0 && m > 0) std::printf("  ratio dubmatch/mpv:    %.3f\n", o / m);
}

} // namespace

int main(int argc, char** argv)
{
    double seconds = 20, soakSeconds = 600, readLimit = 20;
    int runs = 3;
    bool skipSoak = false, skipCpu = false;
    std::string work = "bench-work";
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&] { return i + 1 < argc ? argv[++i] : ""; };
        if (a == "--seconds") seconds = std::atof(value());
        else if (a == "--soak") soakSeconds = std::atof(value());
        else if (a == "--read-limit") readLimit = std::atof(value());
        else if (a == "--runs") runs = std::atoi(value());
        else if (a == "--workdir") work = value();
        else if (a == "--skip-soak") skipSoak = true;
        else if (a == "--skip-cpu") skipCpu = true;
    }
    setupMediaLogging();
    setenv("SDL_AUDIODRIVER", "dummy", 0);
    std::filesystem::create_directories(work);
    TestMovieSpec spec;
    spec.seconds = std::max(seconds + 10, 40.0);
    spec.width = 1280;
    spec.height = 720;
    spec.flashInterval = 1.0;
    spec.audioOffset = 0;
    spec.audioRate = 1;
    std::string path = work + "/playback-720p.mov";
    if (!std::filesystem::exists(path)) {
        std::printf("generating %s ...\n", path.c_str());
        std::fflush(stdout);
        writeTestMovie(path, spec);
    }
    std::printf("movie: 1280x720 H.264 + AAC, %.0f s\n", spec.seconds);
    exactness(path);
    std::fflush(stdout);
    if (!skipSoak) soak(path, soakSeconds, readLimit);
    std::fflush(stdout);
    if (!skipCpu) cpuWithPictures(path, seconds, runs);
    return 0;
}
