// The playback engine: plays a movie of the edit model with its sound track
// rendered live from the current edit list, loops seamlessly, and hands
// timed RGB frames to a view.
//
// Threads and ownership:
//  - the caller's thread (the model's) calls every public method;
//  - the feeder thread renders the edited sound ahead of the device (decode,
//    resample, edit lists, loop wraps) into a lock-free ring; it reads the
//    play state under `lock_` and the sound track's edit-list snapshots, and
//    renders again from the play position whenever the edits, the play range
//    or the position change;
//  - the device thread (SDL's) only copies from that ring and logs what it
//    played for the clock: no allocation, no lock, no I/O, no exception;
//  - the video thread decodes, scales and presents frames to the sink;
//  - the idle thread ticks the idle callback, through `post` when given.
// The movie itself is read only on the caller's thread.
//
// The clock that places pictures (and the time the user is shown) is the
// sound being heard: what was handed to the device less the output latency
// (the device's buffering plus a delay the user sets for, say, Bluetooth
// headphones), so what the user sees is what they hear with it.
#pragma once

#include "AudioOutput.h"
#include "AudioRenderer.h"
#include "PlayerParts.h"
#include "SoundRing.h"
#include "movie/Movie.h"
#include "myQTTime.h"

#include <array>
#include <atomic>
#include <cstring>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace media {

// A picture for the view, immutable once handed over: 32-bit pixels, each
// a native-endian 0xffRRGGBB word (what a toolkit paints without converting:
// QImage::Format_RGB32), `stride` bytes a row.
struct VideoFrame {
    int width = 0, height = 0, stride = 0;
    std::vector<std::uint8_t> rgb;
    // The red, green and blue of a pixel.
    std::array<std::uint8_t, 3> pixel(int x, int y) const
    {
        std::uint32_t v;
        std::memcpy(&v, rgb.data() + static_cast<std::size_t>(y) * stride + static_cast<std::size_t>(x) * 4, 4);
        return {static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v)};
    }
    double seconds = 0;     // its time on the movie timeline
    std::uint64_t lap = 0;  // how many loop wraps came before it
};

struct PlayerOptions {
    std::unique_ptr<AudioOutput> output; // null: SDL
    int bufferFrames = 1024;             // device buffer, in frames
    bool video = true;                   // decode and present pictures
    // Extra output delay the user set (headphones, receivers), in ms. The
    // environment's DUBMATCH_OUTPUT_DELAY_MS, when set, takes its place.
    double outputDelayMs = 0;
    // The sound track to play (the one a sync re-times, as the movie
    // session gives it); null: the movie's first enabled sound track.
    dm::TrackPtr sound;
};

// Counters of the sound path, for tests, benchmarks and diagnostics.
struct PlaybackStats {
    std::uint64_t callbacks = 0;     // device callbacks while playing
    std::uint64_t underruns = 0;     // callbacks that found too little sound rendered
    std::uint64_t underrunFrames = 0;
    std::uint64_t rerenders = 0;     // times the feeder rendered again after a change
    std::uint64_t decodeErrors = 0;  // damaged sound frames skipped
    std::int64_t delivered = 0;      // frames handed to the device so far
    std::int64_t lastSwitch = -1;    // device frame where the newest rendering took over
};

class Player {
public:
    using FrameSink = std::function<void(std::shared_ptr<const VideoFrame>)>;
    using Idle = std::function<void(myQTTime now)>;
    using Post = std::function<void(std::function<void()>)>;
    using SelectionFilter = std::function<bool(QTTimeRange const&)>; // true: allow
    using Tap = std::function<void(float const* interleaved, int frames, int channels)>;

    explicit Player(std::shared_ptr<dm::Movie> movie, PlayerOptions options = {});
    ~Player();
    Player(Player const&) = delete;
    Player& operator=(Player const&) = delete;

    void play();
    void pause();
    bool isPlaying() const;
    // 1 plays with sound; any other rate plays the pictures on the system
    // clock without sound; 0 pauses.
    void setRate(double rate);
    double rate() const;

    // The instant being heard (or shown), at the sound's scale.
    myQTTime currentTime() const;
    // Seeks; the picture shown is the frame on screen at that instant.
    void setCurrentTime(myQTTime const& t);
    // Pauses and moves one frame forward (+1) or back (-1).
    void stepFrame(int direction);

    // The transport's play range: the selection, the active segment (a part
    // of the movie that plays on its own), looping, and whether only the
    // selection plays. Set and read on the caller's thread; the player alone
    // keeps them (the movie model holds no playback state).
    void setSelection(QTTimeRange selection);
    void setActiveSegment(std::optional<QTTimeRange> segment);
    void setLoops(bool loops);
    void setPlaysSelectionOnly(bool on);
    QTTimeRange selection() const { return transport_.selection; }
    std::optional<QTTimeRange> activeSegment() const { return transport_.activeSegment; }
    bool loops() const { return transport_.loops; }
    bool playsSelectionOnly() const { return transport_.playsSelectionOnly; }
    // A selection change coming from the controller bar: the filter may
    // veto it. Returns whether it was made.
    bool requestSelectionFromController(QTTimeRange selection);
    void setSelectionFilter(SelectionFilter filter);

    // Frames are scaled to fit this size (keeping the picture's shape).
    void setViewSize(int width, int height);
    // Called on the video thread. Once setFrameSink returns, the old sink
    // is no longer running and will not be called again.
    void setFrameSink(FrameSink sink);
    // Called about every `period` with the current time; through `post`
    // (which runs a task on the caller's chosen thread) when given.
    void setIdleCallback(Idle idle, Post post = {}, std::chrono::milliseconds period = std::chrono::milliseconds(20));
    // Sees the sound as it is rendered, block by block, on the feeder thread
    // (ahead of the device; after a change the new rendering follows).
    void setAudioTap(Tap tap);
    // The user's extra output delay, in ms (ignored while
    // DUBMATCH_OUTPUT_DELAY_MS is set).
    void setOutputDelay(double milliseconds);
    // Frames between handing sound to the device and hearing it: the
    // device's own latency plus the user's delay.
    int outputLatencyFrames() const;
    PlaybackStats stats() const;
    // Waits until the feeder has seen every change and rendered its lead
    // ahead of the device (or the end). For tests and benchmarks that drive
    // a manual device. False on timeout: generous, since a machine busy with
    // other work may hold the feeder back for seconds.
    bool waitForSound(std::chrono::milliseconds timeout = std::chrono::milliseconds(10000)) const;
    // The length playback runs to: follows the sound track when a re-timing
    // makes it longer or shorter.
    myQTTime duration() const;
    // Told once, on the playback thread that met it, when a fault stopped
    // the sound (which then plays silence) or the pictures (the last one
    // stays on screen). Faults before the callback is set are kept and
    // reported when it is.
    using Fault = std::function<void(std::string const& message)>;
    void setFaultCallback(Fault fault);
    // The first fault met, or empty.
    std::string fault() const;

    bool hasSound() const { return static_cast<bool>(sound_); }
    bool hasAudioDevice() const { return deviceOpen_; }
    // Empty, or why playback runs without sound.
    std::string audioStatus() const { return audioStatus_; }
    dm::TrackPtr soundTrack() const { return sound_; }
    int sampleRate() const { return scale_; }

private:
    using Range = playerparts::PlayRange;
    using Position = playerparts::Position;
    // Where the feeder renders next: a timeline position, its lap, and a
    // crossfade in progress after a loop wrap.
    struct Cursor {
        std::int64_t timeline = 0;
        std::uint64_t lap = 0;
        int fade = 0;              // crossfade samples still to blend
        std::int64_t tailFrom = 0; // where the sound that fades out was taken
    };
    struct Rendered { // one block in the ring, as the feeder made it
        std::int64_t path;
        Cursor at;
        int frames;
    };

    // The device callback: copies from the ring; silence when there is none.
    void pullAudio(float* out, int frames) noexcept;
    void reportFault(std::string const& message) noexcept;
    void feederLoop() noexcept;
    void feederBody();
    bool renderBlock(dm::EditList const& list, Range const& r);
    Cursor cursorAt(std::int64_t path, Range const& range);
    void videoLoop() noexcept;
    void videoLoopBody();
    void idleLoop();
    Position positionLocked() const;
    // The transport's answer to the feeder's report that the device played
    // the end of a range that does not loop: playing stops there. The
    // transport's state (playing, the paused position, the device running)
    // is written only by the functions of Player.cpp; the feeder and the
    // picture thread report through this one and read the rest.
    void rangeRanOutLocked();
    bool audioMasterLocked() const;
    bool finishedLocked() const;
    bool fedLocked() const;
    void applyRangeLocked(Range r);
    // The play range the transport's settings give, clamped to the movie.
    Range rangeFromTransport() const;
    // Takes the movie's length and the transport's settings again.
    void refreshRange();
    std::int64_t toTicks(QTTime const& t) const;
    void seekLocked(std::int64_t ticks);
    // The length follows the sound track's current edit list.
    void followSoundLengthLocked();
    void setSoundLengthLocked(std::int64_t soundLength);
    std::int64_t othersDuration() const;

    std::shared_ptr<dm::Movie> movie_;
    dm::TrackPtr sound_, video_;
    std::int32_t scale_ = 48000;     // ticks per second of every position here
    double frameSeconds_ = 1.0 / 25; // one video frame
    std::unique_ptr<AudioOutput> output_;
    bool deviceOpen_ = false;
    std::string audioStatus_;
    int channels_ = 0;
    int deviceBuffer_ = 1024;        // frames per device callback
    int lead_ = 8192;                // frames the feeder keeps rendered ahead
    std::atomic<int> delayFrames_{0};   // the user's output delay
    bool delayFromEnvironment_ = false;

    // Shared between the feeder and the device callback, lock-free.
    std::unique_ptr<SoundRing> ring_;
    PlayedLog played_;
    std::atomic<bool> active_{false};        // the callback plays from the ring
    std::atomic<std::int64_t> path_{0};      // frames of the play path played so far (callback's)
    std::atomic<std::int64_t> delivered_{0}; // frames handed to the device (callback's)
    std::atomic<std::uint64_t> endedGen_{0}; // gen + 1 of a play range that ran out
    std::atomic<std::int64_t> endedAt_{0};
    std::atomic<std::uint64_t> endedLap_{0};
    std::atomic<std::uint64_t> callbacks_{0}, underruns_{0}, underrunFrames_{0}, rerenders_{0};
    std::atomic<std::int64_t> lastSwitch_{-1};
    std::atomic<bool> soundFaulted_{false};
    std::atomic<std::int64_t> ahead_{0};     // the feeder's write position on the path; -1: the end is queued

    // Feeder thread only.
    std::unique_ptr<AudioRenderer> renderer_;
    std::vector<std::vector<float>> planar_, tail_;
    std::vector<float*> planarPtrs_, tailPtrs_;
    std::vector<Rendered> history_; // ring of what is queued, oldest first
    std::size_t historyFirst_ = 0, historyCount_ = 0;
    Cursor cursor_;
    std::int64_t writePath_ = 0;
    std::uint64_t epoch_ = 0, feederGen_ = 0, feederRangeGen_ = 0;
    std::shared_ptr<const dm::EditList> list_;
    bool endQueued_ = false;

    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    mutable std::condition_variable fed_; // the feeder caught up
    bool quit_ = false;
    bool playing_ = false;
    double rate_ = 1.0;
    struct Transport {
        QTTimeRange selection{};
        std::optional<QTTimeRange> activeSegment;
        bool loops = false;
        bool playsSelectionOnly = false;
    } transport_; // the caller's thread only; range_ is what the threads read
    Range range_;
    std::int64_t duration_ = 0;      // ticks; follows the sound track
    std::int64_t others_ = 0;        // ticks: the longest track other than the sound
    std::uint64_t generation_ = 0;   // bumped by every seek and play: the feeder starts again
    bool restart_ = false;           // the device is stopped: the feeder may drop everything
    Position anchor_{0, 0};          // where the feeder starts for `generation_`
    std::uint64_t rangeGen_ = 0;     // bumped by play-range changes: the feeder renders again
    std::uint64_t videoGeneration_ = 0; // bumped by seeks and view size changes
    // What the feeder has seen and done (guarded by lock_).
    std::uint64_t fedGen_ = ~0ULL, fedRangeGen_ = ~0ULL, fedChanges_ = ~0ULL;
    bool fedFull_ = false;
    Position paused_{0, 0};         // where a stopped movie stands
    Position base_{0, 0};           // system clock: position at baseTime_
    std::chrono::steady_clock::time_point baseTime_{};
    SelectionFilter filter_;
    std::mutex sinkLock_; // held while the sink runs
    FrameSink sink_;
    Tap tap_;             // guarded by lock_; called on the feeder thread
    int viewWidth_ = 0, viewHeight_ = 0;

    mutable std::mutex faultLock_;
    std::string fault_;        // guarded by faultLock_
    Fault faultCallback_;      // guarded by faultLock_
    bool faultReported_ = false; // guarded by faultLock_

    std::thread feederThread_, videoThread_, idleThread_;
    Idle idle_;
    Post post_;
    std::chrono::milliseconds idlePeriod_{20};
    std::shared_ptr<std::atomic<bool>> idlePending_ = std::make_shared<std::atomic<bool>>(false);
};

} // namespace media
