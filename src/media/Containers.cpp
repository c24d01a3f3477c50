#include "Containers.h"

#include <cctype>
#include <map>

namespace media {

namespace {

std::string lower(std::string s)
{
    for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// An in-memory output, freed with its buffer.
struct TrialOutput {
    AVFormatContext* fmt = nullptr;
    ~TrialOutput()
    {
        if (!fmt) return;
        if (fmt->pb) {
            std::uint8_t* buf = nullptr;
            avio_close_dyn_buf(fmt->pb, &buf);
            av_free(buf);
            fmt->pb = nullptr;
        }
        avformat_free_context(fmt);
    }
};

} // namespace

namespace {

struct Traits {
    Container::Kind kind;
    char const* muxer;
    char const* title;
    char const* extension;
};

constexpr Traits kTraits[] = {
    {Container::Kind::None, "", "", ""},
    {Container::Kind::QuickTime, "mov", "QuickTime", "mov"},
    {Container::Kind::Mpeg4, "mp4", "MPEG-4", "mp4"},
    {Container::Kind::Gpp, "3gp", "3GPP", "3gp"},
    {Container::Kind::Gpp2, "3g2", "3GPP2", "3g2"},
    {Container::Kind::Matroska, "matroska", "Matroska", "mkv"},
    {Container::Kind::WebM, "webm", "WebM", "webm"},
    {Container::Kind::Aiff, "aiff", "AIFF", "aiff"},
    {Container::Kind::Dv, "dv", "DV", "dv"},
};

Traits const& traits(Container::Kind kind) { return kTraits[static_cast<int>(kind)]; }

} // namespace

Container Container::named(std::string_view muxer)
{
    for (Traits const& t : kTraits)
        if (t.kind != Kind::None && muxer == t.muxer) return t.kind;
    return {};
}

Container Container::forPath(std::string const& path)
{
    auto slash = path.find_last_of('/');
    auto dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    static const std::map<std::string, Kind> byExtension = {
        {"mov", Kind::QuickTime}, {"qt", Kind::QuickTime}, {"mp4", Kind::Mpeg4}, {"m4v", Kind::Mpeg4},
        {"3gp", Kind::Gpp},       {"3g2", Kind::Gpp2},     {"mkv", Kind::Matroska}, {"webm", Kind::WebM},
    };
    auto it = byExtension.find(lower(path.substr(dot + 1)));
    return it == byExtension.end() ? Container() : Container(it->second);
}

Container Container::forImport(std::string const& formatName)
{
    return formatName == "dv" ? Kind::QuickTime : Kind::Matroska;
}

char const* Container::muxer() const { return traits(kind_).muxer; }
char const* Container::title() const { return traits(kind_).title; }
char const* Container::extension() const { return traits(kind_).extension; }

bool Container::isQuickTimeFamily() const
{
    return kind_ == Kind::QuickTime || kind_ == Kind::Mpeg4 || kind_ == Kind::Gpp || kind_ == Kind::Gpp2;
}

bool Container::isMatroskaFamily() const { return kind_ == Kind::Matroska || kind_ == Kind::WebM; }

bool containerTakes(Container container, AVCodecParameters const* par, AVDictionary const* metadata, int disposition)
{
    // WebM writers skip attachments without a word: only Matroska keeps them.
    if (par->codec_type == AVMEDIA_TYPE_ATTACHMENT && container != Container::Kind::Matroska) return false;
    TrialOutput out;
    if (!container || avformat_alloc_output_context2(&out.fmt, nullptr, container.muxer(), nullptr) < 0 || !out.fmt) return false;
    // The QuickTime and MPEG-4 writers accept sound and pictures of codecs
    // they have no sample description for (WMA, Windows Media Video) and
    // write files that no reader can decode: a codec they do not list is
    // not taken. (The Matroska writer lists fewer codecs than it stores
    // through its Windows compatibility modes, so its list is not asked.)
    if (container.isQuickTimeFamily() && (par->codec_type == AVMEDIA_TYPE_AUDIO || par->codec_type == AVMEDIA_TYPE_VIDEO)
        && avformat_query_codec(out.fmt->oformat, par->codec_id, FF_COMPLIANCE_NORMAL) == 0)
        return false;
    AVStream* st = avformat_new_stream(out.fmt, nullptr);
    if (!st || avcodec_parameters_copy(st->codecpar, par) < 0) return false;
    if (st->codecpar->codec_tag) {
        // Keep a tag only where the container knows it for this codec.
        unsigned tag = st->codecpar->codec_tag;
        if (!out.fmt->oformat->codec_tag || av_codec_get_id(out.fmt->oformat->codec_tag, tag) != par->codec_id)
            st->codecpar->codec_tag = 0;
    }
    if (metadata) av_dict_copy(&st->metadata, metadata, 0);
    st->disposition = disposition;
    st->time_base = par->codec_type == AVMEDIA_TYPE_AUDIO && par->sample_rate > 0 ? AVRational{1, par->sample_rate} : AVRational{1, 90000};
    if (avio_open_dyn_buf(&out.fmt->pb) < 0) return false;
    bool ok = avformat_write_header(out.fmt, nullptr) >= 0 && av_write_trailer(out.fmt) >= 0;
    return ok;
}

std::string containersTaking(AVCodecParameters const* par, AVDictionary const* metadata, int disposition)
{
    std::string list;
    for (Container c : {Container::Kind::QuickTime, Container::Kind::Mpeg4, Container::Kind::Matroska, Container::Kind::WebM}) {
        if (!containerTakes(c, par, metadata, disposition)) continue;
        if (!list.empty()) list += ", ";
        list += c.title();
    }
    return list;
}

char const* soundCodecName(SoundCodec codec)
{
    switch (codec) {
    case SoundCodec::Same: return "same";
    case SoundCodec::Pcm: return "pcm";
    case SoundCodec::Flac: return "flac";
    case SoundCodec::Alac: return "alac";
    case SoundCodec::Aac: return "aac";
    }
    return "same";
}

SoundCodec soundCodecNamed(std::string const& name)
{
    std::string n = lower(name);
    for (SoundCodec c : {SoundCodec::Same, SoundCodec::Pcm, SoundCodec::Flac, SoundCodec::Alac, SoundCodec::Aac})
        if (n == soundCodecName(c)) return c;
    throw MediaError("Unknown sound codec \"" + name + "\" (use same, pcm, flac, alac or aac).");
}

bool isLosslessAudio(AVCodecID id)
{
    if (id >= AV_CODEC_ID_FIRST_AUDIO && id < AV_CODEC_ID_ADPCM_IMA_QT) return true; // the PCM family
    switch (id) {
    case AV_CODEC_ID_FLAC:
    case AV_CODEC_ID_ALAC:
    case AV_CODEC_ID_WAVPACK:
    case AV_CODEC_ID_TTA:
    case AV_CODEC_ID_TRUEHD:
    case AV_CODEC_ID_MLP:
    case AV_CODEC_ID_APE:
        return true;
    default:
        return false;
    }
}

} // namespace media
