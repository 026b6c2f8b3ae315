#include "tools/demo_board.h"

#include "formats/bank.h"
#include "formats/stored_image.h"
#include "machine/installation.h"
#include "machine/raw_flash.h"

#include <cstdlib>

namespace fixture {

namespace fs = std::filesystem;

namespace {

BankFile FileOf(FileRole role, const fs::path &source, const char *version) {
    return {role, source, version, role == FileRole::application ? ReadStartedImage(source) : ReadStoredImage(source)};
}

} // namespace

DemoBoard::DemoBoard() {
    // Read first: without the builds no directory need be made.
    const fs::path images = NeededFirmwareDirectory();
    const std::vector<BankFile> files = {
        FileOf(FileRole::application, images / "demo-application.bin", "2.0"),
        FileOf(FileRole::bootloader, images / "bootloader-1.9.1.bin", "1.9.1"),
        FileOf(FileRole::rescue, images / "demo-rescue.bin", "1.0"),
    };
    // A name that nobody else has: two demos may run at once.
    std::string name = (fs::temp_directory_path() / "fixture-demo-XXXXXX").string();
    if (!mkdtemp(name.data()))
        throw Refusal(Fault::output, {"no-directory", name, "no directory can be made there", "TMPDIR with room"});
    volume_ = name;
    try {
        fill(files);
    } catch (...) {
        // A constructor that throws gets no destructor.
        remove();
        throw;
    }
}

DemoBoard::~DemoBoard() { remove(); }

void DemoBoard::fill(const std::vector<BankFile> &files) const {
    const fs::path bank = volume_ / "data/app";
    fs::create_directories(bank / kFileDirectory);
    for (const BankFile &file : files) WriteFile(bank / file.path(), file.bytes);
    WriteFile(bank / kDescriptorName, MakeDescriptor(files));
    WriteFile(bank / kManifestName, MakeManifest(files));
}

void DemoBoard::remove() const {
    std::error_code error;
    // Without a throw: a directory that stays is less bad than a run without its verdict.
    fs::remove_all(volume_, error);
}

void DemoBoard::provision(NandContents &nand) {
    StoreProvision(RawFlashOf(nand), {0, ReadStoredImage(NeededFirmwareDirectory() / "bootloader.bin"), {}, ""});
}

} // namespace fixture
