// Files of the source tree that tests read: goldens, corpora, planted patches.
#pragma once

#include <filesystem>

namespace fixture {

// `relative` as a path from the tree's root. The tree is found from this program's place, <root>/build/<preset>/.
std::filesystem::path SourceFile(const std::filesystem::path &relative);

} // namespace fixture
