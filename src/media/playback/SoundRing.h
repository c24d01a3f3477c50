// Lock-free hand-over of rendered sound from the feeder thread to the sound
// device's callback, and of what the device played back to the clock.
//
// Neither type allocates, locks or throws after construction: the device's
// callback may use them.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace media {

// A single-producer/single-consumer ring of fixed-size blocks of interleaved
// float frames. The producer fills the block at the tail and commits it; the
// consumer reads the blocks between head and tail and releases them from the
// front. Block headers and samples are published by the release store of the
// tail and handed back by the release store of the head.
class SoundRing {
public:
    struct Block {
        std::int64_t path = 0;     // position on the play path of its first frame (frames played before it)
        std::int64_t timeline = 0; // timeline tick of its first frame
        std::uint64_t lap = 0;     // loop wraps before it
        std::uint64_t epoch = 0;   // the rendering it belongs to; a newer epoch replaces older blocks
        std::uint64_t gen = 0;     // the seek or play it follows
        int frames = 0;            // frames of sound in it
        bool end = false;          // the play range ends after these frames
        float* samples = nullptr;  // channels x blockFrames, interleaved
    };

    SoundRing(int channels, int blockFrames, int blocks)
        : channels_(channels), blockFrames_(blockFrames), blocks_(static_cast<std::size_t>(blocks)),
          storage_(static_cast<std::size_t>(channels) * static_cast<std::size_t>(blockFrames) * static_cast<std::size_t>(blocks))
    {
        for (std::size_t i = 0; i < blocks_.size(); ++i)
            blocks_[i].samples = storage_.data() + i * static_cast<std::size_t>(channels) * static_cast<std::size_t>(blockFrames);
    }
    SoundRing(SoundRing const&) = delete;
    SoundRing& operator=(SoundRing const&) = delete;

    int channels() const { return channels_; }
    int blockFrames() const { return blockFrames_; }
    std::size_t capacity() const { return blocks_.size(); }

    // Producer: the block to fill next, or null when the ring is full.
    Block* writable()
    {
        std::uint64_t t = tail_.load(std::memory_order_relaxed);
        if (t - head_.load(std::memory_order_acquire) >= blocks_.size()) return nullptr;
        return &blocks_[t % blocks_.size()];
    }
    // Producer: hands the block from writable() to the consumer.
    void commit() { tail_.store(tail_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }
    // Producer: blocks not yet released by the consumer.
    std::size_t queued() const
    {
        return static_cast<std::size_t>(tail_.load(std::memory_order_relaxed) - head_.load(std::memory_order_acquire));
    }

    // Consumer: blocks ready to read.
    std::size_t readable() const
    {
        return static_cast<std::size_t>(tail_.load(std::memory_order_acquire) - head_.load(std::memory_order_relaxed));
    }
    // Consumer: the i-th readable block (i < readable()).
    Block const& peek(std::size_t i) const { return blocks_[(head_.load(std::memory_order_relaxed) + i) % blocks_.size()]; }
    // Consumer: gives the first n readable blocks back to the producer.
    void release(std::size_t n) { head_.store(head_.load(std::memory_order_relaxed) + n, std::memory_order_release); }

    // Either side, only while the other is known to be stopped: drops every
    // block (the device is paused and the feeder starts again).
    void clear() { head_.store(tail_.load(std::memory_order_acquire), std::memory_order_release); }

private:
    int channels_, blockFrames_;
    std::vector<Block> blocks_;
    std::vector<float> storage_;
    std::atomic<std::uint64_t> head_{0}, tail_{0};
};

// What the device was handed, for the clock: the device's callback writes a
// record per callback, any thread reads a consistent copy (a sequence lock:
// the writer never waits, a reader tries again if a write overlapped).
class PlayedLog {
public:
    static constexpr int kPieces = 64;
    struct Piece {
        std::int64_t device = 0;   // device frame index of its first frame
        std::int64_t timeline = 0; // timeline tick played there
        std::int64_t length = 0;
        std::uint64_t lap = 0;
        std::uint64_t gen = 0;
    };
    struct Snapshot {
        std::int64_t delivered = 0; // frames handed to the device so far
        std::int64_t pulledAt = 0;  // steady-clock nanoseconds of the last callback
        int count = 0;              // pieces[0..count), oldest first
        Piece pieces[kPieces];
    };

    // Writer (the callback): a new record. Pieces added between begin() and
    // end() become visible together.
    void begin()
    {
        seq_.store(seq_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_release);
    }
    void add(Piece const& p)
    {
        std::uint64_t n = next_.load(std::memory_order_relaxed);
        Slot& s = slots_[n % kPieces];
        s.device.store(p.device, std::memory_order_relaxed);
        s.timeline.store(p.timeline, std::memory_order_relaxed);
        s.length.store(p.length, std::memory_order_relaxed);
        s.lap.store(p.lap, std::memory_order_relaxed);
        s.gen.store(p.gen, std::memory_order_relaxed);
        next_.store(n + 1, std::memory_order_relaxed);
    }
    void end(std::int64_t delivered, std::int64_t pulledAt)
    {
        delivered_.store(delivered, std::memory_order_relaxed);
        pulledAt_.store(pulledAt, std::memory_order_relaxed);
        seq_.store(seq_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
    // Writer, while no reader can matter (playback restarts): forgets the pieces.
    void forget()
    {
        begin();
        first_.store(next_.load(std::memory_order_relaxed), std::memory_order_relaxed);
        end(delivered_.load(std::memory_order_relaxed), pulledAt_.load(std::memory_order_relaxed));
    }

    // Any thread: a consistent copy.
    void read(Snapshot& out) const
    {
        for (;;) {
            std::uint64_t s1 = seq_.load(std::memory_order_acquire);
            if (s1 & 1) continue;
            std::uint64_t n = next_.load(std::memory_order_relaxed);
            std::uint64_t first = first_.load(std::memory_order_relaxed);
            std::uint64_t from = n - std::min<std::uint64_t>(n - std::min(first, n), kPieces);
            out.count = static_cast<int>(n - from);
            for (std::uint64_t i = from; i < n; ++i) {
                Slot const& s = slots_[i % kPieces];
                Piece& p = out.pieces[i - from];
                p.device = s.device.load(std::memory_order_relaxed);
                p.timeline = s.timeline.load(std::memory_order_relaxed);
                p.length = s.length.load(std::memory_order_relaxed);
                p.lap = s.lap.load(std::memory_order_relaxed);
                p.gen = s.gen.load(std::memory_order_relaxed);
            }
            out.delivered = delivered_.load(std::memory_order_relaxed);
            out.pulledAt = pulledAt_.load(std::memory_order_relaxed);
            std::atomic_thread_fence(std::memory_order_acquire);
            if (seq_.load(std::memory_order_relaxed) == s1) return;
        }
    }

private:
    struct Slot {
        std::atomic<std::int64_t> device{0}, timeline{0}, length{0};
        std::atomic<std::uint64_t> lap{0}, gen{0};
    };
    std::atomic<std::uint64_t> seq_{0};
    std::atomic<std::uint64_t> next_{0}, first_{0};
    std::atomic<std::int64_t> delivered_{0}, pulledAt_{0};
    Slot slots_[kPieces];
};

} // namespace media
