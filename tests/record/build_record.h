// The banner's facts in test images: fixed, so that whole console texts can be compared.
#pragma once

#define BUILD_RECORD_REVISION "319"
#define BUILD_RECORD_DATE "2013/04/02 15:18:51"
#define BUILD_RECORD_BUILD_TIME "2013/04/02 15:26:48"
#define BUILD_RECORD_REVISION_RANGE "319"
#define BUILD_RECORD_MIXED "no"
#define BUILD_RECORD_MODIFIED "no"
#define BUILD_RECORD_URL                                                                                               \
    "https://code.orvalis.example/firmware/fixture/secondary-bootloader/trunk/sources-of-the-tree/x/y/z"
