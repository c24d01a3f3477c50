// Sound output behind a small interface: SDL2 for real devices (and SDL's
// dummy and disk drivers headless), and a manual output for tests that pull
// the device's buffers themselves.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace media {

class AudioOutput {
public:
    // Fills `frames` interleaved float frames; runs on the device's thread.
    using Pull = std::function<void(float* interleaved, int frames)>;

    virtual ~AudioOutput() = default;
    // Opens the device. False (with reason() set) when there is none.
    virtual bool open(int sampleRate, int channels, int bufferFrames, Pull pull) = 0;
    // Starts or stops pulling. While stopped, pull is not called.
    virtual void setRunning(bool running) = 0;
    virtual void close() = 0;
    // Frames handed over but not yet heard (the device's buffering).
    virtual int latencyFrames() const = 0;
    virtual int bufferFrames() const = 0;
    virtual std::string reason() const = 0;
};

// How far ahead of the speaker a device pulls, measured from the cadence of
// its callbacks: a device that plays in real time from its first callback on
// has heard rate x elapsed frames, so what was handed over beyond that is in
// its buffers. Sound servers fill their buffers in a burst at the start and
// then keep them full. Measured over the first callbacks after each start
// (later, the drift between the device's clock and ours would creep in).
// record() is safe in a device callback (no allocation, no lock).
class CadenceMeter {
public:
    static constexpr int kCallbacks = 96;
    // Before the device starts.
    void reset()
    {
        cached_.store(-1, std::memory_order_relaxed);
        count_.store(0, std::memory_order_release);
    }
    // In the callback: `frames` handed over at `nanos` (steady clock).
    void record(std::int64_t nanos, int frames) noexcept;
    // Frames held between the callback and the speaker, at least `floor`
    // and at most half a second more; `floor` until enough callbacks came.
    int estimate(int sampleRate, int floor) const;

private:
    std::atomic<int> count_{0};
    mutable std::atomic<int> cached_{-1}; // the estimate once every callback is in
    std::atomic<std::int64_t> times_[kCallbacks] = {};
    std::atomic<std::int64_t> frames_[kCallbacks] = {}; // handed over up to and with that callback
};

// SDL2 audio: PulseAudio, PipeWire or ALSA devices; SDL_AUDIODRIVER=dummy or
// disk run without sound hardware.
std::unique_ptr<AudioOutput> makeSdlAudioOutput();

// An output that pulls on a thread of its own, one buffer every buffer
// period divided by `speed` (1: real time), and discards the sound: a device
// for tests and benchmarks. `around`, when given, runs each pull (to time
// it, or to watch what it does).
class PacedAudioOutput : public AudioOutput {
public:
    using Around = std::function<void(float* interleaved, int frames, Pull const& pull)>;
    explicit PacedAudioOutput(double speed = 1.0, Around around = {});
    ~PacedAudioOutput() override;
    bool open(int sampleRate, int channels, int bufferFrames, Pull pull) override;
    void setRunning(bool running) override { running_ = running; }
    void close() override;
    int latencyFrames() const override { return buffer_; }
    int bufferFrames() const override { return buffer_; }
    std::string reason() const override { return ""; }
    long pulls() const { return pulls_; }
    double periodSeconds() const { return static_cast<double>(buffer_) / rate_; }

private:
    void run();
    double speed_;
    Around around_;
    Pull pull_;
    int rate_ = 48000, buffer_ = 1024;
    std::vector<float> samples_;
    std::thread thread_;
    std::atomic<bool> quit_{false}, running_{false};
    std::atomic<long> pulls_{0};
};

// An output that plays only when told: pull(n) asks the player for the next
// n frames, as the device thread would. For tests.
class ManualAudioOutput : public AudioOutput {
public:
    bool open(int sampleRate, int channels, int bufferFrames, Pull pull) override;
    void setRunning(bool running) override;
    void close() override;
    int latencyFrames() const override { return latency_.load(); }
    int bufferFrames() const override { return buffer_; }
    // What latencyFrames() reports: a device that holds that much.
    void setLatencyFrames(int frames) { latency_ = frames; }
    std::string reason() const override { return ""; }

    // Runs one device callback of `bufferFrames` frames into `out` (which
    // is resized); silence when not running. Returns whether it ran.
    bool pullBuffer(std::vector<float>& out);
    int channels() const { return channels_; }

private:
    std::mutex lock_;
    Pull pull_;
    bool running_ = false;
    int channels_ = 0, buffer_ = 0;
    std::atomic<int> latency_{0};
};

} // namespace media
