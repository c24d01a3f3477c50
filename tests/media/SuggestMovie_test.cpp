#include "Codec.h"
#include "Evidence.h"
#include "FaceFinder.h"
#include "MouthLandmarks.h"
#include "MediaTestSupport.h"
#include "OffsetList.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <optional>
#include <string>
#include <cstring>
#include <random>

using namespace media;
using namespace testsupport;

namespace {

constexpr double kPi = 3.14159265358979323846;

// Flashes at irregular times (a regular beat would fit at several lags).
TestMovieSpec irregularFlashes(double seconds, double offset, double rate, unsigned seed)
{
    TestMovieSpec s = smallSpec(seconds, offset, rate);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> gap(0.7, 2.9);
    for (double t = 1 + gap(rng); t < seconds - 1; t += gap(rng)) s.flashTimes.push_back(t);
    return s;
}

// A talking face: syllables of a buzzing voice, and a mouth that opens with
// the voice's loudness. The sound lies `offset` later than the picture.
struct TalkingHead {
    std::vector<float> loudness; // per 10 ms of movie time
    TestMovieSpec spec;
};

TalkingHead talkingHead(double seconds, double offset, unsigned seed)
{
    TalkingHead th;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> syllable(0.12, 0.35), pause(0.05, 0.6), level(0.4, 1.0);
    th.loudness.assign(static_cast<std::size_t>(seconds * 100) + 1, 0.f);
    for (double t = 0.5; t < seconds - 0.5;) {
        double len = syllable(rng), l = level(rng);
        for (double u = 0; u < len; u += 0.01)
            th.loudness[static_cast<std::size_t>((t + u) * 100)] = static_cast<float>(l * std::sin(kPi * u / len));
        t += len + pause(rng);
    }
    TestMovieSpec& s = th.spec;
    s = smallSpec(seconds, offset, 1.0);
    s.audioCodec = "pcm_s16le";
    auto loud = th.loudness;
    s.soundSample = [loud, offset, rate = s.sampleRate](std::int64_t n) {
        double t = static_cast<double>(n) / rate - offset; // the movie time this sound belongs to
        double pos = t * 100;
        if (pos < 0 || pos >= static_cast<double>(loud.size()) - 1) return 0.f;
        auto i = static_cast<std::size_t>(pos);
        double env = loud[i] + (pos - static_cast<double>(i)) * (loud[i + 1] - loud[i]);
        double phase = 2 * kPi * 140 * static_cast<double>(n) / rate;
        double v = 0;
        for (int h = 1; h <= 6; ++h) v += std::sin(h * phase) / h;
        return static_cast<float>(0.25 * env * v);
    };
    s.drawPicture = [loud](std::int64_t k, std::uint8_t* luma, int stride, int w, int h) {
        for (int y = 0; y < h; ++y) std::memset(luma + static_cast<std::ptrdiff_t>(y) * stride, 70, static_cast<std::size_t>(w));
        auto i = std::min(loud.size() - 1, static_cast<std::size_t>(k * 4)); // 25 fps: 4 hops a frame
        drawFace(luma, stride, w, h, w / 2.0, h / 2.0, h * 0.7, loud[i]);
    };
    return th;
}

struct Opened {
    OpenedMovie om;
    std::unique_ptr<OffsetList> list;
    explicit Opened(std::string const& path) : om(openMovie(path)), list(std::make_unique<OffsetList>(om.movie.get(), nullptr)) {}
};

} // namespace

// Flashes against clicks: the suggested points lie on the movie's true line,
// with progress reported in order up to the end.
TEST(SuggestMovie, FlashesAndClicksGiveTheTrueLine)
{
    auto spec = irregularFlashes(100, 0.8, 1.003, 11);
    Opened m(cachedMovie("suggest-flashes.mov", spec));
    std::vector<double> fractions;
    bool ended = false;
    Progress progress = [&](std::string const&, Phase phase, double f) {
        if (phase == Phase::End) ended = true;
        else fractions.push_back(f);
        return true;
    };
    auto got = suggestSyncPoints(*m.om.movie, *m.list->soundTrack(), progress);
    ASSERT_FALSE(got.suggestion.refused()) << got.suggestion.refusal;
    EXPECT_GE(got.suggestion.candidates.size(), 3u);
    for (auto const& c : got.suggestion.candidates)
        EXPECT_NEAR(c.audioTime, spec.audioOffset + spec.audioRate * c.movieTime, 0.01) << "at " << c.movieTime;
    EXPECT_NEAR(got.suggestion.line->slope, spec.audioRate, 5e-4);
    EXPECT_NEAR(got.evidence.frameSeconds, 0.04, 1e-9);
    EXPECT_EQ(got.evidence.frames, 2500);
    EXPECT_EQ(got.evidence.framesWithFace, 0); // colour bars have no face
    EXPECT_NEAR(static_cast<double>(got.evidence.evidence.onset.size()), 10000, 2);
    EXPECT_TRUE(ended);
    ASSERT_FALSE(fractions.empty());
    EXPECT_TRUE(std::is_sorted(fractions.begin(), fractions.end()));
    EXPECT_DOUBLE_EQ(fractions.back(), 1.0);
}

// A drawn face whose mouth follows a voice: the face is found, its mouth
// watched, and the offset found from it. The mouth is watched by its
// landmarks when their model is installed, else by the motion of its
// region; a model path that does not exist falls back to the region.
TEST(SuggestMovie, MouthFollowsSpeechByLandmarksOrRegionMotion)
{
    auto th = talkingHead(80, -0.6, 5);
    Opened m(cachedMovie("suggest-talking.mov", th.spec));
    bool haveModel = makeLandmarkPredictor() != nullptr;
    auto got = suggestSyncPoints(*m.om.movie, *m.list->soundTrack());
    EXPECT_EQ(got.evidence.mouthMethod, haveModel ? "landmarks" : "region motion");
    // The mouth is watched on every picture, in a movie this long too.
    EXPECT_GT(got.evidence.framesWithFace, got.evidence.frames * 9 / 10);
    EXPECT_NE((haveModel ? got.evidence.evidence.mouthOpening : got.evidence.evidence.mouth).values.size(), 0u);
    ASSERT_FALSE(got.suggestion.refused()) << got.suggestion.refusal;
    // Each window measured by the mouth, whichever way it was watched, lies
    // within a frame of the truth; most windows are measured by it.
    std::size_t byMouth = 0;
    for (auto const& w : got.suggestion.windows)
        if (w.evidence.rfind("mouth", 0) == 0) {
            ++byMouth;
            EXPECT_NEAR(w.audioTime - w.movieTime, -0.6, 0.04) << "at " << w.movieTime << " by " << w.evidence;
        }
    EXPECT_GE(byMouth, 3u);

    {
        ScopedEnv missing("DUBMATCH_LANDMARK_MODEL", "/nonexistent/landmarks.dat");
        EXPECT_EQ(makeLandmarkPredictor(), nullptr);
        auto region = suggestSyncPoints(*m.om.movie, *m.list->soundTrack());
        EXPECT_EQ(region.evidence.mouthMethod, "region motion");
        EXPECT_NE(region.evidence.faceNote.find("landmark model"), std::string::npos) << region.evidence.faceNote;
        EXPECT_TRUE(region.evidence.evidence.mouthOpening.values.empty());
        ASSERT_FALSE(region.evidence.evidence.mouth.values.empty());
        ASSERT_FALSE(region.suggestion.refused()) << region.suggestion.refusal;
        for (auto const& c : region.suggestion.candidates) EXPECT_NEAR(c.audioTime - c.movieTime, -0.6, 0.04) << "at " << c.movieTime;
    }

    // Without faces the picture still changes where the mouth moves, but
    // the face detector is what saw the mouth.
    EvidenceOptions blind;
    blind.findFaces = false;
    auto video = enabledVideoTrack(*m.om.movie);
    ASSERT_TRUE(video);
    auto without = gatherEvidence(*video, *m.list->soundTrack(), 80, {}, nullptr, blind);
    EXPECT_EQ(without.framesWithFace, 0);
    EXPECT_EQ(without.mouthMethod, "none");
    EXPECT_TRUE(without.evidence.mouth.values.empty());
    EXPECT_TRUE(without.evidence.mouthOpening.values.empty());

    // The mouth is the lower third of the face, inside the picture.
    FaceBox mouth = mouthRegion({100, 50, 90, 90}, 320, 240);
    EXPECT_EQ(mouth.y, 110);
    EXPECT_EQ(mouth.height, 30);
    EXPECT_EQ(mouth.x, 118);
    EXPECT_EQ(mouth.width, 54);
    EXPECT_EQ(mouthRegion({300, 200, 90, 90}, 320, 240).height, 0);
}

// The opening of a mouth from its landmarks, in units of the eyes' span,
// and a face box carried along as the landmarks move and grow.
TEST(SuggestMovie, MouthOpeningAndFollowedBoxFromLandmarks)
{
    FaceLandmarks face{};
    for (std::size_t i = 0; i < face.size(); ++i) face[i] = {100.0 + static_cast<double>(i), 100.0};
    face[36] = {50, 80};
    face[45] = {150, 80}; // the outer eye corners, 100 apart
    face[61] = {90, 150};
    face[67] = {90, 160}; // 10
    face[62] = {100, 148};
    face[66] = {100, 168}; // 20
    face[63] = {110, 150};
    face[65] = {110, 180}; // 30
    auto opening = mouthOpening(face);
    ASSERT_TRUE(opening);
    EXPECT_NEAR(*opening, 0.2, 1e-12);
    // The same face twice as near: the same opening.
    FaceLandmarks nearer = face;
    for (auto& p : nearer) p = {2 * p.x + 30, 2 * p.y - 10};
    EXPECT_NEAR(*mouthOpening(nearer), 0.2, 1e-12);
    // The box scales about the landmarks' centre and moves with it.
    FaceBox box{40, 60, 120, 130};
    FaceBox followed = followedBox(box, face, nearer);
    EXPECT_EQ(followed.width, 240);
    EXPECT_EQ(followed.height, 260);
    EXPECT_EQ(followed.x, 2 * 40 + 30);
    EXPECT_EQ(followed.y, 2 * 60 - 10);
    FaceLandmarks collapsed{};
    EXPECT_FALSE(mouthOpening(collapsed));
}

// What a picture shows inside the lips: a mouth open on a dark cavity is
// dark there (against the nose's brightness), a closed one is not; the
// outer lips' opening is measured as the inner one is.
TEST(SuggestMovie, MouthShapeSeesTheDarkOfAnOpenMouth)
{
    FaceLandmarks face{};
    for (auto& p : face) p = {100, 100};
    face[36] = {50, 40};
    face[45] = {150, 40}; // the eyes, 100 apart
    face[29] = {100, 60};
    face[31] = {90, 70};
    face[35] = {110, 70}; // the nose, read across x 90..110 at y 58..62
    // The outer lip line (48-59): a diamond around (100, 100), 40 wide
    // and 24 high; its upper and lower middle points 50-52 and 56-58.
    double const outer[12][2] = {{80, 100}, {88, 92}, {94, 89}, {100, 88}, {106, 89}, {112, 92},
                                 {120, 100}, {112, 108}, {106, 111}, {100, 112}, {94, 111}, {88, 108}};
    for (int i = 0; i < 12; ++i) face[static_cast<std::size_t>(48 + i)] = {outer[i][0], outer[i][1]};
    face[33] = {100, 72}; // the foot of the nose, 60 above the chin
    face[7] = {92, 130};
    face[8] = {100, 132};
    face[9] = {108, 130};
    face[61] = {94, 96};
    face[67] = {94, 104};
    face[62] = {100, 95};
    face[66] = {100, 105};
    face[63] = {106, 96};
    face[65] = {106, 104};
    int const w = 200, h = 160;
    std::vector<std::uint8_t> picture(static_cast<std::size_t>(w * h), 180);
    auto shape = [&] { return mouthShape(face, picture.data(), w, h, w); };
    auto closed = shape();
    ASSERT_TRUE(closed);
    EXPECT_NEAR(closed->opening, (8 + 10 + 8) / 3.0 / 100, 1e-9);
    EXPECT_NEAR(closed->lipsApart, (22 + 24 + 22) / 3.0 / 100, 1e-9);
    EXPECT_NEAR(closed->jaw, (2 * std::hypot(8.0, 58.0) + 60) / 3 / 100, 1e-9);
    EXPECT_DOUBLE_EQ(closed->dark, 0);
    EXPECT_NEAR(closed->shade, -1, 1e-9);
    // The patch spans y 75..125 about the lips' centre (100, 100), in rows
    // 5 apart from 77.5: as bright as the nose everywhere.
    ASSERT_TRUE(closed->hasPatch);
    for (auto v : closed->patch) ASSERT_EQ(v, 128);
    // The cavity: a dark band across the middle of the lips, darker than
    // half the nose.
    for (int y = 96; y <= 104; ++y)
        for (int x = 0; x < w; ++x) picture[static_cast<std::size_t>(y * w + x)] = 30;
    auto open = shape();
    ASSERT_TRUE(open);
    EXPECT_GT(open->dark, 0.3);
    EXPECT_LT(open->dark, 0.8);
    EXPECT_GT(open->shade, closed->shade + 0.2);
    // Rows 4 and 5 (y 97.5 and 102.5) lie on the cavity, the rest on the lips.
    auto patchRow = [](MouthShape const& m, int row) {
        return std::vector<int>(m.patch.begin() + row * kMouthPatchWidth, m.patch.begin() + (row + 1) * kMouthPatchWidth);
    };
    EXPECT_EQ(patchRow(*open, 4), std::vector<int>(kMouthPatchWidth, 21)); // 30 / 180 of the nose
    EXPECT_EQ(patchRow(*open, 5), std::vector<int>(kMouthPatchWidth, 21));
    EXPECT_EQ(patchRow(*open, 3), std::vector<int>(kMouthPatchWidth, 128));
    EXPECT_EQ(patchRow(*open, 6), std::vector<int>(kMouthPatchWidth, 128));
    // Brighter light on the whole face changes neither measure.
    for (auto& v : picture) v = static_cast<std::uint8_t>(v + v / 4);
    auto brighter = shape();
    EXPECT_NEAR(brighter->dark, open->dark, 1e-9);
    EXPECT_NEAR(brighter->shade, open->shade, 0.02);
    for (std::size_t k = 0; k < brighter->patch.size(); ++k) EXPECT_NEAR(brighter->patch[k], open->patch[k], 1) << k;
    // A head tilted by 90 degrees (the eyes one above the other) gives the
    // patch turned with it: the cavity band, now upright, still in rows 4-5.
    FaceLandmarks tilted = face;
    for (auto& q : tilted) q = {199 - q.y, q.x};
    std::vector<std::uint8_t> turned(static_cast<std::size_t>(w * w), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) turned[static_cast<std::size_t>(x * w + (199 - y))] = picture[static_cast<std::size_t>(y * w + x)];
    auto upright = mouthShape(tilted, turned.data(), w, w, w);
    ASSERT_TRUE(upright);
    for (std::size_t k = 0; k < upright->patch.size(); ++k) EXPECT_NEAR(upright->patch[k], brighter->patch[k], 1) << k;
    // A face whose eyes coincide has no shape.
    FaceLandmarks collapsed{};
    EXPECT_FALSE(mouthShape(collapsed, picture.data(), w, h, w));
}

// The look of a mouth: over a face's pictures, how far each lies along the
// way its mouth's picture changes most, rising as the lips open whichever
// way the picture changes.
TEST(SuggestMovie, MouthLookFollowsWhatChangesMostAndRisesWithTheOpening)
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> noise(-4, 4);
    auto correlation = [](std::vector<double> const& a, std::vector<double> const& b) {
        double n = static_cast<double>(a.size()), sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0;
        for (std::size_t i = 0; i < a.size(); ++i) {
            sa += a[i];
            sb += b[i];
            saa += a[i] * a[i];
            sbb += b[i] * b[i];
            sab += a[i] * b[i];
        }
        return (n * sab - sa * sb) / std::sqrt((n * saa - sa * sa) * (n * sbb - sb * sb));
    };
    // An opening that comes and goes irregularly; the patch darkens in its
    // middle rows as it opens, with noise everywhere.
    std::vector<double> open;
    for (int i = 0; i < 300; ++i) open.push_back(0.5 + 0.5 * std::sin(i * 0.31) * std::sin(i * 0.047 + 1));
    auto track = [&](double shapeSign, double brightnessSign) {
        std::vector<MouthShape> shapes;
        for (double a : open) {
            MouthShape m;
            m.opening = shapeSign * a;
            m.hasPatch = true;
            for (int k = 0; k < kMouthPatchWidth * kMouthPatchHeight; ++k) {
                bool middle = k / kMouthPatchWidth >= 4 && k / kMouthPatchWidth <= 5;
                double v = 128 + (middle ? -80 * brightnessSign * a : 0) + noise(rng);
                m.patch[static_cast<std::size_t>(k)] = static_cast<std::uint8_t>(std::lround(v));
            }
            shapes.push_back(m);
        }
        mouthLooks(shapes);
        std::vector<double> looks, openings;
        for (auto const& m : shapes) {
            looks.push_back(m.look);
            openings.push_back(m.opening);
        }
        return correlation(looks, openings);
    };
    // Darker as it opens, or brighter (teeth): the look rises with the
    // opening either way, and follows it closely despite the noise.
    EXPECT_GT(track(1, 1), 0.95);
    EXPECT_GT(track(1, -1), 0.95);
    EXPECT_GT(track(-1, 1), 0.95);

    // Pictures without a patch read 0 and do not disturb the others; with
    // fewer than three patches, or all alike, every look is 0.
    std::vector<MouthShape> few(5);
    for (std::size_t i = 0; i < 2; ++i) {
        few[i].hasPatch = true;
        few[i].patch.fill(static_cast<std::uint8_t>(100 + 20 * i));
        few[i].look = 3;
    }
    mouthLooks(few);
    for (auto const& m : few) EXPECT_EQ(m.look, 0);
    std::vector<MouthShape> alike(10);
    for (auto& m : alike) {
        m.hasPatch = true;
        m.patch.fill(90);
    }
    mouthLooks(alike);
    for (auto const& m : alike) EXPECT_EQ(m.look, 0);
    std::vector<MouthShape> mixed(6);
    for (std::size_t i = 0; i < mixed.size(); ++i) {
        mixed[i].opening = static_cast<double>(i % 3);
        mixed[i].hasPatch = i != 4;
        mixed[i].patch.fill(static_cast<std::uint8_t>(100 + 30 * (i % 3)));
    }
    mouthLooks(mixed);
    EXPECT_EQ(mixed[4].look, 0);
    EXPECT_LT(mixed[0].look, mixed[1].look);
    EXPECT_LT(mixed[1].look, mixed[2].look);
    EXPECT_NEAR(mixed[3].look, mixed[0].look, 1e-9);
    EXPECT_NEAR(mixed[5].look, mixed[2].look, 1e-9);
}

// Stopping ends the search with Cancelled; a periodic movie and a silent one
// are refused with a reason, never given points.
TEST(SuggestMovie, StopsAndRefuses)
{
    auto regular = smallSpec(60, 0.3, 1.0); // a flash every 2 s: every 2 s of lag fits
    Opened periodic(cachedMovie("suggest-regular.mov", regular));
    std::atomic<bool> stop{false};
    int calls = 0;
    Progress stopper = [&](std::string const&, Phase phase, double) {
        if (phase == Phase::Update && ++calls == 2) stop = true;
        return true;
    };
    EXPECT_THROW(suggestSyncPoints(*periodic.om.movie, *periodic.list->soundTrack(), stopper, &stop), Cancelled);

    auto ambiguous = suggestSyncPoints(*periodic.om.movie, *periodic.list->soundTrack());
    EXPECT_TRUE(ambiguous.suggestion.refused());
    EXPECT_TRUE(ambiguous.suggestion.candidates.empty());
    EXPECT_FALSE(ambiguous.suggestion.refusal.empty());

    auto quiet = irregularFlashes(60, 0.3, 1.0, 3);
    quiet.soundSample = [](std::int64_t) { return 0.f; };
    Opened silent(cachedMovie("suggest-silent.mov", quiet));
    auto none = suggestSyncPoints(*silent.om.movie, *silent.list->soundTrack());
    EXPECT_TRUE(none.suggestion.refused());
    EXPECT_NE(none.suggestion.refusal.find("clear offset"), std::string::npos) << none.suggestion.refusal;
}

// Faces are followed on a thread of their own while the pictures are
// decoded: the same movie gives the same mouth every time, a stop in the
// middle ends the search with Cancelled (the thread let go, nothing left
// waiting), and a clip's lone window finds the mouth's offset.
TEST(SuggestMovie, FacesFollowedOnTheirOwnThread)
{
    auto th = talkingHead(8, 0.28, 9);
    Opened m(cachedMovie("suggest-talking-clip.mov", th.spec));
    if (!makeLandmarkPredictor()) GTEST_SKIP() << "no landmark model";
    auto video = enabledVideoTrack(*m.om.movie);
    ASSERT_TRUE(video);
    // As the suggestion gathers it (over the movie's own duration), to compare.
    double seconds = m.om.movie->duration().seconds();
    auto first = gatherEvidence(*video, *m.list->soundTrack(), seconds);
    auto got = suggestSyncPoints(*m.om.movie, *m.list->soundTrack());
    auto const& second = got.evidence;
    EXPECT_EQ(first.mouthMethod, "landmarks");
    EXPECT_GT(first.framesWithFace, first.frames * 9 / 10); // a clip: every picture
    ASSERT_FALSE(first.evidence.mouthOpening.values.empty());
    EXPECT_EQ(first.evidence.mouthOpening.values, second.evidence.mouthOpening.values);
    EXPECT_EQ(first.evidence.mouthDark.values, second.evidence.mouthDark.values);
    EXPECT_EQ(first.evidence.lipsApart.values.size(), first.evidence.mouthOpening.values.size());

    for (int stopAt : {1, 2, 3}) {
        std::atomic<bool> stop{false};
        int calls = 0;
        Progress stopper = [&](std::string const&, Phase phase, double) {
            if (phase == Phase::Update && ++calls == stopAt) stop = true;
            return true;
        };
        EXPECT_THROW(gatherEvidence(*video, *m.list->soundTrack(), seconds, stopper, &stop), Cancelled) << "stopped at update " << stopAt;
    }

    ASSERT_FALSE(got.suggestion.refused()) << got.suggestion.refusal;
    ASSERT_EQ(got.suggestion.candidates.size(), 2u);
    for (auto const& c : got.suggestion.candidates) EXPECT_NEAR(c.audioTime - c.movieTime, 0.28, 0.04);
}

// Two shots, one speaker each: the mouth compared with the speech is each
// shot's own (not the one face that moved most over the whole movie, which
// left the other shot without a mouth), and the one window over the clip
// finds the offset from both.
TEST(SuggestMovie, EachShotsSpeakerIsWatched)
{
    auto th = talkingHead(16, -0.35, 12);
    TestMovieSpec spec = th.spec;
    spec.width = 480;
    spec.drawPicture = [loud = th.loudness](std::int64_t k, std::uint8_t* luma, int stride, int w, int h) {
        for (int y = 0; y < h; ++y) std::memset(luma + static_cast<std::ptrdiff_t>(y) * stride, 70, static_cast<std::size_t>(w));
        auto i = std::min(loud.size() - 1, static_cast<std::size_t>(k * 4));
        // A cut at 8 s from a face on the left to one on the right.
        double cx = k < 200 ? w * 0.3 : w * 0.7;
        drawFace(luma, stride, w, h, cx, h / 2.0, h * 0.7, loud[i]);
    };
    Opened m(cachedMovie("suggest-two-shots.mov", spec));
    if (!makeLandmarkPredictor()) GTEST_SKIP() << "no landmark model";
    auto got = suggestSyncPoints(*m.om.movie, *m.list->soundTrack());
    EXPECT_GT(got.evidence.framesWithFace, got.evidence.frames * 9 / 10);
    auto const& opening = got.evidence.evidence.mouthOpening;
    ASSERT_GE(opening.values.size(), 1500u);
    // The mouth moves in both shots.
    auto spread = [&](double from, double to) {
        auto lo = opening.values.begin() + static_cast<std::ptrdiff_t>(from * 100), hi = opening.values.begin() + static_cast<std::ptrdiff_t>(to * 100);
        auto [a, b] = std::minmax_element(lo, hi);
        return *b - *a;
    };
    EXPECT_GT(spread(9, 15), 0.5 * spread(1, 7));
    EXPECT_GT(spread(1, 7), 0.5 * spread(9, 15));
    ASSERT_FALSE(got.suggestion.refused()) << got.suggestion.refusal;
    for (auto const& c : got.suggestion.candidates) EXPECT_NEAR(c.audioTime - c.movieTime, -0.35, 0.04);
}

// A speaker in a wide shot: his face, about an eighth of the picture wide,
// is too small for the face finder at the size it searches at first.
TEST(SuggestMovie, ASmallFaceInAWideShotIsFound)
{
    auto th = talkingHead(12, 0.3, 23);
    TestMovieSpec spec = th.spec;
    spec.width = 720;
    spec.height = 240;
    spec.drawPicture = [loud = th.loudness](std::int64_t k, std::uint8_t* luma, int stride, int w, int h) {
        for (int y = 0; y < h; ++y) std::memset(luma + static_cast<std::ptrdiff_t>(y) * stride, 70, static_cast<std::size_t>(w));
        auto i = std::min(loud.size() - 1, static_cast<std::size_t>(k * 4));
        drawFace(luma, stride, w, h, w * 0.62, h * 0.45, h * 0.42, loud[i]);
    };
    Opened m(cachedMovie("suggest-wide-shot.mov", spec));
    if (!makeLandmarkPredictor()) GTEST_SKIP() << "no landmark model";
    auto got = suggestSyncPoints(*m.om.movie, *m.list->soundTrack());
    EXPECT_GT(got.evidence.framesWithFace, got.evidence.frames * 9 / 10);
    ASSERT_FALSE(got.suggestion.refused()) << got.suggestion.refusal;
    for (auto const& c : got.suggestion.candidates) EXPECT_NEAR(c.audioTime - c.movieTime, 0.3, 0.04);
}

// A phone clip: the speaker upright as shown, stored sideways with a
// display matrix that turns it (faces are found upright only), and in
// narrow pixels that the display widens.
TEST(SuggestMovie, ASidewaysPhoneClipIsLookedAtUpright)
{
    auto th = talkingHead(10, -0.25, 29);
    TestMovieSpec spec = th.spec;
    spec.width = 240; // stored; shown 480 x 320: widened to 320 x 480, then turned
    spec.height = 480;
    spec.rotation = 90;
    spec.pixelAspectNum = 4;
    spec.pixelAspectDen = 3;
    spec.drawPicture = [loud = th.loudness](std::int64_t k, std::uint8_t* luma, int stride, int w, int h) {
        // Drawn as shown, 480 x 320; squeezed to the stored pixels' 480 x
        // 240 (every fourth row left out) and stored a quarter turn back.
        int sw = h, sh = w * 4 / 3;
        std::vector<std::uint8_t> shown(static_cast<std::size_t>(sw * sh), 70), squeezed(static_cast<std::size_t>(sw * w));
        auto i = std::min(loud.size() - 1, static_cast<std::size_t>(k * 4));
        drawFace(shown.data(), sw, sw, sh, sw / 2.0, sh / 2.0, sh * 0.7, loud[i]);
        for (int y = 0; y < w; ++y) std::memcpy(squeezed.data() + y * sw, shown.data() + (y * sh / w) * sw, static_cast<std::size_t>(sw));
        turnPicture(squeezed.data(), sw, sw, w, 1, 270, luma, stride);
    };
    Opened m(cachedMovie("suggest-sideways-phone.mov", spec));
    if (!makeLandmarkPredictor()) GTEST_SKIP() << "no landmark model";
    auto got = suggestSyncPoints(*m.om.movie, *m.list->soundTrack());
    EXPECT_GT(got.evidence.framesWithFace, got.evidence.frames * 9 / 10);
    ASSERT_FALSE(got.suggestion.refused()) << got.suggestion.refusal;
    for (auto const& c : got.suggestion.candidates) EXPECT_NEAR(c.audioTime - c.movieTime, -0.25, 0.04);
}

// A video camera's interlaced pictures: the lower field is taken half a
// frame after the upper one, so a picture shows, on the mean, the moment a
// quarter frame after its time stamp. The same face coded interlaced with
// both fields of one moment (a film's pictures) stays at its time stamps.
TEST(SuggestMovie, InterlacedFieldsTakenApartArePlacedBetweenTheirMoments)
{
    if (!makeLandmarkPredictor()) GTEST_SKIP() << "no landmark model";
    auto th = talkingHead(12, 0.3, 37);
    for (int apart : {1, 0}) {
        SCOPED_TRACE(apart ? "fields apart" : "fields of one moment");
        TestMovieSpec spec = th.spec;
        spec.width = 480;
        spec.height = 360;
        spec.interlaced = true;
        spec.drawPicture = [loud = th.loudness, apart](std::int64_t k, std::uint8_t* luma, int stride, int w, int h) {
            // The upper field (even lines) at the frame's time, the lower one 20 ms later.
            std::vector<std::uint8_t> second(static_cast<std::size_t>(w * h), 70);
            auto at = [&](std::int64_t hop) { return loud[std::min(loud.size() - 1, static_cast<std::size_t>(hop))]; };
            for (int y = 0; y < h; ++y) std::memset(luma + static_cast<std::ptrdiff_t>(y) * stride, 70, static_cast<std::size_t>(w));
            drawFace(luma, stride, w, h, w / 2.0, h / 2.0, h * 0.7, at(k * 4));
            drawFace(second.data(), w, w, h, w / 2.0, h / 2.0, h * 0.7, at(k * 4 + 2 * apart));
            for (int y = 1; y < h; y += 2) std::memcpy(luma + static_cast<std::ptrdiff_t>(y) * stride, second.data() + y * w, static_cast<std::size_t>(w));
        };
        Opened m(cachedMovie(apart ? "suggest-interlaced.mov" : "suggest-interlaced-one-moment.mov", spec));
        auto got = suggestSyncPoints(*m.om.movie, *m.list->soundTrack());
        EXPECT_EQ(got.evidence.fieldsApart, apart == 1);
        ASSERT_FALSE(got.suggestion.refused()) << got.suggestion.refusal;
        double measured = got.suggestion.candidates.front().audioTime - got.suggestion.candidates.front().movieTime;
        std::printf("[ interlaced ] fields %s: %.1f ms\n", apart ? "apart" : "of one moment", measured * 1000);
        // Placed at their time stamps, the fields taken apart read 13 ms
        // late, and those of one moment, placed as if apart, 10 ms early.
        EXPECT_NEAR(measured, 0.3, 0.006);
    }
}

// A film's 5.1: the voice in the centre; around it, music louder than the
// voice in the voice's own bands, swelling and fading at a syllable's pace.
// The voice is heard in the centre alone. Where the centre is silent (stereo
// spread to 5.1), the mix of all channels is heard instead.
TEST(SuggestMovie, AFilmsVoiceIsHeardInItsCentreChannel)
{
    auto th = talkingHead(12, 0.2, 31);
    auto voice = th.spec.soundSample;
    int rate = th.spec.sampleRate;
    auto music = [rate](std::int64_t n) {
        double t = static_cast<double>(n) / rate;
        double swell = 0.5 + 0.25 * std::sin(2 * kPi * 2.7 * t) + 0.25 * std::sin(2 * kPi * 4.1 * t + 1);
        double v = 0;
        for (double f : {880.0, 1320.0, 1760.0, 2640.0}) v += std::sin(2 * kPi * f * t + f);
        return static_cast<float>(0.25 * swell * v);
    };
    if (!makeLandmarkPredictor()) GTEST_SKIP() << "no landmark model";
    for (bool centred : {true, false}) {
        SCOPED_TRACE(centred ? "voice in the centre" : "centre silent");
        TestMovieSpec spec = th.spec;
        spec.channels = 6;
        spec.channelLayout = "5.1";
        if (centred) spec.channelSample = [voice, music](std::int64_t n, int ch) { return ch == 2 ? voice(n) : ch == 3 ? 0.f : music(n); };
        else spec.channelSample = [voice](std::int64_t n, int ch) { return ch == 2 || ch == 3 ? 0.f : voice(n); };
        Opened m(cachedMovie(centred ? "suggest-film-5.1.mov" : "suggest-film-5.1-no-centre.mov", spec));
        auto got = suggestSyncPoints(*m.om.movie, *m.list->soundTrack());
        EXPECT_EQ(got.evidence.dialogueChannel, centred);
        ASSERT_FALSE(got.suggestion.refused()) << got.suggestion.refusal;
        for (auto const& c : got.suggestion.candidates) EXPECT_NEAR(c.audioTime - c.movieTime, 0.2, 0.04);
    }
}

// Two faces in one shot: the speaker, and a listener who chews, his mouth
// moving more than the speaker's but not with the voice. The speaker's
// mouth is the one compared with the speech.
TEST(SuggestMovie, TheFaceWhoseMouthMovesWithTheSpeechIsWatched)
{
    auto th = talkingHead(16, -0.35, 21);
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> shut(0.0, 0.2), open(0.7, 1.0), pace(8, 14);
    std::vector<float> chew(th.loudness.size(), 0.f);
    double from = shut(rng), to = open(rng);
    for (std::size_t i = 0, next = 0, step = 1; i < chew.size(); ++i) {
        if (i == next) {
            from = to;
            to = to > 0.5 ? shut(rng) : open(rng);
            step = static_cast<std::size_t>(pace(rng));
            next = i + step;
        }
        chew[i] = static_cast<float>(to + (from - to) * static_cast<double>(next - i) / static_cast<double>(step));
    }
    auto motion = [](std::vector<float> const& v) {
        double sum = 0;
        for (std::size_t i = 4; i < v.size(); i += 4) sum += std::fabs(v[i] - v[i - 4]);
        return sum;
    };
    ASSERT_GT(motion(chew), 1.5 * motion(th.loudness)); // the listener moves more
    TestMovieSpec spec = th.spec;
    spec.width = 480;
    spec.drawPicture = [loud = th.loudness, chew](std::int64_t k, std::uint8_t* luma, int stride, int w, int h) {
        for (int y = 0; y < h; ++y) std::memset(luma + static_cast<std::ptrdiff_t>(y) * stride, 70, static_cast<std::size_t>(w));
        auto i = std::min(loud.size() - 1, static_cast<std::size_t>(k * 4));
        drawFace(luma, stride, w, h, w * 0.27, h / 2.0, h * 0.62, chew[i]);
        drawFace(luma, stride, w, h, w * 0.73, h / 2.0, h * 0.62, loud[i]);
    };
    Opened m(cachedMovie("suggest-speaker-and-listener.mov", spec));
    if (!makeLandmarkPredictor()) GTEST_SKIP() << "no landmark model";
    auto got = suggestSyncPoints(*m.om.movie, *m.list->soundTrack());
    ASSERT_FALSE(got.suggestion.refused()) << got.suggestion.refusal;
    for (auto const& c : got.suggestion.candidates) EXPECT_NEAR(c.audioTime - c.movieTime, -0.35, 0.04);
}
