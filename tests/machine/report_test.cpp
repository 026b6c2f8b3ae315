// The page of a run, in a browser that knows nothing of us.
#include "harness/process.h"
#include "harness/started_board.h"
#include "machine/report.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

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

// Events that nobody caused, on their page.
struct Recorded {
    Chips chips;
    Machine machine{chips, {.firmware = &Bootloader(), .volume = {}, .board = {}, .console = {}}};
    RunRecord record{machine};
    std::string page(const RunReport &report = {}) const {
        return ReportPage(record, report, record.before(), {}, {"launched", "", "fixture boot"});
    }
};

// A run of half an hour with a page programmed every 20 ms.
TEST(Report, OfALongRunIsNoLargerThanItMayBe) {
    Recorded run;
    RunReport report;
    constexpr std::size_t kEvents = 90'000;
    for (std::size_t n = 0; n < kEvents; ++n) {
        Event event;
        event.time = report.time += 20 * kMillisecond;
        event.kind = n % 100 ? EventKind::chip : EventKind::reset;
        event.where = "NAND";
        event.what = fmt::format("{} block {} page {}", n % 64 ? "program" : "erase", n / 64, n % 64);
        run.record.add(event);
    }
    const std::string page = run.page(report);
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
        Recorded run;
        Event event;
        event.kind = EventKind::file;
        event.what = what;
        run.record.add(event);
        const std::string page = run.page();
        const std::size_t begin = page.find('{', page.find("id=\"data\""));
        const auto data = nlohmann::json::parse(page.substr(begin, page.find("</script>", begin) - begin));
        EXPECT_THAT(data["events"][0]["text"].get<std::string>(), testing::EndsWith(told));
    }
}

// What errors there are, from the first script on.
constexpr const char *kListen = R"(<script>
const errors = [];
addEventListener("error", e => errors.push(e.message || e.target.outerHTML), true);
addEventListener("unhandledrejection", e => errors.push(String(e.reason)));
</script>)";

// Goes to each place in `wanted`, clicks and goes elsewhere, lets go and comes back; leaves what it saw at the page's
// end.
constexpr const char *kProbe = R"(<script>addEventListener("load", async () => {
  const all = selector => [...document.querySelectorAll(selector)], panel = document.getElementById("panel");
  const data = JSON.parse(document.getElementById("data").textContent), svg = all("svg.timeline")[0], shown = [];
  const go = (event, ms) => {
    const box = svg.getBoundingClientRect(), clientY = box.top + 20;
    const clientX = box.left + (data.left + ms / data.end * data.width) / data.view * box.width;
    document.elementFromPoint(clientX, clientY).dispatchEvent(new MouseEvent(event, {clientX, clientY, bubbles: true}));
  };
  const look = async (frame, x, y) => {
    let tries = 0;
    do {
      for (let n = 0; n < 1e6; ++n); // the page's time is virtual and flies, decoding a picture is not
      await new Promise(next => setTimeout(next, 10));
    } while (++tries < 500 && panel.dataset.frame != frame);
    shown.push([Number(panel.dataset.frame), ...panel.getContext("2d").getImageData(x, y, 1, 1).data.slice(0, 3)]);
  };
  svg.scrollIntoView();
  for (const [frame, ms, x, y] of wanted) {
    const other = wanted.find(place => place[0] !== frame)[1];
    go("pointermove", ms), go("click", ms), go("pointermove", other);
    await look(frame, x, y);
    go("click", other), go("pointermove", ms);
    await look(frame, x, y);
  }
  const told = {shown, errors, title: all("h1")[0].textContent, rows: all(".events tbody tr").length,
    marks: all("svg.timeline path").reduce((sum, path) => sum + Number(path.dataset.events), 0),
    still: document.getElementById("still").offsetParent !== null,
    requests: performance.getEntriesByType("resource").map(entry => entry.name)};
  const text = JSON.stringify(told).replace(/[<>&]/g, c => "\\u00" + c.charCodeAt().toString(16));
  document.body.append("TOLD" + text + "\n");
});</script>)";

TEST(Report, InABrowser) {
    const Page page = MakePage();
    ASSERT_GT(page.frames.size(), 1u);
    EXPECT_LT(page.html.size(), 2'000'000u);
    // A place between two frames shows the first of them, whatever was shown before.
    nlohmann::json wanted, shown = nlohmann::json::array();
    const std::size_t last = page.frames.size() - 2;
    const Picture &late = page.frames[last].picture, &early = page.frames[0].picture;
    const auto differ = std::mismatch(late.pixels.begin(), late.pixels.end(), early.pixels.begin()).first;
    const auto place = static_cast<unsigned>(differ - late.pixels.begin());
    for (const std::size_t n : {last, std::size_t{0}}) {
        const Picoseconds twice = page.frames[n].time + page.frames[n + 1].time;
        const double ms = Milliseconds(twice) / 2;
        wanted.push_back({n, ms, place % late.width, place / late.width});
        const Colour pixel = page.frames[n].picture.pixels[place];
        shown.insert(shown.end(), 2, {n, pixel.red, pixel.green, pixel.blue});
    }
    std::string html = page.html + "<script>const wanted = " + wanted.dump() + "</script>" + kProbe;
    html.insert(html.find("<head>") + 6, kListen);
    const TemporaryDirectory here;
    const std::string dom = Output(fmt::format("timeout 100 chromium --headless=new --no-sandbox --disable-gpu "
                                               "--disable-dev-shm-usage --window-size=1200,1400 --dump-dom "
                                               "--virtual-time-budget=20000 file://{} 2>/dev/null",
                                               here.write("report.html", html).string()));
    const std::size_t begin = dom.rfind("TOLD");
    ASSERT_NE(begin, std::string::npos) << dom.substr(0, 1000);
    const auto told = nlohmann::json::parse(dom.substr(begin + 4, dom.find('\n', begin) - begin - 4));
    EXPECT_EQ(told, (nlohmann::json{{"shown", shown},
                                    {"errors", nlohmann::json::array()},
                                    {"title", "idle <nothing> & \"none\""},
                                    {"rows", page.events},
                                    {"marks", page.events + page.frames.size()},
                                    {"still", false}, // one panel, not the picture for pages without scripts as well
                                    {"requests", nlohmann::json::array()}}));
}

} // namespace

} // namespace fixture
