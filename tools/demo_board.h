// The board that `fixture boot` runs where none is named: as it leaves production with bootloader 1.9.0 in its NAND
// slot, and on its volume a bank with 1.9.1, a rescue image and the demo application. It is made for the run and goes
// with it.
#pragma once

#include "fixture/parts/nand.h"
#include "formats/bank.h"

#include <filesystem>
#include <vector>

namespace fixture {

class DemoBoard {
public:
    // Makes the bank in a directory of its own, out of the builds known here. Throws Refusal where they are missing.
    DemoBoard();
    ~DemoBoard();
    DemoBoard(const DemoBoard &) = delete;
    DemoBoard &operator=(const DemoBoard &) = delete;

    // The directory that is volume vol0.
    const std::filesystem::path &volume() const { return volume_; }
    // Puts bootloader 1.9.0 into the first slot of a new chip.
    static void provision(NandContents &nand);

private:
    void fill(const std::vector<BankFile> &files) const;
    void remove() const;

    std::filesystem::path volume_;
};

} // namespace fixture
