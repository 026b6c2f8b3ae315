// The fuzzer's way to the targets. The program's own name says which one it is: build/fuzz/NAME-fuzz.
#include "fuzz/targets.h"

#include <cstdio>
#include <cstdlib>

using namespace fixture;

namespace {

const FuzzTarget *g_target = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***arguments) {
    const std::string program = std::filesystem::path((*arguments)[0]).filename().string();
    for (const FuzzTarget &target : FuzzTargets())
        if (program == std::string(target.name) + "-fuzz") g_target = &target;
    if (g_target) return 0;
    std::fprintf(stderr, "%s: no target's name\n", program.c_str());
    std::exit(2);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    g_target->run({data, size});
    return 0;
}
