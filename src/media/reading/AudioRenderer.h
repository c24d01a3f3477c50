// Rendering a sound track's edit list to PCM: planar float at the media's
// sample rate and channel layout.
#pragma once

#include "FFmpeg.h"
#include "MovieFile.h"
#include "movie/EditList.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace media {

// Planar float samples: one vector per channel.
struct PcmBuffer {
    std::vector<std::vector<float>> channels;
    PcmBuffer() = default;
    PcmBuffer(int channelCount, std::size_t frames) : channels(static_cast<std::size_t>(channelCount), std::vector<float>(frames)) {}
    std::size_t frames() const { return channels.empty() ? 0 : channels.front().size(); }
    void resize(std::size_t frames)
    {
        for (auto& c : channels) c.resize(frames);
    }
};

// Sample-accurate reads of one sound stream: decodes with seeking and keeps
// a window of recent decoded samples, so sequential and nearby reads are
// cheap. Not thread-safe: one decoder per thread.
class AudioDecoder {
public:
    explicit AudioDecoder(std::shared_ptr<const FileMedia> media);
    ~AudioDecoder();

    int channels() const { return channels_; }
    int sampleRate() const { return sampleRate_; }
    // The channel layout of the samples read: the stream's own. Frames
    // decoded in another layout, format or rate (broadcast streams switch
    // between 5.1 and stereo) are converted to it.
    AVChannelLayout const& layout() const { return layout_; }
    // Copies `count` samples starting at media sample `first` into
    // out[c][offset ...]; positions outside the media read as silence.
    void read(std::int64_t first, int count, float* const* out, std::size_t offset = 0);
    // How many samples before the last read stay decoded (1 s unless set).
    void setKeepBehind(std::int64_t samples) { keepBehind_ = samples; }
    // Damaged packets and frames met and skipped so far. Safe from any thread.
    std::uint64_t errors() const { return errors_.load(std::memory_order_relaxed); }

private:
    void learnGrid();
    void seekTo(std::int64_t sample);
    bool decodeMore(); // appends the next frame to the window; false at the end
    void append(AVFrame const* frame, std::int64_t position);
    void trimFront(std::int64_t keepFrom);
    std::int64_t windowEnd() const { return windowStart_ + static_cast<std::int64_t>(window_[0].size()); }

    std::shared_ptr<const FileMedia> media_;
    SourceFile::Input input_;
    CodecContext codec_;
    int stream_ = -1; // the stream's index in input_
    Swr convert_; // to planar float in layout_ when the decoder gives another format
    // What convert_ was set up for.
    AVChannelLayout convertFrom_{};
    int convertFormat_ = -1, convertRate_ = 0;
    AVChannelLayout layout_{};
    Packet packet_;
    Frame frame_;
    int channels_ = 0;
    int sampleRate_ = 0;
    bool eof_ = false;
    bool haveStart_ = false; // the window's start position is known
    std::int64_t windowStart_ = 0;
    int framesInWindow_ = 0; // frames appended since the window started
    int lastFrameSamples_ = 0;  // samples of the frame appended last
    std::vector<std::vector<float>> window_; // decoded samples from windowStart_
    // A jump in the stream's time stamps longer than kLongGap is not held as
    // samples: the frame after it waits in held_ until a read reaches
    // heldAt_, and [silentFrom_, silentTo_) is known to be silence.
    Frame held_;
    bool haveHeld_ = false;
    std::int64_t heldAt_ = 0;
    std::int64_t silentFrom_ = 0, silentTo_ = 0;
    // Streams whose time stamps are coarser than a sample (Matroska's whole
    // milliseconds) with frames of one size: after a seek the first frame is
    // placed on the grid of frame starts that reading from the beginning
    // gives, not on its rounded time stamp.
    std::int64_t keepBehind_ = 0; // 0: one second
    bool coarse_ = false;
    int gridFrame_ = 0;           // samples per frame; 0: no grid
    std::int64_t gridOrigin_ = 0; // a frame start of the grid
    std::int64_t coarseError_ = 0; // the most a time stamp may be off, in samples
    std::atomic<std::uint64_t> errors_{0};
};

// Renders edit lists of sound tracks that play one medium. Scaled segments
// are resampled with the soxr engine (pitch follows speed); segment
// boundaries are exact to the sample. Random access costs one seek; reading
// on from where the last render ended costs nothing extra.
class AudioRenderer {
public:
    explicit AudioRenderer(std::shared_ptr<const FileMedia> media);
    ~AudioRenderer();

    int channels() const;
    int sampleRate() const;
    AVChannelLayout const& layout() const { return decoder_.layout(); }
    // Renders `count` samples of `list` from timeline tick `start` (ticks are
    // samples: a sound track's scale is its sample rate) into out[c][offset..].
    void render(dm::EditList const& list, std::int64_t start, int count, float* const* out, std::size_t offset = 0);
    void render(dm::EditList const& list, std::int64_t start, PcmBuffer& out);
    std::uint64_t decodeErrors() const { return decoder_.errors(); }
    // Decoded sound kept behind the read position: a loop up to this long
    // wraps without decoding again.
    void setKeepBehind(std::int64_t samples) { decoder_.setKeepBehind(samples); }

private:
    struct Scaled;
    void renderScaled(dm::Segment const& seg, std::int64_t segStart, std::int64_t from, int count, float* const* out,
                      std::size_t offset);

    std::shared_ptr<const FileMedia> media_;
    AudioDecoder decoder_;
    std::unique_ptr<Scaled> scaled_;
    // Resamplers kept per (input rate, output rate), set up again rather
    // than made anew when a loop wraps back into a scaled segment.
    struct CachedSwr {
        std::int64_t inRate, outRate;
        Swr swr;
    };
    std::vector<CachedSwr> resamplers_;
    std::vector<std::vector<float>> feed_; // input for the resampler, reused
    std::vector<float*> feedPtr_, outPtr_;
};

} // namespace media
