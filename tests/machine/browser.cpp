#include "tests/machine/browser.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <fmt/format.h>
#include <httplib.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fixture {

namespace {

using nlohmann::json;

// A port that was free a moment ago.
std::uint16_t FreePort() {
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(probe, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        throw std::runtime_error("no free port on the loopback address");
    getsockname(probe, reinterpret_cast<sockaddr *>(&address), &length);
    close(probe);
    return ntohs(address.sin_port);
}

} // namespace

struct Browser::Driver {
    pid_t process = -1;
    std::unique_ptr<httplib::Client> client;
    std::string session;

    json call(const std::string &path, const json &body) {
        const auto answer = client->Post("/session" + path, body.dump(), "application/json");
        if (!answer) throw std::runtime_error("chromedriver does not answer");
        json value = json::parse(answer->body).at("value");
        if (answer->status != 200) throw std::runtime_error("chromedriver: " + value.dump());
        return value;
    }
    json in_session(const std::string &path, const json &body) { return call("/" + session + path, body); }
    json log(const char *type) { return in_session("/se/log", {{"type", type}}); }

    ~Driver() {
        if (client && !session.empty()) client->Delete("/session/" + session);
        if (process < 0) return;
        kill(process, SIGTERM);
        waitpid(process, nullptr, 0);
    }
};

Browser::Browser() : driver_(std::make_unique<Driver>()) {
    const std::uint16_t port = FreePort();
    std::string option = fmt::format("--port={}", port);
    std::string name = "chromedriver", quiet = "--silent";
    char *const arguments[] = {name.data(), option.data(), quiet.data(), nullptr};
    if (posix_spawnp(&driver_->process, "chromedriver", nullptr, nullptr, arguments, environ) != 0) {
        driver_->process = -1;
        throw std::runtime_error("chromedriver cannot be started");
    }
    driver_->client = std::make_unique<httplib::Client>("127.0.0.1", port);
    driver_->client->set_read_timeout(120);
    for (unsigned tries = 0; tries < 600 && !driver_->client->Get("/status"); ++tries)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const json options = {
        {"args",
         {"--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--window-size=1200,1400"}}};
    const json wanted = {{"goog:chromeOptions", options},
                         {"goog:loggingPrefs", {{"browser", "ALL"}, {"performance", "ALL"}}}};
    driver_->session = driver_->call("", {{"capabilities", {{"alwaysMatch", wanted}}}}).at("sessionId");
}

Browser::~Browser() = default;

void Browser::open(const std::string &url) { driver_->in_session("/url", {{"url", url}}); }

json Browser::run(const std::string &script) {
    return driver_->in_session("/execute/sync", {{"script", script}, {"args", json::array()}});
}

void Browser::click(int x, int y) {
    const json move = {{"type", "pointerMove"}, {"duration", 0}, {"x", x}, {"y", y}};
    const json steps = {move, {{"type", "pointerDown"}, {"button", 0}}, {{"type", "pointerUp"}, {"button", 0}}};
    const json pointer = {{"type", "pointer"}, {"id", "mouse"}, {"actions", steps}};
    driver_->in_session("/actions", {{"actions", json::array({pointer})}});
}

std::string Browser::screenshot() {
    const auto answer = driver_->client->Get("/session/" + driver_->session + "/screenshot");
    return answer ? json::parse(answer->body).at("value").get<std::string>() : "";
}

std::vector<std::string> Browser::errors() {
    std::vector<std::string> found;
    for (const json &entry : driver_->log("browser"))
        if (entry.at("level") == "SEVERE") found.push_back(entry.at("message"));
    return found;
}

std::vector<std::string> Browser::requests() {
    std::vector<std::string> asked;
    for (const json &entry : driver_->log("performance")) {
        const json message = json::parse(entry.at("message").get<std::string>()).at("message");
        if (message.at("method") == "Network.requestWillBeSent")
            asked.push_back(message.at("params").at("request").at("url"));
    }
    return asked;
}

} // namespace fixture
