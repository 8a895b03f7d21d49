#ifndef MEDIAD_PLATFORM_ENCODE_TYPE_H
#define MEDIAD_PLATFORM_ENCODE_TYPE_H

// Video encode types, named after the four characters that QuickTime files carry. The first five are kinds of ProRes,
// the last is DNxHD. Clip records and the encode type parameter hold these numbers.
enum eEncodeType_t : unsigned int {
    kEncodeUnknown = 0,
    kEncodeApch = 1,
    kEncodeApcn = 2,
    kEncodeApcs = 3,
    kEncodeApco = 4,
    kEncodeAp4h = 5,
    kEncodeAVdn = 6,
};

class CIsEncodeType {
public:
    // Non-zero when the two encode types belong to different codecs. Unknown types belong to no codec and differ
    // from everything, from themselves too. Any thread.
    static int areEncodeTypesDifferentCodecs(unsigned int a, unsigned int b);
};

#endif
