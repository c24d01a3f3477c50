#include "MediaTestSupport.h"
#include "MouthLandmarks.h"
#include "TestMovie.h"

#include <dlib/image_processing/shape_predictor.h>
#include <dlib/serialize.h>

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using namespace media;
using namespace testsupport;

namespace {

std::string const kModel = DUBMATCH_LANDMARK_MODEL;

// A grey picture: noise, with a drawn face when `mouth` >= 0.
std::vector<std::uint8_t> picture(int width, int height, double mouth, unsigned seed)
{
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> grey(40, 200);
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    for (auto& p : pixels) p = static_cast<std::uint8_t>(grey(random));
    if (mouth >= 0) drawFace(pixels.data(), width, width, height, width / 2.0, height / 2.0, height * 0.6, mouth);
    return pixels;
}

// A model in dlib's format with one stage of one tree of one split, which
// compares two pixels placed by points `anchor` and 0, and leaves of `leafSize`
// values.
std::string tinyModel(unsigned long anchor, unsigned long splitPixel, long leafSize)
{
    std::ostringstream out;
    dlib::serialize(1, out);
    dlib::matrix<float, 0, 1> initial(136);
    for (long i = 0; i < initial.size(); ++i) initial(i) = static_cast<float>(i % 17) / 17;
    dlib::serialize(initial, out);
    dlib::impl::regression_tree tree;
    tree.splits.push_back({splitPixel, 0, 1.0f});
    dlib::matrix<float, 0, 1> leaf(leafSize);
    leaf = 0.01f;
    tree.leaf_values = {leaf, leaf};
    dlib::serialize(std::vector<std::vector<dlib::impl::regression_tree>>{{tree}}, out);
    dlib::serialize(std::vector<std::vector<unsigned long>>{{anchor, 0}}, out);
    dlib::serialize(std::vector<std::vector<dlib::vector<float, 2>>>{{{0.1f, 0.1f}, {-0.1f, 0.2f}}}, out);
    return out.str();
}

} // namespace

// The predictor evaluates dlib's model itself, with its leaves laid out for
// speed: it must place every point where dlib's own predictor does, to the
// pixel dlib rounds to,
// on faces and on noise, on boxes inside the picture and reaching out of it.
TEST(LandmarkPredictor, PlacesThePointsDlibPlaces)
{
    auto ours = makeLandmarkPredictor();
    if (kModel.empty() || !ours) GTEST_SKIP() << "no landmark model";
    dlib::shape_predictor theirs;
    dlib::deserialize(kModel) >> theirs;

    // The predictor looks at the box and half its size around it: in a
    // picture no larger than that, both see the same pixels.
    constexpr int kSize = 240;
    struct Case {
        double mouth;
        FaceBox box;
    };
    std::vector<Case> cases = {{0.0, {60, 60, 120, 120}}, {0.5, {60, 60, 120, 120}}, {1.0, {55, 65, 130, 130}},
                               {0.8, {-10, 40, 150, 150}}, {0.3, {70, 20, 140, 140}}, {-1, {60, 60, 120, 120}}};
    int moved = 0, fractional = 0;
    for (std::size_t c = 0; c < cases.size(); ++c) {
        auto const& [mouth, box] = cases[c];
        auto pixels = picture(kSize, kSize, mouth, static_cast<unsigned>(c + 1));
        dlib::array2d<unsigned char> image(kSize, kSize);
        for (int y = 0; y < kSize; ++y)
            for (int x = 0; x < kSize; ++x) image[y][x] = pixels[static_cast<std::size_t>(y * kSize + x)];
        auto expected = theirs(image, dlib::rectangle(box.x, box.y, box.x + box.width - 1, box.y + box.height - 1));
        auto got = ours->predict(pixels.data(), kSize, kSize, kSize, box);
        ASSERT_EQ(expected.num_parts(), got.size());
        // dlib rounds its points to whole pixels; ours are not rounded.
        for (unsigned long i = 0; i < expected.num_parts(); ++i) {
            EXPECT_EQ(dlib::point(dlib::vector<double, 2>(got[i].x, got[i].y)), expected.part(i)) << "case " << c << " point " << i;
            fractional += got[i].x != std::round(got[i].x);
        }
        // The picture moved the points away from the model's mean shape.
        moved += expected.part(62).y() != theirs(dlib::array2d<unsigned char>(kSize, kSize), expected.get_rect()).part(62).y();
    }
    EXPECT_GT(moved, 0);
    EXPECT_GT(fractional, 100);

    // An opening and a wide-open mouth, on the same face: the inner lips part.
    auto closed = picture(kSize, kSize, 0.0, 7), open = picture(kSize, kSize, 1.0, 7);
    FaceBox box{60, 60, 120, 120};
    auto a = mouthOpening(ours->predict(closed.data(), kSize, kSize, kSize, box));
    auto b = mouthOpening(ours->predict(open.data(), kSize, kSize, kSize, box));
    ASSERT_TRUE(a && b);
    EXPECT_GT(*b, *a + 0.05);
}

// A model file that is cut short, of another version or of another shape,
// or whose trees name pixels, points or leaves it does not have, is refused
// with the reason, and the mouth is then watched without landmarks.
TEST(LandmarkPredictor, RefusesModelsItCannotUse)
{
    if (kModel.empty() || !std::ifstream(kModel)) GTEST_SKIP() << "no landmark model";
    ScratchDir dir;
    std::string whole = readFile(kModel);
    std::string versionTwo = whole;
    versionTwo[1] = 2; // the version comes first: a length byte, then its value
    std::vector<std::pair<std::string, std::string>> bad = {{"empty.dat", ""},
                                                            {"cut.dat", whole.substr(0, whole.size() / 3)},
                                                            {"version.dat", versionTwo},
                                                            {"other.dat", "not a model at all"},
                                                            {"anchor.dat", tinyModel(68, 1, 136)},
                                                            {"pixel.dat", tinyModel(5, 2, 136)},
                                                            {"leaf.dat", tinyModel(5, 1, 10)}};
    for (auto const& [name, bytes] : bad) {
        writeFile(dir.file(name), bytes);
        ScopedEnv other("DUBMATCH_LANDMARK_MODEL", dir.file(name).c_str());
        std::string why;
        EXPECT_EQ(makeLandmarkPredictor(&why), nullptr) << name;
        EXPECT_NE(why.find("cannot be read"), std::string::npos) << name << ": " << why;
        EXPECT_NE(why.find(name), std::string::npos) << why;
    }
    // The same small model with all its parts in range is read.
    writeFile(dir.file("tiny.dat"), tinyModel(67, 1, 136));
    ScopedEnv tiny("DUBMATCH_LANDMARK_MODEL", dir.file("tiny.dat").c_str());
    EXPECT_NE(makeLandmarkPredictor(), nullptr);
}

// The model read is kept for the next predictor while its file stays the
// same; a file replaced under the same name is read again, and refused if
// it is no model.
TEST(LandmarkPredictor, AModelReplacedUnderItsNameIsReadAgain)
{
    ScratchDir dir;
    std::string path = dir.file("model.dat");
    writeFile(path, tinyModel(67, 1, 136));
    ScopedEnv model("DUBMATCH_LANDMARK_MODEL", path.c_str());
    auto first = makeLandmarkPredictor();
    ASSERT_NE(first, nullptr);
    EXPECT_NE(makeLandmarkPredictor(), nullptr);

    writeFile(path, "not a model at all");
    std::string why;
    EXPECT_EQ(makeLandmarkPredictor(&why), nullptr);
    EXPECT_NE(why.find("cannot be read"), std::string::npos) << why;

    writeFile(path, tinyModel(67, 1, 136));
    auto again = makeLandmarkPredictor();
    ASSERT_NE(again, nullptr);
    // Predictors of one model place the same points, each on its own.
    std::vector<std::uint8_t> grey(100 * 100, 128);
    for (std::size_t i = 0; i < grey.size(); ++i) grey[i] = static_cast<std::uint8_t>((i * 37) % 251);
    FaceBox box{20, 20, 60, 60};
    auto a = first->predict(grey.data(), 100, 100, 100, box);
    auto b = again->predict(grey.data(), 100, 100, 100, box);
    for (std::size_t i = 0; i < a.size(); ++i) EXPECT_TRUE(a[i].x == b[i].x && a[i].y == b[i].y) << i;
}
