#include "Remuxer.h"

#include <cctype>
#include <cstring>
#include <strings.h>

namespace media {

AVFormatContext* SourceInputs::of(SourceFile const& file)
{
    auto it = inputs_.find(&file);
    if (it == inputs_.end()) {
        SourceFile::Input in = file.openInput(false);
        if (in.format->nb_streams == 0 || (in.format->ctx_flags & AVFMTCTX_NOHEADER))
            check(avformat_find_stream_info(in.format.get(), nullptr), "Reading the streams of \"" + file.path() + "\"");
        it = inputs_.emplace(&file, std::move(in)).first;
    }
    return it->second.format.get();
}

AVStream const* SourceInputs::stream(FileMedia const& media)
{
    AVFormatContext* fmt = of(*media.file);
    if (media.streamIndex < 0 || static_cast<unsigned>(media.streamIndex) >= fmt->nb_streams) return nullptr;
    return fmt->streams[media.streamIndex];
}

SourceFile::Input SourceInputs::take(SourceFile const& file)
{
    of(file);
    auto it = inputs_.find(&file);
    SourceFile::Input in = std::move(it->second);
    inputs_.erase(it);
    return in;
}

unsigned codecTagFor(AVOutputFormat const* out, AVCodecParameters const* in)
{
    std::string name = out->name;
    bool isoFamily = name == "mov" || name == "mp4";
    if (in->codec_tag && out->codec_tag && av_codec_get_id(out->codec_tag, in->codec_tag) == in->codec_id) {
        // hev1 (parameter sets in the stream) is valid but refused by Apple's players.
        if (isoFamily && in->codec_id == AV_CODEC_ID_HEVC) return MKTAG('h', 'v', 'c', '1');
        return in->codec_tag;
    }
    if (isoFamily && in->codec_id == AV_CODEC_ID_HEVC) return MKTAG('h', 'v', 'c', '1');
    return 0;
}

namespace {

// Tags that describe the old file rather than the stream: Matroska
// writers' statistics, which would no longer be true.
bool isStaleTag(char const* key)
{
    static char const* const stale[] = {"DURATION", "NUMBER_OF_FRAMES", "NUMBER_OF_BYTES", "BPS", "_STATISTICS_"};
    for (char const* s : stale)
        if (strncasecmp(key, s, std::strlen(s)) == 0) return true;
    return false;
}

bool isFileBookkeeping(char const* key)
{
    for (char const* k : {"major_brand", "minor_version", "compatible_brands", "encoder"})
        if (strcasecmp(key, k) == 0) return true;
    return false;
}

} // namespace

void copyStreamTags(AVStream* out, AVStream const* in, bool enabled)
{
    AVDictionaryEntry const* e = nullptr;
    while ((e = av_dict_get(in->metadata, "", e, AV_DICT_IGNORE_SUFFIX)))
        if (!isStaleTag(e->key)) av_dict_set(&out->metadata, e->key, e->value, 0);
    out->disposition = (in->disposition & ~AV_DISPOSITION_DEFAULT) | (enabled ? AV_DISPOSITION_DEFAULT : 0);
}

AVStream* addCopiedStream(AVFormatContext* out, AVStream const* in, bool enabled)
{
    AVStream* st = avformat_new_stream(out, nullptr);
    if (!st) throw MediaError("Out of memory.");
    check(avcodec_parameters_copy(st->codecpar, in->codecpar), "Copying stream parameters");
    st->codecpar->codec_tag = codecTagFor(out->oformat, in->codecpar);
    st->time_base = in->time_base;
    if (in->avg_frame_rate.num > 0) st->avg_frame_rate = in->avg_frame_rate;
    if (in->r_frame_rate.num > 0) st->r_frame_rate = in->r_frame_rate;
    st->sample_aspect_ratio = in->sample_aspect_ratio;
    copyStreamTags(st, in, enabled);
    for (int i = 0; i < in->nb_side_data; ++i) {
        AVPacketSideData const& sd = in->side_data[i];
        std::uint8_t* data = av_stream_new_side_data(st, sd.type, sd.size);
        if (!data) throw MediaError("Out of memory.");
        std::memcpy(data, sd.data, sd.size);
    }
    if (in->disposition & AV_DISPOSITION_ATTACHED_PIC) {
        // Cover art travels as one picture packet.
        st->disposition |= AV_DISPOSITION_ATTACHED_PIC;
    }
    return st;
}

AVChapter* addChapter(AVFormatContext* out, std::int64_t id, AVRational timeBase, std::int64_t start, std::int64_t end)
{
    auto* c = static_cast<AVChapter*>(av_mallocz(sizeof(AVChapter)));
    if (!c) throw MediaError("Out of memory.");
    c->id = id;
    c->time_base = timeBase;
    c->start = start;
    c->end = end;
    int count = static_cast<int>(out->nb_chapters);
    if (av_dynarray_add_nofree(&out->chapters, &count, c) < 0) {
        av_free(c);
        throw MediaError("Out of memory.");
    }
    out->nb_chapters = static_cast<unsigned>(count);
    return c;
}

void copyFileDetails(AVFormatContext* out, AVFormatContext const* in, std::int64_t origin)
{
    AVDictionaryEntry const* e = nullptr;
    while ((e = av_dict_get(in->metadata, "", e, AV_DICT_IGNORE_SUFFIX)))
        if (!isFileBookkeeping(e->key) && !isStaleTag(e->key)) av_dict_set(&out->metadata, e->key, e->value, 0);
    for (unsigned i = 0; i < in->nb_chapters; ++i) {
        AVChapter const* c = in->chapters[i];
        std::int64_t shift = av_rescale_q(origin, AV_TIME_BASE_Q, c->time_base);
        AVChapter* copy = addChapter(out, c->id, c->time_base, c->start - shift, c->end - shift);
        av_dict_copy(&copy->metadata, c->metadata, 0);
    }
}

} // namespace media
