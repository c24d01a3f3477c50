#include "Suggest.h"

#include "Fft.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <complex>
#include <exception>
#include <mutex>
#include <numeric>
#include <thread>

namespace suggest {

namespace {

constexpr double kPi = 3.14159265358979323846;

} // namespace

struct SoundEnvelopeBuilder::State {
    int rate = 0;
    std::size_t hop = 0, n = 1, bins = 0, bands = 0;
    std::vector<float> window;
    std::vector<std::size_t> edges = {1};
    std::size_t lowBin = 0, highBin = 0, voiceLowBin = 0, voiceMidBin = 0, voiceHighBin = 0;
    // Samples from `first` on (those before are no longer needed); `total` added in all.
    std::vector<float> samples;
    std::size_t first = 0, total = 0, nextHop = 0;
    std::vector<std::complex<float>> buf;
    std::vector<float> previous, current;
    std::vector<float> levels; // band levels of every hop, for the changes
    SoundEnvelopes out;
};

SoundEnvelopeBuilder::SoundEnvelopeBuilder(int sampleRate) : s_(std::make_unique<State>())
{
    State& s = *s_;
    s.rate = sampleRate;
    s.out.onset.rate = s.out.speech.rate = s.out.voiceLow.rate = s.out.voiceHigh.rate = 1.0 / kHopSeconds;
    if (sampleRate <= 0) return;
    s.hop = static_cast<std::size_t>(std::lround(sampleRate * kHopSeconds));
    while (s.n < 2 * s.hop) s.n <<= 1;
    std::size_t n = s.n;
    s.window.resize(n);
    for (std::size_t i = 0; i < n; ++i) s.window[i] = static_cast<float>(0.5 - 0.5 * std::cos(2 * kPi * (static_cast<double>(i) + 0.5) / n));
    s.bins = n / 2;
    double binHz = static_cast<double>(sampleRate) / static_cast<double>(n);
    s.lowBin = static_cast<std::size_t>(std::ceil(300 / binHz));
    s.highBin = std::min(s.bins, static_cast<std::size_t>(3400 / binHz) + 1);
    auto binAt = [&](double hz) { return std::min(s.bins, static_cast<std::size_t>(std::ceil(hz / binHz))); };
    s.voiceLowBin = binAt(800);
    s.voiceMidBin = binAt(1600);
    s.voiceHighBin = binAt(3200);
    // The flux is taken over bands a third of an octave wide (one bin at
    // least) rather than over single bins: noise makes every bin flicker,
    // while a band's energy holds still until the sound changes.
    for (double f = 50; f < std::min(16000.0, sampleRate / 2.0); f *= 1.26) {
        auto b = std::min(s.bins, static_cast<std::size_t>(f / binHz));
        if (b > s.edges.back()) s.edges.push_back(b);
    }
    if (s.edges.back() < s.bins) s.edges.push_back(s.bins);
    s.bands = s.edges.size() - 1;
    s.buf.resize(n);
    s.previous.assign(s.bands, 0.f);
    s.current.resize(s.bands);
}

SoundEnvelopeBuilder::~SoundEnvelopeBuilder() = default;

void SoundEnvelopeBuilder::add(float const* samples, std::size_t count)
{
    State& s = *s_;
    if (s.rate <= 0 || count == 0) return;
    s.samples.insert(s.samples.end(), samples, samples + count);
    s.total += count;
    // A hop is analysed once its whole window has come.
    while (s.nextHop * s.hop + s.n / 2 <= s.total) analyseHop();
    // Samples before the next hop's window are dropped, a block at a time.
    std::size_t needed = s.nextHop * s.hop >= s.n / 2 ? s.nextHop * s.hop - s.n / 2 : 0;
    if (needed > s.first + (std::size_t{1} << 16)) {
        s.samples.erase(s.samples.begin(), s.samples.begin() + static_cast<std::ptrdiff_t>(needed - s.first));
        s.first = needed;
    }
}

// Frame h is centred on sample h x hop. Its flux is the rise from frame
// h-1, which sees the sound up to half a window later than frame h-1's
// centre: the rise belongs between the two frames' leading edges, so it
// is placed a quarter window after the centre of frame h-1 (see finish()).
void SoundEnvelopeBuilder::analyseHop()
{
    State& s = *s_;
    std::size_t h = s.nextHop++, n = s.n;
    auto centre = static_cast<std::ptrdiff_t>(h * s.hop);
    for (std::size_t i = 0; i < n; ++i) {
        std::ptrdiff_t at = centre - static_cast<std::ptrdiff_t>(n / 2) + static_cast<std::ptrdiff_t>(i);
        float v = at >= 0 && static_cast<std::size_t>(at) < s.total ? s.samples[static_cast<std::size_t>(at) - s.first] : 0.f;
        s.buf[i] = {v * s.window[i], 0.f};
    }
    fft(s.buf);
    double flux = 0, band = 0, low = 0, high = 0;
    for (std::size_t b = 0; b < s.bands; ++b) {
        double power = 0;
        for (std::size_t k = s.edges[b]; k < s.edges[b + 1]; ++k) {
            double p = std::norm(s.buf[k]);
            power += p;
            if (k >= s.lowBin && k < s.highBin) band += p;
            if (k >= s.voiceLowBin && k < s.voiceMidBin) low += p;
            if (k >= s.voiceMidBin && k < s.voiceHighBin) high += p;
        }
        s.current[b] = static_cast<float>(std::log1p(100 * std::sqrt(power / static_cast<double>(s.edges[b + 1] - s.edges[b]))));
        if (h > 0) flux += std::max(0.f, s.current[b] - s.previous[b]);
        s.levels.push_back(s.current[b]);
    }
    s.out.onset.values.push_back(static_cast<float>(flux / static_cast<double>(s.bands)));
    s.out.speech.values.push_back(static_cast<float>(std::sqrt(2 * band) / static_cast<double>(n)));
    s.out.voiceLow.values.push_back(static_cast<float>(std::sqrt(2 * low) / static_cast<double>(n)));
    s.out.voiceHigh.values.push_back(static_cast<float>(std::sqrt(2 * high) / static_cast<double>(n)));
    std::swap(s.previous, s.current);
}

SoundEnvelopes SoundEnvelopeBuilder::finish()
{
    State& s = *s_;
    if (s.rate <= 0 || s.total == 0) return std::move(s.out);
    // The last hops, their windows running past the end into silence.
    std::size_t hops = (s.total + s.hop - 1) / s.hop;
    while (s.nextHop < hops) analyseHop();
    SoundEnvelopes out = std::move(s.out);
    std::size_t n = s.n, bands = s.bands;
    std::vector<float> const& levels = s.levels;
    // Flux between frames h-1 and h, placed a quarter window into the newly
    // seen sound: start = (quarter window - hop) in seconds, relative to
    // frame h's centre at h x hop.
    out.onset.start = (static_cast<double>(n) / 4 - static_cast<double>(s.hop)) / s.rate + 0.006;
    out.speech.start = out.voiceLow.start = out.voiceHigh.start = 0;
    // Changes: the 4 hops from h against the 4 before, per band; the two
    // blocks meet half a hop before frame h's centre. A change must last:
    // each band's step is at most the step between the medians of the 7
    // hops either side, which a click (3 hops at most) does not move.
    constexpr std::size_t kBlock = 4, kMedian = 7;
    out.change.rate = out.onset.rate;
    out.change.start = -0.5 * kHopSeconds;
    out.change.values.assign(hops, 0.f);
    std::array<float, kMedian> run{};
    auto median = [&](std::size_t first, std::size_t b) {
        for (std::size_t k = 0; k < kMedian; ++k) run[k] = levels[(first + k) * bands + b];
        std::nth_element(run.begin(), run.begin() + kMedian / 2, run.end());
        return static_cast<double>(run[kMedian / 2]);
    };
    for (std::size_t h = kMedian; h + kMedian <= hops; ++h) {
        double total = 0;
        for (std::size_t b = 0; b < bands; ++b) {
            double before = 0, after = 0;
            for (std::size_t k = 0; k < kBlock; ++k) {
                before += levels[(h - 1 - k) * bands + b];
                after += levels[(h + k) * bands + b];
            }
            double step = std::fabs(after - before) / kBlock;
            total += std::min(step, std::fabs(median(h, b) - median(h - kMedian, b)));
        }
        out.change.values[h] = static_cast<float>(total / static_cast<double>(bands));
    }
    return out;
}

SoundEnvelopes soundEnvelopes(float const* samples, std::size_t count, int sampleRate)
{
    SoundEnvelopeBuilder builder(sampleRate);
    builder.add(samples, count);
    return builder.finish();
}

void FrameChangeBuilder::place(double seconds, float value)
{
    env_.rate = rate_;
    double pos = seconds * rate_;
    if (pos < 0) return;
    auto i = static_cast<std::size_t>(std::floor(pos));
    if (env_.values.size() < i + 2) env_.values.resize(i + 2, 0.f);
    double frac = pos - static_cast<double>(i);
    env_.values[i] += static_cast<float>((1 - frac) * value);
    env_.values[i + 1] += static_cast<float>(frac * value);
}

void FrameChangeBuilder::add(double seconds, std::uint8_t const* pixels, int width, int height, int stride)
{
    auto size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    if (previous_.size() != size) {
        previous_.clear();
        beforePrevious_.clear();
    }
    float change = 0.f;
    if (!previous_.empty()) {
        change = differenceEnergy(pixels, stride, previous_.data(), width, width, height);
        if (!beforePrevious_.empty()) change = std::min(change, differenceEnergy(pixels, stride, beforePrevious_.data(), width, width, height));
    }
    place(seconds, change);
    std::swap(previous_, beforePrevious_);
    previous_.resize(size);
    for (int y = 0; y < height; ++y)
        std::copy_n(pixels + static_cast<std::ptrdiff_t>(y) * stride, width,
                    previous_.begin() + static_cast<std::ptrdiff_t>(y) * width);
}

void FrameChangeBuilder::addValue(double seconds, float value) { place(seconds, value); }

void FrameChangeBuilder::finish(double seconds)
{
    env_.rate = rate_;
    auto n = static_cast<std::size_t>(std::max(0.0, std::ceil(seconds * rate_)));
    if (env_.values.size() < n) env_.values.resize(n, 0.f);
}

float differenceEnergy(std::uint8_t const* a, int strideA, std::uint8_t const* b, int strideB, int width, int height)
{
    if (width <= 0 || height <= 0) return 0.f;
    double sum = 0;
    for (int y = 0; y < height; ++y) {
        std::uint8_t const* ra = a + static_cast<std::ptrdiff_t>(y) * strideA;
        std::uint8_t const* rb = b + static_cast<std::ptrdiff_t>(y) * strideB;
        for (int x = 0; x < width; ++x) sum += std::abs(ra[x] - rb[x]);
    }
    return static_cast<float>(sum / (static_cast<double>(width) * height));
}

Envelope events(Envelope const& e, double seconds)
{
    Envelope out = e;
    auto half = static_cast<std::ptrdiff_t>(std::max(1.0, seconds * e.rate / 2));
    auto n = static_cast<std::ptrdiff_t>(e.values.size());
    std::vector<double> prefix(e.values.size() + 1, 0.0);
    for (std::ptrdiff_t i = 0; i < n; ++i) prefix[static_cast<std::size_t>(i + 1)] = prefix[static_cast<std::size_t>(i)] + e.values[static_cast<std::size_t>(i)];
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        std::ptrdiff_t lo = std::max<std::ptrdiff_t>(0, i - half), hi = std::min(n, i + half + 1);
        double mean = (prefix[static_cast<std::size_t>(hi)] - prefix[static_cast<std::size_t>(lo)]) / static_cast<double>(hi - lo);
        out.values[static_cast<std::size_t>(i)] = static_cast<float>(std::max(0.0, e.values[static_cast<std::size_t>(i)] - mean));
    }
    return out;
}

Envelope peaks(Envelope const& e, double seconds, double spread)
{
    Envelope out = e;
    std::fill(out.values.begin(), out.values.end(), 0.f);
    auto n = static_cast<std::ptrdiff_t>(e.values.size());
    auto half = static_cast<std::ptrdiff_t>(std::max(2.0, seconds * e.rate / 2));
    std::vector<double> sum(e.values.size() + 1, 0.0), squares(e.values.size() + 1, 0.0);
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        double v = e.values[static_cast<std::size_t>(i)];
        sum[static_cast<std::size_t>(i + 1)] = sum[static_cast<std::size_t>(i)] + v;
        squares[static_cast<std::size_t>(i + 1)] = squares[static_cast<std::size_t>(i)] + v * v;
    }
    auto at = [&](std::ptrdiff_t i) { return i < 0 || i >= n ? 0.0 : static_cast<double>(e.values[static_cast<std::size_t>(i)]); };
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        double v = at(i);
        if (v < at(i - 1) || v < at(i + 1) || v < at(i - 2) || v < at(i + 2)) continue;
        std::ptrdiff_t lo = std::max<std::ptrdiff_t>(0, i - half), hi = std::min(n, i + half + 1);
        auto count = static_cast<double>(hi - lo);
        double mean = (sum[static_cast<std::size_t>(hi)] - sum[static_cast<std::size_t>(lo)]) / count;
        double var = (squares[static_cast<std::size_t>(hi)] - squares[static_cast<std::size_t>(lo)]) / count - mean * mean;
        if (v <= mean + spread * std::sqrt(std::max(0.0, var))) continue;
        for (std::ptrdiff_t j = std::max<std::ptrdiff_t>(0, i - 1); j <= std::min(n - 1, i + 1); ++j)
            out.values[static_cast<std::size_t>(j)] = static_cast<float>(std::max(0.0, at(j) - mean));
    }
    return out;
}

double Peak::distinctness() const
{
    if (strength <= 0) return 0;
    return std::clamp(1 - std::max(0.0, runnerUp) / strength, 0.0, 1.0);
}

double Peak::confidence() const { return std::sqrt(std::clamp(strength, 0.0, 1.0)) * distinctness(); }

namespace {

// Linear interpolation of an envelope at a time; zero outside.
double sampleAt(Envelope const& e, double seconds)
{
    double pos = (seconds - e.start) * e.rate;
    if (pos < 0 || pos > static_cast<double>(e.values.size()) - 1) return 0;
    auto i = static_cast<std::size_t>(pos);
    double f = pos - static_cast<double>(i);
    double a = e.values[i], b = i + 1 < e.values.size() ? e.values[i + 1] : a;
    return a + f * (b - a);
}

// As correlate(), with the sound read along a slope about the window's
// centre: picture(t) against sound(c + slope (t - c) + lag). With
// `withinSound`, only the times whose sound lies within the sound envelope
// count (at least half the window, or the lag gets 0): levels do not fall to
// zero where a sound ends, events do.
Correlation correlateAlong(Envelope const& picture, Envelope const& sound, double windowStart, double windowSeconds, double maxLag,
                           double slope, bool withinSound = false)
{
    Correlation c;
    double rate = picture.rate;
    c.step = 1 / rate;
    auto lags = static_cast<int>(std::lround(maxLag * rate));
    c.firstLag = -lags * c.step;
    auto n = static_cast<std::size_t>(std::lround(windowSeconds * rate));
    if (n < 4) return c;
    std::vector<double> x(n);
    double centre = windowStart + windowSeconds / 2;
    for (std::size_t i = 0; i < n; ++i) x[i] = sampleAt(picture, windowStart + static_cast<double>(i) / rate);
    c.values.assign(static_cast<std::size_t>(2 * lags + 1), 0.0);
    // Where each picture sample's sound lies at lag 0, in sound samples:
    // every lag moves it by whole samples (one rate for both), so its
    // fraction, and the interpolation weight, hold for all lags.
    auto size = static_cast<std::ptrdiff_t>(sound.values.size());
    std::vector<std::ptrdiff_t> base(n);
    std::vector<double> frac(n);
    for (std::size_t i = 0; i < n; ++i) {
        double pos = (centre + slope * (windowStart + static_cast<double>(i) / rate - centre) - sound.start) * sound.rate;
        double whole = std::floor(pos);
        base[i] = static_cast<std::ptrdiff_t>(whole);
        frac[i] = pos - whole;
    }
    double lagSamples = c.step * sound.rate;
    bool wholeSamples = std::fabs(lagSamples - 1) < 1e-9;
    float const* v = sound.values.data();
    for (int l = -lags; l <= lags; ++l) {
        double lag = l * c.step;
        std::size_t count = 0;
        double sx = 0, sy = 0, sxx = 0, syy = 0, sxy = 0;
        for (std::size_t i = 0; i < n; ++i) {
            double y = 0;
            bool inside = false;
            if (wholeSamples) {
                std::ptrdiff_t k = base[i] + l;
                inside = k >= 0 && (k < size - 1 || (k == size - 1 && frac[i] == 0));
                if (inside) y = frac[i] == 0 ? v[k] : v[k] + frac[i] * (v[k + 1] - v[k]);
            } else {
                double t = centre + slope * (windowStart + static_cast<double>(i) / rate - centre) + lag;
                double pos = (t - sound.start) * sound.rate;
                inside = pos >= 0 && pos <= static_cast<double>(size) - 1;
                y = sampleAt(sound, t);
            }
            if (withinSound && !inside) continue;
            ++count;
            sx += x[i];
            sy += y;
            sxx += x[i] * x[i];
            syy += y * y;
            sxy += x[i] * y;
        }
        if (count < 4 || 2 * count < n) continue;
        auto m = static_cast<double>(count);
        double vx = m * sxx - sx * sx, vy = m * syy - sy * sy;
        c.values[static_cast<std::size_t>(l + lags)] = vx > 1e-12 * m * sxx && vy > 1e-12 * m * syy ? (m * sxy - sx * sy) / std::sqrt(vx * vy) : 0.0;
    }
    return c;
}

} // namespace

Correlation correlate(Envelope const& picture, Envelope const& sound, double windowStart, double windowSeconds, double maxLag)
{
    return correlateAlong(picture, sound, windowStart, windowSeconds, maxLag, 1.0);
}

std::optional<Peak> findPeak(Correlation const& c, double exclusion)
{
    if (c.values.size() < 3) return std::nullopt;
    auto best = static_cast<std::size_t>(std::max_element(c.values.begin(), c.values.end()) - c.values.begin());
    if (!(c.values[best] > 0)) return std::nullopt;
    Peak p;
    p.strength = c.values[best];
    double shift = 0;
    if (best > 0 && best + 1 < c.values.size()) {
        double a = c.values[best - 1], b = c.values[best], d = c.values[best + 1];
        double denom = a - 2 * b + d;
        if (denom < 0) shift = std::clamp(0.5 * (a - d) / denom, -0.5, 0.5);
        p.strength = b - 0.25 * (a - d) * shift;
    }
    p.lag = c.firstLag + (static_cast<double>(best) + shift) * c.step;
    // The runner-up: the best local maximum beyond the exclusion zone.
    p.runnerUp = 0;
    for (std::size_t i = 0; i < c.values.size(); ++i) {
        double lag = c.firstLag + static_cast<double>(i) * c.step;
        if (std::fabs(lag - p.lag) <= exclusion) continue;
        bool localMax = (i == 0 || c.values[i] >= c.values[i - 1]) && (i + 1 == c.values.size() || c.values[i] >= c.values[i + 1]);
        if (localMax) p.runnerUp = std::max(p.runnerUp, c.values[i]);
    }
    return p;
}

std::optional<Line> consensusLine(std::vector<LocalOffset> const& offsets, double tolerance, double minSlope, double maxSlope)
{
    std::size_t n = offsets.size();
    std::optional<Line> best;
    double bestSpread = 0;
    auto consider = [&](double slope, double intercept) {
        Line line{slope, intercept, {}};
        double spread = 0;
        for (std::size_t k = 0; k < n; ++k) {
            double r = std::fabs(line.at(offsets[k].movieTime) - offsets[k].audioTime);
            if (r <= tolerance) {
                line.inliers.push_back(k);
                spread += r;
            }
        }
        if (!best || line.inliers.size() > best->inliers.size() || (line.inliers.size() == best->inliers.size() && spread < bestSpread)) {
            best = line;
            bestSpread = spread;
        }
    };
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = i + 1; j < n; ++j) {
            double dm = offsets[j].movieTime - offsets[i].movieTime;
            if (std::fabs(dm) < 1e-9) continue;
            double slope = (offsets[j].audioTime - offsets[i].audioTime) / dm;
            if (slope < minSlope || slope > maxSlope) continue;
            consider(slope, offsets[i].audioTime - slope * offsets[i].movieTime);
        }
    if (!best || best->inliers.size() < 2) return std::nullopt;
    // Least squares through the agreeing offsets; they must still agree.
    double sm = 0, sa = 0;
    for (auto k : best->inliers) {
        sm += offsets[k].movieTime;
        sa += offsets[k].audioTime;
    }
    auto count = static_cast<double>(best->inliers.size());
    double mm = sm / count, ma = sa / count, smm = 0, sma = 0;
    for (auto k : best->inliers) {
        smm += (offsets[k].movieTime - mm) * (offsets[k].movieTime - mm);
        sma += (offsets[k].movieTime - mm) * (offsets[k].audioTime - ma);
    }
    if (smm > 0) {
        double slope = sma / smm;
        if (slope >= minSlope && slope <= maxSlope) {
            Line refit{slope, ma - slope * mm, {}};
            bool allAgree = true;
            for (auto k : best->inliers)
                allAgree = allAgree && std::fabs(refit.at(offsets[k].movieTime) - offsets[k].audioTime) <= tolerance;
            if (allAgree) {
                refit.inliers = best->inliers;
                return refit;
            }
        }
    }
    return best;
}

std::vector<double> windowStarts(double duration, Settings const& s)
{
    std::vector<double> starts;
    double length = std::min(s.windowSeconds, duration);
    if (length <= 2 * s.maxLag || duration <= 0) return starts;
    double span = duration - length;
    double step = s.windowStep;
    if (s.minWindows > 1 && span / step + 1 < s.minWindows) step = span / (s.minWindows - 1);
    if (step <= 0) return {0.0};
    for (double t = 0; t <= span + 1e-9; t += step) starts.push_back(t);
    return starts;
}

namespace {

// The running mean of an envelope over a window of 2 x half + 1 values.
std::vector<double> runningMean(Envelope const& e, std::ptrdiff_t half)
{
    auto n = static_cast<std::ptrdiff_t>(e.values.size());
    std::vector<double> prefix(e.values.size() + 1, 0.0), out(e.values.size());
    for (std::ptrdiff_t i = 0; i < n; ++i) prefix[static_cast<std::size_t>(i + 1)] = prefix[static_cast<std::size_t>(i)] + e.values[static_cast<std::size_t>(i)];
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        std::ptrdiff_t lo = std::max<std::ptrdiff_t>(0, i - half), hi = std::min(n, i + half + 1);
        out[static_cast<std::size_t>(i)] = (prefix[static_cast<std::size_t>(hi)] - prefix[static_cast<std::size_t>(lo)]) / static_cast<double>(hi - lo);
    }
    return out;
}

} // namespace

Envelope smoothed(Envelope const& e, double seconds)
{
    Envelope out = e;
    // An odd number of values, centred on each one.
    auto span = std::max(1L, std::lround(seconds * e.rate));
    auto mean = runningMean(e, static_cast<std::ptrdiff_t>((span - 1) / 2));
    for (std::size_t i = 0; i < e.values.size(); ++i) out.values[i] = static_cast<float>(mean[i]);
    return out;
}

Envelope rateOfChange(Envelope const& e)
{
    Envelope out = e;
    std::size_t n = e.values.size();
    for (std::size_t i = 0; i < n; ++i) {
        std::size_t lo = i == 0 ? 0 : i - 1, hi = std::min(i + 1, n - 1);
        out.values[i] = hi > lo ? static_cast<float>((e.values[hi] - e.values[lo]) * e.rate / static_cast<double>(hi - lo)) : 0.f;
    }
    return out;
}

namespace {

// Changes of speech energy, either way: what a moving mouth goes with.
Envelope speechChanges(Envelope const& speech)
{
    Envelope out = speech;
    for (std::size_t i = 0; i < speech.values.size(); ++i) {
        float before = speech.values[i == 0 ? 0 : i - 1];
        float after = speech.values[std::min(i + 1, speech.values.size() - 1)];
        out.values[i] = std::fabs(after - before) / 2;
    }
    return out;
}

bool anyInWindow(Envelope const& e, double start, double seconds)
{
    for (double t = start; t < start + seconds; t += 1 / e.rate)
        if (sampleAt(e, t) > 0) return true;
    return false;
}

// A measure of the mouth (picture) with the measure of the speech (sound)
// it goes with; the correlations of a mouth's pairs are averaged, weighted.
struct MouthPair {
    Envelope picture, sound;
    double weight = 1;
};

// The envelopes that a window compares, prepared once for the movie.
struct Prepared {
    Envelope changes, onsets, soundChanges, mouth, speech;
    std::vector<MouthPair> mouthPairs;
};

// The log of a level, so that a syllable counts by how much it rises, not by
// how loud the speaker is. Levels below the quietest tenth of the sound
// (the room between words, at least 80 dB below full scale) count as that:
// digital silence where a sound was delayed would otherwise fall far below
// the room and make a step that no mouth makes.
Envelope logLevel(Envelope const& e)
{
    Envelope out = e;
    std::vector<float> sorted = e.values;
    float floor = 1e-4f;
    if (!sorted.empty()) {
        auto tenth = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 10);
        std::nth_element(sorted.begin(), tenth, sorted.end());
        floor = std::max(floor, *tenth);
    }
    for (float& v : out.values) v = std::log(std::max(v, floor));
    return out;
}

// The voice's levels as the mouths are compared with them: the log level of
// each formant band (of the whole speech band when they are missing),
// averaged over about a syllable's attack.
std::vector<Envelope> voiceLevels(Evidence const& ev)
{
    std::vector<Envelope> levels;
    for (Envelope const* band : {&ev.voiceLow, &ev.voiceHigh})
        if (!band->values.empty()) levels.push_back(smoothed(logLevel(*band), 0.05));
    if (levels.empty() && !ev.speech.values.empty()) levels.push_back(smoothed(logLevel(ev.speech), 0.05));
    return levels;
}

// The measures of a mouth (the landmark measures of `ev`), each with the
// voice's measure it is compared with.
std::vector<MouthPair> mouthPairs(Evidence const& ev, Voice const& voice)
{
    std::vector<MouthPair> out;
    if (ev.mouthOpening.values.empty() || voice.levels.empty()) return out;
    // All over about a syllable's attack, so that the speech moves no
    // faster than a mouth seen 25 times a second can. A mouth opens as
    // the sound of a syllable rises: the rates of change go together,
    // and so do the lips' openings and the speech level. The darkness
    // inside the lips depends on the teeth and the light as much as on
    // the opening, so only its rate of change is compared. Each measure
    // alone peaks at a wrong lag now and then on real faces; their
    // mean does so far less (on the development clips, the lags of
    // the two kinds agreed within a frame wherever the mean was right).
    //
    // The speech is heard in the two bands of the first formants,
    // 800-1600 Hz and 1600-3200 Hz, each on its own (the whole 300-3400
    // Hz band when they are missing): they rise and fall with the
    // opening more closely than the voice's fundamental does.
    auto add = [&](Envelope const& mouth, bool withLevel, double weight = 1.0) {
        if (mouth.values.empty()) return;
        Envelope m = smoothed(mouth, 0.05), mRate = rateOfChange(m);
        for (std::size_t b = 0; b < voice.levels.size(); ++b) {
            if (withLevel) out.push_back({m, voice.levels[b], weight});
            out.push_back({mRate, voice.rates[b], weight});
        }
    };
    // The inner and the outer lips' gaps are two readings of one
    // thing, the lips' landmarks, so together they weigh as much as
    // each of the two brightness measures: counted in full, the
    // landmarks, which jitter on small faces, outweighed the
    // brightness (on the development clips 16 of 54 shifted copies
    // were placed within a frame with both gaps in full, 20 with each
    // at half; no unrelated pair rose to the floor either way).
    add(ev.mouthOpening, true, 0.5);
    add(ev.lipsApart, true, 0.5);
    add(ev.mouthDark, false);
    add(ev.mouthShade, false);
    // The jaw's drop (landmarks again) and the look of the whole
    // mouth's picture (brightness again) count half each, by their
    // rates only: their levels also follow a head that nods or turns
    // to the light. On the development clips each alone took 20 placed
    // copies to 21, both together to 24, with the highest unrelated
    // pair unchanged; their levels as well took them to 17 and 13.
    add(ev.jaw, false, 0.5);
    add(ev.mouthLook, false, 0.5);
    return out;
}

// The weighted mean of the correlations of a mouth's pairs over one window.
Correlation mouthCorrelation(std::vector<MouthPair> const& pairs, double start, double length, double maxLag, double slope)
{
    Correlation mean;
    double total = 0;
    for (auto const& [picture, sound, w] : pairs) {
        total += w;
        Correlation c = correlateAlong(picture, sound, start, length, maxLag, slope, true);
        if (mean.values.empty()) {
            mean = c;
            for (double& v : mean.values) v *= w;
        } else
            for (std::size_t i = 0; i < mean.values.size() && i < c.values.size(); ++i) mean.values[i] += w * c.values[i];
    }
    for (double& v : mean.values) v /= total;
    return mean;
}

Prepared prepare(Evidence const& ev)
{
    Prepared p;
    p.changes = peaks(ev.frameChange);
    p.onsets = peaks(ev.onset);
    if (!ev.soundChange.values.empty()) p.soundChanges = peaks(ev.soundChange);
    if (!ev.mouth.values.empty()) p.mouth = events(ev.mouth);
    if (!ev.speech.values.empty()) p.speech = events(speechChanges(ev.speech));
    if (!ev.speech.values.empty()) p.mouthPairs = mouthPairs(ev, voiceOf(ev));
    return p;
}

// One window's measurement: the clearest peak of all it correlates.
std::optional<LocalOffset> measureWindow(Prepared const& p, Settings const& s, std::vector<double> const& slopes, double start,
                                         double length, double maxLag)
{
    std::optional<LocalOffset> best;
    auto weigh = [&](Correlation const& c, char const* what) {
        auto peak = findPeak(c, 2 * s.frameSeconds);
        if (!peak) return;
        double centre = start + length / 2;
        LocalOffset o{centre, centre + peak->lag, peak->confidence(), peak->strength, peak->distinctness(), what};
        if (!best || o.confidence > best->confidence) best = o;
    };
    auto measure = [&](Envelope const& picture, Envelope const& sound, char const* what) {
        for (double slope : slopes) weigh(correlateAlong(picture, sound, start, length, maxLag, slope), what);
    };
    measure(p.changes, p.onsets, "picture changes and sound onsets");
    if (!p.soundChanges.values.empty()) measure(p.changes, p.soundChanges, "picture changes and changes of sound");
    if (!p.mouth.values.empty() && anyInWindow(p.mouth, start, length)) measure(p.mouth, p.speech, "mouth motion and speech");
    if (!p.mouthPairs.empty()) {
        for (double slope : slopes) weigh(mouthCorrelation(p.mouthPairs, start, length, maxLag, slope), "mouth opening and speech");
    }
    return best;
}

// Every window's measurement, in the order of `starts`. The windows are
// independent and read `p` only: a long movie's hundreds of correlations
// are shared out among threads, each taking the next window not yet taken.
std::vector<LocalOffset> measureWindows(Prepared const& p, Settings const& s, std::vector<double> const& slopes,
                                        std::vector<double> const& starts, double length, double maxLag)
{
    std::vector<std::optional<LocalOffset>> measured(starts.size());
    std::atomic<std::size_t> next{0};
    std::exception_ptr failure;
    std::mutex failureLock;
    auto work = [&] {
        try {
            for (std::size_t i; (i = next++) < starts.size();) measured[i] = measureWindow(p, s, slopes, starts[i], length, maxLag);
        } catch (...) {
            std::lock_guard lock(failureLock);
            if (!failure) failure = std::current_exception();
            next = starts.size();
        }
    };
    unsigned threads = s.threads > 0 ? static_cast<unsigned>(s.threads) : std::max(1u, std::thread::hardware_concurrency());
    threads = std::min<unsigned>(threads, static_cast<unsigned>(starts.size()));
    {
        std::vector<std::jthread> helpers;
        for (unsigned k = 1; k < threads; ++k) helpers.emplace_back(work);
        work();
    }
    if (failure) std::rethrow_exception(failure);
    std::vector<LocalOffset> out;
    for (auto const& m : measured)
        if (m) out.push_back(*m);
    return out;
}

// A clip no longer than one window: one window over all of it measures one
// offset, proposed as two points near its ends. Two points at one offset
// are a plain shift of the sound, which is all one measure can support.
Suggestion suggestForClip(Evidence const& ev, Prepared const& p, Settings const& s)
{
    Suggestion out;
    if (ev.duration + 1e-6 < s.minClipSeconds) {
        out.refusal = "the movie is too short to compare its picture with its sound";
        return out;
    }
    out.windows = measureWindows(p, s, {1.0}, {0.0}, ev.duration, lagsMeasured(s, ev.duration));
    if (out.windows.empty()) {
        out.refusal = "the one window over the clip shows no clear offset between picture and sound";
        return out;
    }
    LocalOffset w = out.windows.front();
    double lag = w.audioTime - w.movieTime;
    if (w.confidence < s.minClipConfidence) {
        // What it measured is said, for a user who checks by ear.
        char likeliest[96];
        std::snprintf(likeliest, sizeof likeliest, " (the likeliest, the sound %.0f ms %s, is no clearer than chance)", std::fabs(lag) * 1000,
                      lag >= 0 ? "late" : "early");
        out.refusal = std::string("the one window over the clip shows no clear offset between picture and sound") + likeliest;
        return out;
    }
    // The candidates' confidence reads 0.5 at the floor (linear on either
    // side of it, 1 at 1), so that a clip proposed at all passes the
    // default threshold of automatic syncs, and a clearer one reads higher.
    w.confidence = 0.5 + 0.5 * (w.confidence - s.minClipConfidence) / (1 - s.minClipConfidence);
    // Both points lie half a second inside the clip, in movie and in audio time.
    double margin = std::min(0.5, ev.duration / 4);
    double first = margin + std::max(0.0, -lag), last = ev.duration - margin - std::max(0.0, lag);
    if (last - first < ev.duration / 4) {
        first = ev.duration / 4;
        last = 3 * ev.duration / 4;
    }
    for (double t : {first, last}) {
        LocalOffset c = w;
        c.movieTime = t;
        c.audioTime = t + lag;
        out.candidates.push_back(c);
    }
    out.line = Line{1.0, lag, {0}};
    return out;
}

} // namespace

namespace {

// Movie seconds as m:ss, for refusals.
std::string clock(double seconds)
{
    auto whole = static_cast<long>(std::lround(std::max(0.0, seconds)));
    char text[32];
    std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
    return text;
}

} // namespace

Suggestion suggestPoints(Evidence const& ev, Settings const& s)
{
    Suggestion out;
    Prepared p = prepare(ev);
    if (ev.duration <= s.windowSeconds) return suggestForClip(ev, p, s);
    auto starts = windowStarts(ev.duration, s);
    double length = std::min(s.windowSeconds, ev.duration);
    if (starts.empty()) {
        out.refusal = "the movie is too short to compare its picture with its sound";
        return out;
    }
    // First pass at the nominal rate; when a line is found, the windows are
    // measured again along its slope, so that drift does not smear a window.
    std::vector<double> slopes = {1.0};
    for (double d = s.driftStep; s.driftStep > 0 && d <= s.maxDrift + 1e-12; d += s.driftStep) {
        slopes.push_back(1 + d);
        slopes.push_back(1 - d);
    }
    Suggestion firstPass;
    for (int pass = 0; pass < 2; ++pass) {
        if (pass == 1) firstPass = out;
        out.windows = measureWindows(p, s, slopes, starts, length, s.maxLag);
        std::vector<LocalOffset> confident;
        for (auto const& w : out.windows)
            if (w.confidence >= s.minConfidence) confident.push_back(w);
        out.candidates.clear();
        out.line.reset();
        if (confident.size() < 2) {
            if (pass == 1) return firstPass;
            out.refusal = "only " + std::to_string(confident.size()) + " of " + std::to_string(out.windows.size())
                          + " windows show a clear offset between picture and sound";
            return out;
        }
        auto line = consensusLine(confident, s.tolerance);
        // Agreement must be the rule, not a coincidence among disagreeing windows.
        if (!line || 2 * line->inliers.size() <= confident.size()) {
            if (pass == 1) return firstPass;
            std::size_t agree = line ? line->inliers.size() : 1;
            out.refusal = "the windows disagree: at most " + std::to_string(agree) + " of " + std::to_string(confident.size())
                          + " clear offsets lie on one line";
            return out;
        }
        // A line through windows close together is steep or flat by chance:
        // a few milliseconds at each, over their span, become tens at the
        // far end of the movie. The agreeing windows must span a third of it.
        double first = ev.duration, last = 0;
        for (auto k : line->inliers) {
            first = std::min(first, confident[k].movieTime);
            last = std::max(last, confident[k].movieTime);
        }
        if (last - first < ev.duration / 3) {
            if (pass == 1) return firstPass;
            out.refusal = "the windows that agree lie too close together (" + clock(first) + " to " + clock(last)
                          + ") to place the line over the whole movie";
            return out;
        }
        for (auto k : line->inliers) out.candidates.push_back(confident[k]);
        out.line = line;
        out.refusal.clear();
        slopes = {line->slope};
    }
    return out;
}

double lagsMeasured(Settings const& s, double duration)
{
    if (duration > s.windowSeconds) return s.maxLag;
    // Lags of a third of the clip either way (from shortMaxLag up to
    // maxLag): a clip of a beat that repeats every 2 s must show its other
    // fits, not hide them beyond the range.
    return std::min({s.maxLag, std::max(s.shortMaxLag, duration / 3), duration / 3});
}

Voice voiceOf(Evidence const& ev)
{
    Voice v;
    v.levels = voiceLevels(ev);
    for (auto const& level : v.levels) v.rates.push_back(rateOfChange(level));
    return v;
}

double mouthFollowsVoice(Evidence const& mouth, Voice const& voice, double start, double seconds, double maxLag)
{
    auto pairs = mouthPairs(mouth, voice);
    if (pairs.empty()) return 0;
    // The speaker's mouth follows the voice at one lag; a mouth that sings
    // or chews along may follow it as closely, but loosely, at many. So the
    // clearest peak counts, not the highest.
    auto peak = findPeak(mouthCorrelation(pairs, start, seconds, maxLag, 1.0), 2 * Settings{}.frameSeconds);
    return peak ? peak->confidence() : 0;
}

} // namespace suggest
