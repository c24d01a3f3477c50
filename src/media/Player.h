// The playback engine: plays a movie of the edit model with its sound track
// rendered live from the current edit list, loops seamlessly, and hands
// timed RGB frames to a view.
//
// Threads and ownership:
//  - the caller's thread (the model's) calls every public method;
//  - the device thread (SDL's) pulls sound; it reads only the play state
//    under `lock_` and the sound track's edit-list snapshots;
//  - the video thread decodes, scales and presents frames to the sink;
//  - the idle thread ticks the idle callback, through `post` when given.
// The movie itself is read only on the caller's thread.
#pragma once

#include "AudioOutput.h"
#include "AudioRenderer.h"
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

    // The movie's play-range attributes. The setters change the movie too;
    // refreshFromMovie() re-reads them after the movie was changed directly.
    void setSelection(QTTimeRange selection);
    void setActiveSegment(std::optional<QTTimeRange> segment);
    void setLoops(bool loops);
    void setPlaysSelectionOnly(bool on);
    void refreshFromMovie();
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
    // Sees every buffer handed to the sound device.
    void setAudioTap(Tap tap);
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
    struct Range {
        std::int64_t start = 0, end = 0;
        bool loops = false;
    };
    struct Piece { // output frames [outStart, outStart+length) played timeline [timeline, ...)
        std::int64_t outStart, timeline, length;
        std::uint64_t lap;
    };
    struct Position {
        std::int64_t ticks;
        std::uint64_t lap;
    };

    void pullAudio(float* out, int frames);
    // The device callback: never throws; a fault gives silence from then on.
    void pullAudioGuarded(float* out, int frames) noexcept;
    void reportFault(std::string const& message) noexcept;
    void videoLoop() noexcept;
    void videoLoopBody();
    void idleLoop();
    Position positionLocked() const;
    bool audioMasterLocked() const;
    bool finishedLocked() const;
    void applyRangeLocked(Range r);
    Range rangeFromMovie() const;
    std::int64_t toTicks(QTTime const& t) const;
    void seekLocked(std::int64_t ticks);

    std::shared_ptr<dm::Movie> movie_;
    dm::TrackPtr sound_, video_;
    std::int32_t scale_ = 48000;     // ticks per second of every position here
    std::int64_t duration_ = 0;      // ticks
    double frameSeconds_ = 1.0 / 25; // one video frame
    std::unique_ptr<AudioOutput> output_;
    bool deviceOpen_ = false;
    std::string audioStatus_;
    int channels_ = 0;
    std::unique_ptr<AudioRenderer> renderer_; // device thread only
    std::vector<std::vector<float>> planar_;  // device thread only
    std::vector<std::vector<float>> tail_;    // device thread only

    mutable std::mutex lock_;
    std::condition_variable changed_;
    bool quit_ = false;
    bool playing_ = false;
    double rate_ = 1.0;
    Range range_;
    std::int64_t pos_ = 0;          // next sound sample to render
    std::uint64_t lap_ = 0;         // laps rendered so far
    std::uint64_t generation_ = 0;  // bumped by every seek
    std::uint64_t videoGeneration_ = 0; // bumped by seeks and view size changes
    std::deque<Piece> pieces_;      // recent output, for the sound clock
    std::int64_t delivered_ = 0;    // frames handed to the device
    std::chrono::steady_clock::time_point lastPull_{};
    Position paused_{0, 0};         // where a stopped movie stands
    Position base_{0, 0};           // system clock: position at baseTime_
    std::chrono::steady_clock::time_point baseTime_{};
    SelectionFilter filter_;
    std::mutex sinkLock_; // held while the sink runs
    FrameSink sink_;
    Tap tap_;
    int viewWidth_ = 0, viewHeight_ = 0;

    mutable std::mutex faultLock_;
    std::string fault_;        // guarded by faultLock_
    Fault faultCallback_;      // guarded by faultLock_
    bool faultReported_ = false; // guarded by faultLock_
    std::atomic<bool> soundFaulted_{false};

    std::thread videoThread_, idleThread_;
    Idle idle_;
    Post post_;
    std::chrono::milliseconds idlePeriod_{20};
    std::shared_ptr<std::atomic<bool>> idlePending_ = std::make_shared<std::atomic<bool>>(false);
};

} // namespace media
