// The identifiers of warnings: what --allow takes and programs go by (docs/json.md).
#pragma once

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>

namespace fixture {

// Listed so that a mistyped --allow is refused. Unchecked, it would allow nothing, and the user would look for the
// mistake in the image.
inline constexpr std::string_view kWarningIds[] = {
    "beyond-the-chip",   "fits-no-slot",  "foreign-maker",    "image-runs-on",   "launch-marker-overlap",
    "many-bad-blocks",   "no-body",       "one-good-copy",    "only-one-slot",   "record-block-bad",
    "replaced-in-place", "rescue-lost",   "rescue-rewritten", "resets-for-ever", "shared-page",
    "slot-loses-room",   "store-warning", "trailing-bytes",   "unknown-build",   "volume-over-slots",
};

// One of them. What is not in the list does not compile, so no call can give a warning that --allow refuses.
class WarningId {
public:
    consteval WarningId(const char *id) : id_(id) {
        if (std::find(std::begin(kWarningIds), std::end(kWarningIds), id) == std::end(kWarningIds))
            throw "this warning is missing in kWarningIds";
    }
    operator std::string() const { return id_; }

private:
    const char *id_;
};

} // namespace fixture
