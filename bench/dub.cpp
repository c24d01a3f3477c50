// Syncing a dubbed sound track to the original-language track of another
// release, on movies made here with a known truth.
//
// Each case is a Matroska file: a test picture, the English track (default)
// and a German dub (not default, track 3 in `dubmatch-cli info`). Both tracks
// carry the same bed of music and effects under different speech (espeak-ng,
// voices en and de+m3, the dialogue in roughly the same slots); the dub is
// then re-timed so that the sound of movie time m lies at r * m + c in it,
// for the speeds of film transfers (24/25, 25/24, 1000/1001, 1001/1000,
// 24000/25025, 25025/24000), 1 and a continuous 1.013, with offsets c up to
// +-10 s. Some English tracks have a stretch replaced by another scene (the
// suggestion should report it as differing); one case's English track comes
// from another film (the suggestion should be refused).
//
// For each case it runs `dubmatch-cli suggest MOVIE --track 3 --reference 2
// --json`, times it, and scores it: found (every candidate and both ends of
// the line within 1 ms of the truth), inexact, wrong (a candidate of
// confidence >= 0.5 more than 1 ms off), refused (exit status 1) or error.
// The last case is 10 minutes long and is timed against a target of 30 s
// and against the floor of the same work (FFmpeg decoding both sound tracks).
//
// --verify first proves each case's truth from the files as written: the
// streams' order, flags and languages (ffprobe), and `dubmatch-cli measure`
// of the English track against the dub under the true line (the shared bed
// must be found there to a small fraction of a millisecond) and under the
// line moved by 2 ms (which the measurement must see).
//
// Usage: dub [--quick | --cases N] [--seed S] [--keep DIR] [--verify] [--cli PATH]
//   --cases N  the first N cases: a cut, the unrelated reference, then the
//              other speeds; the 10th is the 10-minute one
//   --quick    the first 4, 3 minutes each
//   --keep DIR write the cases into DIR/caseK (movie.mkv, english.wav,
//              dub.wav, truth.json) and keep them
//   --cli PATH another dubmatch-cli than the one of this build
#include "DubSound.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using namespace dubbench;
using nlohmann::json;

namespace {

char const* const kEnglish[] = {
    "The morning train was late again, so we walked along the river.",
    "Nobody knew where the old map had gone.",
    "Please bring the blue folder.",
    "She counted seven boats before the fog came down.",
    "If the bridge is closed, we take the northern road.",
    "My grandfather built this table.",
    "Listen carefully.",
    "The market opens at nine.",
    "They painted the kitchen yellow and the hall green.",
    "Where did you put the keys?",
    "Thunder rolled over the hills all night.",
    "We should have left an hour ago.",
    "Yes, of course.",
    "I told you not to open that door.",
    "Get in the car, now!",
    "Nobody leaves this room until the captain arrives.",
    "Do you remember the summer by the lake?",
    "That is not what I meant, and you know it.",
    "Wait here.",
    "The money was never in the bank.",
};

char const* const kGerman[] = {
    "Wir müssen morgen früh zum Bahnhof fahren.",
    "Niemand hat gesehen, wer das Fenster geöffnet hat.",
    "Bring mir bitte den roten Koffer.",
    "Das Wetter wird am Wochenende besser.",
    "Ich habe dir doch gesagt, dass es gefährlich ist.",
    "Komm sofort zurück!",
    "Hast du den Brief schon gelesen?",
    "Natürlich.",
    "Die Polizei sucht ihn seit drei Tagen.",
    "Warum hast du nicht angerufen?",
    "Das Essen steht auf dem Tisch.",
    "Wir treffen uns um acht an der Brücke.",
    "Er weiß mehr, als er zugibt.",
    "Lass mich in Ruhe.",
    "Im Keller brennt noch Licht.",
    "Ohne den Schlüssel kommen wir nicht hinein.",
    "Erinnerst du dich an den Sommer am See?",
    "Das ist eine lange Geschichte.",
    "Warte hier auf mich.",
    "Der Zug nach Hamburg fällt heute aus.",
};

// Movie time m lies at sample (m + kLead) * kRate of the sounds made on the
// movie's timeline, so a dub that starts before the movie has a bed there.
constexpr double kLead = 12;

struct Case {
    std::string speedName;
    double r = 1, c = 0;
    double seconds = 240;
    double cutFrom = 0, cutTo = 0; // movie seconds of the English track replaced by another scene
    bool unrelated = false;        // the English track is another film's
    bool timing = false;           // the long case the time target is for
    unsigned seed = 1;
    bool cut() const { return cutTo > cutFrom; }
    Truth truth() const { return {r, c}; }
};

struct SpeedChoice {
    char const* name;
    double value;
    bool cut;
};

// The cases of a seed; --cases N and --quick take the first ones, the
// timing case always last.
std::vector<Case> makeCases(unsigned seed, int count, bool quick)
{
    static SpeedChoice const speeds[] = {
        {"25/24", 25.0 / 24, true},          {"1000/1001", 1000.0 / 1001, false}, {"1.013", 1.013, true},
        {"24/25", 24.0 / 25, false},         {"1001/1000", 1001.0 / 1000, true},  {"24000/25025", 24000.0 / 25025, false},
        {"25025/24000", 25025.0 / 24000, false}, {"1", 1.0, false},
    };
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> offset(-10, 10), length(180, 300), u(0, 1);
    std::vector<Case> cases;
    auto add = [&](SpeedChoice const& s, double seconds) {
        Case k;
        k.speedName = s.name;
        k.r = s.value;
        k.c = offset(rng);
        k.seconds = quick ? 180 : std::round(seconds);
        k.seed = seed * 1000 + static_cast<unsigned>(cases.size()) + 1;
        if (s.cut) {
            k.cutFrom = std::round(k.seconds * (0.25 + 0.2 * u(rng)));
            k.cutTo = k.cutFrom + std::round(20 + 20 * u(rng));
        }
        cases.push_back(k);
    };
    add(speeds[0], length(rng));
    {
        Case k;
        k.speedName = "1000/1001";
        k.r = 1000.0 / 1001;
        k.c = offset(rng);
        k.seconds = quick ? 180 : 200;
        k.unrelated = true;
        k.seed = seed * 1000 + static_cast<unsigned>(cases.size()) + 1;
        cases.push_back(k);
    }
    for (std::size_t i = 1; i < std::size(speeds); ++i) add(speeds[i], length(rng));
    if (count >= 0) cases.resize(std::min(cases.size(), static_cast<std::size_t>(count)));
    if (!quick && (count < 0 || count > static_cast<int>(cases.size()))) {
        add({"1001/1000", 1001.0 / 1000, false}, 600);
        cases.back().timing = true;
    }
    return cases;
}

std::string shellQuoted(std::string const& s)
{
    std::string out = "'";
    for (char ch : s) out += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    return out + "'";
}

struct Ran {
    int status = -1; // exit status; -1: did not exit normally
    double seconds = 0;
    std::string out;
};

// Runs `cmd` through the shell, its standard output captured.
Ran run(std::string const& cmd)
{
    Ran r;
    auto t0 = std::chrono::steady_clock::now();
    std::FILE* p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[65536];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    int st = pclose(p);
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    r.status = st != -1 && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

void must(std::string const& cmd, char const* what)
{
    if (std::system(cmd.c_str()) != 0) throw std::runtime_error(std::string(what) + " failed: " + cmd);
}

// espeak-ng's phrase at 48 kHz, peak 1.
std::vector<float> speak(std::string const& dir, std::string const& voice, int speed, int pitch, std::string const& text)
{
    std::string wav = dir + "/phrase.wav";
    must("espeak-ng -v " + voice + " -s " + std::to_string(speed) + " -p " + std::to_string(pitch) + " -w " + shellQuoted(wav) + " "
             + shellQuoted(text),
         "espeak-ng (install it with scripts/install-deps)");
    std::ifstream f(wav, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    // RIFF: "fmt " gives the rate, "data" the 16-bit mono samples.
    int rate = 22050;
    std::size_t data = 0, end = bytes.size();
    for (std::size_t i = 12; i + 8 <= bytes.size();) {
        std::uint32_t size;
        std::memcpy(&size, &bytes[i + 4], 4);
        if (std::memcmp(&bytes[i], "fmt ", 4) == 0) std::memcpy(&rate, &bytes[i + 12], 4);
        if (std::memcmp(&bytes[i], "data", 4) == 0) {
            data = i + 8;
            end = std::min<std::size_t>(bytes.size(), data + size);
            break;
        }
        i += 8 + size;
    }
    if (data == 0 || rate <= 0) throw std::runtime_error("espeak-ng wrote no sound");
    std::vector<float> src((end - data) / 2);
    float peak = 1e-6f;
    for (std::size_t i = 0; i < src.size(); ++i) {
        std::int16_t v;
        std::memcpy(&v, &bytes[data + 2 * i], 2);
        src[i] = static_cast<float>(v) / 32768.f;
        peak = std::max(peak, std::fabs(src[i]));
    }
    double step = static_cast<double>(rate) / kRate;
    auto out = resample(src, static_cast<std::size_t>(static_cast<double>(src.size()) / step), 0, step);
    for (float& v : out) v /= peak;
    return out;
}

// Dialogue on a track laid out as the movie's timeline (kLead seconds
// before movie time 0): English phrases in slots from `from` to `to` movie
// seconds, and if `german` is given, German phrases in roughly the same
// slots (a start up to 0.3 s away, at most 0.5 s longer) added to it.
void addDialogue(std::string const& dir, unsigned seed, double from, double to, std::vector<float>& english, std::vector<float>* german)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0, 1);
    int enSpeed = 150 + static_cast<int>(30 * u(rng)), enPitch = 35 + static_cast<int>(30 * u(rng));
    int deSpeed = 145 + static_cast<int>(30 * u(rng)), dePitch = 30 + static_cast<int>(30 * u(rng));
    std::vector<std::vector<float>> phrases;
    auto slots = dialogueSlots(rng, from, to, [&](std::size_t) {
        phrases.push_back(speak(dir, "en", enSpeed, enPitch, kEnglish[rng() % std::size(kEnglish)]));
        return static_cast<double>(phrases.back().size()) / kRate;
    });
    for (std::size_t k = 0; k < slots.size(); ++k) {
        auto at = [](double m) { return static_cast<std::int64_t>(std::llround((m + kLead) * kRate)); };
        auto length = static_cast<std::size_t>(slots[k].length * kRate);
        addPhrase(english, phrases[k], at(slots[k].start), length, static_cast<float>(0.3 + 0.2 * u(rng)));
        if (!german) continue;
        auto de = speak(dir, "de+m3", deSpeed, dePitch, kGerman[rng() % std::size(kGerman)]);
        double start = std::max(from, slots[k].start + 0.6 * (u(rng) - 0.5));
        addPhrase(*german, de, at(start), length + kRate / 2, static_cast<float>(0.3 + 0.2 * u(rng)));
    }
}

void writeWav(std::string const& path, float const* samples, std::size_t count)
{
    std::ofstream f(path, std::ios::binary);
    auto u32 = [&](std::uint32_t v) { f.write(reinterpret_cast<char const*>(&v), 4); };
    auto u16 = [&](std::uint16_t v) { f.write(reinterpret_cast<char const*>(&v), 2); };
    f.write("RIFF", 4);
    u32(static_cast<std::uint32_t>(36 + 2 * count));
    f.write("WAVEfmt ", 8);
    u32(16);
    u16(1); // PCM
    u16(1); // mono
    u32(kRate);
    u32(kRate * 2);
    u16(2);
    u16(16);
    f.write("data", 4);
    u32(static_cast<std::uint32_t>(2 * count));
    std::vector<std::int16_t> pcm(count);
    for (std::size_t i = 0; i < count; ++i)
        pcm[i] = static_cast<std::int16_t>(std::lround(std::clamp(samples[i], -1.f, 1.f) * 32767.f));
    f.write(reinterpret_cast<char const*>(pcm.data()), static_cast<std::streamsize>(2 * count));
    if (!f) throw std::runtime_error("cannot write " + path);
}

// Writes the case's movie (and the dub alone, dub.wav) into `dir`.
std::string generate(Case const& k, std::string const& dir)
{
    fs::create_directories(dir);
    double total = k.seconds + 2 * kLead;
    // The German release's sound on the movie's timeline: the bed and German
    // speech; the English track is the same bed with English speech.
    std::vector<float> german = makeBed(k.seed, total);
    std::vector<float> english = german;
    addDialogue(dir, k.seed + 1, 0, k.seconds, english, &german);
    if (k.unrelated) {
        // Another film altogether: its own bed and dialogue.
        english = makeBed(k.seed + 5000, total);
        addDialogue(dir, k.seed + 5001, 0, k.seconds, english, nullptr);
    } else if (k.cut()) {
        // A scene this release has instead: other music, effects and speech.
        std::vector<float> other = makeBed(k.seed + 7000, total);
        addDialogue(dir, k.seed + 7001, k.cutFrom, k.cutTo, other, nullptr);
        auto from = static_cast<std::size_t>(std::llround((k.cutFrom + kLead) * kRate));
        auto to = static_cast<std::size_t>(std::llround((k.cutTo + kLead) * kRate));
        std::copy(other.begin() + static_cast<std::ptrdiff_t>(from), other.begin() + static_cast<std::ptrdiff_t>(to),
                  english.begin() + static_cast<std::ptrdiff_t>(from));
    }
    auto lead = static_cast<std::size_t>(kLead * kRate);
    auto movieSamples = static_cast<std::size_t>(std::llround(k.seconds * kRate));
    writeWav(dir + "/english.wav", english.data() + lead, movieSamples);
    // The dub: sample n (audio time a = n / kRate) holds the German sound of
    // movie time m = (a - c) / r, up to the end of the movie.
    auto dubSamples = static_cast<std::size_t>(std::floor(k.truth().at(k.seconds) * kRate));
    double start = (-k.c / k.r + kLead) * kRate, step = 1 / k.r;
    auto dub = resample(german, dubSamples, start, step);
    writeWav(dir + "/dub.wav", dub.data(), dub.size());
    std::string movie = dir + "/movie.mkv";
    char lavfi[128];
    std::snprintf(lavfi, sizeof lavfi, "testsrc2=size=320x180:rate=25:duration=%.3f", k.seconds);
    must("ffmpeg -nostdin -y -v error -f lavfi -i " + std::string(lavfi) + " -i " + shellQuoted(dir + "/english.wav") + " -i "
             + shellQuoted(dir + "/dub.wav")
             + " -map 0:v -map 1:a -map 2:a -c:v libx264 -preset ultrafast -c:a flac"
               " -metadata:s:a:0 language=eng -metadata:s:a:0 title=English -metadata:s:a:1 language=ger -metadata:s:a:1 title=Deutsch"
               " -disposition:v:0 default -disposition:a:0 default -disposition:a:1 0 "
             + shellQuoted(movie),
         "ffmpeg");
    std::remove((dir + "/phrase.wav").c_str());
    std::ofstream(dir + "/truth.json") << json{{"speed", k.speedName}, {"r", k.r}, {"c", k.c}, {"seconds", k.seconds},
                                               {"cut", k.cut() ? json{k.cutFrom, k.cutTo} : json(nullptr)}, {"unrelated", k.unrelated},
                                               {"seed", k.seed}}
                                                  .dump(2)
                                           << "\n";
    return movie;
}

// The proof of a case's truth from its files; returns whether it holds.
bool verify(Case const& k, std::string const& cli, std::string const& movie)
{
    bool ok = true;
    Ran probe = run("ffprobe -v error -show_entries stream=codec_type:stream_disposition=default:stream_tags=language -of csv=p=0 "
                    + shellQuoted(movie));
    std::string streams = probe.out;
    std::replace(streams.begin(), streams.end(), '\n', ' ');
    // csv: codec_type,default,language per stream
    bool order = probe.status == 0 && streams == "video,1 audio,1,eng audio,0,ger ";
    ok = ok && order;
    // info numbers the tracks as the bench's commands do: the dub is track 3.
    Ran info = run(cli + " info " + shellQuoted(movie) + " 2>&1");
    auto dubLine = info.out.find("sound track 3");
    bool third = info.out.find("track 3: sound") != std::string::npos && dubLine != std::string::npos
              && info.out.substr(dubLine, info.out.find('\n', dubLine) - dubLine).find(", ger)") != std::string::npos;
    ok = ok && third;

    // The English track against the dub, under the true line and under the
    // line moved 2 ms later. Each 0.5 s window of the English sound is looked
    // for in the dub; windows whose bed is hidden by speech or is one
    // sustained chord (a periodic match) can land elsewhere, so the truth is
    // judged by the windows that agree with it and by the median.
    double m0 = std::max(0.0, -k.c / k.r) + 1, m1 = k.seconds - 1;
    struct Measured {
        std::vector<double> errors; // ms, outside the replaced scene
        std::size_t agreeInCut = 0;
        double median = 0;
    };
    auto measure = [&](double shift) {
        char pts[160];
        std::snprintf(pts, sizeof pts, " --point %.9f=%.9f --point %.9f=%.9f", m0, k.truth().at(m0) + shift, m1, k.truth().at(m1) + shift);
        Ran r = run(cli + " measure " + shellQuoted(movie) + " --track 2 --reference 3" + pts + " --json 2>/dev/null");
        json j = json::parse(r.out, nullptr, false);
        Measured out;
        if (j.is_discarded() || !j.contains("windows")) return out;
        for (auto const& w : j["windows"]) {
            double t = w["movie_time"].get<double>(), e = w["error_ms"].get<double>();
            if (k.cut() && t > k.cutFrom && t < k.cutTo) out.agreeInCut += std::fabs(e) < 0.05; // read under the true line only
            else out.errors.push_back(e);
        }
        if (!out.errors.empty()) {
            std::vector<double> sorted = out.errors;
            std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2), sorted.end());
            out.median = sorted[sorted.size() / 2];
        }
        return out;
    };
    Measured at = measure(0), moved = measure(0.002);
    std::size_t agree = 0;
    double worstAgreeing = 0;
    for (double e : at.errors)
        if (std::fabs(e) < 0.05) ++agree, worstAgreeing = std::max(worstAgreeing, std::fabs(e));
    double possible = (k.seconds - m0) / 0.5; // measure's windows lie 0.5 s apart
    double share = static_cast<double>(agree) / possible;
    // A line 2 ms later in the dub reads as the English sound 2/r ms late.
    double seenShift = moved.median - at.median, wantShift = 2 / k.r;
    bool truthHolds;
    if (k.unrelated) truthHolds = share < 0.02; // another film's sound agrees almost nowhere
    else truthHolds = share > 0.4 && std::fabs(at.median) < 0.02 && std::fabs(seenShift - wantShift) < 0.02 && at.agreeInCut <= 1;
    ok = ok && truthHolds;
    std::printf("  verify: streams %s (%s), info %s; measure under the truth: %zu windows, %zu (%.0f%%) within 0.05 ms (largest of those %.4f), "
                "median %+.4f ms, %zu agree in the cut; line 2 ms later: median moves %+.4f ms (expected %+.4f) -> %s\n",
                order ? "ok" : "WRONG", streams.c_str(), third ? "lists the dub as track 3" : "WRONG", at.errors.size() + at.agreeInCut,
                agree, 100 * share, worstAgreeing, at.median, at.agreeInCut, seenShift, wantShift, ok ? "truth holds" : "TRUTH NOT PROVEN");
    return ok;
}

} // namespace

int main(int argc, char** argv)
{
    int count = -1;
    bool quick = false, doVerify = false;
    unsigned seed = 1;
    std::string keep;
#ifdef DUBMATCH_CLI
    std::string cli = DUBMATCH_CLI;
#else
    std::string cli = "dubmatch-cli";
#endif
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--quick") quick = true;
        else if (a == "--verify") doVerify = true;
        else if (a == "--cases" && i + 1 < argc) count = std::atoi(argv[++i]);
        else if (a == "--seed" && i + 1 < argc) seed = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (a == "--keep" && i + 1 < argc) keep = argv[++i];
        else if (a == "--cli" && i + 1 < argc) cli = argv[++i];
        else {
            std::fprintf(stderr, "usage: dub [--quick | --cases N] [--seed S] [--keep DIR] [--verify] [--cli PATH]\n");
            return 2;
        }
    }
    if (quick && count < 0) count = 4;
    std::string work;
    if (!keep.empty()) {
        fs::create_directories(keep);
        work = keep;
    } else {
        char const* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/dubmatch-dub-XXXXXX";
        std::vector<char> buf(pattern.begin(), pattern.end());
        buf.push_back(0);
        if (!mkdtemp(buf.data())) {
            std::perror("dub: a scratch folder");
            return 1;
        }
        work = buf.data();
    }

    auto cases = makeCases(seed, count, quick);
    std::printf("seed %u, %zu case(s); suggest MOVIE --track 3 --reference 2 --json with %s\n", seed, cases.size(), cli.c_str());
    std::printf("%-4s %5s %-12s %9s %-9s %-9s %-8s %10s %5s %8s  %s\n", "case", "min", "speed", "offset s", "cut s", "reference",
                "verdict", "worst ms", "cands", "s/min", "note");
    int related = 0, found = 0, refused = 0, wrong = 0, inexact = 0, errors = 0, cuts = 0, cutsReported = 0, verified = 0;
    std::string unrelatedRefused = "not run";
    double runSeconds = 0, movieMinutes = 0, timingSeconds = -1, floorSeconds = -1;
    bool allVerified = true;
    for (std::size_t i = 0; i < cases.size(); ++i) {
        Case const& k = cases[i];
        std::string dir = work + "/case" + std::to_string(i + 1);
        std::string movie;
        try {
            movie = generate(k, dir);
        } catch (std::exception const& e) {
            std::fprintf(stderr, "dub: case %zu: %s\n", i + 1, e.what());
            return 1;
        }
        if (doVerify) {
            bool ok = verify(k, cli, movie);
            allVerified = allVerified && ok;
            verified += ok;
        }
        Ran r = run(cli + " suggest " + shellQuoted(movie) + " --track 3 --reference 2 --json 2>/dev/null");
        json answer = json::parse(r.out, nullptr, false);
        Score s = scoreSuggestion(r.status, answer, k.truth(), k.seconds, k.cutFrom, k.cutTo);
        double minutes = k.seconds / 60;
        runSeconds += r.seconds;
        movieMinutes += minutes;
        if (k.timing) {
            timingSeconds = r.seconds;
            // The floor of the same work: FFmpeg decoding both sound tracks.
            Ran f = run("ffmpeg -nostdin -v error -threads 2 -i '" + movie + "' -map 0:a:0 -map 0:a:1 -f null - 2>&1");
            if (f.status == 0) floorSeconds = f.seconds;
        }
        if (k.unrelated) {
            unrelatedRefused = s.verdict == Verdict::Refused ? "yes" : "no";
        } else {
            ++related;
            found += s.verdict == Verdict::Found;
            refused += s.verdict == Verdict::Refused;
            wrong += s.verdict == Verdict::Wrong;
            inexact += s.verdict == Verdict::Inexact;
            errors += s.verdict == Verdict::Error;
            if (k.cut()) {
                ++cuts;
                cutsReported += s.cutReported;
            }
        }
        char cut[24] = "-";
        if (k.cut()) std::snprintf(cut, sizeof cut, "%.0f-%.0f%s", k.cutFrom, k.cutTo, s.cutReported ? "*" : "");
        std::string verdict = verdictName(s.verdict);
        if (k.unrelated) verdict += s.verdict == Verdict::Refused ? "(ok)" : "(!)";
        bool answered = s.verdict != Verdict::Refused && s.verdict != Verdict::Error;
        char worst[24] = "-";
        if (answered) std::snprintf(worst, sizeof worst, "%.3f", s.worstMs);
        std::printf("%-4zu %5.1f %-12s %+9.3f %-9s %-9s %-8s %10s %5zu %8.2f  %s\n", i + 1, minutes, k.speedName.c_str(), k.c, cut,
                    k.unrelated ? "unrelated" : "track 2", verdict.c_str(), worst, s.candidates, r.seconds / minutes, s.note.c_str());
        std::fflush(stdout);
        if (keep.empty()) fs::remove_all(dir);
    }
    std::printf("\nrelated references: %d; found within 1 ms: %d; inexact: %d; wrong: %d; refused: %d; errors: %d\n", related, found,
                inexact, wrong, refused, errors);
    std::printf("cuts reported as differing: %d of %d (* in the table); unrelated reference refused: %s\n", cutsReported, cuts,
                unrelatedRefused.c_str());
    std::printf("seconds per movie-minute: %.2f (%.1f s over %.1f movie minutes)\n", movieMinutes > 0 ? runSeconds / movieMinutes : 0.0,
                runSeconds, movieMinutes);
    if (timingSeconds >= 0)
        std::printf("10-minute movie: %.1f s (target: under 30 s on 2 cores; ratio %.2f); the floor, ffmpeg decoding both sound "
                    "tracks: %.1f s (ratio to the floor %.2f)\n",
                    timingSeconds, timingSeconds / 30, floorSeconds, floorSeconds > 0 ? timingSeconds / floorSeconds : 0.0);
    if (doVerify) std::printf("truth proven from the files: %d of %zu cases\n", verified, cases.size());
    if (keep.empty()) fs::remove_all(work);
    else std::printf("files kept in %s\n", keep.c_str());
    return doVerify && !allVerified ? 1 : 0;
}
