// The page of a run, in a browser that knows nothing of us.
#include "harness/started_board.h"
#include "machine/report.h"
#include "tests/machine/browser.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace fixture {

namespace {

struct Page {
    std::string html;
    std::size_t events = 0;
    std::vector<FrameRecorder::Frame> frames;
    RunReport report;
};

// A board that shows its splash and its bar and finds nothing to launch.
Page MakePage() {
    Chips chips;
    std::optional<EventStream> events;
    RunOptions options;
    options.known = &TestFirmware();
    options.firmware = &Bootloader();
    options.console = [&](char c) { events->console(c); };
    Machine machine(chips, options);
    RunRecord record(machine);
    events.emplace(machine);
    events->sinks.push_back([&](const Event &event) { record.add(event); });
    machine.record_frames(PanelWiring::bgr);
    Page page;
    page.report = machine.run();
    events->finish();
    machine.frames()->look();
    page.frames = machine.frames()->frames();
    page.events = record.events().size();
    page.html = ReportPage(record, page.report, record.before(), page.frames,
                           {"idle <nothing> & \"none\"", "", "fixture boot '</script>'"});
    return page;
}

// A run of half an hour with a page programmed every 20 ms.
TEST(Report, OfALongRunIsNoLargerThanItMayBe) {
    Chips chips;
    RunOptions options;
    options.firmware = &Bootloader();
    Machine machine(chips, options);
    RunRecord record(machine);
    RunReport report;
    constexpr std::size_t kEvents = 90'000;
    for (std::size_t n = 0; n < kEvents; ++n) {
        Event event;
        event.time = report.time += 20 * kMillisecond;
        event.kind = n % 100 ? EventKind::chip : EventKind::reset;
        event.where = "NAND";
        event.what = fmt::format("{} block {} page {}", n % 64 ? "program" : "erase", n / 64, n % 64);
        record.add(event);
    }
    const std::string page = ReportPage(record, report, record.before(), {}, {"launched", "", "fixture boot"});
    EXPECT_LT(page.size(), 2'000'000u);
    EXPECT_NE(page.find("the first 6000 are listed"), std::string::npos);
    EXPECT_NE(page.find(fmt::format("data-events=\"{}\"", kEvents / 100)), std::string::npos) << "the resets";
}

// What an event is about comes from files and chips: any bytes, in a script element.
TEST(Report, GivesEveryNameToItsScriptAsItIs) {
    const std::pair<const char *, const char *> rows[] = {
        {"open i:/vol0/f\u00fcr \u706f.bin", "open i:/vol0/f\u00fcr \u706f.bin"},
        {"</script><!-- & \"\\", "</script><!-- & \"\\"},
        {"a\nb\x7f\xff", "a\\x0Ab\\x7F\\xFF"},
    };
    for (const auto &[what, told] : rows) {
        Chips chips;
        RunOptions options;
        options.firmware = &Bootloader();
        Machine machine(chips, options);
        RunRecord record(machine);
        Event event;
        event.kind = EventKind::file;
        event.what = what;
        record.add(event);
        const std::string page = ReportPage(record, RunReport(), record.before(), {}, {"launched", "", "fixture boot"});
        const std::size_t begin = page.find('{', page.find("id=\"data\""));
        const auto data = nlohmann::json::parse(page.substr(begin, page.find("</script>", begin) - begin));
        EXPECT_THAT(data["events"][0]["text"].get<std::string>(), testing::EndsWith(told));
    }
}

TEST(Report, InABrowser) {
    const Page page = MakePage();
    ASSERT_GT(page.frames.size(), 1u);
    EXPECT_LT(page.html.size(), 2'000'000u);
    const TemporaryDirectory here;
    const std::string url = "file://" + here.write("report.html", page.html).string();
    Browser browser;
    browser.open(url);
    EXPECT_EQ(browser.run("return document.querySelector('h1').textContent"), "idle <nothing> & \"none\"");
    EXPECT_EQ(browser.run("return [...document.querySelectorAll('svg.timeline path')]"
                          ".reduce((sum, path) => sum + Number(path.dataset.events), 0)"),
              page.events + page.frames.size());
    EXPECT_EQ(browser.run("return document.querySelectorAll('.events tbody tr').length"), page.events);
    EXPECT_EQ(browser.run("return document.getElementById('still').offsetParent === null"), true)
        << "one panel, not the picture for pages without scripts as well";
    // A click between two frames shows the first of them, whatever was shown before.
    for (const std::size_t wanted : {page.frames.size() - 2, std::size_t{0}}) {
        const double ms = static_cast<double>(page.frames[wanted].time + page.frames[wanted + 1].time) / 2 /
                          static_cast<double>(kMillisecond);
        const auto place = browser.run(fmt::format(
            "const svg = document.querySelector('svg.timeline'), data = JSON.parse(document.getElementById('data')"
            ".textContent); svg.scrollIntoView(); const box = svg.getBoundingClientRect();"
            "return [box.left + (data.left + {} / data.end * data.width) / data.view * box.width, box.top + 20]",
            ms));
        for (int clicks = 0; clicks < 2; ++clicks) // the second one lets go again
            browser.click(static_cast<int>(std::lround(place[0].get<double>())),
                          static_cast<int>(std::lround(place[1].get<double>())));
        nlohmann::json shown;
        for (unsigned tries = 0; tries < 100 && shown != std::to_string(wanted); ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            shown = browser.run("return document.getElementById('panel').dataset.frame");
        }
        EXPECT_EQ(shown, std::to_string(wanted));
        const Colour pixel = page.frames[wanted].picture.at(160, 120);
        EXPECT_EQ(browser.run("return [...document.getElementById('panel').getContext('2d')"
                              ".getImageData(160, 120, 1, 1).data].slice(0, 3)"),
                  nlohmann::json({pixel.red, pixel.green, pixel.blue}));
    }
    EXPECT_THAT(browser.errors(), testing::IsEmpty());
    EXPECT_THAT(browser.requests(), testing::Each(testing::AnyOf(testing::StartsWith("data:"), url)));
}

} // namespace

} // namespace fixture
