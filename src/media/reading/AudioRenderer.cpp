#include "AudioRenderer.h"

#include "Codec.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numeric>

namespace media {

namespace {
constexpr std::int64_t kPreroll = 4096;    // samples decoded before a seek target
constexpr int kFeed = 4096;                // input samples per resampler call
constexpr int kResamplerContext = 2048;    // input fed before a scaled segment's start
} // namespace

AudioDecoder::AudioDecoder(std::shared_ptr<const FileMedia> media)
    : media_(std::move(media)), packet_(makePacket()), frame_(makeFrame()), held_(makeFrame())
{
    if (!media_ || media_->type != dm::MediaType::Sound) throw MediaError("Not a sound track.");
    StreamDecoder d = openStreamDecoder(*media_, "sound");
    input_ = std::move(d.input);
    codec_ = std::move(d.codec);
    stream_ = d.stream;
    channels_ = codec_->ch_layout.nb_channels > 0 ? codec_->ch_layout.nb_channels : media_->channels;
    sampleRate_ = media_->sampleRate;
    if (channels_ <= 0) throw MediaError("The sound track has no channels.");
    if (codec_->ch_layout.nb_channels > 0 && codec_->ch_layout.order != AV_CHANNEL_ORDER_UNSPEC)
        check(av_channel_layout_copy(&layout_, &codec_->ch_layout), "Sound layout");
    else
        av_channel_layout_default(&layout_, channels_);
    window_.assign(static_cast<std::size_t>(channels_), {});
    double samplesPerTick = av_q2d(media_->timeBase) * sampleRate_;
    coarse_ = samplesPerTick > 1.0 + 1e-9;
    if (coarse_) {
        coarseError_ = static_cast<std::int64_t>(std::ceil(samplesPerTick)) + 1; // rounded or cut
        learnGrid();
    }
}

void AudioDecoder::learnGrid()
{
    // The decoder stands at the start of the stream: decode three frames as
    // a read from the beginning places them. The window they fill is kept.
    std::int64_t starts[3] = {0, 0, 0}, sizes[3] = {0, 0, 0};
    for (int i = 0; i < 3; ++i) {
        int framesBefore = framesInWindow_;
        if (!decodeMore() || haveHeld_ || framesInWindow_ != framesBefore + 1) return;
        sizes[i] = lastFrameSamples_;
        starts[i] = windowEnd() - sizes[i];
    }
    if (sizes[1] <= 0 || sizes[1] != sizes[2]) return; // frames of varying size: no grid
    gridFrame_ = static_cast<int>(sizes[1]);
    gridOrigin_ = starts[2];
}

AudioDecoder::~AudioDecoder()
{
    av_channel_layout_uninit(&layout_);
    av_channel_layout_uninit(&convertFrom_);
}

void AudioDecoder::seekTo(std::int64_t sample)
{
    std::int64_t target = std::max<std::int64_t>(0, sample);
    std::int64_t pts = media_->ptsFromTicks(target);
    int rc = av_seek_frame(input_.format.get(), stream_, pts, AVSEEK_FLAG_BACKWARD);
    if (rc < 0) av_seek_frame(input_.format.get(), stream_, media_->startPts, AVSEEK_FLAG_BACKWARD | AVSEEK_FLAG_ANY);
    avcodec_flush_buffers(codec_.get());
    for (auto& c : window_) c.clear();
    haveStart_ = false;
    eof_ = false;
    haveHeld_ = false;
    av_frame_unref(held_.get());
    silentFrom_ = silentTo_ = 0;
}

namespace {
constexpr std::int64_t kLongGapSeconds = 2; // longer jumps are not filled with samples
}

void AudioDecoder::append(AVFrame const* frame, std::int64_t position)
{
    int n = frame->nb_samples;
    if (n <= 0) return;
    std::int64_t end = windowEnd();
    std::size_t skip = 0;
    if (gridFrame_ > 0 && n == gridFrame_ && position != AV_NOPTS_VALUE && (!haveStart_ || framesInWindow_ == 1)) {
        // A coarse time stamp placing the window after a seek: the frame
        // starts on the grid of frames that reading from the start gives.
        std::int64_t k = position - gridOrigin_;
        std::int64_t frames = (k >= 0 ? k + n / 2 : k - n / 2) / n;
        std::int64_t snapped = gridOrigin_ + frames * n;
        if (std::llabs(snapped - position) <= coarseError_) position = snapped;
    }
    if (!haveStart_) {
        windowStart_ = position;
        haveStart_ = true;
        framesInWindow_ = 0;
    } else if (position != AV_NOPTS_VALUE) {
        // Follow the stream's own time stamps across gaps and overlaps; small
        // jitter (less than 2 ms) is rounding and is ignored.
        std::int64_t tolerance = std::max(32, sampleRate_ / 500);
        if (position > end + kLongGapSeconds * sampleRate_) {
            check(av_frame_ref(held_.get(), frame), "Keeping a sound frame");
            haveHeld_ = true;
            heldAt_ = position;
            return;
        }
        if (position > end + tolerance) {
            for (auto& c : window_) c.resize(c.size() + static_cast<std::size_t>(position - end), 0.0f);
        } else if (position < end - tolerance) {
            skip = static_cast<std::size_t>(std::min<std::int64_t>(n, end - position));
        }
    }
    ++framesInWindow_;
    lastFrameSamples_ = n;
    std::size_t old = window_[0].size();
    bool direct = frame->format == AV_SAMPLE_FMT_FLTP && frame->sample_rate == sampleRate_
               && av_channel_layout_compare(&frame->ch_layout, &layout_) == 0;
    if (direct) {
        for (int c = 0; c < channels_; ++c) {
            window_[c].resize(old + static_cast<std::size_t>(n));
            std::memcpy(window_[c].data() + old, frame->extended_data[c], sizeof(float) * static_cast<std::size_t>(n));
        }
    } else {
        // A converter for this frame's layout, format and rate; set up again
        // whenever the stream changes them.
        bool same = convert_ && convertFormat_ == frame->format && convertRate_ == frame->sample_rate
                 && av_channel_layout_compare(&convertFrom_, &frame->ch_layout) == 0;
        if (!same) {
            SwrContext* s = nullptr;
            AVChannelLayout inLayout{};
            if (frame->ch_layout.nb_channels > 0) check(av_channel_layout_copy(&inLayout, &frame->ch_layout), "Sound layout");
            else av_channel_layout_default(&inLayout, channels_);
            if (inLayout.order == AV_CHANNEL_ORDER_UNSPEC) {
                int count = inLayout.nb_channels;
                av_channel_layout_uninit(&inLayout);
                av_channel_layout_default(&inLayout, count);
            }
            int rc = swr_alloc_set_opts2(&s, &layout_, AV_SAMPLE_FMT_FLTP, sampleRate_, &inLayout,
                                         static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr);
            av_channel_layout_uninit(&convertFrom_);
            av_channel_layout_copy(&convertFrom_, &frame->ch_layout);
            av_channel_layout_uninit(&inLayout);
            check(rc, "Setting up sample conversion");
            convert_.reset(s);
            if (frame->sample_rate != sampleRate_) av_opt_set(s, "resampler", "soxr", 0);
            check(swr_init(s), "Setting up sample conversion");
            convertFormat_ = frame->format;
            convertRate_ = frame->sample_rate;
        }
        int room = swr_get_out_samples(convert_.get(), n) + 16;
        std::vector<float*> dst(static_cast<std::size_t>(channels_));
        for (int c = 0; c < channels_; ++c) {
            window_[c].resize(old + static_cast<std::size_t>(room));
            dst[c] = window_[c].data() + old;
        }
        int got = check(swr_convert(convert_.get(), reinterpret_cast<std::uint8_t**>(dst.data()), room,
                                    const_cast<std::uint8_t const**>(frame->extended_data), n),
                        "Converting samples");
        for (auto& c : window_) c.resize(old + static_cast<std::size_t>(got));
    }
    if (skip > 0)
        for (auto& c : window_) c.erase(c.begin() + static_cast<std::ptrdiff_t>(old), c.begin() + static_cast<std::ptrdiff_t>(std::min(c.size(), old + skip)));
}

bool AudioDecoder::decodeMore()
{
    AVFormatContext* fmt = input_.format.get();
    for (;;) {
        int rc = avcodec_receive_frame(codec_.get(), frame_.get());
        if (rc == 0) {
            std::int64_t ts = frame_->best_effort_timestamp;
            std::int64_t pos = ts == AV_NOPTS_VALUE ? AV_NOPTS_VALUE : media_->ticksFromPts(ts);
            if (!haveStart_ && pos == AV_NOPTS_VALUE) pos = 0;
            append(frame_.get(), pos);
            av_frame_unref(frame_.get());
            return true;
        }
        if (rc == AVERROR_EOF) {
            eof_ = true;
            return false;
        }
        // A damaged frame is counted and skipped: the decoder gets the next
        // packet (asking again could give the same error for ever).
        if (rc != AVERROR(EAGAIN)) errors_.fetch_add(1, std::memory_order_relaxed);
        if (eof_) return false;
        rc = av_read_frame(fmt, packet_.get());
        if (rc < 0) {
            avcodec_send_packet(codec_.get(), nullptr); // demuxer done: drain the decoder above
            eof_ = true;
            continue;
        }
        if (packet_->stream_index == stream_) {
            rc = avcodec_send_packet(codec_.get(), packet_.get());
            if (rc < 0 && rc != AVERROR(EAGAIN)) errors_.fetch_add(1, std::memory_order_relaxed); // skipped
        }
        av_packet_unref(packet_.get());
    }
}

void AudioDecoder::trimFront(std::int64_t keepFrom)
{
    std::int64_t drop = keepFrom - windowStart_;
    if (drop < 8LL * sampleRate_) return; // compact rarely: erasing is linear
    drop = std::min<std::int64_t>(drop, static_cast<std::int64_t>(window_[0].size()));
    for (auto& c : window_) c.erase(c.begin(), c.begin() + static_cast<std::ptrdiff_t>(drop));
    windowStart_ += drop;
}

void AudioDecoder::read(std::int64_t first, int count, float* const* out, std::size_t offset)
{
    for (int c = 0; c < channels_; ++c) std::fill(out[c] + offset, out[c] + offset + count, 0.0f);
    std::int64_t a = std::max<std::int64_t>(first, 0);
    std::int64_t b = std::min<std::int64_t>(first + count, media_->length);
    if (a >= b) return;

    bool inKnownSilence = a >= silentFrom_ && a < silentTo_ && silentTo_ == windowStart_;
    bool farAhead = haveStart_ && !haveHeld_ && a > windowEnd() + 4LL * sampleRate_;
    if (!haveStart_ || (a < windowStart_ && !inKnownSilence) || farAhead) {
        std::int64_t preroll = kPreroll;
        for (int attempt = 0;; ++attempt) {
            seekTo(a - preroll);
            while (!haveStart_ && decodeMore()) {
            }
            if (!haveStart_ || windowStart_ <= a || a - preroll <= 0 || attempt > 6) break;
            preroll *= 8; // the seek landed after the target: go further back
        }
        if (haveStart_ && windowStart_ > a) {
            // Seeking cannot reach the target: read from the start instead.
            seekTo(0);
            av_seek_frame(input_.format.get(), stream_, INT64_MIN, AVSEEK_FLAG_BACKWARD | AVSEEK_FLAG_ANY);
            while (!haveStart_ && decodeMore()) {
            }
        }
    }
    if (!haveStart_) return;
    std::int64_t pos = a;
    while (pos < b) {
        if (pos >= windowStart_ && pos < windowEnd()) {
            std::int64_t to = std::min(b, windowEnd());
            for (int c = 0; c < channels_; ++c)
                std::memcpy(out[c] + offset + (pos - first), window_[c].data() + (pos - windowStart_),
                            sizeof(float) * static_cast<std::size_t>(to - pos));
            pos = to;
        } else if (pos < windowStart_) {
            pos = std::min(b, windowStart_); // before the first decodable sample: silence
        } else if (haveHeld_ && pos < heldAt_) {
            pos = std::min(b, heldAt_); // inside a long jump of the time stamps: silence
        } else if (haveHeld_) {
            // The read has reached the frame after the jump: the window starts again there.
            silentFrom_ = windowEnd();
            silentTo_ = heldAt_;
            for (auto& c : window_) c.clear();
            windowStart_ = heldAt_;
            haveHeld_ = false;
            Frame f = std::move(held_);
            held_ = makeFrame();
            append(f.get(), heldAt_);
        } else if (!decodeMore()) {
            break;
        }
    }
    trimFront(std::min(a, windowEnd()) - (keepBehind_ > 0 ? keepBehind_ : sampleRate_));
}

struct AudioRenderer::Scaled {
    dm::Segment seg;
    std::int64_t segStart = 0;
    std::int64_t nextOut = 0;  // timeline tick of the next output sample
    std::int64_t nextIn = 0;   // media sample of the next input fed
    std::int64_t skip = 0;     // output samples still to drop
    std::int64_t inRate = 0, outRate = 0;
    Swr swr;
    std::vector<std::vector<float>> pending; // produced, not yet used
};

AudioRenderer::AudioRenderer(std::shared_ptr<const FileMedia> media) : media_(media), decoder_(media) {}
AudioRenderer::~AudioRenderer() = default;

int AudioRenderer::channels() const { return decoder_.channels(); }
int AudioRenderer::sampleRate() const { return decoder_.sampleRate(); }

void AudioRenderer::render(dm::EditList const& list, std::int64_t start, PcmBuffer& out)
{
    constexpr std::size_t kMost = 16; // channels a buffer may have without a vector made for it
    if (out.channels.size() <= kMost) {
        float* planes[kMost];
        for (std::size_t c = 0; c < out.channels.size(); ++c) planes[c] = out.channels[c].data();
        render(list, start, static_cast<int>(out.frames()), planes, 0);
        return;
    }
    std::vector<float*> ptrs;
    for (auto& c : out.channels) ptrs.push_back(c.data());
    render(list, start, static_cast<int>(out.frames()), ptrs.data(), 0);
}

void AudioRenderer::render(dm::EditList const& list, std::int64_t start, int count, float* const* out, std::size_t offset)
{
    int ch = channels();
    std::int64_t end = start + count;
    std::int64_t t = start;
    auto const& segs = list.segments();
    auto const& starts = list.starts();
    // First segment that ends after `start`.
    std::size_t i = static_cast<std::size_t>(std::upper_bound(starts.begin(), starts.end(), start) - starts.begin());
    if (i > 0) --i;
    while (t < end) {
        if (i < segs.size() && t >= starts[i] + segs[i].duration) {
            ++i;
            continue;
        }
        if (i >= segs.size() || t < starts[i] || t < 0) {
            // Before the list, or past its end: silence up to the next segment.
            std::int64_t until = end;
            if (i < segs.size() && t < starts[i]) until = std::min(end, starts[i]);
            if (t < 0) until = std::min(until, std::int64_t{0});
            for (int c = 0; c < ch; ++c) std::fill(out[c] + offset + (t - start), out[c] + offset + (until - start), 0.0f);
            t = until;
            continue;
        }
        dm::Segment const& s = segs[i];
        std::int64_t segEnd = starts[i] + s.duration;
        int n = static_cast<int>(std::min(end, segEnd) - t);
        std::size_t at = offset + static_cast<std::size_t>(t - start);
        if (s.isEmpty()) {
            for (int c = 0; c < ch; ++c) std::fill(out[c] + at, out[c] + at + n, 0.0f);
        } else if (s.mediaLength == s.duration) {
            decoder_.read(s.mediaStart + (t - starts[i]), n, out, at);
        } else {
            renderScaled(s, starts[i], t, n, out, at);
        }
        t += n;
        ++i;
    }
}

void AudioRenderer::renderScaled(dm::Segment const& seg, std::int64_t segStart, std::int64_t from, int count,
                                 float* const* out, std::size_t offset)
{
    int ch = channels();
    bool continues = scaled_ && scaled_->seg == seg && scaled_->segStart == segStart && scaled_->nextOut == from;
    if (!continues) {
        auto st = std::make_unique<Scaled>();
        st->seg = seg;
        st->segStart = segStart;
        st->nextOut = from;
        // Exact media position of `from`: mediaStart + o * L / D.
        std::int64_t L = seg.mediaLength, D = seg.duration;
        __int128 num = (__int128)seg.mediaStart * D + (__int128)(from - segStart) * L; // position x D
        std::int64_t floorPos = static_cast<std::int64_t>(num >= 0 ? num / D : -((-num + D - 1) / D));
        st->nextIn = floorPos - kResamplerContext;
        // Output sample j lies at input time nextIn + j * L / D.
        st->skip = dm::roundDiv(num - (__int128)st->nextIn * D, L);

        std::int64_t g = std::gcd(L, D);
        std::int64_t inRate = L / g, outRate = D / g;
        while (inRate > INT32_MAX || outRate > INT32_MAX) { // keep the ratio, lose a little precision
            inRate = (inRate + 1) / 2;
            outRate = (outRate + 1) / 2;
        }
        // The last state's resampler goes back to the cache for its ratio.
        if (scaled_ && scaled_->swr) {
            for (auto& c : resamplers_)
                if (!c.swr && c.inRate == scaled_->inRate && c.outRate == scaled_->outRate) {
                    c.swr = std::move(scaled_->swr);
                    break;
                }
        }
        Swr swr;
        for (auto& c : resamplers_)
            if (c.swr && c.inRate == inRate && c.outRate == outRate) swr = std::move(c.swr);
        if (swr) {
            check(swr_init(swr.get()), "Setting up the soxr resampler"); // a clean state, same filter
        } else {
            SwrContext* s = nullptr;
            AVChannelLayout layout;
            av_channel_layout_default(&layout, ch);
            check(swr_alloc_set_opts2(&s, &layout, AV_SAMPLE_FMT_FLTP, static_cast<int>(outRate), &layout, AV_SAMPLE_FMT_FLTP,
                                      static_cast<int>(inRate), 0, nullptr),
                  "Setting up the resampler");
            swr.reset(s);
            av_opt_set(s, "resampler", "soxr", 0);
            av_opt_set_double(s, "precision", 28, 0);
            check(swr_init(s), "Setting up the soxr resampler");
            bool known = false;
            for (auto const& c : resamplers_) known |= c.inRate == inRate && c.outRate == outRate;
            if (!known) {
                if (resamplers_.size() >= 4) resamplers_.erase(resamplers_.begin());
                resamplers_.push_back({inRate, outRate, nullptr});
            }
        }
        st->swr = std::move(swr);
        st->inRate = inRate;
        st->outRate = outRate;
        st->pending.assign(static_cast<std::size_t>(ch), {});
        for (auto& c : st->pending) c.reserve(static_cast<std::size_t>(kFeed) * 4);
        scaled_ = std::move(st);
    }
    Scaled& st = *scaled_;
    if (feed_.size() != static_cast<std::size_t>(ch)) {
        feed_.assign(static_cast<std::size_t>(ch), std::vector<float>(kFeed));
        feedPtr_.clear();
        for (auto& c : feed_) feedPtr_.push_back(c.data());
        outPtr_.assign(static_cast<std::size_t>(ch), nullptr);
    }
    float** inPtr = feedPtr_.data();
    float** outPtr = outPtr_.data();
    auto available = [&] { return static_cast<std::int64_t>(st.pending[0].size()); };
    while (available() - st.skip < count) {
        decoder_.read(st.nextIn, kFeed, inPtr);
        st.nextIn += kFeed;
        int room = swr_get_out_samples(st.swr.get(), kFeed);
        std::size_t old = st.pending[0].size();
        for (int c = 0; c < ch; ++c) {
            st.pending[c].resize(old + static_cast<std::size_t>(room));
            outPtr[c] = st.pending[c].data() + old;
        }
        int got = check(swr_convert(st.swr.get(), reinterpret_cast<std::uint8_t**>(outPtr), room,
                                    const_cast<std::uint8_t const**>(reinterpret_cast<std::uint8_t**>(inPtr)), kFeed),
                        "Resampling");
        for (auto& c : st.pending) c.resize(old + static_cast<std::size_t>(got));
        if (st.skip > 0) {
            std::int64_t drop = std::min<std::int64_t>(st.skip, available());
            for (auto& c : st.pending) c.erase(c.begin(), c.begin() + drop);
            st.skip -= drop;
        }
    }
    for (int c = 0; c < ch; ++c) {
        std::memcpy(out[c] + offset, st.pending[c].data(), sizeof(float) * static_cast<std::size_t>(count));
        st.pending[c].erase(st.pending[c].begin(), st.pending[c].begin() + count);
    }
    st.nextOut += count;
}

} // namespace media
