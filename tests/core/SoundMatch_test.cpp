// Sync points from a reference sound, on sounds made here: a bed of notes
// and effects shared by two tracks under different "speech", the second
// re-timed by a known speed and offset.
#include "SoundMatch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <stdexcept>

namespace {

constexpr int kRate = 8000;
constexpr double kPi = 3.14159265358979323846;

// Sounds as functions of continuous time, so that a re-timed copy is exact.
struct Event {
    double start, length, amplitude;
    std::vector<std::pair<double, double>> partials; // frequency, phase
    double decay;
    double at(double t) const
    {
        double u = t - start;
        if (u < 0 || u >= length) return 0;
        double v = 0;
        for (auto const& [f, ph] : partials) v += std::sin(2 * kPi * f * u + ph);
        double attack = std::min(1.0, u / 0.005);
        return amplitude * attack * std::exp(-u / decay) * v / static_cast<double>(partials.size());
    }
};

// Notes and effects at random times over `seconds` (the bed), or bursts of
// voice-like partials between 300 and 3000 Hz (speech).
std::vector<Event> events(double seconds, unsigned seed, bool speech)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0, 1);
    std::vector<Event> out;
    for (double t = u(rng); t < seconds; t += speech ? 0.15 + 0.3 * u(rng) : 0.1 + 0.5 * u(rng)) {
        Event e;
        e.start = t;
        e.amplitude = speech ? 0.5 : 0.2 + 0.4 * u(rng);
        if (speech) {
            e.length = 0.1 + 0.15 * u(rng);
            e.decay = 0.2;
            double f0 = 110 + 120 * u(rng);
            for (int h = 3; h < 25; h += 2) e.partials.push_back({f0 * h, 2 * kPi * u(rng)});
        } else if (u(rng) < 0.6) { // a note
            e.length = 0.3 + 0.6 * u(rng);
            e.decay = 0.25;
            double f = 110 * std::pow(2.0, std::floor(u(rng) * 36) / 12);
            for (int h = 1; h <= 4; ++h) e.partials.push_back({f * h, 0});
        } else { // an effect: many partials, noise-like
            e.length = 0.05 + 0.3 * u(rng);
            e.decay = 0.1;
            for (int k = 0; k < 24; ++k) e.partials.push_back({80 + 3800 * u(rng), 2 * kPi * u(rng)});
        }
        out.push_back(e);
    }
    return out;
}

// Samples of `value(t)` for `seconds`, looking up only nearby events.
template <class F>
std::vector<float> render(double seconds, F const& value)
{
    std::vector<float> out(static_cast<std::size_t>(seconds * kRate));
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = static_cast<float>(value(static_cast<double>(i) / kRate));
    return out;
}

struct Indexed {
    std::vector<Event> ev;
    // Events by the second they start in, for speed.
    std::vector<std::vector<std::size_t>> bySecond;
    explicit Indexed(std::vector<Event> e) : ev(std::move(e))
    {
        for (std::size_t k = 0; k < ev.size(); ++k) {
            auto s = static_cast<std::size_t>(ev[k].start);
            if (bySecond.size() <= s) bySecond.resize(s + 1);
            bySecond[s].push_back(k);
        }
    }
    double operator()(double t) const
    {
        if (t < 0) return 0;
        double v = 0;
        auto s = static_cast<std::size_t>(t);
        for (std::size_t b = s >= 1 ? s - 1 : 0; b <= s && b < bySecond.size(); ++b)
            for (auto k : bySecond[b]) v += ev[k].at(t);
        return v;
    }
};

struct Dub {
    std::vector<float> reference, sound;
};

// The reference: bed + English over `seconds`; the dub: the same bed read
// so that its audio time a holds movie time (a - offset) / speed, with its
// own speech. `cut` replaces that stretch of the reference with another bed.
Dub makeDub(double seconds, double speed, double offset, unsigned seed, std::pair<double, double> cut = {0, 0}, bool unrelated = false)
{
    Indexed bed(events(seconds + 20, seed, false)), other(events(seconds + 20, seed + 100, false));
    Indexed english(events(seconds + 20, seed + 200, true)), german(events(seconds * 1.1 + 20, seed + 300, true));
    Dub d;
    d.reference = render(seconds, [&](double m) {
        bool inCut = m >= cut.first && m < cut.second;
        return (inCut || unrelated ? other(m) : bed(m)) + 0.6 * english(m);
    });
    double soundSeconds = seconds * speed + std::max(0.0, offset);
    d.sound = render(soundSeconds, [&](double a) { return bed((a - offset) / speed) + 0.6 * german(a); });
    return d;
}

void expectOnLine(suggest::SoundMatch const& m, double speed, double offset, double seconds, char const* what)
{
    ASSERT_FALSE(m.suggestion.refused()) << what << ": " << m.suggestion.refusal;
    auto const& line = *m.suggestion.line;
    for (double t : {0.0, seconds})
        EXPECT_NEAR(line.at(t), speed * t + offset, 0.001) << what << " at " << t;
    for (auto const& c : m.suggestion.candidates) EXPECT_NEAR(c.audioTime, speed * c.movieTime + offset, 0.001) << what;
}

TEST(SoundMatch, FindsTransferSpeedsAndOffsetsWithinAMillisecond)
{
    struct Case {
        double speed, offset;
        char const* name;
    } cases[] = {{25.0 / 24.0, 7.3, "25/24"}, {1001.0 / 1000.0, 9.5, "1001/1000"}, {1.013, -2.0, ""}};
    double seconds = 60;
    unsigned seed = 1;
    for (auto const& c : cases) {
        Dub d = makeDub(seconds, c.speed, c.offset, seed++);
        auto m = suggest::matchSounds(d.reference, d.sound, kRate);
        expectOnLine(m, c.speed, c.offset, seconds, c.name);
        EXPECT_EQ(m.speedName, c.name);
        EXPECT_TRUE(m.differ.empty());
        EXPECT_GE(m.suggestion.candidates.size(), 3u); // one per 30 s and the ends
    }
}

TEST(SoundMatch, ReportsACutAndRefusesAnUnrelatedReference)
{
    double seconds = 80;
    Dub cut = makeDub(seconds, 1.0, 3.0, 11, {30, 55});
    auto m = suggest::matchSounds(cut.reference, cut.sound, kRate);
    expectOnLine(m, 1.0, 3.0, seconds, "cut");
    ASSERT_EQ(m.differ.size(), 1u);
    EXPECT_NEAR(m.differ[0].from, 30, 5.1);
    EXPECT_NEAR(m.differ[0].to, 55, 5.1);
    EXPECT_EQ(suggest::differText({751, 842}), "the sounds differ from 12:31 to 14:02");
    for (auto const& c : m.suggestion.candidates) EXPECT_FALSE(c.movieTime > 30 && c.movieTime < 55);

    Dub unrelated = makeDub(seconds, 1.0, 3.0, 21, {0, 0}, true);
    auto u = suggest::matchSounds(unrelated.reference, unrelated.sound, kRate);
    EXPECT_TRUE(u.suggestion.refused());
    EXPECT_FALSE(u.suggestion.refusal.empty());

    // Progress goes forward, and a stop thrown from it leaves the comparison.
    suggest::MatchSettings stopping;
    double last = -1;
    bool forward = true;
    stopping.progress = [&](double f) {
        forward = forward && f >= last;
        last = f;
        if (f > 0.5) throw std::runtime_error("stopped");
    };
    EXPECT_THROW(suggest::matchSounds(cut.reference, cut.sound, kRate, stopping), std::runtime_error);
    EXPECT_TRUE(forward);
    EXPECT_GT(last, 0.5);

    std::vector<float> silence(static_cast<std::size_t>(60 * kRate), 0.f);
    auto s = suggest::matchSounds(silence, unrelated.sound, kRate);
    EXPECT_EQ(s.suggestion.refusal, "the reference is silent");
}

} // namespace
