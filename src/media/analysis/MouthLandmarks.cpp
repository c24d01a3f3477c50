#include "MouthLandmarks.h"

#include <dlib/image_processing.h>
#include <dlib/image_processing/frontal_face_detector.h>
#include <dlib/image_processing/shape_predictor.h>
#include <dlib/serialize.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>

namespace media {

namespace {

double distance(LandmarkPoint const& a, LandmarkPoint const& b) { return std::hypot(a.x - b.x, a.y - b.y); }

LandmarkPoint centroid(FaceLandmarks const& p)
{
    LandmarkPoint c;
    for (auto const& q : p) {
        c.x += q.x;
        c.y += q.y;
    }
    c.x /= static_cast<double>(p.size());
    c.y /= static_cast<double>(p.size());
    return c;
}

class DlibPredictor : public LandmarkPredictor {
public:
    explicit DlibPredictor(dlib::shape_predictor p) : predictor_(std::move(p)) {}

    FaceLandmarks predict(std::uint8_t const* grey, int width, int height, int stride, FaceBox const& box) override
    {
        // Only the part of the picture around the face is copied: the
        // predictor reads pixels near the box alone.
        int margin = std::max(box.width, box.height) / 2;
        int x0 = std::clamp(box.x - margin, 0, width), x1 = std::clamp(box.x + box.width + margin, 0, width);
        int y0 = std::clamp(box.y - margin, 0, height), y1 = std::clamp(box.y + box.height + margin, 0, height);
        FaceLandmarks out{};
        if (x1 - x0 < 8 || y1 - y0 < 8) return out;
        image_.set_size(y1 - y0, x1 - x0);
        for (int y = y0; y < y1; ++y) {
            std::uint8_t const* row = grey + static_cast<std::ptrdiff_t>(y) * stride;
            std::copy(row + x0, row + x1, &image_[y - y0][0]);
        }
        dlib::rectangle r(box.x - x0, box.y - y0, box.x - x0 + box.width - 1, box.y - y0 + box.height - 1);
        dlib::full_object_detection shape = predictor_(image_, r);
        for (unsigned long i = 0; i < shape.num_parts() && i < out.size(); ++i)
            out[i] = {static_cast<double>(shape.part(i).x() + x0), static_cast<double>(shape.part(i).y() + y0)};
        return out;
    }

private:
    dlib::shape_predictor predictor_;
    dlib::array2d<unsigned char> image_;
};

class DlibFaceFinder : public FaceFinder {
public:
    std::vector<FaceBox> find(std::uint8_t const* grey, int width, int height, int stride) override
    {
        image_.set_size(height, width);
        for (int y = 0; y < height; ++y) std::copy_n(grey + static_cast<std::ptrdiff_t>(y) * stride, width, &image_[y][0]);
        std::vector<FaceBox> out;
        for (auto const& r : detector_(image_))
            out.push_back({static_cast<int>(r.left()), static_cast<int>(r.top()), static_cast<int>(r.width()), static_cast<int>(r.height())});
        std::sort(out.begin(), out.end(), [](FaceBox const& a, FaceBox const& b) { return a.area() > b.area(); });
        return out;
    }

private:
    dlib::frontal_face_detector detector_ = dlib::get_frontal_face_detector();
    dlib::array2d<unsigned char> image_;
};

} // namespace

std::unique_ptr<FaceFinder> makeLandmarkFaceFinder() { return std::make_unique<DlibFaceFinder>(); }

std::optional<double> mouthOpening(FaceLandmarks const& p)
{
    double eyes = distance(p[36], p[45]);
    if (!(eyes > 1e-6)) return std::nullopt;
    double gap = (distance(p[61], p[67]) + distance(p[62], p[66]) + distance(p[63], p[65])) / 3;
    return gap / eyes;
}

namespace {

// Whether (x, y) lies inside the polygon of points first ... last (even-odd rule).
bool insidePolygon(FaceLandmarks const& p, int first, int last, double x, double y)
{
    bool in = false;
    for (int i = first, j = last; i <= last; j = i++) {
        auto const& a = p[static_cast<std::size_t>(i)];
        auto const& b = p[static_cast<std::size_t>(j)];
        if ((a.y > y) != (b.y > y) && x < (b.x - a.x) * (y - a.y) / (b.y - a.y) + a.x) in = !in;
    }
    return in;
}

} // namespace

std::optional<MouthShape> mouthShape(FaceLandmarks const& p, std::uint8_t const* grey, int width, int height, int stride)
{
    auto opening = mouthOpening(p);
    if (!opening) return std::nullopt;
    MouthShape m;
    m.opening = *opening;
    double eyes = distance(p[36], p[45]);
    m.lipsApart = (distance(p[50], p[58]) + distance(p[51], p[57]) + distance(p[52], p[56])) / 3 / eyes;
    // The nose's brightness (a short band across it, below the bridge) is
    // the reference: it changes with the light as the lips do.
    double nose = 0;
    long noseCount = 0;
    int ny = static_cast<int>(std::lround(p[29].y));
    for (int y = ny - 2; y <= ny + 2; ++y)
        for (int x = static_cast<int>(std::lround(p[31].x)); x <= static_cast<int>(std::lround(p[35].x)); ++x)
            if (y >= 0 && y < height && x >= 0 && x < width) {
                nose += grey[static_cast<std::ptrdiff_t>(y) * stride + x];
                ++noseCount;
            }
    double left = p[48].x, right = p[48].x, top = p[48].y, bottom = p[48].y;
    for (int i = 49; i < 60; ++i) {
        left = std::min(left, p[static_cast<std::size_t>(i)].x);
        right = std::max(right, p[static_cast<std::size_t>(i)].x);
        top = std::min(top, p[static_cast<std::size_t>(i)].y);
        bottom = std::max(bottom, p[static_cast<std::size_t>(i)].y);
    }
    if (noseCount == 0 || nose <= 0) return m;
    nose /= static_cast<double>(noseCount);
    long inside = 0, darkCount = 0;
    double sum = 0;
    for (int y = std::max(0, static_cast<int>(top)); y <= std::min(height - 1, static_cast<int>(bottom)); ++y)
        for (int x = std::max(0, static_cast<int>(left)); x <= std::min(width - 1, static_cast<int>(right)); ++x) {
            if (!insidePolygon(p, 48, 59, x, y)) continue;
            double v = grey[static_cast<std::ptrdiff_t>(y) * stride + x];
            ++inside;
            sum += v;
            darkCount += v < 0.5 * nose;
        }
    if (inside > 0) {
        m.dark = static_cast<double>(darkCount) / static_cast<double>(inside);
        m.shade = -sum / static_cast<double>(inside) / nose;
    }
    return m;
}

FaceBox followedBox(FaceBox const& box, FaceLandmarks const& reference, FaceLandmarks const& now)
{
    double before = distance(reference[36], reference[45]), after = distance(now[36], now[45]);
    double scale = before > 1e-6 && after > 1e-6 ? after / before : 1.0;
    LandmarkPoint c0 = centroid(reference), c1 = centroid(now);
    // The box's corner relative to the landmarks' centre, scaled with the face.
    double x = c1.x + (box.x - c0.x) * scale, y = c1.y + (box.y - c0.y) * scale;
    return {static_cast<int>(std::lround(x)), static_cast<int>(std::lround(y)), static_cast<int>(std::lround(box.width * scale)),
            static_cast<int>(std::lround(box.height * scale))};
}

std::unique_ptr<LandmarkPredictor> makeLandmarkPredictor(std::string* why)
{
    std::string path = DUBMATCH_LANDMARK_MODEL;
    if (char const* other = std::getenv("DUBMATCH_LANDMARK_MODEL"); other && *other) path = other;
    if (path.empty() || !std::ifstream(path)) {
        if (why) *why = "the facial landmark model is not installed (Debian package libdlib-data)";
        return nullptr;
    }
    try {
        dlib::shape_predictor predictor;
        dlib::deserialize(path) >> predictor;
        if (predictor.num_parts() != 68) {
            if (why) *why = "the facial landmark model \"" + path + "\" does not have 68 points";
            return nullptr;
        }
        return std::make_unique<DlibPredictor>(std::move(predictor));
    } catch (std::exception const& e) {
        if (why) *why = "the facial landmark model \"" + path + "\" cannot be read: " + e.what();
        return nullptr;
    }
}

} // namespace media
