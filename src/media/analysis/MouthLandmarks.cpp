#include "MouthLandmarks.h"

#include <dlib/image_processing.h>
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

} // namespace

std::optional<double> mouthOpening(FaceLandmarks const& p)
{
    double eyes = distance(p[36], p[45]);
    if (!(eyes > 1e-6)) return std::nullopt;
    double gap = (distance(p[61], p[67]) + distance(p[62], p[66]) + distance(p[63], p[65])) / 3;
    return gap / eyes;
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
