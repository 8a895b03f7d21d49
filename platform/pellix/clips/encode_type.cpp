#include "encode_type.h"

namespace {

enum class Codec { None, ProRes, DNxHD };

Codec codecOf(unsigned int encodeType) {
    if (encodeType >= kEncodeApch && encodeType <= kEncodeAp4h) return Codec::ProRes;
    if (encodeType == kEncodeAVdn) return Codec::DNxHD;
    return Codec::None;
}

} // namespace

int CIsEncodeType::areEncodeTypesDifferentCodecs(unsigned int a, unsigned int b) {
    return codecOf(a) == Codec::None || codecOf(a) != codecOf(b);
}
