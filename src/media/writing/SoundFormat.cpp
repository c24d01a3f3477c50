// The choice of the re-timed sound's encoding: codec, sample format and
// rate, bit rate, and what the user is told when it differs from the source.
#include "SoundEncoder.h"

#include "MovieFile.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <functional>
#include <numeric>
#include <vector>

namespace media {

namespace {

// The bit depth of a source's samples (16, 24 or 32).
int sourceBits(AVCodecParameters const* par)
{
    int bits = par->bits_per_raw_sample;
    if (bits <= 0 && par->codec_id >= AV_CODEC_ID_FIRST_AUDIO && par->codec_id < AV_CODEC_ID_ADPCM_IMA_QT)
        bits = av_get_bits_per_sample(par->codec_id);
    if (bits <= 0) {
        auto fmt = static_cast<AVSampleFormat>(par->format);
        bits = fmt == AV_SAMPLE_FMT_S32 || fmt == AV_SAMPLE_FMT_S32P ? 24 : 16;
    }
    return bits <= 16 ? 16 : bits <= 24 ? 24 : 32;
}

bool isFloatPcm(AVCodecID id)
{
    return id == AV_CODEC_ID_PCM_F32LE || id == AV_CODEC_ID_PCM_F32BE || id == AV_CODEC_ID_PCM_F64LE || id == AV_CODEC_ID_PCM_F64BE;
}

std::string pcmEncoder(AVCodecParameters const* source)
{
    if (isFloatPcm(source->codec_id)) return "pcm_f32le";
    int bits = sourceBits(source);
    return bits == 16 ? "pcm_s16le" : bits == 24 ? "pcm_s24le" : "pcm_s32le";
}

// The encoder of the source's own codec, if FFmpeg has one worth using.
std::string sameEncoder(AVCodecParameters const* source)
{
    switch (source->codec_id) {
    case AV_CODEC_ID_AAC: return "aac";
    case AV_CODEC_ID_AC3: return "ac3";
    case AV_CODEC_ID_EAC3: return "eac3";
    case AV_CODEC_ID_MP3: return "libmp3lame";
    case AV_CODEC_ID_MP2: return "mp2";
    case AV_CODEC_ID_OPUS: return "libopus";
    case AV_CODEC_ID_VORBIS: return "libvorbis";
    case AV_CODEC_ID_FLAC: return "flac";
    case AV_CODEC_ID_ALAC: return "alac";
    default: break;
    }
    if (source->codec_id >= AV_CODEC_ID_FIRST_AUDIO && source->codec_id < AV_CODEC_ID_ADPCM_IMA_QT) {
        AVCodec const* c = avcodec_find_encoder(source->codec_id);
        return c ? c->name : pcmEncoder(source);
    }
    return "";
}

// The lowest bit rate per channel that keeps a lossy codec transparent for
// speech and music, and the valid rates of codecs that accept only a table.
std::int64_t floorPerChannel(std::string const& encoder)
{
    if (encoder == "aac" || encoder == "mp2" || encoder == "libmp3lame") return 96000;
    if (encoder == "libvorbis") return 80000;
    return 64000; // ac3, eac3, libopus
}

std::int64_t validBitRate(std::string const& encoder, std::int64_t wanted, int channels)
{
    static const std::vector<std::int64_t> ac3 = {32000,  40000,  48000,  56000,  64000,  80000,  96000,
                                                  112000, 128000, 160000, 192000, 224000, 256000, 320000,
                                                  384000, 448000, 512000, 576000, 640000};
    static const std::vector<std::int64_t> mp3 = {32000, 40000, 48000, 56000, 64000, 80000, 96000, 112000, 128000, 160000, 192000, 224000, 256000, 320000};
    static const std::vector<std::int64_t> mp2 = {32000, 48000, 56000, 64000, 80000, 96000, 112000, 128000, 160000, 192000, 224000, 256000, 320000, 384000};
    auto pick = [&](std::vector<std::int64_t> const& table) {
        for (auto r : table)
            if (r >= wanted) return r;
        return table.back();
    };
    if (encoder == "ac3" || encoder == "eac3") return pick(ac3);
    if (encoder == "libmp3lame") return pick(mp3);
    if (encoder == "mp2") return pick(mp2);
    if (encoder == "libopus") return std::min<std::int64_t>(wanted, 256000LL * channels);
    return wanted;
}

AVSampleFormat pickSampleFormat(AVCodec const* codec, bool wide, bool lossless)
{
    if (!codec->sample_fmts) return AV_SAMPLE_FMT_FLTP;
    auto has = [&](AVSampleFormat f) {
        for (auto const* p = codec->sample_fmts; *p != AV_SAMPLE_FMT_NONE; ++p)
            if (*p == f) return true;
        return false;
    };
    std::vector<AVSampleFormat> order;
    if (lossless && wide) order = {AV_SAMPLE_FMT_S32P, AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_FLT};
    else if (lossless) order = {AV_SAMPLE_FMT_S16P, AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_S32P, AV_SAMPLE_FMT_S32};
    else order = {AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_S16P, AV_SAMPLE_FMT_S16};
    for (auto f : order)
        if (has(f)) return f;
    return codec->sample_fmts[0];
}

int pickSampleRate(AVCodec const* codec, int wanted)
{
    if (!codec->supported_samplerates) return wanted;
    int above = 0, highest = 0;
    for (auto const* r = codec->supported_samplerates; *r; ++r) {
        if (*r == wanted) return wanted;
        if (*r > wanted && (above == 0 || *r < above)) above = *r;
        highest = std::max(highest, *r);
    }
    return above > 0 ? above : highest > 0 ? highest : wanted;
}

} // namespace

void configureEncoder(AVCodecContext* c, SoundFormat const& f, AVChannelLayout const& layout)
{
    c->sample_rate = f.sampleRate;
    av_channel_layout_copy(&c->ch_layout, &layout);
    c->sample_fmt = f.sampleFormat;
    if (f.bitsPerRawSample > 0) c->bits_per_raw_sample = f.bitsPerRawSample;
    if (f.bitRate > 0) c->bit_rate = f.bitRate;
    c->time_base = AVRational{1, f.sampleRate};
}

namespace {

std::string codecTitle(std::string const& encoder)
{
    AVCodec const* c = avcodec_find_encoder_by_name(encoder.c_str());
    return c ? avcodec_get_name(c->id) : encoder;
}

} // namespace

SoundFormat chooseSoundFormat(Container container, AVCodecParameters const* source, AVChannelLayout const& layout,
                              SoundCodec policy, bool lossless)
{
    bool sourceLossless = isLosslessAudio(source->codec_id);
    std::string same = sameEncoder(source);
    std::vector<std::string> candidates;
    auto losslessChain = [&](std::string first) {
        std::vector<std::string> chain;
        if (!first.empty()) chain.push_back(first);
        for (std::string c : {std::string("flac"), std::string("alac"), pcmEncoder(source)})
            if (c != first) chain.push_back(c);
        return chain;
    };
    if (lossless) candidates = losslessChain(sourceLossless ? same : "");
    else {
        switch (policy) {
        case SoundCodec::Pcm: candidates = losslessChain(pcmEncoder(source)); break;
        case SoundCodec::Flac: candidates = losslessChain("flac"); break;
        case SoundCodec::Alac: candidates = losslessChain("alac"); break;
        case SoundCodec::Aac: candidates = {"aac", "libopus"}; break;
        case SoundCodec::Same:
            if (sourceLossless) candidates = losslessChain(same);
            else {
                if (!same.empty()) candidates.push_back(same);
                for (char const* c : {"aac", "libopus", "libvorbis"})
                    if (same != c) candidates.push_back(c);
            }
            break;
        }
    }
    bool wantLossless = lossless || sourceLossless || policy == SoundCodec::Pcm || policy == SoundCodec::Flac
                     || policy == SoundCodec::Alac;
    if (policy == SoundCodec::Aac && !lossless) wantLossless = false;
    int bits = sourceBits(source);
    int channels = layout.nb_channels;

    std::string firstChoice = candidates.empty() ? "" : candidates.front();
    for (auto const& name : candidates) {
        AVCodec const* codec = avcodec_find_encoder_by_name(name.c_str());
        if (!codec || (codec->capabilities & AV_CODEC_CAP_EXPERIMENTAL)) continue;
        bool codecLossless = isLosslessAudio(codec->id);
        if (lossless && !codecLossless) continue;
        SoundFormat f;
        f.encoder = name;
        f.sampleFormat = pickSampleFormat(codec, bits > 16, codecLossless);
        if (codecLossless && (codec->id == AV_CODEC_ID_FLAC || codec->id == AV_CODEC_ID_ALAC)) f.bitsPerRawSample = bits > 16 ? std::min(bits, 24) : 16;
        f.sampleRate = pickSampleRate(codec, source->sample_rate);
        if (!codecLossless) {
            std::int64_t wanted = std::max<std::int64_t>(source->bit_rate, floorPerChannel(name) * channels);
            f.bitRate = validBitRate(name, wanted, channels);
        }
        // Open the encoder as it will be opened, and see that the container takes its output.
        CodecContext c(avcodec_alloc_context3(codec));
        if (!c) throw MediaError("Out of memory.");
        configureEncoder(c.get(), f, layout);
        AVOutputFormat const* ofmt = av_guess_format(container.muxer(), nullptr, nullptr);
        if (ofmt && (ofmt->flags & AVFMT_GLOBALHEADER)) c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        if (avcodec_open2(c.get(), codec, nullptr) < 0) continue;
        CodecParameters par(avcodec_parameters_alloc());
        if (!par) throw MediaError("Out of memory.");
        bool takes = avcodec_parameters_from_context(par.get(), c.get()) >= 0 && containerTakes(container, par.get());
        if (!takes) continue;
        std::string title = codecTitle(name);
        if (name != firstChoice || (policy == SoundCodec::Same && !lossless && name != same)) {
            f.note = "sound encoded as " + title + " (" + std::string(container.title()) + " takes no "
                   + (firstChoice.empty() ? std::string(avcodec_get_name(source->codec_id)) : codecTitle(firstChoice))
                   + (avcodec_find_encoder_by_name(firstChoice.c_str()) ? "" : " we can encode") + ")";
        }
        if (wantLossless && !codecLossless) f.note = "sound encoded lossy as " + title + ": " + std::string(container.title()) + " takes no lossless codec";
        if (f.sampleRate != source->sample_rate)
            f.note += std::string(f.note.empty() ? "" : "; ") + "sound resampled to " + std::to_string(f.sampleRate) + " Hz for " + title;
        return f;
    }
    throw MediaError(std::string("No sound encoder fits ") + std::string(container.title()) + " for a " + avcodec_get_name(source->codec_id)
                     + " sound of " + std::to_string(channels) + " channels.");
}

} // namespace media
