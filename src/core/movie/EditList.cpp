#include "EditList.h"

#include <algorithm>
#include <stdexcept>

namespace dm {

std::int64_t roundDiv(__int128 n, __int128 d)
{
    __int128 q = n / d;
    __int128 r = n % d;
    if (r < 0) { // floor division
        q -= 1;
        r += d;
    }
    __int128 twice = 2 * r;
    if (twice > d || (twice == d && (q & 1) != 0)) q += 1;
    return static_cast<std::int64_t>(q);
}

namespace {

bool contiguous(Segment const& a, Segment const& b)
{
    if (a.isEmpty() || b.isEmpty()) return false;
    if (a.mediaStart + a.mediaLength != b.mediaStart) return false;
    // Same speed: a.len / a.dur == b.len / b.dur.
    return (__int128)a.mediaLength * b.duration == (__int128)b.mediaLength * a.duration;
}

std::vector<Segment> normalise(std::vector<Segment> in)
{
    std::vector<Segment> out;
    out.reserve(in.size());
    for (Segment const& s : in) {
        if (s.duration < 0) throw std::invalid_argument("segment with a negative duration");
        if (s.duration == 0) continue;
        Segment seg = s;
        if (seg.isEmpty()) {
            seg.mediaStart = -1;
            seg.mediaLength = 0;
        }
        if (!out.empty()) {
            Segment& last = out.back();
            if (last.isEmpty() && seg.isEmpty()) {
                last.duration += seg.duration;
                continue;
            }
            if (contiguous(last, seg)) {
                last.duration += seg.duration;
                last.mediaLength += seg.mediaLength;
                continue;
            }
        }
        out.push_back(seg);
    }
    while (!out.empty() && out.back().isEmpty()) out.pop_back();
    return out;
}

// Splits `v` so that a boundary lies at `t` (padding with empty time when
// `t` is past the end) and returns the index of the segment starting there.
std::size_t splitAt(std::vector<Segment>& v, std::int64_t t)
{
    std::int64_t pos = 0;
    for (std::size_t i = 0; i < v.size(); ++i) {
        if (pos == t) return i;
        Segment& s = v[i];
        if (t < pos + s.duration) {
            std::int64_t x = t - pos;
            Segment left = s, right = s;
            left.duration = x;
            right.duration = s.duration - x;
            if (!s.isEmpty()) {
                std::int64_t mediaX = roundDiv((__int128)x * s.mediaLength, s.duration);
                left.mediaLength = mediaX;
                right.mediaStart = s.mediaStart + mediaX;
                right.mediaLength = s.mediaLength - mediaX;
            }
            v[i] = left;
            v.insert(v.begin() + static_cast<std::ptrdiff_t>(i) + 1, right);
            return i + 1;
        }
        pos += s.duration;
    }
    if (t > pos) v.push_back(Segment::empty(t - pos));
    return v.size();
}

} // namespace

EditList::EditList(std::vector<Segment> segments) : segments_(normalise(std::move(segments)))
{
    starts_.reserve(segments_.size());
    std::int64_t pos = 0;
    for (Segment const& s : segments_) {
        starts_.push_back(pos);
        pos += s.duration;
    }
    duration_ = pos;
}

std::int64_t EditList::materialStart() const
{
    if (!segments_.empty() && segments_.front().isEmpty()) return segments_.front().duration;
    return 0;
}

std::optional<EditList::Position> EditList::lookup(std::int64_t t) const
{
    if (t < 0 || t >= duration_) return std::nullopt;
    auto it = std::upper_bound(starts_.begin(), starts_.end(), t);
    std::size_t i = static_cast<std::size_t>(it - starts_.begin()) - 1;
    Segment const& s = segments_[i];
    double media = 0.0;
    if (!s.isEmpty())
        media = static_cast<double>(s.mediaStart)
              + static_cast<double>((__int128)(t - starts_[i]) * s.mediaLength) / static_cast<double>(s.duration);
    return Position{i, starts_[i], s, media};
}

std::vector<Segment> EditList::slice(std::int64_t a, std::int64_t b) const
{
    if (a < 0 || b < a) throw std::invalid_argument("bad edit range");
    std::vector<Segment> v = segments_;
    std::size_t ia = splitAt(v, a);
    std::size_t ib = splitAt(v, b);
    return std::vector<Segment>(v.begin() + static_cast<std::ptrdiff_t>(ia), v.begin() + static_cast<std::ptrdiff_t>(ib));
}

EditList EditList::inserted(std::int64_t at, std::vector<Segment> const& piece) const
{
    if (at < 0) throw std::invalid_argument("insertion before time 0");
    std::vector<Segment> v = segments_;
    std::size_t i = splitAt(v, at);
    v.insert(v.begin() + static_cast<std::ptrdiff_t>(i), piece.begin(), piece.end());
    return EditList(std::move(v));
}

EditList EditList::erased(std::int64_t a, std::int64_t b) const
{
    if (a < 0 || b < a) throw std::invalid_argument("bad edit range");
    if (a >= duration_) return *this;
    b = std::min(b, duration_);
    std::vector<Segment> v = segments_;
    std::size_t ia = splitAt(v, a);
    std::size_t ib = splitAt(v, b);
    v.erase(v.begin() + static_cast<std::ptrdiff_t>(ia), v.begin() + static_cast<std::ptrdiff_t>(ib));
    return EditList(std::move(v));
}

EditList EditList::scaled(std::int64_t a, std::int64_t b, std::int64_t newDuration) const
{
    if (a < 0 || b < a || newDuration < 0) throw std::invalid_argument("bad edit range");
    if (a == b) return *this;
    std::vector<Segment> v = segments_;
    std::size_t ia = splitAt(v, a);
    std::size_t ib = splitAt(v, b);
    std::int64_t old = b - a, cum = 0, prevBoundary = 0;
    for (std::size_t i = ia; i < ib; ++i) {
        cum += v[i].duration;
        std::int64_t boundary = roundDiv((__int128)cum * newDuration, old);
        v[i].duration = boundary - prevBoundary;
        prevBoundary = boundary;
    }
    return EditList(std::move(v));
}

std::vector<Segment> rescaleDurations(std::vector<Segment> const& segments, std::int32_t from, std::int32_t to)
{
    if (from <= 0 || to <= 0) throw std::invalid_argument("bad time scale");
    if (from == to) return segments;
    std::vector<Segment> out = segments;
    std::int64_t cum = 0, prevBoundary = 0;
    for (Segment& s : out) {
        cum += s.duration;
        std::int64_t boundary = roundDiv((__int128)cum * to, from);
        s.duration = boundary - prevBoundary;
        prevBoundary = boundary;
    }
    return out;
}

} // namespace dm
