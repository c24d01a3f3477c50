#include "MouthLandmarks.h"

#include <dlib/image_processing.h>
#include <dlib/image_processing/frontal_face_detector.h>
#include <dlib/image_processing/shape_predictor.h>
#include <dlib/serialize.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>

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

// dlib's 68-point predictor (an ensemble of regression trees in cascaded
// stages), read from dlib's model file and evaluated here to dlib's own
// arithmetic: the same features, the same tree walks and the same sums in
// the same order, so the landmarks are dlib's to the bit (before dlib
// rounds them to whole pixels, which is left out here). What differs is
// the memory: dlib keeps each leaf (136 floats) in its own allocation and
// walks a tree just before adding its leaf, so nearly all its time goes on
// waiting for leaves to arrive from a model of about 100 MB. Here a stage's
// leaves lie in one block, every tree of the stage is walked first, and the
// leaves are fetched a few trees ahead of the sum.
//
// The model, read once, is shared by every predictor made from it (it is
// only read while predicting); each predictor has its own working memory.
struct CascadeModel {
    struct Tree {
        std::size_t firstSplit = 0, splitCount = 0, firstLeaf = 0;
    };
    struct Stage {
        std::vector<unsigned long> anchors;
        std::vector<dlib::vector<float, 2>> deltas;
        std::vector<dlib::impl::split_feature> splits;
        std::vector<float> leaves;
        std::vector<Tree> trees;
    };
    dlib::matrix<float, 0, 1> initial;
    std::vector<Stage> stages;

    // Reads a model in dlib's shape_predictor format. Throws
    // dlib::serialization_error (a file cut short or not of that format)
    // and std::runtime_error (a model of another version or shape).
    explicit CascadeModel(std::istream& in)
    {
        int version = 0;
        dlib::deserialize(version, in);
        if (version != 1) throw std::runtime_error("it is of version " + std::to_string(version) + " of the shape predictor format, not 1");
        std::vector<std::vector<dlib::impl::regression_tree>> forests;
        std::vector<std::vector<unsigned long>> anchors;
        std::vector<std::vector<dlib::vector<float, 2>>> deltas;
        dlib::deserialize(initial, in);
        dlib::deserialize(forests, in);
        dlib::deserialize(anchors, in);
        dlib::deserialize(deltas, in);
        auto dimension = static_cast<std::size_t>(initial.size());
        if (forests.size() != anchors.size() || forests.size() != deltas.size() || dimension != 2 * 68)
            throw std::runtime_error("the model is not a 68-point shape predictor");
        for (std::size_t s = 0; s < forests.size(); ++s) {
            Stage stage;
            stage.anchors = std::move(anchors[s]);
            stage.deltas = std::move(deltas[s]);
            if (stage.anchors.size() != stage.deltas.size()) throw std::runtime_error("a stage's feature pixels do not match their anchors");
            for (unsigned long anchor : stage.anchors)
                if (anchor >= dimension / 2) throw std::runtime_error("a feature pixel is placed by a point the model does not have");
            for (auto const& tree : forests[s]) {
                if (tree.leaf_values.size() != tree.splits.size() + 1) throw std::runtime_error("a tree is not complete");
                for (auto const& split : tree.splits)
                    if (split.idx1 >= stage.deltas.size() || split.idx2 >= stage.deltas.size())
                        throw std::runtime_error("a tree compares pixels the stage does not have");
                stage.trees.push_back({stage.splits.size(), tree.splits.size(), stage.leaves.size()});
                stage.splits.insert(stage.splits.end(), tree.splits.begin(), tree.splits.end());
                for (auto const& leaf : tree.leaf_values) {
                    if (static_cast<std::size_t>(leaf.size()) != dimension) throw std::runtime_error("a leaf does not move every point");
                    stage.leaves.insert(stage.leaves.end(), leaf.begin(), leaf.end());
                }
            }
            stages.push_back(std::move(stage));
        }
    }
};

class CascadePredictor : public LandmarkPredictor {
public:
    explicit CascadePredictor(std::shared_ptr<CascadeModel const> model) : model_(std::move(model)) {}

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
        auto shape = shapeIn(r);
        // Mapped from the box's unit square as dlib maps them, but not
        // rounded to whole pixels as dlib's points are: the lips of a small
        // face are a few pixels apart, and a syllable opens them by one or
        // two.
        dlib::point_transform_affine const toImage = dlib::impl::unnormalizing_tform(r);
        for (std::size_t i = 0; i < out.size(); ++i) {
            dlib::vector<double, 2> p = toImage(dlib::impl::location(shape, static_cast<unsigned long>(i)));
            out[i] = {p.x() + x0, p.y() + y0};
        }
        return out;
    }

private:
    // The shape's points in the unit square of `r`, a box on image_.
    dlib::matrix<float, 0, 1> shapeIn(dlib::rectangle const& r)
    {
        dlib::matrix<float, 0, 1> shape = model_->initial;
        auto dimension = static_cast<std::size_t>(shape.size());
        for (auto const& stage : model_->stages) {
            dlib::impl::extract_feature_pixel_values(image_, r, shape, model_->initial, stage.anchors, stage.deltas, features_);
            chosen_.resize(stage.trees.size());
            for (std::size_t t = 0; t < stage.trees.size(); ++t) {
                auto const& tree = stage.trees[t];
                dlib::impl::split_feature const* splits = stage.splits.data() + tree.firstSplit;
                std::size_t i = 0;
                while (i < tree.splitCount) {
                    auto const& split = splits[i];
                    i = features_[split.idx1] - features_[split.idx2] > split.thresh ? 2 * i + 1 : 2 * i + 2;
                }
                chosen_[t] = stage.leaves.data() + tree.firstLeaf + (i - tree.splitCount) * dimension;
            }
            float* sum = &shape(0);
            constexpr std::size_t kAhead = 6;
            for (std::size_t t = 0; t < chosen_.size(); ++t) {
                if (t + kAhead < chosen_.size())
                    for (std::size_t k = 0; k < dimension; k += 16) __builtin_prefetch(chosen_[t + kAhead] + k);
                float const* leaf = chosen_[t];
                for (std::size_t k = 0; k < dimension; ++k) sum[k] += leaf[k];
            }
        }
        return shape;
    }

    std::shared_ptr<CascadeModel const> model_;
    dlib::array2d<unsigned char> image_;
    std::vector<float> features_;
    std::vector<float const*> chosen_;
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
    // dlib builds its detector from text held in the library, a quarter of a
    // second each time; a copy of one built once is made in no time. Each
    // finder has its own copy: finding faces uses the detector's memory.
    static dlib::frontal_face_detector const& built()
    {
        static dlib::frontal_face_detector const once = dlib::get_frontal_face_detector();
        return once;
    }
    dlib::frontal_face_detector detector_ = built();
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
    m.jaw = (distance(p[33], p[7]) + distance(p[33], p[8]) + distance(p[33], p[9])) / 3 / eyes;
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
    // The patch: centred on the outer lip line's points, its rows along
    // the line through the eye corners, so that a tilted head gives the
    // same patch; read between pixels, clamped to the picture.
    double cx = 0, cy = 0;
    for (std::size_t i = 48; i < 60; ++i) {
        cx += p[i].x;
        cy += p[i].y;
    }
    cx /= 12;
    cy /= 12;
    double ux = (p[45].x - p[36].x) / eyes, uy = (p[45].y - p[36].y) / eyes;
    auto at = [&](int x, int y) { return static_cast<double>(grey[static_cast<std::ptrdiff_t>(y) * stride + x]); };
    for (int row = 0; row < kMouthPatchHeight; ++row)
        for (int column = 0; column < kMouthPatchWidth; ++column) {
            double across = (-0.45 + 0.9 * (column + 0.5) / kMouthPatchWidth) * eyes;
            double down = (-0.25 + 0.5 * (row + 0.5) / kMouthPatchHeight) * eyes;
            double x = std::clamp(cx + across * ux - down * uy, 0.0, width - 1.0);
            double y = std::clamp(cy + across * uy + down * ux, 0.0, height - 1.0);
            int x0 = std::min(static_cast<int>(x), std::max(0, width - 2)), y0 = std::min(static_cast<int>(y), std::max(0, height - 2));
            int x1 = std::min(x0 + 1, width - 1), y1 = std::min(y0 + 1, height - 1);
            double fx = x - x0, fy = y - y0;
            double v = (1 - fy) * ((1 - fx) * at(x0, y0) + fx * at(x1, y0)) + fy * ((1 - fx) * at(x0, y1) + fx * at(x1, y1));
            m.patch[static_cast<std::size_t>(row * kMouthPatchWidth + column)] = static_cast<std::uint8_t>(std::lround(std::min(255.0, 128 * v / nose)));
        }
    m.hasPatch = true;
    return m;
}

void mouthLooks(std::vector<MouthShape>& shapes)
{
    constexpr std::size_t d = kMouthPatchWidth * kMouthPatchHeight;
    for (auto& s : shapes) s.look = 0;
    std::size_t n = static_cast<std::size_t>(std::count_if(shapes.begin(), shapes.end(), [](MouthShape const& s) { return s.hasPatch; }));
    if (n < 3) return;
    std::vector<double> mean(d, 0.0);
    for (auto const& s : shapes)
        if (s.hasPatch)
            for (std::size_t k = 0; k < d; ++k) mean[k] += s.patch[k];
    for (double& v : mean) v /= static_cast<double>(n);
    // The patches' covariance (its upper half; d is small), then its
    // leading eigenvector by power iteration from the all-ones direction.
    std::vector<double> cov(d * d, 0.0), x(d);
    for (auto const& s : shapes) {
        if (!s.hasPatch) continue;
        for (std::size_t k = 0; k < d; ++k) x[k] = s.patch[k] - mean[k];
        for (std::size_t a = 0; a < d; ++a) {
            double xa = x[a];
            double* row = &cov[a * d];
            for (std::size_t b = a; b < d; ++b) row[b] += xa * x[b];
        }
    }
    for (std::size_t a = 0; a < d; ++a)
        for (std::size_t b = 0; b < a; ++b) cov[a * d + b] = cov[b * d + a];
    std::vector<double> v(d, 1.0 / std::sqrt(static_cast<double>(d))), next(d);
    for (int iteration = 0; iteration < 200; ++iteration) {
        double norm = 0;
        for (std::size_t a = 0; a < d; ++a) {
            double sum = 0;
            for (std::size_t b = 0; b < d; ++b) sum += cov[a * d + b] * v[b];
            next[a] = sum;
            norm += sum * sum;
        }
        norm = std::sqrt(norm);
        if (!(norm > 0)) return; // every patch alike: nothing to see
        for (std::size_t a = 0; a < d; ++a) next[a] /= norm;
        std::swap(v, next);
    }
    double sumOpening = 0, sumLook = 0, sumBoth = 0;
    for (auto& s : shapes) {
        if (!s.hasPatch) continue;
        double look = 0;
        for (std::size_t k = 0; k < d; ++k) look += (s.patch[k] - mean[k]) * v[k];
        s.look = look;
        sumOpening += s.opening;
        sumLook += look;
        sumBoth += s.opening * look;
    }
    if (sumBoth - sumOpening * sumLook / static_cast<double>(n) < 0)
        for (auto& s : shapes) s.look = -s.look;
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
    // Reading the model takes longer than finding the points of a short
    // clip's every face: the last one read is kept for the next suggestion,
    // as long as its file is the same (path, size and time of change).
    static std::mutex lock;
    static struct {
        std::string path;
        std::uintmax_t size = 0;
        std::filesystem::file_time_type changed{};
        std::shared_ptr<CascadeModel const> model;
    } kept;
    std::error_code failed;
    auto size = std::filesystem::file_size(path, failed);
    auto changed = failed ? std::filesystem::file_time_type{} : std::filesystem::last_write_time(path, failed);
    std::lock_guard guard(lock);
    if (!failed && kept.model && kept.path == path && kept.size == size && kept.changed == changed)
        return std::make_unique<CascadePredictor>(kept.model);
    try {
        std::ifstream in(path, std::ios::binary);
        auto model = std::make_shared<CascadeModel const>(in);
        if (!failed) kept = {path, size, changed, model};
        return std::make_unique<CascadePredictor>(std::move(model));
    } catch (std::exception const& e) {
        if (why) *why = "the facial landmark model \"" + path + "\" cannot be read: " + e.what();
        return nullptr;
    }
}

} // namespace media
