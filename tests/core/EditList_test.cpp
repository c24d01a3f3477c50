#include "movie/Movie.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>

using namespace dm;

namespace {

QTTime at(long long v, int scale) { return QTTime{v, scale, 0}; }
QTTimeRange span(long long a, long long d, int scale) { return QTTimeRange{at(a, scale), at(d, scale)}; }

std::shared_ptr<Media> sound(long long samples, int rate = 48000)
{
    return std::make_shared<Media>(MediaType::Sound, rate, samples);
}

TEST(EditList, NormalisesAndLooksUp)
{
    EditList l({Segment::empty(10), Segment::empty(5), Segment::media(100, 0, 100), Segment::media(50, 100, 50),
                Segment::media(0, 7, 7), Segment::empty(20)});
    // Empties merged, contiguous media merged, zero-length and trailing empty dropped.
    ASSERT_EQ(l.segments().size(), 2u);
    EXPECT_EQ(l.segments()[0], Segment::empty(15));
    EXPECT_EQ(l.segments()[1], Segment::media(150, 0, 150));
    EXPECT_EQ(l.duration(), 165);
    EXPECT_EQ(l.materialStart(), 15);

    EXPECT_FALSE(l.lookup(-1));
    EXPECT_FALSE(l.lookup(165));
    auto p = l.lookup(14);
    ASSERT_TRUE(p);
    EXPECT_TRUE(p->segment.isEmpty());
    p = l.lookup(115);
    ASSERT_TRUE(p);
    EXPECT_EQ(p->segmentStart, 15);
    EXPECT_DOUBLE_EQ(p->mediaTime, 100.0);

    // A media piece at another speed is not merged with its neighbour.
    EditList speeds({Segment::media(100, 0, 100), Segment::media(200, 100, 100)});
    ASSERT_EQ(speeds.segments().size(), 2u);
    EXPECT_DOUBLE_EQ(speeds.lookup(150)->mediaTime, 125.0);
    EXPECT_TRUE(EditList({Segment::empty(10)}).segments().empty());
}

TEST(EditList, TrackOperations)
{
    Movie movie;
    auto media = sound(48000 * 10);
    TrackPtr t = movie.addTrack(MediaType::Sound, media, 48000);
    EXPECT_EQ(t->range().duration.timeValue, 480000);
    EXPECT_EQ(t->range().duration.timeScale, 48000);

    // Delete the first half second: position p plays media p + 24000.
    t->deleteSegment(span(0, 24000, 48000));
    EXPECT_EQ(t->range().duration.timeValue, 456000);
    EXPECT_DOUBLE_EQ(t->editList()->lookup(0)->mediaTime, 24000.0);

    // A range given at the movie scale converts to samples.
    t->insertEmptySegmentAt(QTTimeRange{at(0, 600), at(300, 600)});
    EXPECT_EQ(t->range().time.timeValue, 24000);
    EXPECT_TRUE(t->editList()->lookup(23999)->segment.isEmpty());
    EXPECT_DOUBLE_EQ(t->editList()->lookup(24000)->mediaTime, 24000.0);

    // Scale the material to twice its length: half speed.
    QTTimeRange r = t->range();
    t->scaleSegment(r, at(r.duration.timeValue * 2, 48000));
    EXPECT_EQ(t->range().duration.timeValue, 912000);
    EXPECT_DOUBLE_EQ(t->editList()->lookup(24000 + 1000)->mediaTime, 24500.0);

    // Copying from another track of the same media at a time past the end pads.
    TrackPtr u = AddEmptyTrackToMovie(*t, movie);
    ASSERT_TRUE(u);
    EXPECT_EQ(u->media(), media);
    EXPECT_EQ(u->timeScale(), 48000);
    EXPECT_TRUE(u->editList()->segments().empty());
    u->insertSegmentOfTrack(*t, span(24000, 48000, 48000), at(96000, 48000));
    EXPECT_EQ(u->range().time.timeValue, 96000);
    EXPECT_EQ(u->range().duration.timeValue, 48000);
    EXPECT_DOUBLE_EQ(u->editList()->lookup(96000)->mediaTime, 24000.0);

    // Deleting past the end deletes only what is there; empties the track.
    u->deleteSegment(span(0, 10'000'000, 48000));
    EXPECT_TRUE(u->editList()->segments().empty());
    EXPECT_EQ(u->range().duration.timeValue, 0);

    // Other media cannot be inserted.
    Track other(99, MediaType::Sound, sound(100), 48000);
    EXPECT_THROW(t->insertSegmentOfTrack(other, span(0, 10, 48000), at(0, 1)), std::invalid_argument);
    EXPECT_THROW(t->deleteSegment(span(-5, 10, 48000)), std::invalid_argument);
}

TEST(EditList, MovieTracksAndEditStates)
{
    Movie movie;
    EXPECT_EQ(movie.timeScale(), 600);
    auto video = std::make_shared<Media>(MediaType::Video, 90000, 90000 * 20);
    TrackPtr v = movie.addTrack(MediaType::Video, video, 90000);
    TrackPtr s = movie.addTrack(MediaType::Sound, sound(48000 * 15), 48000);
    EXPECT_EQ(movie.tracksOfMediaType(MediaType::Sound).size(), 1u);
    EXPECT_EQ(movie.tracksOfMediaType(MediaType::MPEG).size(), 0u);
    EXPECT_TRUE(movie.duration() == myQTTime(20, 600));

    MovieEditState state = NewMovieEditState(movie);
    auto before = s->editList();
    std::uint64_t changes = s->changeCount();
    s->deleteSegment(span(0, 48000, 48000));
    EXPECT_GT(s->changeCount(), changes);
    TrackPtr added = AddEmptyTrackToMovie(*s, movie);
    added->insertSegmentOfTrack(*s, s->range(), QTZeroTime);
    UseMovieEditState(movie, state);
    EXPECT_EQ(*s->editList(), *before);
    EXPECT_FALSE(added->editList()->segments().empty()); // added later: untouched
    DisposeMovieTrack(movie, added);
    EXPECT_EQ(movie.tracks().size(), 2u);
    DisposeMovieEditState(state);
    EXPECT_FALSE(state);

    movie.setTrackLimit(2);
    EXPECT_FALSE(AddEmptyTrackToMovie(*s, movie));
}

// Hundreds of edits at mixed scales never drift: every boundary is rounded
// once, so restoring by copy gives the exact original, and repeated
// scale-and-unscale of whole samples keeps its length to the sample.
TEST(EditList, NoDriftOverManyEdits)
{
    Movie movie;
    auto media = sound(48000LL * 3600);
    TrackPtr s = movie.addTrack(MediaType::Sound, media, 48000);
    TrackPtr backup = AddEmptyTrackToMovie(*s, movie);
    backup->insertSegmentOfTrack(*s, s->range(), QTZeroTime);
    auto original = s->editList();

    std::mt19937 rng(5);
    for (int i = 0; i < 500; ++i) {
        double slope = 1.0 + std::uniform_real_distribution<double>(-0.05, 0.05)(rng);
        double cut = std::uniform_real_distribution<double>(0.0, 10.0)(rng);
        s->deleteSegment(QTTimeRange{at(0, 48000), myQTTime(cut, 48000)});
        QTTimeRange r = s->range();
        myQTTime nd = r.duration;
        nd /= slope;
        s->scaleSegment(r, nd);
        s->insertEmptySegmentAt(QTTimeRange{at(0, 600), myQTTime(cut / 3, 600)});
        EXPECT_EQ(s->editList()->segments().size(), 2u);
        // Restore.
        s->deleteSegment(QTTimeRange{at(0, 48000), at(s->editList()->duration(), 48000)});
        s->insertSegmentOfTrack(*backup, backup->range(), QTZeroTime);
        ASSERT_EQ(*s->editList(), *original) << "edit " << i;
    }
    // Scaling a segment by k and back by 1/k in whole samples is exact.
    for (int i = 0; i < 300; ++i) {
        QTTimeRange r = s->range();
        s->scaleSegment(r, at(r.duration.timeValue * 3, 48000));
        r = s->range();
        s->scaleSegment(r, at(r.duration.timeValue / 3, 48000));
    }
    EXPECT_EQ(*s->editList(), *original);
}

// A reader thread snapshots the edit list while the model edits it.
TEST(EditList, SnapshotsAreSafeToReadWhileEditing)
{
    Movie movie;
    TrackPtr s = movie.addTrack(MediaType::Sound, sound(48000 * 60), 48000);
    std::atomic<bool> done{false};
    std::thread reader([&] {
        long reads = 0;
        do {
            auto list = s->editList();
            std::int64_t total = 0;
            for (auto const& seg : list->segments()) total += seg.duration;
            if (total != list->duration()) std::abort();
            ++reads;
        } while (!done.load());
        EXPECT_GT(reads, 0);
    });
    for (int i = 0; i < 2000; ++i) {
        s->insertEmptySegmentAt(span(0, 100 + i, 48000));
        s->deleteSegment(span(0, 100 + i, 48000));
    }
    done = true;
    reader.join();
    EXPECT_EQ(s->range().duration.timeValue, 48000 * 60);
}

} // namespace
