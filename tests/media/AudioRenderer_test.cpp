#include "AudioRenderer.h"
#include "MediaTestSupport.h"
#include "OffsetList.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace media;
using namespace testsupport;

namespace {

// Onsets of clicks (|x| > 0.4 after a quiet half second), in samples.
std::vector<std::int64_t> clicksIn(PcmBuffer const& pcm, std::int64_t first)
{
    std::vector<std::int64_t> out;
    std::int64_t last = -100000;
    auto const& c = pcm.channels[0];
    for (std::size_t i = 0; i < c.size(); ++i)
        if (std::fabs(c[i]) > 0.4f && static_cast<std::int64_t>(i) - last > 24000) {
            last = static_cast<std::int64_t>(i);
            out.push_back(first + last);
        }
    return out;
}

struct Loaded {
    OpenedMovie om;
    dm::TrackPtr sound;
    std::shared_ptr<const FileMedia> media;
};

Loaded load(std::string const& path)
{
    Loaded l{openMovie(path), nullptr, nullptr};
    for (auto const& t : l.om.movie->tracks())
        if (t->mediaType() == dm::MediaType::Sound && t->isEnabled()) l.sound = t;
    l.media = std::static_pointer_cast<const FileMedia>(l.sound->media());
    return l;
}

TEST(AudioRenderer, EditsAreSampleExact)
{
    auto spec = smallSpec(12, 0.0, 1.0);
    spec.audioCodec = "pcm_s16le";
    Loaded l = load(cachedMovie("pcm-in-sync.mov", spec));
    AudioRenderer r(l.media);
    EXPECT_EQ(r.sampleRate(), 48000);
    EXPECT_EQ(r.channels(), 2);
    auto marks = testMovieMarks(spec);

    // Unedited: every click where the generator put it.
    auto list = l.sound->editList();
    PcmBuffer all(2, static_cast<std::size_t>(list->duration()));
    r.render(*list, 0, all);
    auto clicks = clicksIn(all, 0);
    ASSERT_EQ(clicks.size(), marks.size());
    for (std::size_t i = 0; i < marks.size(); ++i) EXPECT_EQ(clicks[i], std::llround(marks[i].audioTime * 48000));

    // Cut 0.5 s, stretch by 1 %, 0.25 s of silence: each click lands where
    // the edits put it, to the sample.
    l.sound->deleteSegment(QTTimeRange{QTTime{0, 48000, 0}, QTTime{24000, 48000, 0}});
    QTTimeRange rest = l.sound->range();
    l.sound->scaleSegment(rest, QTTime{std::llround(rest.duration.timeValue * 1.01), 48000, 0});
    l.sound->insertEmptySegmentAt(QTTimeRange{QTTime{0, 48000, 0}, QTTime{12000, 48000, 0}});
    auto edited = l.sound->editList();
    PcmBuffer out(2, static_cast<std::size_t>(edited->duration()));
    AudioRenderer fresh(l.media);
    fresh.render(*edited, 0, out);
    for (std::size_t i = 0; i < 12000; ++i) ASSERT_EQ(out.channels[0][i], 0.0f) << "silence at " << i;
    auto moved = clicksIn(out, 0);
    ASSERT_EQ(moved.size(), marks.size());
    double ratio = static_cast<double>(edited->segments()[1].duration) / static_cast<double>(edited->segments()[1].mediaLength);
    for (std::size_t i = 0; i < marks.size(); ++i) {
        double expected = 12000 + (marks[i].audioTime * 48000 - 24000) * ratio;
        EXPECT_NEAR(static_cast<double>(moved[i]), expected, 1.0) << "click " << i;
    }
}

TEST(AudioRenderer, RandomAccessMatchesSequentialRendering)
{
    Loaded l = load(cachedMovie("aac-drift.mov", smallSpec(16, 0.3, 1.0 / 1.004)));
    OffsetList list(l.om.movie.get(), nullptr);
    list.replacePoints(markPoints(smallSpec(16, 0.3, 1.0 / 1.004)));
    auto edits = l.sound->editList();

    AudioRenderer seq(l.media);
    std::int64_t total = edits->duration();
    PcmBuffer whole(2, static_cast<std::size_t>(total));
    // Sequential, in playback-sized buffers.
    for (std::int64_t t = 0; t < total; t += 1024) {
        int n = static_cast<int>(std::min<std::int64_t>(1024, total - t));
        std::vector<float*> p{whole.channels[0].data(), whole.channels[1].data()};
        seq.render(*edits, t, n, p.data(), static_cast<std::size_t>(t));
    }
    // Jumps back and forth, as a looping player does. A jump into a scaled
    // segment starts its resampler within half a sample of the sequential
    // phase: away from the clicks the tone then differs by far less than
    // 1e-3, and the clicks themselves land on the same sample.
    AudioRenderer jumpy(l.media);
    for (std::int64_t start : {std::int64_t{144000}, std::int64_t{12345}, std::int64_t{600000}, std::int64_t{50000}, total - 1000}) {
        PcmBuffer part(2, 1000);
        jumpy.render(*edits, start, part);
        float worst = 0;
        for (std::size_t i = 0; i < 1000 && start + static_cast<std::int64_t>(i) < total; ++i)
            worst = std::max(worst, std::fabs(part.channels[0][i] - whole.channels[0][static_cast<std::size_t>(start) + i]));
        EXPECT_LT(worst, 1e-3f) << "at " << start;
    }
    for (auto const& m : testMovieMarks(smallSpec(16, 0.3, 1.0 / 1.004))) {
        std::int64_t at = std::llround(m.movieTime * 48000);
        PcmBuffer part(2, 2000);
        jumpy.render(*edits, at - 1000, part);
        auto found = clicksIn(part, at - 1000);
        ASSERT_EQ(found.size(), 1u);
        EXPECT_NEAR(static_cast<double>(found[0]), static_cast<double>(at), 1.0);
    }
    // Before the start and past the end: silence.
    PcmBuffer edge(2, 2000);
    jumpy.render(*edits, -1000, edge);
    for (std::size_t i = 0; i < 1000; ++i) ASSERT_EQ(edge.channels[1][i], 0.0f);
    jumpy.render(*edits, total, edge);
    for (float v : edge.channels[0]) ASSERT_EQ(v, 0.0f);
}

} // namespace
