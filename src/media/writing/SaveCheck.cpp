#include "SaveCheck.h"

#include "Containers.h"

#include "FaultInjection.h"
#include "MovieFile.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace media {

void PacketTally::describe(AVFormatContext const* out)
{
    if (streams_.size() < out->nb_streams) streams_.resize(out->nb_streams);
    for (unsigned i = 0; i < out->nb_streams; ++i) {
        streams_[i].type = out->streams[i]->codecpar->codec_type;
        if (streams_[i].packets == 0) streams_[i].codec = out->streams[i]->codecpar->codec_id;
    }
}

void PacketTally::add(AVFormatContext const* out, AVPacket const* pkt)
{
    if (pkt->size <= 0 || pkt->stream_index < 0 || static_cast<unsigned>(pkt->stream_index) >= out->nb_streams) return;
    if (streams_.size() < out->nb_streams) streams_.resize(out->nb_streams);
    AVStream const* st = out->streams[pkt->stream_index];
    Stream& s = streams_[static_cast<std::size_t>(pkt->stream_index)];
    s.type = st->codecpar->codec_type;
    s.codec = st->codecpar->codec_id;
    std::int64_t ts = pkt->dts != AV_NOPTS_VALUE ? pkt->dts : pkt->pts;
    double tb = av_q2d(st->time_base);
    double duration = static_cast<double>(std::max<std::int64_t>(0, pkt->duration)) * tb;
    if (ts != AV_NOPTS_VALUE) {
        double at = static_cast<double>(ts) * tb;
        s.start = s.packets == 0 ? at : std::min(s.start, at);
        s.end = s.packets == 0 ? at + duration : std::max(s.end, at + duration);
    }
    s.longestPacket = std::max(s.longestPacket, duration);
    ++s.packets;
}

MovieOutput::MovieOutput(AtomicFile& file) : file_(file)
{
    constexpr int kBuffer = 64 * 1024;
    auto* buffer = static_cast<std::uint8_t*>(av_malloc(kBuffer));
    if (!buffer) throw MediaError("Out of memory.");
    io_.reset(avio_alloc_context(buffer, kBuffer, 1, this, nullptr, writeCallback, seekCallback));
    if (!io_) {
        av_free(buffer);
        throw MediaError("Out of memory.");
    }
}

void MovieOutput::fail(char const* call, int err)
{
    if (error_ != 0) return;
    error_ = err != 0 ? err : EIO;
    failedCall_ = call;
}

#if LIBAVFORMAT_VERSION_MAJOR >= 61
int MovieOutput::writeCallback(void* opaque, std::uint8_t const* buf, int size)
#else
int MovieOutput::writeCallback(void* opaque, std::uint8_t* buf, int size)
#endif
{
    auto* self = static_cast<MovieOutput*>(opaque);
    int err = self->writeAll(buf, static_cast<std::size_t>(std::max(size, 0)));
    return err != 0 ? AVERROR(err) : size;
}

int MovieOutput::writeAll(std::uint8_t const* bytes, std::size_t size)
{
    for (std::size_t done = 0; done < size;) {
        ssize_t n = fileio::write(file_.fd(), bytes + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            int err = n < 0 ? errno : EIO;
            fail("write", err);
            return err;
        }
        done += static_cast<std::size_t>(n);
    }
    return 0;
}

std::int64_t MovieOutput::seekCallback(void* opaque, std::int64_t offset, int whence)
{
    auto* self = static_cast<MovieOutput*>(opaque);
    if (whence == AVSEEK_SIZE) {
        struct stat st {};
        if (::fstat(self->file_.fd(), &st) != 0) return AVERROR(errno);
        return st.st_size;
    }
    off_t at = fileio::seek(self->file_.fd(), static_cast<off_t>(offset), whence & ~AVSEEK_FORCE);
    if (at < 0) {
        int err = errno;
        self->fail("seek", err);
        return AVERROR(err);
    }
    return at;
}

void MovieOutput::attach(AVFormatContext* out)
{
    out->pb = io_.get();
    out->flags |= AVFMT_FLAG_CUSTOM_IO;
    out->opaque = this;
    out->flush_packets = 0; // write in whole buffers, not packet by packet
}

void MovieOutput::bundleSound(AVFormatContext* out)
{
    for (unsigned i = 0; i < out->nb_streams; ++i)
        if (SampleBundler::suits(out->streams[i])) bundler_.enable(static_cast<int>(i));
}

int MovieOutput::writeTrailer(AVFormatContext* out)
{
    int rc = bundler_.flush([out](AVPacket* pkt) { return av_interleaved_write_frame(out, pkt); });
    if (rc < 0) return rc;
    return av_write_trailer(out);
}

void MovieOutput::finish(AVFormatContext* out, int trailerResult)
{
    tally_.describe(out);
    if (out->pb) avio_flush(out->pb);
    bool written = error_ == 0 && !(out->pb && out->pb->error < 0) && trailerResult >= 0;
    if (written && bundler_.any()) {
        bundler_.rewriteTables(file_.fd(), [this](std::int64_t offset, std::uint8_t const* bytes, std::size_t size) {
            if (fileio::seek(file_.fd(), static_cast<off_t>(offset), SEEK_SET) < 0) fail("seek", errno);
            else writeAll(bytes, size);
            if (error_ != 0)
                throw MediaError(std::string("Writing the new file failed (") + failedCall_ + "): " + std::strerror(error_) + ".");
        });
    }
    if (fileio::flush() != 0) fail("flush", errno);
    if (error_ != 0)
        throw MediaError(std::string("Writing the new file failed (") + failedCall_ + "): " + std::strerror(error_) + ".");
    if (out->pb && out->pb->error < 0) throw MediaError("Writing the new file failed: " + avError(out->pb->error) + ".");
    check(trailerResult, "Finishing the movie");
}

int writePacket(AVFormatContext* out, AVPacket* pkt)
{
    auto* output = static_cast<MovieOutput*>(out->opaque);
    if (output) output->tally_.add(out, pkt);
    int rc = output && output->bundler_.bundles(pkt->stream_index)
                 ? output->bundler_.add(pkt, [out](AVPacket* p) { return av_interleaved_write_frame(out, p); })
                 : av_interleaved_write_frame(out, pkt);
    if (rc < 0) return rc;
    if (output && output->error_ != 0) return AVERROR(output->error_);
    if (out->pb && out->pb->error < 0) return out->pb->error;
    return rc;
}

namespace {

std::string seconds(double s)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f s", s);
    return buf;
}

char const* demuxerFor(Container container)
{
    if (container.isQuickTimeFamily()) return "mov";
    return container.muxer();
}

SourceFile::Input reopen(std::string const& path, std::shared_ptr<SourceFile>& file, AVDictionary** options)
{
    try {
        file = SourceFile::open(path);
        return file->openInput(false, options);
    } catch (MediaError const& e) {
        // The new file may have no name yet (an anonymous file reached
        // through /proc): the message speaks of it as the new file.
        std::string why = e.what();
        for (std::size_t at; !path.empty() && (at = why.find(path)) != std::string::npos;) why.replace(at, path.size(), "the new file");
        throw SaveCheckFailed("The new file does not read back as a movie: " + why);
    }
}

void requireFormat(AVFormatContext const* fmt, char const* demuxer)
{
    AVInputFormat const* want = av_find_input_format(demuxer);
    if (!want || fmt->iformat != want)
        throw SaveCheckFailed(std::string("The new file reads back as ") + fmt->iformat->name + ", not as " + demuxer + ".");
}

bool isRawSound(AVCodecID id) { return av_get_exact_bits_per_sample(id) > 0 && avcodec_get_type(id) == AVMEDIA_TYPE_AUDIO; }

} // namespace

void MovieOutput::verify(Container container) const
{
    auto const& want = tally_.streams();
    char const* demuxer = demuxerFor(container);
    bool indexed = std::string(demuxer) == "mov";
    std::shared_ptr<SourceFile> file;
    AVDictionary* options = nullptr;
    // The sample tables as written, not as the edit lists present them.
    if (indexed) av_dict_set(&options, "ignore_editlist", "1", 0);
    auto in = reopen(file_.path(), file, &options);
    av_dict_free(&options);
    AVFormatContext* fmt = in.format.get();
    requireFormat(fmt, demuxer);
    if (fmt->nb_streams < want.size()) avformat_find_stream_info(fmt, nullptr); // streams found only by reading (DV sound)
    // QuickTime and MPEG-4 muxers add tracks of their own after the
    // streams: a timecode track for each video stream with a timecode tag,
    // a chapter track for the file's chapters.
    auto madeByMuxer = [fmt](unsigned i) {
        AVCodecParameters const* par = fmt->streams[i]->codecpar;
        return par->codec_type == AVMEDIA_TYPE_DATA
            && (par->codec_tag == MKTAG('t', 'm', 'c', 'd') || (par->codec_tag == MKTAG('t', 'e', 'x', 't') && fmt->nb_chapters > 0));
    };
    std::size_t made = 0;
    while (indexed && fmt->nb_streams > want.size() + made && madeByMuxer(static_cast<unsigned>(want.size() + made))) ++made;
    if (fmt->nb_streams != want.size() + made)
        throw SaveCheckFailed("The new file has " + std::to_string(fmt->nb_streams - made) + " streams instead of "
                              + std::to_string(want.size()) + ".");

    // Matroska readers list attachments after the tracks, whatever the
    // order they were written in.
    std::vector<std::size_t> readIndex(want.size());
    {
        std::size_t next = 0;
        bool matroska = container.isMatroskaFamily();
        for (std::size_t i = 0; i < want.size(); ++i)
            if (!matroska || want[i].type != AVMEDIA_TYPE_ATTACHMENT) readIndex[i] = next++;
        for (std::size_t i = 0; i < want.size(); ++i)
            if (matroska && want[i].type == AVMEDIA_TYPE_ATTACHMENT) readIndex[i] = next++;
    }
    std::vector<PacketTally::Stream> got(fmt->nb_streams);
    std::int64_t size = file->size();
    if (indexed) {
        // The sample tables say where every packet lies: all must lie in the file.
        for (unsigned i = 0; i < fmt->nb_streams; ++i) {
            AVStream* st = fmt->streams[i];
            int n = avformat_index_get_entries_count(st);
            double tb = av_q2d(st->time_base);
            got[i].packets = n;
            for (int k = 0; k < n; ++k) {
                AVIndexEntry const* e = avformat_index_get_entry(st, k);
                if (e->pos + e->size > size)
                    throw SaveCheckFailed("Stream " + std::to_string(i + 1) + " of the new file points past its end.");
                double at = static_cast<double>(e->timestamp) * tb;
                got[i].start = k == 0 ? at : std::min(got[i].start, at);
            }
            got[i].end = got[i].start + (st->duration != AV_NOPTS_VALUE ? static_cast<double>(st->duration) * tb : 0);
        }
    } else {
        Packet pkt = makePacket();
        int rc;
        while ((rc = av_read_frame(fmt, pkt.get())) >= 0) {
            auto i = static_cast<std::size_t>(pkt->stream_index);
            if (i < got.size()) {
                double tb = av_q2d(fmt->streams[i]->time_base);
                std::int64_t ts = pkt->dts != AV_NOPTS_VALUE ? pkt->dts : pkt->pts;
                if (ts != AV_NOPTS_VALUE) {
                    double at = static_cast<double>(ts) * tb;
                    double end = at + static_cast<double>(std::max<std::int64_t>(0, pkt->duration)) * tb;
                    got[i].start = got[i].packets == 0 ? at : std::min(got[i].start, at);
                    got[i].end = got[i].packets == 0 ? end : std::max(got[i].end, end);
                }
                ++got[i].packets;
            }
            av_packet_unref(pkt.get());
        }
        if (rc != AVERROR_EOF) throw SaveCheckFailed("The new file cannot be read to its end (" + avError(rc) + ").");
    }

    double writtenEnd = 0;
    for (auto const& stream : want)
        if (stream.packets > 0) writtenEnd = std::max(writtenEnd, stream.end);
    for (std::size_t w = 0; w < want.size(); ++w) {
        std::size_t i = readIndex[w];
        AVCodecParameters const* par = fmt->streams[i]->codecpar;
        std::string which = "Stream " + std::to_string(i + 1) + " of the new file";
        if (want[w].packets > 0 && par->codec_id != want[w].codec)
            throw SaveCheckFailed(which + " reads back as " + avcodec_get_name(par->codec_id) + ", not "
                                  + avcodec_get_name(want[w].codec) + ".");
        // Raw sound is stored in chunks of any size; other packets one by one.
        bool countsMatch = !isRawSound(want[w].codec) && (indexed || want[w].type == AVMEDIA_TYPE_VIDEO);
        if (countsMatch && got[i].packets != want[w].packets)
            throw SaveCheckFailed(which + " has " + std::to_string(got[i].packets) + " packets; "
                                  + std::to_string(want[w].packets) + " were written.");
        if (want[w].packets > 0 && got[i].packets == 0) throw SaveCheckFailed(which + " is empty.");
        double wrote = want[w].end - want[w].start, read = got[i].end - got[i].start;
        // DV carries sound only beside pictures: the muxer drops what is longer.
        if (container == Container::Kind::Dv && want[w].type == AVMEDIA_TYPE_AUDIO)
            for (auto const& v : want)
                if (v.type == AVMEDIA_TYPE_VIDEO) wrote = std::min(wrote, v.end - v.start);
        double slack = std::max(want[w].longestPacket, 0.0) + 0.002;
        // Muxers may stretch a stream's last frame to the end of the movie
        // (a picture held while the sound plays on, variable frame rates):
        // reading back longer, but not past what any stream was given, is
        // the file as written.
        bool stretchedToTheEnd = read > wrote && got[i].end - got[i].start <= writtenEnd - want[w].start + slack;
        if (want[w].packets > 0 && std::fabs(wrote - read) > slack && !stretchedToTheEnd)
            throw SaveCheckFailed(which + " lasts " + seconds(read) + "; " + seconds(wrote) + " were written.");
    }
}

void verifyFileReadsAs(std::string const& path, char const* demuxer, unsigned streams)
{
    std::shared_ptr<SourceFile> file;
    auto in = reopen(path, file, nullptr);
    AVFormatContext* fmt = in.format.get();
    requireFormat(fmt, demuxer);
    if (fmt->nb_streams < streams) avformat_find_stream_info(fmt, nullptr);
    if (fmt->nb_streams != streams)
        throw SaveCheckFailed("The new file has " + std::to_string(fmt->nb_streams) + " streams instead of " + std::to_string(streams) + ".");
}

} // namespace media
