#include "fuzz/targets.h"

namespace fixture {

std::span<const FuzzTarget> FuzzTargets() {
    static constexpr FuzzTarget kTargets[] = {{"descriptor", FuzzDescriptor},
                                              {"manifest", FuzzManifest},
                                              {"image", FuzzImage},
                                              {"slot", FuzzSlot},
                                              {"parameters", FuzzParameters},
                                              {"picture", FuzzPicture},
                                              {"chip-files", FuzzChipFiles},
                                              {"elf", FuzzElf},
                                              {"png", FuzzPng},
                                              {"texts", FuzzTexts},
                                              {"gdb", FuzzGdb},
                                              {"update", FuzzUpdate},
                                              {"replies", FuzzReplies},
                                              {"requests", FuzzRequests},
                                              {"semihosting", FuzzSemihosting},
                                              {"writers", FuzzWriters},
                                              {"doctor", FuzzDoctor}};
    return kTargets;
}

} // namespace fixture
