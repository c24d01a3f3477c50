#include "FaceFinder.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include <algorithm>
#include <cstdlib>
#include <fstream>

namespace media {

namespace {

class HaarFaceFinder : public FaceFinder {
public:
    explicit HaarFaceFinder(cv::CascadeClassifier c) : cascade_(std::move(c)) {}

    std::vector<FaceBox> find(std::uint8_t const* grey, int width, int height, int stride) override
    {
        if (width <= 0 || height <= 0) return {};
        cv::Mat picture(height, width, CV_8UC1, const_cast<std::uint8_t*>(grey), static_cast<std::size_t>(stride));
        cv::equalizeHist(picture, equalised_);
        std::vector<cv::Rect> found;
        int smallest = std::max(24, std::min(width, height) / 8);
        cascade_.detectMultiScale(equalised_, found, 1.15, 4, 0, cv::Size(smallest, smallest));
        std::vector<FaceBox> out;
        for (auto const& r : found) out.push_back({r.x, r.y, r.width, r.height});
        std::sort(out.begin(), out.end(), [](FaceBox const& a, FaceBox const& b) { return a.area() > b.area(); });
        return out;
    }

private:
    cv::CascadeClassifier cascade_;
    cv::Mat equalised_;
};

} // namespace

std::unique_ptr<FaceFinder> makeFaceFinder(std::string* why)
{
    std::string path = DUBMATCH_FACE_CASCADE;
    if (char const* other = std::getenv("DUBMATCH_FACE_CASCADE"); other && *other) path = other;
    if (path.empty() || !std::ifstream(path)) {
        if (why) *why = "the face detector's cascade file is not installed (Debian package opencv-data)";
        return nullptr;
    }
    try {
        cv::CascadeClassifier cascade;
        if (!cascade.load(path) || cascade.empty()) {
            if (why) *why = "the face detector's cascade file \"" + path + "\" cannot be read";
            return nullptr;
        }
        return std::make_unique<HaarFaceFinder>(std::move(cascade));
    } catch (cv::Exception const& e) {
        if (why) *why = "the face detector cannot start: " + std::string(e.what());
        return nullptr;
    }
}

FaceBox mouthRegion(FaceBox const& face, int width, int height)
{
    int x0 = face.x + face.width / 5, x1 = face.x + face.width - face.width / 5;
    int y0 = face.y + 2 * face.height / 3, y1 = face.y + face.height;
    x0 = std::clamp(x0, 0, width);
    x1 = std::clamp(x1, 0, width);
    y0 = std::clamp(y0, 0, height);
    y1 = std::clamp(y1, 0, height);
    return {x0, y0, std::max(0, x1 - x0), std::max(0, y1 - y0)};
}

} // namespace media
