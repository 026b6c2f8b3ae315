// Where this build came from, and the banner that says so.
#pragma once

#include <cstddef>

// Filled by the build from <build_record.h>. Zero-terminated, zero-padded texts; dates as year/month/day
// hour:minute:second.
struct SVNInfo {
    char revision[32];
    char date[32];
    char build_time[32];
    char revision_range[32];
    char mixed[4];    // revisions: "no" or "yes"
    char modified[4]; // "no" or "yes"
    char url[256];
};
static_assert(offsetof(SVNInfo, date) == 32 && offsetof(SVNInfo, build_time) == 64);
static_assert(offsetof(SVNInfo, revision_range) == 96 && offsetof(SVNInfo, mixed) == 128);
static_assert(offsetof(SVNInfo, modified) == 132 && offsetof(SVNInfo, url) == 136);
static_assert(sizeof(SVNInfo) == 392);

extern "C" {

extern const SVNInfo svnInfo;

// Prints the banner: a frame of 60 columns, the fields one a line, the URL in lines of 32 characters (none when it is
// empty). A revision of more than 4 characters makes its line wider than the frame.
void SVNInfo_Splash(void);

} // extern "C"
