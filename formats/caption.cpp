#include "formats/caption.h"

#include <algorithm>
#include <cstdint>

namespace fixture {

namespace {

// The printable characters from the space on. A byte is a column of seven dots, the lowest bit on top; the lowest byte
// is the leftmost of the five columns.
constexpr std::uint64_t kCharacters[] = {
    0x0000000000, 0x00005F0000, 0x0007000700, 0x147F147F14, 0x122A7F2A24, 0x6264081323, 0x5022554936, 0x0000030500,
    0x0041221C00, 0x001C224100, 0x14083E0814, 0x08083E0808, 0x0000305000, 0x0808080808, 0x0000606000, 0x0204081020,
    0x3E4549513E, 0x00407F4200, 0x4649516142, 0x314B454121, 0x107F121418, 0x3945454527, 0x3049494A3C, 0x0305097101,
    0x3649494936, 0x1E29494906, 0x0000363600, 0x0000365600, 0x0041221408, 0x1414141414, 0x0814224100, 0x0609510102,
    0x3E41794932, 0x7E1111117E, 0x364949497F, 0x224141413E, 0x1C2241417F, 0x414949497F, 0x010909097F, 0x7A4949413E,
    0x7F0808087F, 0x00417F4100, 0x013F414020, 0x412214087F, 0x404040407F, 0x7F020C027F, 0x7F1008047F, 0x3E4141413E,
    0x060909097F, 0x5E2151413E, 0x462919097F, 0x3149494946, 0x01017F0101, 0x3F4040403F, 0x1F2040201F, 0x3F4038403F,
    0x6314081463, 0x0708700807, 0x4345495161, 0x0041417F00, 0x2010080402, 0x007F414100, 0x0402010204, 0x4040404040,
    0x0004020100, 0x7854545420, 0x384444487F, 0x2044444438, 0x7F48444438, 0x1854545438, 0x0201097E08, 0x3E5252520C,
    0x780404087F, 0x00407D4400, 0x003D444020, 0x004428107F, 0x00407F4100, 0x780418047C, 0x780404087C, 0x3844444438,
    0x081414147C, 0x7C18141408, 0x080404087C, 0x2054545448, 0x2040443F04, 0x7C2040403C, 0x1C2040201C, 0x3C4030403C,
    0x4428102844, 0x3C5050500C, 0x444C546444, 0x0041360800, 0x00007F0000, 0x0008364100, 0x0810080810,
};
constexpr unsigned kColumns = 5, kRows = 7, kMargin = 4;
constexpr Colour kInk{0xE6, 0xED, 0xF3}, kPaper{0x1B, 0x1F, 0x24};

void Draw(Picture &picture, unsigned left, unsigned top, char c) {
    const auto index = static_cast<std::size_t>(static_cast<unsigned char>(c) - ' ');
    const std::uint64_t dots = kCharacters[index < std::size(kCharacters) ? index : '?' - ' '];
    for (unsigned column = 0; column < kColumns; ++column)
        for (unsigned row = 0; row < kRows; ++row)
            if (dots >> (8 * column + row) & 1) picture.at(left + column, top + row) = kInk;
}

} // namespace

Picture WithCaption(const Picture &picture, std::string_view text) {
    Picture captioned(picture.width, picture.height + kRows + 2 * kMargin);
    const auto below = std::copy(picture.pixels.begin(), picture.pixels.end(), captioned.pixels.begin());
    std::fill(below, captioned.pixels.end(), kPaper);
    unsigned left = kMargin;
    for (const char c : text) {
        if (left + kColumns + kMargin > picture.width) break;
        Draw(captioned, left, picture.height + kMargin, c);
        left += kColumns + 1;
    }
    return captioned;
}

} // namespace fixture
