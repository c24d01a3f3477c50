// The sound path of the player: the device callback, which only copies
// rendered blocks, and the feeder thread, which renders the edit list ahead.
#include "Player.h"
#include "PlayerParts.h"

#include "Codec.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace media {

using namespace playerparts;

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
    Position p = range.advance({c.timeline, c.lap}, std::max<std::int64_t>(0, path - writePath_));
    c.timeline = p.ticks;
    c.lap = p.lap;
    c.fade = 0;
    return c;
}

bool Player::renderBlock(dm::EditList const& list, Range const& r)
{
    SoundRing::Block* b = ring_->writable();
    if (!b) return false;
    if (r.atEnd(cursor_.timeline) || cursor_.timeline < r.start) {
        if (r.atEnd(cursor_.timeline) && !r.wraps()) {
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
        if (r.atEnd(cursor_.timeline)) {
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
    b->end = !r.wraps() && r.atEnd(cursor_.timeline + k);
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
        // The range ran out on the device: reported to the transport.
        if (playing_ && endedGen_.load(std::memory_order_acquire) == generation_ + 1) rangeRanOutLocked();
        fedGen_ = feederGen_;
        fedRangeGen_ = feederRangeGen_;
        fedChanges_ = changes;
        fedFull_ = full && gen == generation_;
        fed_.notify_all();
        if (full && gen == generation_ && rangeGen == rangeGen_)
            changed_.wait_for(g, kFeederPoll);
    }
}

} // namespace media
