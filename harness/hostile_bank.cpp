#include "harness/hostile_bank.h"

#include "formats/bank.h"
#include "formats/stored_image.h"
#include "harness/noise.h"

#include <fmt/format.h>

namespace fixture {

HostileBank::HostileBank(unsigned seed) : noise_(Noise(1 << 14, seed)), shape_(noise_) {
    descriptor = section("MainApplication", "demo") + section("SecondaryBootloader", "boot2");
    if (!shape_.one_in(3)) descriptor += section("RescueApplication", "help");
    if (!shape_.one_in(8)) descriptor = "<P>" + descriptor + "</P>";
    constexpr std::size_t kTooLong = 0xFFFF01; // for the load buffer, with the launch marker at its end
    files_["bin/demo.bin"] = shape_.one_in(60)   ? std::string(kTooLong, 'a')
                             : shape_.one_in(12) ? ""
                                                 : "what the application does";
    files_["bin/boot2.bin"] = AsText(shape_.one_in(2) ? Wrap(Bootloader("1.9.1").flat) : MakeImage(shape_));
    files_["bin/help.bin"] = AsText(MakeImage(shape_));
    manifest_ = std::string(2 * 282, '-');
    for (const char *const path : {"bin/demo.bin", "bin/boot2.bin", "bin/help.bin", "bin/demo.bin"})
        if (!shape_.one_in(8)) manifest_ += record(path);
    spoil(shape_.one_in(2) ? descriptor : manifest_);
    if (shape_.one_in(30)) files_.erase("bin/demo.bin");
}

void HostileBank::write(const TemporaryDirectory &volume) {
    files_[kDescriptorName] = descriptor;
    files_[kManifestName] = manifest_;
    for (const auto &[name, bytes] : files_) volume.write("data/app/" + name, bytes);
    const char *const name = shape_.pick({kDescriptorName, "bin/boot2.bin", "bin/help.bin"});
    if (shape_.one_in(8)) std::filesystem::permissions(volume.path() / "data/app" / name, std::filesystem::perms(0444));
}

std::string HostileBank::value(const std::string &usual) {
    if (!shape_.one_in(10)) return usual;
    return shape_.pick<std::string>({"", ".", "bin", std::string(16, 'v'), std::string(17, 'v'), std::string(257, 'n'),
                                     "a<b>c</b>", "x\n", std::string("d\0e", 3), "app", "/"});
}

std::string HostileBank::element(const std::string &name, const std::string &text) {
    const std::string tag = shape_.one_in(20) ? name + shape_.pick({"Old", " ", "/", " a='1'"}) : name;
    if (shape_.one_in(25))
        return shape_.pick<std::string>({"<" + name + "/>", "<" + name + ">" + text, "<!-- x -->", "</" + name + ">"});
    return "<" + tag + ">" + text + "</" + tag + ">";
}

std::string HostileBank::section(const char *name, const char *base) {
    return element(name, element("BaseFileName", value(base)) + element("BaseFileExtension", value("bin")) +
                             element("Version", value(shape_.pick({"1.9.0", "1.9.1", "1.9.1", "2.0"}))));
}

std::string HostileBank::record(const std::string &name) {
    const std::string &content = files_[name];
    const std::size_t size = content.size() + (shape_.one_in(20) ? shape_.below(3) : 0);
    const std::uint32_t sum = ByteSum(AsBytes(content)) ^ (shape_.one_in(20) ? 1 : 0);
    const std::string path = !shape_.one_in(10)
                                 ? name
                                 : shape_.pick<std::string>({"./" + name, "\\" + name, name + "\n", "../" + name,
                                                             "BIN/x", "bin/none.bin", std::string(256, '/'), ""});
    const std::string line = fmt::format("{:>9} | {:>9} | {:<256}\r\n", size, sum, path);
    return shape_.one_in(30) ? line.substr(0, 280) + "\n" : line.substr(0, 282);
}

void HostileBank::spoil(std::string &text) {
    for (unsigned n = shape_.below(3); n > 0 && shape_.one_in(3) && !text.empty(); --n) {
        const auto size = static_cast<std::uint32_t>(text.size());
        const std::uint32_t at = shape_.below(size), how = shape_.below(8);
        if (how < 4) text[at] = shape_.pick({'<', '>', '/', '\0', ' ', 'x', '?', '-'});
        if (how == 4 || how == 5) text.erase(at, 1 + shape_.below(9));
        if (how == 6) text.insert(at, text.substr(shape_.below(size), shape_.below(300)));
        if (how == 7) text.resize(at);
    }
}

} // namespace fixture
