#include "Player.h"

#include "Codec.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iostream>

namespace media {

namespace {
constexpr int kCrossfade = 64;      // samples blended at a loop wrap
constexpr std::size_t kQueue = 12;  // decoded pictures kept ahead
using Clock = std::chrono::steady_clock;
} // namespace

Player::Player(std::shared_ptr<dm::Movie> movie, PlayerOptions options) : movie_(std::move(movie))
{
    for (auto const& t : movie_->tracks()) {
        if (!t->isEnabled()) continue;
        if (t->mediaType() == dm::MediaType::Sound && !sound_) sound_ = t;
        if (t->mediaType() == dm::MediaType::Video && !video_ && options.video) video_ = t;
    }
    if (sound_) {
        auto media = std::static_pointer_cast<const FileMedia>(sound_->media());
        scale_ = sound_->timeScale();
        renderer_ = std::make_unique<AudioRenderer>(media);
        channels_ = renderer_->channels();
    }
    if (video_) {
        auto const& m = OpenedMovie::mediaOf(*video_);
        if (m.frameRate.num > 0) frameSeconds_ = 1.0 / av_q2d(m.frameRate);
    }
    duration_ = movie_->duration().timeWithScaleOf(scale_);
    range_ = rangeFromMovie();
    paused_ = {std::clamp<std::int64_t>(toTicks(movie_->currentTime()), 0, duration_), 0};
    pos_ = paused_.ticks;

    if (sound_) {
        output_ = options.output ? std::move(options.output) : makeSdlAudioOutput();
        int buffer = std::clamp(options.bufferFrames, 64, 8192);
        planar_.assign(static_cast<std::size_t>(channels_), std::vector<float>(static_cast<std::size_t>(buffer) * 2));
        tail_.assign(static_cast<std::size_t>(channels_), std::vector<float>(kCrossfade));
        deviceOpen_ = output_->open(scale_, channels_, buffer, [this](float* out, int frames) { pullAudioGuarded(out, frames); });
        if (!deviceOpen_) {
            audioStatus_ = output_->reason() + "; playing on the system clock, without sound";
            std::cerr << "Dubmatch: " << audioStatus_ << ".\n";
        } else {
            for (auto& c : planar_) c.resize(static_cast<std::size_t>(std::max(buffer, output_->bufferFrames())) * 2);
        }
    } else {
        audioStatus_ = "the movie has no sound";
    }
    if (video_) videoThread_ = std::thread([this] { videoLoop(); });
}

Player::~Player()
{
    {
        std::lock_guard<std::mutex> g(lock_);
        quit_ = true;
        playing_ = false;
    }
    changed_.notify_all();
    if (output_) output_->close(); // no more device callbacks after this
    if (videoThread_.joinable()) videoThread_.join();
    if (idleThread_.joinable()) idleThread_.join();
}

std::int64_t Player::toTicks(QTTime const& t) const
{
    if (t.timeScale <= 0) return 0;
    return dm::roundDiv(static_cast<__int128>(t.timeValue) * scale_, t.timeScale);
}

Player::Range Player::rangeFromMovie() const
{
    Range r{0, duration_, movie_->loops()};
    QTTimeRange sel = movie_->selection();
    if (movie_->playsSelectionOnly() && sel.duration.timeValue > 0) {
        r.start = toTicks(sel.time);
        r.end = r.start + toTicks(sel.duration);
    } else if (auto seg = movie_->activeSegment(); seg && seg->duration.timeValue > 0) {
        r.start = toTicks(seg->time);
        r.end = r.start + toTicks(seg->duration);
    }
    r.start = std::clamp<std::int64_t>(r.start, 0, duration_);
    r.end = std::clamp<std::int64_t>(r.end, r.start, duration_);
    if (r.end <= r.start) r = {0, duration_, r.loops};
    return r;
}

bool Player::audioMasterLocked() const { return deviceOpen_ && rate_ == 1.0; }

Player::Position Player::positionLocked() const
{
    if (!playing_) return paused_;
    if (audioMasterLocked()) {
        if (pieces_.empty()) return paused_;
        double elapsed = std::chrono::duration<double>(Clock::now() - lastPull_).count();
        std::int64_t heard = delivered_ - output_->latencyFrames() + static_cast<std::int64_t>(elapsed * scale_);
        heard = std::min(heard, delivered_);
        if (heard < pieces_.front().outStart) return {pieces_.front().timeline, pieces_.front().lap};
        for (auto it = pieces_.rbegin(); it != pieces_.rend(); ++it)
            if (heard >= it->outStart) return {it->timeline + std::min(heard - it->outStart, it->length), it->lap};
        return paused_;
    }
    double elapsed = std::chrono::duration<double>(Clock::now() - baseTime_).count();
    std::int64_t t = base_.ticks + static_cast<std::int64_t>(elapsed * rate_ * scale_);
    std::int64_t len = range_.end - range_.start;
    if (t >= range_.start && t < range_.end) return {t, base_.lap};
    if (range_.loops && len > 0) {
        std::int64_t off = t - range_.start;
        std::int64_t laps = off >= 0 ? off / len : -((-off + len - 1) / len);
        return {range_.start + (off - laps * len), base_.lap + static_cast<std::uint64_t>(std::max<std::int64_t>(0, laps))};
    }
    return {std::clamp(t, range_.start, range_.end), base_.lap};
}

bool Player::finishedLocked() const
{
    // On the system clock a movie that does not loop stops at its end.
    if (!playing_ || audioMasterLocked() || range_.loops) return false;
    Position p = positionLocked();
    return rate_ > 0 ? p.ticks >= range_.end : p.ticks <= range_.start;
}

bool Player::isPlaying() const
{
    std::lock_guard<std::mutex> g(lock_);
    return playing_ && !finishedLocked();
}

double Player::rate() const
{
    std::lock_guard<std::mutex> g(lock_);
    return playing_ && !finishedLocked() ? rate_ : 0.0;
}

myQTTime Player::currentTime() const
{
    std::lock_guard<std::mutex> g(lock_);
    return myQTTime(static_cast<long long>(positionLocked().ticks), scale_);
}

void Player::play()
{
    std::unique_lock<std::mutex> g(lock_);
    if (playing_) return;
    if (paused_.ticks < range_.start || paused_.ticks >= range_.end) paused_.ticks = range_.start;
    pos_ = paused_.ticks;
    lap_ = paused_.lap;
    pieces_.clear();
    base_ = paused_;
    baseTime_ = Clock::now();
    playing_ = true;
    bool audio = audioMasterLocked();
    g.unlock();
    if (audio) output_->setRunning(true);
    changed_.notify_all();
}

void Player::pause()
{
    std::unique_lock<std::mutex> g(lock_);
    if (!playing_) return;
    paused_ = positionLocked();
    playing_ = false;
    pos_ = paused_.ticks;
    pieces_.clear();
    g.unlock();
    if (output_ && deviceOpen_) output_->setRunning(false);
    changed_.notify_all();
}

void Player::setRate(double rate)
{
    if (rate == 0) {
        pause();
        return;
    }
    // A new rate changes the clock: restart from where the movie stands.
    pause();
    {
        std::lock_guard<std::mutex> g(lock_);
        rate_ = rate;
    }
    play();
}

void Player::seekLocked(std::int64_t ticks)
{
    ticks = std::clamp<std::int64_t>(ticks, 0, duration_);
    Position now = positionLocked();
    paused_ = {ticks, now.lap};
    pos_ = ticks;
    lap_ = now.lap;
    base_ = paused_;
    baseTime_ = Clock::now();
    pieces_.clear();
    ++generation_;
    ++videoGeneration_;
}

void Player::setCurrentTime(myQTTime const& t)
{
    {
        std::lock_guard<std::mutex> g(lock_);
        seekLocked(toTicks(t));
    }
    movie_->setCurrentTime(t);
    changed_.notify_all();
}

void Player::stepFrame(int direction)
{
    pause();
    std::int64_t step = static_cast<std::int64_t>(std::llround(frameSeconds_ * scale_));
    {
        std::lock_guard<std::mutex> g(lock_);
        // Snap to the frame grid so repeated steps do not drift.
        double frames = std::floor(static_cast<double>(paused_.ticks) / scale_ / frameSeconds_ + 1e-6);
        std::int64_t at = static_cast<std::int64_t>(std::llround(frames * frameSeconds_ * scale_));
        seekLocked(at + (direction >= 0 ? step : -step));
    }
    changed_.notify_all();
}

void Player::applyRangeLocked(Range r)
{
    range_ = r;
    // A movie playing outside its new range goes on from the range's start.
    Position now = positionLocked();
    base_ = now;
    baseTime_ = Clock::now();
    if (now.ticks < r.start || now.ticks >= r.end) seekLocked(r.start);
}

void Player::setSelection(QTTimeRange selection)
{
    movie_->setSelection(selection);
    refreshFromMovie();
}

void Player::setActiveSegment(std::optional<QTTimeRange> segment)
{
    movie_->setActiveSegment(segment);
    refreshFromMovie();
}

void Player::setLoops(bool loops)
{
    movie_->setLoops(loops);
    refreshFromMovie();
}

void Player::setPlaysSelectionOnly(bool on)
{
    movie_->setPlaysSelectionOnly(on);
    refreshFromMovie();
}

void Player::refreshFromMovie()
{
    Range r = rangeFromMovie();
    {
        std::lock_guard<std::mutex> g(lock_);
        applyRangeLocked(r);
    }
    changed_.notify_all();
}

bool Player::requestSelectionFromController(QTTimeRange selection)
{
    SelectionFilter filter;
    {
        std::lock_guard<std::mutex> g(lock_);
        filter = filter_;
    }
    if (filter && !filter(selection)) return false;
    setSelection(selection);
    return true;
}

void Player::setSelectionFilter(SelectionFilter filter)
{
    std::lock_guard<std::mutex> g(lock_);
    filter_ = std::move(filter);
}

void Player::setViewSize(int width, int height)
{
    {
        std::lock_guard<std::mutex> g(lock_);
        viewWidth_ = width;
        viewHeight_ = height;
        ++videoGeneration_; // re-present the current picture at the new size
    }
    changed_.notify_all();
}

void Player::setFrameSink(FrameSink sink)
{
    std::lock_guard<std::mutex> g(sinkLock_); // waits for a call in progress
    sink_ = std::move(sink);
}

void Player::setAudioTap(Tap tap)
{
    std::lock_guard<std::mutex> g(lock_);
    tap_ = std::move(tap);
}

void Player::setIdleCallback(Idle idle, Post post, std::chrono::milliseconds period)
{
    if (idleThread_.joinable()) return; // set once
    idle_ = std::move(idle);
    post_ = std::move(post);
    idlePeriod_ = period;
    idleThread_ = std::thread([this] { idleLoop(); });
}

void Player::idleLoop()
{
    std::unique_lock<std::mutex> g(lock_);
    while (!quit_) {
        changed_.wait_for(g, idlePeriod_, [this] { return quit_; });
        if (quit_) break;
        g.unlock();
        if (post_) {
            // One tick in flight at a time; a tick that runs after the player
            // is gone finds its token expired and does nothing.
            if (!idlePending_->exchange(true)) {
                std::weak_ptr<std::atomic<bool>> token = idlePending_;
                post_([this, token] {
                    auto alive = token.lock();
                    if (!alive) return;
                    alive->store(false);
                    idle_(currentTime());
                });
            }
        } else {
            try {
                idle_(currentTime());
            } catch (std::exception const& e) {
                reportFault(std::string("The time display stopped: ") + e.what());
            }
        }
        g.lock();
    }
}

void Player::setFaultCallback(Fault fault)
{
    std::unique_lock<std::mutex> g(faultLock_);
    faultCallback_ = std::move(fault);
    if (fault_.empty() || faultReported_ || !faultCallback_) return;
    faultReported_ = true;
    Fault f = faultCallback_;
    std::string message = fault_;
    g.unlock();
    f(message);
}

std::string Player::fault() const
{
    std::lock_guard<std::mutex> g(faultLock_);
    return fault_;
}

void Player::reportFault(std::string const& message) noexcept
{
    try {
        std::unique_lock<std::mutex> g(faultLock_);
        if (!fault_.empty()) return; // the first fault is the one to tell
        fault_ = message.empty() ? "unknown error" : message;
        std::cerr << "Dubmatch: " << fault_ << "\n";
        if (!faultCallback_) return;
        faultReported_ = true;
        Fault f = faultCallback_;
        std::string m = fault_;
        g.unlock();
        f(m);
    } catch (...) {
        // Nothing more can be told; playback goes on as it can.
    }
}

void Player::pullAudioGuarded(float* out, int frames) noexcept
{
    auto silence = [&] { std::fill(out, out + static_cast<std::ptrdiff_t>(frames) * channels_, 0.0f); };
    if (soundFaulted_.load()) {
        silence();
        return;
    }
    try {
        pullAudio(out, frames);
    } catch (std::bad_alloc const&) {
        soundFaulted_ = true;
        silence();
        reportFault("The sound stopped: there was not enough memory to decode it.");
    } catch (std::exception const& e) {
        soundFaulted_ = true;
        silence();
        reportFault(std::string("The sound stopped: ") + e.what());
    } catch (...) {
        soundFaulted_ = true;
        silence();
        reportFault("The sound stopped after an unknown error.");
    }
}

void Player::pullAudio(float* out, int frames)
{
    std::unique_lock<std::mutex> g(lock_);
    if (!playing_ || !audioMasterLocked() || quit_) {
        g.unlock();
        std::fill(out, out + static_cast<std::ptrdiff_t>(frames) * channels_, 0.0f);
        return;
    }
    std::int64_t pos = pos_;
    std::uint64_t lap = lap_;
    Range r = range_;
    std::uint64_t generation = generation_;
    Tap tap = tap_;
    g.unlock();

    auto list = sound_->editList(); // the snapshot this buffer plays
    for (auto& c : planar_)
        if (c.size() < static_cast<std::size_t>(frames)) c.resize(static_cast<std::size_t>(frames));
    std::vector<float*> ptrs;
    for (auto& c : planar_) ptrs.push_back(c.data());
    std::vector<Piece> pieces;
    int done = 0, fade = 0;
    bool stopped = false;
    while (done < frames) {
        if (pos >= r.end) {
            if (!r.loops) {
                for (auto* p : ptrs) std::fill(p + done, p + frames, 0.0f);
                stopped = true;
                break;
            }
            // Wrap: what would have followed the end fades into the start.
            std::vector<float*> tail;
            for (auto& c : tail_) tail.push_back(c.data());
            renderer_->render(*list, pos, kCrossfade, tail.data(), 0);
            pos = r.start;
            ++lap;
            fade = kCrossfade;
        }
        int k = static_cast<int>(std::min<std::int64_t>(frames - done, r.end - pos));
        renderer_->render(*list, pos, k, ptrs.data(), static_cast<std::size_t>(done));
        for (int i = 0; fade > 0 && i < k; ++i, --fade) {
            int j = kCrossfade - fade;
            float gain = static_cast<float>(j + 1) / (kCrossfade + 1);
            for (int c = 0; c < channels_; ++c)
                ptrs[c][done + i] = ptrs[c][done + i] * gain + tail_[c][j] * (1 - gain);
        }
        pieces.push_back({done, pos, k, lap});
        pos += k;
        done += k;
    }
    for (int i = 0; i < frames; ++i)
        for (int c = 0; c < channels_; ++c) out[static_cast<std::ptrdiff_t>(i) * channels_ + c] = planar_[c][i];

    g.lock();
    if (generation == generation_ && playing_) {
        for (auto p : pieces) {
            p.outStart += delivered_;
            pieces_.push_back(p);
        }
        while (pieces_.size() > 64) pieces_.pop_front();
        delivered_ += frames;
        lastPull_ = Clock::now();
        pos_ = pos;
        lap_ = lap;
        if (stopped) {
            playing_ = false;
            paused_ = {r.end, lap};
            pieces_.clear();
        }
    }
    g.unlock();
    if (tap) tap(out, frames, channels_);
    if (stopped) changed_.notify_all();
}

void Player::videoLoop() noexcept
{
    // The picture on screen stays as it is after a fault.
    try {
        videoLoopBody();
    } catch (std::bad_alloc const&) {
        reportFault("The pictures stopped: there was not enough memory to decode them.");
    } catch (std::exception const& e) {
        reportFault(std::string("The pictures stopped: ") + e.what());
    } catch (...) {
        reportFault("The pictures stopped after an unknown error.");
    }
}

namespace {

// Pictures whose pixels are used again once nobody holds them any more (the
// view lets the last one go when the next arrives): no allocation per frame
// while the picture's size stays the same. Safe from any thread.
class FramePool : public std::enable_shared_from_this<FramePool> {
public:
    std::shared_ptr<VideoFrame> take()
    {
        std::unique_ptr<VideoFrame> f;
        {
            std::lock_guard<std::mutex> g(lock_);
            if (!free_.empty()) {
                f = std::move(free_.back());
                free_.pop_back();
            }
        }
        if (!f) f = std::make_unique<VideoFrame>();
        f->seconds = 0;
        f->lap = 0;
        std::weak_ptr<FramePool> self = weak_from_this();
        return std::shared_ptr<VideoFrame>(f.release(), [self](VideoFrame* v) {
            std::unique_ptr<VideoFrame> owned(v);
            if (auto pool = self.lock()) pool->give(std::move(owned));
        });
    }

private:
    static constexpr std::size_t kKeep = 24; // more than the queue ahead and what the view holds
    void give(std::unique_ptr<VideoFrame> f)
    {
        std::lock_guard<std::mutex> g(lock_);
        if (free_.size() < kKeep) free_.push_back(std::move(f));
    }
    std::mutex lock_;
    std::vector<std::unique_ptr<VideoFrame>> free_;
};

} // namespace

void Player::videoLoopBody()
{
    std::unique_ptr<VideoDecoder> decoder;
    std::shared_ptr<const FileMedia> media;
    try {
        media = std::static_pointer_cast<const FileMedia>(video_->media());
        decoder = std::make_unique<VideoDecoder>(media);
    } catch (std::exception const& e) {
        reportFault(std::string("The pictures cannot be shown: ") + e.what());
        return;
    }
    double tb = av_q2d(media->timeBase);
    double lead = static_cast<double>(video_->editList()->materialStart()) / video_->timeScale();
    Frame frame = makeFrame();
    Scaler scaler;
    auto pool = std::make_shared<FramePool>();

    struct Queued {
        std::shared_ptr<VideoFrame> frame;
        std::int64_t ticks;
        std::uint64_t lap;
    };
    std::deque<Queued> queue;
    std::uint64_t seenGeneration = ~0ULL;
    std::uint64_t decoderLap = 0;
    std::int64_t skipBefore = 0;      // after a seek or wrap: frames before this are not shown...
    std::shared_ptr<VideoFrame> held; // ...except the last of them, which is on screen at skipBefore
    bool eof = false;
    std::shared_ptr<const VideoFrame> shown;
    std::shared_ptr<VideoFrame> loopHead; // first picture of the loop, kept for the wrap

    std::unique_lock<std::mutex> g(lock_);
    while (!quit_) {
        if (videoGeneration_ != seenGeneration) {
            seenGeneration = videoGeneration_;
            Position at = positionLocked();
            std::int64_t target = at.ticks;
            decoderLap = at.lap;
            g.unlock();
            queue.clear();
            held.reset();
            shown.reset();
            double seconds = static_cast<double>(target) / scale_ - lead;
            decoder->seek(media->startPts + static_cast<std::int64_t>(std::floor(seconds / tb)));
            skipBefore = target;
            eof = false;
            g.lock();
            continue;
        }
        Range r = range_;
        int vw = viewWidth_, vh = viewHeight_;
        bool playing = playing_;
        g.unlock();

        // Decode ahead.
        bool decoded = false;
        if (queue.size() < kQueue && !eof) {
            if (!decoder->next(frame.get())) {
                eof = true;
                if (held) { // the last picture of the movie
                    queue.push_back({held, static_cast<std::int64_t>(std::llround(held->seconds * scale_)), decoderLap});
                    held.reset();
                }
            } else {
                decoded = true;
                double seconds = static_cast<double>(frame->best_effort_timestamp - media->startPts) * tb + lead;
                std::int64_t ticks = static_cast<std::int64_t>(std::llround(seconds * scale_));
                if (r.loops && ticks >= r.end && r.end > r.start) {
                    // Loop: go back to the start and decode the next lap.
                    av_frame_unref(frame.get());
                    double s = static_cast<double>(r.start) / scale_ - lead;
                    decoder->seek(media->startPts + static_cast<std::int64_t>(std::floor(s / tb)));
                    skipBefore = r.start;
                    held.reset();
                    ++decoderLap;
                } else {
                    int w = frame->width, h = frame->height;
                    if (vw > 0 && vh > 0) {
                        double k = std::min(static_cast<double>(vw) / w, static_cast<double>(vh) / h);
                        w = std::max(2, static_cast<int>(w * k) & ~1);
                        h = std::max(2, static_cast<int>(h * k) & ~1);
                    }
                    // Scaled straight into the pixels the view paints: bilinear while
                    // the movie plays (it moves on at once), bicubic for a still.
                    auto vf = pool->take();
                    vf->width = w;
                    vf->height = h;
                    vf->stride = w * 4;
                    vf->rgb.resize(static_cast<std::size_t>(vf->stride) * h);
                    scaler.convertInto(frame.get(), w, h, AV_PIX_FMT_RGB32, vf->rgb.data(), vf->stride, playing ? SWS_BILINEAR : SWS_BICUBIC);
                    vf->seconds = seconds;
                    vf->lap = decoderLap;
                    av_frame_unref(frame.get());
                    if (ticks < skipBefore) {
                        held = vf; // may be the picture on screen at skipBefore
                    } else {
                        if (held && ticks > skipBefore) {
                            held->lap = decoderLap; // shown from skipBefore on, keeps its own time
                            queue.push_back({held, skipBefore, decoderLap});
                            if (r.loops && skipBefore == r.start) loopHead = held;
                        } else if (r.loops && ticks == r.start) {
                            loopHead = vf;
                        }
                        held.reset();
                        skipBefore = std::numeric_limits<std::int64_t>::min();
                        queue.push_back({vf, ticks, decoderLap});
                    }
                }
            }
        }

        // Present the latest picture that is due.
        g.lock();
        if (videoGeneration_ != seenGeneration || quit_) continue;
        Position now = positionLocked();
        g.unlock();
        std::shared_ptr<VideoFrame> due;
        while (!queue.empty()) {
            auto const& q = queue.front();
            bool isDue = q.lap < now.lap || (q.lap == now.lap && q.ticks <= now.ticks);
            if (!isDue) break;
            due = q.frame;
            queue.pop_front();
        }
        // At a wrap whose first picture is not decoded yet, show the kept one.
        if (!due && loopHead && shown && shown->lap < now.lap && r.loops && (queue.empty() || queue.front().lap > now.lap)) {
            auto copy = std::make_shared<VideoFrame>(*loopHead);
            copy->lap = now.lap;
            due = copy;
        }
        if (due && due != shown) {
            shown = due;
            std::lock_guard<std::mutex> s(sinkLock_);
            if (sink_) sink_(due);
        }

        g.lock();
        if (videoGeneration_ != seenGeneration || quit_) continue;
        if (decoded && queue.size() < kQueue) continue; // keep decoding ahead
        if (playing && !queue.empty()) {
            auto const& q = queue.front();
            double wait = q.lap > now.lap ? 0.005 : static_cast<double>(q.ticks - now.ticks) / scale_;
            wait = std::clamp(wait, 0.001, 0.010);
            changed_.wait_for(g, std::chrono::duration<double>(wait));
        } else if (playing) {
            changed_.wait_for(g, std::chrono::milliseconds(5));
        } else {
            changed_.wait_for(g, std::chrono::milliseconds(50));
        }
    }
}

} // namespace media
