// The containers a movie is written in, and what each can hold.
#pragma once

#include "FFmpeg.h"

#include <string>

namespace media {

// The muxer for a file name's extension (".mov" -> "mov", ".mp4"/".m4v" ->
// "mp4", ".3gp" -> "3gp", ".3g2" -> "3g2", ".mkv" -> "matroska", ".webm" ->
// "webm"); empty for any other.
std::string containerForPath(std::string const& path);
// QuickTime and the formats built on its boxes (MPEG-4, 3GPP, 3GPP2): sample
// tables, edit lists, the same muxer in another mode.
bool isQuickTimeFamily(std::string const& container);
// Matroska and WebM.
bool isMatroskaFamily(std::string const& container);
// Whether Dubmatch writes movies in `container`.
bool isWritableContainer(std::string const& container);
// The file extension of a muxer's files, without the point ("mov", "mp4",
// "mkv", "webm").
std::string extensionOfContainer(std::string const& container);
// A name for users: "QuickTime", "MPEG-4", "3GPP", "3GPP2", "Matroska", "WebM".
std::string containerTitle(std::string const& container);
// The container a movie read from a file that cannot be written back (an
// MPEG transport stream, AVI, DV...) is saved in: QuickTime for DV, whose
// players expect it, Matroska for the rest, since it holds any codec.
std::string containerForImport(std::string const& formatName);

// Whether `container` can hold a stream with these parameters, metadata and
// disposition: decided by writing a header and trailer with it into memory,
// since the muxers' own codec queries are not reliable (QuickTime answers
// yes for FLAC and Opus and then refuses them).
bool containerTakes(std::string const& container, AVCodecParameters const* par, AVDictionary const* metadata = nullptr,
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
