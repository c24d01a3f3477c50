#include "Remuxer.h"

#include "Codec.h"
#include "Containers.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <strings.h>

namespace media {

AVFormatContext* SourceInputs::of(SourceFile const& file)
{
    auto it = inputs_.find(&file);
    if (it == inputs_.end()) {
        SourceFile::Input in = file.openInput(false);
        // Packets are copied with the time stamps a muxer needs:
        // - Containers that store only the decoding time (AVI) or give it to
        //   some packets only (MPEG-PS, whose packs carry a time stamp now
        //   and then) leave presentation times unset; GENPTS makes the
        //   demuxer work them out from the frames that follow.
        // - Containers that store only presentation times (Matroska, WebM)
        //   with reordered frames leave decoding times unset; the demuxer
        //   derives them from the stream's reorder delay, which only probing
        //   the stream tells it (and probing also fills in what the header
        //   lacks: the picture size of MPEG-4 Part 2 and H.263, the
        //   parameter sets of H.264 and HEVC streams stored with start codes).
        in.format->flags |= AVFMT_FLAG_GENPTS;
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

void DecodingTimes::push(AVPacket* pkt, std::vector<Packet>& ready)
{
    Packet own = makePacket();
    av_packet_move_ref(own.get(), pkt);
    if (own->dts == AV_NOPTS_VALUE && (lastDts_ == AV_NOPTS_VALUE || !waiting_.empty())) {
        waiting_.push_back(std::move(own));
        return;
    }
    if (own->dts == AV_NOPTS_VALUE) {
        // A lone packet without a decoding time in the middle of a stream:
        // one tick after the last, as no later packet can come before it.
        own->dts = own->pts != AV_NOPTS_VALUE ? std::min(own->pts, lastDts_ + 1) : lastDts_ + 1;
    }
    // The waiting packets go before this one, each a frame before the next.
    std::int64_t next = own->dts;
    for (auto it = waiting_.rbegin(); it != waiting_.rend(); ++it) {
        AVPacket* w = it->get();
        std::int64_t step = std::max<std::int64_t>(w->duration, 1);
        std::int64_t dts = next - step;
        if (w->pts != AV_NOPTS_VALUE) dts = std::min(dts, w->pts);
        w->dts = next = dts;
    }
    for (auto& w : waiting_) ready.push_back(std::move(w));
    waiting_.clear();
    lastDts_ = own->dts;
    ready.push_back(std::move(own));
}

void DecodingTimes::flush(std::vector<Packet>& ready)
{
    if (waiting_.empty()) return;
    // The n-th decoding time is the n-th presentation time, moved back just
    // enough that no packet is decoded after it is shown.
    std::vector<std::int64_t> sorted;
    for (auto const& w : waiting_)
        if (w->pts != AV_NOPTS_VALUE) sorted.push_back(w->pts);
    std::sort(sorted.begin(), sorted.end());
    std::int64_t back = 0;
    std::size_t k = 0;
    for (auto const& w : waiting_)
        if (w->pts != AV_NOPTS_VALUE) back = std::max(back, sorted[k++] - w->pts);
    std::int64_t previous = lastDts_;
    k = 0;
    for (auto& w : waiting_) {
        std::int64_t dts = k < sorted.size() ? sorted[k++] - back : AV_NOPTS_VALUE;
        if (dts == AV_NOPTS_VALUE || (previous != AV_NOPTS_VALUE && dts <= previous))
            dts = previous != AV_NOPTS_VALUE ? previous + 1 : 0;
        w->dts = previous = dts;
        if (w->pts == AV_NOPTS_VALUE) w->pts = dts;
        ready.push_back(std::move(w));
    }
    waiting_.clear();
    lastDts_ = previous;
}

bool needsPresentationTimes(AVFormatContext const* fmt, AVStream const* stream)
{
    return std::strcmp(fmt->iformat->name, "avi") == 0 && stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO
        && stream->codecpar->video_delay > 0;
}

PresentationTimes presentationTimes(FileMedia const& media, std::atomic<bool> const* stop)
{
    StreamDecoder d = openStreamDecoder(media, "video");
    AVFormatContext* fmt = d.input.format.get();
    std::vector<std::int64_t> decoding, shown; // decoding times in file order; of the pictures in the order shown
    Packet pkt = makePacket();
    Frame frame = makeFrame();
    auto receive = [&] {
        while (avcodec_receive_frame(d.codec.get(), frame.get()) == 0) {
            // The picture's own packet, by the time stamp the decoder carries
            // through its reordering (not pkt_dts: that is the packet whose
            // decoding let this picture out).
            if (frame->pts != AV_NOPTS_VALUE) shown.push_back(frame->pts);
            av_frame_unref(frame.get());
        }
    };
    int rc;
    while ((rc = av_read_frame(fmt, pkt.get())) >= 0) {
        if (stop && stop->load()) throw Cancelled();
        if (pkt->stream_index == d.stream && pkt->dts != AV_NOPTS_VALUE) {
            decoding.push_back(pkt->dts);
            pkt->pts = pkt->dts;
            avcodec_send_packet(d.codec.get(), pkt.get()); // a damaged packet keeps the time it has
            receive();
        }
        av_packet_unref(pkt.get());
    }
    avcodec_send_packet(d.codec.get(), nullptr);
    receive();
    std::sort(decoding.begin(), decoding.end());
    std::size_t n = std::min(decoding.size(), shown.size());
    PresentationTimes times;
    // The n-th picture shown is shown at the n-th decoding time, so the
    // first picture keeps the time the file gives it; decoding moves earlier
    // by the delay that shows no picture before it is decoded.
    for (std::size_t i = 0; i < n; ++i) times.decodingDelay = std::max(times.decodingDelay, shown[i] - decoding[i]);
    for (std::size_t i = 0; i < n; ++i) times.shownAt[shown[i]] = decoding[i];
    return times;
}

unsigned codecTagFor(AVOutputFormat const* out, AVCodecParameters const* in)
{
    bool isoFamily = Container::named(out->name).isQuickTimeFamily();
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
    // The container's pixel shape wins where it has one (as players show it);
    // muxers refuse a stream whose two shapes differ.
    AVRational sar = in->sample_aspect_ratio.num > 0 ? in->sample_aspect_ratio : in->codecpar->sample_aspect_ratio;
    st->sample_aspect_ratio = sar;
    st->codecpar->sample_aspect_ratio = sar;
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
