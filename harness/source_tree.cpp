#include "harness/source_tree.h"

namespace fixture {

std::filesystem::path SourceFile(const std::filesystem::path &relative) {
    const std::filesystem::path program = std::filesystem::canonical("/proc/self/exe");
    return program.parent_path().parent_path().parent_path() / relative;
}

} // namespace fixture
