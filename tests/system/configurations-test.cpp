// Whatever lies where the plugin's configuration belongs, the firewall comes up with the stored rules in force.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/process.h"
#include "support/random-seed.h"
#include "support/whole-system.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;

const std::string kFile = wholesystem::kConfiguration;

wholesystem::System::Options simulated() {
    wholesystem::System::Options options;
    options.simulate = true;
    return options;
}

// Texts that a configuration may hold by accident or by malice: sound ones, of wrong types, cut, binary, huge, nested.
class Texts {
public:
    explicit Texts(unsigned seed) : random_(seed) {}

    std::string next() {
        std::string text = object(0);
        switch (below(10)) {
        case 0:
            return value(0); // any value, not only an object
        case 1:
            return text.substr(0, below(text.size() + 1)); // as after a kill
        case 2:
            return flipped(std::move(text));
        case 3:
            return bytes(below(300));
        case 4:
            return std::string(1 + below(3000), below(2) == 0 ? '[' : '{') + text;
        case 5:
            return text + bytes(below(20));
        default:
            return text;
        }
    }
    std::size_t below(std::size_t end) { return std::uniform_int_distribution<std::size_t>(0, end - 1)(random_); }

private:
    std::string bytes(std::size_t count) {
        std::string text(count, '\0');
        for (char &byte : text)
            byte = static_cast<char>(below(256));
        return text;
    }
    std::string flipped(std::string text) {
        for (int i = 0; i < 3; ++i) {
            char &byte = text[below(text.size())];
            byte = static_cast<char>(static_cast<unsigned char>(byte) ^ (1U << below(8)));
        }
        return text;
    }
    std::string name() {
        static const std::vector<std::string> names = {
            "enabled", "send_report_interval", "last_send_report_ts", "config_version", "db_max_size", "", "other",
            "\\u0000"};
        return '"' + names[below(names.size())] + '"';
    }
    std::string number() {
        static const std::vector<std::string> numbers = {
            "0", "1", "-1", "86400", "4294967296", "12345678901234567890", "1e999", "-1e-999", "1.5", "00", "1e30"};
        return numbers[below(numbers.size())];
    }
    std::string value(int depth) {
        static const std::vector<std::string> plain = {"null", "true",        "false", "\"1\"", "\"0\"",
                                                       "\"\"", "\"\\ud800\"", "nul",   "\"1"};
        const std::size_t kind = below(depth < 12 ? 6 : 3);
        if (kind == 0)
            return number();
        if (kind == 1)
            return '"' + number() + '"';
        if (kind == 2)
            return plain[below(plain.size())];
        return kind == 3 ? list(depth) : kind == 4 ? object(depth + 1) : "\"" + std::string(below(20'000), 'x') + "\"";
    }
    std::string list(int depth) {
        std::string text = "[";
        for (std::size_t i = below(4); i > 0; --i)
            text += value(depth + 1) + (i > 1 ? "," : "");
        return text + "]";
    }
    std::string object(int depth) {
        std::string text = "{";
        for (std::size_t i = below(6); i > 0; --i)
            text += name() + ":" + value(depth + 1) + (i > 1 ? "," : "");
        return text + "}";
    }

    std::mt19937 random_;
};

// With two stored rules, in force after a start.
class AnyConfiguration : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(system_.start());
        ASSERT_EQ(system_.execute("ApplyDenyRules", "tcp:192.0.2.1:80:in"), 0);
        ASSERT_EQ(system_.execute("ApplyAllowRules", "udp:192.0.2.2:53:out"), 0);
    }

    void expectRulesInForce(const std::string &configuration) {
        process::Result status;
        // A service that a busy machine keeps from answering in time answers later.
        EXPECT_TRUE(process::waitUntil([&] { return (status = system_.control({"status"})).status == 0; }))
            << status.output << status.errors << "with: " << configuration;
        EXPECT_THAT(status.output, HasSubstr("in force 1 allow, 1 deny")) << configuration;
    }

    // The chains of the simulated service go with it, so only a start that succeeds brings them back.
    void startAnew(const std::string &configuration) {
        system_.killHost();
        system_.killService();
        ASSERT_TRUE(system_.start()) << "with: " << configuration;
        expectRulesInForce(configuration);
    }

    wholesystem::System system_{simulated()};
};

TEST_F(AnyConfiguration, LetsTheFirewallComeUp) {
    Texts texts(seeds::seedOfThisRun());
    const std::size_t steps = seeds::stepsOfThisRun(60);
    for (std::size_t step = 0; step < steps && !HasFailure(); ++step) {
        const std::string text = texts.next();
        std::ofstream(kFile) << text;
        if (texts.below(3) == 0)
            fs::remove(kFile + ".good");
        SCOPED_TRACE("configuration " + std::to_string(step));
        startAnew(text);
    }
}

TEST_F(AnyConfiguration, LetsTheFirewallComeUpWhateverKindOfFileItIs) {
    const std::vector<std::function<void()>> kinds = {
        [] { fs::create_directories(kFile + "/full"); },
        [] { ASSERT_EQ(::mkfifo(kFile.c_str(), 0666), 0); },
        [] { fs::create_symlink("/dev/zero", kFile); },
        [] { fs::create_symlink(kFile, kFile); },
        [] {
            std::ofstream(kFile) << R"({"enabled":"0"})";
            fs::permissions(kFile, fs::perms::none);
        },
        [] {
            fs::remove_all(fs::path(kFile).parent_path());
            std::ofstream(fs::path(kFile).parent_path()) << "a file";
        },
        [] {
            fs::remove_all("/opt/data/vpk/dplugins");
            fs::create_symlink("/nowhere", "/opt/data/vpk/dplugins");
        },
    };
    for (std::size_t kind = 0; kind < kinds.size() && !HasFailure(); ++kind) {
        fs::remove_all(kFile);
        kinds[kind]();
        startAnew("kind " + std::to_string(kind));
    }
}

TEST_F(AnyConfiguration, IsPutAsideAndNamedAlsoAfterTheNextStart) {
    ASSERT_EQ(system_.execute("StatCollectorPolicy", R"({"send_report_interval":"3600"})"), 0);
    std::ofstream(kFile) << R"({"enabled":{}})";
    for (int start = 0; start < 2; ++start) {
        startAnew(R"({"enabled":{}})");
        EXPECT_THAT(system_.control({"status"}).output,
                    AllOf(HasSubstr("settings     "), HasSubstr("config.json.refused was put aside: the value of "
                                                                "\"enabled\" must be a string, \"1\" or \"0\"")));
    }
    EXPECT_THAT(wholesystem::contentOf(kFile), HasSubstr(R"("send_report_interval":"3600")"));
    EXPECT_EQ(wholesystem::contentOf(kFile + ".refused"), R"({"enabled":{}})");
    fs::remove(kFile + ".refused");
    EXPECT_THAT(system_.control({"status"}).output, testing::Not(HasSubstr("settings     ")));
}

TEST_F(AnyConfiguration, IsNotMadeByACommand) {
    for (const char *document : {R"({"enabled":{}})", R"({"enabled":)", R"({"send_report_interval":[1]})",
                                 R"({"last_send_report_ts":"99999999999999999999"})", "[]", "garbage"}) {
        const std::string before = wholesystem::contentOf(kFile);
        const auto result = system_.control({"exec", "StatCollectorPolicy", document});
        EXPECT_EQ(result.status, 2) << document;
        EXPECT_THAT(result.errors, HasSubstr("the settings are refused, and nothing is changed: ")) << document;
        EXPECT_EQ(wholesystem::contentOf(kFile), before);
    }
    ASSERT_EQ(system_.control({"reload"}).status, 0);
    startAnew("as it was");
}

TEST_F(AnyConfiguration, IsNotSaidToBeStoredWhenItIsNot) {
    fs::remove(kFile); // the plugin then writes its defaults, and drops the change
    const auto result = system_.control({"exec", "StatCollectorPolicy", R"({"send_report_interval":"3600"})"});
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.errors, HasSubstr("the settings were not stored; try again"));
    EXPECT_EQ(system_.control({"exec", "StatCollectorPolicy", R"({"send_report_interval":"3600"})"}).status, 0);
    EXPECT_THAT(wholesystem::contentOf(kFile + ".good"), HasSubstr(R"("send_report_interval":"3600")"));
}

TEST_F(AnyConfiguration, IsNotWrittenBackByAPluginThatAReloadHasReplaced) {
    std::ofstream(kFile) << R"({"enabled":"0","mark":"1"})"; // after the plugin has read it
    ASSERT_EQ(system_.control({"reload"}).status, 0);
    std::ofstream(kFile) << R"({"enabled":"0","mark":"2"})";
    ASSERT_EQ(system_.control({"reload"}).status, 0);
    EXPECT_THAT(wholesystem::contentOf(kFile), HasSubstr(R"("mark":"2")"));
}

TEST_F(AnyConfiguration, IsOnTheDiskBeforeTheReply) {
    // What the host syncs between the plugin's write and the answer, as the kernel sees it.
    if (process::capture({"strace", "-V"}).status != 0)
        GTEST_SKIP() << "strace is not installed";
    const std::string trace = "/run/trace";
    process::Child strace(
        {"strace", "-y", "-e", "trace=fsync,sendto,rename", "-o", trace, "-p", std::to_string(system_.hostId())});
    ASSERT_TRUE(process::waitUntil([&] { return strace.errors().find("attached") != std::string::npos; }))
        << strace.errors();
    ASSERT_EQ(system_.execute("StatCollectorPolicy", R"({"send_report_interval":"1800"})"), 0);
    strace.terminate();
    const std::string calls = wholesystem::contentOf(trace);
    const auto file = calls.find("config/config.json>) ");
    const auto folder = calls.find("nyr-firewall-plugin/config>) ");
    const auto reply = calls.rfind("sendto(");
    ASSERT_NE(file, std::string::npos) << calls;
    ASSERT_NE(folder, std::string::npos) << calls;
    EXPECT_LT(std::max(file, folder), reply) << calls;
}

} // namespace
