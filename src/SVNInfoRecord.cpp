// The record stands alone, so that a new build record compiles this file and nothing else.
#include "SVNInfo.h"

#include <build_record.h>

constexpr SVNInfo svnInfo = {
    BUILD_RECORD_REVISION, BUILD_RECORD_DATE,     BUILD_RECORD_BUILD_TIME, BUILD_RECORD_REVISION_RANGE,
    BUILD_RECORD_MIXED,    BUILD_RECORD_MODIFIED, BUILD_RECORD_URL,
};
