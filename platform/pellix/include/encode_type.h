#ifndef MEDIAD_PLATFORM_ENCODE_TYPE_H
#define MEDIAD_PLATFORM_ENCODE_TYPE_H

// Video encode types: 1 'apch', 2 'apcn', 3 'apcs', 4 'apco', 5 'ap4h' (the ProRes codec), 6 'AVdn' (the DNxHD codec).
class CIsEncodeType {
public:
    // Non-zero when the two encode types belong to different codecs. Unknown types belong to no codec and differ
    // from everything. Any thread.
    static int areEncodeTypesDifferentCodecs(unsigned int a, unsigned int b);
};

#endif
