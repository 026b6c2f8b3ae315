// fixture-preview: prints a picture on a terminal.
//
//     fixture-preview COLUMNS ROWS <picture.ppm
//
// A program of its own, because the library that does it and the emulator that `fixture` stands on have licences that
// cannot meet in one program (docs/licences.md). It reads a binary PPM, 8 bits a colour, and prints it by the best
// means of the terminal that the environment describes, at most COLUMNS x ROWS cells large. Exit status: 0, printed; 1,
// the terminal shows no pictures; 2, no picture was read.
#include <algorithm>
#include <chafa.h>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <unistd.h>
#include <vector>

namespace {

constexpr float kCellShape = 0.5F; // width of a character to its height
constexpr int kWidest = 80;        // cells: the panel's 320 columns, four to a cell

template <auto Release> struct Releaser {
    template <typename Object> void operator()(Object *object) const { Release(object); }
};
template <typename Object, auto Release> using Held = std::unique_ptr<Object, Releaser<Release>>;

using Terminal = Held<ChafaTermInfo, chafa_term_info_unref>;

Terminal DetectTerminal(const char *const *environment) {
    std::vector<gchar *> variables;
    for (; *environment != nullptr; ++environment) variables.push_back(const_cast<gchar *>(*environment));
    variables.push_back(nullptr);
    return Terminal(chafa_term_db_detect(chafa_term_db_get_default(), variables.data()));
}

struct Means {
    ChafaTermSeq needs;
    ChafaPixelMode pixels;
    ChafaCanvasMode colours;
};

std::optional<Means> BestMeans(const ChafaTermInfo *terminal) {
    static constexpr Means kBestFirst[] = {
        {CHAFA_TERM_SEQ_BEGIN_KITTY_IMMEDIATE_IMAGE_V1, CHAFA_PIXEL_MODE_KITTY, CHAFA_CANVAS_MODE_TRUECOLOR},
        {CHAFA_TERM_SEQ_BEGIN_ITERM2_IMAGE, CHAFA_PIXEL_MODE_ITERM2, CHAFA_CANVAS_MODE_TRUECOLOR},
        {CHAFA_TERM_SEQ_BEGIN_SIXELS, CHAFA_PIXEL_MODE_SIXELS, CHAFA_CANVAS_MODE_TRUECOLOR},
        {CHAFA_TERM_SEQ_SET_COLOR_FGBG_DIRECT, CHAFA_PIXEL_MODE_SYMBOLS, CHAFA_CANVAS_MODE_TRUECOLOR},
        {CHAFA_TERM_SEQ_SET_COLOR_FGBG_256, CHAFA_PIXEL_MODE_SYMBOLS, CHAFA_CANVAS_MODE_INDEXED_240},
        {CHAFA_TERM_SEQ_SET_COLOR_FGBG_16, CHAFA_PIXEL_MODE_SYMBOLS, CHAFA_CANVAS_MODE_INDEXED_16},
    };
    for (const Means &means : kBestFirst)
        if (chafa_term_info_have_seq(terminal, means.needs)) return means;
    return std::nullopt;
}

struct Pixels {
    int width = 0;
    int height = 0;
    std::vector<guint8> bytes;
};

std::optional<Pixels> ReadPixels(std::FILE *stream) {
    constexpr int kLargest = 4096;
    Pixels pixels;
    if (std::fscanf(stream, "P6 %d %d 255", &pixels.width, &pixels.height) != 2 || std::fgetc(stream) != '\n')
        return std::nullopt;
    if (pixels.width < 1 || pixels.width > kLargest || pixels.height < 1 || pixels.height > kLargest)
        return std::nullopt;
    pixels.bytes.resize(std::size_t{3} * static_cast<unsigned>(pixels.width) * static_cast<unsigned>(pixels.height));
    if (std::fread(pixels.bytes.data(), 1, pixels.bytes.size(), stream) != pixels.bytes.size()) return std::nullopt;
    return pixels;
}

void Print(const Pixels &picture, int columns, int rows, const ChafaTermInfo *terminal, const Means &means) {
    int cells_across = std::clamp(columns, 1, kWidest);
    int cells_down = std::max(rows, 1);
    chafa_calc_canvas_geometry(picture.width, picture.height, &cells_across, &cells_down, kCellShape, FALSE, FALSE);
    const Held<ChafaSymbolMap, chafa_symbol_map_unref> symbols(chafa_symbol_map_new());
    chafa_symbol_map_add_by_tags(symbols.get(), CHAFA_SYMBOL_TAG_BLOCK);
    const Held<ChafaCanvasConfig, chafa_canvas_config_unref> config(chafa_canvas_config_new());
    chafa_canvas_config_set_geometry(config.get(), cells_across, cells_down);
    chafa_canvas_config_set_pixel_mode(config.get(), means.pixels);
    chafa_canvas_config_set_canvas_mode(config.get(), means.colours);
    chafa_canvas_config_set_symbol_map(config.get(), symbols.get());
    const Held<ChafaCanvas, chafa_canvas_unref> canvas(chafa_canvas_new(config.get()));
    chafa_canvas_draw_all_pixels(canvas.get(), CHAFA_PIXEL_RGB8, picture.bytes.data(), picture.width, picture.height,
                                 picture.width * 3);
    GString *const text = chafa_canvas_print(canvas.get(), const_cast<ChafaTermInfo *>(terminal));
    std::fwrite(text->str, 1, text->len, stdout);
    std::fputc('\n', stdout);
    g_string_free(text, TRUE);
}

} // namespace

int main(int argc, char **argv) {
    const std::optional<Pixels> picture = argc == 3 ? ReadPixels(stdin) : std::nullopt;
    if (!picture) {
        std::fputs("usage: fixture-preview COLUMNS ROWS <picture.ppm\n", stderr);
        return 2;
    }
    const Terminal terminal = DetectTerminal(environ);
    const std::optional<Means> means = BestMeans(terminal.get());
    if (!means) return 1;
    Print(*picture, std::atoi(argv[1]), std::atoi(argv[2]), terminal.get(), *means);
    return std::fflush(stdout) == 0 ? 0 : 2;
}
