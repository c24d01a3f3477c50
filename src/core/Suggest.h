// Suggested sync points: envelopes of the sound and the picture, the offset
// between them in windows of the movie, and the one line those offsets agree
// on. Plain arrays in, candidate points out: no decoding here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <memory>
#include <vector>

namespace suggest {

// Values sampled at a fixed rate: values[i] belongs to time start + i / rate.
struct Envelope {
    double rate = 100.0;
    double start = 0.0;
    std::vector<float> values;

    double timeAt(double index) const { return start + index / rate; }
    std::size_t size() const { return values.size(); }
};

// The hop of the sound envelopes, in seconds.
constexpr double kHopSeconds = 0.01;

// Onset strength and speech energy of mono samples, one value per 10 ms hop
// starting at time 0. Onset strength is the spectral flux: the summed rise
// of the log magnitude spectrum from one hop to the next, so a click, a
// syllable or a change of sound shows as a peak where it begins. Speech
// energy is the loudness (RMS amplitude) of the 300-3400 Hz band.
struct SoundEnvelopes {
    Envelope onset;
    Envelope speech;
    // Changes of sound (a scene's sound giving way to another's): how much
    // the band levels of the 40 ms after each instant differ from those of
    // the 40 ms before it, either way, for a change that lasts. Steadier
    // than the onset strength in noise; blind to clicks.
    Envelope change;
    // The loudness of 800-1600 Hz and of 1600-3200 Hz (where the first two
    // formants of a voice move as the mouth opens and closes).
    Envelope voiceLow, voiceHigh;
};
SoundEnvelopes soundEnvelopes(float const* samples, std::size_t count, int sampleRate);

// The same envelopes from samples given piece by piece, holding only a
// window of them: a film of two hours is 1.4 GB of mono samples, its
// envelopes a few megabytes. The result equals soundEnvelopes() of all the
// pieces put together.
class SoundEnvelopeBuilder {
public:
    explicit SoundEnvelopeBuilder(int sampleRate);
    ~SoundEnvelopeBuilder();
    SoundEnvelopeBuilder(SoundEnvelopeBuilder const&) = delete;
    SoundEnvelopeBuilder& operator=(SoundEnvelopeBuilder const&) = delete;
    void add(float const* samples, std::size_t count);
    // The envelopes of all samples added; the builder is spent.
    SoundEnvelopes finish();

private:
    struct State;
    void analyseHop();
    std::unique_ptr<State> s_;
};

// Accumulates frames of a picture (grey levels, any size, the same for all
// frames) into a frame-change envelope at 100 Hz, placed at the time of each
// frame: how far it lies from both of the two frames before it (the smaller
// mean absolute difference). A cut or a step of brightness shows once; a
// flash shows when it comes, not when it goes (the frame after it is like
// the one before it).
class FrameChangeBuilder {
public:
    explicit FrameChangeBuilder(double rate = 100.0) : rate_(rate) {}
    // A frame shown from `seconds`; frames come in time order.
    void add(double seconds, std::uint8_t const* pixels, int width, int height, int stride);
    // A change measured elsewhere (a region's own difference energy), placed
    // at `seconds`; the first value of a run carries no change.
    void addValue(double seconds, float value);
    // Ends a run (the region was lost): the next frame starts a new one.
    void breakRun()
    {
        previous_.clear();
        beforePrevious_.clear();
    }
    Envelope const& envelope() const { return env_; }
    // Extends the envelope with zeros up to `seconds`.
    void finish(double seconds);

private:
    void place(double seconds, float value);
    double rate_;
    Envelope env_;
    std::vector<std::uint8_t> previous_, beforePrevious_;
};

// The mean absolute difference of two equally sized grey regions.
float differenceEnergy(std::uint8_t const* a, int strideA, std::uint8_t const* b, int strideB, int width, int height);

// Removes the slow part of an envelope (its running mean over `seconds`) and
// clips the remainder at zero: what is left are events.
Envelope events(Envelope const& e, double seconds = 0.5);

// The peaks of an envelope that stand out from their surroundings: a local
// maximum higher than the mean of the `seconds` around it by `spread` of
// their standard deviations is kept (with its two neighbours, for its
// shape), less that mean; everything else becomes zero. Cuts, flashes and
// clicks survive; the flicker of noise and steady motion do not.
Envelope peaks(Envelope const& e, double seconds = 1.0, double spread = 2.0);

// The normalised cross-correlation of `picture` (movie time) and `sound`
// (audio time) over a window of movie time, for every lag in a range:
// sound(t + lag) against picture(t). Both envelopes must share one rate.
struct Peak {
    double lag = 0;      // seconds, refined between samples (parabolic)
    double strength = 0; // correlation at the peak, -1 ... 1
    double runnerUp = 0; // the best correlation outside the exclusion zone
    // How much the peak stands out over the runner-up: 1 - runnerUp/strength
    // (0 when there is no clear peak).
    double distinctness() const;
    // distinctness x the square root of the strength, 0 ... 1: a peak that
    // stands alone counts even where the evidence correlates only loosely
    // (a mouth and a voice never match as a flash and a click do).
    double confidence() const;
};
struct Correlation {
    double firstLag = 0;         // seconds of values[0]
    double step = 0.01;          // seconds between lags
    std::vector<double> values;  // correlation at each lag
};
Correlation correlate(Envelope const& picture, Envelope const& sound, double windowStart, double windowSeconds, double maxLag);
// The highest value of a correlation, refined with a parabola through it and
// its neighbours, and the best value farther than `exclusion` seconds from it.
std::optional<Peak> findPeak(Correlation const& c, double exclusion);

// A measured local offset: at movie time `movieTime` the sound that belongs
// lies at audio time `audioTime`.
struct LocalOffset {
    double movieTime = 0;
    double audioTime = 0;
    double confidence = 0;
    double strength = 0;
    double distinctness = 0;
    std::string evidence; // "cuts and onsets", "mouth and speech"
};

// The line audio = slope x movie + intercept that most local offsets agree
// with (within `tolerance` seconds): every pair of offsets proposes a line,
// the one with the most agreeing offsets wins (ties: the smallest spread),
// and it is refitted by least squares to those. Slopes outside
// [minSlope, maxSlope] are not considered.
struct Line {
    double slope = 1;
    double intercept = 0;
    std::vector<std::size_t> inliers; // indices into the offsets, in order
    double at(double movieTime) const { return slope * movieTime + intercept; }
};
std::optional<Line> consensusLine(std::vector<LocalOffset> const& offsets, double tolerance, double minSlope = 0.98,
                                  double maxSlope = 1.02);

struct Settings {
    double windowSeconds = 20;
    double windowStep = 30;
    int minWindows = 4;          // shorter movies get overlapping windows
    double maxLag = 3;           // seconds either way
    // Rates of the sound against the picture tried in each window before a
    // line is known: 1, 1 +- step, ... up to 1 +- maxDrift. A window of 20 s
    // at 0.5 % drift spreads its events over 100 ms at rate 1.
    double maxDrift = 0.0075;
    double driftStep = 0.0025;
    double frameSeconds = 0.04;  // one frame of the movie
    double minConfidence = 0.15; // a window weaker than this is not used
    double tolerance = 0.04;     // offsets within this of the line agree
    // Clips no longer than one window, from minClipSeconds on, are measured
    // by one window over the whole clip, at lags up to a third of the clip
    // either way, no less than shortMaxLag (when the clip allows) and no
    // more than maxLag: one offset, proposed as a point near each end.
    double minClipSeconds = 3;
    double shortMaxLag = 1;
    // A clip's lone window has no other windows to agree with, so chance
    // must be ruled out by its confidence alone. On nine real clips of
    // people speaking (3-15 s), each with its sound moved six ways, and on
    // 72 pairs of one clip's picture with another's sound, the pairs reached
    // 0.27 at most and the moved copies 0.24-0.36 where they were right; at
    // 0.30 no pair and no copy was proposed wrongly (at 0.28, two copies of
    // one clip were, 45 ms off its published sync).
    double minClipConfidence = 0.30;
    // Threads that measure a movie's windows (each window on its own; the
    // result is the same for any number). 0: one per processor.
    int threads = 0;
};

// What the evidence says: the candidates (offsets that agree with one line,
// in movie-time order), the line, every window's measurement, and when no
// line is found, why.
struct Suggestion {
    std::vector<LocalOffset> candidates;
    std::vector<LocalOffset> windows; // every window with a peak
    std::optional<Line> line;
    std::string refusal; // empty when there are candidates
    bool refused() const { return candidates.size() < 2; }
};

// The evidence of one movie, all envelopes at one rate. `mouth` and
// `speech` may be empty (no face found).
struct Evidence {
    Envelope onset;       // sound, audio time
    Envelope speech;      // sound, audio time
    Envelope soundChange; // sound, audio time; may be empty
    Envelope voiceLow, voiceHigh; // sound, audio time; may be empty
    Envelope frameChange; // picture, movie time
    Envelope mouth;       // picture, movie time; zero where no face
    // The mouth's opening by facial landmarks (picture, movie time), or
    // empty when the mouth was watched by its motion alone.
    Envelope mouthOpening;
    // With landmarks, the same face's outer lips' opening, its jaw's drop,
    // the darkness and shade inside its lips, and the look of its mouth's
    // picture (see the media layer's MouthShape); empty otherwise.
    Envelope lipsApart, jaw, mouthDark, mouthShade, mouthLook;
    double duration = 0;  // movie seconds
};

// Windows over the movie, the offset each one measures, and the candidates.
// A window correlates picture changes with sound onsets and with changes of
// sound, mouth motion with changes of speech energy where a mouth was seen,
// and the rate of change of the mouth's opening (by landmarks) with that of
// the speech energy; the clearest is its measurement. A clip
// no longer than one window is one window (see Settings::minClipSeconds).
Suggestion suggestPoints(Evidence const& evidence, Settings const& settings);

// The rate of change of an envelope (central difference, per second).
Envelope rateOfChange(Envelope const& e);

// An envelope averaged over `seconds` around each value.
Envelope smoothed(Envelope const& e, double seconds);

// The start times of the windows over a movie of `duration` seconds.
std::vector<double> windowStarts(double duration, Settings const& settings);

// How far either way the sound is looked for in a movie of `duration`
// seconds: maxLag in its windows, less in a clip (see minClipSeconds).
double lagsMeasured(Settings const& s, double duration);

// The voice of a movie as mouths are compared with it: the log level of each
// formant band of `evidence` (of the whole speech band when they are
// missing), over about a syllable's attack, and its rate of change; empty
// without a voice.
struct Voice {
    std::vector<Envelope> levels, rates;
};
Voice voiceOf(Evidence const& evidence);

// How clearly a mouth moves with a voice over [start, start + seconds]: the
// landmark measures of `mouth` (picture, movie time) against the voice's,
// as a window compares them, at lags up to `maxLag` either way; the
// confidence of their mean's peak (see Peak). 0 without a voice, without
// landmarks or with too little of the span.
double mouthFollowsVoice(Evidence const& mouth, Voice const& voice, double start, double seconds, double maxLag);

} // namespace suggest
