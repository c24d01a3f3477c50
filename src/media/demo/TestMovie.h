// The demo and test movie: a test pattern with a white flash every few
// seconds and a click in the sound at each flash, the sound deliberately out
// of sync; and the detector that measures flashes against clicks.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace media {

struct TestMovieSpec {
    double seconds = 60;
    int width = 640, height = 360;
    int fpsNum = 25, fpsDen = 1;
    int sampleRate = 48000;
    int channels = 2;
    double flashInterval = 2.0;  // seconds between flashes
    std::vector<double> flashTimes; // movie seconds of the flashes instead (each on its nearest frame)
    // The click that belongs to a flash at movie time T lies at unedited
    // audio time audioOffset + audioRate x T.
    double audioOffset = 0.35;
    double audioRate = 1.0 / 1.004;
    std::string videoCodec = "libx264"; // or "mpeg4"
    std::string audioCodec = "aac";     // or "pcm_s16le"
    int audioBitRate = 128000;
    std::string format = "mov";
    // Extra sound tracks: a copy of the sound, enabled or not.
    int extraSoundTracks = 0;
    bool extraSoundEnabled = false;
    bool withSound = true;
    // Music under the clicks: a louder chord with vibrato and tremolo over
    // soft noise, which keeps a lossy codec busy in every frame (the sound
    // is otherwise a quiet 220 Hz tone).
    bool music = false;

    // What movies made by other tools carry, for tests of faithful saves.
    double startTime = 0;         // time stamp of the first picture and sample (recordings start late)
    std::string channelLayout;    // "3.0", "5.1"...; empty: the default layout of `channels`
    int bitsPerSample = 16;       // 24: 24-bit samples for lossless codecs (FLAC, PCM)
    double layoutChangeAt = 0;    // > 0: from this second the first sound track is stereo (a broadcast switch)
    double timestampJumpAt = 0;   // > 0: at this second of sound the sound's time stamps jump ...
    double timestampJump = 0;     // ... forward by this many seconds
    std::vector<std::string> languages; // per sound track
    std::vector<std::string> subtitleCodecs; // "subrip", "ass": a subtitle stream each, a line every 2 s
    std::vector<std::string> subtitleLanguages;
    int chapters = 0;             // chapters of equal length, titled "Chapter N"
    std::string title;            // the file's title tag
    bool attachment = false;      // a small text attachment (Matroska)
    int rotation = 0;             // degrees clockwise that players turn the picture (the display matrix)
    // Coded interlaced, top field first (a video camera's or a broadcast's
    // pictures: drawPicture draws both fields, each at its own moment).
    bool interlaced = false;
    int pixelAspectNum = 1, pixelAspectDen = 1; // the pixels' shape, width to height (a DVD's 16:9 PAL: 64:45)
    std::string timecode;         // "01:00:00:00": a timecode track (QuickTime, MPEG-4)
    std::string videoTag;         // a codec tag for the video ("hvc1")
    int videoBitRate = 1'500'000;

    // Pictures and sound of another kind (benchmarks): the grey levels of
    // picture `frame` (chroma stays neutral), and the value of sample `n` on
    // every channel. Flashes and clicks are then not drawn.
    std::function<void(std::int64_t frame, std::uint8_t* luma, int stride, int width, int height)> drawPicture;
    std::function<float(std::int64_t n)> soundSample;
    // The value of sample `n` on channel `channel` of the layout, for a
    // sound whose channels differ (a film's 5.1: the voice in the centre,
    // music around it). Overrides soundSample.
    std::function<float(std::int64_t n, int channel)> channelSample;
};

// The movie time of every flash of a movie made from `spec` (exact frame
// times) and the unedited audio time of its click.
struct SyncMark {
    double movieTime;
    double audioTime;
};
std::vector<SyncMark> testMovieMarks(TestMovieSpec const& spec);

// Draws a plain face into grey pixels: an oval head centred at (cx, cy),
// `size` pixels high, with eyes, brows, a nose and a mouth that is open by
// `mouthOpen` (0 closed ... 1 wide). The background is left as it is.
void drawFace(std::uint8_t* luma, int stride, int width, int height, double cx, double cy, double size, double mouthOpen);

// Writes the movie. Throws MediaError.
void writeTestMovie(std::string const& path, TestMovieSpec const& spec);

// Flashes (frames much brighter than their neighbours) and clicks (sudden
// loud onsets) as players see them: movie times in seconds, from the file's
// enabled video and sound streams.
struct SyncMeasurement {
    std::vector<double> flashes;
    std::vector<double> clicks;
    // For each flash, the click nearest to it minus the flash time.
    std::vector<double> errors;
    double worst() const;
};
SyncMeasurement measureSync(std::string const& path);

} // namespace media
