// Exports: the seven export types, and the writers of the ones that are not
// a flat movie (BMP pictures, FLC animations).
#include "MovieWriter.h"
#include "WritePlan.h"

#include "AtomicFile.h"
#include "Codec.h"
#include "FlcWriter.h"
#include "SaveCheck.h"
#include "MovieFile.h"
#include "WriteProgress.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>

namespace media {

using namespace writeplan;

std::vector<ExportFormat> const& exportFormats()
{
    static const std::vector<ExportFormat> formats = {
        {ExportType::AIFF, "AIFF Audio", "aiff"},
        {ExportType::BMP, "BMP Image", "bmp"},
        {ExportType::DV, "DV Stream", "dv"},
        {ExportType::FLC, "FLC Animation", "flc"},
        {ExportType::MPEG4, "MPEG-4", "mp4"},
        {ExportType::QuickTime, "QuickTime Movie", "mov"},
        {ExportType::QuickTimeWeb, "QuickTime Movie for the Web", "mov"},
    };
    return formats;
}

ExportType exportTypeNamed(std::string const& name)
{
    for (auto const& f : exportFormats()) {
        auto code = static_cast<std::uint32_t>(f.type);
        std::string fourcc{static_cast<char>(code >> 24), static_cast<char>(code >> 16), static_cast<char>(code >> 8), static_cast<char>(code)};
        if (name == fourcc || (name.size() == 3 && fourcc == name + " ")) return f.type;
    }
    static const std::map<std::string, ExportType> byName = {
        {"aiff", ExportType::AIFF}, {"aif", ExportType::AIFF}, {"bmp", ExportType::BMP}, {"dv", ExportType::DV},
        {"flc", ExportType::FLC}, {"mp4", ExportType::MPEG4}, {"mpeg4", ExportType::MPEG4}, {"mov", ExportType::QuickTime},
        {"quicktime", ExportType::QuickTime}, {"web", ExportType::QuickTimeWeb}, {"mov-web", ExportType::QuickTimeWeb},
    };
    std::string lower;
    for (char c : name) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    auto it = byName.find(lower);
    if (it == byName.end()) throw MediaError("Unknown export type \"" + name + "\".");
    return it->second;
}


namespace {

WriteResult writeBmp(dm::Movie const& movie, std::string const& path, myQTTime const& when)
{
    dm::TrackPtr video;
    for (auto const& t : movie.tracksOfMediaType(dm::MediaType::Video))
        if (t->isEnabled()) {
            video = t;
            break;
        }
    if (!video) throw MediaError("The movie has no picture to export.");
    FrameOnScreen source(std::static_pointer_cast<const FileMedia>(video->media()));
    double target = when.seconds() - static_cast<double>(video->editList()->materialStart()) / video->timeScale();
    source.seek(target);
    AVFrame* best = source.at(target);
    if (!best) throw MediaError("No picture could be decoded at that time.");
    Scaler scaler;
    AVFrame* rgb = scaler.convert(best, best->width, best->height, AV_PIX_FMT_BGR24);
    AVCodec const* codec = avcodec_find_encoder(AV_CODEC_ID_BMP);
    if (!codec) throw MediaError("No BMP encoder.");
    CodecContext c(avcodec_alloc_context3(codec));
    if (!c) throw MediaError("Out of memory.");
    c->width = rgb->width;
    c->height = rgb->height;
    c->pix_fmt = AV_PIX_FMT_BGR24;
    c->time_base = AVRational{1, 25};
    check(avcodec_open2(c.get(), codec, nullptr), "Opening the BMP encoder");
    check(avcodec_send_frame(c.get(), rgb), "Encoding the picture");
    Packet pkt = makePacket();
    check(avcodec_receive_packet(c.get(), pkt.get()), "Encoding the picture");
    AVIOContext* io = nullptr;
    check(avio_open(&io, path.c_str(), AVIO_FLAG_WRITE), "Creating the image file");
    avio_write(io, pkt->data, pkt->size);
    int rc = io->error;
    check(avio_closep(&io), "Writing the image file");
    check(rc, "Writing the image file");
    WriteResult r;
    r.bytes = fileSize(path);
    return r;
}

WriteResult writeFlc(dm::Movie const& movie, std::string const& path, Progress const& progress)
{
    dm::TrackPtr video;
    for (auto const& t : movie.tracksOfMediaType(dm::MediaType::Video))
        if (t->isEnabled()) {
            video = t;
            break;
        }
    if (!video) throw MediaError("The movie has no pictures to export.");
    ProgressReporter report(progress, "Exporting");
    auto const& m = fileMedia(*video);
    double fps = m.frameRate.num > 0 ? av_q2d(m.frameRate) : 25.0;
    int w = m.width, h = m.height;
    if (w > 640) { // FLC is an animation format: keep frames small
        h = static_cast<int>(std::lround(static_cast<double>(h) * 640 / w));
        w = 640;
    }
    w &= ~1;
    h = std::max(h, 1);
    int msPerFrame = std::max(1, static_cast<int>(std::lround(1000.0 / fps)));
    double step = msPerFrame / 1000.0;
    double seconds = movie.duration().seconds();
    std::int64_t frames = std::min<std::int64_t>(65535, static_cast<std::int64_t>(std::floor(seconds / step)));
    FlcWriter flc(path, w, h, msPerFrame);
    FrameOnScreen source(std::static_pointer_cast<const FileMedia>(video->media()));
    double lead = static_cast<double>(video->editList()->materialStart()) / video->timeScale();
    Scaler scaler;
    for (std::int64_t n = 0; n < frames; ++n) {
        AVFrame* shown = source.at(static_cast<double>(n) * step - lead);
        if (!shown) throw MediaError("The video track has no pictures.");
        AVFrame* rgb = scaler.convert(shown, w, h, AV_PIX_FMT_RGB24);
        flc.addFrame(rgb->data[0], rgb->linesize[0]);
        report.update(static_cast<double>(n + 1) / static_cast<double>(frames));
    }
    flc.finish();
    WriteResult r;
    r.bytes = fileSize(path);
    report.end();
    return r;
}

} // namespace

WriteResult exportMovie(dm::Movie const& movie, std::string const& path, ExportType type, myQTTime const& currentTime,
                        Progress const& progress, SaveOptions const& options)
{
    Plan plan;
    plan.operation = "Exporting";
    plan.options = options;
    plan.options.soundCodec = SoundCodec::Same;
    switch (type) {
    case ExportType::QuickTime: break;
    case ExportType::QuickTimeWeb: plan.fastStart = true; break;
    case ExportType::MPEG4:
        plan.container = Container::Kind::Mpeg4;
        plan.enabledOnly = true;
        plan.forceAac = true;
        plan.videoMustBeH264OrMpeg4 = true;
        break;
    case ExportType::AIFF:
        plan.container = Container::Kind::Aiff;
        plan.enabledOnly = true;
        plan.soundOnly = true;
        break;
    case ExportType::DV:
        plan.container = Container::Kind::Dv;
        plan.enabledOnly = true;
        plan.dv = true;
        break;
    case ExportType::BMP:
    case ExportType::FLC: break;
    }
    bool flat = type != ExportType::BMP && type != ExportType::FLC;
    // Sound-only and DV files hold what they can by design; movie exports refuse losses as saves do.
    if (flat && !plan.container.isQuickTimeFamily()) plan.options.dropUnsupported = true;
    std::optional<Prepared> prepared;
    if (flat) {
        prepared = prepare(movie, plan);
        refuseLosses(*prepared, plan);
    }
    AtomicFile file(path, AtomicFile::Kind::NewOrReplace, options.target);
    WriteResult r;
    if (type == ExportType::BMP) {
        r = writeBmp(movie, file.path(), currentTime);
        verifyFileReadsAs(file.path(), "bmp_pipe", 1);
    } else if (type == ExportType::FLC) {
        r = writeFlc(movie, file.path(), progress);
        verifyFileReadsAs(file.path(), "flic", 1);
    } else {
        r = writeChecked(movie, file, plan, *prepared, progress);
    }
    file.commit();
    return r;
}

} // namespace media
