// The edited sound track of a movie, rendered and encoded into an output file.
#pragma once

#include "AudioRenderer.h"
#include "Codec.h"
#include "Containers.h"
#include "movie/Movie.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>
#include <string>

namespace media {

// How one sound track is to be encoded in one container.
struct SoundFormat {
    std::string encoder;          // FFmpeg encoder name
    AVSampleFormat sampleFormat = AV_SAMPLE_FMT_NONE;
    int bitsPerRawSample = 0;     // lossless: the source's bit depth
    int sampleRate = 0;
    std::int64_t bitRate = 0;     // lossy only
    std::string note;             // for the user, when the codec is not the one asked for
};

// Chooses the encoding of a sound of `source` in `container`: with `lossless`
// the decoded samples must come out identical (a backup that cannot be
// copied); otherwise by `policy`. Lossless sources stay lossless at their
// bit depth; lossy ones keep their codec where there is an encoder and the
// container takes it, at no less than their bit rate and never below a
// transparent floor. Each choice is checked by opening the encoder and
// writing a trial header. Throws MediaError when nothing fits.
SoundFormat chooseSoundFormat(Container container, AVCodecParameters const* source, AVChannelLayout const& layout,
                              SoundCodec policy, bool lossless);
// Sets an encoder's context to `f`: rate, layout, sample format, depth, bit rate.
void configureEncoder(AVCodecContext* c, SoundFormat const& f, AVChannelLayout const& layout);

class ChunkedEncoding;

// A sound track rendered through its edit list and encoded.
//
// A render thread decodes and re-times the sound a few chunks ahead. Codecs
// whose packets decode on their own (AAC, AC-3, E-AC-3; ALAC and PCM) are
// then encoded in chunks of whole encoder frames on a pool of threads, each
// chunk by its own encoder that first sees frames before the chunk
// (pre-roll: the decoder's overlap at the splice is rebuilt from the same
// signal, and the encoder's rate control has settled) and a few after it,
// whose packets are dropped; the chunks' packets are written in order, with the
// time stamps and priming of one encoder over the whole sound. Other codecs
// (FLAC numbers its frames and sums the whole stream in its header; MP3's
// bit reservoir, Vorbis and Opus carry state from packet to packet) are
// encoded by one encoder on the writer's thread.
class SoundEncoder {
public:
    // `padToSeconds` extends the sound with silence to at least that length;
    // `delay` (samples) is the time stamp of the timeline's start in the file.
    SoundEncoder(AVFormatContext* out, dm::Track const& track, SoundFormat const& format, double padToSeconds = 0,
                 std::int64_t delay = 0, EncoderThreads threads = {});
    ~SoundEncoder();

    AVStream* stream() const { return encoder_->stream(); }
    // Timeline seconds written into the file.
    double secondsDone() const;
    // Whether the sound is encoded in chunks on a pool of threads.
    bool chunked() const { return chunks_ != nullptr; }
    double fractionDone() const { return total_ > 0 ? std::max(0.0, static_cast<double>(pos_) / static_cast<double>(total_)) : 1.0; }
    bool done() const { return finished_; }
    // Packets handed to the muxer so far.
    std::int64_t packets() const { return encoder_->packetsWritten(); }

    // Renders and encodes until `seconds` of the timeline are written.
    void encodeUntil(double seconds);
    // Renders and encodes at most `seconds` more; false when there was nothing left.
    bool step();

private:
    void convertAndQueue(std::uint8_t const** in, int n);
    // Frames the converted samples and hands them to the encoder (or the chunks).
    void sendFrames(bool last);
    // The render thread: decodes and re-times the sound from `start` (the
    // renderer is its own from construction on) a few chunks ahead of the
    // encoding, which runs on the caller's thread, so the two use two cores.
    void renderAhead(std::int64_t start);

    std::shared_ptr<const dm::EditList> list_;
    AudioRenderer renderer_;
    std::thread renderThread_;
    std::mutex queueLock_;
    std::condition_variable queueChanged_;
    std::deque<PcmBuffer> ready_;    // rendered, in timeline order (guarded)
    std::vector<PcmBuffer> spare_;   // buffers to render into again (guarded)
    bool stopRendering_ = false;     // guarded
    std::exception_ptr renderError_; // guarded
    std::unique_ptr<Encoder> encoder_;
    std::unique_ptr<ChunkedEncoding> chunks_;
    std::vector<std::uint8_t const*> planes_; // the planes of the chunk being converted
    std::int64_t writtenSamples_ = 0;         // chunked: encoder samples written into the file
    bool inputDone_ = false;                  // chunked: every frame handed to the chunks
    Swr convert_;
    AudioFifo fifo_;
    int frameSize_ = 1024;
    std::int64_t pos_ = 0;
    std::int64_t total_ = 0;
    std::int64_t encodedSamples_ = 0;
    std::int64_t pos0_ = 0;     // where rendering starts on the timeline (samples; negative: early)
    std::int64_t ptsShift_ = 0; // time stamp of timeline 0 (samples)
    bool finished_ = false;
};

} // namespace media
