#include "DubSound.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

using namespace dubbench;
using nlohmann::json;

namespace {

constexpr double kPi = 3.14159265358979323846;

std::vector<float> sine(double freq, std::size_t count)
{
    std::vector<float> v(count);
    for (std::size_t i = 0; i < count; ++i) v[i] = static_cast<float>(std::sin(2 * kPi * freq * static_cast<double>(i) / kRate));
    return v;
}

double rms(std::vector<float> const& v, std::size_t from, std::size_t to)
{
    double sum = 0;
    for (std::size_t i = from; i < to; ++i) sum += static_cast<double>(v[i]) * v[i];
    return std::sqrt(sum / static_cast<double>(to - from));
}

double correlation(std::vector<float> const& a, std::vector<float> const& b)
{
    double ab = 0, aa = 0, bb = 0;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) ab += a[i] * b[i], aa += a[i] * a[i], bb += b[i] * b[i];
    return ab / std::sqrt(aa * bb);
}

} // namespace

// The truth of every case rests on the resampler reading the source exactly
// where it is told: a 1 kHz sine read at start + n * step must be the sine
// at that time, to far better than a microsecond, at every speed of the set.
TEST(DubResample, ReadsWhereItIsTold)
{
    auto src = sine(1000, kRate * 2);
    for (double step : {1.0, 24.0 / 25, 25.0 / 24, 1000.0 / 1001, 1.0 / 1.013}) {
        for (double start : {0.0, 100.37, 2000.5}) {
            std::size_t count = 40000;
            auto out = resample(src, count, start, step);
            double worst = 0;
            for (std::size_t n = 2000; n < count; ++n) { // away from the source's start, where the kernel runs out
                double pos = start + static_cast<double>(n) * step;
                if (pos > static_cast<double>(src.size()) - 100) break;
                worst = std::max(worst, std::fabs(out[n] - std::sin(2 * kPi * 1000 * pos / kRate)));
            }
            // 1e-3 of the amplitude at 1 kHz is a time error of 0.16 us at most.
            EXPECT_LT(worst, 1e-3) << "step " << step << " start " << start;
        }
    }
}

TEST(DubResample, SilentOutsideTheSourceAndAntiAliasedWhenReadingFaster)
{
    auto src = sine(1000, kRate);
    auto before = resample(src, 2000, -1000, 1);
    EXPECT_EQ(before[0], 0.f);
    EXPECT_EQ(before[900], 0.f);
    EXPECT_GT(rms(before, 1100, 2000), 0.6);
    auto after = resample(src, 100, kRate + 100, 1);
    EXPECT_EQ(after[50], 0.f);

    // Read 4 % faster, 23.5 kHz would fold back below the new Nyquist
    // frequency: it must be filtered out, while 5 kHz passes.
    auto high = resample(sine(23500, kRate), 20000, 0, 1.04);
    EXPECT_LT(rms(high, 1000, 19000), 0.01);
    auto low = resample(sine(5000, kRate), 20000, 0, 1.04);
    EXPECT_NEAR(rms(low, 1000, 19000), std::sqrt(0.5), 0.01);
}

// The bed is what the dub and the English track share: it must be the same
// for a seed, another film's for another seed, never silent, and not repeat.
TEST(DubBed, SameForASeedDifferentForAnotherAndNotPeriodic)
{
    auto a = makeBed(7, 60), b = makeBed(7, 60), c = makeBed(8, 60);
    ASSERT_EQ(a.size(), static_cast<std::size_t>(60 * kRate));
    EXPECT_EQ(a, b);
    EXPECT_LT(std::fabs(correlation(a, c)), 0.1);
    for (std::size_t w = 0; w + 5 * kRate <= a.size(); w += 5 * kRate) {
        double level = rms(a, w, w + 5 * kRate);
        EXPECT_GT(level, 0.003) << "at " << w / kRate << " s";
        EXPECT_LT(level, 0.5);
    }
    // Any 5 s against the same length 20 s later: no repeated pattern.
    std::vector<float> first(a.begin() + 10 * kRate, a.begin() + 15 * kRate), later(a.begin() + 30 * kRate, a.begin() + 35 * kRate);
    EXPECT_LT(std::fabs(correlation(first, later)), 0.2);
}

TEST(DubDialogue, SlotsAndPhrases)
{
    std::mt19937 rng(3);
    std::vector<double> lengths = {0.4, 2.5, 7.0};
    auto slots = dialogueSlots(rng, 10, 100, [&](std::size_t k) { return lengths[k % 3]; });
    ASSERT_GT(slots.size(), 10u);
    for (std::size_t k = 0; k < slots.size(); ++k) {
        EXPECT_GE(slots[k].length, 1.0); // too short a phrase is held for a second, too long cut at 4 s
        EXPECT_LE(slots[k].length, 4.0);
        EXPECT_GE(slots[k].start, 10.0);
        EXPECT_LE(slots[k].start + slots[k].length, 100.0);
        if (k > 0) {
            EXPECT_GE(slots[k].start - slots[k - 1].start - slots[k - 1].length, 0.6);
        }
    }

    // A phrase cut off fades out; one that fits is added whole; nothing
    // lands outside the track.
    std::vector<float> track(10000, 0.f), phrase(6000, 1.f);
    addPhrase(track, phrase, 1000, 4000, 0.5f);
    EXPECT_FLOAT_EQ(track[1000], 0.5f);
    EXPECT_FLOAT_EQ(track[3700], 0.5f);
    EXPECT_LT(track[4999], 0.01f);
    EXPECT_EQ(track[5000], 0.f);
    addPhrase(track, phrase, 7000, 10000, 1.f);
    EXPECT_FLOAT_EQ(track[9999], 1.f);
    addPhrase(track, phrase, -3000, 10000, 1.f);
    EXPECT_FLOAT_EQ(track[0], 1.f);
    EXPECT_FLOAT_EQ(track[2999], 1.5f);
    EXPECT_FLOAT_EQ(track[3000], 0.5f);
}

TEST(DubScore, Verdicts)
{
    Truth truth{25.0 / 24, 3.5};
    auto candidate = [&](double m, double offMs, double confidence) {
        return json{{"movie_time", m}, {"audio_time", truth.at(m) + offMs / 1000}, {"confidence", confidence}, {"evidence", "bed"}};
    };
    auto answer = [&](std::vector<json> cands, double slopeOff, double interceptOffMs) {
        return json{{"candidates", cands},
                    {"line", {{"slope", truth.r + slopeOff}, {"intercept", truth.c + interceptOffMs / 1000}}},
                    {"differ", json::array({json{{"from", 100.0}, {"to", 130.0}}})},
                    {"refusal", nullptr}};
    };

    Score s = scoreSuggestion(0, answer({candidate(10, 0.3, 0.9), candidate(200, -0.8, 0.7)}, 0, 0.2), truth, 240, 0, 0);
    EXPECT_EQ(s.verdict, Verdict::Found);
    EXPECT_NEAR(s.worstMs, 0.8, 1e-6);
    EXPECT_EQ(s.candidates, 2u);

    // A confident candidate 40 ms off is wrong, and says by how much.
    s = scoreSuggestion(0, answer({candidate(10, 0.3, 0.9), candidate(200, 40, 0.6)}, 0, 0), truth, 240, 0, 0);
    EXPECT_EQ(s.verdict, Verdict::Wrong);
    EXPECT_NEAR(s.worstConfidentMs, 40, 1e-6);
    EXPECT_NE(s.note.find("40.0 ms"), std::string::npos);

    // Off but unsure, or a line whose end strays (5e-6 of 240 s is 1.2 ms):
    // not found, not wrong.
    s = scoreSuggestion(0, answer({candidate(10, 0.3, 0.9), candidate(200, 40, 0.3)}, 0, 0), truth, 240, 0, 0);
    EXPECT_EQ(s.verdict, Verdict::Inexact);
    s = scoreSuggestion(0, answer({candidate(10, 0.3, 0.9)}, 5e-6, 0), truth, 240, 0, 0);
    EXPECT_EQ(s.verdict, Verdict::Inexact);
    EXPECT_NEAR(s.worstMs, 1.2, 1e-3);
    s = scoreSuggestion(0, answer({}, 0, 0), truth, 240, 0, 0);
    EXPECT_EQ(s.verdict, Verdict::Inexact);

    // An answer that does not say where the sounds differ is flagged.
    json noDiffer = answer({candidate(10, 0, 1)}, 0, 0);
    noDiffer.erase("differ");
    s = scoreSuggestion(0, noDiffer, truth, 240, 0, 0);
    EXPECT_EQ(s.verdict, Verdict::Found);
    EXPECT_NE(s.note.find("differ"), std::string::npos);
    EXPECT_EQ(scoreSuggestion(0, answer({candidate(10, 0, 1)}, 0, 0), truth, 240, 0, 0).note, "");

    // The cut is reported when a differing stretch overlaps it.
    EXPECT_TRUE(scoreSuggestion(0, answer({candidate(10, 0, 1)}, 0, 0), truth, 240, 120, 150).cutReported);
    EXPECT_FALSE(scoreSuggestion(0, answer({candidate(10, 0, 1)}, 0, 0), truth, 240, 130, 160).cutReported);

    // Refusals, failures and answers that break the contract.
    s = scoreSuggestion(1, json{{"refusal", "the sounds share nothing"}, {"error", "..."}}, truth, 240, 0, 0);
    EXPECT_EQ(s.verdict, Verdict::Refused);
    EXPECT_EQ(s.note, "the sounds share nothing");
    EXPECT_EQ(scoreSuggestion(2, json{{"error", "usage"}}, truth, 240, 0, 0).verdict, Verdict::Error);
    EXPECT_EQ(scoreSuggestion(0, json::parse("not json", nullptr, false), truth, 240, 0, 0).verdict, Verdict::Error);
    EXPECT_EQ(scoreSuggestion(0, json{{"candidates", json::array({json{{"movie_time", 1.0}}})}}, truth, 240, 0, 0).verdict, Verdict::Error);
}
