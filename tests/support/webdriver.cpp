#include "webdriver.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <httplib.h>
#include <poll.h>
#include <sodium.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace webdriver {

namespace {

constexpr const char *kChromium = "/usr/bin/chromium";
constexpr const char *kChromedriver = "/usr/bin/chromedriver";
// The key under which WebDriver hands out an element's id.
constexpr const char *kElementKey = "element-6066-11e4-a52e-4f735466cecf";
constexpr const char *kReady = "ChromeDriver was started successfully on port ";

using nlohmann::json;

} // namespace

std::string missing() {
    if (access(kChromium, X_OK) != 0)
        return std::string(kChromium) + " is not installed (Debian package chromium)";
    if (access(kChromedriver, X_OK) != 0)
        return std::string(kChromedriver) + " is not installed (Debian package chromium-driver)";
    return "";
}

Session::Session(const std::string &profileDir, const std::vector<std::string> &browserArgs) {
    // chromedriver takes a free port for IPv6 and then the same number for
    // IPv4, which another test's server may have taken meanwhile: it then
    // says so and ends, and a second start picks another number.
    std::string got;
    for (int attempt = 0; attempt < 3 && port_ <= 0; attempt++) {
        got = startDriver(profileDir);
        if (port_ <= 0 && got.find("port not available") == std::string::npos)
            break;
    }
    if (port_ <= 0)
        throw std::runtime_error("webdriver: chromedriver did not start: " + got);
    startBrowser(profileDir, browserArgs);
}

std::string Session::startDriver(const std::string &profileDir) {
    int pfd[2], alive[2];
    if (pipe(pfd) != 0)
        throw std::runtime_error("webdriver: no pipe");
    if (pipe(alive) != 0) {
        close(pfd[0]);
        close(pfd[1]);
        throw std::runtime_error("webdriver: no pipe");
    }
    std::string log = "--log-path=" + profileDir + "/chromedriver.log";
    // A keeper heads a process group of its own with chromedriver in it, and
    // with it every browser process.  When the test lets go of the other end
    // of `alive` (on quit, or by dying half-way) the keeper ends the group,
    // so that no browser outlives its test.
    keeper_ = fork();
    if (keeper_ == 0) {
        setpgid(0, 0);
        close(alive[1]);
        pid_t driver = fork();
        if (driver == 0) {
            close(alive[0]);
            int devnull = open("/dev/null", O_RDWR);
            dup2(devnull, 0);
            dup2(pfd[1], 1);
            dup2(devnull, 2);
            close(pfd[0]);
            close(pfd[1]);
            execl(kChromedriver, kChromedriver, "--port=0", log.c_str(),
                  static_cast<char *>(nullptr));
            _exit(127);
        }
        close(pfd[0]);
        close(pfd[1]);
        char c;
        while (read(alive[0], &c, 1) < 0 && errno == EINTR) {
        }
        signal(SIGTERM, SIG_IGN);
        kill(0, SIGTERM);
        if (driver > 0)
            waitpid(driver, nullptr, 0);
        // Whatever still stands of the browser; the keeper goes with it.
        kill(0, SIGKILL);
        _exit(0);
    }
    close(pfd[1]);
    close(alive[0]);
    out_ = pfd[0];
    alive_ = alive[1];
    if (keeper_ < 0) {
        stop();
        throw std::runtime_error("webdriver: cannot fork");
    }
    // chromedriver picks a free port and names it in its ready line.
    std::string got;
    struct pollfd p = {out_, POLLIN, 0};
    for (;;) {
        auto at = got.find(kReady);
        if (at != std::string::npos && got.find('\n', at) != std::string::npos) {
            port_ = std::atoi(got.c_str() + at + std::char_traits<char>::length(kReady));
            break;
        }
        char c;
        if (poll(&p, 1, 30000) <= 0 || read(out_, &c, 1) != 1)
            break;
        got.push_back(c);
    }
    if (port_ <= 0)
        stop();
    return got;
}

void Session::startBrowser(const std::string &profileDir,
                           const std::vector<std::string> &browserArgs) {
    json args = json::array(
        {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-domain-reliability", "--no-proxy-server",
         // Every name but the loopback address resolves to nothing.
         "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1", "--window-size=1280,1024",
         "--user-data-dir=" + profileDir + "/chromium"});
    for (const auto &a : browserArgs)
        args.push_back(a);
    json prefs = {{"credentials_enable_service", false},
                  {"profile.password_manager_enabled", false},
                  {"profile.password_manager_leak_detection", false},
                  {"safebrowsing.enabled", false},
                  {"translate.enabled", false}};
    json caps = {
        {"capabilities",
         {{"alwaysMatch",
           {{"browserName", "chrome"},
            {"pageLoadStrategy", "normal"},
            {"goog:chromeOptions", {{"binary", kChromium}, {"args", args}, {"prefs", prefs}}}}}}}};
    try {
        json v = command("POST", "/session", caps);
        session_ = v.at("sessionId").get<std::string>();
    } catch (...) {
        stop();
        throw;
    }
}

Session::~Session() {
    quit();
}

void Session::quit() {
    if (!session_.empty()) {
        try {
            command("DELETE", "");
        } catch (const std::exception &) {
            // chromedriver takes its browser down with it below.
        }
        session_.clear();
    }
    stop();
}

void Session::stop() {
    if (alive_ >= 0) {
        close(alive_);
        alive_ = -1;
    }
    if (keeper_ > 0) {
        while (waitpid(keeper_, nullptr, 0) < 0 && errno == EINTR) {
        }
        keeper_ = -1;
    }
    if (out_ >= 0) {
        close(out_);
        out_ = -1;
    }
}

// One WebDriver command; path is below /session/ID once there is a
// session.  Returns the answer's "value", throws on an error answer.
json Session::command(const std::string &method, const std::string &path, const json &body) {
    httplib::Client c("127.0.0.1", port_);
    c.set_connection_timeout(10, 0);
    c.set_read_timeout(120, 0);
    c.set_write_timeout(30, 0);
    std::string full = session_.empty() ? path : "/session/" + session_ + path;
    httplib::Result r = method == "GET"      ? c.Get(full)
                        : method == "DELETE" ? c.Delete(full)
                                             : c.Post(full, body.dump(), "application/json");
    if (!r)
        throw std::runtime_error("webdriver: " + method + " " + path +
                                 ": no answer from chromedriver (" + httplib::to_string(r.error()) +
                                 ")");
    json j = json::parse(r->body, nullptr, false);
    if (j.is_discarded() || !j.is_object() || !j.contains("value"))
        throw std::runtime_error("webdriver: " + method + " " + path + ": answer " +
                                 std::to_string(r->status) + " " + r->body);
    const json &v = j["value"];
    if (r->status != 200 || (v.is_object() && v.contains("error"))) {
        std::string code = v.is_object() ? v.value("error", std::string()) : std::string();
        throw Error(code, "webdriver: " + method + " " + path + ": " +
                              (code.empty() ? "status " + std::to_string(r->status) : code) + ": " +
                              (v.is_object() ? v.value("message", std::string()) : ""));
    }
    return v;
}

void Session::navigate(const std::string &url) {
    command("POST", "/url", {{"url", url}});
}

json Session::cookies() {
    return command("GET", "/cookie");
}

void Session::back() {
    command("POST", "/back");
}

std::string Session::url() {
    return command("GET", "/url").get<std::string>();
}

std::string Session::title() {
    return command("GET", "/title").get<std::string>();
}

std::string Session::source() {
    return command("GET", "/source").get<std::string>();
}

Element Session::find(const std::string &css) {
    json v = command("POST", "/element", {{"using", "css selector"}, {"value", css}});
    return {v.at(kElementKey).get<std::string>()};
}

std::vector<Element> Session::findAll(const std::string &css) {
    json v = command("POST", "/elements", {{"using", "css selector"}, {"value", css}});
    std::vector<Element> out;
    for (const auto &e : v)
        out.push_back({e.at(kElementKey).get<std::string>()});
    return out;
}

std::vector<Element> Session::findAll(const Element &within, const std::string &css) {
    json v = command("POST", "/element/" + within.id + "/elements",
                     {{"using", "css selector"}, {"value", css}});
    std::vector<Element> out;
    for (const auto &e : v)
        out.push_back({e.at(kElementKey).get<std::string>()});
    return out;
}

void Session::click(const Element &e) {
    command("POST", "/element/" + e.id + "/click");
}

void Session::clickToLoad(const Element &e) {
    Element page = find("html");
    click(e);
    // The old document's root goes stale once the next document is in;
    // each look waits for chromedriver's answer, and chromedriver waits
    // for a load it knows to be under way.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        try {
            command("GET", "/element/" + page.id + "/name");
        } catch (const Error &err) {
            // Between the two documents chromedriver may also say that the
            // node no longer belongs to the document.
            if (err.code == "stale element reference" || err.code == "no such element" ||
                std::string(err.what()).find("does not belong to the document") !=
                    std::string::npos)
                break;
            throw;
        }
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("webdriver: the click did not lead to another page");
    }
    // Commands wait for a pending load; this one makes sure it is over.
    title();
}

void Session::sendKeys(const Element &e, const std::string &keys) {
    command("POST", "/element/" + e.id + "/value", {{"text", keys}});
}

std::string Session::text(const Element &e) {
    return command("GET", "/element/" + e.id + "/text").get<std::string>();
}

std::string Session::attribute(const Element &e, const std::string &name) {
    json v = command("GET", "/element/" + e.id + "/attribute/" + name);
    return v.is_string() ? v.get<std::string>() : "";
}

void Session::setWindowSize(int width, int height) {
    command("POST", "/window/rect", {{"width", width}, {"height", height}});
}

void Session::screenshot(const std::string &path) {
    std::string b64 = command("GET", "/screenshot").get<std::string>();
    std::string png(b64.size(), '\0');
    size_t len = 0;
    if (sodium_base642bin(reinterpret_cast<unsigned char *>(png.data()), png.size(), b64.data(),
                          b64.size(), nullptr, &len, nullptr, sodium_base64_VARIANT_ORIGINAL) != 0)
        throw std::runtime_error("webdriver: the screenshot is not base64");
    png.resize(len);
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(png.data(), static_cast<std::streamsize>(png.size()));
    if (!f)
        throw std::runtime_error("webdriver: cannot write " + path);
}

json Session::execute(const std::string &script, const json &args) {
    return command("POST", "/execute/sync", {{"script", script}, {"args", args}});
}

} // namespace webdriver
