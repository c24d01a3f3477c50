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
#include <vector>

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

// The mouth's picture: grey levels sampled on a grid turned with the eyes
// and centred on the outer lip line, kMouthPatchWidth across 0.9 and
// kMouthPatchHeight down 0.5 of the eye corners' distance, each against the
// nose's brightness (128 is as bright as the nose, 255 twice as bright or
// more).
constexpr int kMouthPatchWidth = 16, kMouthPatchHeight = 10;
using MouthPatch = std::array<std::uint8_t, kMouthPatchWidth * kMouthPatchHeight>;

// What a picture shows of a mouth, by its landmarks: the inner lips' opening
// (mouthOpening), the outer lips' (50-58, 51-57, 52-56, over the eye
// corners), the jaw's drop (the chin, 7-9, from the foot of the nose, 33,
// over the eye corners), and inside the outer lip line (48-59) the share of
// pixels darker than half the nose's brightness (the open mouth's cavity)
// and the mean brightness there against the nose's, negated (darker is more
// open). They see an opening mouth in different ways: the landmarks by the
// shape, the brightness by the teeth and the dark behind them, where
// landmarks on small faces often hold the lips still. `patch` is the
// mouth's picture (when the nose could be read: `hasPatch`); `look` is
// left to mouthLooks(), which needs all of a face's patches.
struct MouthShape {
    double opening = 0;
    double lipsApart = 0;
    double jaw = 0;
    double dark = 0;
    double shade = 0;
    double look = 0;
    bool hasPatch = false;
    MouthPatch patch{};
};
std::optional<MouthShape> mouthShape(FaceLandmarks const& points, std::uint8_t const* grey, int width, int height, int stride);

// The look of one face's mouth over the pictures it was followed in: how
// far each patch lies along the direction in which the face's patches vary
// most (their first principal component), signed so that it rises as the
// inner lips open. It sees an opening mouth by everything that changes in
// its picture at once (lips, teeth, tongue, shadows) rather than by chosen
// pixels. Placed in every shape's `look` (0 for shapes without a patch,
// and for all when fewer than three have one).
void mouthLooks(std::vector<MouthShape>& shapes);

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

// dlib's frontal face detector (histograms of oriented gradients), which the
// 68-point model was trained on: it finds the turned, tilted and laughing
// faces that the Haar cascade misses, and places its boxes where the
// predictor expects them. Always available with dlib.
std::unique_ptr<FaceFinder> makeLandmarkFaceFinder();

// The 68-point predictor, or null (with `why` set) when its model is not
// installed. DUBMATCH_LANDMARK_MODEL names another model file.
std::unique_ptr<LandmarkPredictor> makeLandmarkPredictor(std::string* why = nullptr);

} // namespace media
