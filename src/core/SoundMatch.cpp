#include "SoundMatch.h"

#include "Fft.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numeric>

namespace suggest {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kEnvelopeRate = 100; // hops per second
using Spectrum = std::vector<std::complex<float>>;

// Each band with zero mean and unit variance over the whole sound, so that
// loud and quiet bands count alike.
void normalise(std::vector<std::vector<float>>& bands)
{
    for (auto& b : bands) {
        if (b.empty()) continue;
        double mean = std::accumulate(b.begin(), b.end(), 0.0) / static_cast<double>(b.size());
        double var = 0;
        for (float x : b) var += (x - mean) * (x - mean);
        double sd = std::sqrt(var / static_cast<double>(b.size()));
        for (float& x : b) x = sd > 1e-9 ? static_cast<float>((x - mean) / sd) : 0.f;
    }
}

// Linear interpolation, zero outside.
float linearAt(std::vector<float> const& x, double index)
{
    if (index < 0) return 0.f;
    auto i = static_cast<std::size_t>(index);
    if (i + 1 >= x.size()) return i < x.size() && index == static_cast<double>(i) ? x[i] : 0.f;
    auto f = static_cast<float>(index - static_cast<double>(i));
    return x[i] + f * (x[i + 1] - x[i]);
}

// Catmull-Rom interpolation between samples, zero outside: a waveform read
// at fractional positions without shifting it.
float cubicAt(std::vector<float> const& x, double index)
{
    auto i = static_cast<std::int64_t>(std::floor(index));
    double f = index - static_cast<double>(i);
    auto s = [&](std::int64_t k) { return k >= 0 && k < static_cast<std::int64_t>(x.size()) ? x[static_cast<std::size_t>(k)] : 0.0f; };
    double p0 = s(i - 1), p1 = s(i), p2 = s(i + 1), p3 = s(i + 2);
    return static_cast<float>(p1 + 0.5 * f * (p2 - p0 + f * (2 * p0 - 5 * p1 + 4 * p2 - p3 + f * (3 * (p1 - p2) + p3 - p0))));
}

// The spectra of two real signals from one complex FFT.
void twoRealSpectra(Spectrum const& z, Spectrum& a, Spectrum& b)
{
    std::size_t n = z.size();
    a.resize(n);
    b.resize(n);
    for (std::size_t k = 0; k < n; ++k) {
        std::complex<float> zk = z[k], zn = std::conj(z[(n - k) % n]);
        a[k] = 0.5f * (zk + zn);
        b[k] = std::complex<float>(0, -0.5f) * (zk - zn);
    }
}

// The spectra of the bands of a stretch, `length` values from `first` of
// each band read by `value(band, i)`, zero-padded to `n`; two bands per FFT.
template <class Value>
std::vector<Spectrum> bandSpectra(std::size_t bands, std::size_t length, std::size_t n, Value const& value)
{
    std::vector<Spectrum> out(bands);
    Spectrum z(n);
    for (std::size_t b = 0; b < bands; b += 2) {
        std::fill(z.begin(), z.end(), std::complex<float>());
        for (std::size_t i = 0; i < length; ++i) z[i] = {value(b, i), b + 1 < bands ? value(b + 1, i) : 0.f};
        fft(z);
        Spectrum second;
        twoRealSpectra(z, out[b], second);
        if (b + 1 < bands) out[b + 1] = std::move(second);
    }
    return out;
}

struct CoarseResult {
    double speed = 1;
    std::optional<Line> line;
    double score = 0;
    int agreeing = 0;
    int windows = 0;
};

// The speed and offset on which most coarse windows agree: for each speed
// tried, each window of the reference's band onsets is found in the sound
// read at that speed, and the windows' offsets must lie on one line.
CoarseResult coarseSearch(std::vector<std::vector<float>> const& ref, std::vector<std::vector<float>> const& snd, MatchSettings const& s)
{
    CoarseResult best;
    std::size_t nR = ref.empty() ? 0 : ref[0].size(), nD = snd.empty() ? 0 : snd[0].size();
    if (nR < 200 || nD < 200) return best;
    auto win = static_cast<std::size_t>(std::min(s.coarseWindow, std::max(5.0, static_cast<double>(nR) / kEnvelopeRate / 3)) * kEnvelopeRate);
    win = std::min(win, nR);
    auto maxLag = static_cast<std::size_t>(s.maxOffset * kEnvelopeRate);
    std::size_t n = fftSize(win + 2 * maxLag);
    int count = nR <= win ? 1 : std::max(1, std::min(s.coarseWindows, static_cast<int>(nR / (win / 2))));
    std::vector<std::size_t> starts;
    for (int k = 0; k < count; ++k)
        starts.push_back(count == 1 ? 0 : static_cast<std::size_t>(static_cast<double>(k) * static_cast<double>(nR - win) / (count - 1)));
    std::size_t bands = ref.size();
    // The reference windows' spectra and energies do not depend on the speed.
    std::vector<std::vector<Spectrum>> refSpectra;
    std::vector<double> refEnergy;
    for (std::size_t st : starts) {
        refSpectra.push_back(bandSpectra(bands, win, n, [&](std::size_t b, std::size_t i) { return ref[b][st + i]; }));
        double e = 0;
        for (std::size_t b = 0; b < bands; ++b)
            for (std::size_t i = 0; i < win; ++i) e += static_cast<double>(ref[b][st + i]) * ref[b][st + i];
        refEnergy.push_back(e);
    }
    std::vector<double> speeds;
    for (auto const& named : transferSpeeds()) speeds.push_back(named.value);
    for (double v = 1 - s.maxSpeedChange; v <= 1 + s.maxSpeedChange + 1e-9; v += s.speedStep) speeds.push_back(v);
    best.windows = count;
    Spectrum cross(n);
    std::vector<float> segment(win + 2 * maxLag);
    for (std::size_t si = 0; si < speeds.size(); ++si) {
        double speed = speeds[si];
        // The coarse search is most of the work.
        if (s.progress) s.progress(0.8 * static_cast<double>(si) / static_cast<double>(speeds.size()));
        std::vector<LocalOffset> offsets;
        for (std::size_t k = 0; k < starts.size(); ++k) {
            // The sound read at this speed, around where the window lies.
            auto first = static_cast<double>(starts[k]) - static_cast<double>(maxLag);
            std::vector<std::vector<float>> seg(bands, std::vector<float>(segment.size()));
            for (std::size_t b = 0; b < bands; ++b)
                for (std::size_t i = 0; i < segment.size(); ++i) seg[b][i] = linearAt(snd[b], (first + static_cast<double>(i)) * speed);
            auto sndSpectra = bandSpectra(bands, segment.size(), n, [&](std::size_t b, std::size_t i) { return seg[b][i]; });
            std::fill(cross.begin(), cross.end(), std::complex<float>());
            for (std::size_t b = 0; b < bands; ++b)
                for (std::size_t i = 0; i < n; ++i) cross[i] += std::conj(refSpectra[k][b][i]) * sndSpectra[b][i];
            inverseFft(cross);
            // Energy of each stretch of the segment, for a normalised correlation.
            std::vector<double> prefix(segment.size() + 1, 0.0);
            for (std::size_t i = 0; i < segment.size(); ++i) {
                double e = 0;
                for (std::size_t b = 0; b < bands; ++b) e += static_cast<double>(seg[b][i]) * seg[b][i];
                prefix[i + 1] = prefix[i] + e;
            }
            double peak = -2, runnerUp = -2;
            std::size_t at = 0;
            std::vector<double> values(2 * maxLag + 1);
            for (std::size_t lag = 0; lag <= 2 * maxLag; ++lag) {
                double e = prefix[lag + win] - prefix[lag];
                values[lag] = e > 1e-9 && refEnergy[k] > 1e-9 ? cross[lag].real() / std::sqrt(e * refEnergy[k]) : 0.0;
                if (values[lag] > peak) peak = values[lag], at = lag;
            }
            for (std::size_t lag = 0; lag <= 2 * maxLag; ++lag)
                if ((lag + 10 < at || lag > at + 10) && values[lag] > runnerUp) runnerUp = values[lag];
            if (peak <= 0.05) continue;
            double distinct = runnerUp > 0 ? 1 - runnerUp / peak : 1;
            double centre = static_cast<double>(starts[k]) + static_cast<double>(win) / 2;
            LocalOffset o;
            o.movieTime = centre / kEnvelopeRate;
            o.audioTime = (centre + static_cast<double>(at) - static_cast<double>(maxLag)) * speed / kEnvelopeRate;
            o.strength = peak;
            o.distinctness = distinct;
            o.confidence = std::max(0.0, distinct) * std::sqrt(peak);
            offsets.push_back(o);
        }
        if (offsets.size() < 2) continue;
        // A window of the envelope is good to a few hops; the speed grid's
        // step spreads a window's events by less than that.
        auto line = consensusLine(offsets, 0.04, speed - s.speedStep, speed + s.speedStep);
        if (!line) continue;
        double score = 0;
        for (auto k : line->inliers) score += offsets[k].confidence;
        if (score > best.score) {
            best.score = score;
            best.speed = speed;
            best.line = line;
            best.agreeing = static_cast<int>(line->inliers.size());
        }
    }
    return best;
}

struct FineWindow {
    double from = 0;
    bool silent = false;
    bool outside = false;
    std::optional<LocalOffset> offset;
};

// Each fine window of the reference's waveform found in the sound near the
// line, to a fraction of a sample: a cross-correlation whitened by the
// strength of each frequency (so the shared bed counts, not whichever
// voice is loudest).
std::vector<FineWindow> fineSearch(std::vector<float> const& reference, std::vector<float> const& sound, int rate, Line const& line,
                                   double search, MatchSettings const& s)
{
    std::vector<FineWindow> out;
    auto w = static_cast<std::size_t>(s.fineWindow * rate);
    auto lagMax = static_cast<std::size_t>(std::ceil(search * rate));
    std::size_t n = fftSize(w + 2 * lagMax);
    double duration = static_cast<double>(reference.size()) / rate;
    double refRms = 0;
    for (float x : reference) refRms += static_cast<double>(x) * x;
    refRms = std::sqrt(refRms / std::max<std::size_t>(1, reference.size()));
    Spectrum x(n), y(n);
    std::vector<float> seg(w + 2 * lagMax);
    for (double from = 0; from + s.fineWindow <= duration + 1e-9; from += s.fineStep) {
        FineWindow fw;
        fw.from = from;
        auto first = static_cast<std::size_t>(std::llround(from * rate));
        double ex = 0;
        for (std::size_t i = 0; i < w && first + i < reference.size(); ++i) ex += static_cast<double>(reference[first + i]) * reference[first + i];
        // Quiet against the sound as a whole: nothing to compare.
        if (ex / static_cast<double>(w) < std::max(1e-10, 1e-4 * refRms * refRms)) {
            fw.silent = true;
            out.push_back(fw);
            continue;
        }
        // The sound along the line under the window, read at the line's
        // speed, with `lagMax` on either side.
        double a0 = line.at(from - static_cast<double>(lagMax) / rate) * rate;
        double a1 = line.at(from + s.fineWindow + static_cast<double>(lagMax) / rate) * rate;
        if (a0 < 0 || a1 > static_cast<double>(sound.size())) {
            fw.outside = true;
            out.push_back(fw);
            continue;
        }
        for (std::size_t j = 0; j < seg.size(); ++j) {
            double t = from + (static_cast<double>(j) - static_cast<double>(lagMax)) / rate;
            seg[j] = cubicAt(sound, line.at(t) * rate);
        }
        std::fill(x.begin(), x.end(), std::complex<float>());
        std::fill(y.begin(), y.end(), std::complex<float>());
        for (std::size_t i = 0; i < w; ++i) x[i] = reference[first + i];
        for (std::size_t j = 0; j < seg.size(); ++j) y[j] = seg[j];
        fft(x);
        fft(y);
        for (std::size_t k = 0; k < n; ++k) {
            std::complex<float> c = std::conj(x[k]) * y[k];
            float m = std::abs(c);
            x[k] = m > 1e-20f ? c / std::pow(m, 0.8f) : std::complex<float>();
        }
        inverseFft(x);
        std::size_t at = 0;
        float peak = -1e30f;
        for (std::size_t lag = 0; lag <= 2 * lagMax; ++lag)
            if (x[lag].real() > peak) peak = x[lag].real(), at = lag;
        auto exclusion = static_cast<std::size_t>(std::max(2.0, 0.001 * rate));
        float runnerUp = 0;
        for (std::size_t lag = 0; lag <= 2 * lagMax; ++lag)
            if ((lag + exclusion < at || lag > at + exclusion) && x[lag].real() > runnerUp) runnerUp = x[lag].real();
        // The plain normalised correlation at the peak: how much of the two
        // sounds is the same.
        double xy = 0, yy = 0;
        for (std::size_t i = 0; i < w; ++i) {
            xy += static_cast<double>(reference[first + i]) * seg[at + i];
            yy += static_cast<double>(seg[at + i]) * seg[at + i];
        }
        double strength = ex > 0 && yy > 0 ? xy / std::sqrt(ex * yy) : 0;
        double refined = static_cast<double>(at);
        if (at > 0 && at < 2 * lagMax) {
            double y0 = x[at - 1].real(), y1 = x[at].real(), y2 = x[at + 1].real();
            double den = y0 - 2 * y1 + y2;
            if (den < 0) refined += std::clamp(0.5 * (y0 - y2) / den, -0.5, 0.5);
        }
        double distinct = peak > 0 ? 1 - std::max(0.f, runnerUp) / peak : 0;
        bool atEdge = at == 0 || at == 2 * lagMax;
        if (!atEdge && strength >= s.minStrength && distinct >= s.minDistinctness) {
            double centre = from + s.fineWindow / 2;
            LocalOffset o;
            o.movieTime = centre;
            o.audioTime = line.at(centre + (refined - static_cast<double>(lagMax)) / rate);
            o.strength = strength;
            o.distinctness = distinct;
            o.confidence = distinct * std::sqrt(strength);
            o.evidence = "shared sound";
            if (o.confidence >= s.minConfidence) fw.offset = o;
        }
        out.push_back(fw);
    }
    return out;
}

std::string secondsText(double t)
{
    auto total = static_cast<long>(std::floor(std::max(0.0, t)));
    char text[32];
    if (total >= 3600) std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
    else std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
    return text;
}

} // namespace

std::vector<NamedSpeed> const& transferSpeeds()
{
    static std::vector<NamedSpeed> const speeds = {{1.0, "1"},
                                                   {24.0 / 25.0, "24/25"},
                                                   {25.0 / 24.0, "25/24"},
                                                   {1000.0 / 1001.0, "1000/1001"},
                                                   {1001.0 / 1000.0, "1001/1000"},
                                                   {24000.0 / 25025.0, "24000/25025"},
                                                   {25025.0 / 24000.0, "25025/24000"}};
    return speeds;
}

std::vector<std::vector<float>> bandOnsets(std::vector<float> const& samples, int rate)
{
    constexpr std::size_t kFrame = 256;
    auto hop = static_cast<std::size_t>(std::llround(rate / kEnvelopeRate));
    std::size_t frames = samples.size() / hop;
    double binHz = static_cast<double>(rate) / kFrame;
    // Log-spaced band edges from 60 Hz to the Nyquist frequency.
    std::vector<std::size_t> edges;
    double top = rate / 2.0;
    constexpr int kBands = 6;
    for (int b = 0; b <= kBands; ++b) {
        double hz = 60 * std::pow(top / 60, static_cast<double>(b) / kBands);
        edges.push_back(std::clamp<std::size_t>(static_cast<std::size_t>(hz / binHz), 1, kFrame / 2));
    }
    std::vector<float> window(kFrame);
    for (std::size_t i = 0; i < kFrame; ++i) window[i] = static_cast<float>(0.5 - 0.5 * std::cos(2 * kPi * (static_cast<double>(i) + 0.5) / kFrame));
    std::vector<std::vector<float>> out(kBands, std::vector<float>(frames, 0.f));
    std::vector<float> previous(kBands, 0.f);
    Spectrum buf(kFrame);
    for (std::size_t f = 0; f < frames; ++f) {
        std::size_t centre = f * hop;
        for (std::size_t i = 0; i < kFrame; ++i) {
            std::int64_t k = static_cast<std::int64_t>(centre + i) - static_cast<std::int64_t>(kFrame / 2);
            float v = k >= 0 && k < static_cast<std::int64_t>(samples.size()) ? samples[static_cast<std::size_t>(k)] : 0.f;
            buf[i] = v * window[i];
        }
        fft(buf);
        for (int b = 0; b < kBands; ++b) {
            double e = 0;
            for (std::size_t k = edges[static_cast<std::size_t>(b)]; k < edges[static_cast<std::size_t>(b) + 1]; ++k) e += std::norm(buf[k]);
            auto level = static_cast<float>(std::log(1e-9 + e));
            if (f > 0) out[static_cast<std::size_t>(b)][f] = std::max(0.f, level - previous[static_cast<std::size_t>(b)]);
            previous[static_cast<std::size_t>(b)] = level;
        }
    }
    return out;
}

SoundMatch matchSounds(std::vector<float> const& reference, std::vector<float> const& sound, int rate, MatchSettings const& settings)
{
    SoundMatch out;
    Suggestion& sg = out.suggestion;
    double energy = 0;
    for (float x : reference) energy += static_cast<double>(x) * x;
    if (reference.size() < static_cast<std::size_t>(rate) * 4 || sound.size() < static_cast<std::size_t>(rate) * 4) {
        sg.refusal = "the sounds are too short to compare (at least 4 s each)";
        return out;
    }
    if (energy / static_cast<double>(reference.size()) < 1e-10) {
        sg.refusal = "the reference is silent";
        return out;
    }
    auto ref = bandOnsets(reference, rate), snd = bandOnsets(sound, rate);
    normalise(ref);
    normalise(snd);
    CoarseResult coarse = coarseSearch(ref, snd, settings);
    out.coarseWindows = coarse.windows;
    out.coarseAgreeing = coarse.agreeing;
    int needed = coarse.windows >= 4 ? 3 : 2;
    if (!coarse.line || coarse.agreeing < needed) {
        sg.refusal = "the reference shares no sound with the sound to sync: at no speed and offset do more than "
                     + std::to_string(std::max(1, coarse.agreeing)) + " of " + std::to_string(coarse.windows) + " stretches line up";
        return out;
    }
    // Twice along the line: the second pass reads the sound at the speed
    // the first one measured, in a narrower search.
    Line line = *coarse.line;
    double search = 0.06;
    std::vector<FineWindow> windows;
    std::vector<LocalOffset> found;
    std::optional<Line> fitted;
    for (int pass = 0; pass < 2; ++pass) {
        if (settings.progress) settings.progress(0.8 + 0.1 * pass);
        auto passWindows = fineSearch(reference, sound, rate, line, search, settings);
        std::vector<LocalOffset> passFound;
        for (auto const& w : passWindows)
            if (w.offset) passFound.push_back(*w.offset);
        auto passLine = consensusLine(passFound, settings.tolerance, line.slope - 0.002, line.slope + 0.002);
        // The narrower pass only replaces the first when it holds.
        if (pass == 1 && (!passLine || passLine->inliers.size() < 2)) break;
        windows = std::move(passWindows);
        found = std::move(passFound);
        fitted = passLine;
        if (!fitted) break;
        line = *fitted;
        search = 0.01;
    }
    sg.windows = found;
    if (!fitted || fitted->inliers.size() < 2 || 2 * fitted->inliers.size() <= found.size()) {
        std::size_t agree = fitted ? fitted->inliers.size() : std::min<std::size_t>(1, found.size());
        sg.refusal = found.size() < 2 ? "the reference and the sound to sync match nowhere sample by sample (" + std::to_string(found.size())
                                            + " of " + std::to_string(windows.size()) + " stretches)"
                                      : "the stretches that match disagree: at most " + std::to_string(agree) + " of "
                                            + std::to_string(found.size()) + " lie on one line";
        return out;
    }
    sg.line = line;
    out.speed = line.slope;
    for (auto const& named : transferSpeeds())
        if (std::fabs(line.slope - named.value) < 1e-4) out.speedName = named.name;
    // Where the sounds differ: runs of windows with sound that match nowhere
    // near the line.
    std::vector<bool> agrees(found.size(), false);
    for (auto k : line.inliers) agrees[k] = true;
    std::size_t index = 0;
    std::optional<Span> run;
    int runLength = 0;
    auto close = [&] {
        if (run && runLength >= 2) out.differ.push_back(*run);
        run.reset();
        runLength = 0;
    };
    for (auto const& w : windows) {
        bool matched = false;
        if (w.offset) matched = agrees[index++];
        if (w.silent || w.outside || matched) {
            close();
            continue;
        }
        if (!run) run = Span{w.from, w.from + settings.fineWindow};
        run->to = w.from + settings.fineWindow;
        ++runLength;
    }
    close();
    // The candidates: the most confident agreeing window of each stretch.
    std::vector<LocalOffset> inliers;
    for (auto k : line.inliers) inliers.push_back(found[k]);
    for (std::size_t i = 0; i < inliers.size();) {
        auto block = static_cast<long>(std::floor(inliers[i].movieTime / settings.candidateSpacing));
        std::size_t bestAt = i;
        std::size_t j = i;
        for (; j < inliers.size() && static_cast<long>(std::floor(inliers[j].movieTime / settings.candidateSpacing)) == block; ++j)
            if (inliers[j].confidence > inliers[bestAt].confidence) bestAt = j;
        sg.candidates.push_back(inliers[bestAt]);
        i = j;
    }
    // The first and last agreeing windows hold the line's ends.
    if (sg.candidates.front().movieTime != inliers.front().movieTime) sg.candidates.insert(sg.candidates.begin(), inliers.front());
    if (sg.candidates.back().movieTime != inliers.back().movieTime) sg.candidates.push_back(inliers.back());
    if (sg.candidates.size() < 2) sg.candidates.push_back(inliers.back());
    return out;
}

std::string differText(Span const& span)
{
    return "the sounds differ from " + secondsText(span.from) + " to " + secondsText(span.to);
}

} // namespace suggest
