// Sound output behind a small interface: SDL2 for real devices (and SDL's
// dummy and disk drivers headless), and a manual output for tests that pull
// the device's buffers themselves.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

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

// SDL2 audio: PulseAudio, PipeWire or ALSA devices; SDL_AUDIODRIVER=dummy or
// disk run without sound hardware.
std::unique_ptr<AudioOutput> makeSdlAudioOutput();

// An output that plays only when told: pull(n) asks the player for the next
// n frames, as the device thread would. For tests.
class ManualAudioOutput : public AudioOutput {
public:
    bool open(int sampleRate, int channels, int bufferFrames, Pull pull) override;
    void setRunning(bool running) override;
    void close() override;
    int latencyFrames() const override { return 0; }
    int bufferFrames() const override { return buffer_; }
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
};

} // namespace media
