// The containers a movie is written in, and what each can hold.
#pragma once

#include "FFmpeg.h"

#include <string>
#include <string_view>

namespace media {

// A container Dubmatch writes, with what the rest of the program needs to
// know of it. A value: compare containers with ==, never by name. The
// default value is no container (a file read but not written back).
class Container {
public:
    // Aiff and Dv are written only by exports; the others take a save.
    enum class Kind { None, QuickTime, Mpeg4, Gpp, Gpp2, Matroska, WebM, Aiff, Dv };

    constexpr Container() = default;
    constexpr Container(Kind kind) : kind_(kind) {}
    // By FFmpeg's muxer name ("mov", "mp4", "3gp", "3g2", "matroska",
    // "webm", "aiff", "dv"); no container for any other name.
    static Container named(std::string_view muxer);
    // By a file name's extension (".mov"/".qt", ".mp4"/".m4v", ".3gp",
    // ".3g2", ".mkv", ".webm", in any case); no container for any other.
    static Container forPath(std::string const& path);
    // The container a movie read from a file that cannot be written back (an
    // MPEG transport stream, AVI, DV...) is saved in: QuickTime for DV, whose
    // players expect it, Matroska for the rest, since it holds any codec.
    static Container forImport(std::string const& formatName);

    Kind kind() const { return kind_; }
    explicit operator bool() const { return kind_ != Kind::None; }
    bool operator==(Container const&) const = default;

    // FFmpeg's muxer; empty for no container.
    char const* muxer() const;
    // A name for users: "QuickTime", "MPEG-4", "3GPP", "3GPP2", "Matroska", "WebM".
    char const* title() const;
    // The extension of its files, without the point: "mov", "mp4", "3gp", "3g2", "mkv", "webm".
    char const* extension() const;
    // QuickTime and the formats built on its boxes (MPEG-4, 3GPP, 3GPP2):
    // sample tables, edit lists, the same muxer in another mode.
    bool isQuickTimeFamily() const;
    // Matroska and WebM: no negative times, blocks with their own times.
    bool isMatroskaFamily() const;
    // Whether a movie is saved in it (in place or as a copy): the two
    // families, which keep every kind of track, their names and flags.
    bool takesSaves() const { return isQuickTimeFamily() || isMatroskaFamily(); }

private:
    Kind kind_ = Kind::None;
};

// Whether `container` can hold a stream with these parameters, metadata and
// disposition: decided by writing a header and trailer with it into memory,
// since the muxers' own codec queries are not reliable (QuickTime answers
// yes for FLAC and Opus and then refuses them).
bool containerTakes(Container container, AVCodecParameters const* par, AVDictionary const* metadata = nullptr,
                    int disposition = 0);

// The containers among mov, mp4, matroska and webm that take such a stream,
// as titles joined with ", " (for messages); empty when none does.
std::string containersTaking(AVCodecParameters const* par, AVDictionary const* metadata = nullptr, int disposition = 0);

// How the re-timed sound track is encoded.
enum class SoundCodec {
    Same, // the source's codec (lossless sources stay lossless), as close as the container allows
    Pcm,  // uncompressed, the source's bit depth
    Flac,
    Alac,
    Aac,
};
// "same", "pcm", "flac", "alac", "aac".
char const* soundCodecName(SoundCodec codec);
// Throws MediaError for an unknown name.
SoundCodec soundCodecNamed(std::string const& name);

bool isLosslessAudio(AVCodecID id);

// How a sound encoder spreads its work over the cores (see SoundEncoder).
struct EncoderThreads {
    // Encoders at work at once, each on its own chunk of the sound: 0 one
    // per core, 1 a single encoder on the writer's thread (sequential).
    int workers = 0;
    // Encoder frames in a chunk; 0: the codec's default (AAC: 1040, 22 s at 48 kHz).
    int chunkFrames = 0;
};

} // namespace media
