// A real browser for the tests: headless Chromium driven through
// chromedriver over the W3C WebDriver protocol.  chromedriver runs as a
// child on a loopback port of its own choosing, and the browser is told to
// reach nothing beyond loopback: no proxy, no name lookups, none of its
// background services.

#ifndef KOB_WEBDRIVER_H
#define KOB_WEBDRIVER_H

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <vector>

namespace webdriver {

// Why no browser can run here ("" when chromium and chromedriver are both
// installed).
std::string missing();

// An error answer from chromedriver; code is WebDriver's name for it
// ("no such element", "stale element reference", ...).
struct Error : std::runtime_error {
    Error(const std::string &code, const std::string &what)
        : std::runtime_error(what), code(code) {}
    std::string code;
};

struct Element {
    std::string id;
};

class Session {
  public:
    // Starts chromedriver and a headless Chromium with a fresh profile in
    // profileDir (which must exist); chromedriver's log goes there too.
    // browserArgs are added to Chromium's command line.  Throws
    // std::runtime_error when either does not come up.
    explicit Session(const std::string &profileDir,
                     const std::vector<std::string> &browserArgs = {});
    ~Session();
    // Closes the browser and stops chromedriver; nothing else may follow.
    void quit();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // Loads url and returns once the page has loaded.
    void navigate(const std::string &url);
    void back();
    std::string url();
    std::string title();
    // The document as the browser holds it now (serialised DOM).
    std::string source();
    // The cookies the browser holds for the page on show, as WebDriver
    // lists them (name, value, path, secure, httpOnly, ...).
    nlohmann::json cookies();

    // The first element matching a CSS selector; throws when there is none.
    Element find(const std::string &css);
    std::vector<Element> findAll(const std::string &css);
    // The elements matching css inside another one.
    std::vector<Element> findAll(const Element &within, const std::string &css);
    void click(const Element &e);
    // Clicks a link or a form's button and returns once the browser has
    // left the page for the next one and loaded it.  chromedriver alone may
    // answer a click before a form's submission has begun.
    void clickToLoad(const Element &e);
    void sendKeys(const Element &e, const std::string &keys);
    // The element's rendered text.
    std::string text(const Element &e);
    std::string attribute(const Element &e, const std::string &name);

    void setWindowSize(int width, int height);
    // The viewport as a PNG file.
    void screenshot(const std::string &path);
    // Runs a function body in the page (for reading state only) and
    // returns its result.
    nlohmann::json execute(const std::string &script,
                           const nlohmann::json &args = nlohmann::json::array());

  private:
    nlohmann::json command(const std::string &method, const std::string &path,
                           const nlohmann::json &body = nlohmann::json::object());
    void stop();
    // chromedriver started, and port_ set when it says it is ready; returns
    // what it printed.
    std::string startDriver(const std::string &profileDir);
    void startBrowser(const std::string &profileDir, const std::vector<std::string> &browserArgs);

    pid_t keeper_ = -1; // heads the process group of chromedriver and the browser
    int alive_ = -1;    // closing it tells the keeper to end them
    int out_ = -1;      // chromedriver's standard output, kept open so it never gets SIGPIPE
    int port_ = 0;
    std::string session_;
};

} // namespace webdriver

#endif
