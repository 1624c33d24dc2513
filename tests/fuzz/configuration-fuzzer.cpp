// Configuration files and changes to them from anybody: what the host lets pass, the plugin and its collector survive.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/mount.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <json/json.h>

#include "config.h"
#include "fuzz/input.h"
#include "fuzz/require.h"
#include "host/config-file.h"
#include "host/firewall-plugin.h"
#include "host/plugin-config.h"

namespace {

bool becomeRootOfUserNamespace() {
    const std::string uid = "0 " + std::to_string(::geteuid()) + " 1";
    const std::string gid = "0 " + std::to_string(::getegid()) + " 1";
    if (::unshare(CLONE_NEWUSER) != 0)
        return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    return static_cast<bool>(std::ofstream("/proc/self/uid_map") << uid << std::flush) &&
           static_cast<bool>(std::ofstream("/proc/self/gid_map") << gid << std::flush);
}

// The plugin's file has a fixed path. Nobody else may see what is written there.
void enterPrivateFolder() {
    const bool entered = (::geteuid() == 0 || becomeRootOfUserNamespace()) && ::unshare(CLONE_NEWNS) == 0 &&
                         ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         ::mount("tmpfs", "/opt", "tmpfs", 0, "mode=0755") == 0;
    if (!entered) {
        std::printf("[  SKIPPED ] no private namespaces here\n");
        std::exit(0);
    }
    boost::filesystem::create_directories(boost::filesystem::path(host::kConfigFile).parent_path());
}

void writeFile(std::string_view text) {
    const int fd = ::open(host::kConfigFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const ssize_t written = ::write(fd, text.data(), text.size());
    fuzz::require(written == static_cast<ssize_t>(text.size()) && ::close(fd) == 0, "the file is written");
}

// The collector goes on with a text that is no number, and dies of one that is out of range.
bool isTaken(const std::string &number) try {
    static_cast<void>(std::stoll(number));
    return true;
} catch (const std::invalid_argument &) {
    return true;
} catch (const std::out_of_range &) {
    return false;
}

// What the plugin, and its collector, read at their start.
bool bearsSettings() {
    try {
        Config config;
        config.get("enabled", false);
        return isTaken(config.get("send_report_interval", false)) && isTaken(config.get("last_send_report_ts", true));
    } catch (const std::exception &) {
        return false;
    }
}

// As the plugin does with a document of the same kind.
void change(const std::string &text) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value document;
    Config config;
    try {
        reader->parse(text.data(), text.data() + text.size(), &document, nullptr);
        config.update(document);
    } catch (const std::exception &) {
        // Logged, and the reply is one of success.
    }
}

bool check(std::string_view shown) {
    const bool passes = host::judgeConfig(host::configText()).problem.empty();
    fuzz::require(passes == bearsSettings(), "the host refuses what the plugin cannot bear, and nothing else", shown);
    return passes;
}

} // namespace

// The file as it is found, up to the end of the line, and a change to it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool entered = (enterPrivateFolder(), true);
    static_cast<void>(entered);
    const std::string_view shown(reinterpret_cast<const char *>(data), size);
    fuzz::Input input(data, size);
    writeFile(input.takeUntil('\n'));
    const bool passed = check(shown);
    if (!input.atEnd()) {
        const std::string document(input.rest());
        const bool mayChange = passed && host::changeProblem(host::configText(), document).empty();
        change(document);
        fuzz::require(check(shown) || !mayChange, "a change that the host lets pass leaves what the plugin bears",
                      shown);
    }
    return 0;
}
