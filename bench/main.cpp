// make bench: what harness/speed.h measures, as a table.
#include "harness/speed.h"

#include <fmt/format.h>

using namespace fixture;

int main() {
    fmt::print("{:28} {:>12} {:>12} {:>8} {:>18}\n", "1 MiB", "virtual ms", "limit ms", "ratio", "instructions/byte");
    for (const std::vector<SpeedRow> &rows : {NandSpeed(), DataflashSpeed()})
        for (const SpeedRow &row : rows)
            fmt::print("{:28} {:12.3f} {:12.3f} {:8.4f} {:18.2f}\n", row.what,
                       static_cast<double>(row.time) / static_cast<double>(kMillisecond),
                       static_cast<double>(row.limit) / static_cast<double>(kMillisecond), row.ratio(),
                       row.instructions_per_byte);
    fmt::print("\n{:28} {:>12} {:>12} {:>20}\n", "panel", "pixels", "instructions", "instructions/pixel");
    for (const PixelRow &row : PanelSpeed())
        fmt::print("{:28} {:12} {:12} {:20.3f}\n", row.what, row.pixels, row.instructions,
                   static_cast<double>(row.instructions) / row.pixels);
}
