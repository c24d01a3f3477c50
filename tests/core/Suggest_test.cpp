#include "Suggest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>

using namespace suggest;

namespace {

constexpr int kRate = 48000;
constexpr double kPi = 3.14159265358979323846;

// Quiet hum with 5 ms clicks of 2 kHz at the given times.
std::vector<float> clicks(double seconds, std::vector<double> const& at)
{
    std::vector<float> s(static_cast<std::size_t>(seconds * kRate));
    for (std::size_t i = 0; i < s.size(); ++i) s[i] = static_cast<float>(0.02 * std::sin(2 * kPi * 220 * static_cast<double>(i) / kRate));
    for (double t : at) {
        auto first = static_cast<std::size_t>(std::llround(t * kRate));
        for (std::size_t i = 0; i < kRate / 200 && first + i < s.size(); ++i)
            s[first + i] = static_cast<float>(0.8 * std::cos(2 * kPi * 2000 * static_cast<double>(i) / kRate));
    }
    return s;
}

// The refined time of the highest value of an envelope near `t`.
double peakNear(Envelope const& e, double t)
{
    auto lo = static_cast<std::size_t>(std::max(1.0, (t - 0.1 - e.start) * e.rate));
    auto hi = std::min(e.values.size() - 1, static_cast<std::size_t>((t + 0.1 - e.start) * e.rate));
    std::size_t best = lo;
    for (std::size_t i = lo; i < hi; ++i)
        if (e.values[i] > e.values[best]) best = i;
    double a = e.values[best - 1], b = e.values[best], c = e.values[best + 1];
    double shift = a - 2 * b + c < 0 ? 0.5 * (a - c) / (a - 2 * b + c) : 0;
    return e.timeAt(static_cast<double>(best) + shift);
}

// Picture events at random times and the sound that follows a line.
struct SyntheticMovie {
    Evidence evidence;
    std::vector<double> events; // movie times
};

SyntheticMovie synthetic(double seconds, double delay, double rate, unsigned seed, bool soundFollows = true)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> gap(0.4, 2.5), height(0.5, 1.0);
    SyntheticMovie m;
    auto n = static_cast<std::size_t>(seconds * 100);
    m.evidence.duration = seconds;
    m.evidence.frameChange.values.assign(n, 0.f);
    m.evidence.onset.values.assign(n, 0.f);
    for (double t = gap(rng); t < seconds - 1; t += gap(rng)) m.events.push_back(t);
    for (double t : m.events) {
        float h = static_cast<float>(height(rng));
        // Frame times of a 25 fps picture; sound events where the line says.
        double frame = std::round(t * 25) / 25;
        m.evidence.frameChange.values[static_cast<std::size_t>(std::lround(frame * 100))] += h;
        double a = soundFollows ? delay + rate * frame : gap(rng) * seconds / 2.5;
        double pos = a * 100;
        if (pos < 0 || pos >= static_cast<double>(n) - 1) continue;
        auto i = static_cast<std::size_t>(pos);
        m.evidence.onset.values[i] += static_cast<float>((1 - (pos - static_cast<double>(i))) * h);
        m.evidence.onset.values[i + 1] += static_cast<float>((pos - static_cast<double>(i)) * h);
    }
    return m;
}

// A talking face over a short clip: syllables at random times open the
// mouth (its opening by landmarks, sampled at 25 fps as a picture is) and
// raise the speech level `lag` seconds later in audio time. With
// `related` false the speech has syllables of its own.
Evidence talkingClip(double seconds, double lag, unsigned seed, bool related = true)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> length(0.12, 0.35), pause(0.05, 0.4), level(0.3, 1.0);
    auto n = static_cast<std::size_t>(seconds * 100);
    auto syllables = [&] {
        std::vector<std::tuple<double, double, double>> out; // start, length, level
        for (double t = 0.2 + pause(rng); t < seconds - 0.3; t += length(rng) + pause(rng)) out.emplace_back(t, length(rng), level(rng));
        return out;
    };
    auto at = [](auto const& list, double t) {
        double v = 0;
        for (auto [start, len, l] : list)
            if (t >= start && t < start + len) v += l * std::sin(kPi * (t - start) / len);
        return v;
    };
    auto mouth = syllables();
    auto voice = related ? mouth : syllables();
    Evidence ev;
    ev.duration = seconds;
    ev.frameChange.values.assign(n, 0.f);
    ev.onset.values.assign(n, 0.f);
    ev.speech.values.assign(n, 0.f);
    ev.mouthOpening.values.assign(n, 0.f);
    std::normal_distribution<double> noise(0, 0.02);
    for (std::size_t i = 0; i < n; ++i) {
        double t = static_cast<double>(i) / 100;
        // Seen at 25 fps and drawn straight from one picture to the next.
        double before = std::floor(t * 25) / 25, after = before + 0.04, f = (t - before) / 0.04;
        double seen = (1 - f) * at(mouth, before) + f * at(mouth, after);
        ev.mouthOpening.values[i] = static_cast<float>(0.05 + 0.3 * seen + noise(rng));
        ev.speech.values[i] = static_cast<float>(std::max(0.0, at(voice, t - lag) + noise(rng)));
    }
    return ev;
}

} // namespace

TEST(SuggestEnvelopes, OnsetsPeakAtClicksAndSpeechEnergyFollowsTheVoiceBand)
{
    std::vector<double> at = {0.5, 1.203, 2.0071, 3.4449};
    auto s = clicks(4, at);
    auto env = soundEnvelopes(s.data(), s.size(), kRate);
    ASSERT_NEAR(static_cast<double>(env.onset.size()), 400, 1);
    EXPECT_DOUBLE_EQ(env.onset.rate, 100);
    for (double t : at) EXPECT_NEAR(peakNear(env.onset, t), t, 0.005) << "click at " << t;
    // Between clicks the steady hum has no onsets.
    EXPECT_LT(env.onset.values[static_cast<std::size_t>((0.8 - env.onset.start) * 100)], 0.05 * env.onset.values[50]);

    // A 1 kHz burst raises speech energy by far more than a 60 Hz one.
    std::vector<float> voice(kRate * 2, 0.f);
    for (int i = kRate / 2; i < kRate; ++i) voice[static_cast<std::size_t>(i)] = static_cast<float>(0.3 * std::sin(2 * kPi * 60 * i / kRate));
    for (int i = kRate + kRate / 2; i < 2 * kRate; ++i) voice[static_cast<std::size_t>(i)] = static_cast<float>(0.3 * std::sin(2 * kPi * 1000 * i / kRate));
    auto v = soundEnvelopes(voice.data(), voice.size(), kRate).speech;
    EXPECT_GT(v.values[175], 0.05f);
    EXPECT_GT(v.values[175], 20 * v.values[75]);
    EXPECT_EQ(v.values[25], 0.f);
    // The formant bands: 1200 Hz is heard in the lower, 2400 Hz in the upper.
    std::vector<float> formants(kRate * 2, 0.f);
    for (int i = 0; i < 2 * kRate; ++i)
        formants[static_cast<std::size_t>(i)] = static_cast<float>(0.3 * std::sin(2 * kPi * (i < kRate ? 1200 : 2400) * i / kRate));
    auto bands = soundEnvelopes(formants.data(), formants.size(), kRate);
    EXPECT_GT(bands.voiceLow.values[50], 0.05f);
    EXPECT_GT(bands.voiceLow.values[50], 20 * bands.voiceHigh.values[50]);
    EXPECT_GT(bands.voiceHigh.values[150], 0.05f);
    EXPECT_GT(bands.voiceHigh.values[150], 20 * bands.voiceLow.values[150]);

    // A change of sound (one tone giving way to another) peaks where it
    // happens, in the change envelope.
    std::vector<float> scene(kRate * 3);
    for (std::size_t i = 0; i < scene.size(); ++i) {
        double t = static_cast<double>(i) / kRate;
        scene[i] = static_cast<float>(0.2 * std::sin(2 * kPi * (t < 1.234 ? 300 : 1200) * t));
    }
    auto step = soundEnvelopes(scene.data(), scene.size(), kRate).change;
    double weight = 0, moment = 0;
    for (std::size_t i = 100; i < 150; ++i) {
        weight += step.values[i];
        moment += step.values[i] * step.timeAt(static_cast<double>(i));
    }
    EXPECT_NEAR(moment / weight, 1.234, 0.008);
    // A click is no change of sound: it is gone again at once.
    auto clickChange = soundEnvelopes(s.data(), s.size(), kRate).change;
    EXPECT_LT(*std::max_element(clickChange.values.begin() + 100, clickChange.values.end() - 100), 0.1 * weight / 10);
    EXPECT_LT(step.values[200], 0.05 * step.values[static_cast<std::size_t>((1.234 - step.start) * 100)]);

    // Nothing in, nothing out; bad rates are no crash.
    EXPECT_TRUE(soundEnvelopes(voice.data(), 0, kRate).onset.values.empty());
    EXPECT_TRUE(soundEnvelopes(voice.data(), voice.size(), 0).onset.values.empty());
}

// The envelopes of a sound given piece by piece, in pieces of any size from
// one sample to more than a second (the samples already analysed are let
// go on the way), are those of the whole sound given at once.
TEST(SuggestEnvelopes, PiecesGiveTheEnvelopesOfTheWhole)
{
    std::vector<double> at = {0.5, 1.203, 2.0071, 3.4449, 4.9, 5.95};
    auto s = clicks(6, at);
    for (std::size_t i = 0; i < s.size(); ++i) s[i] += static_cast<float>(0.1 * std::sin(2 * kPi * 1300 * static_cast<double>(i) / kRate));
    auto whole = soundEnvelopes(s.data(), s.size(), kRate);
    SoundEnvelopeBuilder builder(kRate);
    std::size_t sizes[] = {1, 7, 4800, 70001, 333, 96000};
    std::size_t given = 0;
    for (std::size_t k = 0; given < s.size(); ++k) {
        std::size_t n = std::min(sizes[k % std::size(sizes)], s.size() - given);
        builder.add(s.data() + given, n);
        given += n;
    }
    auto pieces = builder.finish();
    auto same = [](Envelope const& a, Envelope const& b) { return a.start == b.start && a.rate == b.rate && a.values == b.values; };
    EXPECT_TRUE(same(whole.onset, pieces.onset));
    EXPECT_TRUE(same(whole.speech, pieces.speech));
    EXPECT_TRUE(same(whole.change, pieces.change));
    EXPECT_TRUE(same(whole.voiceLow, pieces.voiceLow));
    EXPECT_TRUE(same(whole.voiceHigh, pieces.voiceHigh));
    ASSERT_NEAR(static_cast<double>(pieces.onset.size()), 600, 1);
    for (double t : at) EXPECT_NEAR(peakNear(pieces.onset, t), t, 0.005) << "click at " << t;
}

TEST(SuggestEnvelopes, FrameChangeCountsFlashesAndCutsOncePlacedAtTheFrameTime)
{
    FrameChangeBuilder b;
    std::vector<std::uint8_t> dark(16 * 8, 20), mid(16 * 8, 120), bright(16 * 8, 220);
    // 25 fps; frame 5 flashes (a change when it comes, none when it goes),
    // and from frame 8 on the picture is darker (a cut, counted once).
    for (int k = 0; k < 10; ++k) b.add(k / 25.0, k == 5 ? bright.data() : k >= 8 ? dark.data() : mid.data(), 16, 8, 16);
    b.finish(1.0);
    auto const& e = b.envelope();
    ASSERT_EQ(e.size(), 100u);
    EXPECT_FLOAT_EQ(e.values[20], 100.f);
    EXPECT_FLOAT_EQ(e.values[32], 100.f);
    float total = 0;
    for (float v : e.values) total += v;
    EXPECT_FLOAT_EQ(total, 200.f);
    // A frame between two samples is shared by them in proportion.
    FrameChangeBuilder c;
    c.add(0.0, dark.data(), 16, 8, 16);
    c.add(0.1025, bright.data(), 16, 8, 16);
    EXPECT_NEAR(c.envelope().values[10], 150.f, 0.01f);
    EXPECT_NEAR(c.envelope().values[11], 50.f, 0.01f);
    // A new run starts without a change; a region's values go in as given.
    c.breakRun();
    c.add(0.2, dark.data(), 16, 8, 16);
    c.addValue(0.3, 7.f);
    EXPECT_FLOAT_EQ(c.envelope().values[20], 0.f);
    EXPECT_FLOAT_EQ(c.envelope().values[30], 7.f);
    EXPECT_FLOAT_EQ(differenceEnergy(dark.data(), 16, bright.data(), 16, 4, 4), 200.f);
    EXPECT_FLOAT_EQ(differenceEnergy(dark.data(), 16, bright.data(), 16, 0, 4), 0.f);
}

TEST(SuggestEnvelopes, PeaksKeepWhatStandsOutOfNoise)
{
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> flicker(0.f, 1.f);
    Envelope e;
    e.values.resize(1000);
    for (auto& v : e.values) v = 5 + flicker(rng);
    e.values[300] = 15;
    e.values[301] = 9;
    e.values[700] = 12;
    auto p = peaks(e);
    // The two events (with a neighbour above the surrounding level), less
    // that level; the flicker is gone.
    for (std::size_t i = 0; i < p.size(); ++i)
        if (i != 300 && i != 301 && i != 700) {
            EXPECT_EQ(p.values[i], 0.f) << i;
        }
    EXPECT_NEAR(p.values[300], 15 - 5.6, 0.3);
    EXPECT_NEAR(p.values[301], 9 - 5.6, 0.3);
    EXPECT_NEAR(p.values[700], 12 - 5.5, 0.3);
}

TEST(SuggestCorrelation, FindsAFractionalLagAndScoresAmbiguity)
{
    auto m = synthetic(30, 0.2375, 1.0, 7);
    auto c = correlate(events(m.evidence.frameChange), events(m.evidence.onset), 5, 20, 3);
    ASSERT_EQ(c.values.size(), 601u);
    auto peak = findPeak(c, 0.08);
    ASSERT_TRUE(peak);
    EXPECT_NEAR(peak->lag, 0.2375, 0.003);
    EXPECT_GT(peak->strength, 0.9);
    EXPECT_GT(peak->confidence(), 0.5);

    // Events every second exactly: lags one second apart fit as well, so
    // the peak is not distinct.
    Envelope regular, heard;
    regular.values.assign(3000, 0.f);
    heard.values.assign(3000, 0.f);
    for (int k = 1; k < 30; ++k) {
        regular.values[static_cast<std::size_t>(k * 100)] = 1;
        heard.values[static_cast<std::size_t>(k * 100 + 40)] = 1;
    }
    auto ambiguous = findPeak(correlate(regular, heard, 5, 20, 3), 0.08);
    ASSERT_TRUE(ambiguous);
    EXPECT_LT(ambiguous->distinctness(), 0.2);

    // A still picture correlates with nothing.
    Envelope still;
    still.values.assign(3000, 0.f);
    EXPECT_FALSE(findPeak(correlate(still, heard, 5, 20, 3), 0.08));
}

TEST(SuggestLine, AgreeingOffsetsWinOverStrays)
{
    std::vector<LocalOffset> offsets;
    for (int k = 0; k < 8; ++k) {
        double m = 15 + 30 * k;
        offsets.push_back({m, 0.8 + 1.004 * m + (k % 2 ? 0.006 : -0.006), 0.9, 0.9, 1, ""});
    }
    offsets[2].audioTime += 0.9;  // a window that locked onto another event
    offsets[5].audioTime -= 1.7;
    offsets[6].audioTime += 0.07; // just beyond the tolerance
    auto line = consensusLine(offsets, 0.04);
    ASSERT_TRUE(line);
    EXPECT_NEAR(line->slope, 1.004, 2e-4);
    EXPECT_NEAR(line->at(100), 0.8 + 100.4, 0.01);
    EXPECT_EQ(line->inliers, (std::vector<std::size_t>{0, 1, 3, 4, 7}));

    // Offsets that agree with no plausible line: none is proposed.
    std::vector<LocalOffset> scattered = {{10, 11.5, 1, 1, 1, ""}, {40, 39.0, 1, 1, 1, ""}, {70, 73.5, 1, 1, 1, ""}};
    EXPECT_FALSE(consensusLine(scattered, 0.04));
    EXPECT_FALSE(consensusLine({}, 0.04));
    EXPECT_FALSE(consensusLine({offsets[0]}, 0.04));
}

TEST(SuggestPoints, CandidatesLieOnTheTrueLineWithDriftAndDelay)
{
    for (auto [delay, rate, seed] : {std::tuple{-1.3, 1.005, 1u}, std::tuple{0.35, 0.996, 2u}, std::tuple{1.45, 1.0, 3u}}) {
        auto m = synthetic(240, delay, rate, seed);
        Settings s;
        auto got = suggestPoints(m.evidence, s);
        ASSERT_FALSE(got.refused()) << got.refusal;
        EXPECT_TRUE(got.refusal.empty());
        EXPECT_GE(got.candidates.size(), 6u) << "delay " << delay;
        ASSERT_TRUE(got.line);
        for (auto const& c : got.candidates) {
            EXPECT_NEAR(c.audioTime, delay + rate * c.movieTime, 0.01) << "delay " << delay << " at " << c.movieTime;
            EXPECT_GE(c.confidence, s.minConfidence);
        }
        EXPECT_NEAR(got.line->slope, rate, 1e-4);
    }
}

// A long movie's windows are measured on several threads: the windows,
// their order and the line are those of one thread, to the last bit.
TEST(SuggestPoints, WindowsMeasuredOnThreadsAreThoseOfOneThread)
{
    auto m = synthetic(240, 0.35, 0.996, 2);
    Settings one;
    one.threads = 1;
    Settings three = one;
    three.threads = 3;
    auto a = suggestPoints(m.evidence, one);
    auto b = suggestPoints(m.evidence, three);
    ASSERT_GE(a.windows.size(), 8u);
    ASSERT_EQ(a.windows.size(), b.windows.size());
    for (std::size_t i = 0; i < a.windows.size(); ++i) {
        EXPECT_EQ(a.windows[i].movieTime, b.windows[i].movieTime) << i;
        EXPECT_EQ(a.windows[i].audioTime, b.windows[i].audioTime) << i;
        EXPECT_EQ(a.windows[i].confidence, b.windows[i].confidence) << i;
    }
    for (std::size_t i = 1; i < b.windows.size(); ++i) EXPECT_LT(b.windows[i - 1].movieTime, b.windows[i].movieTime) << i;
    ASSERT_TRUE(a.line && b.line);
    EXPECT_EQ(a.line->slope, b.line->slope);
    EXPECT_EQ(a.line->intercept, b.line->intercept);
    EXPECT_EQ(a.candidates.size(), b.candidates.size());
}

TEST(SuggestPoints, RefusesWhenTheEvidenceDisagreesOrIsMissing)
{
    // Sound events unrelated to the picture.
    auto unrelated = synthetic(240, 0, 1, 4, false);
    auto got = suggestPoints(unrelated.evidence, Settings{});
    EXPECT_TRUE(got.refused());
    EXPECT_TRUE(got.candidates.empty());
    EXPECT_FALSE(got.refusal.empty());

    // Half of the movie is delayed by two seconds more than the other: the
    // windows split into two lines and neither is the rule.
    auto first = synthetic(240, 0.5, 1, 5);
    auto second = synthetic(240, 2.5, 1, 5);
    Evidence split = first.evidence;
    for (std::size_t i = 12000; i < split.onset.values.size(); ++i) split.onset.values[i] = second.evidence.onset.values[i];
    for (std::size_t i = 0; i < 12000; ++i) split.onset.values[i] = first.evidence.onset.values[i];
    // Four windows see one line, four the other: neither is the rule.
    auto halves = suggestPoints(split, Settings{});
    EXPECT_TRUE(halves.refused());
    EXPECT_EQ(halves.windows.size(), 8u);
    EXPECT_NE(halves.refusal.find("disagree"), std::string::npos) << halves.refusal;

    // Sound only over the first 24 s of a minute: the windows that see it
    // agree, but they lie too close together to place the line over the
    // whole minute (a few ms at each would be tens at its end).
    auto early = synthetic(60, 0.5, 1, 7);
    std::fill(early.evidence.onset.values.begin() + 2400, early.evidence.onset.values.end(), 0.f);
    auto near = suggestPoints(early.evidence, Settings{});
    EXPECT_TRUE(near.refused());
    EXPECT_TRUE(near.candidates.empty());
    EXPECT_NE(near.refusal.find("too close together (0:"), std::string::npos) << near.refusal;
    // With the sound all along, the same movie has its line.
    auto whole = suggestPoints(synthetic(60, 0.5, 1, 7).evidence, Settings{});
    ASSERT_FALSE(whole.refused()) << whole.refusal;
    EXPECT_NEAR(whole.line->at(60), 0.5 + 60, 0.01);

    // Too short to compare, and no picture at all.
    Evidence tiny = first.evidence;
    tiny.duration = 2.5;
    EXPECT_TRUE(suggestPoints(tiny, Settings{}).refused());
    EXPECT_NE(suggestPoints(tiny, Settings{}).refusal.find("too short"), std::string::npos);
    Evidence blind = first.evidence;
    std::fill(blind.frameChange.values.begin(), blind.frameChange.values.end(), 0.f);
    auto none = suggestPoints(blind, Settings{});
    EXPECT_TRUE(none.refused());
    EXPECT_NE(none.refusal.find("clear offset"), std::string::npos);
}

TEST(SuggestPoints, WindowsCoverShortAndLongMovies)
{
    Settings s;
    auto longOnes = windowStarts(600, s);
    ASSERT_EQ(longOnes.size(), 20u);
    EXPECT_DOUBLE_EQ(longOnes[1], 30);
    EXPECT_LE(longOnes.back() + s.windowSeconds, 600);
    auto shortOnes = windowStarts(60, s);
    ASSERT_EQ(shortOnes.size(), 4u);
    EXPECT_NEAR(shortOnes.back() + s.windowSeconds, 60, 1e-9);
    EXPECT_TRUE(windowStarts(5, s).empty());
}

// A clip no longer than one window: one window over all of it, the offset of
// the mouth's opening against the speech, proposed as two points inside the
// clip at that one offset. Shorter than the shortest clip, or with speech
// that has nothing to do with the mouth, it is refused.
TEST(SuggestPoints, AShortClipIsOneWindowProposedAsTwoPoints)
{
    Settings s;
    for (auto [seconds, lag, seed] : {std::tuple{5.0, 0.23, 1u}, std::tuple{3.0, -0.31, 2u}, std::tuple{12.0, 0.0, 3u}, std::tuple{8.0, -0.73, 4u}}) {
        auto got = suggestPoints(talkingClip(seconds, lag, seed), s);
        ASSERT_FALSE(got.refused()) << seconds << " s: " << got.refusal;
        ASSERT_EQ(got.windows.size(), 1u);
        EXPECT_EQ(got.windows[0].evidence, "mouth opening and speech");
        ASSERT_EQ(got.candidates.size(), 2u);
        ASSERT_TRUE(got.line);
        EXPECT_DOUBLE_EQ(got.line->slope, 1.0);
        EXPECT_NEAR(got.line->intercept, lag, 0.01) << seconds << " s";
        // The lone window's own confidence passed the floor; its candidates
        // read 0.5 or more, what automatic syncs take by default.
        EXPECT_GE(got.windows[0].confidence, s.minClipConfidence);
        EXPECT_GE(got.candidates[0].confidence, 0.5);
        EXPECT_LE(got.candidates[0].confidence, 1.0);
        auto const& first = got.candidates[0];
        auto const& last = got.candidates[1];
        EXPECT_LT(first.movieTime + seconds / 3, last.movieTime) << "the points are near the clip's ends";
        for (auto const& c : got.candidates) {
            EXPECT_NEAR(c.audioTime - c.movieTime, lag, 0.01);
            EXPECT_GE(std::min(c.movieTime, c.audioTime), 0) << seconds << " s";
            EXPECT_LE(std::max(c.movieTime, c.audioTime), seconds) << seconds << " s";
        }
    }

    auto tooShort = suggestPoints(talkingClip(2.5, 0.1, 5), s);
    EXPECT_TRUE(tooShort.refused());
    EXPECT_NE(tooShort.refusal.find("too short"), std::string::npos) << tooShort.refusal;

    for (unsigned seed : {6u, 7u, 8u}) {
        auto unrelated = suggestPoints(talkingClip(6, 0.2, seed, false), s);
        EXPECT_TRUE(unrelated.refused()) << "seed " << seed << ": " << unrelated.windows.at(0).confidence;
        EXPECT_TRUE(unrelated.candidates.empty());
        EXPECT_NE(unrelated.refusal.find("no clear offset"), std::string::npos) << unrelated.refusal;
        // What it measured is said, in milliseconds.
        EXPECT_NE(unrelated.refusal.find(" ms "), std::string::npos) << unrelated.refusal;
    }

    // A sound moved later has digital silence before it, far quieter than
    // the room between words, and the sound read at a lag can run past
    // either end: neither may pull the peak (the levels are floored at the
    // quiet tenth of the sound, and only the part of the window whose sound
    // exists is compared).
    for (auto [lag, seed] : {std::pair{0.4, 11u}, std::pair{-0.35, 12u}}) {
        Evidence ev = talkingClip(4, lag, seed);
        for (std::size_t i = 0; i < ev.speech.values.size(); ++i) ev.speech.values[i] += 0.02f; // the room
        auto silent = static_cast<std::size_t>(std::max(0.0, lag) * 100);
        std::fill(ev.speech.values.begin(), ev.speech.values.begin() + static_cast<std::ptrdiff_t>(silent), 0.f);
        if (lag < 0) ev.speech.values.resize(ev.speech.values.size() - static_cast<std::size_t>(-lag * 100));
        auto got = suggestPoints(ev, s);
        ASSERT_FALSE(got.refused()) << lag << ": " << got.refusal;
        EXPECT_NEAR(got.line->intercept, lag, 0.01);
    }
}

// Which of several faces speaks: the one whose mouth moves with the voice,
// wherever the sound lies within the lags tried, over the span it was seen.
TEST(SuggestPoints, AMouthFollowsTheVoiceAtAnyLagItIsLookedFor)
{
    for (auto [lag, seed] : {std::pair{0.0, 31u}, std::pair{0.6, 32u}, std::pair{-1.2, 33u}, std::pair{2.5, 34u}}) {
        Evidence speaker = talkingClip(12, lag, seed);
        Evidence listener = talkingClip(12, lag, seed + 100); // another mouth, with a voice of its own
        auto voice = voiceOf(speaker);
        double withSpeaker = mouthFollowsVoice(speaker, voice, 0, 12, 3);
        double withListener = mouthFollowsVoice(listener, voice, 0, 12, 3);
        EXPECT_GT(withSpeaker, 0.4) << lag;
        EXPECT_LT(withListener, 0.5 * withSpeaker) << lag;
        // Looked for at lags short of where the sound lies, the speaker is
        // no clearer than the listener.
        if (std::fabs(lag) > 1) {
            EXPECT_LT(mouthFollowsVoice(speaker, voice, 0, 12, 0.5), 0.5 * withSpeaker) << lag;
        }
        // Over part of the clip only.
        EXPECT_GT(mouthFollowsVoice(speaker, voice, 6, 6, 3), 0.2) << lag;
        EXPECT_GT(mouthFollowsVoice(speaker, voice, 6, 6, 3), 2 * mouthFollowsVoice(listener, voice, 6, 6, 3)) << lag;
    }
    Evidence clip = talkingClip(6, 0.1, 35);
    Evidence silent = clip;
    silent.speech.values.clear();
    EXPECT_TRUE(voiceOf(silent).levels.empty());
    EXPECT_EQ(mouthFollowsVoice(clip, voiceOf(silent), 0, 6, 1), 0);
    EXPECT_EQ(mouthFollowsVoice(clip, voiceOf(clip), 2, 0.02, 1), 0); // too short a span to say
}

// A speaker is told by all the measures of the mouth, not by the landmarks'
// opening alone, which jitters on small faces; and by a clear lag, not by
// the highest correlation: a mouth that moves with the voice's slow swell
// (a singer miming a song, a nodding listener) follows it nearly as well at
// many lags.
TEST(SuggestPoints, TheSpeakerIsTheMouthThatFollowsTheVoiceClearly)
{
    for (unsigned seed : {41u, 42u, 43u}) {
        Evidence speaker = talkingClip(9, 0.2, seed);
        auto voice = voiceOf(speaker);
        std::mt19937 rng(seed);
        std::normal_distribution<double> jitter(0, 0.15);
        Evidence jittery = speaker;
        jittery.mouthDark = speaker.mouthOpening;
        jittery.mouthShade = speaker.mouthOpening;
        for (float& v : jittery.mouthOpening.values) v = static_cast<float>(jitter(rng));
        // The swell: the voice's level averaged over a second, at the right lag.
        Evidence swell = speaker;
        swell.mouthOpening = smoothed(speaker.speech, 1.0);
        swell.mouthOpening.start = speaker.mouthOpening.start - 0.2;
        double withJittery = mouthFollowsVoice(jittery, voice, 0, 9, 3);
        double withSwell = mouthFollowsVoice(swell, voice, 0, 9, 3);
        double withSpeaker = mouthFollowsVoice(speaker, voice, 0, 9, 3);
        EXPECT_GT(withJittery, 0.25) << seed;
        EXPECT_LT(withSwell, 0.5 * withSpeaker) << seed;
    }
}

// A clip is measured at lags of a third of it either way (1 s at least,
// where it is that long), a longer movie at the full range.
TEST(SuggestPoints, LagsMeasuredGrowWithAClipUpToTheFullRange)
{
    Settings s;
    EXPECT_DOUBLE_EQ(lagsMeasured(s, 2.4), 0.8);
    EXPECT_DOUBLE_EQ(lagsMeasured(s, 3), 1);
    EXPECT_DOUBLE_EQ(lagsMeasured(s, 6), 2);
    EXPECT_DOUBLE_EQ(lagsMeasured(s, 15), s.maxLag);
    EXPECT_DOUBLE_EQ(lagsMeasured(s, 600), s.maxLag);
}

// The helpers of the mouth's evidence: an average over a span and a rate of
// change per second.
TEST(SuggestEnvelopes, SmoothingAndRateOfChange)
{
    Envelope ramp;
    ramp.rate = 100;
    for (int i = 0; i < 50; ++i) ramp.values.push_back(static_cast<float>(i < 25 ? 0.02 * i : 0.5));
    Envelope rate = rateOfChange(ramp);
    EXPECT_NEAR(rate.values[10], 2.0, 1e-4); // 0.02 a hundredth of a second
    EXPECT_NEAR(rate.values[40], 0.0, 1e-6);
    EXPECT_NEAR(rate.values[0], 2.0, 1e-4); // one-sided at the ends
    Envelope step;
    step.rate = 100;
    step.values.assign(20, 0.f);
    std::fill(step.values.begin() + 10, step.values.end(), 1.f);
    Envelope even = smoothed(step, 0.05); // five values
    EXPECT_FLOAT_EQ(even.values[10], 0.6f);
    EXPECT_FLOAT_EQ(even.values[9], 0.4f);
    EXPECT_FLOAT_EQ(even.values[3], 0.f);
    EXPECT_FLOAT_EQ(even.values[19], 1.f);
}
