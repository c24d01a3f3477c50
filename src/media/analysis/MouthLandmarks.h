// The opening of a mouth by facial landmarks: a 68-point shape predictor
// placed on a face box. Faces are found by a FaceFinder a few times a second
// and followed in between by their own landmarks. The predictor (dlib's)
// stays in its own source file.
#pragma once

#include "FaceFinder.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace media {

struct LandmarkPoint {
    double x = 0, y = 0;
};
using FaceLandmarks = std::array<LandmarkPoint, 68>;

// The mouth opening of a face's landmarks (68-point numbering from 0: the
// inner lips are 60 to 67, the outer eye corners 36 and 45): the mean gap
// between the three pairs of inner-lip points facing each other (61-67,
// 62-66, 63-65), over the distance between the outer eye corners, so that it
// does not change as the face comes nearer. Nullopt for a degenerate face.
std::optional<double> mouthOpening(FaceLandmarks const& points);

// A face box for the next picture from a face's landmarks: the box that the
// landmarks were found in (`box`), moved and scaled as the landmarks moved
// from `reference` (the landmarks found in `box`) to `now`.
FaceBox followedBox(FaceBox const& box, FaceLandmarks const& reference, FaceLandmarks const& now);

class LandmarkPredictor {
public:
    virtual ~LandmarkPredictor() = default;
    // The landmarks of the face in `box` of a grey picture.
    virtual FaceLandmarks predict(std::uint8_t const* grey, int width, int height, int stride, FaceBox const& box) = 0;
};

// The 68-point predictor, or null (with `why` set) when its model is not
// installed. DUBMATCH_LANDMARK_MODEL names another model file.
std::unique_ptr<LandmarkPredictor> makeLandmarkPredictor(std::string* why = nullptr);

} // namespace media
