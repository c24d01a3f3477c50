#include "SampleBundles.h"

#include "Boxes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

namespace media {

bool SampleBundler::suits(AVStream const* st)
{
    // AAC with its decoder configuration in the stream header: frames as
    // they are stored. AAC copied from MPEG-TS or raw ADTS has none; each
    // frame carries an ADTS header that the muxer strips packet by packet,
    // which a bundle of frames would defeat.
    return st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO && st->codecpar->codec_id == AV_CODEC_ID_AAC
        && st->codecpar->extradata_size > 0;
}

void SampleBundler::enable(int index) { streams_[index]; }

void SampleBundler::append(std::vector<Run>& runs, std::int64_t value)
{
    if (!runs.empty() && runs.back().value == value && runs.back().count < UINT32_MAX) ++runs.back().count;
    else runs.push_back({1, value});
}

int SampleBundler::emit(int index, Stream& s, Write const& write)
{
    if (s.frames == 0) return 0;
    Packet pkt = makePacket();
    int rc = av_new_packet(pkt.get(), static_cast<int>(s.data.size()));
    if (rc < 0) return rc;
    std::memcpy(pkt->data, s.data.data(), s.data.size());
    pkt->stream_index = index;
    pkt->dts = s.dts;
    pkt->pts = s.pts;
    pkt->duration = s.duration;
    pkt->flags = s.flags;
    append(s.bundles, s.frames);
    s.data.clear();
    s.frames = 0;
    s.duration = 0;
    return write(pkt.get());
}

int SampleBundler::single(int index, Stream& s, AVPacket* pkt, Write const& write)
{
    // A packet the muxer may look into (side data such as new codec
    // parameters), or one out of line, goes alone, as it would unbundled.
    int rc = emit(index, s, write);
    if (rc < 0) {
        av_packet_unref(pkt);
        return rc;
    }
    if (pkt->size > 0) { // the muxer drops empty packets without an entry
        s.sizes.push_back(static_cast<std::uint32_t>(pkt->size));
        append(s.durations, pkt->duration);
        append(s.bundles, 1);
    }
    return write(pkt);
}

int SampleBundler::add(AVPacket* pkt, Write const& write)
{
    int index = pkt->stream_index;
    Stream& s = streams_.at(index);
    bool plain = pkt->size > 0 && pkt->side_data_elems == 0 && pkt->dts != AV_NOPTS_VALUE && pkt->pts == pkt->dts
              && pkt->duration > 0;
    if (!plain) return single(index, s, pkt, write);
    bool joins = s.frames > 0 && s.frames < kFrames && pkt->dts == s.dts + s.duration && pkt->flags == s.flags
              && s.data.size() + static_cast<std::size_t>(pkt->size) <= kMaxBytes;
    if (s.frames > 0 && !joins) {
        int rc = emit(index, s, write);
        if (rc < 0) {
            av_packet_unref(pkt);
            return rc;
        }
    }
    if (s.frames == 0) {
        s.dts = pkt->dts;
        s.pts = pkt->pts;
        s.flags = pkt->flags;
    }
    s.data.insert(s.data.end(), pkt->data, pkt->data + pkt->size);
    s.duration += pkt->duration;
    ++s.frames;
    s.sizes.push_back(static_cast<std::uint32_t>(pkt->size));
    append(s.durations, pkt->duration);
    av_packet_unref(pkt);
    return 0;
}

int SampleBundler::flush(Write const& write)
{
    for (auto& [index, s] : streams_) {
        int rc = emit(index, s, write);
        if (rc < 0) return rc;
    }
    return 0;
}

std::int64_t SampleBundler::framesBundled() const
{
    std::int64_t n = 0;
    for (auto const& [index, s] : streams_) n += static_cast<std::int64_t>(s.sizes.size());
    return n;
}

std::int64_t SampleBundler::bundlesWritten() const
{
    std::int64_t n = 0;
    for (auto const& [index, s] : streams_)
        for (auto const& r : s.bundles) n += r.count;
    return n;
}

namespace {

using Bytes = std::vector<std::uint8_t>;
using View = std::span<std::uint8_t const>;

[[noreturn]] void damaged(std::string const& what)
{
    throw MediaError("The new file's sample tables could not be completed: " + what + ".");
}

std::uint32_t be32(View v, std::size_t at)
{
    if (at + 4 > v.size()) damaged("a table ends early");
    return (std::uint32_t{v[at]} << 24) | (std::uint32_t{v[at + 1]} << 16) | (std::uint32_t{v[at + 2]} << 8) | v[at + 3];
}

std::uint64_t be64(View v, std::size_t at) { return (std::uint64_t{be32(v, at)} << 32) | be32(v, at + 4); }

void put32(Bytes& out, std::uint32_t x)
{
    out.push_back(static_cast<std::uint8_t>(x >> 24));
    out.push_back(static_cast<std::uint8_t>(x >> 16));
    out.push_back(static_cast<std::uint8_t>(x >> 8));
    out.push_back(static_cast<std::uint8_t>(x));
}

struct Box {
    std::string type;
    View whole;   // header and payload
    View payload;
};

// The boxes that follow one another in `v`.
std::vector<Box> boxesIn(View v)
{
    std::vector<Box> out;
    std::size_t at = 0;
    while (at < v.size()) {
        if (v.size() - at < 8) damaged("a box is cut short");
        std::uint64_t size = be32(v, at);
        std::size_t header = 8;
        if (size == 1) {
            size = be64(v, at + 8);
            header = 16;
        } else if (size == 0) {
            size = v.size() - at;
        }
        if (size < header || size > v.size() - at) damaged("a box is larger than what holds it");
        Box b;
        b.type.assign(reinterpret_cast<char const*>(v.data() + at + 4), 4);
        b.whole = v.subspan(at, static_cast<std::size_t>(size));
        b.payload = b.whole.subspan(header);
        out.push_back(b);
        at += static_cast<std::size_t>(size);
    }
    return out;
}

Bytes boxOf(std::string const& type, Bytes const& payload)
{
    if (payload.size() > UINT32_MAX - 8) damaged("a box grew past 4 GB");
    Bytes out;
    out.reserve(payload.size() + 8);
    put32(out, static_cast<std::uint32_t>(payload.size() + 8));
    out.insert(out.end(), type.begin(), type.end());
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

// `box` with the single child named path[0] (and so on down) rebuilt by
// `leaf` from its payload; every other box as it was.
Bytes rebuild(Box const& box, std::span<char const* const> path, std::function<Bytes(View)> const& leaf)
{
    if (path.empty()) return boxOf(box.type, leaf(box.payload));
    Bytes payload;
    int found = 0;
    for (Box const& child : boxesIn(box.payload)) {
        if (child.type == path[0]) {
            ++found;
            Bytes b = rebuild(child, path.subspan(1), leaf);
            payload.insert(payload.end(), b.begin(), b.end());
        } else {
            payload.insert(payload.end(), child.whole.begin(), child.whole.end());
        }
    }
    if (found != 1) damaged("\"" + box.type + "\" holds " + std::to_string(found) + " \"" + path[0] + "\" boxes");
    return boxOf(box.type, payload);
}

std::uint32_t trackIdOf(Box const& trak)
{
    for (Box const& child : boxesIn(trak.payload))
        if (child.type == "tkhd") {
            // version and flags, then the creation and modification times
            // (32 or 64 bits each), then the track ID.
            return be32(child.payload, child.payload.empty() || child.payload[0] == 0 ? 12 : 20);
        }
    damaged("a track has no header");
}

// Run-length counts expanded one by one.
class RunReader {
public:
    explicit RunReader(std::vector<SampleBundler::Run> const& runs) : runs_(runs) {}
    std::int64_t next()
    {
        while (at_ < runs_.size() && used_ == runs_[at_].count) {
            ++at_;
            used_ = 0;
        }
        if (at_ == runs_.size()) damaged("a table lists fewer samples than were written");
        ++used_;
        return runs_[at_].value;
    }

private:
    std::vector<SampleBundler::Run> const& runs_;
    std::size_t at_ = 0;
    std::uint32_t used_ = 0;
};

} // namespace

void SampleBundler::rewriteTables(int fd, WriteAt const& writeAt) const
{
    struct stat st {};
    if (::fstat(fd, &st) != 0) throw MediaError(std::string("Reading the new file failed: ") + std::strerror(errno) + ".");
    // The top-level boxes: the movie header comes last.
    std::int64_t size = st.st_size;
    BoxHeader moovBox;
    bool haveMoov = false;
    for (std::int64_t at = 0; at < size;) {
        BoxHeader b;
        if (!readBoxHeader(fd, at, size, b)) damaged("a box runs past the end of the file");
        if (b.is("moov")) {
            if (haveMoov) damaged("the file has two movie headers");
            moovBox = b;
            haveMoov = true;
        }
        at += b.size;
    }
    if (!haveMoov || moovBox.at + moovBox.size != size) damaged("the movie header is not at the end of the file");
    std::int64_t moovAt = moovBox.at, moovSize = moovBox.size;

    Bytes moovBytes(static_cast<std::size_t>(moovSize));
    for (std::size_t done = 0; done < moovBytes.size();) {
        ssize_t r = ::pread(fd, moovBytes.data() + done, moovBytes.size() - done, static_cast<off_t>(moovAt + static_cast<std::int64_t>(done)));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) throw MediaError(std::string("Reading the new file failed: ") + (r < 0 ? std::strerror(errno) : "it ends early") + ".");
        done += static_cast<std::size_t>(r);
    }
    auto top = boxesIn(View(moovBytes));
    Box const& moov = top.front();

    Bytes payload;
    std::size_t rewritten = 0;
    for (Box const& child : boxesIn(moov.payload)) {
        Bytes b;
        if (child.type == "trak") {
            // The muxer numbers the tracks of its streams from 1 in stream order.
            std::uint32_t id = trackIdOf(child);
            auto it = id >= 1 ? streams_.find(static_cast<int>(id - 1)) : streams_.end();
            if (it != streams_.end() && !it->second.sizes.empty()) {
                static constexpr std::array<char const*, 3> kPath = {"mdia", "minf", "stbl"};
                Stream const& s = it->second;
                b = rebuild(child, kPath, [&s](View stbl) { return tablesFor(s, stbl); });
                ++rewritten;
            }
        }
        if (b.empty()) payload.insert(payload.end(), child.whole.begin(), child.whole.end());
        else payload.insert(payload.end(), b.begin(), b.end());
    }
    std::size_t expected = 0;
    for (auto const& [index, s] : streams_) expected += s.sizes.empty() ? 0 : 1;
    if (rewritten != expected) damaged("a bundled track is missing from the movie header");
    Bytes out = boxOf("moov", payload);
    // The tables only grow; a header that shrank leaves nothing behind.
    writeAt(moovAt, out.data(), out.size());
    if (static_cast<std::int64_t>(out.size()) < moovSize && ::ftruncate(fd, moovAt + static_cast<std::int64_t>(out.size())) != 0)
        throw MediaError(std::string("Writing the new file failed (truncate): ") + std::strerror(errno) + ".");
}

Bytes SampleBundler::tablesFor(Stream const& s, View stbl)
{
    auto boxes = boxesIn(stbl);
    auto find = [&boxes](char const* type) -> Box const* {
        Box const* found = nullptr;
        for (Box const& b : boxes)
            if (b.type == type) {
                if (found) damaged(std::string("two \"") + type + "\" tables");
                found = &b;
            }
        return found;
    };
    for (char const* unexpected : {"stss", "ctts", "sdtp", "stps", "stz2", "cslg"})
        if (find(unexpected)) damaged(std::string("a bundled sound track has a \"") + unexpected + "\" table");
    Box const* stts = find("stts");
    Box const* stsc = find("stsc");
    Box const* stsz = find("stsz");
    Box const* stco = find("stco");
    Box const* co64 = find("co64");
    if (!stts || !stsc || !stsz || (!stco == !co64)) damaged("a bundled sound track lacks a table");

    // Frames per written sample, expanded.
    std::vector<std::uint32_t> perSample;
    for (auto const& r : s.bundles) perSample.insert(perSample.end(), r.count, static_cast<std::uint32_t>(r.value));
    std::size_t samples = perSample.size();

    // Sizes: every written sample is its frames' bytes.
    std::uint32_t fixedSize = be32(stsz->payload, 4);
    if (be32(stsz->payload, 8) != samples) damaged("the sample count differs from what was written");
    {
        std::size_t frame = 0;
        for (std::size_t k = 0; k < samples; ++k) {
            std::uint64_t sum = 0;
            for (std::uint32_t f = 0; f < perSample[k]; ++f) sum += s.sizes[frame++];
            std::uint32_t written = fixedSize ? fixedSize : be32(stsz->payload, 12 + 4 * k);
            if (sum != written) damaged("a sample's size differs from what was written");
        }
    }

    // Durations: the frames keep theirs; the last of each sample takes what
    // the muxer gave the sample beyond them (a gap to the next one).
    Bytes newStts;
    {
        std::vector<Run> written;
        std::uint32_t entries = be32(stts->payload, 4);
        for (std::uint32_t i = 0; i < entries; ++i) written.push_back({be32(stts->payload, 8 + 8 * i), be32(stts->payload, 12 + 8 * i)});
        RunReader sampleDuration(written), frameDuration(s.durations);
        std::vector<Run> out;
        for (std::size_t k = 0; k < samples; ++k) {
            std::int64_t total = sampleDuration.next(), sum = 0;
            for (std::uint32_t f = 0; f + 1 < perSample[k]; ++f) {
                std::int64_t d = frameDuration.next();
                sum += d;
                append(out, d);
            }
            frameDuration.next();
            append(out, static_cast<std::uint32_t>(total - sum));
        }
        put32(newStts, 0);
        put32(newStts, static_cast<std::uint32_t>(out.size()));
        for (auto const& r : out) {
            put32(newStts, r.count);
            put32(newStts, static_cast<std::uint32_t>(r.value));
        }
    }

    // Sample to chunk: the chunks stay; each holds the frames of its samples.
    Bytes newStsc;
    {
        std::uint32_t chunks = be32((stco ? stco : co64)->payload, 4);
        std::uint32_t entries = be32(stsc->payload, 4);
        struct Entry {
            std::uint32_t first, perChunk, description;
        };
        std::vector<Entry> in;
        for (std::uint32_t i = 0; i < entries; ++i)
            in.push_back({be32(stsc->payload, 8 + 12 * i), be32(stsc->payload, 12 + 12 * i), be32(stsc->payload, 16 + 12 * i)});
        std::vector<Entry> out;
        std::size_t k = 0;
        for (std::uint32_t i = 0; i < in.size(); ++i) {
            std::uint32_t last = i + 1 < in.size() ? in[i + 1].first - 1 : chunks;
            if (in[i].first == 0 || last + 1 < in[i].first) damaged("the sample-to-chunk table is out of order");
            for (std::uint32_t c = in[i].first; c <= last; ++c) {
                std::uint64_t frames = 0;
                for (std::uint32_t j = 0; j < in[i].perChunk; ++j) {
                    if (k == samples) damaged("the chunks hold more samples than were written");
                    frames += perSample[k++];
                }
                if (frames > UINT32_MAX) damaged("a chunk holds too many frames");
                if (out.empty() || out.back().perChunk != frames || out.back().description != in[i].description)
                    out.push_back({c, static_cast<std::uint32_t>(frames), in[i].description});
            }
        }
        if (k != samples) damaged("the chunks hold fewer samples than were written");
        put32(newStsc, 0);
        put32(newStsc, static_cast<std::uint32_t>(out.size()));
        for (auto const& e : out) {
            put32(newStsc, e.first);
            put32(newStsc, e.perChunk);
            put32(newStsc, e.description);
        }
    }

    Bytes newStsz;
    {
        bool same = std::all_of(s.sizes.begin(), s.sizes.end(), [&s](std::uint32_t x) { return x == s.sizes.front(); });
        put32(newStsz, 0);
        put32(newStsz, same ? s.sizes.front() : 0);
        put32(newStsz, static_cast<std::uint32_t>(s.sizes.size()));
        if (!same) {
            newStsz.reserve(12 + 4 * s.sizes.size());
            for (std::uint32_t x : s.sizes) put32(newStsz, x);
        }
    }

    // Sample groups (AAC's roll group): each run counts frames now.
    auto regroup = [&perSample, samples](View sbgp) {
        Bytes out(sbgp.begin(), sbgp.end());
        std::size_t head = sbgp.empty() ? 0 : (sbgp[0] == 1 ? 12 : 8);
        std::uint32_t entries = be32(sbgp, head);
        std::size_t k = 0;
        for (std::uint32_t i = 0; i < entries; ++i) {
            std::size_t at = head + 4 + 8 * i;
            std::uint32_t count = be32(sbgp, at);
            std::uint64_t frames = 0;
            for (std::uint32_t j = 0; j < count; ++j) {
                if (k == samples) damaged("a sample group lists more samples than were written");
                frames += perSample[k++];
            }
            if (frames > UINT32_MAX) damaged("a sample group holds too many frames");
            for (int b = 0; b < 4; ++b) out[at + static_cast<std::size_t>(b)] = static_cast<std::uint8_t>(frames >> (24 - 8 * b));
        }
        return out;
    };

    Bytes out;
    for (Box const& b : boxes) {
        Bytes replaced;
        if (b.type == "stts") replaced = boxOf("stts", newStts);
        else if (b.type == "stsc") replaced = boxOf("stsc", newStsc);
        else if (b.type == "stsz") replaced = boxOf("stsz", newStsz);
        else if (b.type == "sbgp") replaced = boxOf("sbgp", regroup(b.payload));
        if (replaced.empty()) out.insert(out.end(), b.whole.begin(), b.whole.end());
        else out.insert(out.end(), replaced.begin(), replaced.end());
    }
    return out;
}

} // namespace media
