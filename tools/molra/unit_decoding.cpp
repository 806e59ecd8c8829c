#include "unit_decoding.h"

#include <cstring>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
}

namespace molra_tools {

namespace {

struct CodecFree {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct FrameFree {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};

}  // namespace

std::string LibavErrorText(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(error, text, sizeof text);
  return text;
}

std::string LastUnitFault(const std::vector<std::vector<std::uint8_t>>& units) {
  if (units.empty()) return "";
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  if (codec == nullptr) return "";  // nothing to look with: taken as it is
  std::unique_ptr<AVCodecContext, CodecFree> context(avcodec_alloc_context3(codec));
  std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
  std::unique_ptr<AVFrame, FrameFree> frame(av_frame_alloc());
  if (!context || !packet || !frame) return "";
  // One thread: a fault surfaces with the packet that holds it. Explode:
  // a torn slice fails rather than being concealed.
  context->thread_count = 1;
  context->err_recognition = AV_EF_EXPLODE | AV_EF_BITSTREAM | AV_EF_BUFFER;
  if (avcodec_open2(context.get(), codec, nullptr) < 0) return "";

  // The decoder's own complaints would repeat what the answer says.
  const int logLevel = av_log_get_level();
  av_log_set_level(AV_LOG_QUIET);
  const std::int64_t last = static_cast<std::int64_t>(units.size()) - 1;
  std::string fault;
  bool seen = false;
  const auto drain = [&]() {
    int result;
    while ((result = avcodec_receive_frame(context.get(), frame.get())) >= 0) {
      if (frame->pts == last) {
        seen = true;
        if (frame->decode_error_flags != 0 || (frame->flags & AV_FRAME_FLAG_CORRUPT) != 0) {
          fault = "its picture decodes damaged";
        }
      }
      av_frame_unref(frame.get());
    }
    return result == AVERROR(EAGAIN) || result == AVERROR_EOF ? 0 : result;
  };
  for (std::int64_t i = 0; i <= last && fault.empty(); ++i) {
    const std::vector<std::uint8_t>& unit = units[static_cast<size_t>(i)];
    if (av_new_packet(packet.get(), static_cast<int>(unit.size())) < 0) break;
    std::memcpy(packet->data, unit.data(), unit.size());
    packet->pts = i;
    int result = avcodec_send_packet(context.get(), packet.get());
    av_packet_unref(packet.get());
    if (result >= 0) result = drain();
    if (result < 0 && i == last) fault = "the decoder refuses it: " + LibavErrorText(result);
  }
  if (fault.empty()) {
    avcodec_send_packet(context.get(), nullptr);
    const int result = drain();
    if (result < 0 && fault.empty())
      fault = "the decoder refuses it: " + LibavErrorText(result);
    if (fault.empty() && !seen) fault = "its picture never comes out of the decoder";
  }
  av_log_set_level(logLevel);
  return fault;
}

}  // namespace molra_tools
