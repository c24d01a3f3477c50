#include "DubSound.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace dubbench {

namespace {

constexpr double kPi = 3.14159265358979323846;

std::size_t samplesOf(double seconds)
{
    return static_cast<std::size_t>(std::max(0.0, std::round(seconds * kRate)));
}

// A note of `harmonics` partials (each softer than the last) with a 5 ms
// attack and an exponential decay.
void addNote(std::vector<float>& out, double start, double freq, double seconds, int harmonics, double decay, double amp, double phase)
{
    std::size_t from = samplesOf(start), to = std::min(out.size(), from + samplesOf(seconds));
    for (std::size_t i = from; i < to; ++i) {
        double age = static_cast<double>(i - from) / kRate;
        double env = std::min(1.0, age / 0.005) * std::exp(-age * decay);
        double v = 0;
        for (int h = 1; h <= harmonics; ++h) v += std::sin(2 * kPi * freq * h * age + phase * h) / h;
        out[i] += static_cast<float>(amp * env * v);
    }
}

enum class Effect { Burst, Thump, Swoosh };

void addEffect(std::vector<float>& out, std::mt19937& rng, double start, Effect kind)
{
    std::uniform_real_distribution<double> u(0, 1);
    std::normal_distribution<double> g(0, 1);
    std::size_t from = samplesOf(start);
    if (kind == Effect::Burst) {
        // Coloured noise, sharp onset, quick decay: a door, a shot, a step.
        double seconds = 0.05 + 0.35 * u(rng), amp = 0.1 + 0.2 * u(rng), pole = 0.2 + 0.75 * u(rng), decay = 3 / seconds;
        double y = 0;
        std::size_t to = std::min(out.size(), from + samplesOf(seconds));
        for (std::size_t i = from; i < to; ++i) {
            double age = static_cast<double>(i - from) / kRate;
            y = pole * y + (1 - pole) * g(rng);
            out[i] += static_cast<float>(amp * std::min(1.0, age / 0.001) * std::exp(-age * decay) * y * 2);
        }
    } else if (kind == Effect::Thump) {
        // A low sine sweeping down: a fall, a slammed boot.
        double seconds = 0.2 + 0.3 * u(rng), amp = 0.25 + 0.25 * u(rng), f0 = 90 + 80 * u(rng), f1 = 35 + 15 * u(rng);
        double phase = 0;
        std::size_t to = std::min(out.size(), from + samplesOf(seconds));
        for (std::size_t i = from; i < to; ++i) {
            double age = static_cast<double>(i - from) / kRate;
            double f = f1 + (f0 - f1) * std::exp(-age * 12);
            phase += 2 * kPi * f / kRate;
            out[i] += static_cast<float>(amp * std::min(1.0, age / 0.002) * std::exp(-age * 8 / seconds) * std::sin(phase));
        }
    } else {
        // Noise through a resonant filter whose centre sweeps: a passing car, wind.
        double seconds = 0.5 + u(rng), amp = 0.08 + 0.12 * u(rng), c0 = 300 + 600 * u(rng), c1 = 2000 + 4000 * u(rng);
        if (u(rng) < 0.5) std::swap(c0, c1);
        double low = 0, band = 0;
        std::size_t to = std::min(out.size(), from + samplesOf(seconds));
        for (std::size_t i = from; i < to; ++i) {
            double x = static_cast<double>(i - from) / static_cast<double>(to - from);
            double f = 2 * std::sin(kPi * (c0 + (c1 - c0) * x) / kRate);
            low += f * band;
            double high = g(rng) - low - 0.3 * band;
            band += f * high;
            double env = std::sin(kPi * x);
            out[i] += static_cast<float>(amp * env * env * band);
        }
    }
}

double besselI0(double x)
{
    double sum = 1, term = 1;
    for (int k = 1; k < 40; ++k) {
        term *= (x / (2 * k)) * (x / (2 * k));
        sum += term;
    }
    return sum;
}

} // namespace

std::vector<float> makeBed(unsigned seed, double seconds)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0, 1);
    std::vector<float> out(samplesOf(seconds), 0.f);
    static constexpr int kMajor[] = {0, 2, 4, 7, 9, 12, 14, 16};
    static constexpr int kMinor[] = {0, 3, 5, 7, 10, 12, 15, 17};
    for (double t = 0; t < seconds;) {
        // A section: its own key, scale, pace, timbre and effects.
        double length = 15 + 25 * u(rng);
        double root = 110 * std::pow(2.0, std::floor(12 * u(rng)) / 12);
        int const* scale = u(rng) < 0.5 ? kMajor : kMinor;
        double gapLow = 0.15 + 0.5 * u(rng), gapHigh = gapLow + 0.3 + 1.2 * u(rng);
        int harmonics = 1 + static_cast<int>(4 * u(rng));
        double decay = 1.2 + 4 * u(rng), chords = 0.6 * u(rng), level = 0.05 + 0.07 * u(rng);
        double effectGap = 1.5 + 5 * u(rng);
        double end = std::min(seconds, t + length);
        for (double s = t + gapLow * u(rng); s < end; s += gapLow + (gapHigh - gapLow) * u(rng)) {
            int voices = u(rng) < chords ? 2 + static_cast<int>(2 * u(rng)) : 1;
            int degree = static_cast<int>(5 * u(rng));
            for (int v = 0; v < voices; ++v) {
                double f = root * std::pow(2.0, scale[std::min(7, degree + 2 * v)] / 12.0) * (u(rng) < 0.3 ? 2 : 1);
                addNote(out, s, f, 4.0 / decay, harmonics, decay, level * (0.6 + 0.4 * u(rng)), 2 * kPi * u(rng));
            }
        }
        for (double s = t + effectGap * u(rng); s < end; s += effectGap * (0.4 + 1.2 * u(rng)))
            addEffect(out, rng, s, static_cast<Effect>(static_cast<int>(3 * u(rng))));
        t = end;
    }
    // Ambience: low-passed noise whose level wanders between -46 and -34 dB.
    std::normal_distribution<double> g(0, 1);
    double y = 0, level = 0.01, target = 0.01;
    for (std::size_t i = 0; i < out.size(); ++i) {
        if (i % kRate == 0) target = 0.005 + 0.015 * u(rng);
        level += (target - level) * 2e-5;
        y = 0.97 * y + 0.03 * g(rng);
        out[i] += static_cast<float>(level * y * 4);
    }
    return out;
}

std::vector<float> resample(std::vector<float> const& src, std::size_t count, double start, double step)
{
    // The kernel, tabled at kPhases fractions of a sample (nearest phase:
    // at most 1/8192 sample, 2.5 ns at 48 kHz, from the exact position).
    constexpr int kPhases = 4096;
    constexpr double kBeta = 9;
    // The cut-off, of the source's Nyquist frequency, and the taps on each
    // side: 48 zero crossings make the transition band about 2.5 kHz wide,
    // so reading 4 % faster leaves nothing above the new Nyquist frequency.
    double cutoff = 0.95 / std::max(1.0, step);
    int half = static_cast<int>(std::ceil(48 / cutoff));
    int taps = 2 * half;
    std::vector<float> table(static_cast<std::size_t>(kPhases + 1) * static_cast<std::size_t>(taps));
    double norm = besselI0(kBeta);
    for (int p = 0; p <= kPhases; ++p) {
        double frac = static_cast<double>(p) / kPhases;
        for (int j = 0; j < taps; ++j) {
            double x = j - half + 1 - frac; // tap j lies x samples from the position read
            double u = x / half;
            double window = std::fabs(u) >= 1 ? 0 : besselI0(kBeta * std::sqrt(1 - u * u)) / norm;
            double arg = kPi * cutoff * x;
            double sinc = std::fabs(arg) < 1e-12 ? 1 : std::sin(arg) / arg;
            table[static_cast<std::size_t>(p) * static_cast<std::size_t>(taps) + static_cast<std::size_t>(j)] =
                static_cast<float>(cutoff * sinc * window);
        }
    }
    std::vector<float> out(count, 0.f);
    auto size = static_cast<std::int64_t>(src.size());
    for (std::size_t n = 0; n < count; ++n) {
        double pos = start + static_cast<double>(n) * step;
        double base = std::floor(pos);
        auto i0 = static_cast<std::int64_t>(base);
        auto phase = static_cast<std::size_t>(std::lround((pos - base) * kPhases));
        float const* k = &table[phase * static_cast<std::size_t>(taps)];
        std::int64_t first = i0 - half + 1;
        if (first + taps <= 0 || first >= size) continue;
        double sum = 0;
        int j0 = static_cast<int>(std::max<std::int64_t>(0, -first));
        int j1 = static_cast<int>(std::min<std::int64_t>(taps, size - first));
        for (int j = j0; j < j1; ++j) sum += k[j] * src[static_cast<std::size_t>(first + j)];
        out[n] = static_cast<float>(sum);
    }
    return out;
}

std::vector<Slot> dialogueSlots(std::mt19937& rng, double from, double to, std::function<double(std::size_t)> const& phraseLength)
{
    std::uniform_real_distribution<double> pause(0.6, 6.0);
    std::vector<Slot> slots;
    for (double t = from + pause(rng); t < to - 1;) {
        double length = std::clamp(phraseLength(slots.size()), 1.0, 4.0);
        length = std::min(length, to - t);
        slots.push_back({t, length});
        t += length + pause(rng);
    }
    return slots;
}

void addPhrase(std::vector<float>& track, std::vector<float> const& phrase, std::int64_t at, std::size_t maxSamples, float gain)
{
    std::size_t n = std::min(phrase.size(), maxSamples);
    std::size_t fade = n < phrase.size() ? std::min<std::size_t>(n, kRate / 40) : 0; // 25 ms where a phrase is cut off
    for (std::size_t i = 0; i < n; ++i) {
        std::int64_t k = at + static_cast<std::int64_t>(i);
        if (k < 0 || k >= static_cast<std::int64_t>(track.size())) continue;
        float g = gain;
        if (i + fade >= n && fade > 0) g *= static_cast<float>(n - i) / static_cast<float>(fade);
        track[static_cast<std::size_t>(k)] += g * phrase[i];
    }
}

char const* verdictName(Verdict v)
{
    switch (v) {
    case Verdict::Found: return "found";
    case Verdict::Inexact: return "inexact";
    case Verdict::Wrong: return "wrong";
    case Verdict::Refused: return "refused";
    case Verdict::Error: return "error";
    }
    return "?";
}

Score scoreSuggestion(int status, nlohmann::json const& answer, Truth const& truth, double seconds, double cutFrom, double cutTo)
{
    Score s;
    auto text = [](nlohmann::json const& j, char const* key) {
        return j.is_object() && j.contains(key) && j[key].is_string() ? j[key].get<std::string>() : std::string();
    };
    if (status == 1) {
        s.verdict = Verdict::Refused;
        s.note = text(answer, "refusal");
        if (s.note.empty()) s.note = text(answer, "error");
        return s;
    }
    if (status != 0) {
        s.note = "exit status " + std::to_string(status);
        if (!text(answer, "error").empty()) s.note += ": " + text(answer, "error");
        return s;
    }
    if (!answer.is_object() || !answer.contains("candidates") || !answer["candidates"].is_array()) {
        s.note = "no candidates in the answer";
        return s;
    }
    try {
        bool allWithin = true;
        for (auto const& c : answer["candidates"]) {
            double m = c.at("movie_time").get<double>(), a = c.at("audio_time").get<double>();
            double conf = c.value("confidence", 0.0);
            double err = std::fabs(a - truth.at(m)) * 1000;
            s.worstMs = std::max(s.worstMs, err);
            if (conf >= 0.5) s.worstConfidentMs = std::max(s.worstConfidentMs, err);
            allWithin = allWithin && err <= 1;
            ++s.candidates;
        }
        auto const& line = answer.contains("line") ? answer["line"] : nlohmann::json();
        if (line.is_object()) {
            double slope = line.at("slope").get<double>(), intercept = line.at("intercept").get<double>();
            for (double m : {0.0, seconds}) {
                double err = std::fabs(slope * m + intercept - truth.at(m)) * 1000;
                s.worstMs = std::max(s.worstMs, err);
                allWithin = allWithin && err <= 1;
            }
        } else {
            allWithin = false;
            s.note = "no line";
        }
        if (cutTo > cutFrom && answer.contains("differ") && answer["differ"].is_array())
            for (auto const& d : answer["differ"])
                if (d.at("from").get<double>() < cutTo && d.at("to").get<double>() > cutFrom) s.cutReported = true;
        if (s.worstConfidentMs > 1) {
            s.verdict = Verdict::Wrong;
            char buf[96];
            std::snprintf(buf, sizeof buf, "a confident candidate %.1f ms off", s.worstConfidentMs);
            s.note = buf;
        } else if (allWithin && s.candidates > 0) {
            s.verdict = Verdict::Found;
        } else {
            s.verdict = Verdict::Inexact;
            if (s.candidates == 0) s.note = "no candidates";
            else if (s.note.empty()) s.note = "only candidates of confidence < 0.5, or the line's ends, more than 1 ms off";
        }
        // A reference match says where the sounds differ, if only with an
        // empty list: an answer without one did not compare the sounds.
        if (!answer.contains("differ") || !answer["differ"].is_array()) s.note += s.note.empty() ? "no \"differ\" list" : "; no \"differ\" list";
    } catch (nlohmann::json::exception const& e) {
        s = Score{};
        s.note = std::string("the answer breaks the contract: ") + e.what();
    }
    return s;
}

} // namespace dubbench
