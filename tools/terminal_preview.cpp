#include "tools/terminal_preview.h"

#include <algorithm>
#include <chafa.h>
#include <memory>
#include <optional>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace fixture {

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

// The library takes a terminal that it does not know for one with colours.
bool ShowsColours(const char *const *environment) {
    constexpr std::string_view kName = "TERM=";
    for (; *environment != nullptr; ++environment) {
        const std::string_view variable = *environment;
        if (variable.starts_with(kName)) return variable != kName && variable.substr(kName.size()) != "dumb";
    }
    return false;
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

} // namespace

std::string TerminalPreview(const Picture &picture, int columns, int rows, const char *const *environment) {
    if (!ShowsColours(environment) || picture.pixels.empty()) return {};
    const Terminal terminal = DetectTerminal(environment);
    const std::optional<Means> means = BestMeans(terminal.get());
    if (!means) return {};

    const int width = static_cast<int>(picture.width);
    const int height = static_cast<int>(picture.height);
    int cells_across = std::clamp(columns, 1, kWidest);
    int cells_down = std::max(rows, 1);
    chafa_calc_canvas_geometry(width, height, &cells_across, &cells_down, kCellShape, FALSE, FALSE);

    const Held<ChafaSymbolMap, chafa_symbol_map_unref> symbols(chafa_symbol_map_new());
    chafa_symbol_map_add_by_tags(symbols.get(), CHAFA_SYMBOL_TAG_BLOCK);
    const Held<ChafaCanvasConfig, chafa_canvas_config_unref> config(chafa_canvas_config_new());
    chafa_canvas_config_set_geometry(config.get(), cells_across, cells_down);
    chafa_canvas_config_set_pixel_mode(config.get(), means->pixels);
    chafa_canvas_config_set_canvas_mode(config.get(), means->colours);
    chafa_canvas_config_set_symbol_map(config.get(), symbols.get());
    const Held<ChafaCanvas, chafa_canvas_unref> canvas(chafa_canvas_new(config.get()));
    chafa_canvas_draw_all_pixels(canvas.get(), CHAFA_PIXEL_RGB8,
                                 reinterpret_cast<const guint8 *>(picture.pixels.data()), width, height, width * 3);
    GString *const text = chafa_canvas_print(canvas.get(), terminal.get());
    const std::string result(text->str, text->len);
    g_string_free(text, TRUE);
    return result + "\n";
}

void PrintPreview(std::FILE *stream, const Picture &picture) {
    winsize size{};
    if (isatty(fileno(stream)) == 0 || ioctl(fileno(stream), TIOCGWINSZ, &size) != 0) return;
    const std::string text = TerminalPreview(picture, size.ws_col, size.ws_row - 1, environ);
    std::fwrite(text.data(), 1, text.size(), stream);
}

} // namespace fixture
