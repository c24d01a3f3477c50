// How well suggested sync points find the truth, on a labelled set of movies
// made here with known delay and drift:
//   flash  - white flashes at irregular times, a click at each;
//   cuts   - scenes of random length, each with its own sound;
//   talk   - a drawn face whose mouth opens with speech synthesised by
//            espeak-ng (with jitter), the face gently swaying;
// each with a clean sound, a noise bed and a music bed (notes whose onsets
// have nothing to do with the picture).
//
// Per class it prints the share of movies whose suggested line lies within
// one frame (40 ms) and within 10 ms of the truth at every suggested point,
// the share refused, and the share proposed wrongly (a point more than 40 ms
// off) in all and with confidence at least 0.5 (the default of --auto).
//
// Seeds 1.. are the tuning set; seeds 1001.. are held out (--held-out).
// --timing writes a 10-minute 720p movie and times the suggestion against
// the floor of the same work: FFmpeg decoding that movie's pictures and
// sound with two threads (ffmpeg -threads 2 -f null).
//
// --real DIR measures on real movies instead: every movie in DIR (taken to
// be in sync) is copied with its sound moved by known shifts of 0.12 to
// 0.4 s either way (ffmpeg: the picture copied, the sound re-encoded later
// with silence before it, or earlier with its start cut), and each copy's
// suggestion is scored against where the copy's sound landed against the
// original's (cross-correlation of the two sounds). Verdicts: within one
// frame, refused, WRONG (a proposed line farther than one frame at any
// point). A refused copy shows in parentheses the error of what its window
// measured. Then every clip's picture with every other clip's sound
// (nothing there is in sync: any line is wrong), a table of what each floor
// of a clip's lone window would give, the reel (all clips cut together, the
// sound drifting), with --reel-of PREFIX a second reel of the clips whose
// names begin with PREFIX (those whose published sync is trusted) four
// times over, and with --timing ten minutes of the longest clip at 1280x720
// against the floor of FFmpeg decoding it.
#include "Evidence.h"
#include "MovieFile.h"
#include "OffsetList.h"
#include "SoundMeasure.h"
#include "TestMovie.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kRate = 48000;

struct Truth {
    double delay, rate;
    double at(double movie) const { return delay + rate * movie; }
};

// A bed under the sound: nothing, noise, or music whose notes start at
// random times.
struct Bed {
    std::string kind;
    std::vector<double> noteStarts;
    std::vector<double> noteFreqs;
    std::mt19937 rng;
    std::normal_distribution<float> gauss{0.f, 1.f};

    Bed(std::string k, double seconds, unsigned seed) : kind(std::move(k)), rng(seed)
    {
        std::uniform_real_distribution<double> gap(0.3, 1.2), semitone(0, 24);
        for (double t = 0; t < seconds + 1; t += gap(rng)) {
            noteStarts.push_back(t);
            noteFreqs.push_back(220 * std::pow(2.0, std::floor(semitone(rng)) / 12));
        }
    }
    float operator()(std::int64_t n)
    {
        double t = static_cast<double>(n) / kRate;
        if (kind == "noise") return 0.06f * gauss(rng);
        if (kind != "music") return 0.f;
        auto it = std::upper_bound(noteStarts.begin(), noteStarts.end(), t);
        if (it == noteStarts.begin()) return 0.f;
        std::size_t k = static_cast<std::size_t>(it - noteStarts.begin()) - 1;
        double age = t - noteStarts[k];
        double env = std::min(1.0, age / 0.01) * std::exp(-age * 2.5);
        double f = noteFreqs[k];
        return static_cast<float>(0.12 * env * (std::sin(2 * kPi * f * t) + 0.5 * std::sin(2 * kPi * 1.5 * f * t)));
    }
};

std::string scratch;

std::vector<float> speechFromEspeak(unsigned seed, double seconds)
{
    static const char* sentences[] = {
        "The morning train was late again, so we walked along the river.",
        "Nobody knew where the old map had gone after the storm.",
        "Please bring the blue folder and two cups of coffee.",
        "She counted seven boats before the fog came down.",
        "If the bridge is closed, we will take the northern road.",
        "My grandfather built this table from a single oak.",
        "Listen carefully, because I will only say this once.",
        "The market opens at nine and closes when the bell rings.",
        "They painted the kitchen yellow and the hall green.",
        "Where did you put the keys to the garden shed?",
        "Thunder rolled over the hills all through the night.",
        "We should have left an hour ago, but the film was good.",
    };
    std::mt19937 rng(seed);
    std::string text;
    for (int i = 0; i < 40; ++i) text += std::string(sentences[rng() % 12]) + " ";
    std::string wav = scratch + "/speech.wav";
    std::string cmd = "espeak-ng -s " + std::to_string(140 + rng() % 40) + " -p " + std::to_string(35 + rng() % 30) + " -w '" + wav + "' \""
                    + text + "\"";
    if (std::system(cmd.c_str()) != 0) throw std::runtime_error("espeak-ng failed (install it with scripts/install-deps)");
    std::ifstream f(wav, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    // RIFF: find "fmt " for the rate and "data" for 16-bit mono samples.
    int rate = 22050;
    std::size_t data = 0;
    for (std::size_t i = 12; i + 8 <= bytes.size();) {
        std::uint32_t size;
        std::memcpy(&size, &bytes[i + 4], 4);
        if (std::memcmp(&bytes[i], "fmt ", 4) == 0) std::memcpy(&rate, &bytes[i + 12], 4);
        if (std::memcmp(&bytes[i], "data", 4) == 0) {
            data = i + 8;
            break;
        }
        i += 8 + size;
    }
    if (data == 0) throw std::runtime_error("espeak-ng wrote no sound");
    std::size_t count = (bytes.size() - data) / 2;
    std::vector<float> out(static_cast<std::size_t>(seconds * kRate), 0.f);
    for (std::size_t i = 0; i < out.size(); ++i) {
        double pos = static_cast<double>(i) * rate / kRate;
        auto k = static_cast<std::size_t>(pos);
        if (k + 1 >= count) break;
        std::int16_t a, b;
        std::memcpy(&a, &bytes[data + 2 * k], 2);
        std::memcpy(&b, &bytes[data + 2 * k + 2], 2);
        out[i] = static_cast<float>((a + (pos - static_cast<double>(k)) * (b - a)) / 32768.0 * 0.8);
    }
    return out;
}

// The value of movie-timeline sound `s` at audio sample n, through the truth.
float alongTruth(std::vector<float> const& s, Truth const& truth, std::int64_t n)
{
    double m = (static_cast<double>(n) / kRate - truth.delay) / truth.rate;
    double pos = m * kRate;
    if (pos < 0 || pos >= static_cast<double>(s.size()) - 1) return 0.f;
    auto i = static_cast<std::size_t>(pos);
    return static_cast<float>(s[i] + (pos - static_cast<double>(i)) * (s[i + 1] - s[i]));
}

media::TestMovieSpec makeMovie(std::string const& cls, std::string const& bed, unsigned seed, double seconds, int width, int height,
                               Truth& truth)
{
    std::seed_seq seq{seed, static_cast<unsigned>(std::hash<std::string>{}(cls)), static_cast<unsigned>(std::hash<std::string>{}(bed))};
    std::mt19937 rng(seq);
    std::uniform_real_distribution<double> delay(-1.5, 1.5), drift(-0.005, 0.005);
    truth = {delay(rng), 1 + drift(rng)};
    media::TestMovieSpec s;
    s.seconds = seconds;
    s.width = width;
    s.height = height;
    s.audioOffset = truth.delay;
    s.audioRate = truth.rate;
    s.videoBitRate = width * height * 4;
    auto beds = std::make_shared<Bed>(bed, seconds, seed + 17);

    if (cls == "flash") {
        std::uniform_real_distribution<double> gap(0.7, 3.5);
        for (double t = 1 + gap(rng); t < seconds - 1; t += gap(rng)) s.flashTimes.push_back(t);
        std::vector<std::int64_t> clicks;
        for (auto const& m : media::testMovieMarks(s)) clicks.push_back(std::llround(m.audioTime * kRate));
        s.soundSample = [clicks, beds](std::int64_t n) {
            double v = 0.02 * std::sin(2 * kPi * 220 * static_cast<double>(n) / kRate);
            auto it = std::upper_bound(clicks.begin(), clicks.end(), n);
            if (it != clicks.begin() && n - *(it - 1) < kRate / 200)
                v = 0.8 * std::cos(2 * kPi * 2000 * static_cast<double>(n - *(it - 1)) / kRate);
            return static_cast<float>(v) + (*beds)(n);
        };
    } else if (cls == "cuts") {
        struct Scene {
            double start;
            int base, stripes;
            double tone, hiss;
        };
        std::vector<Scene> scenes;
        std::uniform_real_distribution<double> len(1.5, 6), tone(120, 900), hiss(0.02, 0.12);
        std::uniform_int_distribution<int> base(30, 200), stripes(2, 12);
        // Scenes start on frames: a cut is where a picture changes.
        for (double t = 0; t < seconds + 2; t = std::round((t + len(rng)) * 25) / 25)
            scenes.push_back({t, base(rng), stripes(rng), tone(rng), hiss(rng)});
        auto sceneAt = [scenes](double m) {
            auto it = std::upper_bound(scenes.begin(), scenes.end(), m, [](double t, Scene const& sc) { return t < sc.start - 1e-9; });
            return it == scenes.begin() ? scenes.front() : *(it - 1);
        };
        double fps = 25;
        s.drawPicture = [sceneAt, fps](std::int64_t k, std::uint8_t* luma, int stride, int w, int h) {
            Scene sc = sceneAt(static_cast<double>(k) / fps);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    int stripe = ((x + static_cast<int>(k)) * sc.stripes / std::max(1, w)) % 2;
                    luma[static_cast<std::ptrdiff_t>(y) * stride + x] = static_cast<std::uint8_t>(std::clamp(sc.base + stripe * 30 - y / 8, 16, 235));
                }
        };
        auto noise = std::make_shared<std::mt19937>(seed);
        s.soundSample = [sceneAt, truth, beds, noise](std::int64_t n) {
            double a = static_cast<double>(n) / kRate;
            Scene sc = sceneAt((a - truth.delay) / truth.rate);
            std::normal_distribution<double> g(0, 1);
            double v = 0.2 * std::sin(2 * kPi * sc.tone * a) + sc.hiss * g(*noise);
            return static_cast<float>(v) + (*beds)(n);
        };
    } else {
        auto speech = std::make_shared<std::vector<float>>(speechFromEspeak(seed, seconds + 2));
        // The mouth opens with the loudness of the speech (20 ms RMS), with
        // jitter in time and amount.
        std::size_t frames = static_cast<std::size_t>(seconds * 25) + 1;
        std::vector<double> open(frames);
        std::uniform_real_distribution<double> jitterTime(-0.02, 0.02), jitterAmount(0.85, 1.15);
        std::vector<double> rms(frames);
        for (std::size_t k = 0; k < frames; ++k) {
            double m = static_cast<double>(k) / 25 + jitterTime(rng);
            auto c = static_cast<std::ptrdiff_t>(m * kRate);
            double sum = 0;
            int count = 0;
            for (std::ptrdiff_t i = c - kRate / 100; i < c + kRate / 100; ++i)
                if (i >= 0 && static_cast<std::size_t>(i) < speech->size()) {
                    sum += (*speech)[static_cast<std::size_t>(i)] * (*speech)[static_cast<std::size_t>(i)];
                    ++count;
                }
            rms[k] = count ? std::sqrt(sum / count) : 0;
        }
        std::vector<double> sorted = rms;
        std::sort(sorted.begin(), sorted.end());
        double loud = std::max(1e-6, sorted[sorted.size() * 95 / 100]);
        for (std::size_t k = 0; k < frames; ++k) open[k] = std::clamp(rms[k] / loud * jitterAmount(rng), 0.0, 1.0);
        double sway = std::uniform_real_distribution<double>(0, 2 * kPi)(rng);
        s.drawPicture = [open, sway](std::int64_t k, std::uint8_t* luma, int stride, int w, int h) {
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) luma[static_cast<std::ptrdiff_t>(y) * stride + x] = static_cast<std::uint8_t>(50 + x * 60 / w);
            double t = static_cast<double>(k) / 25;
            double cx = w / 2.0 + w * 0.03 * std::sin(0.4 * t + sway), cy = h / 2.0 + h * 0.01 * std::sin(0.23 * t);
            media::drawFace(luma, stride, w, h, cx, cy, h * 0.7, open[std::min(open.size() - 1, static_cast<std::size_t>(k))]);
        };
        s.soundSample = [speech, truth, beds](std::int64_t n) { return alongTruth(*speech, truth, n) + (*beds)(n); };
    }
    return s;
}

struct Outcome {
    bool refused = true;
    double worst = 0;         // seconds, |line - truth| over the suggested points
    double worstConfident = 0; // the same over the points of confidence >= 0.5
    std::size_t candidates = 0, windowCount = 0;
    double seconds = 0;       // suggestion time
    std::string windows;      // each window: its error against the truth and its scores
};

Outcome evaluate(std::string const& path, Truth const& truth)
{
    media::OpenedMovie om = media::openMovie(path);
    OffsetList list(om.movie.get(), nullptr);
    auto t0 = std::chrono::steady_clock::now();
    auto got = media::suggestSyncPoints(*om.movie, *list.soundTrack());
    Outcome o;
    o.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    auto const& sg = got.suggestion;
    o.refused = sg.refused();
    o.windowCount = sg.windows.size();
    o.candidates = sg.candidates.size();
    for (auto const& w : sg.windows) {
        char line[160];
        std::snprintf(line, sizeof line, "    at %6.1f s: %+8.1f ms off, confidence %.2f (strength %.2f, distinct %.2f), %s\n", w.movieTime,
                      (w.audioTime - truth.at(w.movieTime)) * 1000, w.confidence, w.strength, w.distinctness, w.evidence.c_str());
        o.windows += line;
    }
    for (auto const& c : sg.candidates) {
        double err = std::fabs(sg.line->at(c.movieTime) - truth.at(c.movieTime));
        o.worst = std::max(o.worst, err);
        if (c.confidence >= 0.5) o.worstConfident = std::max(o.worstConfident, std::fabs(c.audioTime - truth.at(c.movieTime)));
    }
    return o;
}

// One line of the table: the shares of a set of movies.
void printRow(std::string const& cls, std::string const& bed, std::vector<Outcome> const& v)
{
    double n = static_cast<double>(v.size());
    int in40 = 0, in10 = 0, refused = 0, wrong = 0, wrongConfident = 0;
    double time = 0;
    for (auto const& o : v) {
        time += o.seconds;
        if (o.refused) {
            ++refused;
            continue;
        }
        in40 += o.worst <= 0.040;
        in10 += o.worst <= 0.010;
        wrong += o.worst > 0.040;
        wrongConfident += o.worstConfident > 0.040;
    }
    std::printf("%-6s %-6s %6zu %9.0f%% %9.0f%% %7.0f%% %7.0f%% %15.0f%% %9.1f\n", cls.c_str(), bed.c_str(), v.size(), 100 * in40 / n,
                100 * in10 / n, 100 * refused / n, 100 * wrong / n, 100 * wrongConfident / n, time / n);
}

double wallSeconds(std::string const& cmd)
{
    auto t0 = std::chrono::steady_clock::now();
    if (std::system(cmd.c_str()) != 0) return -1;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Where a movie's video and sound tracks start in its timeline, seconds.
std::pair<double, double> trackStarts(std::string const& path)
{
    media::OpenedMovie om = media::openMovie(path);
    OffsetList list(om.movie.get(), nullptr);
    auto video = media::enabledVideoTrack(*om.movie);
    double v = video ? myQTTime(video->range().time).seconds() : 0;
    return {v, myQTTime(list.soundTrack()->range().time).seconds()};
}

// One suggestion on a real movie: what the one window (or the line) said
// against the truth.
struct RealOutcome {
    std::string name;
    bool related = true;   // false: one clip's picture with another's sound
    bool measured = false; // the window found a peak at all
    bool proposed = false; // a line was proposed
    double error = 0;      // of the measurement (the most confident window, or the line's worst point)
    double confidence = 0;
    double frame = 0.04;
};

RealOutcome suggestOn(std::string const& path, std::string const& name, double truth, bool related, double* seconds = nullptr,
                      std::string* mouth = nullptr)
{
    media::OpenedMovie om = media::openMovie(path);
    OffsetList list(om.movie.get(), nullptr);
    auto t0 = std::chrono::steady_clock::now();
    auto got = media::suggestSyncPoints(*om.movie, *list.soundTrack());
    if (seconds) *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (mouth) *mouth = got.evidence.mouthMethod + " " + std::to_string(got.evidence.framesWithFace) + "/" + std::to_string(got.evidence.frames);
    RealOutcome o{name, related, false, false, 0, 0, got.evidence.frameSeconds};
    auto const& sg = got.suggestion;
    // The clearest window's own (uncalibrated) confidence and its error: what
    // a floor of the lone window decides on.
    if (!sg.windows.empty()) {
        auto best = std::max_element(sg.windows.begin(), sg.windows.end(), [](auto const& a, auto const& b) { return a.confidence < b.confidence; });
        o.measured = true;
        o.error = best->audioTime - best->movieTime - truth;
        o.confidence = best->confidence;
    }
    // A proposed line is as good as its worst point.
    if (!sg.refused()) {
        o.proposed = true;
        o.error = 0;
        for (auto const& c : sg.candidates) {
            double e = c.audioTime - c.movieTime - truth;
            if (std::fabs(e) > std::fabs(o.error)) o.error = e;
        }
    }
    return o;
}

bool run(std::string const& cmd)
{
    return std::system(cmd.c_str()) == 0;
}

// Where the sound of `copy` (the clip's sound moved by about `shift`)
// landed against the clip's: the median of the measure's windows, or the
// shift corrected by the tracks' starts when too little is found.
double whereSoundLanded(std::string const& clip, std::string const& copy, double shift)
{
    auto [v0, a0] = trackStarts(clip);
    auto [v1, a1] = trackStarts(copy);
    media::SoundMeasureOptions along;
    along.points = std::vector<Offset>{};
    along.search = std::fabs(shift) + 0.1;
    std::vector<double> found;
    for (auto const& w : media::measureSoundAgainst(clip, copy, along).windows) found.push_back(w.error);
    if (found.size() < 3) return shift + (a1 - a0) - (v1 - v0);
    std::nth_element(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(found.size() / 2), found.end());
    return found[found.size() / 2];
}

double durationOf(std::string const& path)
{
    return media::openMovie(path).movie->duration().seconds();
}

// Two faces side by side, each clip scaled to 360 lines at 25 frames a
// second, with the sound of `voice` 0.2 s late, for `seconds` (a clip
// shorter than that starts again).
bool sideBySide(std::string const& left, std::string const& right, std::string const& voice, double seconds, std::string const& out)
{
    std::string filter = "[0:v:0]scale=-2:360,setsar=1,fps=25[l];[1:v:0]scale=-2:360,setsar=1,fps=25[r];[l][r]hstack=inputs=2[v];"
                         "[2:a:0]aresample=44100,adelay=200:all=1[a]";
    return run("ffmpeg -v error -y -i '" + left + "' -stream_loop -1 -i '" + right + "' -stream_loop -1 -i '" + voice + "' -filter_complex '" + filter +
               "' -map '[v]' -map '[a]' -t " + std::to_string(seconds) +
               " -c:v libx264 -c:a aac -b:a 128k '" + out + "'");
}

// Which face speaks: each clip beside three others (on either side), its
// sound 0.2 s late; and two clips beside each other with a third's voice,
// where no face speaks and every proposed line is wrong.
void twoFaces(std::vector<std::string> const& clips)
{
    std::size_t n = clips.size();
    if (n < 3) return;
    auto stem = [](std::string const& c) { return std::filesystem::path(c).stem().string(); };
    std::string movie = scratch + "/two-faces.mp4";
    int ok = 0, wrong = 0, refused = 0, all = 0;
    std::printf("\ntwo faces, the speaker's sound 0.2 s late (speaker, other face, speaker's side): verdict, error ms, confidence\n");
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t step : {1, 2, 4}) {
            std::string const& speaker = clips[i];
            std::string const& other = clips[(i + step) % n];
            for (bool left : {true, false}) {
                if (!sideBySide(left ? speaker : other, left ? other : speaker, speaker, durationOf(speaker), movie)) continue;
                std::string name = stem(speaker) + " + " + stem(other) + (left ? " (left)" : " (right)");
                RealOutcome o = suggestOn(movie, name, whereSoundLanded(speaker, movie, 0.2), true);
                std::string verdict = !o.proposed ? "refused" : std::fabs(o.error) <= o.frame + 1e-9 ? "ok" : "WRONG";
                ++all;
                (verdict == "ok" ? ok : verdict == "WRONG" ? wrong : refused)++;
                std::printf("  %-40s %-8s %6ld %5.2f\n", name.c_str(), verdict.c_str(), o.measured ? std::lround(o.error * 1000) : 0L, o.confidence);
                std::fflush(stdout);
            }
        }
    std::printf("two faces: %d of %d within a frame, %d wrong, %d refused\n", ok, all, wrong, refused);
    int proposed = 0;
    for (std::size_t i = 0; i < n; ++i) {
        std::string const &a = clips[i], &b = clips[(i + 1) % n], &voice = clips[(i + 2) % n];
        if (!sideBySide(a, b, voice, std::min(durationOf(a), durationOf(voice)), movie)) continue;
        RealOutcome o = suggestOn(movie, stem(a) + " + " + stem(b) + ", voice of " + stem(voice), 0, false);
        proposed += o.proposed;
        std::printf("  %-40s %s %.2f\n", o.name.c_str(), o.proposed ? "PROPOSED" : "refused ", o.confidence);
    }
    std::printf("two faces, neither speaking: %d of %zu proposed\n", proposed, n);
    std::remove(movie.c_str());
}

// The reel: every clip scaled into one 640x480 picture at 25 frames a
// second and cut together, its sound made 0.1 % slower and 0.2 s later. The
// line is audio = movie / 1.001 + 0.2 (the clips as published at 0).
void reel(std::vector<std::string> const& clips, std::string const& label = "reel")
{
    std::string inputs, filter, parts;
    for (std::size_t i = 0; i < clips.size(); ++i) {
        inputs += " -i '" + clips[i] + "'";
        filter += "[" + std::to_string(i) + ":v:0]scale=640:480:force_original_aspect_ratio=decrease,pad=640:480:-1:-1,setsar=1,fps=25[v" +
                  std::to_string(i) + "];[" + std::to_string(i) + ":a:0]aresample=44100,aformat=channel_layouts=mono[a" + std::to_string(i) + "];";
        parts += "[v" + std::to_string(i) + "][a" + std::to_string(i) + "]";
    }
    filter += parts + "concat=n=" + std::to_string(clips.size()) + ":v=1:a=1[v][a]";
    std::string inSync = scratch + "/reel-in-sync.mp4", drifted = scratch + "/reel.mp4";
    if (!run("ffmpeg -v error -y" + inputs + " -filter_complex '" + filter + "' -map '[v]' -map '[a]' -c:v libx264 -c:a aac -b:a 128k '" + inSync + "'") ||
        !run("ffmpeg -v error -y -i '" + inSync + "' -map 0:v -map 0:a -c:v copy -af 'asetrate=44100*1.001,aresample=44100,adelay=200:all=1' -c:a aac -b:a 128k '" +
             drifted + "'")) {
        std::printf("%s: ffmpeg could not make it\n", label.c_str());
        return;
    }
    auto [v0, a0] = trackStarts(inSync);
    auto [v1, a1] = trackStarts(drifted);
    media::OpenedMovie om = media::openMovie(drifted);
    OffsetList list(om.movie.get(), nullptr);
    auto t0 = std::chrono::steady_clock::now();
    auto got = media::suggestSyncPoints(*om.movie, *list.soundTrack());
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double duration = got.suggestion.windows.empty() ? 0 : om.movie->duration().seconds();
    // Content at movie time m of the reel in sync lies at audio time m + a0 - v0 there; here at (m + a0 - v0) / 1.001 + 0.2, shifted by the copy's starts.
    auto truthAt = [&](double m) { return (m + a0 - v0) / 1.001 + 0.2 + (a1 - a0) - (v1 - v0); };
    if (got.suggestion.refused()) {
        std::printf("%s (%.0f s, 1/1.001 and 0.2 s late): refused: %s (%.1f s)\n", label.c_str(), duration, got.suggestion.refusal.c_str(), took);
    } else {
        auto const& line = *got.suggestion.line;
        std::printf("%s (%.0f s, 1/1.001 and 0.2 s late): line off by %+.1f ms at the start, %+.1f ms at the end; %zu candidates, %zu of %zu "
                    "windows on the line; %.1f s\n",
                    label.c_str(), duration, (line.at(0) - truthAt(0)) * 1000, (line.at(duration) - truthAt(duration)) * 1000, got.suggestion.candidates.size(),
                    line.inliers.size(), got.suggestion.windows.size(), took);
    }
    std::remove(inSync.c_str());
    std::remove(drifted.c_str());
}

// The time of a suggestion on ten minutes of talking head at 1280x720: the
// longest clip looped, against the floor of FFmpeg decoding the same movie.
void tenMinutes(std::vector<std::string> const& clips)
{
    std::string longest;
    double most = 0;
    for (auto const& c : clips) {
        media::OpenedMovie om = media::openMovie(c);
        if (om.movie->duration().seconds() > most) {
            most = om.movie->duration().seconds();
            longest = c;
        }
    }
    std::string path = scratch + "/ten-minutes.mp4";
    if (!run("ffmpeg -v error -y -stream_loop -1 -i '" + longest +
             "' -t 600 -vf 'scale=1280:720:force_original_aspect_ratio=decrease,pad=1280:720:-1:-1,setsar=1' -c:v libx264 -preset veryfast -c:a aac "
             "-b:a 128k '" + path + "'")) {
        std::printf("10 minutes: ffmpeg could not make the movie\n");
        return;
    }
    double floor = wallSeconds("ffmpeg -v error -threads 2 -i '" + path + "' -f null - ");
    double took = 0;
    std::string mouth;
    RealOutcome o = suggestOn(path, "ten", 0, true, &took, &mouth);
    std::printf("10 minutes of %s at 1280x720: suggestion %.1f s (%.1f s per movie-minute), ffmpeg decoding (the floor) %.1f s, ratio %.2f; mouth by "
                "%s; %s\n",
                std::filesystem::path(longest).filename().c_str(), took, took / 10, floor, floor > 0 ? took / floor : 0.0, mouth.c_str(),
                o.proposed ? ("proposed, worst point " + std::to_string(std::lround(o.error * 1000)) + " ms from the clip as published").c_str()
                           : "refused");
    std::remove(path.c_str());
}

int realClips(std::string const& dir, bool timing, std::string const& reelOf, bool withTwoFaces)
{
    std::vector<std::string> clips;
    for (auto const& e : std::filesystem::directory_iterator(dir)) {
        auto ext = e.path().extension().string();
        if (ext == ".mp4" || ext == ".mpg" || ext == ".mov" || ext == ".mkv") clips.push_back(e.path().string());
    }
    std::sort(clips.begin(), clips.end());
    auto codecFor = [](std::string const& ext) { return ext == ".mpg" ? std::string("-c:a mp2 -b:a 192k") : std::string("-c:a aac -b:a 128k"); };
    std::printf("%-16s %7s %9s %-8s %9s %6s %8s  %s\n", "clip", "shift s", "truth ms", "verdict", "error ms", "conf", "time s", "mouth");
    std::vector<RealOutcome> all;
    double movieSeconds = 0, suggestSeconds = 0;
    for (auto const& clip : clips) {
        std::string name = std::filesystem::path(clip).stem().string(), ext = std::filesystem::path(clip).extension().string();
        for (double shift : {-0.4, -0.2, -0.12, 0.12, 0.2, 0.4}) {
            char filter[96];
            if (shift < 0) std::snprintf(filter, sizeof filter, "atrim=start=%.3f,asetpts=PTS-STARTPTS", -shift);
            else std::snprintf(filter, sizeof filter, "adelay=%ld:all=1", std::lround(shift * 1000));
            std::string copy = scratch + "/" + name + "-shifted" + ext;
            if (!run("ffmpeg -v error -y -i '" + clip + "' -map 0:v:0 -map 0:a:0 -c:v copy -af '" + filter + "' " + codecFor(ext) + " '" + copy + "'")) {
                std::printf("%-16s %+7.2f  (ffmpeg could not make the copy)\n", name.c_str(), shift);
                continue;
            }
            // The truth is where the copy's sound landed against the
            // original's, found by cross-correlation. The tracks' starts
            // alone mislead: FFmpeg's MP2 encoder puts 481 samples (10.9 ms)
            // of its own before the sound, and the muxer starts the picture
            // that much later to make up for them. They give the truth only
            // when too little of the sound is found.
            double truth = whereSoundLanded(clip, copy, shift);
            double took = 0;
            std::string mouth;
            RealOutcome o = suggestOn(copy, name, truth, true, &took, &mouth);
            movieSeconds += media::openMovie(copy).movie->duration().seconds();
            suggestSeconds += took;
            std::remove(copy.c_str());
            all.push_back(o);
            std::string verdict = !o.proposed ? "refused" : std::fabs(o.error) <= o.frame + 1e-9 ? "ok" : "WRONG";
            std::string error = !o.measured ? "-" : o.proposed ? std::to_string(std::lround(o.error * 1000)) : "(" + std::to_string(std::lround(o.error * 1000)) + ")";
            std::printf("%-16s %+7.2f %9.1f %-8s %9s %6.2f %8.2f  %s\n", name.c_str(), shift, truth * 1000, verdict.c_str(), error.c_str(), o.confidence,
                        took, mouth.c_str());
            std::fflush(stdout);
        }
    }
    // Unrelated pairs: each clip's picture with every other clip's sound.
    // Nothing is in sync there: every proposed line is wrong.
    std::printf("\nunrelated pairs (picture of one clip, sound of another): the one window's confidence\n");
    for (auto const& picture : clips)
        for (auto const& sound : clips) {
            if (picture == sound) continue;
            std::string ext = std::filesystem::path(picture).extension().string();
            std::string pair = scratch + "/pair" + ext;
            if (!run("ffmpeg -v error -y -i '" + picture + "' -i '" + sound + "' -map 0:v:0 -map 1:a:0 -c:v copy " + codecFor(ext) + " -shortest '" + pair +
                     "'"))
                continue;
            std::string name = std::filesystem::path(picture).stem().string() + "+" + std::filesystem::path(sound).stem().string();
            RealOutcome o = suggestOn(pair, name, 0, false);
            std::remove(pair.c_str());
            all.push_back(o);
            std::printf("  %-28s %s %.2f\n", name.c_str(), o.proposed ? "PROPOSED" : "refused ", o.confidence);
        }
    // What each floor of a lone window's confidence would give.
    std::printf("\nfloor  within-a-frame  wrong(related)  refused(related)  proposed(unrelated)  wrong-share\n");
    for (double floor = 0.20; floor <= 0.401; floor += 0.02) {
        int ok = 0, wrong = 0, refused = 0, related = 0, falsePairs = 0, pairs = 0;
        for (auto const& o : all) {
            bool proposed = o.measured && o.confidence >= floor - 1e-9;
            if (o.related) {
                ++related;
                if (!proposed) ++refused;
                else if (std::fabs(o.error) <= o.frame + 1e-9) ++ok;
                else ++wrong;
            } else {
                ++pairs;
                falsePairs += proposed;
            }
        }
        int proposedAll = ok + wrong + falsePairs;
        std::printf("%5.2f  %5d/%-3d %4.0f%%  %14d  %16d  %11d/%-3d     %s\n", floor, ok, related, 100.0 * ok / std::max(1, related), wrong, refused, falsePairs,
                    pairs, proposedAll ? (std::to_string(wrong + falsePairs) + "/" + std::to_string(proposedAll)).c_str() : "-");
    }
    int ok = 0, wrong = 0, refused = 0, related = 0;
    for (auto const& o : all) {
        if (!o.related) continue;
        ++related;
        if (!o.proposed) ++refused;
        else if (std::fabs(o.error) <= o.frame + 1e-9) ++ok;
        else ++wrong;
    }
    std::printf("\nas built: %d of %d copies within one frame, %d wrong, %d refused; unrelated pairs proposed: %ld; %.1f s per movie-minute\n", ok, related,
                wrong, refused, std::count_if(all.begin(), all.end(), [](auto const& o) { return !o.related && o.proposed; }),
                movieSeconds > 0 ? 60 * suggestSeconds / movieSeconds : 0.0);
    reel(clips);
    if (!reelOf.empty()) {
        // The clips whose names begin with reelOf, in four orders one after
        // another (each turned by one more, every other one backwards): a
        // minute of faces whose sync is trusted, so that the line's error
        // is the suggestion's alone.
        std::vector<std::string> chosen, reel4;
        for (auto const& c : clips)
            if (std::filesystem::path(c).stem().string().rfind(reelOf, 0) == 0) chosen.push_back(c);
        for (std::size_t k = 0; k < 4 && !chosen.empty(); ++k)
            for (std::size_t j = 0; j < chosen.size(); ++j) {
                std::size_t n = chosen.size(), step = k % 2 == 0 ? j : n - 1 - j;
                reel4.push_back(chosen[(step + k) % n]);
            }
        if (reel4.empty()) std::printf("no clip's name begins with %s\n", reelOf.c_str());
        else reel(reel4, "reel of " + reelOf + "* in four orders");
    }
    if (withTwoFaces) twoFaces(clips);
    if (timing) tenMinutes(clips);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    bool heldOut = false, timing = false, verbose = false, withTwoFaces = false;
    int perCell = 4;
    double seconds = 120;
    std::vector<std::string> classes = {"flash", "cuts", "talk"};
    std::string realDir, reelOf;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--held-out") heldOut = true;
        else if (a == "--timing") timing = true;
        else if (a == "--verbose") verbose = true;
        else if (a == "--movies" && i + 1 < argc) perCell = std::atoi(argv[++i]);
        else if (a == "--seconds" && i + 1 < argc) seconds = std::atof(argv[++i]);
        else if (a == "--class" && i + 1 < argc) classes = {argv[++i]};
        else if (a == "--real" && i + 1 < argc) realDir = argv[++i];
        else if (a == "--reel-of" && i + 1 < argc) reelOf = argv[++i];
        else if (a == "--two-faces") withTwoFaces = true;
        else {
            std::fprintf(stderr, "usage: suggest [--held-out] [--movies N] [--seconds S] [--class flash|cuts|talk] [--verbose] [--timing] [--real DIR [--reel-of PREFIX] [--two-faces]]\n");
            return 2;
        }
    }
    char const* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/dubmatch-suggest-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back(0);
    if (!mkdtemp(buf.data())) {
        std::perror("suggest: a scratch folder");
        return 1;
    }
    scratch = buf.data();
    media::setupMediaLogging();

    if (!realDir.empty()) {
        int status = realClips(realDir, timing, reelOf, withTwoFaces);
        rmdir(scratch.c_str());
        return status;
    }

    if (timing) {
        Truth truth{};
        auto spec = makeMovie("flash", "music", 4242, 600, 1280, 720, truth);
        std::string path = scratch + "/ten-minutes.mov";
        std::printf("writing a 10-minute 1280x720 movie...\n");
        std::fflush(stdout);
        media::writeTestMovie(path, spec);
        double floor = wallSeconds("ffmpeg -v error -threads 2 -i '" + path + "' -f null - ");
        Outcome o = evaluate(path, truth);
        std::printf("10-minute 1280x720 movie: suggestion %.1f s, ffmpeg decoding (the floor) %.1f s, ratio %.2f; %zu of %zu windows agree, "
                    "worst error %.1f ms\n",
                    o.seconds, floor, floor > 0 ? o.seconds / floor : 0.0, o.candidates, o.windowCount, o.worst * 1000);
        std::remove(path.c_str());
        rmdir(scratch.c_str());
        return 0;
    }

    unsigned firstSeed = heldOut ? 1001 : 1;
    std::printf("%s seeds %u..%u, %d movie(s) per class and bed, %.0f s each, 320x180\n", heldOut ? "held-out" : "tuning", firstSeed,
                firstSeed + perCell - 1, perCell, seconds);
    std::printf("%-6s %-6s %6s %10s %10s %8s %8s %16s %9s\n", "class", "bed", "movies", "<=40 ms", "<=10 ms", "refused", "wrong",
                "wrong+confident", "s/movie");
    std::map<std::string, std::vector<Outcome>> byClass;
    for (std::string const& cls : classes) {
        for (std::string bed : {"clean", "noise", "music"}) {
            std::vector<Outcome> cell;
            for (int k = 0; k < perCell; ++k) {
                unsigned seed = firstSeed + static_cast<unsigned>(k);
                Truth truth{};
                auto spec = makeMovie(cls, bed, seed, seconds, 320, 180, truth);
                std::string path = scratch + "/" + cls + "-" + bed + "-" + std::to_string(seed) + ".mov";
                media::writeTestMovie(path, spec);
                Outcome o = evaluate(path, truth);
                std::remove(path.c_str());
                if (verbose)
                    std::printf("  %s %s seed %u: delay %+.3f rate %.5f: %s, %zu/%zu windows, worst %.1f ms\n", cls.c_str(), bed.c_str(), seed,
                                truth.delay, truth.rate, o.refused ? "refused" : "suggested", o.candidates, o.windowCount, o.worst * 1000);
                if (verbose) std::printf("%s", o.windows.c_str());
                cell.push_back(o);
                byClass[cls].push_back(o);
            }
            printRow(cls, bed, cell);
            std::fflush(stdout);
        }
    }
    std::printf("per class:\n");
    for (std::string const& cls : classes) printRow(cls, "all", byClass[cls]);
    rmdir(scratch.c_str());
    return 0;
}
