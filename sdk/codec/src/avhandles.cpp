#include "avhandles.h"

#include "VornMediaDef.h"

namespace vcodec {

AVCodecID CodecIdOf(int code) {
    switch (code) {
        case VORN_H264:
            return AV_CODEC_ID_H264;
        case VORN_H265:
            return AV_CODEC_ID_HEVC;
        default:
            return AV_CODEC_ID_NONE;
    }
}

}  // namespace vcodec
