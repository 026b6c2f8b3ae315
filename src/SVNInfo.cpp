#include "SVNInfo.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t kChunk = 32;

void PrintUrl() {
    const char *const end = std::find(svnInfo.url, svnInfo.url + sizeof svnInfo.url, '\0');
    const auto length = static_cast<std::size_t>(end - svnInfo.url);
    for (std::size_t at = 0; at < length; at += kChunk) {
        char chunk[kChunk + 4] = {}; // the spare bytes end a full chunk
        std::memcpy(chunk, svnInfo.url + at, kChunk);
        std::printf(at == 0 ? "*   URL:              %-32s     *\n" : "*                     %-32s     *\n", chunk);
    }
}
static_assert(sizeof svnInfo.url % kChunk == 0);

} // namespace

void SVNInfo_Splash() {
    std::printf("************************************************************\n");
    std::printf("* SVNInfo:                                                 *\n");
    std::printf("*----------------------------------------------------------*\n");
    std::printf("*   Revision:         %-4s                                 *\n", svnInfo.revision);
    std::printf("*   Date:             %-32s     *\n", svnInfo.date);
    std::printf("*   Build Time:       %-32s     *\n", svnInfo.build_time);
    std::printf("*   Revision Range:   %-32s     *\n", svnInfo.revision_range);
    std::printf("*   Mixed Revisions:  %-4s                                 *\n", svnInfo.mixed);
    std::printf("*   Modified:         %-4s                                 *\n", svnInfo.modified);
    PrintUrl();
    std::printf("*                                                          *\n");
    std::printf("************************************************************\n");
}
