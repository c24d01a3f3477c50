// The sound of the dub benchmark: a bed of music and effects, speech placed
// in dialogue slots, band-limited re-timing, and the score of a suggestion
// against the line a dub was made along.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace dubbench {

constexpr int kRate = 48000;

// Music and effects, `seconds` long from sample 0: notes and chords whose
// onsets fall at random, in sections of their own key, tempo and timbre;
// noise bursts, thumps and swooshes; a quiet ambience whose level wanders.
// The same seed gives the same samples.
std::vector<float> makeBed(unsigned seed, double seconds);

// Band-limited interpolation: out[n] is `src` read at source position
// start + n * step (in source samples; zero outside it), through a
// Kaiser-windowed sinc whose cut-off drops with a step above 1, so reading
// faster does not alias.
std::vector<float> resample(std::vector<float> const& src, std::size_t count, double start, double step);

// A stretch of dialogue: where a phrase starts and how long it may last.
struct Slot {
    double start, length;
};

// Slots of 1 to 4 s with pauses between them, from `from` to `to` seconds.
// `phraseLength(k)` gives the length the k-th phrase would have; a slot is
// that long (at most 4 s).
std::vector<Slot> dialogueSlots(std::mt19937& rng, double from, double to, std::function<double(std::size_t)> const& phraseLength);

// Adds `phrase` (48 kHz) into `track` from sample `at`, at most `maxSamples`
// of it, with a short fade where it is cut off.
void addPhrase(std::vector<float>& track, std::vector<float> const& phrase, std::int64_t at, std::size_t maxSamples, float gain);

// The line a dub was made along: the sound heard at movie time m lies at
// r * m + c in the unedited dub.
struct Truth {
    double r = 1, c = 0;
    double at(double m) const { return r * m + c; }
};

enum class Verdict { Found, Inexact, Wrong, Refused, Error };
char const* verdictName(Verdict v);

struct Score {
    Verdict verdict = Verdict::Error;
    double worstMs = 0;          // largest |error| over the candidates and the line's ends
    double worstConfidentMs = 0; // the same over the candidates of confidence >= 0.5
    std::size_t candidates = 0;
    bool cutReported = false;    // a stretch that differs overlaps [cutFrom, cutTo]
    std::string note;
};

// Scores the answer of `suggest --json` (exit status `status`) against the
// truth over a movie of `seconds`. 1 ms is the tolerance: "found" when every
// candidate and both ends of the line are within it; "wrong" when a
// candidate of confidence >= 0.5 is not; "inexact" otherwise. Exit status 1
// is a refusal; anything else, or an answer that breaks the contract, an
// error. cutTo <= cutFrom: no cut.
Score scoreSuggestion(int status, nlohmann::json const& answer, Truth const& truth, double seconds, double cutFrom, double cutTo);

} // namespace dubbench
