// export: one channel's frames of a time range into a video file, the
// stored H.264 copied as it is (no re-encoding), through libavformat.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

#include "console.h"
#include "annexb.h"
#include "arguments.h"
#include "clip_reader.h"
#include "commands.h"
#include "result_names.h"
#include "unit_decoding.h"
#include "utc_time.h"

namespace molra_tools {

namespace {

// How far a picture may move between decode and presentation order, each
// way: H.264 holds at most 16 pictures back.
constexpr long long kReach = 32;

struct Frame {
  std::vector<std::uint8_t> bytes;
  long long stamp = 0;  // decode time, milliseconds, strictly rising
  bool key = false;
  long long order = 0;  // key frames seen (above bit 32), then picture order count
};

// Timestamps. The store keeps frames in decode order, one stamp each, and
// a frame's stamp is its decode time. The k-th picture shown (by picture
// order count among its neighbours) takes the k-th stamp as presentation
// time, so that the stamps pace the pictures on screen as they pace the
// decoder. A B-frame's picture would then be shown before it is decoded:
// presentation times are shifted by the stream's reorder delay, the largest
// lead of a decode stamp over its picture's, measured from each key frame
// over the frames in reach. The delay only grows, and only at a key frame,
// before which every earlier picture has been shown; a stream that reorders
// further within a group gets presentation = decode time there. Without
// B-frames both times are the stamps. The first picture shown is at 0.
class Clip {
 public:
  explicit Clip(long long origin) : m_origin(origin) {}

  void Add(Frame frame) { m_frames.push_back(std::move(frame)); }
  long long Read() const { return m_base + static_cast<long long>(m_frames.size()); }
  // Whether the next frame has its neighbours read, or the clip is whole.
  bool CanWrite(bool whole) const { return m_next < Read() && (whole || m_next + kReach < Read()); }

  // The next frame with its times (milliseconds from the origin).
  const Frame& Take(long long* dts, long long* pts, long long* duration) {
    const long long i = m_next++;
    if (At(i).key) {
      long long lead = 0;
      const long long group = At(i).order >> 32;
      for (long long j = i; j < std::min(Read(), i + kReach) && At(j).order >> 32 == group; ++j) {
        lead = std::max(lead, At(j).stamp - ShownAt(j));
      }
      if (i == 0) m_shift = lead;
      m_delay = std::max(m_delay, lead);
    }
    *dts = At(i).stamp - m_origin - m_shift;
    *pts = std::max(ShownAt(i) + m_delay - m_origin - m_shift, *dts);
    if (i + 1 < Read()) {
      m_lastDuration = At(i + 1).stamp - At(i).stamp;
    }
    *duration = m_lastDuration;
    // Frames out of reach behind are no longer needed.
    while (m_base < m_next - kReach) {
      m_frames.pop_front();
      ++m_base;
    }
    return At(i);
  }
  void Release(long long i) { At(i).bytes = {}; }
  long long Next() const { return m_next; }

 private:
  Frame& At(long long i) { return m_frames[static_cast<size_t>(i - m_base)]; }
  const Frame& At(long long i) const { return m_frames[static_cast<size_t>(i - m_base)]; }
  // The stamp of the frame whose place in decode order is frame i's place
  // in presentation order.
  long long ShownAt(long long i) const {
    const long long order = At(i).order;
    long long place = i;
    for (long long j = i + 1; j < std::min(Read(), i + kReach + 1); ++j) {
      if (At(j).order < order) ++place;
    }
    for (long long j = std::max(m_base, i - kReach); j < i; ++j) {
      if (At(j).order > order) --place;
    }
    return At(std::min(std::max(place, m_base), Read() - 1)).stamp;
  }

  std::deque<Frame> m_frames;
  long long m_base = 0;  // index of m_frames.front()
  long long m_next = 0;  // the next frame to write
  long long m_origin;
  long long m_delay = 0;  // of presentation behind the picture's stamp
  long long m_shift = 0;  // of all times, so that the first picture shown is at 0
  long long m_lastDuration = 40;  // a lone frame's: 25 a second
};

struct ParserFree {
  void operator()(AVCodecParserContext* p) const { av_parser_close(p); }
};
struct CodecFree {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};

// The picture order count of each frame, read in decode order.
class PictureOrder {
 public:
  PictureOrder()
      : m_parser(av_parser_init(AV_CODEC_ID_H264)), m_context(avcodec_alloc_context3(nullptr)) {
    // Each chunk holds one access unit whole.
    if (m_parser) m_parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
  }
  bool Usable() const { return m_parser && m_context; }
  // Parses a frame and gives its order in the clip.
  long long Order(const Frame& frame) {
    if (frame.key) ++m_period;
    std::uint8_t* out = nullptr;
    int outSize = 0;
    // The parser reads up to a padding's length past the end.
    m_padded.assign(frame.bytes.begin(), frame.bytes.end());
    m_padded.resize(frame.bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE);
    av_parser_parse2(m_parser.get(), m_context.get(), &out, &outSize, m_padded.data(),
                     static_cast<int>(frame.bytes.size()), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    return m_period * (1LL << 32) + (1LL << 31) + m_parser->output_picture_number;
  }
  int Width() const { return m_parser->width; }
  int Height() const { return m_parser->height; }
  int Format() const { return m_parser->format; }

 private:
  std::unique_ptr<AVCodecParserContext, ParserFree> m_parser;
  std::unique_ptr<AVCodecContext, CodecFree> m_context;
  std::vector<std::uint8_t> m_padded;
  long long m_period = 0;
};

// The output file: opened by Open, finished by Close.
class Output {
 public:
  ~Output() {
    if (m_context) {
      if (m_context->pb) avio_closep(&m_context->pb);
      avformat_free_context(m_context);
    }
  }
  // "" or the problem.
  std::string Open(const std::string& path, const std::string& muxer,
                   const std::vector<std::uint8_t>& sets, const PictureOrder& order,
                   long long firstStamp) {
    if (avformat_alloc_output_context2(&m_context, nullptr, muxer.c_str(), path.c_str()) < 0) {
      return "libavformat has no " + muxer + " muxer";
    }
    m_stream = avformat_new_stream(m_context, nullptr);
    if (m_stream == nullptr) return "out of memory";
    AVCodecParameters* par = m_stream->codecpar;
    par->codec_type = AVMEDIA_TYPE_VIDEO;
    par->codec_id = AV_CODEC_ID_H264;
    par->width = order.Width();
    par->height = order.Height();
    par->format = order.Format();
    // Annex B parameter sets: the MP4 and Matroska muxers turn them into
    // their own record, and the packets into length-prefixed units.
    par->extradata =
        static_cast<std::uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (par->extradata == nullptr) return "out of memory";
    std::memcpy(par->extradata, sets.data(), sets.size());
    par->extradata_size = static_cast<int>(sets.size());
    m_stream->time_base = AVRational{1, 1000};
    av_dict_set(&m_context->metadata, "creation_time", (ToIso(firstStamp)).c_str(), 0);
    int result = avio_open(&m_context->pb, path.c_str(), AVIO_FLAG_WRITE);
    if (result < 0) return path + ": " + LibavErrorText(result);
    m_path = path;
    result = avformat_write_header(m_context, nullptr);
    if (result < 0) return path + ": the header cannot be written (" + LibavErrorText(result) + ")";
    return "";
  }

  std::string Write(const Frame& frame, long long dts, long long pts, long long duration) {
    std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
    if (!packet || av_new_packet(packet.get(), static_cast<int>(frame.bytes.size())) < 0) {
      return "out of memory";
    }
    std::memcpy(packet->data, frame.bytes.data(), frame.bytes.size());
    packet->dts = dts;
    packet->pts = pts;
    packet->duration = duration;
    packet->flags = frame.key ? AV_PKT_FLAG_KEY : 0;
    packet->stream_index = m_stream->index;
    av_packet_rescale_ts(packet.get(), AVRational{1, 1000}, m_stream->time_base);
    const int result = av_interleaved_write_frame(m_context, packet.get());
    if (result < 0) return m_path + ": writing failed (" + LibavErrorText(result) + ")";
    return "";
  }

  std::string Close() {
    const int result = av_write_trailer(m_context);
    const int closed = avio_closep(&m_context->pb);
    if (result < 0 || closed < 0) {
      return m_path + ": the file cannot be finished (" +
             LibavErrorText(result < 0 ? result : closed) + ")";
    }
    return "";
  }

  // A failed file goes.
  void Discard() {
    if (m_context && m_context->pb) avio_closep(&m_context->pb);
    if (!m_path.empty()) std::remove(m_path.c_str());
  }

 private:
  static std::string ToIso(long long stamp) {
    std::string text = MillisecondText(stamp);
    text[10] = 'T';
    return text + "Z";
  }

  AVFormatContext* m_context = nullptr;
  AVStream* m_stream = nullptr;
  std::string m_path;
};

std::string Range(int channel, long long from, long long to) {
  return "channel " + std::to_string(channel) + " from " + MillisecondText(from) + " to " +
         MillisecondText(to) + " (UTC)";
}

}  // namespace

int RunExport(int channel, long long from, long long to, const std::string& path) {
  std::string muxer;
  ParseVideoFile(path, &muxer);
  if (!CatalogueExists()) {
    return Refuse(std::string("no store: the catalogue ") + kCataloguePath + " does not exist");
  }
  CMOLRA player;
  const LONG opened = player.OpenFS(1);
  if (opened != FS_OK) return Refuse("the store cannot be opened: " + DescribeResult(opened));

  ClipReader reader(player, channel);
  Frame first;
  Chunk chunk;
  switch (reader.Begin(from, to, &chunk)) {
    case ClipReader::Start::kNothing:
      std::fprintf(stderr, "molra: nothing recorded on %s\n", Range(channel, from, to).c_str());
      return kExitFound;
    case ClipReader::Start::kNoKeyFrame:
      std::fprintf(stderr, "molra: no key frame to start from on %s\n",
                   Range(channel, from, to).c_str());
      return kExitFound;
    case ClipReader::Start::kFound:
      break;
  }
  first.bytes = std::move(chunk.bytes);
  first.stamp = chunk.stamp;
  first.key = true;

  std::vector<std::uint8_t> sets;
  annexb::ForEachNal(first.bytes.data(), first.bytes.size(),
                     [&](int type, const std::uint8_t* nal, size_t size) {
                       if (type != annexb::kSps && type != annexb::kPps) return;
                       sets.insert(sets.end(), {0, 0, 0, 1});
                       sets.insert(sets.end(), nal, nal + size);
                     });
  PictureOrder order;
  if (!order.Usable()) return Refuse("libavcodec has no H.264 parser");
  first.order = order.Order(first);
  if (sets.empty() || order.Width() <= 0) {
    std::fprintf(stderr,
                 "molra: the key frame of %s on channel %d holds no H.264 parameter sets: the "
                 "channel holds no H.264 stream to export\n",
                 MillisecondText(first.stamp).c_str(), channel);
    return kExitFound;
  }

  Output output;
  const std::string openProblem = output.Open(path, muxer, sets, order, first.stamp);
  if (!openProblem.empty()) {
    output.Discard();
    return Refuse(openProblem);
  }

  const bool progress = molra_tools::StderrIsTerminal();
  const long long clipStart = first.stamp;
  Clip clip(clipStart);
  long long lastOrder = first.order, lastStamp = first.stamp, keys = 0;
  clip.Add(std::move(first));
  std::string problem;
  bool whole = false;
  for (;;) {
    while (!whole && !(clip.Read() > clip.Next() + 2 * kReach)) {
      const LONG read = reader.Next(&chunk);
      if (read != FS_OK) {
        if (read != FS_END_OF_DATA) {
          problem = "the store refused the chunk after " + MillisecondText(lastStamp) + ": " +
                    DescribeResult(read) + "; the clip ends there";
        }
        whole = true;
        break;
      }
      Frame frame;
      frame.bytes = std::move(chunk.bytes);
      frame.stamp = std::max(chunk.stamp, lastStamp + 1);
      frame.key = chunk.key;
      frame.order = order.Order(frame);
      // Past the range, only pictures shown before the last one taken
      // come along, so that the clip ends without a hole.
      if (chunk.stamp >= to && frame.order > lastOrder) {
        whole = true;
        break;
      }
      lastOrder = std::max(lastOrder, frame.order);
      lastStamp = frame.stamp;
      clip.Add(std::move(frame));
    }
    if (!clip.CanWrite(whole)) break;
    long long dts, pts, duration;
    const long long index = clip.Next();
    const Frame& frame = clip.Take(&dts, &pts, &duration);
    keys += frame.key ? 1 : 0;
    const std::string written = output.Write(frame, dts, pts, duration);
    clip.Release(index);
    if (!written.empty()) {
      output.Discard();
      if (progress) std::fputc('\n', stderr);
      std::fprintf(stderr, "molra: %s\n", written.c_str());
      return kExitFound;
    }
    if (progress && clip.Next() % 25 == 0) {
      std::fprintf(stderr, "\r%lld frames", clip.Next());
      std::fflush(stderr);
    }
  }
  if (progress && clip.Next() >= 25) std::fputc('\n', stderr);
  const std::string closed = output.Close();
  if (!closed.empty()) {
    output.Discard();
    std::fprintf(stderr, "molra: %s\n", closed.c_str());
    return kExitFound;
  }
  std::printf("%s: %lld frames (%lld key frames) of channel %d, %s to %s UTC%s\n", path.c_str(),
              clip.Next(), keys, channel, MillisecondText(clipStart).c_str(),
              MillisecondText(lastStamp).c_str(),
              clipStart < from ? ", from the key frame before --from" : "");
  if (!problem.empty()) {
    std::fprintf(stderr, "molra: %s\n", problem.c_str());
    return kExitFound;
  }
  return kExitOk;
}

}  // namespace molra_tools
