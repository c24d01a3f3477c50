#include "SoundEncoder.h"

#include "MovieFile.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <functional>
#include <numeric>
#include <vector>

namespace media {

namespace {
constexpr int kChunk = 8192; // samples rendered per step
} // namespace

// Encodes a sound in chunks of whole encoder frames on a pool of threads.
// Each chunk gets an encoder of its own, opened as the stream's, that is fed
// `preroll` frames before the chunk, the chunk, and `postroll` frames after
// it, then drained; it keeps the packets whose time stamps fall in the
// chunk's span (shifted by the codec's priming, as one encoder over the
// whole sound would stamp them). Frames are handed in and packets written
// out on one thread (the writer's). A chunk is handed to the pool when it
// starts, and its encoder takes each frame as it comes and lets it go once
// encoded, so a chunk's sound is held only between its rendering and its
// encoding: rendering is much faster than encoding. At most `workers + 1`
// chunks are in flight, the last one filling.
class ChunkedEncoding {
public:
    struct Setup {
        AVCodec const* codec = nullptr;
        std::function<void(AVCodecContext*)> configure; // sets a context up as the stream's
        int frameSize = 1024;
        std::int64_t padding = 0; // the codec's priming, in its time base
        int preroll = 0, postroll = 0, chunkFrames = 1024, workers = 2;
    };

    explicit ChunkedEncoding(Setup setup) : s_(std::move(setup))
    {
        for (int i = 0; i < s_.workers; ++i) threads_.emplace_back([this] { work(); });
    }
    ~ChunkedEncoding()
    {
        {
            std::lock_guard<std::mutex> g(lock_);
            stop_ = true;
        }
        changed_.notify_all();
        for (auto& t : threads_) t.join();
    }
    ChunkedEncoding(ChunkedEncoding const&) = delete;
    ChunkedEncoding& operator=(ChunkedEncoding const&) = delete;

    // Enough is in flight: write the oldest chunk before adding more. Every
    // worker has a chunk, and the next one is a quarter rendered: enough
    // for its encoder to start on while the rest is rendered (several
    // times faster than it is encoded).
    bool full() const
    {
        return inFlight_.size() > static_cast<std::size_t>(s_.workers) && currentFrames_ >= std::max(1, s_.chunkFrames / 4);
    }

    // The next frame of the sound (time stamp set, full size but the last).
    void add(Frame f)
    {
        std::int64_t i = added_++;
        if (i % s_.chunkFrames == 0) {
            if (current_) {
                // The chunk is whole; it is done once it has its post-roll.
                after_ = std::move(current_);
                afterLeft_ = s_.postroll;
                if (afterLeft_ == 0) seal(std::move(after_));
            }
            current_ = std::make_shared<Job>();
            currentFrames_ = 0;
            if (i > 0) current_->keepFrom = f->pts - s_.padding;
            current_->keepTo = f->pts + static_cast<std::int64_t>(s_.chunkFrames) * s_.frameSize - s_.padding;
            for (auto const& h : history_) current_->frames.push_back(clone(h.get()));
            dispatch(current_);
        }
        if (after_) {
            push(*after_, clone(f.get()));
            if (--afterLeft_ == 0) seal(std::move(after_));
        }
        if (s_.preroll > 0) {
            history_.push_back(clone(f.get()));
            if (history_.size() > static_cast<std::size_t>(s_.preroll)) history_.pop_front();
        }
        current_->keptSamples += f->nb_samples;
        ++currentFrames_;
        push(*current_, std::move(f));
    }

    // Every frame is in: the last chunk keeps all its encoder gives out.
    void finish()
    {
        if (after_) seal(std::move(after_)); // its post-roll cut short by the end
        if (current_) {
            {
                std::lock_guard<std::mutex> g(lock_);
                current_->keepTo = INT64_MAX;
            }
            seal(std::move(current_));
        }
        history_.clear();
    }

    // Writes the oldest chunk's packets through `to`, waiting for the chunk
    // when `wait`. Returns the encoder samples written (0: none ready, or
    // none left); rethrows a worker's error.
    std::int64_t writeOldest(Encoder& to, bool wait)
    {
        if (inFlight_.empty()) return 0;
        std::shared_ptr<Job> job = inFlight_.front();
        {
            std::unique_lock<std::mutex> g(lock_);
            if (!job->done && (!wait || !job->sealed)) return 0; // an open chunk needs more frames first
            changed_.wait(g, [&] { return job->done; });
        }
        inFlight_.pop_front();
        if (job->error) std::rethrow_exception(job->error);
        for (auto& p : job->packets) to.write(p.get());
        job->packets.clear();
        return std::max<std::int64_t>(job->keptSamples, 1);
    }

    bool empty() const { return inFlight_.empty() && !current_ && !after_; }

private:
    struct Job {
        std::deque<Frame> frames;                              // not yet encoded: pre-roll, chunk, post-roll (guarded)
        bool sealed = false;                                   // every frame is in (guarded)
        std::int64_t keepFrom = INT64_MIN, keepTo = INT64_MAX; // packet time stamps kept (keepTo guarded)
        std::int64_t keptSamples = 0;                          // the writer's
        std::vector<Packet> packets;
        bool done = false; // guarded
        std::exception_ptr error;
    };

    static Frame clone(AVFrame const* f)
    {
        Frame c(av_frame_clone(f));
        if (!c) throw MediaError("Out of memory.");
        return c;
    }

    void push(Job& job, Frame f)
    {
        {
            std::lock_guard<std::mutex> g(lock_);
            if (!job.done) job.frames.push_back(std::move(f)); // a failed chunk keeps nothing

        }
        changed_.notify_all();
    }

    void seal(std::shared_ptr<Job> job)
    {
        {
            std::lock_guard<std::mutex> g(lock_);
            job->sealed = true;
        }
        changed_.notify_all();
    }

    void dispatch(std::shared_ptr<Job> job)
    {
        inFlight_.push_back(job);
        {
            std::lock_guard<std::mutex> g(lock_);
            queue_.push_back(std::move(job));
        }
        changed_.notify_all();
    }

    void work()
    {
        for (;;) {
            std::shared_ptr<Job> job;
            {
                std::unique_lock<std::mutex> g(lock_);
                changed_.wait(g, [&] { return stop_ || !queue_.empty(); });
                if (stop_) return;
                job = std::move(queue_.front());
                queue_.pop_front();
            }
            try {
                encode(*job);
            } catch (...) {
                job->error = std::current_exception();
            }
            {
                std::lock_guard<std::mutex> g(lock_);
                job->frames.clear();
                job->done = true;
            }
            changed_.notify_all();
        }
    }

    // The chunk's next frame, waiting for the writer to hand it in; null
    // when the chunk is sealed and every frame taken, or when stopping.
    Frame next(Job& job, std::int64_t& keepTo)
    {
        std::unique_lock<std::mutex> g(lock_);
        changed_.wait(g, [&] { return stop_ || !job.frames.empty() || job.sealed; });
        keepTo = job.keepTo;
        if (stop_ || job.frames.empty()) return nullptr;
        Frame f = std::move(job.frames.front());
        job.frames.pop_front();
        return f;
    }

    void encode(Job& job)
    {
        CodecContext c(avcodec_alloc_context3(s_.codec));
        if (!c) throw MediaError("Out of memory.");
        s_.configure(c.get());
        check(avcodec_open2(c.get(), s_.codec, nullptr), std::string("Opening the ") + s_.codec->name + " encoder");
        std::string what = std::string("Encoding with ") + s_.codec->name;
        Packet pkt = makePacket();
        std::int64_t keepTo = INT64_MAX;
        auto drain = [&] {
            for (;;) {
                int rc = avcodec_receive_packet(c.get(), pkt.get());
                if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
                check(rc, what);
                if (pkt->pts != AV_NOPTS_VALUE && pkt->pts >= job.keepFrom && pkt->pts < keepTo) {
                    job.packets.push_back(std::move(pkt));
                    pkt = makePacket();
                } else {
                    av_packet_unref(pkt.get());
                }
            }
        };
        // Packets come out after their frame (the encoder looks ahead), so
        // the last chunk's limit, lifted when it is sealed, is known before
        // the packets it lets through.
        while (Frame f = next(job, keepTo)) {
            check(avcodec_send_frame(c.get(), f.get()), what);
            f.reset(); // the encoder holds what it still needs
            drain();
        }
        {
            std::lock_guard<std::mutex> g(lock_);
            if (stop_) return;
            keepTo = job.keepTo;
        }
        check(avcodec_send_frame(c.get(), nullptr), what);
        drain();
    }

    Setup s_;
    std::deque<Frame> history_;             // the last `preroll` frames
    std::shared_ptr<Job> current_, after_;  // filling; whole and taking its post-roll
    int afterLeft_ = 0;
    int currentFrames_ = 0; // of the chunk being filled, after its pre-roll
    std::int64_t added_ = 0;
    std::deque<std::shared_ptr<Job>> inFlight_; // dispatched, in order
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<std::shared_ptr<Job>> queue_; // waiting for a worker (guarded)
    bool stop_ = false;                      // guarded
    std::vector<std::thread> threads_;
};

namespace {

// The pre-roll and post-roll frames a codec's chunks need, when its packets
// decode on their own.
bool chunkable(AVCodecID id, int& preroll, int& postroll)
{
    switch (id) {
    case AV_CODEC_ID_AAC:
        // The decoder overlaps each frame with the one before it (one frame
        // of pre-roll rebuilds that) and the encoder's window choice looks
        // one frame ahead; but its rate control and psychoacoustic model
        // take a hundred frames and more to settle from their start (with
        // 64 frames of pre-roll about 1 dB of signal-to-noise ratio is
        // lost, half that with 128: see Writer/ChunkedSplices).
        preroll = 128;
        postroll = 2;
        return true;
    case AV_CODEC_ID_AC3:
    case AV_CODEC_ID_EAC3:
        // Each frame's blocks overlap the last block of the frame before;
        // the bit allocation starts afresh in every frame. Chunked, the
        // sound decodes exactly as one encoder's (Writer/ChunkedSplices).
        preroll = 2;
        postroll = 1;
        return true;
    case AV_CODEC_ID_ALAC:
        preroll = postroll = 0;
        return true;
    default:
        preroll = postroll = 0;
        return id >= AV_CODEC_ID_FIRST_AUDIO && id < AV_CODEC_ID_ADPCM_IMA_QT; // PCM
    }
}

} // namespace

SoundEncoder::SoundEncoder(AVFormatContext* out, dm::Track const& track, SoundFormat const& format, double padToSeconds,
                           std::int64_t delay, EncoderThreads threads)
    : list_(track.editList()), renderer_(std::static_pointer_cast<const FileMedia>(track.media()))
{
    if (track.timeScale() != renderer_.sampleRate()) throw MediaError("The sound track's time scale is not its sample rate.");
    encoder_ = std::make_unique<Encoder>(out, format.encoder.c_str(), [&](AVCodecContext* c) { configureEncoder(c, format, renderer_.layout()); });
    AVCodecContext* c = encoder_->context();
    frameSize_ = c->frame_size > 0 ? c->frame_size : 1024;
    // Matroska stores times in milliseconds and moves every stream later
    // by the encoder's priming (its first packet comes before 0). Starting
    // the sound a few samples early puts that move on a whole millisecond,
    // so that the pictures stay exact to the sample against the sound.
    ptsShift_ = delay;
    bool matroska = Container::named(out->oformat->name).isMatroskaFamily();
#if LIBAVFORMAT_VERSION_MAJOR < 60
    if (matroska && c->codec_id == AV_CODEC_ID_OPUS && c->initial_padding > 0) {
        // This Matroska writer stores Opus's priming as CodecDelay without
        // moving the block times, and readers take it off again: the first
        // packet must then start at the timeline's start, not before it, or
        // the writer moves the other streams and the sound comes early.
        // The sound starts a few samples early so that every block time
        // falls on a millisecond. FFmpeg's decoder then places the first
        // sample it keeps at the first block's time plus the CodecDelay
        // rounded to a whole millisecond (7 ms for Opus's 6.5 ms at 48 kHz):
        // the samples encoded first are those the timeline has there, so
        // the decoded sound lands where the timeline has it.
        std::int64_t grid = c->sample_rate / std::gcd(c->sample_rate, 1000);
        std::int64_t rounded = av_rescale(av_rescale(c->initial_padding, 1000, c->sample_rate), c->sample_rate, 1000);
        std::int64_t firstFrame = delay + rounded - (((delay + rounded - c->initial_padding) % grid + grid) % grid);
        pos_ = firstFrame - delay - c->initial_padding;
        ptsShift_ = firstFrame - pos_;
        matroska = false;
    }
#endif
    if (matroska && (c->initial_padding > 0 || delay > 0)) {
        std::int64_t grid = c->sample_rate / std::gcd(c->sample_rate, 1000);
        std::int64_t early = ((delay - c->initial_padding) % grid + grid) % grid;
        pos_ = -early;
    }
    SwrContext* s = nullptr;
    AVChannelLayout inLayout{};
    check(av_channel_layout_copy(&inLayout, &renderer_.layout()), "Sound layout");
    int rc = swr_alloc_set_opts2(&s, &c->ch_layout, c->sample_fmt, c->sample_rate, &inLayout, AV_SAMPLE_FMT_FLTP,
                                 renderer_.sampleRate(), 0, nullptr);
    av_channel_layout_uninit(&inLayout);
    check(rc, "Setting up sample conversion");
    convert_.reset(s);
    if (c->sample_rate != renderer_.sampleRate()) {
        av_opt_set(s, "resampler", "soxr", 0);
        av_opt_set_double(s, "precision", 28, 0);
    }
    check(swr_init(s), "Setting up sample conversion");
    pos0_ = pos_;
    fifo_.reset(av_audio_fifo_alloc(c->sample_fmt, c->ch_layout.nb_channels, frameSize_ * 4));
    if (!fifo_) throw MediaError("Out of memory.");
    total_ = std::max(list_->duration(), static_cast<std::int64_t>(std::ceil(padToSeconds * renderer_.sampleRate())));
    int workers = threads.workers > 0 ? threads.workers : static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 8u));
    int preroll = 0, postroll = 0;
    if (workers > 1 && chunkable(c->codec_id, preroll, postroll)) {
        ChunkedEncoding::Setup setup;
        setup.codec = c->codec;
        bool globalHeader = (c->flags & AV_CODEC_FLAG_GLOBAL_HEADER) != 0;
        std::shared_ptr<AVChannelLayout> layout(new AVChannelLayout{}, [](AVChannelLayout* l) {
            av_channel_layout_uninit(l);
            delete l;
        });
        check(av_channel_layout_copy(layout.get(), &c->ch_layout), "Sound layout");
        setup.configure = [format, layout, globalHeader](AVCodecContext* ctx) {
            configureEncoder(ctx, format, *layout);
            if (globalHeader) ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        };
        setup.frameSize = frameSize_;
        setup.padding = c->initial_padding;
        setup.preroll = preroll;
        setup.postroll = postroll;
        // Chunks long enough that the pre-roll costs about a tenth more work.
        setup.chunkFrames = threads.chunkFrames > 0 ? threads.chunkFrames : std::max(64, (preroll + postroll) * 8);
        setup.workers = workers;
        chunks_ = std::make_unique<ChunkedEncoding>(std::move(setup));
    }
    renderThread_ = std::thread([this, start = pos_] { renderAhead(start); });
}

double SoundEncoder::secondsDone() const
{
    if (!chunks_) return static_cast<double>(pos_) / renderer_.sampleRate();
    return static_cast<double>(pos0_) / renderer_.sampleRate()
         + static_cast<double>(writtenSamples_) / encoder_->context()->sample_rate;
}

SoundEncoder::~SoundEncoder()
{
    {
        std::lock_guard<std::mutex> g(queueLock_);
        stopRendering_ = true;
    }
    queueChanged_.notify_all();
    renderThread_.join();
}

void SoundEncoder::renderAhead(std::int64_t start)
{
    constexpr std::size_t kAhead = 6; // chunks rendered ahead: about a second at 48 kHz
    try {
        for (std::int64_t at = start; at < total_;) {
            PcmBuffer chunk;
            {
                std::unique_lock<std::mutex> g(queueLock_);
                queueChanged_.wait(g, [this] { return stopRendering_ || ready_.size() < kAhead; });
                if (stopRendering_) return;
                if (!spare_.empty()) {
                    chunk = std::move(spare_.back());
                    spare_.pop_back();
                }
            }
            int n = static_cast<int>(std::min<std::int64_t>(kChunk, total_ - at));
            if (chunk.channels.size() != static_cast<std::size_t>(renderer_.channels())) chunk = PcmBuffer(renderer_.channels(), 0);
            chunk.resize(static_cast<std::size_t>(n));
            renderer_.render(*list_, at, chunk);
            at += n;
            {
                std::lock_guard<std::mutex> g(queueLock_);
                ready_.push_back(std::move(chunk));
            }
            queueChanged_.notify_all();
        }
    } catch (...) {
        std::lock_guard<std::mutex> g(queueLock_);
        renderError_ = std::current_exception();
    }
    queueChanged_.notify_all();
}

void SoundEncoder::encodeUntil(double seconds)
{
    while (!finished_ && secondsDone() < seconds) step();
}

bool SoundEncoder::step()
{
    if (finished_) return false;
    if (chunks_) {
        // Write what the pool has done; wait for the oldest chunk when
        // enough are in flight or every frame is in.
        std::int64_t n = chunks_->writeOldest(*encoder_, inputDone_ || chunks_->full());
        writtenSamples_ += n;
        if (n > 0) return true;
        if (inputDone_) {
            finished_ = chunks_->empty();
            return true;
        }
    }
    if (pos_ < total_) {
        PcmBuffer chunk;
        {
            std::unique_lock<std::mutex> g(queueLock_);
            queueChanged_.wait(g, [this] { return !ready_.empty() || renderError_; });
            if (ready_.empty()) std::rethrow_exception(renderError_);
            chunk = std::move(ready_.front());
            ready_.pop_front();
        }
        queueChanged_.notify_all();
        int n = static_cast<int>(chunk.frames());
        pos_ += n;
        planes_.clear();
        for (auto& ch : chunk.channels) planes_.push_back(reinterpret_cast<std::uint8_t const*>(ch.data()));
        convertAndQueue(planes_.data(), n);
        std::lock_guard<std::mutex> g(queueLock_);
        spare_.push_back(std::move(chunk));
    } else {
        convertAndQueue(nullptr, 0); // drain the converter
    }
    sendFrames(pos_ >= total_);
    return true;
}

void SoundEncoder::sendFrames(bool last)
{
    AVCodecContext* c = encoder_->context();
    while (av_audio_fifo_size(fifo_.get()) >= frameSize_ || (last && av_audio_fifo_size(fifo_.get()) > 0)) {
        int n = std::min(frameSize_, av_audio_fifo_size(fifo_.get()));
        Frame f = makeFrame();
        f->nb_samples = n;
        f->format = c->sample_fmt;
        f->sample_rate = c->sample_rate;
        check(av_channel_layout_copy(&f->ch_layout, &c->ch_layout), "Sound layout");
        check(av_frame_get_buffer(f.get(), 0), "Allocating sound");
        av_audio_fifo_read(fifo_.get(), reinterpret_cast<void**>(f->extended_data), n);
        f->pts = encodedSamples_ + pos0_ + ptsShift_;
        encodedSamples_ += n;
        if (chunks_) chunks_->add(std::move(f));
        else encoder_->send(f.get());
    }
    if (!last) return;
    if (chunks_) {
        chunks_->finish();
        inputDone_ = true;
    } else {
        encoder_->send(nullptr);
        finished_ = true;
    }
}

void SoundEncoder::convertAndQueue(std::uint8_t const** in, int n)
{
    AVCodecContext* c = encoder_->context();
    int room = swr_get_out_samples(convert_.get(), n) + 32;
    Frame tmp = makeFrame();
    tmp->nb_samples = room;
    tmp->format = c->sample_fmt;
    check(av_channel_layout_copy(&tmp->ch_layout, &c->ch_layout), "Sound layout");
    check(av_frame_get_buffer(tmp.get(), 0), "Allocating sound");
    int got = check(swr_convert(convert_.get(), tmp->extended_data, room, in, n), "Converting samples");
    if (got > 0) check(av_audio_fifo_write(fifo_.get(), reinterpret_cast<void**>(tmp->extended_data), got), "Queueing sound");
}

} // namespace media
