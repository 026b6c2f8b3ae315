#include "harness/bank_texts.h"

#include <fmt/format.h>

namespace fixture {

std::uint32_t SumOf(const std::string &bytes) {
    std::uint32_t sum = 0;
    for (const char c : bytes) sum += static_cast<std::uint8_t>(c);
    return sum;
}

std::string ManifestLine(const std::string &path, const std::string &content) {
    // Written out here, not taken from formats/bank.h: what the reader and the bootloader are tested with must not come
    // from the writer beside them.
    return fmt::format("{:9} | {:9} | {:<256}\r\n", content.size(), SumOf(content), path);
}

std::string DescriptorElement(const std::string &element, const DescriptorTexts &texts) {
    return fmt::format("<{0}><BaseFileName>{1}</BaseFileName><BaseFileExtension>{2}</BaseFileExtension>"
                       "<Version>{3}</Version></{0}>",
                       element, texts.base, texts.extension, texts.version);
}

} // namespace fixture
