#include "tools/commands.h"

#include <build_record.h>
#include <string_view>

namespace fixture {

std::string VersionText() {
    std::string text = "fixture 1.0, revision " BUILD_RECORD_REVISION " of " BUILD_RECORD_DATE;
    if (std::string_view(BUILD_RECORD_MODIFIED) != "no") text += ", modified";
    return text;
}

} // namespace fixture
