// A bank on a disk, of files in memory.
#pragma once

#include "formats/bank.h"

namespace fixture {

// Its two texts and its files; `bank` is made where it does not exist.
inline void WriteBank(const std::filesystem::path &bank, const std::vector<BankFile> &files) {
    std::filesystem::create_directories(bank / kFileDirectory);
    WriteFile(bank / kDescriptorName, MakeDescriptor(files));
    WriteFile(bank / kManifestName, MakeManifest(files));
    for (const BankFile &file : files) WriteFile(bank / file.path(), file.bytes);
}

} // namespace fixture
