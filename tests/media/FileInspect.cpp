#include "FileInspect.h"

namespace testsupport {

namespace {

std::uint64_t fnv(std::uint8_t const* p, std::size_t n, std::uint64_t h = 1469598103934665603ULL)
{
    for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ULL;
    return h;
}

} // namespace

// H.264/HEVC packets are compared by their slice data, whatever their
// framing (start codes in MPEG-TS, length prefixes in MP4 and Matroska),
// without the parameter sets and delimiters that muxers move around.
std::uint64_t payloadChecksum(AVCodecID codec, std::uint8_t const* p, int size, bool lengthPrefixed)
{
    if (codec != AV_CODEC_ID_H264 && codec != AV_CODEC_ID_HEVC) return fnv(p, static_cast<std::size_t>(size));
    std::vector<std::pair<int, int>> nals; // offset, length
    // A length of 0x1xx starts like a start code: the stream's own header
    // (avcC or hvcC, whose first byte is 1) says which framing it has.
    bool annexB = !lengthPrefixed && size >= 4 && ((p[0] == 0 && p[1] == 0 && p[2] == 1) || (p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1));
    if (annexB) {
        int i = 0, start = -1;
        while (i + 2 < size) {
            if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1) {
                if (start >= 0) {
                    int end = i;
                    while (end > start && p[end - 1] == 0) --end;
                    nals.push_back({start, end - start});
                }
                i += 3;
                start = i;
            } else ++i;
        }
        if (start >= 0 && start < size) nals.push_back({start, size - start});
    } else {
        int i = 0;
        while (i + 4 <= size) {
            int len = (p[i] << 24) | (p[i + 1] << 16) | (p[i + 2] << 8) | p[i + 3];
            if (len <= 0 || i + 4 + len > size) break;
            nals.push_back({i + 4, len});
            i += 4 + len;
        }
    }
    std::uint64_t h = 1469598103934665603ULL;
    for (auto [off, len] : nals) {
        if (len <= 0) continue;
        int type = codec == AV_CODEC_ID_H264 ? (p[off] & 0x1f) : ((p[off] >> 1) & 0x3f);
        bool structural = codec == AV_CODEC_ID_H264 ? (type == 6 || type == 7 || type == 8 || type == 9)
                                                    : (type >= 32 && type <= 40);
        if (!structural) h = fnv(p + off, static_cast<std::size_t>(len), h);
    }
    return h;
}

FileInfo inspect(std::string const& path)
{
    FileInfo info;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) throw media::MediaError("cannot open " + path);
    media::InputContext fmt(raw);
    avformat_find_stream_info(raw, nullptr);
    info.format = raw->iformat->name;
    info.start = raw->start_time == AV_NOPTS_VALUE ? 0 : raw->start_time / 1e6;
    AVDictionaryEntry const* e = nullptr;
    while ((e = av_dict_get(raw->metadata, "", e, AV_DICT_IGNORE_SUFFIX))) info.tags[e->key] = e->value;
    for (unsigned i = 0; i < raw->nb_chapters; ++i) {
        AVChapter const* c = raw->chapters[i];
        AVDictionaryEntry* t = av_dict_get(c->metadata, "title", nullptr, 0);
        info.chapters.push_back({t ? t->value : "", c->start * av_q2d(c->time_base) - info.start});
    }
    for (unsigned i = 0; i < raw->nb_streams; ++i) {
        AVStream const* st = raw->streams[i];
        StreamInfo s;
        s.type = st->codecpar->codec_type;
        s.codec = st->codecpar->codec_id;
        s.tag = st->codecpar->codec_tag;
        s.disposition = st->disposition;
        e = nullptr;
        while ((e = av_dict_get(st->metadata, "", e, AV_DICT_IGNORE_SUFFIX))) s.tags[e->key] = e->value;
        for (int k = 0; k < st->nb_side_data; ++k)
            s.sideData[st->side_data[k].type] = std::string(reinterpret_cast<char const*>(st->side_data[k].data), st->side_data[k].size);
        if (s.type == AVMEDIA_TYPE_ATTACHMENT && st->codecpar->extradata)
            s.extradata = std::string(reinterpret_cast<char const*>(st->codecpar->extradata), static_cast<std::size_t>(st->codecpar->extradata_size));
        // avcC and hvcC headers start with version 1; the packets then carry
        // length prefixes.
        s.lengthPrefixed = st->codecpar->extradata_size > 0 && st->codecpar->extradata[0] == 1;
        s.channels = st->codecpar->ch_layout.nb_channels;
        char layout[64] = {0};
        av_channel_layout_describe(&st->codecpar->ch_layout, layout, sizeof layout);
        s.layout = layout;
        s.bits = st->codecpar->bits_per_raw_sample;
        info.streams.push_back(s);
    }
    media::Packet pkt = media::makePacket();
    while (av_read_frame(raw, pkt.get()) >= 0) {
        auto& s = info.streams[static_cast<std::size_t>(pkt->stream_index)];
        s.packets.push_back(payloadChecksum(s.codec, pkt->data, pkt->size, s.lengthPrefixed));
        av_packet_unref(pkt.get());
    }
    return info;
}

} // namespace testsupport
