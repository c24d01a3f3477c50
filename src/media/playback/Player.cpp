#include "Player.h"

#include "Codec.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace media {

namespace {
constexpr int kCrossfade = 64;      // samples blended at a loop wrap
constexpr std::size_t kQueue = 12;  // decoded pictures kept ahead
constexpr int kBlock = 256;         // frames per block of the sound ring
constexpr auto kFeederPoll = std::chrono::milliseconds(2); // how soon the feeder sees an edit
using Clock = std::chrono::steady_clock;

std::int64_t nowNanos()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// The environment's output delay, in ms, when it names one.
std::optional<double> delayFromEnvironment()
{
    char const* env = std::getenv("DUBMATCH_OUTPUT_DELAY_MS");
    if (!env || !*env) return std::nullopt;
    char* end = nullptr;
    double ms = std::strtod(env, &end);
    if (end == env || !std::isfinite(ms)) return std::nullopt;
    return ms;
}
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
        // Decoded sound is kept this far back, so that a loop of that length
        // wraps without reading the file again.
        renderer_->setKeepBehind(12 * scale_);
        channels_ = renderer_->channels();
    }
    if (video_) {
        auto const& m = OpenedMovie::mediaOf(*video_);
        if (m.frameRate.num > 0) frameSeconds_ = 1.0 / av_q2d(m.frameRate);
    }
    others_ = othersDuration();
    duration_ = movie_->duration().timeWithScaleOf(scale_);
    range_ = rangeFromMovie();
    paused_ = {std::clamp<std::int64_t>(toTicks(movie_->currentTime()), 0, duration_), 0};
    if (auto env = delayFromEnvironment()) {
        delayFromEnvironment_ = true;
        options.outputDelayMs = *env;
    }
    delayFrames_ = static_cast<int>(std::llround(std::max(0.0, options.outputDelayMs) * scale_ / 1000.0));

    if (sound_) {
        output_ = options.output ? std::move(options.output) : makeSdlAudioOutput();
        int buffer = std::clamp(options.bufferFrames, 64, 8192);
        deviceOpen_ = output_->open(scale_, channels_, buffer, [this](float* out, int frames) { pullAudio(out, frames); });
        if (!deviceOpen_) {
            audioStatus_ = output_->reason() + "; playing on the system clock, without sound";
            std::cerr << "Dubmatch: " << audioStatus_ << ".\n";
        } else {
            deviceBuffer_ = std::max(buffer, output_->bufferFrames());
            // Enough rendered ahead to ride out a slow read at a loop wrap,
            // and room for a second rendering beside it after an edit.
            lead_ = std::max(16384, 8 * deviceBuffer_);
            int blocks = 3 * lead_ / kBlock + 8;
            ring_ = std::make_unique<SoundRing>(channels_, kBlock, blocks);
            history_.resize(static_cast<std::size_t>(blocks) + 8);
            planar_.assign(static_cast<std::size_t>(channels_), std::vector<float>(kBlock));
            tail_.assign(static_cast<std::size_t>(channels_), std::vector<float>(kCrossfade));
            for (auto& c : planar_) planarPtrs_.push_back(c.data());
            for (auto& c : tail_) tailPtrs_.push_back(c.data());
            feederThread_ = std::thread([this] { feederLoop(); });
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
    active_ = false;
    changed_.notify_all();
    if (output_) output_->close(); // no more device callbacks after this
    if (feederThread_.joinable()) feederThread_.join();
    if (videoThread_.joinable()) videoThread_.join();
    if (idleThread_.joinable()) idleThread_.join();
}

std::int64_t Player::toTicks(QTTime const& t) const
{
    if (t.timeScale <= 0) return 0;
    return dm::roundDiv(static_cast<__int128>(t.timeValue) * scale_, t.timeScale);
}

std::int64_t Player::othersDuration() const
{
    std::int64_t longest = 0;
    for (auto const& t : movie_->tracks()) {
        if (t == sound_) continue;
        longest = std::max<std::int64_t>(longest, myQTTime(t->editList()->duration(), t->timeScale()).timeWithScaleOf(scale_));
    }
    return longest;
}

Player::Range Player::rangeFromMovie() const
{
    std::int64_t duration;
    {
        std::lock_guard<std::mutex> g(lock_);
        duration = duration_;
    }
    Range r{0, duration, movie_->loops(), true};
    QTTimeRange sel = movie_->selection();
    if (movie_->playsSelectionOnly() && sel.duration.timeValue > 0) {
        r.start = toTicks(sel.time);
        r.end = r.start + toTicks(sel.duration);
        r.whole = false;
    } else if (auto seg = movie_->activeSegment(); seg && seg->duration.timeValue > 0) {
        r.start = toTicks(seg->time);
        r.end = r.start + toTicks(seg->duration);
        r.whole = false;
    }
    r.start = std::clamp<std::int64_t>(r.start, 0, duration);
    r.end = std::clamp<std::int64_t>(r.end, r.start, duration);
    if (r.end <= r.start) r = {0, duration, r.loops, true};
    return r;
}

bool Player::audioMasterLocked() const { return deviceOpen_ && rate_ == 1.0; }

int Player::outputLatencyFrames() const
{
    return (output_ && deviceOpen_ ? output_->latencyFrames() : 0) + delayFrames_.load(std::memory_order_relaxed);
}

void Player::setOutputDelay(double milliseconds)
{
    if (delayFromEnvironment_) return;
    delayFrames_ = static_cast<int>(std::llround(std::max(0.0, milliseconds) * scale_ / 1000.0));
}

PlaybackStats Player::stats() const
{
    PlaybackStats s;
    s.callbacks = callbacks_.load();
    s.underruns = underruns_.load();
    s.underrunFrames = underrunFrames_.load();
    s.rerenders = rerenders_.load();
    s.decodeErrors = renderer_ ? renderer_->decodeErrors() : 0;
    s.delivered = delivered_.load();
    s.lastSwitch = lastSwitch_.load();
    return s;
}

myQTTime Player::duration() const
{
    std::lock_guard<std::mutex> g(lock_);
    return myQTTime(static_cast<long long>(duration_), scale_);
}

Player::Position Player::positionLocked() const
{
    if (!playing_) return paused_;
    if (audioMasterLocked()) {
        if (endedGen_.load(std::memory_order_acquire) == generation_ + 1)
            return {endedAt_.load(std::memory_order_relaxed), endedLap_.load(std::memory_order_relaxed)};
        PlayedLog::Snapshot log;
        played_.read(log);
        // Only what was played since the last seek or play places the clock.
        int first = log.count;
        while (first > 0 && log.pieces[first - 1].gen == generation_) --first;
        if (first == log.count) return anchor_;
        double elapsed = static_cast<double>(nowNanos() - log.pulledAt) / 1e9;
        std::int64_t heard = log.delivered - outputLatencyFrames() + static_cast<std::int64_t>(elapsed * scale_);
        heard = std::min(heard, log.delivered);
        auto const& oldest = log.pieces[first];
        if (heard < oldest.device) return {oldest.timeline, oldest.lap};
        for (int i = log.count - 1; i >= first; --i) {
            auto const& p = log.pieces[i];
            if (heard >= p.device) return {p.timeline + std::min(heard - p.device, p.length), p.lap};
        }
        return anchor_;
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
    if (!playing_) return false;
    // On the device the play range ran out (the feeder stops the device soon).
    if (audioMasterLocked()) return endedGen_.load(std::memory_order_acquire) == generation_ + 1;
    // On the system clock a movie that does not loop stops at its end.
    if (range_.loops) return false;
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

bool Player::fedLocked() const
{
    if (!(fedGen_ == generation_ && fedRangeGen_ == rangeGen_ && fedChanges_ == sound_->changeCount() && fedFull_)) return false;
    // Full now, not only when the feeder last looked.
    return ahead_.load(std::memory_order_acquire) < 0
        || ahead_.load(std::memory_order_acquire) - path_.load(std::memory_order_acquire) >= lead_;
}

bool Player::waitForSound(std::chrono::milliseconds timeout) const
{
    if (!ring_) return true;
    std::unique_lock<std::mutex> g(lock_);
    if (!playing_ || !audioMasterLocked()) return true;
    changed_.notify_all(); // no need to wait for the feeder's next look
    return fed_.wait_for(g, timeout, [this] { return quit_ || !playing_ || fedLocked(); });
}

void Player::play()
{
    std::unique_lock<std::mutex> g(lock_);
    if (playing_) return;
    followSoundLengthLocked();
    if (paused_.ticks < range_.start || paused_.ticks >= range_.end) {
        // Played to the end (or outside the range): from the range's start,
        // pictures too.
        paused_.ticks = range_.start;
        ++videoGeneration_;
    }
    base_ = paused_;
    anchor_ = paused_;
    baseTime_ = Clock::now();
    playing_ = true;
    ++generation_;
    bool audio = audioMasterLocked() && ring_;
    // The device is stopped: the feeder may start from an empty ring.
    restart_ = audio;
    g.unlock();
    changed_.notify_all();
    if (!audio) return;
    // Start the device once the feeder has rendered ahead, so that the first
    // callbacks find sound.
    g.lock();
    fed_.wait_for(g, std::chrono::milliseconds(500), [this] { return quit_ || !playing_ || (fedGen_ == generation_ && fedFull_); });
    if (!playing_ || quit_) return;
    active_ = true;
    output_->setRunning(true);
}

void Player::pause()
{
    std::unique_lock<std::mutex> g(lock_);
    if (!playing_) return;
    paused_ = positionLocked();
    playing_ = false;
    active_ = false;
    ++generation_; // what the feeder rendered ahead is not wanted any more
    if (output_ && deviceOpen_) output_->setRunning(false);
    g.unlock();
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

void Player::followSoundLengthLocked()
{
    if (sound_) setSoundLengthLocked(sound_->editList()->duration());
}

void Player::setSoundLengthLocked(std::int64_t soundLength)
{
    // A re-timing made the sound longer or shorter: play to its end.
    std::int64_t d = std::max(others_, soundLength);
    if (d == duration_) return;
    duration_ = d;
    if (range_.whole) range_.end = d;
}

void Player::seekLocked(std::int64_t ticks)
{
    followSoundLengthLocked();
    ticks = std::clamp<std::int64_t>(ticks, 0, duration_);
    Position now = positionLocked();
    paused_ = {ticks, now.lap};
    anchor_ = paused_;
    base_ = paused_;
    baseTime_ = Clock::now();
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
    ++rangeGen_;
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
    std::int64_t others = othersDuration();
    {
        std::lock_guard<std::mutex> g(lock_);
        others_ = others;
        duration_ = others;
        followSoundLengthLocked();
    }
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

// ---- The device callback ---------------------------------------------------

void Player::pullAudio(float* out, int frames) noexcept
{
    std::size_t samples = static_cast<std::size_t>(frames) * static_cast<std::size_t>(channels_);
    if (!active_.load(std::memory_order_acquire)) {
        std::fill(out, out + samples, 0.0f);
        return;
    }
    callbacks_.fetch_add(1, std::memory_order_relaxed);
    std::int64_t path = path_.load(std::memory_order_relaxed);
    std::int64_t delivered = delivered_.load(std::memory_order_relaxed);
    bool ended = endedGen_.load(std::memory_order_relaxed) != 0;

    // After a change the feeder queues a new rendering behind the old one:
    // once its first block is there, the old one is dropped.
    // It takes over once it covers this buffer and two more; until then the
    // old one plays on, so a change never leaves the device short (the new
    // rendering may meet a slow read right after).
    // With several renderings queued (changes in quick succession), the
    // newest that is far enough along wins.
    std::size_t n = ring_->readable();
    if (n > 1 && ring_->peek(0).epoch != ring_->peek(n - 1).epoch) {
        std::int64_t want = path + 3 * static_cast<std::int64_t>(frames);
        std::size_t end = n; // one past the last block of the rendering looked at
        while (end > 0) {
            SoundRing::Block const& last = ring_->peek(end - 1);
            std::size_t first = end - 1;
            while (first > 0 && ring_->peek(first - 1).epoch == last.epoch) --first;
            if (first == 0) break; // the one playing now: nothing newer is ready
            if (last.end || last.path + last.frames >= want) {
                ring_->release(first);
                lastSwitch_.store(delivered, std::memory_order_relaxed);
                break;
            }
            end = first;
        }
    }

    played_.begin();
    PlayedLog::Piece piece{};
    bool havePiece = false;
    int done = 0;
    while (done < frames) {
        if (ring_->readable() == 0) {
            std::fill(out + static_cast<std::size_t>(done) * channels_, out + samples, 0.0f);
            if (!ended && !soundFaulted_.load(std::memory_order_relaxed)) {
                underruns_.fetch_add(1, std::memory_order_relaxed);
                underrunFrames_.fetch_add(static_cast<std::uint64_t>(frames - done), std::memory_order_relaxed);
            }
            break;
        }
        SoundRing::Block const& b = ring_->peek(0);
        std::int64_t skip = path - b.path;
        if (skip < 0) { // cannot happen: a rendering starts where the device stands
            path = b.path;
            skip = 0;
        }
        if (skip >= b.frames) {
            if (b.end && b.frames + b.path == path) {
                // The play range ran out: silence from here on.
                endedAt_.store(b.timeline + b.frames, std::memory_order_relaxed);
                endedLap_.store(b.lap, std::memory_order_relaxed);
                endedGen_.store(b.gen + 1, std::memory_order_release);
                ended = true;
                ring_->release(1);
                std::fill(out + static_cast<std::size_t>(done) * channels_, out + samples, 0.0f);
                break;
            }
            ring_->release(1);
            continue;
        }
        int k = static_cast<int>(std::min<std::int64_t>(frames - done, b.frames - skip));
        std::memcpy(out + static_cast<std::size_t>(done) * channels_, b.samples + static_cast<std::size_t>(skip) * channels_,
                    sizeof(float) * static_cast<std::size_t>(k) * channels_);
        std::int64_t timeline = b.timeline + skip;
        if (havePiece && piece.gen == b.gen && piece.lap == b.lap && piece.timeline + piece.length == timeline
            && piece.device + piece.length == delivered + done) {
            piece.length += k;
        } else {
            if (havePiece) played_.add(piece);
            piece = {delivered + done, timeline, k, b.lap, b.gen};
            havePiece = true;
        }
        path += k;
        done += k;
        if (skip + k == b.frames && !b.end) ring_->release(1);
    }
    if (havePiece) played_.add(piece);
    delivered += frames;
    path_.store(path, std::memory_order_release);
    delivered_.store(delivered, std::memory_order_relaxed);
    played_.end(delivered, nowNanos());
}

// ---- The feeder --------------------------------------------------------------

void Player::feederLoop() noexcept
{
    try {
        feederBody();
    } catch (std::bad_alloc const&) {
        soundFaulted_ = true;
        reportFault("The sound stopped: there was not enough memory to decode it.");
    } catch (std::exception const& e) {
        soundFaulted_ = true;
        reportFault(std::string("The sound stopped: ") + e.what());
    } catch (...) {
        soundFaulted_ = true;
        reportFault("The sound stopped after an unknown error.");
    }
    // A feeder that stopped leaves the device to silence; waiters go on.
    ahead_.store(-1, std::memory_order_release);
    std::lock_guard<std::mutex> g(lock_);
    fedGen_ = generation_;
    fedRangeGen_ = rangeGen_;
    fedChanges_ = sound_->changeCount();
    fedFull_ = true;
    fed_.notify_all();
}

Player::Cursor Player::cursorAt(std::int64_t path, Range const& range)
{
    for (std::size_t i = 0; i < historyCount_; ++i) {
        Rendered const& r = history_[(historyFirst_ + i) % history_.size()];
        if (path >= r.path && path < r.path + r.frames) {
            Cursor c = r.at;
            std::int64_t k = path - r.path;
            c.timeline += k;
            c.fade = static_cast<int>(std::max<std::int64_t>(0, c.fade - k));
            return c;
        }
    }
    // Not rendered yet (the device played an older rendering further than
    // the feeder got with this one): follow the path on from the feeder's
    // own position.
    Cursor c = cursor_;
    std::int64_t k = std::max<std::int64_t>(0, path - writePath_);
    while (k > 0 && range.end > range.start) {
        std::int64_t step = std::min(k, std::max<std::int64_t>(0, range.end - c.timeline));
        c.timeline += step;
        k -= step;
        if (k > 0 || c.timeline >= range.end) {
            if (!range.loops) break;
            c.timeline = range.start;
            ++c.lap;
        }
    }
    c.fade = 0;
    return c;
}

bool Player::renderBlock(dm::EditList const& list, Range const& r)
{
    SoundRing::Block* b = ring_->writable();
    if (!b) return false;
    if (cursor_.timeline >= r.end || cursor_.timeline < r.start) {
        if (cursor_.timeline >= r.end && !r.loops) {
            // The end of the play range: an empty block that says so.
            *b = SoundRing::Block{writePath_, cursor_.timeline, cursor_.lap, epoch_, feederGen_, 0, true, b->samples};
            if (historyCount_ < history_.size()) {
                history_[(historyFirst_ + historyCount_) % history_.size()] = {writePath_, cursor_, 0};
                ++historyCount_;
            }
            ring_->commit();
            endQueued_ = true;
            ahead_.store(-1, std::memory_order_release);
            return true;
        }
        if (cursor_.timeline >= r.end) {
            // Wrap: what would have followed the end fades into the start.
            renderer_->render(list, r.end, kCrossfade, tailPtrs_.data(), 0);
            cursor_.tailFrom = r.end;
            cursor_.fade = kCrossfade;
            ++cursor_.lap;
        }
        cursor_.timeline = r.start;
    }
    int k = static_cast<int>(std::min<std::int64_t>(kBlock, r.end - cursor_.timeline));
    renderer_->render(list, cursor_.timeline, k, planarPtrs_.data(), 0);
    for (int i = 0; i < k && cursor_.fade - i > 0; ++i) {
        int j = kCrossfade - (cursor_.fade - i);
        float gain = static_cast<float>(j + 1) / (kCrossfade + 1);
        for (int c = 0; c < channels_; ++c) planar_[c][i] = planar_[c][i] * gain + tail_[c][j] * (1 - gain);
    }
    float* dst = b->samples;
    for (int i = 0; i < k; ++i)
        for (int c = 0; c < channels_; ++c) *dst++ = planar_[c][i];
    b->path = writePath_;
    b->timeline = cursor_.timeline;
    b->lap = cursor_.lap;
    b->epoch = epoch_;
    b->gen = feederGen_;
    b->frames = k;
    b->end = !r.loops && cursor_.timeline + k >= r.end;
    if (historyCount_ == history_.size()) { // cannot happen: the ring is smaller
        historyFirst_ = (historyFirst_ + 1) % history_.size();
        --historyCount_;
    }
    history_[(historyFirst_ + historyCount_) % history_.size()] = {writePath_, cursor_, k};
    ++historyCount_;
    Tap tap;
    {
        std::lock_guard<std::mutex> g(lock_);
        tap = tap_;
    }
    if (tap) tap(b->samples, k, channels_);
    ring_->commit();
    endQueued_ = b->end;
    cursor_.timeline += k;
    cursor_.fade = std::max(0, cursor_.fade - k);
    writePath_ += k;
    ahead_.store(endQueued_ ? -1 : writePath_, std::memory_order_release);
    return true;
}

void Player::feederBody()
{
    std::unique_lock<std::mutex> g(lock_);
    while (!quit_) {
        bool active = playing_ && audioMasterLocked() && !soundFaulted_;
        if (!active) {
            fedGen_ = generation_;
            fedRangeGen_ = rangeGen_;
            fedFull_ = true;
            fed_.notify_all();
            changed_.wait(g);
            continue;
        }
        std::uint64_t gen = generation_, rangeGen = rangeGen_;
        bool restart = restart_;
        restart_ = false;
        Position anchor = anchor_;
        g.unlock();

        std::uint64_t changes = sound_->changeCount();
        auto list = sound_->editList();
        bool listChanged = list != list_;
        g.lock();
        setSoundLengthLocked(list->duration());
        Range r = range_;
        g.unlock();

        // Drop what the ring holds before the position the device stands at.
        std::int64_t played = path_.load(std::memory_order_acquire);
        while (historyCount_ > 0) {
            Rendered const& h = history_[historyFirst_];
            if (h.path + h.frames > played || (h.frames == 0 && h.path >= played)) break;
            historyFirst_ = (historyFirst_ + 1) % history_.size();
            --historyCount_;
        }
        if (gen != feederGen_) {
            // A seek or a new start: render from the anchor.
            if (restart) {
                // The device is stopped and waits for us: start clean.
                ring_->clear();
                played_.forget();
                endedGen_.store(0, std::memory_order_relaxed);
                historyCount_ = 0;
                played = path_.load(std::memory_order_relaxed);
            }
            feederGen_ = gen;
            feederRangeGen_ = rangeGen;
            ++epoch_;
            cursor_ = Cursor{anchor.ticks, anchor.lap, 0, 0};
            writePath_ = played;
            ahead_.store(writePath_, std::memory_order_release);
            historyCount_ = 0;
            endQueued_ = false;
            list_ = list;
        } else if (listChanged || rangeGen != feederRangeGen_) {
            // An edit or a new play range: render again from where the device
            // stands, so the change is heard at once.
            feederRangeGen_ = rangeGen;
            ++epoch_;
            rerenders_.fetch_add(1, std::memory_order_relaxed);
            Cursor at = cursorAt(played, r);
            if (at.fade > 0) renderer_->render(*list, at.tailFrom, kCrossfade, tailPtrs_.data(), 0);
            cursor_ = at;
            writePath_ = played;
            ahead_.store(writePath_, std::memory_order_release);
            historyCount_ = 0;
            endQueued_ = false;
            list_ = list;
        }

        // Fill up to the lead; a change seen meanwhile starts a new round.
        bool full = false;
        for (;;) {
            played = path_.load(std::memory_order_acquire);
            if (endQueued_ || writePath_ - played >= lead_) {
                full = true;
                break;
            }
            if (sound_->changeCount() != changes) break;
            if (!renderBlock(*list_, r)) {
                full = true; // the ring is full of an older rendering: wait for the device
                break;
            }
        }

        g.lock();
        if (playing_ && endedGen_.load(std::memory_order_acquire) == generation_ + 1) {
            // The range ran out on the device: the movie stops at its end.
            paused_ = {endedAt_.load(), endedLap_.load()};
            playing_ = false;
            active_ = false;
            // Under the lock, so that a play() cannot slip in between: the
            // callback never takes it, so this cannot deadlock.
            output_->setRunning(false);
            changed_.notify_all();
        }
        fedGen_ = feederGen_;
        fedRangeGen_ = feederRangeGen_;
        fedChanges_ = changes;
        fedFull_ = full && gen == generation_;
        fed_.notify_all();
        if (full && gen == generation_ && rangeGen == rangeGen_)
            changed_.wait_for(g, kFeederPoll);
    }
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
    // To the picture on screen at `seconds` of the pictures' own time; a
    // time before the first picture (a picture track that starts after
    // the movie does) goes to the first: a seek before it finds nothing.
    auto seekPictures = [&](double seconds) {
        decoder->seek(media->startPts + static_cast<std::int64_t>(std::floor(std::max(0.0, seconds) / tb)));
    };
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
    bool lapGavePictures = false; // the decoder gave a picture since the last seek or wrap
    std::shared_ptr<const VideoFrame> shown;
    std::shared_ptr<VideoFrame> loopHead; // first picture of the loop, kept for the wrap

    std::uint64_t seenRangeGen = ~0ULL;
    std::unique_lock<std::mutex> g(lock_);
    while (!quit_) {
        bool again = videoGeneration_ != seenGeneration;
        if (!again && rangeGen_ != seenRangeGen) {
            // A new play range (a loop given up or begun while playing):
            // pictures decoded for another lap than the one now heard would
            // never come due, so decoding starts again where the sound is.
            seenRangeGen = rangeGen_;
            std::uint64_t lap = positionLocked().lap;
            again = decoderLap != lap || std::any_of(queue.begin(), queue.end(), [&](Queued const& q) { return q.lap != lap; });
        }
        if (again) {
            seenGeneration = videoGeneration_;
            seenRangeGen = rangeGen_;
            Position at = positionLocked();
            std::int64_t target = at.ticks;
            decoderLap = at.lap;
            g.unlock();
            queue.clear();
            held.reset();
            shown.reset();
            double seconds = static_cast<double>(target) / scale_ - lead;
            seekPictures(seconds);
            skipBefore = target;
            eof = false;
            lapGavePictures = false;
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
                // A loop that reaches the end of the pictures (the selection
                // runs to the movie's end) wraps here: there is no picture at
                // or after its end to notice it by. Only after a lap that
                // gave pictures, so a loop with none never spins.
                if (r.loops && r.end > r.start && lapGavePictures) {
                    double s = static_cast<double>(r.start) / scale_ - lead;
                    seekPictures(s);
                    skipBefore = r.start;
                    ++decoderLap;
                    lapGavePictures = false;
                    eof = false;
                }
            } else {
                lapGavePictures = true;
                decoded = true;
                double seconds = static_cast<double>(frame->best_effort_timestamp - media->startPts) * tb + lead;
                std::int64_t ticks = static_cast<std::int64_t>(std::llround(seconds * scale_));
                if (r.loops && ticks >= r.end && r.end > r.start) {
                    // Loop: go back to the start and decode the next lap.
                    av_frame_unref(frame.get());
                    double s = static_cast<double>(r.start) / scale_ - lead;
                    seekPictures(s);
                    skipBefore = r.start;
                    held.reset();
                    ++decoderLap;
                    lapGavePictures = false;
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
                    ScalerBuffer room = scalerBuffer(w * 4, h);
                    vf->stride = room.stride;
                    vf->rgb.resize(room.bytes);
                    scaler.convertInto(frame.get(), w, h, AV_PIX_FMT_RGB32, vf->rgb.data(), vf->stride, vf->rgb.size(),
                                       playing ? SWS_BILINEAR : SWS_BICUBIC);
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
        // Nothing on screen since the seek and no picture at or before its
        // time (a picture track that starts after 0, as most files with
        // reordered frames do): the first picture after it is shown
        // already, as players show a movie's first picture when it opens.
        if (!due && !shown && !queue.empty() && queue.front().lap == now.lap) due = queue.front().frame;
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
