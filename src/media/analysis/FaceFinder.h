// Faces in grey pictures, for the mouth-motion evidence of suggested sync
// points. The detector behind it (OpenCV's Haar cascade) stays in its own
// source file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace media {

struct FaceBox {
    int x = 0, y = 0, width = 0, height = 0;
    int area() const { return width * height; }
};

class FaceFinder {
public:
    virtual ~FaceFinder() = default;
    // The faces in a grey picture, largest first.
    virtual std::vector<FaceBox> find(std::uint8_t const* grey, int width, int height, int stride) = 0;
};

// The frontal-face detector, or null (with `why` set) when its cascade is
// not installed. DUBMATCH_FACE_CASCADE names another cascade file.
std::unique_ptr<FaceFinder> makeFaceFinder(std::string* why = nullptr);

// The mouth region of a face: the lower third of its box, the middle
// three fifths of its width, clipped to the picture.
FaceBox mouthRegion(FaceBox const& face, int width, int height);

} // namespace media
