// Where this build came from, for the banner. The build writes a <build_record.h> with the working copy's facts and
// puts it first on the include path; this one serves a build that knows nothing.
#pragma once

#define BUILD_RECORD_REVISION "0"
#define BUILD_RECORD_DATE ""
#define BUILD_RECORD_BUILD_TIME ""
#define BUILD_RECORD_REVISION_RANGE "0"
#define BUILD_RECORD_MIXED "no"
#define BUILD_RECORD_MODIFIED "no"
#define BUILD_RECORD_URL ""
