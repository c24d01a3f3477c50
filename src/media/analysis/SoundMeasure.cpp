#include "SoundMeasure.h"

#include "FFmpeg.h"
#include "SavedSync.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <numeric>

namespace media {

namespace {

// One file's enabled sound as mono samples, and where its movie starts.
struct PlacedSound {
    std::vector<float> samples;
    int rate = 0;
    double start = 0;      // file seconds of samples[0]
    double origin = 0;     // file seconds of movie time 0 (the format's start)
    double videoStart = 0; // file seconds of the first picture
    bool hasVideo = false;
    double duration = 0;   // seconds, as the format declares it
    std::string syncPoints;

    // Movie seconds of sample `i`.
    double movieTimeOf(double i) const { return start + i / rate - origin; }
    // The sample index (fractional) at movie seconds `t`.
    double indexAt(double t) const { return (t + origin - start) * rate; }
    // Catmull-Rom interpolation between samples; silence outside.
    float at(double index) const
    {
        auto i = static_cast<std::int64_t>(std::floor(index));
        double f = index - static_cast<double>(i);
        auto s = [&](std::int64_t k) {
            return k >= 0 && k < static_cast<std::int64_t>(samples.size()) ? samples[static_cast<std::size_t>(k)] : 0.0f;
        };
        double p0 = s(i - 1), p1 = s(i), p2 = s(i + 1), p3 = s(i + 2);
        return static_cast<float>(p1 + 0.5 * f * (p2 - p0 + f * (2 * p0 - 5 * p1 + 4 * p2 - p3 + f * (3 * (p1 - p2) + p3 - p0))));
    }
};

int enabledSoundStream(AVFormatContext const* fmt)
{
    int first = -1;
    for (unsigned i = 0; i < fmt->nb_streams; ++i) {
        AVStream const* st = fmt->streams[i];
        if (st->codecpar->codec_type != AVMEDIA_TYPE_AUDIO) continue;
        if (st->disposition & AV_DISPOSITION_DEFAULT) return static_cast<int>(i);
        if (first < 0) first = static_cast<int>(i);
    }
    return first;
}

// The earliest presentation time among the first pictures of a file, in
// seconds, read from its packets: a stream's declared start can be off
// (FFmpeg reports 0 for a Matroska picture track whose first block is later).
std::optional<double> firstPictureTime(std::string const& path)
{
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) return std::nullopt;
    InputContext fmt(raw);
    if (avformat_find_stream_info(fmt.get(), nullptr) < 0) return std::nullopt;
    int video = av_find_best_stream(fmt.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (video < 0) return std::nullopt;
    AVStream const* vs = fmt->streams[video];
    for (unsigned i = 0; i < fmt->nb_streams; ++i) fmt->streams[i]->discard = static_cast<int>(i) == video ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    Packet pkt = makePacket();
    std::int64_t earliest = AV_NOPTS_VALUE;
    for (int seen = 0; seen < 64 && av_read_frame(fmt.get(), pkt.get()) >= 0;) {
        if (pkt->stream_index == video) {
            ++seen;
            std::int64_t t = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
            if (t != AV_NOPTS_VALUE && (earliest == AV_NOPTS_VALUE || t < earliest)) earliest = t;
        }
        av_packet_unref(pkt.get());
    }
    if (earliest == AV_NOPTS_VALUE) earliest = vs->start_time;
    if (earliest == AV_NOPTS_VALUE) return std::nullopt;
    return static_cast<double>(earliest) * av_q2d(vs->time_base);
}

PlacedSound decodeSound(std::string const& path, int stream)
{
    AVFormatContext* raw = nullptr;
    check(avformat_open_input(&raw, path.c_str(), nullptr, nullptr), "Cannot open \"" + path + "\"");
    InputContext fmt(raw);
    check(avformat_find_stream_info(fmt.get(), nullptr), "Reading the streams of \"" + path + "\"");
    PlacedSound out;
    out.origin = fmt->start_time == AV_NOPTS_VALUE ? 0 : static_cast<double>(fmt->start_time) / AV_TIME_BASE;
    out.duration = fmt->duration == AV_NOPTS_VALUE ? 0 : static_cast<double>(fmt->duration) / AV_TIME_BASE;
    if (AVDictionaryEntry const* tag = av_dict_get(fmt->metadata, kSyncPointsTag, nullptr, 0)) out.syncPoints = tag->value;
    if (auto first = firstPictureTime(path)) {
        out.hasVideo = true;
        out.videoStart = *first;
    }
    int index = stream >= 0 ? stream : enabledSoundStream(fmt.get());
    if (index >= static_cast<int>(fmt->nb_streams) || (index >= 0 && fmt->streams[index]->codecpar->codec_type != AVMEDIA_TYPE_AUDIO))
        throw MediaError("Stream " + std::to_string(index) + " of \"" + path + "\" is not a sound.");
    if (index < 0) throw MediaError("\"" + path + "\" has no sound.");
    AVStream* st = fmt->streams[index];
    AVCodec const* codec = avcodec_find_decoder(st->codecpar->codec_id);
    if (!codec) throw MediaError("\"" + path + "\": no decoder for its sound (" + avcodec_get_name(st->codecpar->codec_id) + ").");
    CodecContext dec(avcodec_alloc_context3(codec));
    if (!dec) throw MediaError("Out of memory.");
    check(avcodec_parameters_to_context(dec.get(), st->codecpar), "Setting up the sound decoder");
    dec->pkt_timebase = st->time_base;
    check(avcodec_open2(dec.get(), codec, nullptr), "Opening the sound decoder");
    for (unsigned i = 0; i < fmt->nb_streams; ++i) fmt->streams[i]->discard = static_cast<int>(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;

    Swr swr;
    AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    Packet pkt = makePacket();
    Frame frame = makeFrame();
    bool placed = false;
    std::vector<float> chunk;
    auto receive = [&] {
        while (avcodec_receive_frame(dec.get(), frame.get()) == 0) {
            if (!placed) {
                std::int64_t pts = frame->best_effort_timestamp;
                out.start = pts == AV_NOPTS_VALUE ? out.origin : static_cast<double>(pts) * av_q2d(st->time_base);
                out.rate = frame->sample_rate;
                placed = true;
            }
            if (frame->sample_rate != out.rate) {
                av_frame_unref(frame.get());
                continue; // a rate change mid-stream: not a movie this measure is for
            }
            if (!swr) {
                SwrContext* s = nullptr;
                check(swr_alloc_set_opts2(&s, &mono, AV_SAMPLE_FMT_FLT, out.rate, &frame->ch_layout,
                                          static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr),
                      "Setting up the down-mix");
                swr.reset(s);
                check(swr_init(swr.get()), "Setting up the down-mix");
            }
            chunk.resize(static_cast<std::size_t>(frame->nb_samples));
            auto* dst = reinterpret_cast<std::uint8_t*>(chunk.data());
            int n = swr_convert(swr.get(), &dst, frame->nb_samples, const_cast<std::uint8_t const**>(frame->extended_data), frame->nb_samples);
            // A frame plays where its time stamp says, as a player whose
            // clock follows the sound's time stamps hears it: a gap (the
            // first fragment of a fragmented MPEG-4 file lasts as long as the
            // picture's decoding delay) is silence, an overlap is dropped.
            // Differences under 2 ms are rounding of the time stamps.
            std::size_t skip = 0;
            if (frame->best_effort_timestamp != AV_NOPTS_VALUE && n > 0) {
                double at = (static_cast<double>(frame->best_effort_timestamp) * av_q2d(st->time_base) - out.start) * out.rate;
                auto position = static_cast<std::int64_t>(std::llround(at));
                auto end = static_cast<std::int64_t>(out.samples.size());
                std::int64_t tolerance = std::max(32, out.rate / 500);
                if (position > end + tolerance && position - end < std::int64_t{3600} * out.rate)
                    out.samples.resize(static_cast<std::size_t>(position), 0.0f);
                else if (position < end - tolerance)
                    skip = static_cast<std::size_t>(std::min<std::int64_t>(n, end - position));
            }
            if (n > static_cast<int>(skip)) out.samples.insert(out.samples.end(), chunk.begin() + static_cast<std::ptrdiff_t>(skip), chunk.begin() + n);
            av_frame_unref(frame.get());
        }
    };
    int rc;
    while ((rc = av_read_frame(fmt.get(), pkt.get())) >= 0) {
        if (pkt->stream_index == index) {
            avcodec_send_packet(dec.get(), pkt.get()); // a damaged packet is skipped, as players do
            receive();
        }
        av_packet_unref(pkt.get());
    }
    avcodec_send_packet(dec.get(), nullptr);
    receive();
    if (out.samples.empty() || out.rate <= 0) throw MediaError("\"" + path + "\": its sound decodes to nothing.");
    return out;
}

// Normalised correlation of a against b shifted by `lag` (b's index = a's + lag).
double correlation(std::vector<float> const& a, std::vector<float> const& b, std::int64_t lag)
{
    double ab = 0, bb = 0, aa = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::int64_t j = static_cast<std::int64_t>(i) + lag;
        if (j < 0 || j >= static_cast<std::int64_t>(b.size())) continue;
        double x = a[i], y = b[static_cast<std::size_t>(j)];
        ab += x * y;
        aa += x * x;
        bb += y * y;
    }
    return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : 0.0;
}

std::vector<float> decimated(std::vector<float> const& x, int factor)
{
    std::vector<float> out(x.size() / static_cast<std::size_t>(factor));
    for (std::size_t i = 0; i < out.size(); ++i) {
        float sum = 0;
        for (int k = 0; k < factor; ++k) sum += x[i * static_cast<std::size_t>(factor) + static_cast<std::size_t>(k)];
        out[i] = sum / static_cast<float>(factor);
    }
    return out;
}

} // namespace

double SoundMeasurement::worst() const
{
    double w = 0;
    for (auto const& x : windows) w = std::max(w, std::abs(x.error));
    return w;
}

double SoundMeasurement::percentile(double p) const
{
    if (windows.empty()) return 0;
    std::vector<double> e;
    for (auto const& x : windows) e.push_back(std::abs(x.error));
    std::sort(e.begin(), e.end());
    auto k = static_cast<std::size_t>(std::ceil(std::clamp(p, 0.0, 1.0) * static_cast<double>(e.size()))) ;
    return e[std::min(e.size() - 1, k == 0 ? 0 : k - 1)];
}

double SoundMeasurement::bias() const
{
    if (windows.empty()) return 0;
    double sum = 0;
    for (auto const& x : windows) sum += x.error;
    return sum / static_cast<double>(windows.size());
}

SoundMeasurement measureSoundAgainst(std::string const& originalPath, std::string const& syncedPath, SoundMeasureOptions const& options)
{
    PlacedSound original = decodeSound(originalPath, options.originalStream);
    PlacedSound synced = decodeSound(syncedPath, options.syncedStream);
    // The picture is not moved by a sync: the synced movie's time is laid
    // on its first picture as the original's was.
    if (original.hasVideo && synced.hasVideo) synced.origin = synced.videoStart - (original.videoStart - original.origin);

    SoundMeasurement m;
    std::vector<Offset> points;
    if (options.points) {
        points = *options.points;
        m.pointsFrom = "the points given";
    } else if (auto stored = options.useStoredPoints ? decodeSyncPoints(synced.syncPoints) : std::nullopt) {
        points = *stored;
        m.pointsFrom = "the synced movie";
    } else {
        m.pointsFrom = "none (the sound should not have moved)";
    }
    if (!points.empty()) {
        SyncLine line = fitSyncLine(points, myQTTime(static_cast<long long>(std::llround(original.duration * 1000)), 1000));
        if (!line.fitted) throw MediaError("The sync points give no line to measure against.");
        m.slope = line.slope;
        m.intercept = line.intercept;
    }

    int rate = synced.rate;
    auto windowSamples = static_cast<std::int64_t>(std::llround(options.window * rate));
    auto searchSamples = static_cast<std::int64_t>(std::llround(options.search * rate));
    int factor = std::max(1, rate / 6000);
    double first = synced.movieTimeOf(0) + options.window / 2;
    double last = synced.movieTimeOf(static_cast<double>(synced.samples.size())) - options.window / 2;
    double originalFirst = original.movieTimeOf(0), originalLast = original.movieTimeOf(static_cast<double>(original.samples.size()));
    for (double centre = std::max(first, options.step); centre <= last; centre += options.step) {
        // The window of the synced sound, and the original under the line
        // around it (wider by the search on both sides).
        double from = centre - options.window / 2;
        double a0 = m.slope * (from - options.search) + m.intercept;
        double a1 = m.slope * (from + options.window + options.search) + m.intercept;
        if (a0 < originalFirst || a1 > originalLast) continue; // the line leads outside the original sound
        auto j0 = static_cast<std::int64_t>(std::llround(synced.indexAt(from)));
        if (j0 < 0 || j0 + windowSamples > static_cast<std::int64_t>(synced.samples.size())) continue;
        std::vector<float> heard(synced.samples.begin() + j0, synced.samples.begin() + j0 + windowSamples);
        double energy = std::inner_product(heard.begin(), heard.end(), heard.begin(), 0.0) / static_cast<double>(heard.size());
        if (energy < 1e-8) {
            ++m.silent;
            continue;
        }
        std::vector<float> expected(static_cast<std::size_t>(windowSamples + 2 * searchSamples));
        double windowStart = synced.movieTimeOf(static_cast<double>(j0));
        for (std::size_t i = 0; i < expected.size(); ++i) {
            double t = windowStart + (static_cast<double>(i) - static_cast<double>(searchSamples)) / rate;
            expected[i] = original.at(original.indexAt(m.slope * t + m.intercept));
        }
        // Coarse: over the whole search, at about 6 kHz.
        std::vector<float> heardLow = decimated(heard, factor), expectedLow = decimated(expected, factor);
        std::int64_t centreLow = searchSamples / factor, bestLow = centreLow;
        double bestLowValue = -2;
        for (std::int64_t lag = 0; lag <= 2 * centreLow; ++lag) {
            double c = correlation(heardLow, expectedLow, lag);
            if (c > bestLowValue) bestLowValue = c, bestLow = lag;
        }
        // Fine: every sample around the coarse peak, then a parabola.
        std::int64_t around = bestLow * factor, best = around;
        double bestValue = -2;
        std::map<std::int64_t, double> values;
        for (std::int64_t lag = around - 2 * factor; lag <= around + 2 * factor; ++lag) {
            if (lag < 0 || lag > 2 * searchSamples) continue;
            double c = correlation(heard, expected, lag);
            values[lag] = c;
            if (c > bestValue) bestValue = c, best = lag;
        }
        if (bestValue < 0.3) {
            ++m.unmatched;
            continue;
        }
        double peak = static_cast<double>(best);
        if (values.count(best - 1) && values.count(best + 1)) {
            double y0 = values[best - 1], y1 = values[best], y2 = values[best + 1];
            double den = y0 - 2 * y1 + y2;
            if (den < 0) peak += 0.5 * (y0 - y2) / den;
        }
        // The heard sound matches the expected one `lag` samples later in
        // `expected`: the sound plays that much early.
        double lag = peak - static_cast<double>(searchSamples);
        m.windows.push_back({centre, -lag / rate, bestValue});
    }
    return m;
}

} // namespace media
