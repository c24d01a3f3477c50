#include "AudioOutput.h"

#include <SDL.h>

#include <cstring>
#include <vector>

namespace media {

namespace {

// Initialises SDL's audio subsystem once per output, and quits it after.
class SdlAudioOutput : public AudioOutput {
public:
    ~SdlAudioOutput() override { close(); }

    bool open(int sampleRate, int channels, int bufferFrames, Pull pull) override
    {
        close();
        // SIGINT and SIGTERM belong to the program, not to SDL's event queue.
        SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
        if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
            reason_ = std::string("no sound system (") + SDL_GetError() + ")";
            return false;
        }
        initialised_ = true;
        pull_ = std::move(pull);
        SDL_AudioSpec want{}, have{};
        want.freq = sampleRate;
        want.format = AUDIO_F32SYS;
        want.channels = static_cast<Uint8>(channels);
        want.samples = static_cast<Uint16>(bufferFrames);
        want.callback = &SdlAudioOutput::callback;
        want.userdata = this;
        // SDL converts rate, format and channel count if the device differs.
        device_ = SDL_OpenAudioDevice(nullptr, 0, &want, &have, 0);
        if (device_ == 0) {
            reason_ = std::string("no sound device (") + SDL_GetError() + ")";
            close();
            return false;
        }
        buffer_ = have.samples;
        channels_ = channels;
        reason_.clear();
        return true;
    }

    void setRunning(bool running) override
    {
        if (device_) SDL_PauseAudioDevice(device_, running ? 0 : 1);
    }

    void close() override
    {
        if (device_) {
            SDL_CloseAudioDevice(device_);
            device_ = 0;
        }
        if (initialised_) {
            SDL_QuitSubSystem(SDL_INIT_AUDIO);
            initialised_ = false;
        }
    }

    // SDL holds about one buffer between the callback and the speaker.
    int latencyFrames() const override { return buffer_; }
    int bufferFrames() const override { return buffer_; }
    std::string reason() const override { return reason_; }

private:
    static void SDLCALL callback(void* user, Uint8* stream, int len)
    {
        // Nothing may unwind into SDL: whatever the pull throws becomes silence.
        auto* self = static_cast<SdlAudioOutput*>(user);
        try {
            int frames = len / static_cast<int>(sizeof(float) * static_cast<unsigned>(self->channels_));
            self->pull_(reinterpret_cast<float*>(stream), frames);
        } catch (...) {
            std::memset(stream, 0, static_cast<std::size_t>(len));
        }
    }

    SDL_AudioDeviceID device_ = 0;
    bool initialised_ = false;
    Pull pull_;
    int buffer_ = 0, channels_ = 0;
    std::string reason_;
};

} // namespace

std::unique_ptr<AudioOutput> makeSdlAudioOutput() { return std::make_unique<SdlAudioOutput>(); }

bool ManualAudioOutput::open(int, int channels, int bufferFrames, Pull pull)
{
    std::lock_guard<std::mutex> g(lock_);
    pull_ = std::move(pull);
    channels_ = channels;
    buffer_ = bufferFrames;
    return true;
}

void ManualAudioOutput::setRunning(bool running)
{
    std::lock_guard<std::mutex> g(lock_);
    running_ = running;
}

void ManualAudioOutput::close()
{
    std::lock_guard<std::mutex> g(lock_);
    pull_ = nullptr;
    running_ = false;
}

bool ManualAudioOutput::pullBuffer(std::vector<float>& out)
{
    Pull pull;
    {
        std::lock_guard<std::mutex> g(lock_);
        out.assign(static_cast<std::size_t>(buffer_) * static_cast<std::size_t>(channels_), 0.0f);
        if (!running_ || !pull_) return false;
        pull = pull_;
    }
    pull(out.data(), buffer_);
    return true;
}

} // namespace media
