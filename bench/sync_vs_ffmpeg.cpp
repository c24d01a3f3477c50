// dubmatch-cli sync against the ffmpeg command-line tool doing the same job
// (video copied; sound cut, stretched with soxr by an exact rational rate,
// encoded as AAC at the bit rate dubmatch-cli chose; the unedited sound
// copied alongside), on a generated 10-minute 1280x720 movie; and both
// against the floor of that job: decoding the sound and encoding it once at
// that bit rate. Prints medians of interleaved runs, the ratios, and the
// sync accuracy of both outputs measured with the click/flash detector.
//
// Also prints each command's processor time (user + system, median; less
// disturbed than the wall time on a shared machine) and peak memory (largest
// resident set of its runs), and the memory floor of any save through
// FFmpeg's QuickTime demuxer and muxer: ffmpeg copying the same three
// streams (picture, sound, sound) with no sound work at all. Both index
// every packet in memory, so for long movies (--seconds 10800 --size 160x90)
// that floor grows with the length.
//
// Usage: sync_vs_ffmpeg CLI [--seconds S] [--size WxH] [--runs N] [--workdir DIR]
#include "MovieFile.h"
#include "SoundEncoder.h"
#include "TestMovie.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// Runs `cmd` through the shell; returns its wall time in seconds, adds its
// processor time (s) to `cpu` and keeps in `peak` the largest resident set
// (MiB) of its runs.
double timeCommand(std::string const& cmd, std::vector<double>& cpu, double& peak)
{
    auto start = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    struct rusage usage {};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) {
        std::fprintf(stderr, "cannot run: %s\n", cmd.c_str());
        std::exit(1);
    }
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "command failed (%d): %s\n", status, cmd.c_str());
        std::exit(1);
    }
    peak = std::max(peak, static_cast<double>(usage.ru_maxrss) / 1024.0); // kilobytes on Linux
    auto seconds = [](timeval const& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
    cpu.push_back(seconds(usage.ru_utime) + seconds(usage.ru_stime));
    return s;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s DUBMATCH_CLI [--seconds S] [--size WxH] [--runs N] [--workdir DIR]\n", argv[0]);
        return 2;
    }
    std::string cli = argv[1];
    double seconds = 600;
    int runs = 3;
    std::string work = "bench-work";
    int width = 1280, height = 720;
    for (int i = 2; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--seconds") seconds = std::atof(argv[i + 1]);
        else if (a == "--size" && std::sscanf(argv[i + 1], "%dx%d", &width, &height) != 2) {
            std::fprintf(stderr, "--size takes WxH\n");
            return 2;
        }
        else if (a == "--runs") runs = std::atoi(argv[i + 1]);
        else if (a == "--workdir") work = argv[i + 1];
    }
    media::setupMediaLogging();
    std::filesystem::create_directories(work);

    media::TestMovieSpec spec;
    spec.seconds = seconds;
    spec.width = width;
    spec.height = height;
    spec.audioOffset = 0.35;
    spec.audioRate = 250.0 / 251.0; // the sound runs 0.4 % slow: an exact ratio for ffmpeg's filters
    std::string source = work + "/source-" + std::to_string(static_cast<int>(seconds)) + "s-" + std::to_string(width) + "x"
                       + std::to_string(height) + ".mov";
    if (!std::filesystem::exists(source)) {
        std::printf("generating %s ...\n", source.c_str());
        std::fflush(stdout);
        media::writeTestMovie(source, spec);
    }
    auto marks = media::testMovieMarks(spec);
    std::string points = work + "/points.txt";
    {
        std::FILE* f = std::fopen(points.c_str(), "w");
        std::size_t n = marks.size();
        for (std::size_t k : {std::size_t{0}, n / 3, 2 * n / 3, n - 1}) std::fprintf(f, "%.6f = %.6f\n", marks[k].movieTime, marks[k].audioTime);
        std::fclose(f);
    }
    std::string ours = work + "/dubmatch.mov", theirs = work + "/ffmpeg.mov";
    std::string dubmatchCmd = cli + " sync '" + source + "' --points '" + points + "' -o '" + ours + "' --quiet >/dev/null";
    // The peer and the floor encode at the bit rate dubmatch-cli chooses for this source.
    std::int64_t bitRate = 0;
    {
        media::OpenedMovie om = media::openMovie(source);
        for (auto const& t : om.movie->tracks())
            if (t->mediaType() == dm::MediaType::Sound && t->isEnabled()) {
                AVCodecParameters const* par = media::OpenedMovie::mediaOf(*t).codecpar;
                bitRate = media::chooseSoundFormat(media::Container::Kind::QuickTime, par, par->ch_layout, media::SoundCodec::Same, false).bitRate;
            }
    }
    if (bitRate <= 0) bitRate = 192000;
    // The same line for ffmpeg: cut `intercept` seconds, then stretch by
    // 1/slope = 251/250: resample to 48000 x 251/250 Hz and relabel it 48 kHz.
    double intercept = spec.audioOffset;
    char filter[512];
    std::snprintf(filter, sizeof filter,
                  "[0:a:0]atrim=start=%.9f,asetpts=PTS-STARTPTS,aresample=%d:resampler=soxr:precision=28,asetrate=48000[a]", intercept,
                  48000 * 251 / 250);
    std::string rate = std::to_string(bitRate / 1000) + "k";
    std::string ffmpegCmd = std::string("ffmpeg -nostdin -y -v error -i '") + source + "' -filter_complex '" + filter
                          + "' -map 0:v -map '[a]' -map 0:a:0 -c:v copy -c:a:0 aac -b:a:0 " + rate + " -c:a:1 copy"
                            " -disposition:a:0 default -disposition:a:1 0 '" + theirs + "'";
    std::string floorCmd = std::string("ffmpeg -nostdin -y -v error -i '") + source + "' -map 0:a:0 -vn -c:a aac -b:a " + rate + " -f null -";
    std::string copyCmd = std::string("ffmpeg -nostdin -y -v error -i '") + source + "' -map 0:v -map 0:a:0 -map 0:a:0 -c copy '" + work
                        + "/copy.mov'";

    std::vector<double> a, b, f, c, cpuA, cpuB, cpuF, cpuC;
    double peakA = 0, peakB = 0, peakF = 0, peakC = 0;
    for (int r = 0; r < runs; ++r) { // interleaved, so all three see the same machine
        a.push_back(timeCommand(dubmatchCmd, cpuA, peakA));
        b.push_back(timeCommand(ffmpegCmd, cpuB, peakB));
        f.push_back(timeCommand(floorCmd, cpuF, peakF));
        c.push_back(timeCommand(copyCmd, cpuC, peakC));
    }
    double ma = median(a), mb = median(b), mf = median(f);
    auto accuracy = [&](std::string const& path) {
        auto m = media::measureSync(path);
        double worst = 0;
        for (std::size_t i = 0; i < m.flashes.size(); ++i)
            if (m.flashes[i] < seconds - 2) worst = std::max(worst, std::fabs(m.errors[i]));
        return std::pair{worst * 1000, m.flashes.size()};
    };
    auto [accA, nA] = accuracy(ours);
    auto [accB, nB] = accuracy(theirs);
    auto [accSrc, nSrc] = accuracy(source);
    std::printf("movie: %.0f s %dx%d H.264 + AAC, sound %+.2f s and x%.5f; sound encoded as AAC at %s by both; %d runs each; %u cores\n",
                seconds, width, height, intercept, spec.audioRate, rate.c_str(), runs, std::thread::hardware_concurrency());
    std::printf("%-22s median %7.2f s   worst click-to-flash %8.3f ms over %zu flashes   peak memory %6.1f MiB\n", "dubmatch-cli sync",
                ma, accA, nA, peakA);
    std::printf("%-22s median %7.2f s   worst click-to-flash %8.3f ms over %zu flashes   peak memory %6.1f MiB\n", "ffmpeg (soxr)", mb,
                accB, nB, peakB);
    std::printf("%-22s median %7.2f s                                                 peak memory %6.1f MiB\n", "floor (decode+encode)", mf,
                peakF);
    std::printf("%-22s median %7.2f s                                                 peak memory %6.1f MiB\n", "copy (ffmpeg -c copy)",
                median(c), peakC);
    std::printf("%-22s                  worst click-to-flash %8.3f ms\n", "source (unsynced)", accSrc);
    (void)nSrc;
    std::printf("time ratio dubmatch/ffmpeg: %.3f   dubmatch/floor: %.3f   ffmpeg/floor: %.3f\n", ma / mb, ma / mf, mb / mf);
    double ca = median(cpuA), cb = median(cpuB), cf = median(cpuF);
    std::printf("processor time: dubmatch %.2f s, ffmpeg %.2f s, floor %.2f s   dubmatch/ffmpeg: %.3f   dubmatch/floor: %.3f\n", ca, cb, cf,
                ca / cb, ca / cf);
    std::printf("accuracy: dubmatch %.3f ms, ffmpeg %.3f ms\n", accA, accB);
    std::printf("peak memory: dubmatch/ffmpeg: %.3f   dubmatch/copy: %.3f   (copy: the demuxer's and muxer's indexes and libraries alone)\n",
                peakA / peakB, peakA / peakC);
    return 0;
}
