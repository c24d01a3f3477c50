#include "Player.h"
#include "PlayerParts.h"

#include "Codec.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace media {

using namespace playerparts;

namespace {
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
    sound_ = options.sound;
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
    range_ = rangeFromTransport();
    paused_ = {0, 0}; // a new player stands at the movie's start
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

Player::Range Player::rangeFromTransport() const
{
    std::int64_t duration;
    {
        std::lock_guard<std::mutex> g(lock_);
        duration = duration_;
    }
    Range r{0, duration, transport_.loops, true};
    QTTimeRange sel = transport_.selection;
    if (transport_.playsSelectionOnly && sel.duration.timeValue > 0) {
        r.start = toTicks(sel.time);
        r.end = r.start + toTicks(sel.duration);
        r.whole = false;
    } else if (auto seg = transport_.activeSegment; seg && seg->duration.timeValue > 0) {
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
    return range_.advance(base_, static_cast<std::int64_t>(elapsed * rate_ * scale_));
}

bool Player::finishedLocked() const
{
    if (!playing_) return false;
    // On the device the play range ran out (the feeder stops the device soon).
    if (audioMasterLocked()) return endedGen_.load(std::memory_order_acquire) == generation_ + 1;
    // On the system clock a movie that does not loop stops at its end.
    if (range_.wraps()) return false;
    Position p = positionLocked();
    return rate_ > 0 ? range_.atEnd(p.ticks) : p.ticks <= range_.start;
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

void Player::rangeRanOutLocked()
{
    // The movie stops at its end. Under the lock, so that a play() cannot
    // slip in between: the callback never takes it, so this cannot deadlock.
    paused_ = {endedAt_.load(), endedLap_.load()};
    playing_ = false;
    active_ = false;
    output_->setRunning(false);
    changed_.notify_all();
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
    transport_.selection = selection;
    refreshRange();
}

void Player::setActiveSegment(std::optional<QTTimeRange> segment)
{
    transport_.activeSegment = segment;
    refreshRange();
}

void Player::setLoops(bool loops)
{
    transport_.loops = loops;
    refreshRange();
}

void Player::setPlaysSelectionOnly(bool on)
{
    transport_.playsSelectionOnly = on;
    refreshRange();
}

void Player::refreshRange()
{
    std::int64_t others = othersDuration();
    {
        std::lock_guard<std::mutex> g(lock_);
        others_ = others;
        duration_ = others;
        followSoundLengthLocked();
    }
    Range r = rangeFromTransport();
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

} // namespace media
