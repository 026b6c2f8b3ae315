// A browser without a window, driven from outside as any tester would: Debian's Chromium through its driver.
//
//   Browser browser;
//   browser.open("file:///tmp/report.html");
//   browser.run("return document.title");
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace fixture {

class Browser {
public:
    // Throws std::runtime_error where chromedriver cannot be started or makes no session.
    Browser();
    ~Browser();
    Browser(const Browser &) = delete;
    Browser &operator=(const Browser &) = delete;

    void open(const std::string &url);
    // The value of a function's body.
    nlohmann::json run(const std::string &script);
    // A click of the mouse at a place of the visible page.
    void click(int x, int y);
    std::string screenshot(); // PNG in base 64
    // What the console holds of errors, and every address that anything was asked of.
    std::vector<std::string> errors();
    std::vector<std::string> requests();

private:
    struct Driver;
    std::unique_ptr<Driver> driver_;
};

} // namespace fixture
