// fixture splash: the start-up picture from a PNG file to the bootloader's array, and back.
#include "tools/commands.h"

#include "formats/splash.h"
#include "tools/call_report.h"
#include "tools/options.h"

#include <fmt/format.h>
#include <memory>
#include <set>

namespace fixture {

namespace {

// Ten times what encode writes at most. The bound keeps a wrong name from filling memory.
constexpr std::uintmax_t kLargestSource = 1u << 20;

struct SplashCall {
    std::string input;
    std::string output;
    bool json = false;
};

int Encode(const SplashCall &call) {
    // Proven writable first, as in every subcommand; without finish() nothing appears.
    OutputFile output(call.output);
    const Picture picture = ReadPng(call.input);
    const SplashStream stream = EncodeSplash(picture, call.input);
    // Counted after the reduction to 15 bits, since that is what the panel shows.
    std::set<std::uint16_t> colours;
    for (const Colour colour : picture.pixels) colours.insert(SplashPixel(colour));
    output.write(SplashSource(stream));
    output.finish();
    CallReport outcome("splash encode", call.json);
    outcome.part = {{"file", TextJson(call.output)}, {"size", stream.bytes.size()},     {"capacity", kSplashArrayBytes},
                    {"repeat_runs", stream.repeats}, {"literal_runs", stream.literals}, {"colours", colours.size()}};
    if (!call.json)
        fmt::print("{}: {} of {} bytes in {} repeat and {} literal runs, {} colours\n", Printable(call.output),
                   stream.bytes.size(), kSplashArrayBytes, stream.repeats, stream.literals, colours.size());
    return outcome.finish(kGood);
}

int Decode(const SplashCall &call) {
    OutputFile output(call.output);
    const Bytes source = ReadFile(call.input, kLargestSource);
    const std::string_view text(reinterpret_cast<const char *>(source.data()), source.size());
    const Picture picture = DecodeSplash(ReadSplashSource(text, call.input), call.input);
    output.write(PngOf(picture));
    output.finish();
    CallReport outcome("splash decode", call.json);
    outcome.part = {{"file", TextJson(call.output)}, {"width", picture.width}, {"height", picture.height}};
    return outcome.finish(kGood);
}

} // namespace

void AddSplashCommand(Command &app, int &exit_status) {
    auto call = std::make_shared<SplashCall>();
    Command *command = app.add_subcommand("splash", "The start-up picture in its compressed form");
    command->require_subcommand();

    Command *encode = command->add_subcommand("encode", "Compress a picture into the bootloader's array");
    encode->add_option("IN.png", call->input, "320 x 240 pixels, black from row 219 on")->required();
    encode->add_option("OUT.cpp", call->output, "C++ source to write")->required();
    encode->add_flag("--json", call->json, "report as one JSON object");
    encode->callback([call, &exit_status] { exit_status = Encode(*call); });

    Command *decode = command->add_subcommand("decode", "Turn the array back into a picture");
    decode->add_option("IN.cpp", call->input, "C++ source that encode wrote")->required();
    decode->add_option("OUT.png", call->output, "picture to write")->required();
    decode->add_flag("--json", call->json, "report as one JSON object");
    decode->callback([call, &exit_status] { exit_status = Decode(*call); });
}

} // namespace fixture
