#include "AudioOutput.h"

#include <SDL.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

namespace media {

void CadenceMeter::record(std::int64_t nanos, int frames) noexcept
{
    int n = count_.load(std::memory_order_relaxed);
    if (n >= kCallbacks) return;
    std::int64_t before = n > 0 ? frames_[n - 1].load(std::memory_order_relaxed) : 0;
    times_[n].store(nanos, std::memory_order_relaxed);
    frames_[n].store(before + frames, std::memory_order_relaxed);
    count_.store(n + 1, std::memory_order_release);
}

int CadenceMeter::estimate(int sampleRate, int floor) const
{
    int n = count_.load(std::memory_order_acquire);
    if (n < 24) return floor;
    if (n == kCallbacks) {
        int known = cached_.load(std::memory_order_relaxed);
        if (known >= 0) return known;
    }
    // Lead after each callback, the first quarter left out (start-up).
    std::vector<double> leads;
    std::int64_t t0 = times_[0].load(std::memory_order_relaxed);
    for (int i = n / 4; i < n; ++i) {
        double elapsed = static_cast<double>(times_[i].load(std::memory_order_relaxed) - t0) / 1e9;
        leads.push_back(static_cast<double>(frames_[i].load(std::memory_order_relaxed)) - elapsed * sampleRate);
    }
    std::nth_element(leads.begin(), leads.begin() + static_cast<std::ptrdiff_t>(leads.size() / 2), leads.end());
    double median = leads[leads.size() / 2];
    int estimate = static_cast<int>(std::clamp(median, static_cast<double>(floor), static_cast<double>(floor + sampleRate / 2)));
    if (n == kCallbacks) cached_.store(estimate, std::memory_order_relaxed);
    return estimate;
}

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
        rate_ = have.freq;
        channels_ = channels;
        reason_.clear();
        return true;
    }

    void setRunning(bool running) override
    {
        if (!device_) return;
        if (running) cadence_.reset(); // the callback is not running now
        SDL_PauseAudioDevice(device_, running ? 0 : 1);
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

    // SDL holds at least one buffer between the callback and the speaker;
    // a sound server may hold more, which the callbacks' cadence shows.
    // (SDL 2 has no call that asks the server.)
    int latencyFrames() const override { return cadence_.estimate(rate_ > 0 ? rate_ : 48000, buffer_); }
    int bufferFrames() const override { return buffer_; }
    std::string reason() const override { return reason_; }

private:
    static void SDLCALL callback(void* user, Uint8* stream, int len)
    {
        // Nothing may unwind into SDL: whatever the pull throws becomes silence.
        auto* self = static_cast<SdlAudioOutput*>(user);
        try {
            int frames = len / static_cast<int>(sizeof(float) * static_cast<unsigned>(self->channels_));
            self->cadence_.record(
                std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count(), frames);
            self->pull_(reinterpret_cast<float*>(stream), frames);
        } catch (...) {
            std::memset(stream, 0, static_cast<std::size_t>(len));
        }
    }

    SDL_AudioDeviceID device_ = 0;
    bool initialised_ = false;
    Pull pull_;
    int buffer_ = 0, channels_ = 0, rate_ = 0;
    std::string reason_;
    CadenceMeter cadence_;
};

} // namespace

std::unique_ptr<AudioOutput> makeSdlAudioOutput() { return std::make_unique<SdlAudioOutput>(); }

PacedAudioOutput::PacedAudioOutput(double speed, Around around) : speed_(speed > 0 ? speed : 1.0), around_(std::move(around)) {}

PacedAudioOutput::~PacedAudioOutput() { close(); }

bool PacedAudioOutput::open(int sampleRate, int channels, int bufferFrames, Pull pull)
{
    close();
    quit_ = false;
    pull_ = std::move(pull);
    rate_ = sampleRate;
    buffer_ = bufferFrames;
    samples_.assign(static_cast<std::size_t>(channels) * static_cast<std::size_t>(bufferFrames), 0.0f);
    thread_ = std::thread([this] { run(); });
    return true;
}

void PacedAudioOutput::close()
{
    quit_ = true;
    if (thread_.joinable()) thread_.join();
}

void PacedAudioOutput::run()
{
    using Clock = std::chrono::steady_clock;
    auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(periodSeconds() / speed_));
    auto next = Clock::now();
    while (!quit_) {
        next += period;
        std::this_thread::sleep_until(next);
        if (!running_) continue;
        if (around_) around_(samples_.data(), buffer_, pull_);
        else pull_(samples_.data(), buffer_);
        ++pulls_;
    }
}

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
