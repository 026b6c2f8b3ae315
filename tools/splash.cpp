// fixture splash: the start-up picture from a PNG file to the bootloader's array, and back.
#include "tools/commands.h"

#include "formats/splash.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

namespace fixture {

namespace {

constexpr std::uintmax_t kLargestSource = 1u << 20;

struct SplashCall {
    std::string input;
    std::string output;
    bool json = false;
};

int Encode(const SplashCall &call) {
    const Picture picture = ReadPng(call.input);
    const SplashStream stream = EncodeSplash(picture, call.input);
    std::set<std::uint16_t> colours;
    for (const Colour colour : picture.pixels) colours.insert(SplashPixel(colour));
    WriteFile(call.output, SplashSource(stream));
    if (call.json)
        fmt::print("{}\n", nlohmann::ordered_json{{"file", call.output},
                                                  {"bytes", stream.bytes.size()},
                                                  {"array", kSplashArrayBytes},
                                                  {"repeat_runs", stream.repeats},
                                                  {"literal_runs", stream.literals},
                                                  {"colours", colours.size()}}
                               .dump(2));
    else
        fmt::print("{}: {} of {} bytes in {} repeat and {} literal runs, {} colours\n", call.output,
                   stream.bytes.size(), kSplashArrayBytes, stream.repeats, stream.literals, colours.size());
    return 0;
}

int Decode(const SplashCall &call) {
    const Bytes source = ReadFile(call.input, kLargestSource);
    const std::string_view text(reinterpret_cast<const char *>(source.data()), source.size());
    WritePng(call.output, DecodeSplash(ReadSplashSource(text, call.input), call.input));
    return 0;
}

} // namespace

void AddSplashCommand(CLI::App &app, int &exit_status) {
    auto call = std::make_shared<SplashCall>();
    CLI::App *command = app.add_subcommand("splash", "The start-up picture in its compressed form");
    command->require_subcommand(1);

    CLI::App *encode = command->add_subcommand("encode", "Compress a picture to the bootloader's array");
    encode->add_option("IN.png", call->input, "320 x 240 pixels, black from row 219 on")->required();
    encode->add_option("OUT.cpp", call->output, "C++ source to write")->required();
    encode->add_flag("--json", call->json, "report as one JSON object");
    encode->callback([call, &exit_status] { exit_status = Encode(*call); });

    CLI::App *decode = command->add_subcommand("decode", "Turn an array back to a picture");
    decode->add_option("IN.cpp", call->input, "C++ source that encode has written")->required();
    decode->add_option("OUT.png", call->output, "picture to write")->required();
    decode->callback([call, &exit_status] { exit_status = Decode(*call); });
}

} // namespace fixture
